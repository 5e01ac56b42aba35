#include "fake_mqtt.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

std::vector<std::unique_ptr<FakeMqtt>>& Owned() {
  static std::vector<std::unique_ptr<FakeMqtt>> owned;
  return owned;
}

int nextCreateErrno = 0;
std::function<void(FakeMqtt&)> onCreate;

FakeMqtt& Of(MosquittoInterface* mi) { return *static_cast<FakeMqtt*>(mi->mosq); }

}  // namespace

struct FakeMqttTrampolines {
  static int NextMid(FakeMqtt& f) {
    int mid = f.nextMid_++;
    if (f.nextMid_ > 65535) f.nextMid_ = 1;
    return mid;
  }

  static int LoopStart(MosquittoInterface* mi) {
    auto& f = Of(mi);
    f.loopStarts++;
    if (f.loopStartResult == MOSQ_ERR_SUCCESS) f.loopRunning = true;
    return f.loopStartResult;
  }
  static int LoopStop(MosquittoInterface* mi, int force) {
    auto& f = Of(mi);
    f.loopStops.push_back(force);
    f.loopRunning = false;
    return f.loopStopResult;
  }
  static int TlsSet(MosquittoInterface* mi, const char* ca, const char* caPath, const char* cert,
                    const char* key, MosquittoPasswordCallback pw) {
    auto str = [](const char* s) { return s ? std::string(s) : std::string(); };
    Of(mi).tls = FakeTls{str(ca), str(caPath), str(cert), str(key), pw != nullptr};
    return Of(mi).tlsSetResult;
  }
  static int TlsInsecureSet(MosquittoInterface* mi, int value) {
    Of(mi).tlsInsecure = value;
    return MOSQ_ERR_SUCCESS;
  }
  static int ConnectAsync(MosquittoInterface* mi, const char* host, int port, int keepAlive) {
    Of(mi).connects.push_back({host ? host : "", port, keepAlive});
    return Of(mi).connectResult;
  }
  static int Disconnect(MosquittoInterface* mi) {
    Of(mi).disconnects++;
    return Of(mi).disconnectResult;
  }
  static int Subscribe(MosquittoInterface* mi, int* mid, const char* sub, int qos) {
    auto& f = Of(mi);
    if (sub == nullptr || qos < 0 || qos > 2) return MOSQ_ERR_INVAL;
    if (mosquitto_sub_topic_check(sub) != MOSQ_ERR_SUCCESS) return MOSQ_ERR_INVAL;
    if (f.subscribeResult != MOSQ_ERR_SUCCESS) return f.subscribeResult;
    int m = NextMid(f);
    if (mid) *mid = m;
    f.subscribes.push_back({sub, qos, m});
    return MOSQ_ERR_SUCCESS;
  }
  static int Publish(MosquittoInterface* mi, int* mid, const char* topic, int len,
                     const void* payload, int qos, int retain) {
    auto& f = Of(mi);
    if (f.publishResult) return *f.publishResult;
    // The checks libmosquitto makes before queueing a message.
    if (topic == nullptr || topic[0] == '\0' || qos < 0 || qos > 2 || len < 0 || (len > 0 && payload == nullptr))
      return MOSQ_ERR_INVAL;
    if (mosquitto_pub_topic_check(topic) != MOSQ_ERR_SUCCESS) return MOSQ_ERR_INVAL;
    if (len > 268435455) return MOSQ_ERR_PAYLOAD_SIZE;
    // Recording allocates: under an injected allocation failure the fake
    // refuses the message as libmosquitto would.
    try {
      FakePublish p{topic, std::string(static_cast<const char*>(payload), len), qos, retain != 0,
                    0};
      f.publishes.reserve(f.publishes.size() + 1);
      p.mid = NextMid(f);
      if (mid) *mid = p.mid;
      f.publishes.push_back(std::move(p));
    } catch (const std::bad_alloc&) {
      return MOSQ_ERR_NOMEM;
    }
    return MOSQ_ERR_SUCCESS;
  }
  static int ReconnectDelaySet(MosquittoInterface* mi, unsigned d, unsigned dmax, int backoff) {
    Of(mi).reconnectDelay = FakeMqtt::Delay{d, dmax, backoff != 0};
    return MOSQ_ERR_SUCCESS;
  }
  static void LogSet(MosquittoInterface* mi, MosquittoLogHandler h) { Of(mi).onLog = h; }
  static void ConnectSet(MosquittoInterface* mi, MosquittoResultHandler h) { Of(mi).onConnect = h; }
  static void DisconnectSet(MosquittoInterface* mi, MosquittoResultHandler h) {
    Of(mi).onDisconnect = h;
  }
  static void MessageSet(MosquittoInterface* mi, MosquittoMessageHandler h) {
    Of(mi).onMessage = h;
  }
  static void SubscribeSet(MosquittoInterface* mi, MosquittoSubscribeHandler h) {
    Of(mi).onSubscribe = h;
  }
  static void PublishSet(MosquittoInterface* mi, MosquittoPublishHandler h) {
    Of(mi).onPublish = h;
  }
};

