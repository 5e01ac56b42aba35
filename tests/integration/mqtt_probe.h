// A bare libmosquitto client for integration tests: it connects with or
// without a client certificate, records what it receives, and lets a test
// wait for a message with a deadline.
#ifndef DAXO_TEST_MQTT_PROBE_H
#define DAXO_TEST_MQTT_PROBE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace daxo_test {

struct ProbeMessage {
  std::string topic;
  std::string payload;
};

class MqttProbe {
 public:
  enum class Outcome { kConnected, kRefused, kFailed, kTimedOut };

  explicit MqttProbe(const std::string& clientId);
  ~MqttProbe();
  MqttProbe(const MqttProbe&) = delete;
  MqttProbe& operator=(const MqttProbe&) = delete;

  // TLS with caFile; certFile and keyFile empty for an anonymous client.
  Outcome Connect(const std::string& host, int port, const std::string& caFile,
                  const std::string& certFile = "", const std::string& keyFile = "",
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Waits for the broker's acknowledgement; returns the granted QoS (128:
  // refused) or -1 when none came in time.
  int Subscribe(const std::string& filter,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // QoS 2, not retained; true when libmosquitto accepted the message.
  bool Publish(const std::string& topic, const std::string& payload);

  // Considers the messages received from index `from` on.
  std::optional<ProbeMessage> WaitForMessage(
      const std::function<bool(const ProbeMessage&)>& wanted,
      std::chrono::milliseconds timeout = std::chrono::seconds(10), std::size_t from = 0);
  std::optional<ProbeMessage> WaitForTopic(
      const std::string& topic, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  std::vector<ProbeMessage> Received() const;
  std::size_t ReceivedCount() const;

 private:
  static void OnConnect(mosquitto*, void* self, int rc);
  static void OnDisconnect(mosquitto*, void* self, int rc);
  static void OnSubscribe(mosquitto*, void* self, int mid, int count, const int* granted);
  static void OnMessage(mosquitto*, void* self, const mosquitto_message* message);

  mosquitto* mosq_;
  bool loopStarted_ = false;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<Outcome> outcome_;
  std::vector<std::pair<int, int>> subacks_;  // {mid, granted QoS}
  std::vector<ProbeMessage> received_;
};

}  // namespace daxo_test

#endif
