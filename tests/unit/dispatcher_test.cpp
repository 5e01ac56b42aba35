#include <gtest/gtest.h>

#include "client_fixture.h"

namespace {

using DispatcherTest = FakeClientTest;

struct Route {
  const char* topic;
  const char* payload;
  std::vector<int> checks;  // codes OnCheckConnection receives
  std::vector<std::string> extraLogs;
};

TEST_F(DispatcherTest, RoutesConnectionCheckReplies) {
  const std::string parseError = "Failed to parse API error: topic - /v1.0/client-1/ping/error/inbox";
  const Route routes[] = {
      {"/v1.0/client-1/ping/info/inbox", "{}", {DAXO_ApiError_NoError}, {}},
      {"/v1.0/client-1/ping/info/inbox", "anything", {DAXO_ApiError_NoError}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorcode":15})", {DAXO_ApiError_UnknownSensorId}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorcode":99})", {DAXO_ApiError_UnknownError}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorcode":0})", {DAXO_ApiError_UnknownError}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorcode":null})", {DAXO_ApiError_UnknownError}, {}},
      {"/v1.0/client-1/ping/error/inbox", R"({"errorMessage":"x"})", {},
       {parseError + R"(, errMessage - {"errorMessage":"x"})"}},
      {"/v1.0/client-1/ping/error/inbox", "not json", {}, {parseError + ", errMessage - not json"}},
      {"/v1.0/client-1/ping/info/inbox/more", "{}", {}, {}},
      {"/v1.0/client-1/ping/info", "{}", {}, {}},
      {"/v1.0/client-1/ping/other/inbox", "{}", {}, {}},
      {"/v1.0/client-1/ping", R"({"request":"CheckProvisioning"})", {}, {}},
      {"/v1.0/client-2/ping/info/inbox", "{}", {}, {}},
      {"/v2.0/client-1/ping/info/inbox", "{}", {}, {}},
      {"/v1.0/client-1", "{}", {}, {}},
      {"/v1.0/client-1//info/inbox", "{}", {}, {}},
      {"v1.0/client-1/ping/info/inbox", "{}", {}, {}},
      {"/v1.0/Client-1/ping/info/inbox", "{}", {}, {}},
  };
  FakeMqtt& fake = Connected();
  for (const Route& r : routes) {
    SCOPED_TRACE(std::string(r.topic) + " " + r.payload);
    calls.clear();
    logs.clear();
    ASSERT_TRUE(fake.Deliver(r.topic, r.payload));
    std::vector<int> checks;
    for (const Call& c : calls) {
      EXPECT_EQ(c.name, "OnCheckConnection");
      checks.push_back(c.code);
    }
    EXPECT_EQ(checks, r.checks);
    std::vector<std::string> want = {std::string("DispatchResponse: ") + r.topic + "\n" + r.payload};
    want.insert(want.end(), r.extraLogs.begin(), r.extraLogs.end());
    EXPECT_EQ(logs, want);
  }
}

TEST_F(DispatcherTest, DropsEmptyPayloadsWithoutALine) {
  FakeMqtt& fake = Connected();
  fake.Deliver("/v1.0/client-1/ping/info/inbox", "");
  EXPECT_TRUE(calls.empty());
  EXPECT_TRUE(logs.empty());
}

TEST_F(DispatcherTest, WorksWithoutOnLogAndWithoutCallbacks) {
  FakeMqtt& fake = Connected();
  DAXO_LogCallbackSet(client, nullptr);
  fake.Deliver("/v1.0/client-1/ping/info/inbox", "{}");
  ASSERT_EQ(calls.size(), 1u);
  DAXO_CheckConnectionCallbackSet(client, nullptr);
  DAXO_LogCallbackSet(client, CaptureLog);
  logs.clear();
  fake.Deliver("/v1.0/client-1/ping/error/inbox", "not json");
  EXPECT_EQ(logs.size(), 1u) << "an error reply nobody waits for is not parsed";
}

TEST_F(DispatcherTest, IgnoresEverythingWithoutAnIdentifier) {
  EXPECT_EQ(DispatchResponse(client, "/v1.0/client-1/ping/info/inbox", "{}"),
            DAXO_Error_InvalidArguments);
  EXPECT_TRUE(calls.empty());
  EXPECT_EQ(DispatchResponse(nullptr, "/t", "{}"), DAXO_Error_InvalidArguments);
  MessageCallback(nullptr, client, nullptr);
  MessageCallback(nullptr, nullptr, nullptr);
}

}  // namespace

