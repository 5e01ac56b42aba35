// Delivery of diagnostic lines to the application's OnLog.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daxo_internal.h"
#include "string_utils.h"

extern "C" void LogMessage(DAXO_Client* client, const char* message) noexcept {
  if (client != nullptr && client->OnLog != nullptr)
    client->OnLog(client, message, client->callbackParameter);
}

extern "C" void LogCallback(struct mosquitto* /*mosq*/, void* obj, int /*level*/,
                            const char* str) noexcept {
  if (obj != nullptr && str != nullptr) LogMessage(static_cast<DAXO_Client*>(obj), str);
}

namespace daxo {

bool LogPayload(DAXO_Client* client, const char* label, const char* topic,
                const char* payload) noexcept {
  if (client == nullptr || client->OnLog == nullptr) return true;
  size_t length = strlen(payload);
  int shown = static_cast<int>(length < kLoggedPayloadMax ? length : kLoggedPayloadMax);
  char more[64] = "";
  if (length > kLoggedPayloadMax)
    snprintf(more, sizeof more, "... (%zu bytes, the first %zu logged)", length, kLoggedPayloadMax);
  CStr line = topic != nullptr ? Format("%s: %s\n%.*s%s", label, topic, shown, payload, more)
                               : Format("%s: %.*s%s", label, shown, payload, more);
  if (!line) return false;
  client->OnLog(client, line.get(), client->callbackParameter);
  return true;
}

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
