// The example programs, run as a device developer runs them: separate
// processes against the real broker and the development agent.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>

#include "environment.h"

namespace daxo_test {
namespace {

using std::chrono::seconds;

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

TEST(ExamplesTest, RunAgainstTheAgent) {
  TestEnvironment env;
  std::string log = (env.Folder() / "examples.log").string();
  auto config = [&] { return env.WriteClientConfig({.certFolder = env.NewCertFolder()}); };
  auto ended = [](ChildProcess& program) {
    std::optional<ExitStatus> status = program.WaitForExit(seconds(90));
    EXPECT_TRUE(status && status->Clean()) << Joined(program.Lines());
    return Joined(program.Lines());
  };
  ChildProcess push[2], handler, demo;

  // With the configuration `daxo-agent init` wrote; the second run finds the
  // stored identity: AlreadyProvisioned is success. The provisioning
  // connection's log lines may come first.
  std::string pushConfig = (env.Folder() / "client.conf").string(), client = "client ";
  for (ChildProcess& run : push) {
    run.Start({DAXO_MINIMAL_PUSH_PATH, pushConfig}, log);
    std::string out = ended(run);
    size_t at = out.starts_with(client) ? 0 : out.find("\n" + client);
    at += at != 0 && at != out.npos;
    EXPECT_TRUE(at != out.npos && out.find("\npushed 21.5 to metric ") != out.npos) << out;
    client = out.substr(at, out.find('\n', at) - at + 1);  // and the second run's is the same
  }
  std::string values = (env.Folder() / "values.log").string();
  ASSERT_TRUE(
      RunCommand({DAXO_AGENT_PATH, "--state", (env.Folder() / "agent-state").string(), "values"},
                 values)
          .Clean());
  std::ifstream valuesFile(values);
  std::string stored((std::istreambuf_iterator<char>(valuesFile)), {});
  EXPECT_TRUE(std::regex_search(stored, std::regex(" 21\\.5 .* \\d{4}-\\d\\d-\\d\\d \\d\\d:")))
      << stored;

  handler.Start({DAXO_SENSOR_JOB_HANDLER_PATH, config(), "10"}, log);
  auto printed = [&](const std::string& text) {
    return handler.WaitForOutput(
        [&](const auto& lines) { return Joined(lines).find(text) != std::string::npos; },
        seconds(30));
  };
  ASSERT_TRUE(printed(" waiting for jobs")) << Joined(handler.Lines());
  std::smatch id;
  std::string started = Joined(handler.Lines());
  ASSERT_TRUE(std::regex_search(started, id, std::regex("client (\\S+) waiting for jobs")));
  env.AgentControl(
      "job-create " + id[1].str() +
      R"( {"name":"disk","pluginName":"df","pluginDownloadUrl":"https://x.invalid/df",)"
      R"("pluginParams":{"mount":"/data"},"metrics":[]})");
  EXPECT_TRUE(
      printed("named \"disk\", plug-in df from https://x.invalid/df\n"
              "  parameter mount = /data\n"))
      << Joined(handler.Lines());

  // As scripts/demo runs it: with a file as its push store.
  std::string demoConfig = config();
  std::ofstream(demoConfig, std::ios::app)
      << "PushStore " << (env.Folder() / "demo-pushes.db").string() << "\n";
  demo.Start({DAXO_DEVICE_DEMO_PATH, demoConfig, "3"}, log);
  std::string readings = ended(demo);
  EXPECT_TRUE(std::regex_search(
      readings, std::regex("(push +[0-9]+: load=[0-9.]+ memory_used=[0-9]+ kB uptime=[0-9]+ s "
                           "status=(ok|busy) +agent answered DAXO_ApiError_NoError in [0-9.]+ "
                           "ms\n){3}pushes: 3 made, 3 answered \\(0 with an error\\), 0 dropped, "
                           "0 still waiting")))
      << readings;
  ended(handler);  // by itself once its time is up, and cleanly
}

// examples/reuse_sensor.c keeps one sensor and one metric across restarts:
// a run after the first finds them at the agent instead of creating new ones.
TEST(ExamplesTest, ReuseSensorFindsTheSensorAndMetricOfItsFirstRun) {
  TestEnvironment env;
  std::string config = env.WriteClientConfig({.certFolder = env.NewCertFolder()});
  std::string log = (env.Folder() / "reuse_sensor.log").string(), first;
  for (const char* how : {"created", "reused"}) {
    ChildProcess program;
    program.Start({DAXO_REUSE_SENSOR_PATH, config}, log);
    std::optional<ExitStatus> status = program.WaitForExit(seconds(90));
    // The library's log lines go to the same output, between the program's own.
    std::string out = Joined(program.Lines());
    EXPECT_TRUE(status && status->Clean()) << out;
    std::smatch sensor, metric;
    ASSERT_TRUE(std::regex_search(out, sensor, std::regex("\nsensor (\\S+) (\\S+)\n")) &&
                std::regex_search(out, metric, std::regex("\nmetric (\\S+) (\\S+)\n")))
        << out;
    EXPECT_EQ(sensor[2].str() + " " + metric[2].str(), std::string(how) + " " + how) << out;
    EXPECT_NE(out.find("\npushed 64.5 to metric " + metric[1].str() + "\n"), out.npos) << out;
    std::string ids = sensor[1].str() + " " + metric[1].str();
    EXPECT_EQ(ids, first.empty() ? ids : first);
    first = ids;
  }
  EXPECT_EQ(env.AgentPushes().size(), 2u);
}

}  // namespace
}  // namespace daxo_test
