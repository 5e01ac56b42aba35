#include "library_client.h"

#include <stdexcept>

namespace daxo_test {

LibraryClient::LibraryClient(TestEnvironment& env, ClientConfig config) {
  if (config.certFolder.empty()) config.certFolder = env.NewCertFolder();
  certFolder_ = config.certFolder;
  DAXO_Error err = DAXO_Error_Unknown;
  client_ = DAXO_NewClient(env.WriteClientConfig(config).c_str(), this, &err);
  if (client_ == nullptr) throw std::runtime_error("DAXO_NewClient: " + std::to_string(err));
  SetCallbacks();
}

LibraryClient::~LibraryClient() { DAXO_DeleteClient(client_); }

void LibraryClient::SetCallbacks() {
  DAXO_LogCallbackSet(client_, [](DAXO_Client*, const char* line, void* self) {
    std::lock_guard lock(Self(self).mutex_);
    Self(self).logs_.push_back(line);
    Self(self).changed_.notify_all();
  });
  DAXO_ProvisionClientCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error err) {
    Self(self).Record("provision", err);
  });
  DAXO_ConnectCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error err) {
    Self(self).Record("connect", err);
  });
  DAXO_DisconnectCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error err) {
    Self(self).Record("disconnect", err);
  });
  DAXO_CheckConnectionCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_ApiError err) {
    Self(self).Record("check", err);
  });
  DAXO_DeprovisionClientCallbackSet(client_, [](DAXO_Client*, void* self) {
    Self(self).Record("deprovision", 0);
  });
  SetReplyCallbacks();
}

void LibraryClient::Record(const std::string& name, int code, std::string text) {
  std::lock_guard lock(mutex_);
  events_[name].push_back({code, std::move(text)});
  changed_.notify_all();
}

std::optional<LibraryClient::Event> LibraryClient::NextEvent(const std::string& name,
                                                             std::chrono::seconds timeout) {
  std::unique_lock lock(mutex_);
  size_t& next = consumed_[name];
  if (!changed_.wait_for(lock, timeout, [&] { return events_[name].size() > next; }))
    return std::nullopt;
  return events_[name][next++];
}

std::optional<int> LibraryClient::Next(const std::string& name, std::chrono::seconds timeout) {
  std::optional<Event> event = NextEvent(name, timeout);
  if (!event) return std::nullopt;
  return event->code;
}

size_t LibraryClient::Pending(const std::string& name) {
  std::lock_guard lock(mutex_);
  return events_[name].size() - consumed_[name];
}

std::vector<std::string> LibraryClient::Logs() {
  std::lock_guard lock(mutex_);
  return logs_;
}

bool LibraryClient::WaitForLog(const std::string& text, std::chrono::seconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    for (const std::string& line : logs_)
      if (line.find(text) != std::string::npos) return true;
    return false;
  });
}

std::string LibraryClient::Id() const {
  const char* id = DAXO_GetClientId(client_);
  return id != nullptr ? id : "";
}

bool LibraryClient::ProvisionAndConnect() {
  if (DAXO_ProvisionClient(client_) != DAXO_Error_Success) return false;
  if (Next("provision") != DAXO_Error_Success) return false;
  if (DAXO_Connect(client_) != DAXO_Error_Success) return false;
  return Next("connect") == DAXO_Error_Success;
}


namespace {

std::string Str(const char* s) { return s != nullptr ? s : "null"; }

std::string Describe(const DAXO_SensorMetadata& s) {
  std::string text = Str(s.name) + "|" + Str(s.sensorId);
  for (int i = 0; i < s.metricsCount; ++i) text += "|" + Str(s.metrics[i].metricId);
  return text;
}

std::string Describe(const DAXO_MetricMetadata& m) {
  std::string kind = m.valueUnit != DAXO_ValueUnit_NoUnit
                         ? "unit " + std::to_string(m.valueUnit)
                         : "type " + std::to_string(m.valueType) + " " + Str(m.valueAnnotation);
  return Str(m.id) + "|" + Str(m.name) + "|" + kind + "|" + Str(m.value) + "|" +
         std::to_string(m.lastUpdated);
}

std::string Describe(const DAXO_CreatedMetrics& created) {
  std::string text = Str(created.sensorId);
  for (int i = 0; i < created.metricsCount; ++i)
    text += "|" + Str(created.metrics[i].matchingId) + "=" + Str(created.metrics[i].metricId);
  return text;
}

}  // namespace

void LibraryClient::SetReplyCallbacks() {
  DAXO_CreateMetricsCallbackSet(client_, [](DAXO_Client*, void* self,
                                            DAXO_CreatedMetrics* created, DAXO_ApiError err) {
    Self(self).Record("createMetrics", err, created != nullptr ? Describe(*created) : "null");
    DAXO_DestroyCreatedMetrics(created);
  });
  DAXO_UpdateMetricsCallbackSet(client_, [](DAXO_Client*, void* self, const char* id,
                                            DAXO_ApiError err) {
    Self(self).Record("updateMetrics", err, Str(id));
  });
  DAXO_DeleteMetricsCallbackSet(client_, [](DAXO_Client*, void* self, const char* id,
                                            DAXO_ApiError err) {
    Self(self).Record("deleteMetrics", err, Str(id));
  });
  DAXO_PushMetricValuesCallbackSet(client_, [](DAXO_Client*, void* self, const char* id,
                                               DAXO_ApiError err) {
    Self(self).Record("pushMetricValues", err, Str(id));
  });
  DAXO_CreateSensorCallbackSet(client_, [](DAXO_Client*, void* self, const char* name,
                                           const char* id, DAXO_ApiError err) {
    Self(self).Record("createSensor", err, Str(name) + "|" + Str(id));
  });
  DAXO_UpdateSensorCallbackSet(client_, [](DAXO_Client*, void* self, const char* id,
                                           DAXO_ApiError err) {
    Self(self).Record("updateSensor", err, Str(id));
  });
  DAXO_DeleteSensorCallbackSet(client_, [](DAXO_Client*, void* self, const char* id,
                                           DAXO_ApiError err) {
    Self(self).Record("deleteSensor", err, Str(id));
  });
  DAXO_ListSensorsCallbackSet(client_, [](DAXO_Client*, DAXO_SensorsInfo* list, void* self,
                                          DAXO_ApiError err) {
    std::string text;
    for (int i = 0; list != nullptr && i < list->sensorsCount; ++i)
      text += (i ? ";" : "") + Describe(list->sensors[i]);
    Self(self).Record("listSensors", err, text);
    DAXO_DestroySensorsInfo(list);
  });
  DAXO_DescribeMetricCallbackSet(client_, [](DAXO_Client*, const char* sensorId,
                                             DAXO_MetricMetadata* metric, void* self,
                                             DAXO_ApiError err) {
    std::string text = Str(sensorId);
    if (metric != nullptr) text += "|" + Describe(*metric);
    Self(self).Record("describeMetric", err, text);
    DAXO_DestroyMetricMetadata(metric);
  });
  DAXO_CreateSensorJobCallbackSet(client_, [](DAXO_Client*, DAXO_SensorMetadata* sensor,
                                              void* self) {
    Self(self).Record("createSensorJob", 0, Describe(*sensor));
    DAXO_DestroySensorMetadata(sensor);
  });
  DAXO_DeleteSensorJobCallbackSet(client_, [](DAXO_Client*, const char* id, void* self) {
    Self(self).Record("deleteSensorJob", 0, Str(id));
  });
}

}  // namespace daxo_test
