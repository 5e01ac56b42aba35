// A fake MQTT transport: FakeMqtt::Create and FakeMqtt::Destroy are the
// factory and releaser given to NewClientInternal. Every instance records
// each call and lets a test fire the installed handlers, synchronously.
#ifndef DAXO_TEST_FAKE_MQTT_H
#define DAXO_TEST_FAKE_MQTT_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "mosquitto_interface.h"

struct FakePublish {
  std::string topic, payload;
  int qos, mid;
  bool retain;
};

struct FakeSubscribe {
  std::string filter;
  int qos, mid;
};

class FakeMqtt {
 public:
  static MosquittoInterface* Create(MosquittoInterface* mosqInterface, const char* id,
                                    int cleanSession, void* callBackParam);
  static void Destroy(MosquittoInterface* mosqInterface);
  static const std::vector<FakeMqtt*>& Instances();  // since Reset, destroyed ones too
  static FakeMqtt* Last();
  static void Reset();
  static void FailNextCreate(int err);  // with this errno
  static void OnCreate(std::function<void(FakeMqtt&)> configure);

  // Fire the installed handler; false when there is none.
  bool FireConnect(int rc) { return Fire(onConnect, rc); }
  bool FireDisconnect(int rc) { return Fire(onDisconnect, rc); }
  bool FireSubscribe(int mid, std::vector<int> qos = {2}) {
    return Fire(onSubscribe, mid, static_cast<int>(qos.size()), qos.data());
  }
  bool FirePublish(int mid) { return Fire(onPublish, mid); }
  bool FireLog(const char* line) { return Fire(onLog, MOSQ_LOG_ERR, line); }
  // Delivers a message as libmosquitto does: payload NUL-terminated.
  bool Deliver(const std::string& topic, const std::string& payload, int qos = 2);

  std::string id;
  void* obj = nullptr;
  bool destroyed = false;
  std::vector<int> loopStops;  // force flags
  int disconnects = 0, nextMid = 1;
  std::string tls;                       // "caFile certFile keyFile"
  std::vector<std::string> connects;     // "host:port:keepAlive"
  std::vector<unsigned> reconnectDelay;  // delay, maximum, backoff
  std::vector<FakeSubscribe> subscribes;
  std::vector<FakePublish> publishes;

  MosquittoLogHandler onLog = nullptr;
  MosquittoResultHandler onConnect = nullptr, onDisconnect = nullptr;
  MosquittoMessageHandler onMessage = nullptr;
  MosquittoSubscribeHandler onSubscribe = nullptr;
  MosquittoPublishHandler onPublish = nullptr;

  // Results of the next calls.
  int loopStartResult = MOSQ_ERR_SUCCESS, tlsSetResult = MOSQ_ERR_SUCCESS;
  int connectResult = MOSQ_ERR_SUCCESS, disconnectResult = MOSQ_ERR_SUCCESS;
  int subscribeResult = MOSQ_ERR_SUCCESS;
  int connectErrno = 0;              // errno as a failed connect leaves it
  std::string connectLine;           // logged by the next connect before it returns
  std::optional<int> publishResult;  // unset: checked like libmosquitto

 private:
  template <class Handler, class... Args>
  bool Fire(Handler handler, Args... args) {
    if (handler != nullptr) handler(reinterpret_cast<struct mosquitto*>(this), obj, args...);
    return handler != nullptr;
  }
};

#endif
