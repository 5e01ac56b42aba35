#ifndef DAXO_TEST_LIBRARY_CLIENT_H
#define DAXO_TEST_LIBRARY_CLIENT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "daxo_client.h"
#include "environment.h"

namespace daxo_test {

// A library client in the environment. Every callback is recorded as (name,
// code, summary) so that a test can wait, bounded, for the next one.
class LibraryClient {
 public:
  static constexpr int kNone = -999;  // no callback within the wait
  struct Event {
    int code = kNone;
    std::string text = "none";
  };

  // extraLines: settings the environment does not write, appended.
  LibraryClient(TestEnvironment& env, ClientConfig config = {},
                const std::string& extraLines = "") {
    if (config.certFolder.empty()) config.certFolder = env.NewCertFolder();
    certFolder_ = config.certFolder;
    configFile_ = env.WriteClientConfig(config);
    std::ofstream(configFile_, std::ios::app) << extraLines;
    DAXO_Error err = DAXO_Error_Unknown;
    client_ = DAXO_NewClient(configFile_.c_str(), this, &err);
    if (client_ == nullptr) throw std::runtime_error("DAXO_NewClient: " + std::to_string(err));
    SetCallbacks(client_);
  }
  ~LibraryClient() { DAXO_DeleteClient(client_); }
  // Hands the client over; this object must outlive it, since its callbacks record here.
  DAXO_Client* Release() { return std::exchange(client_, nullptr); }

  operator DAXO_Client*() const { return client_; }
  DAXO_Client* operator->() const { return client_; }
  const std::string& CertFolder() const { return certFolder_; }
  const std::string& ConfigFile() const { return configFile_; }
  std::string Id() const { return Str(DAXO_GetClientId(client_), ""); }

  // A consumed event is forgotten, so that a long run that takes its events keeps nothing.
  Event Next(const std::string& name, std::chrono::seconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    std::deque<Event>& queue = events_[name];
    if (!changed_.wait_for(lock, timeout, [&] { return !queue.empty(); })) return {};
    Event next = std::move(queue.front());
    queue.pop_front();
    return next;
  }
  int Code(const std::string& name) { return Next(name).code; }
  // A client that keeps logging (a reconnection loop) must not keep the wait going.
  bool WaitForLog(const std::string& text, std::chrono::seconds bound = std::chrono::seconds(60)) {
    auto deadline = std::chrono::steady_clock::now() + bound;
    while (std::chrono::steady_clock::now() < deadline) {
      auto left = std::chrono::ceil<std::chrono::seconds>(deadline - std::chrono::steady_clock::now());
      Event line = Next("log", left);
      if (line.code == kNone) return false;
      if (line.text.find(text) != std::string::npos) return true;
    }
    return false;
  }
  bool CheckConnection() {
    return DAXO_CheckConnection(client_) == 0 && Code("check") == DAXO_ApiError_NoError;
  }
  bool ProvisionAndConnect() {
    return DAXO_ProvisionClient(client_) == 0 && Code("provision") == 0 &&
           DAXO_Connect(client_) == 0 && Code("connect") == 0;
  }
  void Record(const std::string& name, int code, std::string text = "") {
    std::lock_guard lock(mutex_);
    events_[name].push_back({code, std::move(text)});
    changed_.notify_all();
  }

 private:
  static LibraryClient& Self(void* p) { return *static_cast<LibraryClient*>(p); }
  static std::string Str(const char* s, const char* null = "null") { return s ? s : null; }

  // A callback's name as a template argument, so one function serves many.
  template <size_t N>
  struct Name {
    constexpr Name(const char (&text)[N]) { std::copy_n(text, N, s); }
    char s[N];
  };
  template <Name kName, typename Code>
  static void Coded(DAXO_Client*, void* self, Code err) {
    Self(self).Record(kName.s, err);
  }
  template <Name kName>
  static void ById(DAXO_Client*, void* self, const char* id, DAXO_ApiError err) {
    Self(self).Record(kName.s, err, Str(id));
  }

