#include "session.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "vocabulary.h"

namespace daxoctl {
namespace {

Session& Self(void* p) { return *static_cast<Session*>(p); }
std::string Str(const char* s) { return s != nullptr ? s : ""; }

Sensor Copy(const DAXO_SensorMetadata& record) {
  Sensor sensor{Str(record.name), Str(record.sensorId), {}};
  for (int i = 0; i < record.metricsCount; ++i)
    sensor.metrics.push_back(Str(record.metrics[i].metricId));
  return sensor;
}

Metric Copy(const DAXO_MetricMetadata& record) {
  Metric metric{Str(record.id), Str(record.name), record.valueUnit, record.valueType,
                std::nullopt, std::nullopt, record.lastUpdated};
  if (record.valueAnnotation != nullptr) metric.annotation = record.valueAnnotation;
  if (record.value != nullptr) metric.value = record.value;
  return metric;
}

// Replies that carry nothing but the sensor they concern.
template <const char* kKind>
void OnSensorReply(DAXO_Client*, void* self, const char* sensorId, DAXO_ApiError err) {
  Self(self).Record({.kind = kKind, .code = err, .sensorId = Str(sensorId)});
}

constexpr char kUpdateSensor[] = "updateSensor";
constexpr char kDeleteSensor[] = "deleteSensor";
constexpr char kUpdateMetrics[] = "updateMetrics";
constexpr char kDeleteMetrics[] = "deleteMetrics";
constexpr char kPush[] = "pushMetricValues";

void SetReplyCallbacks(DAXO_Client* client) {
  DAXO_UpdateSensorCallbackSet(client, OnSensorReply<kUpdateSensor>);
  DAXO_DeleteSensorCallbackSet(client, OnSensorReply<kDeleteSensor>);
  DAXO_UpdateMetricsCallbackSet(client, OnSensorReply<kUpdateMetrics>);
  DAXO_DeleteMetricsCallbackSet(client, OnSensorReply<kDeleteMetrics>);
  DAXO_PushMetricValuesCallbackSet(client, OnSensorReply<kPush>);
  DAXO_CreateSensorCallbackSet(client, [](DAXO_Client*, void* self, const char* name,
                                          const char* id, DAXO_ApiError err) {
    Self(self).Record({.kind = "createSensor", .code = err, .sensorId = Str(id), .name = Str(name)});
  });
  DAXO_ListSensorsCallbackSet(client, [](DAXO_Client*, DAXO_SensorsInfo* list, void* self,
                                         DAXO_ApiError err) {
    Event event{.kind = "listSensors", .code = err};
    for (int i = 0; list != nullptr && i < list->sensorsCount; ++i)
      event.sensors.push_back(Copy(list->sensors[i]));
    DAXO_DestroySensorsInfo(list);
    Self(self).Record(std::move(event));
  });
  DAXO_CreateMetricsCallbackSet(client, [](DAXO_Client*, void* self,
                                           DAXO_CreatedMetrics* created, DAXO_ApiError err) {
    Event event{.kind = "createMetrics", .code = err};
    if (created != nullptr) {
      event.sensorId = Str(created->sensorId);
      for (int i = 0; i < created->metricsCount; ++i)
        event.created.emplace_back(Str(created->metrics[i].matchingId),
                                   Str(created->metrics[i].metricId));
    }
    DAXO_DestroyCreatedMetrics(created);
    Self(self).Record(std::move(event));
  });
  DAXO_DescribeMetricCallbackSet(client, [](DAXO_Client*, const char* sensorId,
                                            DAXO_MetricMetadata* metric, void* self,
                                            DAXO_ApiError err) {
    Event event{.kind = "describeMetric", .code = err, .sensorId = Str(sensorId)};
    if (metric != nullptr) event.metric = Copy(*metric);
    DAXO_DestroyMetricMetadata(metric);
    Self(self).Record(std::move(event));
  });
  DAXO_CheckConnectionCallbackSet(client, [](DAXO_Client*, void* self, DAXO_ApiError err) {
    Self(self).Record({.kind = "ping", .code = err});
  });
}

void SetCallbacks(DAXO_Client* client) {
  DAXO_LogCallbackSet(client,
                      [](DAXO_Client*, const char* line, void* self) { Self(self).Noted(line); });
  DAXO_ProvisionClientCallbackSet(client, [](DAXO_Client*, void* self, DAXO_Error err) {
    Self(self).Record({.kind = "provision", .code = err});
  });
  DAXO_ConnectCallbackSet(client, [](DAXO_Client*, void* self, DAXO_Error err) {
    Self(self).Record({.kind = "connect", .code = err});
  });
  DAXO_DisconnectCallbackSet(client, [](DAXO_Client*, void* self, DAXO_Error err) {
    Self(self).Record({.kind = "disconnect", .code = err});
  });
  DAXO_DeprovisionClientCallbackSet(client, [](DAXO_Client*, void* self) {
    Self(self).Record({.kind = "deprovision"});
  });
  DAXO_CreateSensorJobCallbackSet(client, [](DAXO_Client*, DAXO_SensorMetadata* sensor,
                                             void* self) {
    Event event{.kind = "createSensorJob"};
    if (sensor != nullptr) event.sensors.push_back(Copy(*sensor));
    DAXO_DestroySensorMetadata(sensor);
    Self(self).Record(std::move(event));
  });
  DAXO_DeleteSensorJobCallbackSet(client, [](DAXO_Client*, const char* sensorId, void* self) {
    Self(self).Record({.kind = "deleteSensorJob", .sensorId = Str(sensorId)});
  });
  SetReplyCallbacks(client);
}

}  // namespace

JsonObject SensorJson(const Sensor& sensor) {
  return JsonObject().Add("id", sensor.id).Add("name", sensor.name).Add("metrics", sensor.metrics);
}

Session::~Session() {
  if (client_ != nullptr) DAXO_DeleteClient(client_);
}

void Session::Record(Event event) {
  std::lock_guard lock(mutex_);
  events_.push_back(std::move(event));
  changed_.notify_all();
}

std::chrono::steady_clock::time_point Session::Deadline() const {
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(options_.timeout));
}

