#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "daxo_internal.h"
#include "fake_mqtt.h"
#include "temp_dir.h"

namespace {

using namespace std::chrono_literals;

class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeMqtt::Reset();
    conf_ = dir_.Write("client.conf", ValidConfig(dir_));
    client_ = NewClientInternal(conf_.c_str(), &marker_, &err_, FakeMqtt::Create,
                                FakeMqtt::Destroy);
    ASSERT_NE(client_, nullptr);
  }
  void TearDown() override {
    if (client_ != nullptr) {
      EXPECT_EQ(DAXO_DeleteClient(client_), DAXO_Error_Success);
    }
    FakeMqtt::Reset();
  }

  // Gives the client a main instance as a successful connect would.
  FakeMqtt& Connected() {
    client_->mosq = FakeMqtt::Create(nullptr, "id", 1, client_);
    daxo::Store(client_->polling, 1);
    daxo::Store(client_->mainWatch.connected, 1);
    return *FakeMqtt::Last();
  }

  TempDir dir_;
  std::string conf_;
  int marker_ = 0;
  DAXO_Error err_ = DAXO_Error_Unknown;
  DAXO_Client* client_ = nullptr;
};

TEST_F(ClientTest, NewClientStartsTheWatchThreadAndNoTransport) {
  EXPECT_EQ(err_, DAXO_Error_Success);
  EXPECT_EQ(DAXO_GetClientId(client_), nullptr);
  EXPECT_EQ(client_->callbackParameter, &marker_);
  EXPECT_EQ(client_->certCheckThreadStarted, 1);
  EXPECT_TRUE(FakeMqtt::Instances().empty());
  EXPECT_EQ(StartCertificateCheckingThread(client_), 0) << "already running";
}

TEST_F(ClientTest, DeletionWakesTheWatchThreadAtOnce) {
  // The thread waits for a day; a deletion that waited for it would hang.
  auto deletion = std::async(std::launch::async, DAXO_DeleteClient, client_);
  ASSERT_EQ(deletion.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(deletion.get(), DAXO_Error_Success);
  client_ = nullptr;
}

TEST_F(ClientTest, TheWatchThreadCanBeStoppedAndStartedAgain) {
  StopCertificateCheckingThread(client_);
  EXPECT_EQ(client_->certCheckThreadStarted, 0);
  StopCertificateCheckingThread(client_);  // a second stop is harmless
  EXPECT_EQ(StartCertificateCheckingThread(client_), 1);
  EXPECT_EQ(client_->certCheckThreadStarted, 1);
}

TEST(WatchThread, WithoutAClientEndsAtOnce) {
  EXPECT_EQ(CertificateCheckingThread(nullptr), reinterpret_cast<void*>(1));
  StopCertificateCheckingThread(nullptr);
  EXPECT_EQ(StartCertificateCheckingThread(nullptr), 0);
}

void OnLog(DAXO_Client*, const char*, void*) {}
void OnConnect(DAXO_Client*, void*, DAXO_Error) {}
void OnDisconnect(DAXO_Client*, void*, DAXO_Error) {}
void OnCreateSensor(DAXO_Client*, void*, const char*, const char*, DAXO_ApiError) {}
void OnCreateMetrics(DAXO_Client*, void*, DAXO_CreatedMetrics*, DAXO_ApiError) {}
void OnSensorReply(DAXO_Client*, void*, const char*, DAXO_ApiError) {}
void OnDeprovision(DAXO_Client*, void*) {}
void OnListSensors(DAXO_Client*, DAXO_SensorsInfo*, void*, DAXO_ApiError) {}
void OnDescribeMetric(DAXO_Client*, const char*, DAXO_MetricMetadata*, void*, DAXO_ApiError) {}
void OnCheckConnection(DAXO_Client*, void*, DAXO_ApiError) {}
void OnCreateSensorJob(DAXO_Client*, DAXO_SensorMetadata*, void*) {}
void OnDeleteSensorJob(DAXO_Client*, const char*, void*) {}

// Each setter, run with a callback or with null, and the field it must set.
struct SetterCase {
  const char* name;
  DAXO_Error (*set)(DAXO_Client*, bool on);
  void* (*field)(DAXO_Client*);
};

#define SETTER(Setter, Field, Fn)                                                          \
  SetterCase {                                                                             \
    #Setter, [](DAXO_Client* c, bool on) { return Setter(c, on ? Fn : nullptr); },         \
        [](DAXO_Client* c) { return reinterpret_cast<void*>(c->Field); }                   \
  }

const SetterCase kSetters[] = {
    SETTER(DAXO_ProvisionClientCallbackSet, OnProvisionClient, OnConnect),
    SETTER(DAXO_ConnectCallbackSet, OnConnect, OnConnect),
    SETTER(DAXO_DisconnectCallbackSet, OnDisconnect, OnDisconnect),
    SETTER(DAXO_CreateSensorCallbackSet, OnCreateSensor, OnCreateSensor),
    SETTER(DAXO_UpdateSensorCallbackSet, OnModifySensor, OnSensorReply),
    SETTER(DAXO_DeleteSensorCallbackSet, OnDeleteSensor, OnSensorReply),
    SETTER(DAXO_DeleteMetricsCallbackSet, OnDeleteMetrics, OnSensorReply),
    SETTER(DAXO_PushMetricValuesCallbackSet, OnPushMetricValues, OnSensorReply),
    SETTER(DAXO_CreateMetricsCallbackSet, OnCreateMetrics, OnCreateMetrics),
    SETTER(DAXO_UpdateMetricsCallbackSet, OnUpdateMetrics, OnSensorReply),
    SETTER(DAXO_LogCallbackSet, OnLog, OnLog),
    SETTER(DAXO_ListSensorsCallbackSet, OnListSensors, OnListSensors),
    SETTER(DAXO_DescribeMetricCallbackSet, OnDescribeMetric, OnDescribeMetric),
    SETTER(DAXO_CheckConnectionCallbackSet, OnCheckConnection, OnCheckConnection),
    SETTER(DAXO_DeprovisionClientCallbackSet, OnDeprovisionClient, OnDeprovision),
    SETTER(DAXO_CreateSensorJobCallbackSet, OnCreateSensorJob, OnCreateSensorJob),
    SETTER(DAXO_DeleteSensorJobCallbackSet, OnDeleteSensorJob, OnDeleteSensorJob),
};

TEST_F(ClientTest, EverySetterStoresItsCallbackAndNullSwitchesItOff) {
  ASSERT_EQ(std::size(kSetters), 17u);
  for (const SetterCase& s : kSetters) {
    SCOPED_TRACE(s.name);
    EXPECT_EQ(s.set(nullptr, true), DAXO_Error_InvalidArguments);
    EXPECT_EQ(s.set(client_, true), DAXO_Error_Success);
    EXPECT_NE(s.field(client_), nullptr);
    EXPECT_EQ(s.set(client_, false), DAXO_Error_Success);
    EXPECT_EQ(s.field(client_), nullptr);
  }
}

TEST_F(ClientTest, DisconnectMapsTheTransportResult) {
  struct {
    int rc;
    DAXO_Error err;
    std::vector<int> loopStops;
  } cases[] = {
      {MOSQ_ERR_SUCCESS, DAXO_Error_Success, {0}},
      {MOSQ_ERR_NO_CONN, DAXO_Error_Success, {1}},
      {MOSQ_ERR_INVAL, DAXO_Error_InvalidArguments, {}},
      {MOSQ_ERR_NOT_SUPPORTED, DAXO_Error_NoThreadSupport, {}},
  };
  EXPECT_EQ(DAXO_Disconnect(nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_Disconnect(client_), DAXO_Error_Success) << "never connected";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rc);
    FakeMqtt& fake = Connected();
    fake.disconnectResult = c.rc;
    EXPECT_EQ(DAXO_Disconnect(client_), c.err);
    EXPECT_EQ(fake.disconnects, 1);
    EXPECT_EQ(fake.loopStops, c.loopStops);
    EXPECT_EQ(client_->polling, 0);
    EXPECT_EQ(DAXO_Disconnect(client_), DAXO_Error_Success);
    EXPECT_EQ(fake.disconnects, 1) << "a second disconnect does nothing";
    FakeMqtt::Destroy(client_->mosq);
    client_->mosq = nullptr;
  }
}

