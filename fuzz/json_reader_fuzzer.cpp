// The library's JSON reader against json-c's tokener: whatever the reader
// accepts, json-c accepts too and reads as the same document. (json-c is the
// more lenient of the two: comments, single quotes, trailing commas and text
// after the value pass there, and are refused here.)
#include <json-c/json.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A message reaches the reader as text up to its first NUL.
  std::string text(reinterpret_cast<const char*>(data), size);
  daxo::JsonPtr ours = daxo::ParseJson(text.c_str());
  if (!ours) return 0;
  daxo::JsonPtr theirs(json_tokener_parse(text.c_str()));
  if (!theirs || !json_object_equal(ours.get(), theirs.get())) {
    std::fprintf(stderr, "reader: %s\njson-c: %s\n", json_object_to_json_string(ours.get()),
                 theirs ? json_object_to_json_string(theirs.get()) : "(refused)");
    abort();
  }
  return 0;
}
