// The development agent's sensor requests and its control socket, exercised
// with a bare MQTT client on a client certificate issued by the environment.
#include <sys/stat.h>

#include <regex>

#include "agent_probe.h"

namespace daxo_test {
namespace {

class AgentSensorsTest : public AgentProbeTest {};

TEST_F(AgentSensorsTest, SensorsAreCreatedRenamedListedAndDeleted) {
  std::optional<ProbeMessage> created = Request("/sensor/create", R"({"name":"hall"})");
  ASSERT_TRUE(created);
  EXPECT_EQ(created->topic, tree_ + "/sensor/inbox");
  std::string hall = Member(Parse(created->payload).get(), "sensorId");
  EXPECT_TRUE(std::regex_match(hall, std::regex("s-[0-9a-f]{8}"))) << hall;
  EXPECT_TRUE(
      SameJson(created->payload, Fill(R"({"name":"hall","sensorId":"{s}"})", {{"s", hall}})));
  std::string yard = CreateSensor("yard");
  EXPECT_NE(yard, hall);

  struct Step {
    std::string topic;
    std::string payload;
    std::string replyTopic;
    std::string reply;
  } steps[] = {
      {"/inventory", "{}", "/inventory/inbox",
       R"([{"name":"hall","sensorId":"{hall}","metrics":[]},
           {"name":"yard","sensorId":"{yard}","metrics":[]}])"},
      {"/sensor/{hall}/update", R"({"name":"hall \"north\""})", "/sensor/{hall}/update/info/inbox",
       "{}"},
      {"/sensor/{yard}/delete", "{}", "/sensor/{yard}/delete/info/inbox", "{}"},
      {"/inventory", "{}", "/inventory/inbox",
       R"([{"name":"hall \"north\"","sensorId":"{hall}","metrics":[]}])"},
  };
  for (const Step& step : steps) {
    std::string topic = Fill(step.topic, {{"hall", hall}, {"yard", yard}});
    SCOPED_TRACE(topic);
    std::optional<ProbeMessage> reply = Request(topic, step.payload);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->topic, tree_ + Fill(step.replyTopic, {{"hall", hall}, {"yard", yard}}));
    EXPECT_TRUE(SameJson(reply->payload, Fill(step.reply, {{"hall", hall}, {"yard", yard}})));
  }
}

TEST_F(AgentSensorsTest, FaultsAreAnsweredOnTheRequestsErrorTopicWithTheirCode) {
  std::string sensor = CreateSensor("boiler");
  struct Case {
    std::string topic;
    std::string payload;
    std::string errorTopic;
    int code;
  } cases[] = {
      {"/sensor/create", "name=boiler", "/sensor/error/inbox", 4},
      {"/sensor/create", R"(["boiler"])", "/sensor/error/inbox", 5},
      {"/sensor/create", R"({"title":"boiler"})", "/sensor/error/inbox", 6},
      {"/sensor/create", R"({"name":7})", "/sensor/error/inbox", 7},
      {"/sensor/{s}/update", R"({"name":null})", "/sensor/{s}/update/error/inbox", 7},
      {"/sensor/{u}/update", R"({"name":"x"})", "/sensor/{u}/update/error/inbox", 15},
      {"/sensor/{s}/delete", "", "/sensor/{s}/delete/error/inbox", 4},
      {"/sensor/{u}/delete", "{}", "/sensor/{u}/delete/error/inbox", 15},
      {"/inventory", "[]", "/inventory/error/inbox", 5},
      {"/sensor/{s}/metric/{m}/inventory", "{} {}", "/sensor/{s}/metric/{m}/inventory/error/inbox",
       4},
      {"/sensor/{u}/metric/{m}/inventory", "{}", "/sensor/{u}/metric/{m}/inventory/error/inbox",
       15},
      {"/sensor/{s}/metric/{m}/inventory", "{}", "/sensor/{s}/metric/{m}/inventory/error/inbox",
       16},
  };
  for (const Case& c : cases) {
    auto fill = [&](const std::string& text) {
      return Fill(text, {{"s", sensor}, {"u", kUnknownSensor}, {"m", kUnknownMetric}});
    };
    SCOPED_TRACE(fill(c.topic) + " " + c.payload);
    std::optional<ProbeMessage> reply = Request(fill(c.topic), c.payload);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->topic, tree_ + fill(c.errorTopic));
    Json body = Parse(reply->payload);
    json_object* code = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(body.get(), "errorcode", &code)) << reply->payload;
    EXPECT_EQ(json_object_get_int(code), c.code) << reply->payload;
    EXPECT_NE(Member(body.get(), "errorMessage"), "");
  }
  // None of the faults changed anything.
  std::optional<ProbeMessage> list = Request("/inventory", "{}");
  ASSERT_TRUE(list);
  EXPECT_TRUE(SameJson(list->payload, Fill(R"([{"name":"boiler","sensorId":"{s}","metrics":[]}])",
                                           {{"s", sensor}})));
}

