// The development agent's metric requests and error reports in the forms
// that the library never sends, exercised with a bare MQTT client.
#include "agent_probe.h"

namespace daxo_test {
namespace {

class AgentMetricsTest : public AgentProbeTest {
 protected:
  // A sensor with a standard metric t and a custom double d.
  void SetUp() override {
    AgentProbeTest::SetUp();
    sensor_ = CreateSensor("boiler");
    std::optional<ProbeMessage> created = Request("/sensor/" + sensor_ + "/metric", R"({"metrics":[
        {"valueUnit":"SI.Temperature.CELSIUS","matchingId":"t","name":"temperature"},
        {"valueType":"double","valueAnnotation":"share","matchingId":"d","name":"load"}]})");
    ASSERT_TRUE(created);
    ASSERT_EQ(created->topic, tree_ + "/sensor/" + sensor_ + "/metric/inbox");
    Json pairs = Parse(created->payload);
    ASSERT_TRUE(json_object_is_type(pairs.get(), json_type_array)) << created->payload;
    ASSERT_EQ(json_object_array_length(pairs.get()), 2u) << created->payload;
    ids_ = {{"s", sensor_},
            {"t", Member(json_object_array_get_idx(pairs.get(), 0), "metricId")},
            {"d", Member(json_object_array_get_idx(pairs.get(), 1), "metricId")},
            {"u", kUnknownSensor}};
  }

  std::string Describe(const std::string& metric) {
    std::optional<ProbeMessage> reply =
        Request(Fill("/sensor/{s}/metric/", ids_) + metric + "/inventory", "{}");
    return reply ? reply->payload : "no reply";
  }

  std::string sensor_;
  std::vector<std::pair<std::string, std::string>> ids_;
};

TEST_F(AgentMetricsTest, MalformedRequestsAreRefusedWholeWithTheirCode) {
  const std::string create = "/sensor/{s}/metric", update = create + "/update",
                    remove = create + "/delete", push = "/sensor/{s}";
  struct Case {
    std::string topic;
    std::string payload;
    int code;
  } cases[] = {
      {create, "metrics", 4},
      {create, "[]", 5},
      {create, "{}", 6},
      {create, R"({"metrics":{}})", 10},
      {create, R"({"metrics":[1]})", 5},
      {create, R"({"metrics":[{"valueUnit":"SI.Power.WATT","name":"p"}]})", 6},
      {create, R"({"metrics":[{"valueUnit":"SI.Power.WATT","name":"p","matchingId":7}]})", 7},
      {create, R"({"metrics":[{"valueUnit":"SI.Power.WATTS","name":"p","matchingId":"p"}]})", 12},
      {create,
       R"({"metrics":[{"valueType":"Non","valueAnnotation":"a","name":"p","matchingId":"p"}]})",
       13},
      {create,
       R"({"metrics":[{"valueUnit":"SI.Power.WATT","valueType":"double","valueAnnotation":"a",
           "name":"p","matchingId":"p"}]})",
       14},
      {create, R"({"metrics":[{"name":"p","matchingId":"p"}]})", 14},
      {update, R"({"metrics":[{"metricId":"{t}"}]})", 6},
      {update, R"({"metrics":[{"metricId":"{t}","name":5}]})", 7},
      {update, R"({"metrics":[{"metricId":"{t}","valueUnit":"SI.Power.WATT"}]})", 24},
      {update, R"({"metrics":[{"metricId":"{t}","name":"temperature"}]})", 17},
      {update, R"({"metrics":[]})", 17},
      {"/sensor/{u}/metric/update", R"({"metrics":[{"metricId":"{t}","name":"x"}]})", 15},
      {remove, R"({"metrics":"{t}"})", 10},
      {remove, R"({"metrics":[{}]})", 6},
      {push, R"({"metrics":[{"metricId":"{t}"}]})", 6},
      {push, R"({"metrics":[{"metricId":5,"value":1}]})", 7},
      {push, R"({"metrics":[{"metricId":"{t}","value":null}]})", 8},
      {push, R"({"metrics":[{"metricId":"{t}","value":1},{"metricId":"{d}","value":NaN}]})", 27},
      {push, R"({"metrics":[{"metricId":"{t}","value":1}],"timestamp":"now"})", 11},
      {push, R"({"metrics":[{"metricId":"{t}","value":1}],"timestamp":1.5})", 11},
      {push, R"({"metrics":[{"metricId":"{t}","value":1}],"timestamp":-1})", 27},
  };
  for (const Case& c : cases) {
    std::string topic = Fill(c.topic, ids_);
    SCOPED_TRACE(topic + " " + c.payload);
    std::optional<ProbeMessage> reply = Request(topic, Fill(c.payload, ids_));
    ASSERT_TRUE(reply);
    // Pushes are answered below the sensor, the other requests below their own topic.
    EXPECT_EQ(reply->topic, tree_ + topic + "/error/inbox");
    Json body = Parse(reply->payload);
    EXPECT_EQ(Member(body.get(), "errorcode"), std::to_string(c.code)) << reply->payload;
    EXPECT_NE(Member(body.get(), "errorMessage"), "");
  }
  std::optional<ProbeMessage> list = Request("/inventory", "{}");
  ASSERT_TRUE(list);
  EXPECT_TRUE(SameJson(
      list->payload,
      Fill(
          R"([{"name":"boiler","sensorId":"{s}","metrics":[{"metricId":"{t}"},{"metricId":"{d}"}]}])",
          ids_)));
  EXPECT_TRUE(SameJson(Describe(Fill("{t}", ids_)),
                       Fill(R"({"metricId":"{t}","valueUnit":"SI.Temperature.CELSIUS",
                                "lastUpdated":0,"value":"","name":"temperature"})",
                            ids_)));
}

