#include "threaded_mqtt.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace threaded_mqtt {
namespace {

using MI = MosquittoInterface;
using namespace std::chrono_literals;

// libmosquitto joins a loop stopped without force for as long as it runs;
// this long stands for "for ever", and bounds Reset.
constexpr auto kLoopEndBound = 5s;

struct World;

// One run of a network thread, from loop_start to its end.
struct Loop {
  std::thread thread;
  bool stop = false;  // forced stop or release: ends at the next turn
  bool ended = false;
};

struct Event {
  enum Kind { kSuback, kCompletion } kind;
  int mid, grantedQos;
};

struct Instance {
  World* world;
  MI* ownedRecord;  // kept until Reset, so that a use after release is seen
  std::string name;
  void* obj;
  bool released = false;
  bool wanted = false;  // connect_async called, no disconnect since
  bool connected = false;
  bool disconnecting = false;
  std::shared_ptr<Loop> loop;  // the running one
  std::deque<Event> events;
  int nextMid = 1;
  MosquittoResultHandler onConnect = nullptr, onDisconnect = nullptr;
  MosquittoSubscribeHandler onSubscribe = nullptr;
  MosquittoPublishHandler onPublish = nullptr;
  MosquittoMessageHandler onMessage = nullptr;  // kept: the broker sends the client nothing
};

// Everything, guarded by one mutex; its condition announces every change.
struct World {
  std::mutex mutex;
  std::condition_variable changed;
  bool brokerUp = true, hold = false;
  std::vector<std::unique_ptr<Instance>> instances;
  std::vector<std::shared_ptr<Loop>> loops;
  std::vector<std::string> violations;
};

// A world whose threads did not end is abandoned, never freed: they keep
// using it.
std::atomic<World*> current{new World};
thread_local Instance* networkOf = nullptr;  // the instance this network thread serves

Instance& Of(MI* mi) { return *static_cast<Instance*>(mi->mosq); }

// The rest runs with the world's mutex held unless said otherwise.

void Violation(Instance& in, const std::string& what) {
  in.world->violations.push_back(in.name + ": " + what);
}

bool Usable(Instance& in, const char* call) {
  if (in.released) Violation(in, std::string(call) + " after its release");
  return !in.released;
}

using Action = std::function<void()>;

// The network thread's next step, run without the mutex; none when it has
// to wait. *last: the loop ends after it.
Action Next(Instance& in, bool* last) {
  World& w = *in.world;
  auto* self = reinterpret_cast<struct mosquitto*>(&in);
  void* obj = in.obj;
  if (in.connected && !w.brokerUp) {
    in.connected = false;
    std::erase_if(in.events, [](const Event& e) { return e.kind == Event::kSuback; });
    return [h = in.onDisconnect, self, obj] {
      if (h != nullptr) h(self, obj, MOSQ_ERR_CONN_LOST);
    };
  }
  if (!in.connected && in.wanted && !in.disconnecting && w.brokerUp) {
    in.connected = true;
    return [h = in.onConnect, self, obj] {
      if (h != nullptr) h(self, obj, 0);
    };
  }
  auto due = std::find_if(in.events.begin(), in.events.end(), [&](const Event& e) {
    return e.kind == Event::kSuback || !w.hold || in.disconnecting;
  });
  if (in.connected && due != in.events.end()) {
    Event e = *due;
    in.events.erase(due);
    if (e.kind == Event::kSuback) {
      return [h = in.onSubscribe, self, obj, e] {
        if (h != nullptr) h(self, obj, e.mid, 1, &e.grantedQos);
      };
    }
    return [h = in.onPublish, self, obj, e] {
      if (h != nullptr) h(self, obj, e.mid);
    };
  }
  if (!in.disconnecting) return nullptr;
  *last = true;
  in.disconnecting = in.wanted = false;
  bool wasConnected = std::exchange(in.connected, false);
  return [h = in.onDisconnect, self, obj, wasConnected] {
    if (h != nullptr && wasConnected) h(self, obj, 0);
  };
}

// Without the mutex.
void Run(Instance* in, std::shared_ptr<Loop> loop) {
  networkOf = in;
  World& w = *in->world;
  std::unique_lock lock(w.mutex);
  bool last = false;
  while (!loop->stop && !last) {
    Action action = Next(*in, &last);
    if (!action) {
      w.changed.wait(lock);
      continue;
    }
    lock.unlock();
    action();
    lock.lock();
  }
  loop->ended = true;
  w.changed.notify_all();
}

// Waits for loop to end, then joins it with the mutex released. Unbounded,
// as libmosquitto's join is: a deadlock stays one, for the test to detect.
void Join(std::unique_lock<std::mutex>& lock, World& w, Loop& loop) {
  w.changed.wait(lock, [&] { return loop.ended; });
  std::thread thread = std::move(loop.thread);
  lock.unlock();
  if (thread.joinable()) thread.join();
  lock.lock();
}

int LoopStart(MI* mi) {
  Instance& in = Of(mi);
  std::lock_guard lock(in.world->mutex);
  if (!Usable(in, "loop_start") || in.loop != nullptr) return MOSQ_ERR_INVAL;
  in.loop = std::make_shared<Loop>();
  in.world->loops.push_back(in.loop);
  in.loop->thread = std::thread(Run, &in, in.loop);
  return MOSQ_ERR_SUCCESS;
}

int LoopStop(MI* mi, int force) {
  Instance& in = Of(mi);
  World& w = *in.world;
  std::unique_lock lock(w.mutex);
  if (!Usable(in, "loop_stop")) return MOSQ_ERR_INVAL;
  std::shared_ptr<Loop> loop = std::exchange(in.loop, nullptr);
  if (loop == nullptr) return MOSQ_ERR_INVAL;
  if (loop->thread.get_id() == std::this_thread::get_id()) {
    // libmosquitto cancels the calling thread when forced; otherwise its
    // join fails and the loop runs on, no longer counted as started.
    Violation(in, force ? "loop_stop(force) on its own network thread, which cancels itself"
                        : "loop_stop on its own network thread, which cannot join itself");
    loop->stop = force != 0;
    return MOSQ_ERR_SUCCESS;
  }
  if (force) loop->stop = true;
  w.changed.notify_all();
  if (!w.changed.wait_for(lock, kLoopEndBound, [&] { return loop->ended; }) && !force) {
    Violation(in, "loop_stop without force on a loop that did not end");
    loop->stop = true;
    w.changed.notify_all();
  }
  Join(lock, w, *loop);
  return MOSQ_ERR_SUCCESS;
}

int ConnectAsync(MI* mi, const char*, int, int) {
  Instance& in = Of(mi);
  std::lock_guard lock(in.world->mutex);
  if (!Usable(in, "connect_async")) return MOSQ_ERR_INVAL;
  in.wanted = true;
  in.connected = in.disconnecting = false;
  in.world->changed.notify_all();
  return MOSQ_ERR_SUCCESS;
}

// As libmosquitto: the loop ends, whether or not there was a connection to
// close.
int Disconnect(MI* mi) {
  Instance& in = Of(mi);
  std::lock_guard lock(in.world->mutex);
  if (!Usable(in, "disconnect")) return MOSQ_ERR_INVAL;
  in.disconnecting = true;
  in.world->changed.notify_all();
  return in.connected ? MOSQ_ERR_SUCCESS : MOSQ_ERR_NO_CONN;
}

int Subscribe(MI* mi, int* mid, const char* sub, int qos) {
  Instance& in = Of(mi);
  World& w = *in.world;
  std::lock_guard lock(w.mutex);
  if (!Usable(in, "subscribe") || sub == nullptr ||
      mosquitto_sub_topic_check(sub) != MOSQ_ERR_SUCCESS)
    return MOSQ_ERR_INVAL;
  if (!in.connected) return MOSQ_ERR_NO_CONN;
  int m = in.nextMid++;
  if (mid != nullptr) *mid = m;
  in.events.push_back({Event::kSuback, m, qos});
  w.changed.notify_all();
  return MOSQ_ERR_SUCCESS;
}

// A QoS 2 message waits for a connection, as libmosquitto queues it.
int Publish(MI* mi, int* mid, const char* topic, int length, const void* payload, int qos, int) {
  Instance& in = Of(mi);
  std::lock_guard lock(in.world->mutex);
  if (!Usable(in, "publish") || topic == nullptr || (length > 0 && payload == nullptr) ||
      mosquitto_pub_topic_check(topic) != MOSQ_ERR_SUCCESS)
    return MOSQ_ERR_INVAL;
  int m = in.nextMid++;
  if (mid != nullptr) *mid = m;
  if (qos > 0) in.events.push_back({Event::kCompletion, m, 0});
  in.world->changed.notify_all();
  return MOSQ_ERR_SUCCESS;
}

template <class Handler, Handler Instance::*Field>
void SetHandler(MI* mi, Handler handler) {
  Instance& in = Of(mi);
  std::lock_guard lock(in.world->mutex);
  if (Usable(in, "a handler set")) in.*Field = handler;
}

template <class... Args>
int Accept(MI* mi, Args...) {
  Instance& in = Of(mi);
  std::lock_guard lock(in.world->mutex);
  return Usable(in, "a setting") ? MOSQ_ERR_SUCCESS : MOSQ_ERR_INVAL;
}

}  // namespace

