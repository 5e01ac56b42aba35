#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "daxo_internal.h"
#include "fake_mqtt.h"
#include "string_utils.h"
#include "temp_dir.h"

namespace {

constexpr const char* kRequired =
    "MqttHost broker.local\nMqttPort 8883\nMqttProvisionPort 8884\nCaFile /ca.crt\n"
    "CertFolder /certs\n";

struct Loaded {
  DAXO_Error err = DAXO_Error_Unknown;
  std::string host, caFile, certFolder, clientName;
  int port = 0, provisionPort = 0, keepAlive = 0;
  bool hasClientName = false;
};

Loaded Load(const std::string& content) {
  TempDir dir;
  std::string path = dir.Write("client.conf", content);
  DAXO_Client* client = static_cast<DAXO_Client*>(calloc(1, sizeof(DAXO_Client)));
  Loaded out;
  out.err = LoadConfig(client, path.c_str());
  auto str = [](const char* s) { return s != nullptr ? std::string(s) : std::string("<null>"); };
  out.host = str(client->mqttHost);
  out.caFile = str(client->caFile);
  out.certFolder = str(client->certFolder);
  out.clientName = str(client->clientName);
  out.hasClientName = client->clientName != nullptr;
  out.port = client->mqttPort;
  out.provisionPort = client->mqttProvisionPort;
  out.keepAlive = client->mqttKeepAlive;
  DAXO_DeleteClient(client);  // the watch thread never started: plain release
  return out;
}

struct ConfigCase {
  const char* name;
  std::string content;
  DAXO_Error err = DAXO_Error_Unknown;
  std::string host = "broker.local";
  int port = 8883;
  int keepAlive = 0;
};

TEST(LoadConfig, ReadsEachLineByItsRules) {
  const std::string req = kRequired;
  const ConfigCase cases[] = {
      {"required keys only", req, DAXO_Error_Success},
      {"only comments and blanks", "# nothing\n\n   \n#MqttHost x\n", DAXO_Error_WrongConfigParams,
       "<null>", 0},
      {"leading blanks before a key", req + "  \t MqttKeepAlive 45\n", DAXO_Error_Success,
       "broker.local", 8883, 45},
      {"line starting with another mark is ignored", req + "-MqttKeepAlive 45\n",
       DAXO_Error_Success},
      {"indented comment is ignored", req + "   # MqttKeepAlive 45\n", DAXO_Error_Success},
      {"keys are case-sensitive", "mqtthost x\nMqttPort 1\nMqttProvisionPort 2\nCaFile c\n"
       "CertFolder f\n", DAXO_Error_WrongConfigParams, "<null>", 1},
      {"an equals sign is part of the value", req + "MqttPort=1883\n",
       DAXO_Error_WrongConfigParams, "broker.local", 0},
      {"digits then letters give the digits", req + "MqttPort   1883abc\n", DAXO_Error_Success,
       "broker.local", 1883},
      {"a key given twice takes the last value", req + "MqttHost second\n", DAXO_Error_Success,
       "second"},
      {"key without a value is ignored", req + "MqttHost\nMqttHost   \n", DAXO_Error_Success},
      {"CRLF line ends", "MqttHost broker.local\r\nMqttPort 8883\r\nMqttProvisionPort 8884\r\n"
       "CaFile /ca.crt\r\nCertFolder /certs\r\n", DAXO_Error_Success},
      {"trailing blanks are trimmed", req + "MqttHost broker.local \t \n", DAXO_Error_Success},
      {"inner blanks are kept", req + "MqttHost two words\n", DAXO_Error_Success, "two words"},
      {"last line without newline", req + "MqttKeepAlive 7", DAXO_Error_Success,
       "broker.local", 8883, 7},
      {"unknown keys are ignored", req + "Colour blue\n", DAXO_Error_Success},
      {"port zero is missing", req + "MqttPort 0\n", DAXO_Error_WrongConfigParams,
       "broker.local", 0},
      {"port not a number", req + "MqttPort abc\n", DAXO_Error_WrongConfigParams,
       "broker.local", 0},
      {"out-of-range numbers saturate", req + "MqttKeepAlive 99999999999999\n",
       DAXO_Error_Success, "broker.local", 8883, INT_MAX},
      {"negative keep-alive is read as written", req + "MqttKeepAlive -5\n", DAXO_Error_Success,
       "broker.local", 8883, -5},
      {"a non-ASCII byte ends the key", req + "MqttKeepAlive\xC3\xA9 5\n", DAXO_Error_Success},
  };
  for (const ConfigCase& c : cases) {
    SCOPED_TRACE(c.name);
    Loaded got = Load(c.content);
    EXPECT_EQ(got.err, c.err);
    EXPECT_EQ(got.host, c.host);
    EXPECT_EQ(got.port, c.port);
    EXPECT_EQ(got.keepAlive, c.keepAlive);
  }
}

TEST(LoadConfig, EachRequiredKeyIsRequired) {
  const char* keys[] = {"MqttHost", "MqttPort", "MqttProvisionPort", "CaFile", "CertFolder"};
  for (const char* key : keys) {
    SCOPED_TRACE(key);
    std::string content = kRequired;
    size_t at = content.find(std::string(key) + " ");
    content.erase(at, content.find('\n', at) - at + 1);
    EXPECT_EQ(Load(content).err, DAXO_Error_WrongConfigParams);
  }
}

TEST(LoadConfig, StoresEverySetting) {
  Loaded got = Load(std::string(kRequired) + "MqttKeepAlive 60\nClientName kitchen-sensor\n");
  EXPECT_EQ(got.err, DAXO_Error_Success);
  EXPECT_EQ(got.provisionPort, 8884);
  EXPECT_EQ(got.caFile, "/ca.crt");
  EXPECT_EQ(got.certFolder, "/certs");
  EXPECT_EQ(got.clientName, "kitchen-sensor");
  EXPECT_FALSE(Load(kRequired).hasClientName);
}

TEST(LoadConfig, LongLinesAreReadInPieces) {
  // The second piece of an overlong line starts with a key of its own.
  std::string filler(1023 - 10, 'x');
  std::string content = std::string(kRequired) + "Comment   " + filler + "MqttKeepAlive 9\n";
  EXPECT_EQ(Load(content).keepAlive, 9);
}

TEST(NewClient, ReportsConfigurationErrorsAsCodes) {
  TempDir dir;
  std::string missing = dir / "missing.conf";
  std::string incomplete = dir.Write("incomplete.conf", "MqttHost h\nMqttPort 1\n");
  struct {
    const char* conf;
    DAXO_Error err;
  } cases[] = {
      {nullptr, DAXO_Error_InvalidArguments},
      {"", DAXO_Error_WrongConfigName},
      {missing.c_str(), DAXO_Error_ConfigReadFailed},
      {dir.Path().c_str(), DAXO_Error_WrongConfigParams},  // a folder reads as empty
      {incomplete.c_str(), DAXO_Error_WrongConfigParams},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.conf != nullptr ? c.conf : "null");
    DAXO_Error err = DAXO_Error_Success;
    EXPECT_EQ(NewClientInternal(c.conf, nullptr, &err, FakeMqtt::Create, FakeMqtt::Destroy),
              nullptr);
    EXPECT_EQ(err, c.err);
  }
}

TEST(StrnDup, CopiesAtMostN) {
  struct {
    const char* s;
    size_t n;
    const char* want;
  } cases[] = {{"abcdef", 3, "abc"}, {"abcdef", 100, "abcdef"}, {"abc", 0, ""}, {"", 5, ""}};
  for (const auto& c : cases) {
    char* copy = StrnDup(c.s, c.n);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, c.want);
    free(copy);
  }
  EXPECT_EQ(StrnDup(nullptr, 3), nullptr);
}

TEST(GetFileContent, ReadsWholeFilesAsText) {
  TempDir dir;
  EXPECT_EQ(GetFileContent(dir.Write("empty", "").c_str()), nullptr);
  EXPECT_EQ(GetFileContent((dir / "missing").c_str()), nullptr);
  EXPECT_EQ(GetFileContent(nullptr), nullptr);
  for (size_t size : {1u, 1024u, 1025u, 3000u}) {
    SCOPED_TRACE(size);
    std::string content;
    for (size_t i = 0; i < size; ++i) content += static_cast<char>('a' + i % 26);
    daxo::CStr got(GetFileContent(dir.Write("f", content).c_str()));
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(std::string(got.get()), content);
  }
}

}  // namespace