std::optional<Event> Session::Next(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_until(lock, deadline, [&] { return !events_.empty(); })) return std::nullopt;
  Event event = std::move(events_.front());
  events_.pop_front();
  return event;
}

std::optional<Event> Session::Wait(std::string_view kind) {
  std::unique_lock lock(mutex_);
  auto match = events_.end();
  auto found = [&] {
    for (match = events_.begin(); match != events_.end(); ++match)
      if (match->kind == kind) return true;
    return false;
  };
  if (!changed_.wait_until(lock, Deadline(), found)) return std::nullopt;
  Event event = std::move(*match);
  events_.erase(match);
  return event;
}

void Session::Discard(std::string_view kind) {
  std::lock_guard lock(mutex_);
  std::erase_if(events_, [kind](const Event& e) { return e.kind == kind; });
}

std::string Session::ClientId() const {
  const char* id = DAXO_GetClientId(client_);
  return id != nullptr ? id : "";
}

void Session::Noted(const char* line) {
  // The library names every connection failure in a line of this form.
  if (std::string_view(line).starts_with("Connection to ")) {
    std::lock_guard lock(mutex_);
    failure_ = line;
  }
}

std::string Session::Reason(DAXO_Error err) {
  std::lock_guard lock(mutex_);
  return failure_.empty() ? Describe(err) : failure_;
}

std::optional<int> Session::Create() {
  DAXO_Error err = DAXO_Error_Unknown;
  client_ = DAXO_NewClient(options_.config.c_str(), this, &err);
  if (client_ == nullptr) {
    char why[512];
    DAXO_ExplainConfig(options_.config.c_str(), why, sizeof why);
    return printer_.Failure(
        kFailed, "cannot use the configuration: " + std::string(why) + " (" + Describe(err) + ")",
        DAXO_ErrorName(err), err);
  }
  SetCallbacks(client_);
  return std::nullopt;
}

// The library reads the configuration but does not tell where the identity
// lives, and provisioning must never start by accident.
std::optional<std::string> Session::CertFolder() const {
  std::ifstream file(options_.config);
  std::string line;
  while (std::getline(file, line)) {
    std::istringstream words(line);
    std::string key;
    std::string value;
    if (words >> key >> value && key == "CertFolder") return value;
  }
  return std::nullopt;
}

std::optional<int> Session::Load() {
  if (std::optional<int> exit = Create()) return exit;
  std::optional<std::string> folder = CertFolder();
  std::error_code ignored;
  if (!folder || !std::filesystem::exists(*folder + "/cert.crt", ignored) ||
      !std::filesystem::exists(*folder + "/priv_key.key", ignored)) {
    return printer_.Failure(kFailed, "the client has no identity in " + folder.value_or("?") +
                                         "; run \"daxoctl provision\" first");
  }
  // With an identity present this only reads it; it answers at once.
  DAXO_Error loaded = DAXO_ProvisionClient(client_);
  Wait("provision");
  if (loaded != DAXO_Error_AlreadyProvisioned)
    return printer_.Failure(kFailed, "cannot read the identity: " + Describe(loaded),
                            DAXO_ErrorName(loaded), loaded);
  return std::nullopt;
}

std::optional<int> Session::Open() {
  if (std::optional<int> exit = Load()) return exit;
  if (DAXO_Error err = DAXO_Connect(client_); err != DAXO_Error_Success)
    return printer_.Failure(kFailed, "connect failed: " + Reason(err), DAXO_ErrorName(err), err);
  std::optional<Event> outcome;
  for (auto deadline = Deadline(); !outcome;) {
    std::optional<Event> event = Next(deadline);
    if (!event) return printer_.Failure(kTimeout, "no connection to the broker in time");
    if (event->kind == "connect" || event->kind == "disconnect") outcome = std::move(event);
  }
  if (outcome->kind == "connect" && outcome->code == DAXO_Error_Success) return std::nullopt;
  auto err = static_cast<DAXO_Error>(outcome->code);
  return printer_.Failure(kFailed, "connection failed: " + Reason(err), DAXO_ErrorName(err), err);
}

std::optional<int> Session::Sent(std::string_view what, DAXO_Error err) const {
  if (err == DAXO_Error_Success) return std::nullopt;
  return printer_.Failure(kFailed, std::string(what) + " failed: " + Describe(err),
                          DAXO_ErrorName(err), err);
}

std::pair<std::optional<Event>, int> Session::Reply(std::string_view kind) {
  std::optional<Event> event = Wait(kind);
  if (!event) {
    std::ostringstream message;
    message << "no reply from the agent within " << options_.timeout << " s";
    return {std::nullopt, printer_.Failure(kTimeout, message.str())};
  }
  auto err = static_cast<DAXO_ApiError>(event->code);
  if (err != DAXO_ApiError_NoError)
    return {std::nullopt,
            printer_.Failure(kFailed, "agent refused: " + Describe(err), DAXO_ApiErrorName(err), err)};
  return {std::move(event), kOk};
}

JsonObject Session::Success() const {
  JsonObject json;
  json.Add("command", options_.command).AddBool("ok", true);
  return json;
}

}  // namespace daxoctl