TEST_F(AgentMetricsTest, ValuesKeepTheirTextAndTheLastOfAPushWins) {
  struct Step {
    std::string topic;
    std::string payload;
    std::string replyTopic;
    std::string reply;
  } steps[] = {
      {"/sensor/{s}/metric", R"({"metrics":[]})", "/sensor/{s}/metric/inbox", "[]"},
      {"/sensor/{s}", R"({"metrics":[]})", "/sensor/{s}/info/inbox", "{}"},
      {"/sensor/{s}",
       R"({"metrics":[{"metricId":"{d}","value":21.50},{"metricId":"{t}","value":1},
                      {"metricId":"{t}","value":2e1}],"timestamp":5})",
       "/sensor/{s}/info/inbox", "{}"},
      {"/sensor/{s}/metric/{d}/inventory", "{}", "/sensor/{s}/metric/{d}/inventory/inbox",
       R"({"metricId":"{d}","valueType":"double","valueAnnotation":"share","lastUpdated":5,
           "value":"21.50","name":"load"})"},
      {"/sensor/{s}/metric/{t}/inventory", "{}", "/sensor/{s}/metric/{t}/inventory/inbox",
       R"({"metricId":"{t}","valueUnit":"SI.Temperature.CELSIUS","lastUpdated":5,"value":"2e1",
           "name":"temperature"})"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.topic + " " + step.payload);
    std::optional<ProbeMessage> reply = Request(Fill(step.topic, ids_), Fill(step.payload, ids_));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->topic, tree_ + Fill(step.replyTopic, ids_));
    EXPECT_TRUE(SameJson(reply->payload, Fill(step.reply, ids_)));
  }
}

TEST_F(AgentMetricsTest, UnreadableErrorReportsAreDroppedAndNoReportIsAnswered) {
  std::size_t before = probe_.ReceivedCount();
  struct Report {
    std::string topic;
    std::string payload;
  } reports[] = {
      {"/error", R"({"errorcode":1,"errorMessage":"the client level spells it errocode"})"},
      {"/error", R"({"errocode":"1","errorMessage":"not a number"})"},
      {"/sensor/{s}/error", R"({"errorcode":1})"},
      {"/sensor/{s}/metric/{t}/error", R"({"errorcode":4294967296,"errorMessage":"too big"})"},
      {"/error", R"({"errocode":2,"errorMessage":"kept"})"},
  };
  for (const Report& r : reports)
    ASSERT_TRUE(probe_.Publish(tree_ + Fill(r.topic, ids_), r.payload));
  // Served in order: the reports are handled once the check is answered.
  std::optional<ProbeMessage> check = Request("/ping", R"({"request":"CheckProvisioning"})");
  ASSERT_TRUE(check);
  EXPECT_EQ(check->topic, tree_ + "/ping/info/inbox");
  for (std::size_t n = before; n < probe_.ReceivedCount(); ++n)
    EXPECT_TRUE(probe_.Received()[n].topic.ends_with("/error") ||
                probe_.Received()[n].topic.starts_with(tree_ + "/ping"))
        << probe_.Received()[n].topic;

  Json dump = Control("dump");
  json_object* client = json_object_array_get_idx(json_object_object_get(dump.get(), "clients"), 0);
  json_object* kept = json_object_object_get(client, "errorReports");
  ASSERT_EQ(json_object_array_length(kept), 1u) << json_object_get_string(dump.get());
  EXPECT_EQ(Member(json_object_array_get_idx(kept, 0), "errorMessage"), "kept");
  // The agent's reply to the sensor's creation came back on the push filter
  // and must not have been answered as a push to a sensor "inbox".
  for (const ProbeMessage& m : probe_.Received())
    EXPECT_EQ(m.topic.find("/sensor/inbox/"), std::string::npos) << m.topic;
}

}  // namespace
}  // namespace daxo_test
