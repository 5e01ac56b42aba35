// The agent's MQTT session: one connection to the broker with the agent's
// client certificate, a routing table from topic filters to handlers, and
// the publishing of replies. Handlers run on the thread that calls Run;
// Publish may also be called from other threads.
#ifndef DAXO_AGENT_AGENT_H
#define DAXO_AGENT_AGENT_H

#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "api.h"
#include "openssl_handles.h"

namespace daxo_agent {

struct Message {
  std::string topic;
  std::vector<std::string> levels;  // levels[0] is empty: every topic starts with "/"
  std::string payload;
};

// Whether text can be one level of a topic the agent addresses: wildcards,
// separators and control characters would address other topics or none.
bool UsableTopicLevel(std::string_view text);

// The body of a success reply, or what the error reply says.
using Answer = std::variant<std::string, ApiFault>;

class Outbox {
 public:
  virtual ~Outbox() = default;
  // True when the message was handed to the MQTT library.
  virtual bool Publish(const std::string& topic, std::string_view payload) = 0;
  void PublishError(const std::string& topic, const ApiFault& fault) {
    Publish(topic, ErrorBody(fault));
  }
  // Replies hang below base: a success on base + successSuffix, a fault
  // always on base + "/error/inbox".
  void PublishAnswer(const std::string& base, std::string_view successSuffix,
                     const Answer& answer) {
    if (const ApiFault* fault = std::get_if<ApiFault>(&answer))
      PublishError(base + "/error/inbox", *fault);
    else
      Publish(base + std::string(successSuffix), std::get<std::string>(answer));
  }
};

using Handler = std::function<void(const Message&, Outbox&)>;

// filter is an MQTT subscription filter; the agent subscribes to it and hands
// every message that matches it to handle. The first matching route wins.
struct Route {
  std::string filter;
  Handler handle;
};

struct BrokerSettings {
  std::string host;
  int port = 0;
  std::string caFile;
  std::string certFile;
  std::string keyFile;
  int keepAlive = 30;
};

class Agent : public Outbox {
 public:
  // Throws std::runtime_error when libmosquitto refuses the settings.
  Agent(const BrokerSettings& broker, std::vector<Route> routes);

  // Serves until keepRunning returns false, reconnecting every second while
  // the broker is unreachable. keepRunning is polled several times a second.
  void Run(const std::function<bool()>& keepRunning);

  bool Publish(const std::string& topic, std::string_view payload) override;

 private:
  static void OnConnect(mosquitto* mosq, void* self, int rc);
  static void OnDisconnect(mosquitto* mosq, void* self, int rc);
  static void OnSubscribe(mosquitto* mosq, void* self, int mid, int count, const int* granted);
  static void OnMessage(mosquitto* mosq, void* self, const mosquitto_message* message);

  void Subscribe();
  void Dispatch(const Message& message);
  void WaitBeforeReconnect(const std::function<bool()>& keepRunning, int rc);
  void Disconnect();

  BrokerSettings broker_;
  std::vector<Route> routes_;
  MosquittoPtr mosq_;
  int subscribeMid_ = 0;
  bool connected_ = false;
  bool outageReported_ = false;
};

}  // namespace daxo_agent

#endif