MI* Create(MI* mosqInterface, const char* id, int, void* callBackParam) {
  World& w = *current.load();
  std::lock_guard lock(w.mutex);
  MI* mi = mosqInterface != nullptr ? mosqInterface : static_cast<MI*>(calloc(1, sizeof(MI)));
  if (mi == nullptr) return nullptr;
  auto in = std::make_unique<Instance>();
  in->world = &w;
  in->ownedRecord = mosqInterface == nullptr ? mi : nullptr;
  in->name = std::string(id != nullptr ? id : "") + "#" + std::to_string(w.instances.size() + 1);
  in->obj = callBackParam;
  *mi = MI{LoopStart,
           LoopStop,
           [](MI* mi, const char*, const char*, const char*, const char*,
              MosquittoPasswordCallback) { return Accept(mi); },
           [](MI* mi, int) { return Accept(mi); },
           ConnectAsync,
           Disconnect,
           Subscribe,
           Publish,
           [](MI* mi, unsigned, unsigned, int) { return Accept(mi); },
           [](MI* mi, MosquittoLogHandler) { Accept(mi); },
           SetHandler<MosquittoResultHandler, &Instance::onConnect>,
           SetHandler<MosquittoResultHandler, &Instance::onDisconnect>,
           SetHandler<MosquittoMessageHandler, &Instance::onMessage>,
           SetHandler<MosquittoSubscribeHandler, &Instance::onSubscribe>,
           SetHandler<MosquittoPublishHandler, &Instance::onPublish>,
           in.get()};
  w.instances.push_back(std::move(in));
  w.changed.notify_all();
  return mi;
}