TEST_F(ClientTest, DeletionDisconnectsAndReleasesBothInstances) {
  FakeMqtt& main = Connected();
  client_->mosqProvision = FakeMqtt::Create(nullptr, "myid", 1, client_);
  daxo::Store(client_->provisionLoopStarted, 1);
  FakeMqtt& provision = *FakeMqtt::Last();
  provision.disconnectResult = MOSQ_ERR_NO_CONN;
  EXPECT_EQ(DAXO_DeleteClient(client_), DAXO_Error_Success);
  client_ = nullptr;
  EXPECT_EQ(main.disconnects, 1);
  EXPECT_EQ(main.loopStops, std::vector<int>{0});
  EXPECT_TRUE(main.destroyed);
  EXPECT_EQ(provision.disconnects, 1);
  EXPECT_EQ(provision.loopStops, std::vector<int>{1}) << "forced after a failed disconnect";
  EXPECT_TRUE(provision.destroyed);
}

struct Deprovisioned {
  int calls = 0;
  void* param = nullptr;
};

TEST_F(ClientTest, PublishAcknowledgementCompletesDeprovisioning) {
  static Deprovisioned seen;
  seen = {};
  FakeMqtt& fake = Connected();
  auto onDeprovision = [](DAXO_Client*, void* param) {
    seen.calls++;
    seen.param = param;
  };
  ASSERT_EQ(DAXO_DeprovisionClientCallbackSet(client_, onDeprovision), DAXO_Error_Success);
  client_->messageId = 42;
  ASSERT_TRUE(fake.FirePublish(41));
  EXPECT_EQ(seen.calls, 0) << "another message's acknowledgement";
  ASSERT_TRUE(fake.FirePublish(42));
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.param, &marker_);
  EXPECT_EQ(client_->messageId, 0);
  EXPECT_EQ(client_->certCheckThreadStarted, 0) << "the watch thread is stopped";
  fake.FirePublish(42);
  EXPECT_EQ(seen.calls, 1) << "completed once";

  ASSERT_EQ(DAXO_DeprovisionClientCallbackSet(client_, nullptr), DAXO_Error_Success);
  EXPECT_EQ(fake.onPublish, nullptr);
}

TEST(ClientLifecycle, CreatedAndDeletedManyTimes) {
  TempDir dir;
  std::string conf = dir.Write("client.conf", ValidConfig(dir));
  for (int i = 0; i < 1000; ++i) {
    DAXO_Error err = DAXO_Error_Unknown;
    DAXO_Client* client = DAXO_NewClient(conf.c_str(), nullptr, &err);
    ASSERT_NE(client, nullptr) << "iteration " << i;
    ASSERT_EQ(DAXO_DeleteClient(client), DAXO_Error_Success);
  }
  EXPECT_EQ(DAXO_DeleteClient(nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_GetClientId(nullptr), nullptr);
}

}  // namespace