TEST_F(AgentSensorsTest, JobsReachTheClientAndShowInListsDescriptionsAndTheDump) {
  std::size_t before = probe_.ReceivedCount();
  Json climate = Control("job-create " + id_ + R"( {"name":"climate","frequency":30,
      "monitoringService":"hvac","metrics":[
        {"name":"temperature","valueUnit":"SI.Temperature.CELSIUS"},
        {"name":"mode","valueType":"string","valueAnnotation":"heat or cool"}]})");
  ASSERT_EQ(Member(climate.get(), "ok"), "true") << json_object_get_string(climate.get());
  json_object* sensor = json_object_object_get(climate.get(), "sensor");
  json_object* metrics = json_object_object_get(sensor, "metrics");
  ASSERT_EQ(json_object_array_length(metrics), 2u);
  std::vector<std::pair<std::string, std::string>> ids = {
      {"s", Member(sensor, "sensorId")},
      {"t", Member(json_object_array_get_idx(metrics, 0), "metricId")},
      {"m", Member(json_object_array_get_idx(metrics, 1), "metricId")},
  };
  std::string climateJob = Fill(R"({"name":"climate","sensorId":"{s}","frequency":30,
      "monitoringService":"hvac","metrics":[{"metricId":"{t}"},{"metricId":"{m}"}]})",
                                ids);
  std::optional<ProbeMessage> job = WaitForJob("/sensor/job/create", before);
  ASSERT_TRUE(job);
  EXPECT_TRUE(SameJson(job->payload, climateJob));

  before = probe_.ReceivedCount();
  Json plugin = Control("job-create " + id_ +
                        R"( {"name":"meter","pluginName":"modbus","pluginDownloadUrl":)"
                        R"("https://plugins.example/modbus","pluginParams":{"unit":3,"bus":"A"},)"
                        R"("metrics":[]})");
  ASSERT_EQ(Member(plugin.get(), "ok"), "true") << json_object_get_string(plugin.get());
  ids.emplace_back("p", Member(json_object_object_get(plugin.get(), "sensor"), "sensorId"));
  std::string meterJob = Fill(R"({"name":"meter","sensorId":"{p}","pluginName":"modbus",
      "pluginDownloadUrl":"https://plugins.example/modbus","pluginParams":{"unit":3,"bus":"A"},
      "metrics":[]})",
                              ids);
  job = WaitForJob("/sensor/job/create", before);
  ASSERT_TRUE(job);
  EXPECT_TRUE(SameJson(job->payload, meterJob));

  struct Step {
    std::string topic;
    std::string replyTopic;
    std::string reply;
  } steps[] = {
      {"/inventory", "/inventory/inbox", "[" + climateJob + "," + meterJob + "]"},
      {"/sensor/{s}/metric/{t}/inventory", "/sensor/{s}/metric/{t}/inventory/inbox",
       R"({"metricId":"{t}","valueUnit":"SI.Temperature.CELSIUS","lastUpdated":0,"value":"",
           "name":"temperature"})"},
      {"/sensor/{s}/metric/{m}/inventory", "/sensor/{s}/metric/{m}/inventory/inbox",
       R"({"metricId":"{m}","valueType":"string","valueAnnotation":"heat or cool",
           "lastUpdated":0,"value":"","name":"mode"})"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.topic);
    std::optional<ProbeMessage> reply = Request(Fill(step.topic, ids), "{}");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->topic, tree_ + Fill(step.replyTopic, ids));
    EXPECT_TRUE(SameJson(reply->payload, Fill(step.reply, ids)));
  }

  Json dump = Control("dump");
  json_object* clients = json_object_object_get(dump.get(), "clients");
  ASSERT_EQ(json_object_array_length(clients), 1u) << json_object_get_string(dump.get());
  EXPECT_EQ(Member(json_object_array_get_idx(clients, 0), "id"), id_);
  EXPECT_TRUE(SameJson(
      json_object_get_string(
          json_object_object_get(json_object_array_get_idx(clients, 0), "sensors")),
      Fill(R"([{"name":"climate","sensorId":"{s}","frequency":30,"monitoringService":"hvac",
               "metrics":[{"metricId":"{t}","valueUnit":"SI.Temperature.CELSIUS","lastUpdated":0,
                           "value":"","name":"temperature"},
                          {"metricId":"{m}","valueType":"string","valueAnnotation":"heat or cool",
                           "lastUpdated":0,"value":"","name":"mode"}]},)" +
               meterJob + "]",
           ids)));

  before = probe_.ReceivedCount();
  Json deleted = Control("job-delete " + id_ + " " + ids[0].second);
  EXPECT_EQ(Member(deleted.get(), "ok"), "true") << json_object_get_string(deleted.get());
  job = WaitForJob("/sensor/" + ids[0].second + "/job/delete", before);
  ASSERT_TRUE(job);
  EXPECT_EQ(job->payload, "{}");
  std::optional<ProbeMessage> list = Request("/inventory", "{}");
  ASSERT_TRUE(list);
  EXPECT_TRUE(SameJson(list->payload, "[" + meterJob + "]"));
}