void Destroy(MI* mosqInterface) {
  if (mosqInterface == nullptr) return;
  Instance& in = Of(mosqInterface);
  World& w = *in.world;
  std::unique_lock lock(w.mutex);
  if (!Usable(in, "release")) return;
  in.released = true;
  if (networkOf == &in) Violation(in, "released on its own network thread, which returns into it");
  std::shared_ptr<Loop> loop = std::exchange(in.loop, nullptr);
  if (loop == nullptr) return;
  loop->stop = true;  // libmosquitto cancels a running loop before freeing
  w.changed.notify_all();
  if (loop->thread.get_id() != std::this_thread::get_id()) Join(lock, w, *loop);
}

namespace {

template <class F>
auto Locked(F f) {
  World& w = *current.load();
  std::lock_guard lock(w.mutex);
  w.changed.notify_all();
  return f(w);
}

}  // namespace

void SetBrokerUp(bool up) {
  Locked([up](World& w) { w.brokerUp = up; });
}
void HoldCompletions(bool hold) {
  Locked([hold](World& w) { w.hold = hold; });
}

bool OnNetworkThread() { return networkOf != nullptr; }

std::vector<std::string> Violations() {
  return Locked([](World& w) { return w.violations; });
}
int Unreleased() {
  return Locked([](World& w) {
    return static_cast<int>(std::count_if(w.instances.begin(), w.instances.end(),
                                          [](const auto& in) { return !in->released; }));
  });
}
int Running() {
  return Locked([](World& w) {
    return static_cast<int>(
        std::count_if(w.loops.begin(), w.loops.end(), [](const auto& l) { return !l->ended; }));
  });
}

bool AwaitMade(int n, std::chrono::milliseconds bound) {
  World& w = *current.load();
  std::unique_lock lock(w.mutex);
  return w.changed.wait_for(lock, bound, [&] { return static_cast<int>(w.instances.size()) >= n; });
}

bool Reset() {
  World* w = current.exchange(new World);
  std::unique_lock lock(w->mutex);
  for (auto& loop : w->loops) loop->stop = true;
  w->changed.notify_all();
  auto allEnded = [&] {
    return std::all_of(w->loops.begin(), w->loops.end(), [](const auto& l) { return l->ended; });
  };
  bool released = std::all_of(w->instances.begin(), w->instances.end(),
                              [](const auto& in) { return in->released; });
  if (!released || !w->changed.wait_for(lock, kLoopEndBound, allEnded)) return false;
  std::vector<std::thread> threads;
  for (auto& loop : w->loops)
    if (loop->thread.joinable()) threads.push_back(std::move(loop->thread));
  lock.unlock();
  for (std::thread& t : threads) t.join();
  for (auto& in : w->instances) free(in->ownedRecord);
  delete w;
  return true;
}

}  // namespace threaded_mqtt
