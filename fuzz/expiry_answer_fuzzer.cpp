// The handler of the agent's answers to the daily certificate check, and
// the date reading under it.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static DAXO_Client* const client = [] {
    setenv("TZ", "UTC", 1);  // the same answer on every machine
    DAXO_Client* c = fuzz::NewClient();
    fuzz::StandInForWatchThread(c);
    c->OnCertificateRenew = [](DAXO_Client*, void*, DAXO_Error) {};
    return c;
  }();
  static FakeMqtt& fake = fuzz::Connect(client, "client-1");
  static char version[] = "v1.0", id[] = "client-1", area[] = "checkExpireDate",
              inbox[] = "inbox";
  static char* levels[] = {nullptr, version, id, area, inbox};
  std::string message(reinterpret_cast<const char*>(data), size);
  fuzz::PendingRenewal(client);
  ProcessCheckExpireDateCommand(client, levels, 5, message.c_str(),
                                "/v1.0/client-1/checkExpireDate/inbox");
  fuzz::TakeRenewalTask(client);
  fake.publishes.clear();
  for (int days : {0, 30, -1}) WillDateExpireInDays(message.c_str(), days);
  return 0;
}
