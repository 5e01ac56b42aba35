// The reader of the agent's error replies.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "daxo_internal.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string message(reinterpret_cast<const char*>(data), size);
  int code = 0;
  char* text = nullptr;
  if (ParseErrorMessage(message.c_str(), &code, &text)) {
    fuzz::Touch(text);
    GetApiErrorCode(code);
    ConvertApiError(code);
  } else if (text != nullptr) {
    abort();  // nothing is handed over on failure
  }
  free(text);
  ParseErrorMessage(message.c_str(), &code, nullptr);
  return 0;
}
