// The handler of the replies to a provisioning request, on the provisioning
// instance of a client whose request is pending. The input is
// "levels\npayload": levels starting with '!' are the whole topic after it,
// any others follow "/certBack/<digest of the pending request>".
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static DAXO_Client* const client = [] {
    DAXO_Client* c = fuzz::NewClient();
    DAXO_LogCallbackSet(c, [](DAXO_Client*, const char* line, void*) { fuzz::Touch(line); });
    DAXO_ProvisionClientCallbackSet(c, [](DAXO_Client*, void*, DAXO_Error) {});
    c->OnProvision = ProvisionCallback;
    if (ProvisionClient(c, nullptr) != DAXO_Error_Success) abort();
    FakeMqtt::Last()->FireConnect(0);
    return c;
  }();
  static FakeMqtt& fake = *FakeMqtt::Last();
  // Every reply ends the exchange; the next input answers the same request.
  static const std::string digest = client->provisionDigest;
  if (client->provisionDigest == nullptr) client->provisionDigest = strdup(digest.c_str());
  auto [levels, payload] = fuzz::SplitAtNewline(data, size);
  std::string topic = levels.rfind('!', 0) == 0 ? levels.substr(1) : "/certBack/" + digest + levels;
  fake.Deliver(topic, payload);
  fake.publishes.clear();
  return 0;
}
