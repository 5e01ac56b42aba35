// The parser of a metric description.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::ParseRecord(data, size, CreateMetricMetadata, DAXO_DestroyMetricMetadata);
}