TEST_F(AgentSensorsTest, ControlRefusesCommandsItCannotCarryOutAndSendsNothing) {
  std::string sensor = CreateSensor("porch");
  std::string job = "job-create " + id_ + " ";
  struct Case {
    std::string command;
    std::string error;  // a part of the answer's "error"
  } cases[] = {
      {"frobnicate", "unknown command"},
      {"job-create", "CLIENT_ID"},
      {"job-create a/b {\"name\":\"x\",\"metrics\":[]}", "CLIENT_ID"},
      {job, "DEFINITION"},
      {job + "{\"name\":\"x\"", "not valid JSON"},
      {job + "{\"name\":\"x\"}", "\"metrics\""},
      {job + "{\"name\":\"x\",\"sensorId\":\"s-1\",\"metrics\":[]}", "assigns sensor ids"},
      {job + "{\"name\":\"x\",\"frequncy\":5,\"metrics\":[]}", "unknown member \"frequncy\""},
      {job + "{\"name\":\"x\",\"frequency\":0,\"metrics\":[]}", "\"frequency\""},
      {job + "{\"name\":\"x\",\"pluginName\":\"p\",\"metrics\":[]}", "pluginDownloadUrl"},
      {job + "{\"name\":\"x\",\"pluginName\":\"p\",\"pluginDownloadUrl\":\"u\","
             "\"monitoringService\":\"m\",\"metrics\":[]}",
       "not both"},
      {job + "{\"name\":\"x\",\"metrics\":[{\"name\":\"l\",\"valueUnit\":\"SI.Length.METRE\"}]}",
       "unknown value unit"},
      {job + "{\"name\":\"x\",\"metrics\":[{\"name\":\"l\",\"valueType\":\"Non\","
             "\"valueAnnotation\":\"a\"}]}",
       "unknown value type"},
      {job + "{\"name\":\"x\",\"metrics\":[{\"name\":\"l\",\"valueType\":\"bool\"}]}",
       "\"valueAnnotation\""},
      {"job-delete " + id_ + " " + kUnknownSensor, "has no sensor"},
      {"job-delete " + id_ + " " + sensor + " extra", "unexpected text"},
      {"dump now", "no arguments"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    Json answer = Control(c.command);
    EXPECT_EQ(Member(answer.get(), "ok"), "false");
    EXPECT_NE(Member(answer.get(), "error").find(c.error), std::string::npos)
        << Member(answer.get(), "error");
  }
  // The agent answers in order, so a job sent above would arrive before this.
  std::optional<ProbeMessage> list = Request("/inventory", "{}");
  ASSERT_TRUE(list);
  EXPECT_TRUE(SameJson(
      list->payload, Fill(R"([{"name":"porch","sensorId":"{s}","metrics":[]}])", {{"s", sensor}})));
  for (const ProbeMessage& m : probe_.Received())
    EXPECT_EQ(m.topic.find("/job/"), std::string::npos) << m.topic;
}

TEST_F(AgentSensorsTest, CommandLineSendsCommandsToThePrivateSocketOfTheRunningAgent) {
  std::string socket = env_.AgentControlSocket();
  struct stat info {};
  ASSERT_EQ(stat(socket.c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  std::string output = (env_.Folder() / "control-client.out").string();
  struct Case {
    std::vector<std::string> arguments;
    int exitCode;
    std::string printed;
  } cases[] = {
      {{"--control", socket, "job-create", id_, R"({"name":"attic",)", "\n", R"("metrics":[]})"},
       0,
       R"("name":"attic")"},
      {{"--control", socket, "dump"}, 0, R"("name":"attic")"},
      {{"--state", (env_.Folder() / "agent-state").string(), "job-delete", id_, kUnknownSensor},
       1,
       R"("ok":false)"},
      {{"--control", socket + ".absent", "dump"}, 1, "no agent answers"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments.back());
    std::vector<std::string> argv = {DAXO_AGENT_PATH};
    argv.insert(argv.end(), c.arguments.begin(), c.arguments.end());
    std::filesystem::remove(output);
    ExitStatus status = RunCommand(argv, output);
    EXPECT_TRUE(status.exited);
    EXPECT_EQ(status.code, c.exitCode);
    EXPECT_NE(ReadFile(output).find(c.printed), std::string::npos) << ReadFile(output);
  }

  ASSERT_TRUE(env_.StopAgent());
  EXPECT_FALSE(std::filesystem::exists(socket)) << "a stopped agent removes its socket";
  env_.StartAgent();
  EXPECT_EQ(Member(Control("dump").get(), "ok"), "true");
}

}  // namespace
}  // namespace daxo_test
