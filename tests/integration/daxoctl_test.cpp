// daxoctl as scripts use it: the built program against the real broker and
// agent, judged by its exit code and what it prints.
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <regex>
#include <sstream>

#include "environment.h"

namespace daxo_test {
namespace {

// The nth value of key in the --json output, as text.
std::string Field(const std::string& out, const std::string& key, int nth = 0) {
  std::regex pattern("\"" + key + "\":\"?([^\",}]*)");
  std::sregex_iterator match(out.begin(), out.end(), pattern);
  for (int n = 0; n < nth && match != std::sregex_iterator(); ++n) ++match;
  return match != std::sregex_iterator() ? (*match)[1].str() : "(missing)";
}

class DaxoctlTest : public ::testing::Test {
 protected:
  // What daxoctl printed (standard output and error); its exit code in exitCode.
  std::string Ctl(std::vector<std::string> args) {
    std::string log = (env.Folder() / ("daxoctl-" + std::to_string(runs++))).string();
    args.insert(args.begin(), {DAXOCTL_PATH, "-c", config, "--timeout", "5"});
    ExitStatus status = RunCommand(args, log);
    exitCode = status.exited ? status.code : -1;
    std::stringstream out;
    out << std::ifstream(log).rdbuf();
    return out.str();
  }
  // A command that must succeed, with --json.
  std::string Ok(std::vector<std::string> args) {
    args.push_back("--json");
    std::string out = Ctl(args);
    EXPECT_EQ(exitCode, 0) << ::testing::PrintToString(args) << out;
    return out;
  }

  TestEnvironment env;
  std::string folder = env.NewCertFolder();
  std::string config = env.WriteClientConfig({.certFolder = folder});
  int runs = 0, exitCode = -1;
};

TEST_F(DaxoctlTest, ServesEveryCommand) {
  std::string id = Field(Ok({"provision"}), "clientId");
  EXPECT_EQ(Field(Ok({"provision"}), "alreadyProvisioned"), "true");
  EXPECT_EQ(Ctl({"id"}), id + "\n");

  std::string sensor = Field(Ok({"sensors", "create", "kitchen"}), "id");
  Ok({"sensors", "rename", sensor, "cellar"});
  EXPECT_EQ(Ctl({"sensors", "list"}), sensor + "\tcellar\n");
  std::string defined = Ok({"metrics", "define", sensor, "temp:SI.Temperature.CELSIUS",
                            "volts:sivolt", "mode:string:operating mode: a or b"});
  std::string temp = Field(defined, "id"), mode = Field(defined, "id", 2);
  Ok({"push", sensor, temp + "=21.5", mode + "=idle", "--timestamp", "1700000000000"});
  EXPECT_NE(Ctl({"metrics", "describe", sensor, temp})
                .find("unit\tSI.Temperature.CELSIUS\nvalue\t21.5\nlastUpdated\t1700000000000"),
            std::string::npos);
  Ok({"metrics", "update", sensor, mode, "--name", "state", "--annotation", "a, b or c"});
  EXPECT_NE(Ctl({"metrics", "describe", sensor, mode})
                .find("name\tstate\ntype\tstring\nannotation\ta, b or c\nvalue\tidle"),
            std::string::npos);
  Ok({"metrics", "delete", sensor, mode});
  Ok({"report-error", "--sensor", sensor, "--metric", temp, "-7", "probe unplugged"});
  EXPECT_NE(env.AgentControl("dump").find("probe unplugged"), std::string::npos);

  struct Case {
    std::vector<std::string> args;
    int exit;
    std::string printed;
  } cases[] = {
      {{"--help"}, 0, "sensors rename ID NAME"},
      {{}, 2, "no command"},
      {{"frobnicate"}, 2, "unknown command"},
      {{"sensors", "rename", "only-id"}, 2, "missing arguments"},
      {{"metrics", "define", sensor, "t:float:text"}, 2, "unknown type"},
      {{"metrics", "describe", sensor, mode}, 1, "DAXO_ApiError_UnknownMetricId (16)"},
      {{"sensors", "rename", "no-such-sensor", "x"}, 1, "DAXO_ApiError_UnknownSensorId (15)"},
      {{"sensors", "rename", "a+b", "x"}, 1, "DAXO_Error_InvalidArguments (6)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    std::string out = Ctl(c.args);
    EXPECT_EQ(exitCode, c.exit) << out;
    EXPECT_NE(out.find(c.printed), std::string::npos) << out;
  }

  Ok({"sensors", "delete", sensor});
  EXPECT_EQ(Ctl({"sensors", "list"}), "no sensors\n");

  // The listener subscribes some time after it starts: offer jobs until it ends.
  auto listening = std::async(std::launch::async, [&] { return Ok({"listen", "--for", "3"}); });
  while (listening.wait_for(std::chrono::milliseconds(300)) != std::future_status::ready)
    env.AgentControl("job-create " + id + R"( {"name":"disk","metrics":[]})");
  std::string events = listening.get();
  EXPECT_EQ(Field(events, "event"), "createSensorJob") << events;
  EXPECT_EQ(Field(events, "name"), "disk") << events;

  EXPECT_EQ(Field(Ok({"deprovision"}), "clientId"), id);
  EXPECT_NE(Ctl({"id"}).find("daxoctl provision"), std::string::npos) << "no identity";
  Ok({"provision"});
  env.StopAgent();
  EXPECT_NE(Ctl({"ping", "--timeout", "1"}).find("no reply from the agent"), std::string::npos);
  EXPECT_EQ(exitCode, 3);

  // Why a connection or a configuration fails, in words.
  env.StopBroker();
  std::string refused = Ctl({"ping"});
  EXPECT_EQ(exitCode, 1);
  EXPECT_NE(refused.find("connection failed: Connection to " + env.Host() + ":" +
                         std::to_string(env.MainPort()) + " failed: no connection"),
            std::string::npos)
      << refused;
  std::ofstream(config, std::ios::app) << "MqttPort 38x83\n";
  EXPECT_NE(Ctl({"id"}).find(": MqttPort \"38x83\" is not a whole number"), std::string::npos);
  EXPECT_EQ(exitCode, 1);
}

TEST_F(DaxoctlTest, PrintsTheWayBackFromAnExpiredIdentity) {
  env.IssueClientCertificate(folder, {.commonName = "old", .start = -std::chrono::hours(48)});
  std::string out = Ctl({"ping"});
  EXPECT_EQ(exitCode, 1);
  EXPECT_NE(out.find("DAXO_Error_ClientCertificateExpired"), std::string::npos) << out;
  EXPECT_NE(out.find("\"daxoctl reset-identity\" and then \"daxoctl provision\""),
            std::string::npos)
      << out;
  Ok({"reset-identity"});
  Ok({"provision"});
  Ok({"ping"});
}

}  // namespace
}  // namespace daxo_test
