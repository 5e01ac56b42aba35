// A fake MQTT transport behind MosquittoInterface. FakeMqtt::Create and
// FakeMqtt::Destroy are the factory and releaser given to NewClientInternal;
// every instance the library makes is a FakeMqtt that records each call and
// lets a test fire the handlers the library installed, synchronously.
#ifndef DAXO_TEST_FAKE_MQTT_H
#define DAXO_TEST_FAKE_MQTT_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "mosquitto_interface.h"

struct FakePublish {
  std::string topic;
  std::string payload;
  int qos;
  bool retain;
  int mid;
};

struct FakeSubscribe {
  std::string filter;
  int qos;
  int mid;
};

struct FakeTls {
  std::string caFile, caPath, certFile, keyFile;
  bool hasPasswordCallback;
};

class FakeMqtt {
 public:
  // The factory and releaser, with the signatures of the interface table.
  static MosquittoInterface* Create(MosquittoInterface* mosqInterface, const char* id,
                                    int cleanSession, void* callBackParam);
  static void Destroy(MosquittoInterface* mosqInterface);

  // Every instance made since the last Reset, in creation order; destroyed
  // ones stay listed with destroyed set, so tests can inspect them.
  static std::vector<FakeMqtt*>& Instances();
  static FakeMqtt* Last();
  static void Reset();
  // Makes the next Create fail with this errno.
  static void FailNextCreate(int err);
  // Runs on every instance as it is created, so a test can set the results
  // of calls the library makes before the test sees the instance.
  static void OnCreate(std::function<void(FakeMqtt&)> configure);

  // The handle the library sees as its `obj` owner (a non-null stand-in).
  struct mosquitto* Handle() { return reinterpret_cast<struct mosquitto*>(this); }

  // Fire the handlers the library installed; false when none is installed.
  bool FireConnect(int rc);
  bool FireDisconnect(int rc);
  bool FireSubscribe(int mid, std::vector<int> grantedQos = {2});
  bool FirePublish(int mid);
  bool FireLog(int level, const char* line);
  // Delivers a message as libmosquitto does: payload NUL-terminated.
  bool Deliver(const std::string& topic, const std::string& payload, int qos = 2);

  // Recorded state.
  std::string id;
  int cleanSession = 0;
  void* obj = nullptr;
  bool destroyed = false;
  bool loopRunning = false;
  int loopStarts = 0;
  std::vector<int> loopStops;  // force flags
  int disconnects = 0;
  std::optional<FakeTls> tls;
  std::optional<int> tlsInsecure;
  struct Connect {
    std::string host;
    int port, keepAlive;
  };
  std::vector<Connect> connects;
  std::vector<FakeSubscribe> subscribes;
  std::vector<FakePublish> publishes;
  struct Delay {
    unsigned delay, delayMax;
    bool backoff;
  };
  std::optional<Delay> reconnectDelay;

  MosquittoLogHandler onLog = nullptr;
  MosquittoResultHandler onConnect = nullptr;
  MosquittoResultHandler onDisconnect = nullptr;
  MosquittoMessageHandler onMessage = nullptr;
  MosquittoSubscribeHandler onSubscribe = nullptr;
  MosquittoPublishHandler onPublish = nullptr;

  // Results the next calls return (MOSQ_ERR_SUCCESS by default).
  int loopStartResult = MOSQ_ERR_SUCCESS;
  int loopStopResult = MOSQ_ERR_SUCCESS;
  int tlsSetResult = MOSQ_ERR_SUCCESS;
  int connectResult = MOSQ_ERR_SUCCESS;
  int disconnectResult = MOSQ_ERR_SUCCESS;
  int subscribeResult = MOSQ_ERR_SUCCESS;
  std::optional<int> publishResult;  // unset: checked like libmosquitto

 private:
  int nextMid_ = 1;
  friend struct FakeMqttTrampolines;
};

#endif
