// The inbound dispatcher: every message on the client's tree arrives here,
// is checked against the client and the API version, and is routed on its
// topic levels to exactly one application callback. Error replies carry the
// agent's code; records parsed from replies become the application's.
#include <optional>
#include <string_view>

#include "c_handles.h"
#include "daxo_internal.h"
#include "string_utils.h"

namespace {

// One received message with its topic levels.
struct Message {
  DAXO_Client* client;
  char** topics;
  int count;
  const char* payload;
  const char* topic;

  // Level i when it exists and is not empty, else null.
  const char* Level(int i) const noexcept { return i < count ? topics[i] : nullptr; }
  bool LevelIs(int i, std::string_view keyword) const noexcept {
    const char* level = Level(i);
    return level != nullptr && keyword == level;
  }
  void* Parameter() const noexcept { return client->callbackParameter; }
};

// Delivers an error reply through deliver(callback, code); a reply nobody
// waits for is not even read, and one that cannot be read is logged.
template <class Callback, class Deliver>
void ErrorReply(const Message& m, Callback callback, Deliver deliver) noexcept {
  if (callback == nullptr) return;
  int code = 0;
  if (!ParseErrorMessage(m.payload, &code, nullptr))
    return LogParseErrorMessage(m.client, m.topic, m.payload);
  deliver(callback, GetApiErrorCode(code));
}

// Replies that report on one sensor ("info" or "error", then "inbox") share
// one callback shape.
using SensorReply = void (*)(DAXO_Client*, void*, const char*, DAXO_ApiError);

struct StatusRoute {
  int keywordLevel;  // where keyword sits; 0: the status word alone decides
  std::string_view keyword;
  int count;
  int statusLevel;  // "info" or "error"; "inbox" follows it
  SensorReply DAXO_Client::*callback;
};

constexpr StatusRoute kSensorStatusRoutes[] = {
    {TopicIndexSensorIdUpdate, "update", 8, TopicIndexSensorIdUpdateInfo,
     &DAXO_Client::OnModifySensor},
    {TopicIndexSensorIdDelete, "delete", 8, TopicIndexSensorIdDeleteInfo,
     &DAXO_Client::OnDeleteSensor},
    {0, "", 7, TopicIndexSensorIdInfo, &DAXO_Client::OnPushMetricValues},
};

constexpr StatusRoute kMetricStatusRoutes[] = {
    {TopicIndexMetricDelete, "delete", 9, TopicIndexMetricDeleteInfo,
     &DAXO_Client::OnDeleteMetrics},
    {TopicIndexMetricUpdate, "update", 9, TopicIndexMetricUpdateInfo,
     &DAXO_Client::OnUpdateMetrics},
};

void StatusReply(const Message& m, const StatusRoute& route, const char* sensorId) noexcept {
  if (m.count != route.count || !m.LevelIs(route.statusLevel + 1, "inbox")) return;
  if (route.callback == &DAXO_Client::OnPushMetricValues && daxo::PushStoreOn(m.client)) {
    DAXO_ApiError code = DAXO_ApiError_NoError;
    if (m.LevelIs(route.statusLevel, "error")) {
      int number = 0;
      if (!ParseErrorMessage(m.payload, &number, nullptr))
        LogParseErrorMessage(m.client, m.topic, m.payload);
      code = GetApiErrorCode(number);
    }
    // An unreadable error answer still ends its push.
    if (m.LevelIs(route.statusLevel, "info") || m.LevelIs(route.statusLevel, "error"))
      daxo::StoreAnswered(m.client, sensorId, code);
    return;
  }
  SensorReply callback = m.client->*route.callback;
  if (m.LevelIs(route.statusLevel, "info")) {
    if (callback != nullptr) callback(m.client, m.Parameter(), sensorId, DAXO_ApiError_NoError);
  } else if (m.LevelIs(route.statusLevel, "error")) {
    ErrorReply(m, callback, [&](SensorReply cb, DAXO_ApiError code) {
      cb(m.client, m.Parameter(), sensorId, code);
    });
  }
}

// True when one of routes claims the message (and has dealt with it).
template <size_t N>
bool RouteStatus(const Message& m, const StatusRoute (&routes)[N], const char* sensorId) noexcept {
  for (const StatusRoute& route : routes) {
    bool claimed = route.keywordLevel != 0
                       ? m.LevelIs(route.keywordLevel, route.keyword)
                       : m.LevelIs(route.statusLevel, "info") || m.LevelIs(route.statusLevel, "error");
    if (!claimed) continue;
    StatusReply(m, route, sensorId);
    return true;
  }
  return false;
}

void CreatedMetricsReply(const Message& m, const char* sensorId) noexcept {
  DAXO_OnCreateMetrics callback = m.client->OnCreateMetrics;
  if (callback == nullptr) return;
  if (DAXO_CreatedMetrics* metrics = CreateCreatedMetrics(m.payload, sensorId))
    callback(m.client, m.Parameter(), metrics, DAXO_ApiError_NoError);
}

void DescribeMetricReply(const Message& m, const char* sensorId) noexcept {
  DAXO_OnDescribeMetric callback = m.client->OnDescribeMetric;
  if (m.count == 9 && m.LevelIs(TopicIndexMetricIdInventoryInbox, "inbox")) {
    if (callback == nullptr) return;
    if (DAXO_MetricMetadata* metric = CreateMetricMetadata(m.payload))
      callback(m.client, sensorId, metric, m.Parameter(), DAXO_ApiError_NoError);
  } else if (m.count == 10 && m.LevelIs(TopicIndexMetricIdInventoryError, "error") &&
             m.LevelIs(TopicIndexMetricIdInventoryErrorInbox, "inbox")) {
    ErrorReply(m, callback, [&](DAXO_OnDescribeMetric cb, DAXO_ApiError code) {
      cb(m.client, sensorId, nullptr, m.Parameter(), code);
    });
  }
}

void CreateSensorReply(const Message& m) noexcept {
  DAXO_OnCreateSensor callback = m.client->OnCreateSensor;
  char* name = nullptr;
  char* sensorId = nullptr;
  if (callback == nullptr || !ParseSensorId(m.payload, &name, &sensorId)) return;
  daxo::CStr ownedName(name), ownedId(sensorId);
  callback(m.client, m.Parameter(), name, sensorId, DAXO_ApiError_NoError);
}

void SensorJobCreate(const Message& m) noexcept {
  DAXO_OnCreateSensorJob callback = m.client->OnCreateSensorJob;
  if (callback == nullptr) return;
  if (DAXO_SensorMetadata* sensor = CreateSensorMetadataEx(m.payload))
    callback(m.client, sensor, m.Parameter());
}

// Replies and commands about one existing sensor (level 4 its id).
void ProcessSensorId(const Message& m, const char* sensorId) noexcept {
  if (m.LevelIs(TopicIndexSensorIdJob, "job")) {
    if (m.count == 7 && m.LevelIs(TopicIndexSensorIdJobDelete, "delete") &&
        m.client->OnDeleteSensorJob != nullptr)
      m.client->OnDeleteSensorJob(m.client, sensorId, m.Parameter());
    return;
  }
  if (RouteStatus(m, kSensorStatusRoutes, sensorId)) return;
  if (m.count > TopicIndexMetricId && m.LevelIs(TopicIndexSensorIdMetric, "metric"))
    ProcessMetricCommands(m.client, sensorId, m.topics, m.count, m.payload, m.topic);
}

DAXO_Error ProcessPing(const Message& m) noexcept {
  DAXO_OnCheckConnection callback = m.client->OnCheckConnection;
  if (m.count != 6 || !m.LevelIs(TopicIndexClientIdPingInfoInbox, "inbox")) return DAXO_Error_Success;
  if ((m.LevelIs(TopicIndexClientIdPingInfo, "info") ||
       m.LevelIs(TopicIndexClientIdPingError, "error")) &&
      daxo::StoreCheckAnswered(m.client))
    return DAXO_Error_Success;
  if (m.LevelIs(TopicIndexClientIdPingInfo, "info")) {
    if (callback != nullptr) callback(m.client, m.Parameter(), DAXO_ApiError_NoError);
  } else if (m.LevelIs(TopicIndexClientIdPingError, "error")) {
    ErrorReply(m, callback, [&](DAXO_OnCheckConnection cb, DAXO_ApiError code) {
      cb(m.client, m.Parameter(), code);
    });
  }
  return DAXO_Error_Success;
}

DAXO_Error ProcessInventory(const Message& m) noexcept {
  DAXO_OnListSensors callback = m.client->OnListSensors;
  if (m.LevelIs(TopicIndexClientIdInventoryInbox, "inbox")) {
    if (callback == nullptr) return DAXO_Error_Success;
    if (DAXO_SensorsInfo* sensors = CreateSensorsInfo(m.payload))
      callback(m.client, sensors, m.Parameter(), DAXO_ApiError_NoError);
  } else if (m.count == 6 && m.LevelIs(TopicIndexClientIdInventoryError, "error") &&
             m.LevelIs(TopicIndexClientIdInventoryErrorInbox, "inbox")) {
    ErrorReply(m, callback, [&](DAXO_OnListSensors cb, DAXO_ApiError code) {
      cb(m.client, nullptr, m.Parameter(), code);
    });
  }
  return DAXO_Error_Success;
}

DAXO_Error ProcessSensor(const Message& m) noexcept {
  return ProcessSensorCommands(m.client, m.topics, m.count, m.payload, m.topic);
}

// Level 3 names the area of the tree; each area routes its own levels.
struct Area {
  TopicIndexTag position;
  std::string_view keyword;
  DAXO_Error (*handler)(const Message&) noexcept;
};

DAXO_Error ProcessCheckExpireDate(const Message& m) noexcept {
  return ProcessCheckExpireDateCommand(m.client, m.topics, m.count, m.payload, m.topic);
}

DAXO_Error ProcessRenewCertificate(const Message& m) noexcept {
  return ProcessNewCertificateCommand(m.client, m.topics, m.count, m.payload, m.topic);
}

constexpr Area kAreas[] = {
    {TopicIndexClientIdCheckExpireDate, "checkExpireDate", ProcessCheckExpireDate},
    {TopicIndexClientIdRenewCertificate, "renewCertificate", ProcessRenewCertificate},
    {TopicIndexClientIdPing, "ping", ProcessPing},
    {TopicIndexClientIdInventory, "inventory", ProcessInventory},
    {TopicIndexClientIdSensor, "sensor", ProcessSensor},
};

}  // namespace

