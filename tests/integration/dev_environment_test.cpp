// `daxo-agent init` as a developer uses it. Every integration test already
// starts its broker and agent from the lines init prints (and the examples'
// test runs an application with init's client configuration); here, the
// agent refuses to issue certificates that the broker would not trust.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "environment.h"

namespace daxo_test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::vector<std::string> PrintedAgentCommand(const TestEnvironment& env) {
  std::istringstream printed(ReadText(env.Folder() / "init.out"));
  std::vector<std::string> argv;
  for (std::string line; argv.empty() && std::getline(printed, line);) {
    std::istringstream words(line);
    for (std::string word; line.find("--broker-config") != line.npos && words >> word;)
      argv.push_back(word);
  }
  return argv;
}

TEST(DevEnvironmentTest, TheAgentStartsOnlyWhenTheBrokerTrustsItsAuthority) {
  TestEnvironment env;
  env.StopAgent();  // one agent at a time holds the broker user
  std::string other = (env.Folder() / "other").string();
  ASSERT_TRUE(RunCommand({DAXO_AGENT_PATH, "init", other}, other + ".log").Clean());
  const std::vector<std::string> printed = PrintedAgentCommand(env);
  ASSERT_FALSE(printed.empty()) << ReadText(env.Folder() / "init.out");
  // Hand-written broker configurations: a cafile belongs to the listener it follows.
  auto config = [&](const std::string& name, const std::string& text) {
    fs::create_directories((env.Folder() / name).parent_path());
    std::ofstream(env.Folder() / name) << text;
    return (env.Folder() / name).string();
  };
  std::string port = std::to_string(env.MainPort()), ca = "cafile " + env.CaFile() + "\n";
  std::string defaultListener = config("default.conf", "port " + port + "\n" + ca);
  std::string otherListener = config("other.conf", ca + "listener " + port + "\n");
  std::string onlyListeners = config("listeners.conf", ca + "listener 1\n" + ca);
  // Read in order a.txt would refuse; the broker reads only *.conf, sorted.
  config("conf.d/a.txt", "listener " + port + "\n");
  config("conf.d/b.conf", "listener " + port + "\n" + ca);
  std::string included = config("included.conf", "include_dir conf.d\n");
  fs::copy_file(env.CaFile(), env.Folder() / "the ca.crt");
  std::string relative = config("relative.conf", "listener " + port + "\ncafile the ca.crt \n");
  struct Case {
    const char* name;
    std::vector<std::string> arguments;
    const char* line;
    bool starts;
  } cases[] = {
      {"as printed", {}, "which the broker trusts", true},
      {"the clients' cafile given too",
       {"--client-cafile", env.CaFile()},
       "daxo-agent: ready",
       true},
      {"another authority",
       {"--state", other + "/agent-state"},
       "does not hold this agent's",
       false},
      {"another cafile given", {"--client-cafile", other + "/ca.crt"}, "does not hold", false},
      {"a port the broker does not listen on", {"--port", "1"}, "has no listener on port 1", false},
      {"the default listener", {"--broker-config", defaultListener}, "broker trusts", true},
      {"another listener's cafile", {"--broker-config", otherListener}, "names no cafile", false},
      {"listener lines only, none on 1883",
       {"--broker-config", onlyListeners, "--port", "1883"},
       "has no listener on port 1883",
       false},
      {"the listener in an include_dir", {"--broker-config", included}, "broker trusts", true},
      {"a relative cafile with a blank", {"--broker-config", relative}, "broker trusts", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> argv = printed;
    argv.insert(argv.end(), c.arguments.begin(), c.arguments.end());
    ChildProcess agent;
    agent.Start(argv, (env.Folder() / "agent-check.log").string());
    auto has = [&](const std::vector<std::string>& lines) {
      for (const std::string& line : lines)
        if (line.find(c.line) != line.npos) return true;
      return false;
    };
    EXPECT_TRUE(agent.WaitForOutput(has, 20s));
    std::optional<ExitStatus> status = c.starts ? agent.Stop() : agent.WaitForExit(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->Describe(), c.starts ? "exit code 0" : "exit code 1");
  }
}

}  // namespace
}  // namespace daxo_test