  static void SetCallbacks(DAXO_Client* c) {
    DAXO_LogCallbackSet(
        c, [](DAXO_Client*, const char* line, void* self) { Self(self).Record("log", 0, line); });
    DAXO_ProvisionClientCallbackSet(c, Coded<"provision", DAXO_Error>);
    DAXO_ConnectCallbackSet(c, Coded<"connect", DAXO_Error>);
    DAXO_DisconnectCallbackSet(c, Coded<"disconnect", DAXO_Error>);
    DAXO_CheckConnectionCallbackSet(c, Coded<"check", DAXO_ApiError>);
    DAXO_DeprovisionClientCallbackSet(
        c, [](DAXO_Client*, void* self) { Self(self).Record("deprovision", 0); });
    DAXO_UpdateMetricsCallbackSet(c, ById<"updateMetrics">);
    DAXO_DeleteMetricsCallbackSet(c, ById<"deleteMetrics">);
    DAXO_PushMetricValuesCallbackSet(c, ById<"pushMetricValues">);
    DAXO_UpdateSensorCallbackSet(c, ById<"updateSensor">);
    DAXO_DeleteSensorCallbackSet(c, ById<"deleteSensor">);
    DAXO_CreateSensorCallbackSet(
        c, [](DAXO_Client*, void* self, const char*, const char* id, DAXO_ApiError err) {
          Self(self).Record("createSensor", err, Str(id));
        });
    DAXO_CreateMetricsCallbackSet(
        c, [](DAXO_Client*, void* self, DAXO_CreatedMetrics* created, DAXO_ApiError err) {
          std::string text;  // the metric ids, in the order of the request
          for (int i = 0; created != nullptr && i < created->metricsCount; ++i)
            text += (i ? "|" : "") + Str(created->metrics[i].metricId);
          Self(self).Record("createMetrics", err, text);
          DAXO_DestroyCreatedMetrics(created);
        });
    DAXO_ListSensorsCallbackSet(c, [](DAXO_Client*, DAXO_SensorsInfo* list, void* self,
                                      DAXO_ApiError err) {
      std::string text;  // "name|id;..."
      for (int i = 0; list != nullptr && i < list->sensorsCount; ++i)
        text += (i ? ";" : "") + Str(list->sensors[i].name) + "|" + Str(list->sensors[i].sensorId);
      Self(self).Record("listSensors", err, text);
      DAXO_DestroySensorsInfo(list);
    });
    DAXO_DescribeMetricCallbackSet(c, [](DAXO_Client*, const char* sensorId,
                                         DAXO_MetricMetadata* metric, void* self,
                                         DAXO_ApiError err) {
      std::string text = Str(sensorId);  // or "name|unit|annotation|value|lastUpdated"
      if (DAXO_MetricMetadata* m = metric)
        text = Str(m->name) + "|" + std::to_string(m->valueUnit) + "|" + Str(m->valueAnnotation) +
               "|" + Str(m->value) + "|" + std::to_string(m->lastUpdated);
      Self(self).Record("describeMetric", err, text);
      DAXO_DestroyMetricMetadata(metric);
    });
    DAXO_CreateSensorJobCallbackSet(c, [](DAXO_Client*, DAXO_SensorMetadata* sensor, void* self) {
      Self(self).Record("createSensorJob", 0, Str(sensor->name) + "|" + Str(sensor->sensorId));
      DAXO_DestroySensorMetadata(sensor);
    });
    DAXO_DeleteSensorJobCallbackSet(c, [](DAXO_Client*, const char* id, void* self) {
      Self(self).Record("deleteSensorJob", 0, Str(id));
    });
    DAXO_PushDroppedCallbackSet(
        c, [](DAXO_Client*, void* self, const char* id, int count, DAXO_PushDropReason why) {
          Self(self).Record("pushDropped", why, Str(id) + " " + std::to_string(count));
        });
  }

  std::string certFolder_, configFile_;
  DAXO_Client* client_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, std::deque<Event>> events_;
};

// Suites of tests that use the library, which is initialised once for them.
class LibraryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { DAXO_LibInit(); }
  static void TearDownTestSuite() { DAXO_LibCleanup(); }
};

}  // namespace daxo_test

#endif
