// The example programs, run as a device developer runs them: separate
// processes against the real broker and the development agent, judged by
// their exit status, their output and what the agent stored.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "child_process.h"
#include "environment.h"

namespace daxo_test {
namespace {

using std::chrono::seconds;

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

// The first capture of pattern in the first line that matches it.
std::string Captured(const std::vector<std::string>& lines, const std::regex& pattern) {
  std::smatch match;
  for (const std::string& line : lines)
    if (std::regex_search(line, match, pattern)) return match[1];
  return "";
}

class ExamplesTest : public ::testing::Test {
 protected:
  std::string Log(const std::string& name) const { return (env.Folder() / name).string(); }

  TestEnvironment env;
  std::string config = env.WriteClientConfig({.certFolder = env.NewCertFolder()});
};

TEST(ExamplesCommandLine, WrongArgumentsExitWithUsage) {
  struct Case {
    std::vector<std::string> argv;
  } cases[] = {
      {{DAXO_MINIMAL_PUSH_PATH}},
      {{DAXO_MINIMAL_PUSH_PATH, "a.conf", "extra"}},
      {{DAXO_SENSOR_JOB_HANDLER_PATH, "a.conf"}},
      {{DAXO_SENSOR_JOB_HANDLER_PATH, "a.conf", "0"}},
      {{DAXO_SENSOR_JOB_HANDLER_PATH, "a.conf", "5s"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Joined(c.argv));
    ExitStatus status = RunCommand(c.argv, "/dev/null", seconds(30));
    EXPECT_TRUE(status.exited && status.code == 2) << status.Describe();
  }
}

// The second run finds the identity the first one stored and must accept
// DAXO_Error_AlreadyProvisioned as a provisioned client.
TEST_F(ExamplesTest, MinimalPushStoresItsValueAndRunsAgainOnTheSameIdentity) {
  std::string clientIds[2];
  for (int run = 0; run < 2; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    ChildProcess example;
    example.Start({DAXO_MINIMAL_PUSH_PATH, config}, Log("minimal_push.log"));
    std::optional<ExitStatus> status = example.WaitForExit(seconds(90));
    ASSERT_TRUE(status) << Joined(example.Lines());
    ASSERT_TRUE(status->Clean()) << status->Describe() << "\n" << Joined(example.Lines());
    clientIds[run] = Captured(example.Lines(), std::regex("^client (\\S+)$"));
    EXPECT_FALSE(Captured(example.Lines(), std::regex("^pushed 21.5 to metric (\\S+)$")).empty())
        << Joined(example.Lines());
  }
  EXPECT_FALSE(clientIds[0].empty());
  EXPECT_EQ(clientIds[0], clientIds[1]);

  std::string dump = env.AgentControl("dump");
  EXPECT_NE(dump.find(clientIds[0]), std::string::npos) << dump;
  EXPECT_NE(dump.find("\"temperature\""), std::string::npos) << dump;
  EXPECT_NE(dump.find("21.5"), std::string::npos) << dump;
}

TEST_F(ExamplesTest, MinimalPushFailsWithinItsBoundWhenTheAgentIsGone) {
  env.StopAgent();
  env.StopBroker();
  ChildProcess example;
  example.Start({DAXO_MINIMAL_PUSH_PATH, config}, Log("minimal_push.log"));
  std::optional<ExitStatus> status = example.WaitForExit(seconds(90));
  ASSERT_TRUE(status) << "the example must give up, not hang";
  EXPECT_TRUE(status->exited && status->code == 1) << status->Describe();
}

TEST_F(ExamplesTest, SensorJobHandlerPrintsTheJobsItReceives) {
  ChildProcess handler;
  handler.Start({DAXO_SENSOR_JOB_HANDLER_PATH, config, "10"}, Log("sensor_job_handler.log"));
  const std::regex waiting("^client (\\S+) waiting for jobs");
  ASSERT_TRUE(handler.WaitForOutput(
      [&](const auto& lines) { return !Captured(lines, waiting).empty(); }, seconds(30)))
      << Joined(handler.Lines());
  std::string clientId = Captured(handler.Lines(), waiting);

  std::string answer = env.AgentControl(
      "job-create " + clientId +
      R"( {"name":"disk","pluginName":"df","pluginDownloadUrl":"https://example.invalid/df",)"
      R"("pluginParams":{"mount":"/data"},"metrics":[]})");
  const std::regex created("^create job: sensor (\\S+) named \"disk\", plug-in df from "
                           "https://example.invalid/df$");
  // The parameters follow the job's first line.
  const std::regex parameter("^  parameter (mount = /data)$");
  ASSERT_TRUE(handler.WaitForOutput(
      [&](const auto& lines) { return !Captured(lines, parameter).empty(); }, seconds(20)))
      << answer << "\n" << Joined(handler.Lines());
  std::string sensorId = Captured(handler.Lines(), created);
  EXPECT_FALSE(sensorId.empty()) << Joined(handler.Lines());

  env.AgentControl("job-delete " + clientId + " " + sensorId);
  ASSERT_TRUE(handler.WaitForOutput(
      [&](const auto& lines) {
        return Captured(lines, std::regex("^delete job: sensor (\\S+)$")) == sensorId;
      },
      seconds(20)))
      << Joined(handler.Lines());

  // It ends by itself once its time is up, and cleanly (no leaked record).
  std::optional<ExitStatus> status = handler.WaitForExit(seconds(60));
  ASSERT_TRUE(status) << Joined(handler.Lines());
  EXPECT_TRUE(status->Clean()) << status->Describe() << "\n" << Joined(handler.Lines());
}

}  // namespace
}  // namespace daxo_test

namespace daxo_test {
namespace {

// The demo's device program: real readings pushed with an answer each time.
TEST_F(ExamplesTest, TheDemoDeviceReportsTheMachinesReadings) {
  ChildProcess demo;
  demo.Start({DAXO_DEVICE_DEMO_PATH, config, "3"}, Log("device_demo.log"));
  std::optional<ExitStatus> status = demo.WaitForExit(seconds(90));
  ASSERT_TRUE(status) << Joined(demo.Lines());
  ASSERT_TRUE(status->Clean()) << status->Describe() << "\n" << Joined(demo.Lines());
  std::regex push("^push +[0-9]+: load=[0-9.]+ memory_used=[0-9]+ kB uptime=[0-9]+ s "
                  "status=(ok|busy) +agent answered DAXO_ApiError_NoError in [0-9.]+ ms$");
  int pushes = 0;
  for (const std::string& line : demo.Lines()) pushes += std::regex_match(line, push);
  EXPECT_EQ(pushes, 3) << Joined(demo.Lines());
  std::string dump = env.AgentControl("dump");
  EXPECT_NE(dump.find("\"memory in use\""), std::string::npos) << dump;
  EXPECT_NE(dump.find("SI.Duration.SECOND"), std::string::npos) << dump;
}

}  // namespace
}  // namespace daxo_test
