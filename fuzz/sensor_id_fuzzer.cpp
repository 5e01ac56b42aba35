// The parser of the reply to a sensor creation.
#include <cstdlib>
#include <string>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string message(reinterpret_cast<const char*>(data), size);
  char* name = nullptr;
  char* sensorId = nullptr;
  if (ParseSensorId(message.c_str(), &name, &sensorId)) {
    fuzz::Touch(name);
    fuzz::Touch(sensorId);
  } else if (name != nullptr || sensorId != nullptr) {
    abort();  // nothing is handed over on failure
  }
  free(name);
  free(sensorId);
  return 0;
}
