#include <gtest/gtest.h>

#include "c_handles.h"
#include "client_fixture.h"

namespace {

constexpr const char* kSensor = R"({"name":"hall","sensorId":"s9","metrics":[{"metricId":"m1"}]})";
constexpr const char* kNoCode = R"({"errorMessage":"no code"})";

TEST_F(FakeClientTest, DispatcherRoutesEveryReplyAndCommand) {
  const struct {
    std::string levels, payload;  // levels below /v1.0/client-1/
    std::string call;             // "name code summary"; empty: dropped
  } routes[] = {
      {"ping/info/inbox", "anything", "OnCheckConnection -1 "},
      {"ping/error/inbox", R"({"errorcode":"15"})", "OnCheckConnection 15 "},
      {"ping/error/inbox", R"({"errorcode":28})", "OnCheckConnection 0 "},  // past the last
      {"sensor/inbox", R"({"name":"n","sensorId":"s"})", "OnCreateSensor -1 n|s"},
      {"sensor/error/inbox", R"({"errorcode":15})", "OnCreateSensor 15 null|null"},
      {"sensor/s1/update/info/inbox", "{}", "OnModifySensor -1 s1"},
      {"sensor/s1/update/error/inbox", R"({"errorcode":15})", "OnModifySensor 15 s1"},
      {"sensor/s1/update/error/inbox", kNoCode, ""},
      {"sensor/s1/delete/info/inbox", "{}", "OnDeleteSensor -1 s1"},
      {"sensor/s1/delete/error/inbox", R"({"errorcode":1})", "OnDeleteSensor 1 s1"},
      {"sensor/s1/info/inbox", "{}", "OnPushMetricValues -1 s1"},
      {"sensor/s1/error/inbox", R"({"errorcode":27})", "OnPushMetricValues 27 s1"},
      {"inventory/inbox/extra", std::string("[") + kSensor + "]", "OnListSensors -1 1"},
      {"inventory/error/inbox", R"({"errorcode":3})", "OnListSensors 3 null"},
      {"sensor/job/create", kSensor, "OnCreateSensorJob 0 s9"},
      {"sensor/s1/job/delete", "{}", "OnDeleteSensorJob 0 s1"},
      {"sensor/s1/metric/inbox", R"([{"metricId":"m","matchingId":"a"}])",
       "OnCreateMetrics -1 s1|1"},
      {"sensor/s1/metric/error/inbox", R"({"errorcode":26})", "OnCreateMetrics 26 null"},
      {"sensor/s1/metric/delete/info/inbox", "{}", "OnDeleteMetrics -1 s1"},
      {"sensor/s1/metric/delete/error/inbox", R"({"errorcode":23})", "OnDeleteMetrics 23 s1"},
      {"sensor/s1/metric/update/info/inbox", "{}", "OnUpdateMetrics -1 s1"},
      {"sensor/s1/metric/update/error/inbox", R"({"errorcode":24})", "OnUpdateMetrics 24 s1"},
      {"sensor/s1/metric/m1/inventory/inbox",
       R"({"metricId":"m1","valueUnit":"SI.Length.METER","lastUpdated":1,"value":"2","name":"t"})",
       "OnDescribeMetric -1 s1|m1"},
      {"sensor/s1/update", R"({"name":"x"})", ""},  // the client's own request
  };
  EXPECT_EQ(DispatchResponse(client, "/v1.0/client-1/ping/info/inbox", "{}"),
            DAXO_Error_InvalidArguments);
  FakeMqtt& fake = Connected();
  RecordReplies();
  for (const auto& r : routes) {
    std::string topic = "/v1.0/client-1/" + r.levels;
    SCOPED_TRACE(topic + " " + r.payload);
    calls.clear();
    logs.clear();
    fake.Deliver(topic, r.payload);
    std::string got;
    for (const Call& c : calls) got += c.name + " " + std::to_string(c.code) + " " + c.text;
    EXPECT_EQ(got, r.call);
    EXPECT_EQ(logs.at(0), "DispatchResponse: " + topic + "\n" + r.payload);
    EXPECT_EQ(logs.size(), r.payload == kNoCode ? 2u : 1u) << "a line for an unparsable error";
  }
  // Another client, another version, or an empty identifier level.
  for (const char* topic :
       {"/v1.0/client-2/ping/info/inbox", "/v1.0/Client-1/ping/info/inbox",
        "/v1.1/client-1/ping/info/inbox", "/v1.0/client-1/sensor//update/info/inbox",
        "/v1.0/client-1/sensor//job/delete",
        "/v1.0/client-1/sensor/s1/metric//inventory/error/inbox"})
    fake.Deliver(topic, R"({"errorcode":1})");
  EXPECT_TRUE(calls.empty()) << calls[0].name;
}

// A payload is logged whole up to 1,024 bytes, beyond that cut, with its
// length: a 16 MB message used to become 34 MB of log lines.
TEST_F(FakeClientTest, LoggedPayloadsAreCutAfter1024Bytes) {
  FakeMqtt& fake = Connected();
  const std::string whole(1024, 'a'), big(1 << 20, 'c');
  const std::pair<std::string, std::string> cases[] = {
      {whole, whole},
      {whole + "b", whole + "... (1025 bytes, the first 1024 logged)"},
      {big, big.substr(0, 1024) + "... (1048576 bytes, the first 1024 logged)"},
  };
  const std::string topic = "/v1.0/client-1/ping/info/inbox";
  for (const auto& [payload, logged] : cases) {
    logs.clear();
    fake.Deliver(topic, payload);
    ASSERT_EQ(SendMessageToAgent(client, "/v1.0/client-1/ping", payload.c_str(),
                                 static_cast<int>(payload.size()), nullptr),
              DAXO_Error_Success);
    ASSERT_EQ(logs.size(), 2u);  // compared without printing a megabyte
    EXPECT_TRUE(logs[0] == "DispatchResponse: " + topic + "\n" + logged) << logs[0].size();
    EXPECT_TRUE(logs[1] == "SendMessage: " + logged) << logs[1].size();
  }
}

// The dispatcher splits topics itself; it must see the levels libmosquitto's
// tokeniser would give, empty ones null.
TEST(TopicLevelsTest, SplitsAsLibmosquitto) {
  for (const char* topic : {"", "a", "/", "//", "/a", "a/", "a//b", "/v1.0/c/sensor/s/info/inbox",
                            "+/#", " / "}) {
    SCOPED_TRACE(topic);
    char** expected = nullptr;
    int count = 0;
    ASSERT_EQ(mosquitto_sub_topic_tokenise(topic, &expected, &count), MOSQ_ERR_SUCCESS);
    daxo::TopicLevels levels;
    ASSERT_TRUE(levels.Tokenise(topic));
    EXPECT_EQ(levels.Count(), count);
    for (int i = 0; i < std::min(count, levels.Count()); ++i)
      EXPECT_STREQ(levels[i], expected[i]) << "level " << i;
    mosquitto_sub_topic_tokens_free(&expected, count);
  }
}

}  // namespace