MosquittoInterface* FakeMqtt::Create(MosquittoInterface* mosqInterface, const char* id,
                                     int cleanSession, void* callBackParam) {
  if (nextCreateErrno != 0) {
    errno = nextCreateErrno;
    nextCreateErrno = 0;
    return nullptr;
  }
  MosquittoInterface* mi = mosqInterface;
  if (mi == nullptr) {
    mi = static_cast<MosquittoInterface*>(calloc(1, sizeof *mi));
    if (mi == nullptr) return nullptr;
  }
  auto fake = std::make_unique<FakeMqtt>();
  fake->id = id ? id : "";
  fake->cleanSession = cleanSession;
  fake->obj = callBackParam;
  if (onCreate) onCreate(*fake);
  using T = FakeMqttTrampolines;
  *mi = MosquittoInterface{T::LoopStart,  T::LoopStop,      T::TlsSet,       T::TlsInsecureSet,
                           T::ConnectAsync, T::Disconnect,  T::Subscribe,    T::Publish,
                           T::ReconnectDelaySet, T::LogSet, T::ConnectSet,   T::DisconnectSet,
                           T::MessageSet, T::SubscribeSet,  T::PublishSet,   fake.get()};
  Owned().push_back(std::move(fake));
  return mi;
}

void FakeMqtt::Destroy(MosquittoInterface* mosqInterface) {
  if (mosqInterface == nullptr) return;
  if (mosqInterface->mosq != nullptr) Of(mosqInterface).destroyed = true;
  free(mosqInterface);
}

std::vector<FakeMqtt*>& FakeMqtt::Instances() {
  static std::vector<FakeMqtt*> view;
  view.clear();
  for (auto& f : Owned()) view.push_back(f.get());
  return view;
}

FakeMqtt* FakeMqtt::Last() { return Owned().empty() ? nullptr : Owned().back().get(); }

void FakeMqtt::Reset() {
  Owned().clear();
  nextCreateErrno = 0;
  onCreate = nullptr;
}

void FakeMqtt::FailNextCreate(int err) { nextCreateErrno = err; }

void FakeMqtt::OnCreate(std::function<void(FakeMqtt&)> configure) {
  onCreate = std::move(configure);
}

bool FakeMqtt::FireConnect(int rc) {
  if (!onConnect) return false;
  onConnect(Handle(), obj, rc);
  return true;
}

bool FakeMqtt::FireDisconnect(int rc) {
  if (!onDisconnect) return false;
  onDisconnect(Handle(), obj, rc);
  return true;
}

bool FakeMqtt::FireSubscribe(int mid, std::vector<int> grantedQos) {
  if (!onSubscribe) return false;
  onSubscribe(Handle(), obj, mid, static_cast<int>(grantedQos.size()), grantedQos.data());
  return true;
}

bool FakeMqtt::FirePublish(int mid) {
  if (!onPublish) return false;
  onPublish(Handle(), obj, mid);
  return true;
}

bool FakeMqtt::FireLog(int level, const char* line) {
  if (!onLog) return false;
  onLog(Handle(), obj, level, line);
  return true;
}

bool FakeMqtt::Deliver(const std::string& topic, const std::string& payload, int qos) {
  if (!onMessage) return false;
  std::string topicCopy = topic;
  std::vector<char> body(payload.begin(), payload.end());
  body.push_back('\0');
  mosquitto_message message{};
  message.mid = 1;
  message.topic = topicCopy.data();
  message.payload = body.data();
  message.payloadlen = static_cast<int>(payload.size());
  message.qos = qos;
  message.retain = false;
  onMessage(Handle(), obj, &message);
  return true;
}
