// examples/reuse_sensor.c keeps one sensor and one metric across restarts:
// runs after the first find them at the agent instead of creating new ones.
#include <gtest/gtest.h>

#include <regex>

#include "environment.h"

namespace daxo_test {
namespace {

struct Outcome {
  std::string sensor, sensorHow, metric, metricHow;
};

// The library's log lines go to the same output, between the program's own.
Outcome RunOnce(const std::string& config, const std::string& log) {
  ChildProcess program;
  program.Start({DAXO_REUSE_SENSOR_PATH, config}, log);
  std::optional<ExitStatus> status = program.WaitForExit(std::chrono::seconds(90));
  std::string out;
  for (const std::string& line : program.Lines()) out += line + "\n";
  EXPECT_TRUE(status && status->Clean()) << out;
  std::smatch sensor, metric;
  bool printed =
      std::regex_search(out, sensor, std::regex("\nsensor (\\S+) (created|reused)\n")) &&
      std::regex_search(out, metric, std::regex("\nmetric (\\S+) (created|reused)\n")) &&
      out.find("\npushed 64.5 to metric " + metric[1].str() + "\n") != out.npos;
  EXPECT_TRUE(printed) << out;
  return printed ? Outcome{sensor[1], sensor[2], metric[1], metric[2]} : Outcome{};
}

TEST(ReuseSensorExampleTest, ARestartFindsTheSensorAndMetricOfTheFirstRun) {
  TestEnvironment env;
  std::string config = env.WriteClientConfig({.certFolder = env.NewCertFolder()});
  std::string log = (env.Folder() / "reuse_sensor.log").string();

  Outcome first = RunOnce(config, log);
  EXPECT_EQ(first.sensorHow, "created");
  EXPECT_EQ(first.metricHow, "created");
  for (int restart = 0; restart < 2; restart++) {
    Outcome again = RunOnce(config, log);
    EXPECT_EQ(again.sensor, first.sensor);
    EXPECT_EQ(again.sensorHow, "reused");
    EXPECT_EQ(again.metric, first.metric);
    EXPECT_EQ(again.metricHow, "reused");
  }
  EXPECT_EQ(env.AgentPushes().size(), 3u);
}

}  // namespace
}  // namespace daxo_test