namespace {

struct Routed {
  std::string levels;  // below /v1.0/client-1/
  const char* payload;
  const char* callback;  // nullptr: dropped
  int code = DAXO_ApiError_NoError;
  const char* summary = "";
};

constexpr const char* kSensor =
    R"({"name":"hall","sensorId":"s9","metrics":[{"metricId":"m1"}]})";
constexpr const char* kCreated = R"([{"metricId":"m1","matchingId":"a"},{"metricId":"m2","matchingId":"b"}])";
constexpr const char* kMetric =
    R"({"metricId":"m1","valueUnit":"SI.Temperature.CELSIUS","lastUpdated":1,"value":"2","name":"t"})";
constexpr const char* kError15 = R"({"errorcode":15})";
const std::string kSensorListText = std::string("[") + kSensor + "," + kSensor + "]";
const char* const kSensorList = kSensorListText.c_str();

const Routed kRoutes[] = {
    {"sensor/inbox", R"({"name":"n","sensorId":"s"})", "OnCreateSensor", -1, "n|s"},
    {"sensor/inbox", R"({"name":"n"})", nullptr},
    {"sensor/error/inbox", kError15, "OnCreateSensor", 15, "null|null"},
    {"sensor/s1/update/info/inbox", "{}", "OnModifySensor", -1, "s1"},
    {"sensor/s1/update/error/inbox", kError15, "OnModifySensor", 15, "s1"},
    {"sensor/s1/delete/info/inbox", "{}", "OnDeleteSensor", -1, "s1"},
    {"sensor/s1/delete/error/inbox", R"({"errorcode":99})", "OnDeleteSensor", 0, "s1"},
    {"sensor/s1/info/inbox", "{}", "OnPushMetricValues", -1, "s1"},
    {"sensor/s1/error/inbox", R"({"errorcode":27})", "OnPushMetricValues", 27, "s1"},
    {"inventory/inbox", "[]", "OnListSensors", -1, "sensors=0"},
    {"inventory/inbox/extra", "[]", "OnListSensors", -1, "sensors=0"},
    {"inventory/inbox", kSensorList, "OnListSensors", -1, "sensors=2"},
    {"inventory/inbox", "{}", nullptr},
    {"inventory/error/inbox", R"({"errorcode":3})", "OnListSensors", 3, "null"},
    {"sensor/job/create", kSensor, "OnCreateSensorJob", 0, "s9"},
    {"sensor/job/create", R"({"name":"x"})", nullptr},
    {"sensor/s1/job/delete", "{}", "OnDeleteSensorJob", 0, "s1"},
    {"sensor/s1/metric/inbox", kCreated, "OnCreateMetrics", -1, "s1|2"},
    {"sensor/s1/metric/inbox", R"({"metricId":"m1"})", nullptr},
    {"sensor/s1/metric/error/inbox", R"({"errorcode":26})", "OnCreateMetrics", 26, "null"},
    {"sensor/s1/metric/delete/info/inbox", "{}", "OnDeleteMetrics", -1, "s1"},
    {"sensor/s1/metric/delete/error/inbox", R"({"errorcode":23})", "OnDeleteMetrics", 23, "s1"},
    {"sensor/s1/metric/update/info/inbox", "{}", "OnUpdateMetrics", -1, "s1"},
    {"sensor/s1/metric/update/error/inbox", R"({"errorcode":24})", "OnUpdateMetrics", 24, "s1"},
    {"sensor/s1/metric/m1/inventory/inbox", kMetric, "OnDescribeMetric", -1, "s1|m1"},
    {"sensor/s1/metric/m1/inventory/error/inbox", R"({"errorcode":16})", "OnDescribeMetric", 16,
     "s1|null"},
    // Dropped: the client's own requests, wrong shapes, reserved words.
    {"sensor/create", R"({"name":"x"})", nullptr},
    {"sensor/s1/update", R"({"name":"x"})", nullptr},
    {"sensor/s1/delete", "{}", nullptr},
    {"sensor/s1", "{}", nullptr},
    {"inventory", "{}", nullptr},
    {"sensor/s1/metric/m1/inventory", "{}", nullptr},
    {"sensor/s1/metric", "[]", nullptr},
    {"sensor/s1/metric/update", "[]", nullptr},
    {"sensor/s1/error", "{}", nullptr},
    {"sensor/job/delete", "{}", nullptr},
    {"sensor/job/create/more", kSensor, nullptr},
    {"sensor/error/info/inbox", "{}", nullptr},
    {"sensor/s1/update/info/inbox/x", "{}", nullptr},
    {"sensor/s1/update/other/inbox", "{}", nullptr},
    {"sensor/s1/metric/delete/info/inbox/x", "{}", nullptr},
    {"sensor/s1/metric/error/inventory/inbox", kMetric, nullptr},
    {"sensor/s1/other/info/inbox", "{}", nullptr},
    {"sensor/s1/job/create", "{}", nullptr},
    {"sensor//update/info/inbox", "{}", nullptr},
    {"unknown/info/inbox", "{}", nullptr},
};

TEST_F(DispatcherTest, RoutesEveryReplyAndCommand) {
  FakeMqtt& fake = Connected();
  RecordReplies();
  for (const Routed& r : kRoutes) {
    std::string topic = "/v1.0/client-1/" + r.levels;
    SCOPED_TRACE(topic + " " + r.payload);
    calls.clear();
    fake.Deliver(topic, r.payload);
    if (r.callback == nullptr) {
      EXPECT_TRUE(calls.empty()) << calls[0].name;
      continue;
    }
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].name, r.callback);
    EXPECT_EQ(calls[0].code, r.code);
    EXPECT_EQ(calls[0].text, r.summary);
  }
}

TEST_F(DispatcherTest, UnreadableErrorRepliesAreLoggedNotDelivered) {
  FakeMqtt& fake = Connected();
  RecordReplies();
  for (const char* levels : {"sensor/error/inbox", "sensor/s1/update/error/inbox",
                             "inventory/error/inbox", "sensor/s1/metric/error/inbox",
                             "sensor/s1/metric/m1/inventory/error/inbox"}) {
    SCOPED_TRACE(levels);
    calls.clear();
    logs.clear();
    std::string topic = std::string("/v1.0/client-1/") + levels;
    fake.Deliver(topic, R"({"errorMessage":"no code"})");
    EXPECT_TRUE(calls.empty());
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs[1], "Failed to parse API error: topic - " + topic +
                           R"(, errMessage - {"errorMessage":"no code"})");
  }
}

}  // namespace
