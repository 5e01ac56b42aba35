#include <gtest/gtest.h>

#include <climits>

#include "daxo_internal.h"
#include "temp_dir.h"

namespace {

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
  const std::string req =
      "MqttHost h.local\nMqttPort 8883\nMqttProvisionPort 8884\nCaFile /ca\n"
      "CertFolder /certs\n";
  const std::string bad = std::to_string(DAXO_Error_WrongConfigParams);
  const std::pair<std::string, std::string> cases[] = {
      {req + "  \t MqttKeepAlive 45\n", "0 h.local:8883 45"},  // leading blanks
      // Keep-alive is on unless the file turns it off.
      {req + "   # MqttKeepAlive 45\n-MqttKeepAlive 4\nColour 5\n", "0 h.local:8883 60"},
      {req + "MqttKeepAlive\n", "0 h.local:8883 60"},  // a key without a value is absent
      {req + "MqttKeepAlive 0\n", "0 h.local:8883 0"},
      {"mqtthost x\n" + req.substr(17), bad + " -:8883 60"},      // keys are case-sensitive
      {req + "MqttPort=1883\n", bad + " h.local:0 60"},           // '=' belongs to the value
      {req + "MqttHost second\nMqttHost\n", "0 second:8883 60"},  // the last value, if any
      {"MqttKeepAlive 3\r\nMqttHost a b \t\r\n" + req.substr(17), "0 a b:8883 3"},
      {req + "MqttKeepAlive 7", "0 h.local:8883 7"},  // no final newline
      {req + "MqttKeepAlive 99999999999999\n", "0 h.local:8883 " + std::to_string(INT_MAX)},
      // The second piece of an overlong line starts with a key of its own.
      {req + "Comment   " + std::string(1013, 'x') + "MqttKeepAlive 9\n", "0 h.local:8883 9"},
  };
  for (const auto& [content, want] : cases) EXPECT_EQ(Load(content), want) << content;
  for (const char* key :
       {"MqttHost ", "MqttPort ", "MqttProvisionPort ", "CaFile ", "CertFolder "}) {
    size_t at = req.find(key);
    std::string without = req.substr(0, at) + req.substr(req.find('\n', at) + 1);
    EXPECT_EQ(Load(without).find(bad + " "), 0u) << key;
  }
}

}  // namespace
