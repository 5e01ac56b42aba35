// The bare libmosquitto client the broker benchmarks compare the library
// with: what an application would write without it. It has a certificate of
// its own, so that nothing sent to it reaches anyone else, and is connected to
// the main listener and subscribed to its filter at QoS 2 once constructed.
// Messages and completed publishes go to the handlers, on the network thread.
#ifndef DAXO_BENCH_RAW_CLIENT_H
#define DAXO_BENCH_RAW_CLIENT_H

#include <mosquitto.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>

#include "environment.h"

namespace bench {

class RawClient {
 public:
  struct Handlers {
    void* owner;
    void (*message)(void* owner, const mosquitto_message* message);
    void (*published)(void* owner) = nullptr;
  };

  RawClient(daxo_test::TestEnvironment& env, const std::string& id, const std::string& filter,
            Handlers handlers, bool noDelay = true)
      : handlers_(handlers), mosq_(mosquitto_new(id.c_str(), true, this)) {
    if (mosq_ == nullptr) throw std::runtime_error("mosquitto_new failed");
    std::string folder = env.NewCertFolder();
    env.IssueClientCertificate(folder, {.commonName = id, .start = std::chrono::hours(-1)});
    // The library sets it on its instances; a round trip waits tens of
    // milliseconds for a delayed acknowledgement without it.
    mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, noDelay ? 1 : 0);
    mosquitto_connect_callback_set(mosq_, [](mosquitto*, void* self, int rc) {
      static_cast<RawClient*>(self)->Reached(rc == 0 ? kConnected : kFailed);
    });
    mosquitto_subscribe_callback_set(mosq_, [](mosquitto*, void* self, int, int, const int* qos) {
      static_cast<RawClient*>(self)->Reached(qos[0] == 2 ? kSubscribed : kFailed);
    });
    mosquitto_message_callback_set(mosq_, [](mosquitto*, void* self, const mosquitto_message* m) {
      const Handlers& h = static_cast<RawClient*>(self)->handlers_;
      h.message(h.owner, m);
    });
    if (handlers.published != nullptr)
      mosquitto_publish_callback_set(mosq_, [](mosquitto*, void* self, int) {
        const Handlers& h = static_cast<RawClient*>(self)->handlers_;
        h.published(h.owner);
      });
    if (mosquitto_tls_set(mosq_, env.CaFile().c_str(), nullptr, (folder + "/cert.crt").c_str(),
                          (folder + "/priv_key.key").c_str(), nullptr) != MOSQ_ERR_SUCCESS ||
        mosquitto_connect(mosq_, env.Host().c_str(), env.MainPort(), 30) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(mosq_) != MOSQ_ERR_SUCCESS || !WaitFor(kConnected) ||
        mosquitto_subscribe(mosq_, nullptr, filter.c_str(), 2) != MOSQ_ERR_SUCCESS ||
        !WaitFor(kSubscribed)) {
      Close();
      throw std::runtime_error("the bare client " + id + " did not connect and subscribe");
    }
  }
  ~RawClient() { Close(); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool Publish(const std::string& topic, const char* payload, int length) {
    return mosquitto_publish(mosq_, nullptr, topic.c_str(), length, payload, 2, false) ==
           MOSQ_ERR_SUCCESS;
  }

 private:
  enum State { kStarting, kConnected, kSubscribed, kFailed };

  void Reached(State state) {
    std::lock_guard lock(mutex_);
    if (state_ != kFailed) state_ = state;
    changed_.notify_all();
  }
  bool WaitFor(State state) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10),
                      [&] { return state_ == state || state_ == kFailed; });
    return state_ == state;
  }
  void Close() {
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
  }

  Handlers handlers_;
  mosquitto* mosq_;
  std::mutex mutex_;
  std::condition_variable changed_;
  State state_ = kStarting;
};

}  // namespace bench

#endif
