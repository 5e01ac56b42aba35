#include "agent.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "log.h"

namespace daxo_agent {
namespace {

constexpr int kQos = 2;
constexpr int kLoopTimeoutMs = 100;
constexpr auto kReconnectDelay = std::chrono::seconds(1);

std::vector<std::string> SplitLevels(const std::string& topic) {
  std::vector<std::string> levels;
  std::size_t start = 0;
  for (std::size_t slash; (slash = topic.find('/', start)) != std::string::npos; start = slash + 1)
    levels.push_back(topic.substr(start, slash - start));
  levels.push_back(topic.substr(start));
  return levels;
}

void Require(int rc, const char* what) {
  if (rc != MOSQ_ERR_SUCCESS)
    throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(rc));
}

}  // namespace

bool UsableTopicLevel(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](unsigned char c) {
    return c < 0x20 || c == 0x7f || c == '/' || c == '+' || c == '#';
  });
}

Agent::Agent(const BrokerSettings& broker, std::vector<Route> routes)
    : broker_(broker), routes_(std::move(routes)), mosq_(mosquitto_new("daxo-agent", true, this)) {
  if (mosq_ == nullptr) throw std::runtime_error("cannot create the MQTT client");
  Require(mosquitto_int_option(mosq_.get(), MOSQ_OPT_TCP_NODELAY, 1), "TCP_NODELAY");
  // Publish is called from the control thread too. Unthreaded, libmosquitto
  // would write to the TLS session on the caller's thread while Run reads
  // from it; threaded, it queues the message and wakes Run's loop to write it.
  Require(mosquitto_threaded_set(mosq_.get(), true), "threaded mode");
  Require(mosquitto_tls_set(mosq_.get(), broker_.caFile.c_str(), nullptr, broker_.certFile.c_str(),
                            broker_.keyFile.c_str(), nullptr),
          "TLS settings (check --cafile, --cert and --key)");
  mosquitto_connect_callback_set(mosq_.get(), OnConnect);
  mosquitto_disconnect_callback_set(mosq_.get(), OnDisconnect);
  mosquitto_subscribe_callback_set(mosq_.get(), OnSubscribe);
  mosquitto_message_callback_set(mosq_.get(), OnMessage);
}

void Agent::Run(const std::function<bool()>& keepRunning) {
  // Not connect_async: with TLS, libmosquitto 2.0 never notices that such an
  // attempt was refused and would wait forever instead of retrying.
  int rc = mosquitto_connect(mosq_.get(), broker_.host.c_str(), broker_.port, broker_.keepAlive);
  while (keepRunning()) {
    if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_loop(mosq_.get(), kLoopTimeoutMs, 1);
    if (rc == MOSQ_ERR_SUCCESS) continue;
    WaitBeforeReconnect(keepRunning, rc);
    if (keepRunning()) rc = mosquitto_reconnect(mosq_.get());
  }
  Disconnect();
}

// In threaded mode the DISCONNECT packet is only queued: the loop has to run
// until it is written, or the broker sees the connection drop instead.
void Agent::Disconnect() {
  if (mosquitto_disconnect(mosq_.get()) != MOSQ_ERR_SUCCESS) return;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (std::chrono::steady_clock::now() < deadline &&
         mosquitto_loop(mosq_.get(), kLoopTimeoutMs, 1) == MOSQ_ERR_SUCCESS) {
  }
}

// libmosquitto's own loop gives up for good on a TLS failure, but a broker
// restarted with another certificate must not end the agent.
void Agent::WaitBeforeReconnect(const std::function<bool()>& keepRunning, int rc) {
  if (!outageReported_) {
    Log("cannot reach the broker at " + broker_.host + ":" + std::to_string(broker_.port) + " (" +
        mosquitto_strerror(rc) + "); retrying every second");
    outageReported_ = true;
  }
  auto deadline = std::chrono::steady_clock::now() + kReconnectDelay;
  while (keepRunning() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

bool Agent::Publish(const std::string& topic, std::string_view payload) {
  int rc = mosquitto_publish(mosq_.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), kQos, false);
  if (rc == MOSQ_ERR_SUCCESS)
    Log("sent " + topic + " " + DescribePayload(payload));
  else
    Log("cannot send " + topic + ": " + mosquitto_strerror(rc));
  return rc == MOSQ_ERR_SUCCESS;
}

void Agent::Subscribe() {
  std::vector<char*> filters;
  for (Route& route : routes_) filters.push_back(route.filter.data());
  int rc =
      mosquitto_subscribe_multiple(mosq_.get(), &subscribeMid_, static_cast<int>(filters.size()),
                                   filters.data(), kQos, 0, nullptr);
  if (rc != MOSQ_ERR_SUCCESS) Log(std::string("cannot subscribe: ") + mosquitto_strerror(rc));
}

void Agent::Dispatch(const Message& message) {
  for (const Route& route : routes_) {
    bool matches = false;
    mosquitto_topic_matches_sub(route.filter.c_str(), message.topic.c_str(), &matches);
    if (!matches) continue;
    Log("received " + message.topic + " " + DescribePayload(message.payload));
    try {
      route.handle(message, *this);
    } catch (const std::exception& e) {
      Log("handler for " + message.topic + " failed: " + e.what());
    }
    return;
  }
  Log("ignored " + message.topic + ": no route");
}

void Agent::OnConnect(mosquitto*, void* self, int rc) {
  auto* agent = static_cast<Agent*>(self);
  if (rc != 0) {
    Log(std::string("broker refused the connection: ") + mosquitto_connack_string(rc));
    return;
  }
  agent->connected_ = true;
  agent->outageReported_ = false;
  Log("connected to " + agent->broker_.host + ":" + std::to_string(agent->broker_.port));
  agent->Subscribe();
}

void Agent::OnDisconnect(mosquitto*, void* self, int rc) {
  auto* agent = static_cast<Agent*>(self);
  if (agent->connected_ && rc != 0) Log("lost the broker connection");
  agent->connected_ = false;
}

void Agent::OnSubscribe(mosquitto*, void* self, int mid, int count, const int* granted) {
  auto* agent = static_cast<Agent*>(self);
  if (mid != agent->subscribeMid_) return;
  for (int i = 0; i < count; ++i) {
    if (granted[i] > kQos) {
      Log("broker refused the subscription to " + agent->routes_[i].filter);
      return;
    }
  }
  Log("ready");
}

void Agent::OnMessage(mosquitto*, void* self, const mosquitto_message* message) {
  auto* agent = static_cast<Agent*>(self);
  Message received{message->topic, SplitLevels(message->topic), {}};
  if (message->payloadlen > 0)
    received.payload.assign(static_cast<const char*>(message->payload),
                            static_cast<std::size_t>(message->payloadlen));
  agent->Dispatch(received);
}

}  // namespace daxo_agent
