// daxoctl as scripts use it: the built program against the real broker and
// agent, judged by its exit code and what it prints.
#include <fcntl.h>
#include <json-c/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "environment.h"

namespace daxo_test {
namespace {

struct Outcome {
  int exit = -1;  // -1: killed after the bounded wait, or not started
  std::string out;
  std::string err;
};

std::string Slurp(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

// Runs daxoctl with input on its standard input; kills it after limit.
Outcome Daxoctl(const std::filesystem::path& folder, std::vector<std::string> args,
            const std::string& input = "", std::chrono::seconds limit = std::chrono::seconds(60)) {
  static std::atomic<int> runs{0};
  std::string base = (folder / ("daxoctl-" + std::to_string(runs++))).string();
  std::ofstream(base + ".in") << input;
  args.insert(args.begin(), DAXOCTL_PATH);
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int in = open((base + ".in").c_str(), O_RDONLY | O_CLOEXEC);
  int out = open((base + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int err = open((base + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  pid_t pid = fork();
  if (pid == 0) {
    if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(127);
    execv(argv[0], argv.data());
    _exit(127);
  }
  for (int fd : {in, out, err}) close(fd);
  Outcome run;
  if (pid < 0) return run;
  int status = 0;
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      status = -1;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (status != -1 && WIFEXITED(status)) run.exit = WEXITSTATUS(status);
  run.out = Slurp(base + ".out");
  run.err = Slurp(base + ".err");
  return run;
}

using Json = std::unique_ptr<json_object, decltype(&json_object_put)>;

// The --json output: one object a line.
std::vector<Json> Objects(const std::string& out) {
  std::vector<Json> objects;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);)
    objects.emplace_back(json_tokener_parse(line.c_str()), json_object_put);
  return objects;
}

std::string Field(json_object* object, const char* key) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(object, key, &value)) return "(missing)";
  return json_object_get_string(value);
}

std::string Field(const Json& object, const char* key) { return Field(object.get(), key); }

class DaxoctlTest : public ::testing::Test {
 protected:
  // Runs with this test's configuration.
  Outcome Ctl(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), {"-c", config, "--timeout", "5"});
    return Daxoctl(env.Folder(), std::move(args), input);
  }
  // A command that must succeed; its --json objects.
  std::vector<Json> Ok(std::vector<std::string> args, const std::string& input = "") {
    args.push_back("--json");
    Outcome run = Ctl(args, input);
    EXPECT_EQ(run.exit, 0) << run.err << run.out;
    return Objects(run.out);
  }
  std::string Provisioned() {
    std::vector<Json> result = Ok({"provision"});
    return result.size() == 1 ? Field(result[0], "clientId") : "";
  }
  std::string NewSensor(const std::string& name) {
    std::vector<Json> result = Ok({"sensors", "create", name});
    return result.size() == 1 ? Field(result[0], "id") : "";
  }

