#include <gtest/gtest.h>
#include <sys/stat.h>

#include <future>
#include <thread>

#include "daxo_internal.h"
#include "temp_dir.h"

namespace {

const std::string kRequired =
    "MqttHost h.local\nMqttPort 8883\nMqttProvisionPort 8884\nCaFile /ca\nCertFolder /certs\n";
const std::string kBad = std::to_string(DAXO_Error_WrongConfigParams) + " ";

std::string Load(const std::string& content) {
  TempDir dir;
  auto* client = static_cast<DAXO_Client*>(calloc(1, sizeof(DAXO_Client)));
  auto str = [](const char* s) { return std::string(s != nullptr ? s : "-"); };
  DAXO_Error err = LoadConfig(client, dir.Write("client.conf", content).c_str());
  std::string got = std::to_string(err) + " " + str(client->mqttHost) + ":" +
                    std::to_string(client->mqttPort) + " " + std::to_string(client->mqttKeepAlive);
  DAXO_DeleteClient(client);  // the watch thread never started: plain release
  return got;
}

TEST(LoadConfig, ReadsEachLineByItsRules) {
  const std::string req = kRequired;
  const std::string longName = "ClientName " + std::string(1012, 'x') + "MqttPort 1883\n";
  const std::pair<std::string, std::string> cases[] = {
      {req + "  \t MqttKeepAlive 45\n", "0 h.local:8883 45"},  // leading blanks
      // Keep-alive is on unless the file turns it off.
      {req + "   # MqttKeepAlive 45\n-MqttKeepAlive 4\nColour 5\n", "0 h.local:8883 60"},
      {req + "MqttKeepAlive\n", "0 h.local:8883 60"},  // a key without a value is absent
      {req + "MqttKeepAlive 0\n", "0 h.local:8883 0"},
      {"mqtthost x\n" + req.substr(17), kBad + "-:8883 60"},      // keys are case-sensitive
      {req + "MqttHost second\nMqttHost\n", "0 second:8883 60"},  // the last value, if any
      {"MqttKeepAlive 30\r\nMqttHost a b \t\r\n" + req.substr(17), "0 a b:8883 30"},
      {req + "MqttKeepAlive 70", "0 h.local:8883 70"},  // no final newline
      {req + "MqttPort 08883\nMqttKeepAlive 5\n", "0 h.local:8883 5"},
      {req + "MqttPort 65535\nMqttKeepAlive 65535\n", "0 h.local:65535 65535"},
      {req + longName, "0 h.local:8883 60"},  // a long value stays one value
      {req + "# " + std::string(4095, '#') + "\nMqttKeepAlive 9\n", kBad + "h.local:8883 60"},
      {req + "# " + std::string(4094, '#') + "\nMqttKeepAlive 90\n", "0 h.local:8883 90"},
  };
  for (const auto& [content, want] : cases) EXPECT_EQ(Load(content), want) << content;
  // Numbers: digits only, within their range.
  for (const char* line :
       {"MqttPort 38x83", "MqttPort=1883", "MqttPort 0", "MqttPort -1", "MqttPort +1883",
        "MqttPort 65536", "MqttPort 99999999999999999999", "MqttProvisionPort 70000",
        "MqttKeepAlive -5", "MqttKeepAlive 4", "MqttKeepAlive 65536", "MqttKeepAlive 60s",
        "PushStoreMaxBytes 4095", "PushStorePolicy drop", "PushStorePolicy Refuse",
        "PushStoreSync fsync"}) {
    EXPECT_EQ(Load(req + line + "\n").find(kBad), 0u) << line;
  }
  for (const char* key :
       {"MqttHost ", "MqttPort ", "MqttProvisionPort ", "CaFile ", "CertFolder "}) {
    size_t at = req.find(key);
    std::string without = req.substr(0, at) + req.substr(req.find('\n', at) + 1);
    EXPECT_EQ(Load(without).find(kBad), 0u) << key;
  }
}

// The explanation names what DAXO_NewClient refused, and both agree on the code.
TEST(ExplainConfig, SaysWhatIsWrongAndAgreesWithNewClient) {
  TempDir dir;
  std::string fifo = dir / "fifo.conf", folder = dir.Path().string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const struct {
    std::string path;
    DAXO_Error err;
    std::string says;
  } cases[] = {
      {dir.Write("good.conf", kRequired), DAXO_Error_Success, "good.conf: no problem found"},
      {dir / "absent.conf", DAXO_Error_ConfigReadFailed,
       "absent.conf: cannot open it: No such file or directory (errno 2)"},
      {folder, DAXO_Error_WrongConfigParams, ": not a regular file"},
      {fifo, DAXO_Error_WrongConfigParams, "fifo.conf: not a regular file"},
      {dir.Write("no-ca.conf", "MqttHost h\nMqttPort 1\nMqttProvisionPort 2\nCertFolder /c\n"),
       DAXO_Error_WrongConfigParams, "no-ca.conf: CaFile is missing, and it is required"},
      {dir.Write("port.conf", "# ports\nMqttPort 38x83\n"), DAXO_Error_WrongConfigParams,
       "port.conf line 2: MqttPort \"38x83\" is not a whole number from 1 to 65535"},
      {dir.Write("alive.conf", kRequired + "MqttKeepAlive 3\n"), DAXO_Error_WrongConfigParams,
       "line 6: MqttKeepAlive \"3\" is not 0 (off) or a whole number from 5 to 65535"},
      {dir.Write("long.conf", "\n\nClientName " + std::string(5000, 'x')),
       DAXO_Error_WrongConfigParams, "long.conf line 3: longer than 4096 characters"},
      {dir.Write("policy.conf", kRequired + "PushStorePolicy oldest\n"),
       DAXO_Error_WrongConfigParams,
       "line 6: PushStorePolicy \"oldest\" is not one of drop-oldest refuse"},
      {"", DAXO_Error_WrongConfigName, "the path of the configuration file is empty"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    // Bounded: a FIFO must not block the reader until a writer comes.
    auto done = std::make_shared<std::promise<std::pair<DAXO_Error, std::string>>>();
    std::future<std::pair<DAXO_Error, std::string>> result = done->get_future();
    std::thread([done, path = c.path] {
      char text[512];
      DAXO_Error err = DAXO_ExplainConfig(path.c_str(), text, sizeof text);
      done->set_value({err, text});
    }).detach();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    auto [err, text] = result.get();
    EXPECT_EQ(err, c.err);
    EXPECT_NE(text.find(c.says), std::string::npos) << text;
    DAXO_Error created = DAXO_Error_Unknown;
    DAXO_Client* client = DAXO_NewClient(c.path.c_str(), nullptr, &created);
    EXPECT_EQ(created, c.err);
    DAXO_DeleteClient(client);
  }
  char small[8] = "unset";
  EXPECT_EQ(DAXO_ExplainConfig(cases[5].path.c_str(), small, sizeof small),
            DAXO_Error_WrongConfigParams);
  EXPECT_EQ(std::string(small), folder.substr(0, 7)) << "cut and terminated";
  EXPECT_EQ(DAXO_ExplainConfig(cases[0].path.c_str(), nullptr, 0), DAXO_Error_Success);
  EXPECT_EQ(DAXO_ExplainConfig(nullptr, small, sizeof small), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_ExplainConfig(cases[0].path.c_str(), nullptr, 1), DAXO_Error_InvalidArguments);
}

}  // namespace
