// Tests of the development agent's MQTT requests with a bare MQTT client on
// a client certificate issued by the environment: the fixture and the JSON
// helpers they share.
#ifndef DAXO_TEST_AGENT_PROBE_H
#define DAXO_TEST_AGENT_PROBE_H

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "environment.h"
#include "mqtt_probe.h"

namespace daxo_test {

inline constexpr const char* kUnknownSensor = "s-00000000";
inline constexpr const char* kUnknownMetric = "m-00000000";

using Json = std::unique_ptr<json_object, decltype(&json_object_put)>;

inline Json Parse(const std::string& text) {
  return Json(json_tokener_parse(text.c_str()), json_object_put);
}

inline std::string Member(json_object* object, const char* key) {
  json_object* member = nullptr;
  return json_object_object_get_ex(object, key, &member) ? json_object_get_string(member) : "";
}

// Compares JSON values member by member, whatever the order of the members.
inline ::testing::AssertionResult SameJson(const std::string& actual, const std::string& expected) {
  Json a = Parse(actual), e = Parse(expected);
  if (!e) return ::testing::AssertionFailure() << "the expectation is not JSON: " << expected;
  if (a && json_object_equal(a.get(), e.get())) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << actual << "\n  expected " << expected;
}

// Replaces every "{key}" in text.
inline std::string Fill(std::string text,
                        const std::vector<std::pair<std::string, std::string>>& values) {
  for (const auto& [key, value] : values)
    for (std::size_t at; (at = text.find("{" + key + "}")) != std::string::npos;)
      text.replace(at, key.size() + 2, value);
  return text;
}

class AgentProbeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_.IssueClientCertificate(certFolder_, {.commonName = id_});
    ASSERT_EQ(probe_.Connect(env_.Host(), env_.MainPort(), env_.CaFile(), certFolder_ + "/cert.crt",
                             certFolder_ + "/priv_key.key"),
              MqttProbe::Outcome::kConnected);
    ASSERT_EQ(probe_.Subscribe(tree_ + "/#"), 2);
  }

  // Publishes below the client's tree and returns the agent's reply to it.
  std::optional<ProbeMessage> Request(const std::string& topic, const std::string& payload) {
    std::size_t before = probe_.ReceivedCount();
    EXPECT_TRUE(probe_.Publish(tree_ + topic, payload));
    return probe_.WaitForMessage([](const ProbeMessage& m) { return m.topic.ends_with("/inbox"); },
                                 std::chrono::seconds(10), before);
  }

  // Creates a sensor over MQTT and returns its id.
  std::string CreateSensor(const std::string& name) {
    std::optional<ProbeMessage> reply = Request("/sensor/create", R"({"name":")" + name + R"("})");
    if (!reply || reply->topic != tree_ + "/sensor/inbox") {
      ADD_FAILURE() << "no sensor " << name;
      return "";
    }
    return Member(Parse(reply->payload).get(), "sensorId");
  }

  std::optional<ProbeMessage> WaitForJob(const std::string& topic, std::size_t from) {
    return probe_.WaitForMessage([&](const ProbeMessage& m) { return m.topic == tree_ + topic; },
                                 std::chrono::seconds(10), from);
  }

  Json Control(const std::string& command) {
    Json answer = Parse(env_.AgentControl(command));
    EXPECT_TRUE(answer) << command;
    return answer;
  }

  TestEnvironment env_;
  std::string certFolder_ = env_.NewCertFolder();  // the probe's key and certificate
  std::string id_ = "greenhouse";
  std::string tree_ = "/v1.0/" + id_;
  MqttProbe probe_{id_};
};

}  // namespace daxo_test

#endif
