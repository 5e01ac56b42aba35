// The inbound dispatcher: every message on the client's tree arrives here,
// is checked against the client and the API version, and is routed on its
// topic levels to exactly one application callback.
#include <optional>
#include <string_view>

#include "c_handles.h"
#include "daxo_internal.h"
#include "string_utils.h"

namespace {

// Level `position` exists, is present and equals keyword.
bool LevelIs(char** topics, int count, int position, std::string_view keyword) noexcept {
  return position < count && topics[position] != nullptr && keyword == topics[position];
}

// The agent's code of an error reply; an unreadable reply is logged and
// gives nothing.
std::optional<DAXO_ApiError> ReadErrorReply(DAXO_Client* client, const char* message,
                                            const char* topic) noexcept {
  int code = 0;
  if (!ParseErrorMessage(message, &code, nullptr)) {
    LogParseErrorMessage(client, topic, message);
    return std::nullopt;
  }
  return GetApiErrorCode(code);
}

DAXO_Error ProcessPing(DAXO_Client* client, char** topics, int count, const char* message,
                       const char* topic) noexcept {
  DAXO_OnCheckConnection callback = client->OnCheckConnection;
  if (count != 6 || !LevelIs(topics, count, TopicIndexClientIdPingInfoInbox, "inbox") ||
      callback == nullptr)
    return DAXO_Error_Success;
  if (LevelIs(topics, count, TopicIndexClientIdPingInfo, "info")) {
    callback(client, client->callbackParameter, DAXO_ApiError_NoError);
  } else if (LevelIs(topics, count, TopicIndexClientIdPingError, "error")) {
    if (auto code = ReadErrorReply(client, message, topic))
      callback(client, client->callbackParameter, *code);
  }
  return DAXO_Error_Success;
}

using AreaHandler = DAXO_Error (*)(DAXO_Client*, char**, int, const char*, const char*) noexcept;

// Level 3 names the area of the tree; each area routes its own levels.
struct Area {
  TopicIndexTag position;
  std::string_view keyword;
  AreaHandler handler;
};

constexpr Area kAreas[] = {
    {TopicIndexClientIdPing, "ping", ProcessPing},
};

}  // namespace

extern "C" DAXO_Error ProcessClientCommands(DAXO_Client* client, char** topics,
                                            const int topicCount, const char* message,
                                            const char* topic) noexcept {
  for (const Area& area : kAreas) {
    if (LevelIs(topics, topicCount, area.position, area.keyword))
      return area.handler(client, topics, topicCount, message, topic);
  }
  return DAXO_Error_Success;  // no area of ours: dropped
}

extern "C" DAXO_Error DispatchResponse(DAXO_Client* client, const char* topic,
                                       const char* message) noexcept {
  if (client == nullptr || topic == nullptr || message == nullptr)
    return DAXO_Error_InvalidArguments;
  if (client->OnLog != nullptr) {
    daxo::CStr line = daxo::Format("DispatchResponse: %s\n%s", topic, message);
    if (!line) return DAXO_Error_NoMemory;  // the message is dropped with its line
    client->OnLog(client, line.get(), client->callbackParameter);
  }
  daxo::TopicLevels levels;
  if (!levels.Tokenise(topic)) return DAXO_Error_NoMemory;
  char** topics = levels.Levels();
  int count = levels.Count();
  // Without an identifier nothing is addressed to this client.
  if (client->clientId == nullptr) return DAXO_Error_InvalidArguments;
  if (count > TopicIndexApiVersion &&
      !LevelIs(topics, count, TopicIndexApiVersion, daxo::kApiVersion))
    return DAXO_Error_InvalidArguments;
  if (count > TopicIndexClientId && !LevelIs(topics, count, TopicIndexClientId, client->clientId))
    return DAXO_Error_InvalidArguments;
  if (count <= TopicIndexClientIdSensor || topics[TopicIndexClientIdSensor] == nullptr)
    return DAXO_Error_InvalidArguments;
  return ProcessClientCommands(client, topics, count, message, topic);
}

extern "C" void MessageCallback(struct mosquitto* /*mosq*/, void* obj,
                                const struct mosquitto_message* message) noexcept {
  auto* client = static_cast<DAXO_Client*>(obj);
  if (client == nullptr || message == nullptr || message->topic == nullptr ||
      message->payload == nullptr || message->payloadlen == 0)
    return;
  DispatchResponse(client, message->topic, static_cast<const char*>(message->payload));
}
