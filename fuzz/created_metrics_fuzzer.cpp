// The parser of the reply to a metric creation.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::ParseRecord(
      data, size, [](const char* message) { return CreateCreatedMetrics(message, "s1"); },
      DAXO_DestroyCreatedMetrics);
}