extern "C" DAXO_Error ProcessMetricCommands(DAXO_Client* client, const char* sensorId,
                                            char** topics, const int topicCount,
                                            const char* message, const char* topic) noexcept {
  const Message m{client, topics, topicCount, message, topic};
  if (m.count == 7) {
    if (m.LevelIs(TopicIndexMetricInbox, "inbox")) CreatedMetricsReply(m, sensorId);
  } else if (m.LevelIs(TopicIndexMetricError, "error")) {
    if (m.count == 8 && m.LevelIs(TopicIndexMetricErrorInbox, "inbox"))
      ErrorReply(m, client->OnCreateMetrics, [&](DAXO_OnCreateMetrics cb, DAXO_ApiError code) {
        cb(client, m.Parameter(), nullptr, code);
      });
  } else if (!RouteStatus(m, kMetricStatusRoutes, sensorId) && m.Level(TopicIndexMetricId) &&
             m.LevelIs(TopicIndexMetricIdInventory, "inventory")) {
    DescribeMetricReply(m, sensorId);
  }
  return DAXO_Error_Success;
}

extern "C" DAXO_Error ProcessSensorCommands(DAXO_Client* client, char** topics,
                                            const int topicCount, const char* message,
                                            const char* topic) noexcept {
  const Message m{client, topics, topicCount, message, topic};
  const char* level4 = m.Level(TopicIndexSensorId);
  if (level4 == nullptr) return DAXO_Error_Success;
  if (m.LevelIs(TopicIndexSensorJob, "job")) {
    if (m.count == 6 && m.LevelIs(TopicIndexSensorJobCreate, "create")) SensorJobCreate(m);
  } else if (m.count == 5) {
    if (m.LevelIs(TopicIndexSensorInbox, "inbox")) CreateSensorReply(m);
  } else if (m.LevelIs(TopicIndexSensorError, "error")) {
    if (m.count == 6 && m.LevelIs(TopicIndexSensorErrorInbox, "inbox"))
      ErrorReply(m, client->OnCreateSensor, [&](DAXO_OnCreateSensor cb, DAXO_ApiError code) {
        cb(client, m.Parameter(), nullptr, nullptr, code);
      });
  } else {
    ProcessSensorId(m, level4);
  }
  return DAXO_Error_Success;
}

