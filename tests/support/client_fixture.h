// A client over the fake transport, with every callback recorded.
#ifndef DAXO_TEST_CLIENT_FIXTURE_H
#define DAXO_TEST_CLIENT_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "daxo_internal.h"
#include "fake_mqtt.h"
#include "temp_dir.h"

class FakeClientTest : public ::testing::Test {
 public:
  static constexpr const char* kClientId = "client-1";

  // One recorded callback: its name and the arguments that matter.
  struct Call {
    std::string name;
    int code;
    std::string text;
  };

  void SetUp() override {
    FakeMqtt::Reset();
    calls.clear();
    logs.clear();
    conf = dir.Write("client.conf", ValidConfig(dir));
    DAXO_Error err;
    client = NewClientInternal(conf.c_str(), this, &err, FakeMqtt::Create, FakeMqtt::Destroy);
    ASSERT_NE(client, nullptr);
    DAXO_LogCallbackSet(client, CaptureLog);
    DAXO_ConnectCallbackSet(client, [](DAXO_Client*, void* self, DAXO_Error err) {
      Self(self).calls.push_back({"OnConnect", err, ""});
    });
    DAXO_DisconnectCallbackSet(client, [](DAXO_Client*, void* self, DAXO_Error err) {
      Self(self).calls.push_back({"OnDisconnect", err, ""});
    });
    DAXO_CheckConnectionCallbackSet(client, [](DAXO_Client*, void* self, DAXO_ApiError err) {
      Self(self).calls.push_back({"OnCheckConnection", err, ""});
    });
  }

  // Records every reply and job callback as {name, code, summary}; records
  // handed over are summarised and destroyed.
  void RecordReplies() {
    DAXO_CreateSensorCallbackSet(client, [](DAXO_Client*, void* self, const char* name,
                                            const char* id, DAXO_ApiError err) {
      Self(self).calls.push_back({"OnCreateSensor", err, Str(name) + "|" + Str(id)});
    });
    DAXO_UpdateSensorCallbackSet(client, [](DAXO_Client*, void* self, const char* id,
                                            DAXO_ApiError err) {
      Self(self).calls.push_back({"OnModifySensor", err, Str(id)});
    });
    DAXO_DeleteSensorCallbackSet(client, [](DAXO_Client*, void* self, const char* id,
                                            DAXO_ApiError err) {
      Self(self).calls.push_back({"OnDeleteSensor", err, Str(id)});
    });
    DAXO_PushMetricValuesCallbackSet(client, [](DAXO_Client*, void* self, const char* id,
                                                DAXO_ApiError err) {
      Self(self).calls.push_back({"OnPushMetricValues", err, Str(id)});
    });
    DAXO_UpdateMetricsCallbackSet(client, [](DAXO_Client*, void* self, const char* id,
                                             DAXO_ApiError err) {
      Self(self).calls.push_back({"OnUpdateMetrics", err, Str(id)});
    });
    DAXO_DeleteMetricsCallbackSet(client, [](DAXO_Client*, void* self, const char* id,
                                             DAXO_ApiError err) {
      Self(self).calls.push_back({"OnDeleteMetrics", err, Str(id)});
    });
    DAXO_ListSensorsCallbackSet(client, [](DAXO_Client*, DAXO_SensorsInfo* list, void* self,
                                           DAXO_ApiError err) {
      std::string summary = list ? "sensors=" + std::to_string(list->sensorsCount) : "null";
      Self(self).calls.push_back({"OnListSensors", err, summary});
      DAXO_DestroySensorsInfo(list);
    });
    DAXO_DescribeMetricCallbackSet(client, [](DAXO_Client*, const char* sensorId,
                                              DAXO_MetricMetadata* metric, void* self,
                                              DAXO_ApiError err) {
      Self(self).calls.push_back(
          {"OnDescribeMetric", err, Str(sensorId) + "|" + (metric ? Str(metric->id) : "null")});
      DAXO_DestroyMetricMetadata(metric);
    });
    DAXO_CreateMetricsCallbackSet(client, [](DAXO_Client*, void* self,
                                             DAXO_CreatedMetrics* metrics, DAXO_ApiError err) {
      std::string summary =
          metrics ? Str(metrics->sensorId) + "|" + std::to_string(metrics->metricsCount) : "null";
      Self(self).calls.push_back({"OnCreateMetrics", err, summary});
      DAXO_DestroyCreatedMetrics(metrics);
    });
    DAXO_CreateSensorJobCallbackSet(client, [](DAXO_Client*, DAXO_SensorMetadata* sensor,
                                               void* self) {
      Self(self).calls.push_back({"OnCreateSensorJob", 0, Str(sensor->sensorId)});
      DAXO_DestroySensorMetadata(sensor);
    });
    DAXO_DeleteSensorJobCallbackSet(client, [](DAXO_Client*, const char* id, void* self) {
      Self(self).calls.push_back({"OnDeleteSensorJob", 0, Str(id)});
    });
  }

  static std::string Str(const char* s) { return s != nullptr ? s : "null"; }

  void TearDown() override {
    DAXO_DeleteClient(client);
    FakeMqtt::Reset();
  }

  static FakeClientTest& Self(void* p) { return *static_cast<FakeClientTest*>(p); }
  static void CaptureLog(DAXO_Client*, const char* line, void* self) {
    Self(self).logs.push_back(line);
  }

  // Gives the client its identifier as provisioning would.
  void Provisioned(const char* id = kClientId) {
    free(client->clientId);
    client->clientId = strdup(id);
  }

  // Provisioned, connected, subscribed; returns the main instance.
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

  TempDir dir;
  std::string conf;
  DAXO_Client* client = nullptr;
  std::vector<Call> calls;
  std::vector<std::string> logs;
};

#endif
