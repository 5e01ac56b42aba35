// The example programs, run as a device developer runs them: separate
// processes against the real broker and the development agent.
#include <gtest/gtest.h>

#include <fstream>
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

  // The second run finds the stored identity: AlreadyProvisioned is success.
  // The provisioning connection's log lines may come first.
  std::string pushConfig = config(), client = "client ";
  for (ChildProcess& run : push) {
    run.Start({DAXO_MINIMAL_PUSH_PATH, pushConfig}, log);
    std::string out = ended(run);
    size_t at = out.starts_with(client) ? 0 : out.find("\n" + client);
    at += at != 0 && at != out.npos;
    EXPECT_TRUE(at != out.npos && out.find("\npushed 21.5 to metric ") != out.npos) << out;
    client = out.substr(at, out.find('\n', at) - at + 1);  // and the second run's is the same
  }

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

}  // namespace
}  // namespace daxo_test
