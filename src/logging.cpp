// Delivery of diagnostic lines to the application's OnLog.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "daxo_internal.h"

extern "C" void LogMessage(DAXO_Client* client, const char* message) noexcept {
  if (client != nullptr && client->OnLog != nullptr)
    client->OnLog(client, message, client->callbackParameter);
}

extern "C" void LogCallback(struct mosquitto* /*mosq*/, void* obj, int /*level*/,
                            const char* str) noexcept {
  if (obj != nullptr && str != nullptr) LogMessage(static_cast<DAXO_Client*>(obj), str);
}

namespace daxo {

void LogFormat(DAXO_Client* client, const char* fmt, ...) noexcept {
  if (client == nullptr || client->OnLog == nullptr) return;
  va_list args;
  va_start(args, fmt);
  char* line = nullptr;
  int n = vasprintf(&line, fmt, args);
  va_end(args);
  if (n < 0) return;
  client->OnLog(client, line, client->callbackParameter);
  free(line);
}

}  // namespace daxo
