// The sensor list reply parser.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::ParseRecord(data, size, CreateSensorsInfo, DAXO_DestroySensorsInfo);
}