  TestEnvironment env;
  std::string config = env.WriteClientConfig({.certFolder = env.NewCertFolder()});
};

TEST(DaxoctlUsageTest, RefusesUnusableCommandLinesWithExitTwo) {
  struct Case {
    std::vector<std::string> args;
    int exit;
    std::string printed;  // on standard output for 0, on standard error else
  } cases[] = {
      {{"--help"}, 0, "sensors rename ID NAME"},
      {{"metrics", "define", "--help"}, 0, "name:TYPE:TEXT"},
      {{"push", "-h"}, 0, "--timestamp MS"},
      {{}, 2, "no command"},
      {{"frobnicate"}, 2, "unknown command"},
      {{"sensors", "rename", "only-id"}, 2, "missing arguments"},
      {{"id", "extra"}, 2, "too many arguments"},
      {{"--timeout", "0", "ping"}, 2, "--timeout"},
      {{"ping", "--name", "x"}, 2, "does not apply"},
      {{"ping", "--colour"}, 2, "unknown option"},
      {{"push", "s", "no-equals-sign"}, 2, "not metric=value"},
      {{"push", "s", "a=1", "--batch", "5"}, 2, "--batch"},
      {{"metrics", "define", "s", "t:SI.Temperature.KELVIN"}, 2, "unknown unit"},
      {{"metrics", "define", "s", "t:float:text"}, 2, "unknown type"},
      {{"metrics", "update", "s", "m"}, 2, "--name"},
      {{"report-error", "twelve", "text"}, 2, "integer"},
      {{"report-error", "--metric", "m", "1", "text"}, 2, "--sensor"},
  };
  std::filesystem::path folder = std::filesystem::temp_directory_path();
  for (const Case& c : cases) {
    std::vector<std::string> args = c.args;
    args.insert(args.begin(), {"-c", "/nonexistent/daxo.conf"});
    SCOPED_TRACE(::testing::PrintToString(c.args));
    Outcome run = Daxoctl(folder, args);
    EXPECT_EQ(run.exit, c.exit) << run.err;
    EXPECT_NE((c.exit == 0 ? run.out : run.err).find(c.printed), std::string::npos)
        << run.out << run.err;
  }
}

TEST_F(DaxoctlTest, CommandsOtherThanProvisionNeedAnIdentity) {
  for (std::string command : {"id", "ping", "deprovision"}) {
    Outcome run = Ctl({command});
    EXPECT_EQ(run.exit, 1) << command;
    EXPECT_NE(run.err.find("daxoctl provision"), std::string::npos) << run.err;
  }
  Outcome run = Daxoctl(env.Folder(), {"-c", env.Folder() / "missing.conf", "id"});
  EXPECT_EQ(run.exit, 1);
  EXPECT_NE(run.err.find("DAXO_Error_ConfigReadFailed"), std::string::npos) << run.err;
}

TEST_F(DaxoctlTest, ManagesIdentitySensorsAndMetrics) {
  std::string id = Provisioned();
  ASSERT_FALSE(id.empty());
  std::vector<Json> again = Ok({"provision"});
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(Field(again[0], "clientId"), id);
  EXPECT_EQ(Field(again[0], "alreadyProvisioned"), "true");
  EXPECT_EQ(Ctl({"id"}).out, id + "\n");
  EXPECT_EQ(Ctl({"ping"}).exit, 0);

  std::string sensor = NewSensor("kitchen");
  ASSERT_FALSE(sensor.empty());
  Ok({"sensors", "rename", sensor, "cellar"});
  EXPECT_EQ(Ctl({"sensors", "list"}).out, sensor + "\tcellar\n");

  std::vector<Json> defined = Ok({"metrics", "define", sensor, "temp:SI.Temperature.CELSIUS",
                                  "volts:sivolt", "mode:string:operating mode: a or b"});
  ASSERT_EQ(defined.size(), 3u);
  EXPECT_EQ(Field(defined[0], "name"), "temp");
  EXPECT_EQ(Field(defined[2], "name"), "mode");
  std::string temp = Field(defined[0], "id");
  std::string mode = Field(defined[2], "id");

  Ok({"push", sensor, temp + "=21.5", mode + "=idle", "--timestamp", "1700000000000"});
  std::vector<Json> described = Ok({"metrics", "describe", sensor, temp});
  ASSERT_EQ(described.size(), 1u);
  json_object* metric = json_object_object_get(described[0].get(), "metric");
  EXPECT_EQ(Field(metric, "unit"), "SI.Temperature.CELSIUS");
  EXPECT_EQ(Field(metric, "value"), "21.5");
  EXPECT_EQ(Field(metric, "lastUpdated"), "1700000000000");

  std::vector<Json> batches =
      Ok({"push", sensor, "-", "--batch", "2"}, temp + "=20\n# note\n\n" + mode + "=on\n" + temp + "=-3\n");
  ASSERT_EQ(batches.size(), 2u) << "two lines, then the rest at the end";
  EXPECT_EQ(Field(batches[0], "values"), "2");
  EXPECT_EQ(Field(batches[1], "values"), "1");
  Outcome text = Ctl({"metrics", "describe", sensor, temp});
  EXPECT_NE(text.out.find("value\t-3"), std::string::npos) << text.out;

  Ok({"metrics", "update", sensor, mode, "--name", "state", "--annotation", "a, b or c"});
  Outcome renamed = Ctl({"metrics", "describe", sensor, mode});
  EXPECT_NE(renamed.out.find("name\tstate"), std::string::npos) << renamed.out;
  EXPECT_NE(renamed.out.find("annotation\ta, b or c"), std::string::npos) << renamed.out;

  Ok({"metrics", "delete", sensor, mode});
  EXPECT_EQ(Ctl({"metrics", "describe", sensor, mode}).exit, 1);

  Ok({"report-error", "--sensor", sensor, "--metric", temp, "-7", "probe unplugged"});
  EXPECT_NE(env.AgentControl("dump").find("probe unplugged"), std::string::npos);

  Ok({"sensors", "delete", sensor});
  EXPECT_EQ(Ctl({"sensors", "list"}).out, "no sensors\n");
  std::vector<Json> gone = Ok({"deprovision"});
  ASSERT_EQ(gone.size(), 1u);
  EXPECT_EQ(Field(gone[0], "clientId"), id);
  EXPECT_EQ(Ctl({"id"}).exit, 1) << "the identity is removed";
}

TEST_F(DaxoctlTest, TheAgentsRefusalsAreNamedWithExitOne) {
  ASSERT_FALSE(Provisioned().empty());
  std::string sensor = NewSensor("hall");
  struct Case {
    std::vector<std::string> args;
    std::string error;
  } cases[] = {
      {{"sensors", "rename", "no-such-sensor", "x"}, "DAXO_ApiError_UnknownSensorId (15)"},
      {{"sensors", "delete", "no-such-sensor"}, "DAXO_ApiError_UnknownSensorId (15)"},
      {{"metrics", "describe", sensor, "no-such-metric"}, "DAXO_ApiError_UnknownMetricId (16)"},
      {{"push", "no-such-sensor", "m=1"}, "DAXO_ApiError_UnknownSensorId (15)"},
      {{"sensors", "rename", "a+b", "x"}, "DAXO_Error_InvalidArguments (6)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    Outcome run = Ctl(c.args);
    EXPECT_EQ(run.exit, 1);
    EXPECT_NE(run.err.find(c.error), std::string::npos) << run.err;
    std::vector<std::string> json = c.args;
    json.push_back("--json");
    std::vector<Json> objects = Objects(Ctl(json).out);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(Field(objects[0], "ok"), "false");
    EXPECT_EQ(c.error.rfind(Field(objects[0], "error") + " (", 0), 0u) << c.error;
  }
}

TEST_F(DaxoctlTest, NoAnswerIsATimeoutWithExitThree) {
  ASSERT_FALSE(Provisioned().empty());
  env.StopAgent();
  for (std::vector<std::string> args : {std::vector<std::string>{"ping"},
                                        {"sensors", "create", "late"}}) {
    args.insert(args.end(), {"--timeout", "1"});
    Outcome run = Ctl(args);
    EXPECT_EQ(run.exit, 3) << run.err;
    EXPECT_NE(run.err.find("no reply from the agent"), std::string::npos) << run.err;
  }
}

TEST_F(DaxoctlTest, ListenPrintsSensorJobsUntilItsTimeIsUp) {
  std::string id = Provisioned();
  ASSERT_FALSE(id.empty());
  auto listening = std::async(std::launch::async, [&] { return Ctl({"listen", "--for", "3", "--json"}); });
  // The listener subscribes some time after it starts: offer jobs until it ends.
  int jobs = 0;
  while (listening.wait_for(std::chrono::milliseconds(300)) != std::future_status::ready) {
    env.AgentControl("job-create " + id + R"( {"name":"disk","monitoringService":"system","metrics":[]})");
    ++jobs;
  }
  Outcome run = listening.get();
  EXPECT_EQ(run.exit, 0) << run.err;
  std::vector<Json> events = Objects(run.out);
  ASSERT_FALSE(events.empty()) << jobs << " jobs offered; " << run.err;
  EXPECT_EQ(Field(events[0], "event"), "createSensorJob");
  EXPECT_NE(run.out.find(R"("name":"disk")"), std::string::npos) << run.out;
}

}  // namespace
}  // namespace daxo_test