extern "C" DAXO_Error ProcessClientCommands(DAXO_Client* client, char** topics,
                                            const int topicCount, const char* message,
                                            const char* topic) noexcept {
  const Message m{client, topics, topicCount, message, topic};
  for (const Area& area : kAreas) {
    if (m.LevelIs(area.position, area.keyword)) return area.handler(m);
  }
  return DAXO_Error_Success;  // no area of ours: dropped
}
extern "C" DAXO_Error DispatchResponse(DAXO_Client* client, const char* topic,
                                       const char* message) noexcept {
  if (client == nullptr || topic == nullptr || message == nullptr)
    return DAXO_Error_InvalidArguments;
  if (!daxo::LogPayload(client, "DispatchResponse", topic, message))
    return DAXO_Error_NoMemory;  // the message is dropped with its line
  daxo::TopicLevels levels;
  if (!levels.Tokenise(topic)) return DAXO_Error_NoMemory;
  const Message m{client, levels.Levels(), levels.Count(), message, topic};
  // Without an identifier nothing is addressed to this client.
  if (client->clientId == nullptr) return DAXO_Error_InvalidArguments;
  if (m.count > TopicIndexApiVersion && !m.LevelIs(TopicIndexApiVersion, daxo::kApiVersion))
    return DAXO_Error_InvalidArguments;
  if (m.count > TopicIndexClientId && !m.LevelIs(TopicIndexClientId, client->clientId))
    return DAXO_Error_InvalidArguments;
  if (m.Level(TopicIndexClientIdSensor) == nullptr) return DAXO_Error_InvalidArguments;
  return ProcessClientCommands(client, m.topics, m.count, message, topic);
}

extern "C" void MessageCallback(struct mosquitto* /*mosq*/, void* obj,
                                const struct mosquitto_message* message) noexcept {
  auto* client = static_cast<DAXO_Client*>(obj);
  if (client == nullptr || message == nullptr || message->topic == nullptr ||
      message->payload == nullptr || message->payloadlen == 0)
    return;
  DispatchResponse(client, message->topic, static_cast<const char*>(message->payload));
}
