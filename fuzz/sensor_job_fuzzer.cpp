// The parser of the agent's sensor job, as the dispatcher uses it.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::ParseRecord(data, size, CreateSensorMetadataEx, DAXO_DestroySensorMetadata);
}
