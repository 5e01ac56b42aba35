#include "fake_mqtt.h"

#include "alloc_failure.h"

#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

using MI = MosquittoInterface;

std::vector<FakeMqtt*> owned;
int nextCreateErrno = 0;
std::function<void(FakeMqtt&)> onCreate;

FakeMqtt& Of(MI* mi) { return *static_cast<FakeMqtt*>(mi->mosq); }
std::string Str(const char* s) { return s != nullptr ? s : ""; }

int Publish(MI* mi, int* mid, const char* topic, int len, const void* payload, int qos,
            int retain) {
  FakeMqtt& f = Of(mi);
  if (f.publishResult) return *f.publishResult;
  // The checks libmosquitto makes before queueing a message.
  if (topic == nullptr || topic[0] == '\0' || (len > 0 && payload == nullptr) ||
      mosquitto_pub_topic_check(topic) != MOSQ_ERR_SUCCESS)
    return MOSQ_ERR_INVAL;
  try {  // under an injected allocation failure, refused as libmosquitto would
    f.publishes.push_back({topic, std::string(static_cast<const char*>(payload), len), qos,
                           f.nextMid++, retain != 0});
  } catch (const std::bad_alloc&) {
    return MOSQ_ERR_NOMEM;
  }
  if (mid != nullptr) *mid = f.publishes.back().mid;
  return MOSQ_ERR_SUCCESS;
}

int Subscribe(MI* mi, int* mid, const char* sub, int qos) {
  FakeMqtt& f = Of(mi);
  if (mosquitto_sub_topic_check(sub) != MOSQ_ERR_SUCCESS) return MOSQ_ERR_INVAL;
  alloc_failure::Suspend unarmed;
  if (f.subscribeResult != MOSQ_ERR_SUCCESS) return f.subscribeResult;
  if (mid != nullptr) *mid = f.nextMid;
  f.subscribes.push_back({sub, qos, f.nextMid++});
  return MOSQ_ERR_SUCCESS;
}

}  // namespace

MI* FakeMqtt::Create(MI* mosqInterface, const char* id, int, void* callBackParam) {
  if (nextCreateErrno != 0) {
    errno = std::exchange(nextCreateErrno, 0);
    return nullptr;
  }
  MI* mi = mosqInterface != nullptr ? mosqInterface : static_cast<MI*>(calloc(1, sizeof(MI)));
  if (mi == nullptr) return nullptr;
  alloc_failure::Suspend unarmed;  // the fake's own bookkeeping
  auto* fake = new FakeMqtt;
  fake->id = Str(id);
  fake->obj = callBackParam;
  if (onCreate) onCreate(*fake);
  *mi = MI{[](MI* mi) { return Of(mi).loopStartResult; },
           [](MI* mi, int force) {
             alloc_failure::Suspend unarmed;
             Of(mi).loopStops.push_back(force);
             return int{MOSQ_ERR_SUCCESS};
           },
           [](MI* mi, const char* ca, const char*, const char* cert, const char* key,
              MosquittoPasswordCallback) {
             alloc_failure::Suspend unarmed;
             Of(mi).tls = Str(ca) + " " + Str(cert) + " " + Str(key);
             return Of(mi).tlsSetResult;
           },
           [](MI*, int) { return int{MOSQ_ERR_SUCCESS}; },
           [](MI* mi, const char* host, int port, int keepAlive) {
             alloc_failure::Suspend unarmed;
             FakeMqtt& f = Of(mi);
             f.connects.push_back(Str(host) + ":" + std::to_string(port) + ":" +
                                  std::to_string(keepAlive));
             if (!f.connectLine.empty()) f.FireLog(f.connectLine.c_str());
             errno = f.connectErrno;
             return f.connectResult;
           },
           [](MI* mi) {
             Of(mi).disconnects++;
             return Of(mi).disconnectResult;
           },
           Subscribe,
           Publish,
           [](MI* mi, unsigned delay, unsigned delayMax, int backoff) {
             alloc_failure::Suspend unarmed;
             Of(mi).reconnectDelay = {delay, delayMax, static_cast<unsigned>(backoff)};
             return int{MOSQ_ERR_SUCCESS};
           },
           [](MI* mi, MosquittoLogHandler h) { Of(mi).onLog = h; },
           [](MI* mi, MosquittoResultHandler h) { Of(mi).onConnect = h; },
           [](MI* mi, MosquittoResultHandler h) { Of(mi).onDisconnect = h; },
           [](MI* mi, MosquittoMessageHandler h) { Of(mi).onMessage = h; },
           [](MI* mi, MosquittoSubscribeHandler h) { Of(mi).onSubscribe = h; },
           [](MI* mi, MosquittoPublishHandler h) { Of(mi).onPublish = h; },
           fake};
  owned.push_back(fake);
  return mi;
}

void FakeMqtt::Destroy(MI* mosqInterface) {
  if (mosqInterface != nullptr && mosqInterface->mosq != nullptr)
    Of(mosqInterface).destroyed = true;
  free(mosqInterface);
}

const std::vector<FakeMqtt*>& FakeMqtt::Instances() { return owned; }
FakeMqtt* FakeMqtt::Last() { return owned.empty() ? nullptr : owned.back(); }
void FakeMqtt::FailNextCreate(int err) { nextCreateErrno = err; }
void FakeMqtt::OnCreate(std::function<void(FakeMqtt&)> configure) { onCreate = configure; }
void FakeMqtt::Reset() {
  for (FakeMqtt* f : std::exchange(owned, {})) delete f;
  nextCreateErrno = 0;
  onCreate = nullptr;
}

bool FakeMqtt::Deliver(const std::string& topic, const std::string& payload, int qos) {
  std::string topicCopy, body;  // c_str() is the NUL libmosquitto adds
  {
    alloc_failure::Suspend unarmed;
    topicCopy = topic, body = payload;
  }
  mosquitto_message message{1,    topicCopy.data(), body.data(), static_cast<int>(body.size()), qos,
                            false};
  return Fire(onMessage, &message);
}
