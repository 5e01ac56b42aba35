#include "mqtt_probe.h"

#include <mosquitto.h>

#include <algorithm>
#include <stdexcept>

namespace daxo_test {
namespace {

void InitLibraryOnce() {
  static const int initialised = mosquitto_lib_init();
  (void)initialised;
}

}  // namespace

MqttProbe::MqttProbe(const std::string& clientId) {
  InitLibraryOnce();
  mosq_ = mosquitto_new(clientId.c_str(), true, this);
  if (mosq_ == nullptr) throw std::runtime_error("mosquitto_new failed");
  mosquitto_connect_callback_set(mosq_, OnConnect);
  mosquitto_disconnect_callback_set(mosq_, OnDisconnect);
  mosquitto_subscribe_callback_set(mosq_, OnSubscribe);
  mosquitto_message_callback_set(mosq_, OnMessage);
  mosquitto_reconnect_delay_set(mosq_, 1, 1, false);
}

MqttProbe::~MqttProbe() {
  mosquitto_disconnect(mosq_);
  if (loopStarted_) mosquitto_loop_stop(mosq_, false);
  mosquitto_destroy(mosq_);
}

MqttProbe::Outcome MqttProbe::Connect(const std::string& host, int port, const std::string& caFile,
                                      const std::string& certFile, const std::string& keyFile,
                                      std::chrono::milliseconds timeout) {
  const char* cert = certFile.empty() ? nullptr : certFile.c_str();
  const char* key = keyFile.empty() ? nullptr : keyFile.c_str();
  // Blocking connect and a loop driven here until the CONNACK: libmosquitto
  // 2.0 reports a refused TLS connect_async, or a failed handshake inside its
  // own thread, to no callback at all.
  if (mosquitto_tls_set(mosq_, caFile.c_str(), nullptr, cert, key, nullptr) != MOSQ_ERR_SUCCESS ||
      mosquitto_connect(mosq_, host.c_str(), port, 30) != MOSQ_ERR_SUCCESS)
    return Outcome::kFailed;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (outcome_) break;
    }
    if (std::chrono::steady_clock::now() >= deadline) return Outcome::kTimedOut;
    if (mosquitto_loop(mosq_, 50, 1) != MOSQ_ERR_SUCCESS) return Outcome::kFailed;
  }
  std::lock_guard lock(mutex_);
  if (*outcome_ == Outcome::kConnected)
    loopStarted_ = mosquitto_loop_start(mosq_) == MOSQ_ERR_SUCCESS;
  return *outcome_;
}

int MqttProbe::Subscribe(const std::string& filter, std::chrono::milliseconds timeout) {
  int mid = 0;
  if (mosquitto_subscribe(mosq_, &mid, filter.c_str(), 2) != MOSQ_ERR_SUCCESS) return -1;
  std::unique_lock lock(mutex_);
  auto acked = [&] {
    return std::find_if(subacks_.begin(), subacks_.end(),
                        [mid](const auto& ack) { return ack.first == mid; }) != subacks_.end();
  };
  if (!changed_.wait_for(lock, timeout, acked)) return -1;
  return std::find_if(subacks_.begin(), subacks_.end(),
                      [mid](const auto& ack) { return ack.first == mid; })
      ->second;
}

bool MqttProbe::Publish(const std::string& topic, const std::string& payload) {
  return mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                           payload.data(), 2, false) == MOSQ_ERR_SUCCESS;
}

std::optional<ProbeMessage> MqttProbe::WaitForMessage(
    const std::function<bool(const ProbeMessage&)>& wanted, std::chrono::milliseconds timeout,
    std::size_t from) {
  std::unique_lock lock(mutex_);
  std::optional<ProbeMessage> found;
  changed_.wait_for(lock, timeout, [&] {
    if (from >= received_.size()) return false;
    auto it = std::find_if(received_.begin() + static_cast<std::ptrdiff_t>(from), received_.end(),
                           wanted);
    if (it != received_.end()) found = *it;
    return found.has_value();
  });
  return found;
}

std::optional<ProbeMessage> MqttProbe::WaitForTopic(const std::string& topic,
                                                    std::chrono::milliseconds timeout) {
  return WaitForMessage([&topic](const ProbeMessage& m) { return m.topic == topic; }, timeout);
}

std::vector<ProbeMessage> MqttProbe::Received() const {
  std::lock_guard lock(mutex_);
  return received_;
}

std::size_t MqttProbe::ReceivedCount() const {
  std::lock_guard lock(mutex_);
  return received_.size();
}

void MqttProbe::OnConnect(mosquitto*, void* self, int rc) {
  auto* probe = static_cast<MqttProbe*>(self);
  std::lock_guard lock(probe->mutex_);
  if (!probe->outcome_) probe->outcome_ = rc == 0 ? Outcome::kConnected : Outcome::kRefused;
  probe->changed_.notify_all();
}

void MqttProbe::OnDisconnect(mosquitto*, void* self, int) {
  auto* probe = static_cast<MqttProbe*>(self);
  std::lock_guard lock(probe->mutex_);
  if (!probe->outcome_) probe->outcome_ = Outcome::kFailed;
  probe->changed_.notify_all();
}

void MqttProbe::OnSubscribe(mosquitto*, void* self, int mid, int count, const int* granted) {
  auto* probe = static_cast<MqttProbe*>(self);
  std::lock_guard lock(probe->mutex_);
  probe->subacks_.emplace_back(mid, count > 0 ? granted[0] : 128);
  probe->changed_.notify_all();
}

void MqttProbe::OnMessage(mosquitto*, void* self, const mosquitto_message* message) {
  auto* probe = static_cast<MqttProbe*>(self);
  ProbeMessage received{message->topic, {}};
  if (message->payloadlen > 0)
    received.payload.assign(static_cast<const char*>(message->payload),
                            static_cast<std::size_t>(message->payloadlen));
  std::lock_guard lock(probe->mutex_);
  probe->received_.push_back(std::move(received));
  probe->changed_.notify_all();
}

}  // namespace daxo_test
