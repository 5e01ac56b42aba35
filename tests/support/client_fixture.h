// A client over the fake transport, with every callback recorded.
#ifndef DAXO_TEST_CLIENT_FIXTURE_H
#define DAXO_TEST_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "daxo_internal.h"
#include "fake_mqtt.h"
#include "temp_dir.h"

// Installs a callback taking Params (which name `self`) that records
// {Name, code, text}.
#define DAXO_RECORD(Setter, Name, Params, code, text) \
  Setter(client, [] Params {                              \
    alloc_failure::Suspend unarmed;                       \
    Self(self).calls.push_back({Name, code, text});       \
  })
#define DAXO_RECORD_CODE(Setter, Name, Code) \
  DAXO_RECORD(Setter, Name, (DAXO_Client*, void* self, Code e), e, "")
#define DAXO_RECORD_ID(Setter, Name) \
  DAXO_RECORD(Setter, Name, (DAXO_Client*, void* self, Id id, DAXO_ApiError e), e, Str(id))

class FakeClientTest : public ::testing::Test {
 public:
  struct Call {
    std::string name;
    int code;
    std::string text;
  };

  void SetUp() override {
    FakeMqtt::Reset();
    conf = dir.Write("client.conf", ValidConfig(dir));
    DAXO_Error err;
    client = NewClientInternal(conf.c_str(), this, &err, FakeMqtt::Create, FakeMqtt::Destroy);
    ASSERT_NE(client, nullptr);
    DAXO_LogCallbackSet(client, CaptureLog);
    DAXO_RECORD_CODE(DAXO_ConnectCallbackSet, "OnConnect", DAXO_Error);
    DAXO_RECORD_CODE(DAXO_DisconnectCallbackSet, "OnDisconnect", DAXO_Error);
    DAXO_RECORD_CODE(DAXO_CheckConnectionCallbackSet, "OnCheckConnection", DAXO_ApiError);
    DAXO_RECORD_CODE(DAXO_ProvisionClientCallbackSet, "OnProvisionClient", DAXO_Error);
  }

  void TearDown() override {
    DAXO_DeleteClient(client);
    FakeMqtt::Reset();
  }

  // Records handed over are summarised and destroyed.
  void RecordReplies() {
    using Id = const char*;
    DAXO_RECORD_ID(DAXO_UpdateSensorCallbackSet, "OnModifySensor");
    DAXO_RECORD_ID(DAXO_DeleteSensorCallbackSet, "OnDeleteSensor");
    DAXO_RECORD_ID(DAXO_PushMetricValuesCallbackSet, "OnPushMetricValues");
    DAXO_RECORD_ID(DAXO_UpdateMetricsCallbackSet, "OnUpdateMetrics");
    DAXO_RECORD_ID(DAXO_DeleteMetricsCallbackSet, "OnDeleteMetrics");
    DAXO_RECORD(DAXO_CreateSensorCallbackSet, "OnCreateSensor",
                (DAXO_Client*, void* self, Id name, Id id, DAXO_ApiError e), e,
                Str(name) + "|" + Str(id));
    DAXO_RECORD(DAXO_DeleteSensorJobCallbackSet, "OnDeleteSensorJob",
                (DAXO_Client*, Id id, void* self), 0, Str(id));
    DAXO_RECORD(DAXO_CreateSensorJobCallbackSet, "OnCreateSensorJob",
                (DAXO_Client*, DAXO_SensorMetadata* s, void* self), 0,
                Take(s, DAXO_DestroySensorMetadata, Str(s->sensorId)));
    DAXO_RECORD(DAXO_ListSensorsCallbackSet, "OnListSensors",
                (DAXO_Client*, DAXO_SensorsInfo* l, void* self, DAXO_ApiError e), e,
                Take(l, DAXO_DestroySensorsInfo, l ? std::to_string(l->sensorsCount) : "null"));
    DAXO_RECORD(DAXO_DescribeMetricCallbackSet, "OnDescribeMetric",
                (DAXO_Client*, Id sensor, DAXO_MetricMetadata* m, void* self, DAXO_ApiError e), e,
                Str(sensor) + "|" + Take(m, DAXO_DestroyMetricMetadata, m ? Str(m->id) : "null"));
    DAXO_RECORD(DAXO_CreateMetricsCallbackSet, "OnCreateMetrics",
                (DAXO_Client*, void* self, DAXO_CreatedMetrics* m, DAXO_ApiError e), e,
                Take(m, DAXO_DestroyCreatedMetrics,
                     m ? Str(m->sensorId) + "|" + std::to_string(m->metricsCount) : "null"));
  }

  template <class T>
  static std::string Take(T* record, void (*destroy)(T*), std::string summary) {
    destroy(record);
    return summary;
  }
  static std::string Str(const char* s) { return s != nullptr ? s : "null"; }
  static FakeClientTest& Self(void* p) { return *static_cast<FakeClientTest*>(p); }
  // Lines come from the watch thread too.
  static void CaptureLog(DAXO_Client*, const char* line, void* self) {
    alloc_failure::Suspend unarmed;
    std::lock_guard lock(Self(self).logsMutex);
    Self(self).logs.push_back(line);
  }

  void Provisioned(const char* id = "client-1") {
    free(client->clientId);
    client->clientId = strdup(id);
  }

  FakeMqtt& Connected() {
    Provisioned();
    EXPECT_EQ(DAXO_Connect(client), DAXO_Error_Success);
    FakeMqtt& fake = *FakeMqtt::Last();
    fake.FireConnect(0);
    fake.FireSubscribe(fake.subscribes.back().mid);
    calls.clear();
    logs.clear();
    return fake;
  }

  // Waits (bounded) until the watch thread has done what was handed to it:
  // two passes complete after the wake-up, so one began after it.
  void Settle() {
    int start = __atomic_load_n(&client->ownerPasses, __ATOMIC_ACQUIRE);
    Wake();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (__atomic_load_n(&client->ownerPasses, __ATOMIC_ACQUIRE) < start + 2) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the watch thread did not settle";
      Wake();
      std::this_thread::yield();
    }
  }
  void Wake() {
    pthread_mutex_lock(&client->certCheckThreadMutex);
    pthread_cond_broadcast(&client->certCheckThreadCondition);
    pthread_mutex_unlock(&client->certCheckThreadMutex);
  }

  TempDir dir;
  std::string conf;
  DAXO_Client* client = nullptr;
  std::vector<Call> calls;
  std::vector<std::string> logs;
  std::mutex logsMutex;
};

#endif
