// The client's threads against a transport whose network threads are real:
// what an application may do inside its callbacks, and what its own threads
// may do to one client at once. A hang fails within a bounded time; the
// stuck client is then leaked, never deleted.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "daxo_internal.h"
#include "fake_time.h"
#include "temp_dir.h"
#include "test_certificates.h"
#include "threaded_mqtt.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kBound = 10s;
constexpr int kNone = -100;  // no result yet

// Runs call on a thread of its own; false when it has not returned within
// the bound, that thread then being left where it is stuck.
bool Bounded(std::function<void()> call) {
  auto task = std::make_shared<std::packaged_task<void()>>(std::move(call));
  std::future<void> done = task->get_future();
  std::thread([task] { (*task)(); }).detach();
  return done.wait_for(kBound) == std::future_status::ready;
}

// What the callbacks saw, and what they do: a reaction runs once, inside the
// first callback of its name with its code. Shared with the library's
// threads, so a client that has to be leaked leaks it too.
class Recorder {
 public:
  using Reaction = std::function<void(DAXO_Client*)>;

  void React(const std::string& name, int code, Reaction reaction) {
    std::lock_guard lock(mutex_);
    reactions_[Key(name, code)] = std::move(reaction);
  }

  void Record(DAXO_Client* client, const std::string& name, int code) {
    Reaction reaction;
    {
      std::lock_guard lock(mutex_);
      events_.push_back({name, code, threaded_mqtt::OnNetworkThread()});
      if (auto r = reactions_.find(Key(name, code)); r != reactions_.end())
        reaction = std::exchange(r->second, nullptr);
    }
    changed_.notify_all();
    if (reaction) reaction(client);
  }

  // Waits for the count-th event of that name and code; false after the bound.
  bool Await(const std::string& name, int code, int count = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kBound, [&] { return CountLocked(name, code) >= count; });
  }

  // The code of the first event of that name, once there is one; kNone
  // after the bound.
  int AwaitCode(const std::string& name) {
    std::unique_lock lock(mutex_);
    const Event* first = nullptr;
    changed_.wait_for(lock, kBound, [&] {
      auto e = std::find_if(events_.begin(), events_.end(),
                            [&](const Event& e) { return e.name == name; });
      first = e != events_.end() ? &*e : nullptr;
      return first != nullptr;
    });
    return first != nullptr ? first->code : kNone;
  }

  int Count(const std::string& name, int code) {
    std::lock_guard lock(mutex_);
    return CountLocked(name, code);
  }

  // Every event so far, for a failure's message.
  std::string Seen() {
    std::lock_guard lock(mutex_);
    std::string text = "; seen:";
    for (const Event& e : events_)
      text += " " + e.name + "(" + std::to_string(e.code) + (e.networkThread ? ", network)" : ")");
    return text;
  }

  // The code and thread of the first event of that name.
  std::pair<int, bool> First(const std::string& name) {
    std::lock_guard lock(mutex_);
    for (const Event& e : events_)
      if (e.name == name) return {e.code, e.networkThread};
    return {kNone, false};
  }

 private:
  struct Event {
    std::string name;
    int code;
    bool networkThread;
  };

  static std::string Key(const std::string& name, int code) {
    return name + "/" + std::to_string(code);
  }
  int CountLocked(const std::string& name, int code) const {
    int n = 0;
    for (const Event& e : events_) n += e.name == name && e.code == code;
    return n;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
  std::map<std::string, Reaction> reactions_;
};

class ThreadModelTest : public ::testing::Test {
 protected:
  // The watch thread's supervision runs as in an application: attempts that
  // never come up are reported and restarted.
  void SetUp() override {
    threaded_mqtt::Reset();
    fake_time::RunBootClock(true);
  }
  void TearDown() override {
    Finish();
    fake_time::RunBootClock(false);
  }

  // A client provisioned on disk, over the threaded transport, its callbacks
  // recorded.
  void Start() {
    rec = std::make_unique<Recorder>();
    std::string conf = dir.Write("client.conf", ValidConfig(dir));
    WriteIdentity();
    DAXO_Error err;
    client = NewClientInternal(conf.c_str(), rec.get(), &err, threaded_mqtt::Create,
                               threaded_mqtt::Destroy);
    ASSERT_NE(client, nullptr);
    DAXO_ConnectCallbackSet(client, [](DAXO_Client* c, void* r, DAXO_Error e) {
      static_cast<Recorder*>(r)->Record(c, "OnConnect", e);
    });
    DAXO_DisconnectCallbackSet(client, [](DAXO_Client* c, void* r, DAXO_Error e) {
      static_cast<Recorder*>(r)->Record(c, "OnDisconnect", e);
    });
    DAXO_DeprovisionClientCallbackSet(client, [](DAXO_Client* c, void* r) {
      static_cast<Recorder*>(r)->Record(c, "OnDeprovisionClient", 0);
    });
    ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_AlreadyProvisioned);
  }

  void WriteIdentity() {
    std::filesystem::create_directories(dir / "certs");
    dir.Write("ca.crt", testcert::SelfSigned("CA"));
    static const testcert::Identity identity = testcert::MakeIdentity("device-7");
    dir.Write("certs/cert.crt", identity.cert);
    dir.Write("certs/priv_key.key", identity.key);
  }

  bool IdentityStored() const {
    return std::filesystem::exists(dir / "certs/cert.crt") ||
           std::filesystem::exists(dir / "certs/priv_key.key");
  }

  // The client is stuck: it keeps its recorder, and neither is freed.
  void Leak() {
    client = nullptr;
    static_cast<void>(rec.release());
    leaked = true;
  }

  // Deletes the client within the bound and checks that the transport was
  // used only as libmosquitto allows.
  void Finish() {
    if (client != nullptr) {
      DAXO_Client* c = std::exchange(client, nullptr);
      auto result = std::make_shared<std::atomic<int>>(kNone);
      if (Bounded([c, result] { *result = DAXO_DeleteClient(c); })) {
        EXPECT_EQ(*result, DAXO_Error_Success);
      } else {
        ADD_FAILURE() << "DAXO_DeleteClient did not return";
        Leak();
      }
    }
    EXPECT_EQ(threaded_mqtt::Violations(), std::vector<std::string>{});
    if (!std::exchange(leaked, false)) {
      EXPECT_EQ(threaded_mqtt::Unreleased(), 0) << "instances never released";
      EXPECT_EQ(threaded_mqtt::Running(), 0) << "network threads left running";
    }
    threaded_mqtt::Reset();
  }

  TempDir dir;
  std::unique_ptr<Recorder> rec;
  DAXO_Client* client = nullptr;
  bool leaked = false;
};

enum class Trigger { kConnected, kLost, kNeverUp, kDeprovisioned };

// Brings about the callback a row reacts in.
void Provoke(DAXO_Client* client, Recorder& rec, Trigger trigger) {
  threaded_mqtt::SetBrokerUp(trigger != Trigger::kNeverUp);
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  if (trigger != Trigger::kLost && trigger != Trigger::kDeprovisioned) return;
  ASSERT_TRUE(rec.Await("OnConnect", DAXO_Error_Success));
  if (trigger == Trigger::kLost) threaded_mqtt::SetBrokerUp(false);
  if (trigger == Trigger::kDeprovisioned) {
    ASSERT_EQ(DAXO_DeprovisionClient(client), DAXO_Error_Success);
  }
}

// A callback runs on a thread the call would have to stop: the work goes to
// the watch thread, the call succeeds at once and the connection follows.
TEST_F(ThreadModelTest, ConnectionCallsInsideCallbacksAreHandedToTheWatchThread) {
  const struct {
    const char* scenario;
    Trigger trigger;
    const char* callback;
    DAXO_Error code;
    bool networkThread;  // where that callback runs
    DAXO_Error (*call)(DAXO_Client*);
    int instances;  // made once the call is carried out
    const char* outcome;
    DAXO_Error outcomeCode;
    int outcomes;
  } cases[] = {
      {"reconnect after a loss", Trigger::kLost, "OnDisconnect", DAXO_Error_UnexpectedDisconnect,
       true, DAXO_Connect, 2, "OnConnect", DAXO_Error_Success, 2},
      {"reconnect after an attempt that never came up", Trigger::kNeverUp, "OnDisconnect",
       DAXO_Error_ConnectionTimeout, false, DAXO_Connect, 2, "OnConnect", DAXO_Error_Success, 1},
      {"reconnect once connected", Trigger::kConnected, "OnConnect", DAXO_Error_Success, true,
       DAXO_Connect, 2, "OnConnect", DAXO_Error_Success, 2},
      {"disconnect once connected", Trigger::kConnected, "OnConnect", DAXO_Error_Success, true,
       DAXO_Disconnect, 1, "OnDisconnect", DAXO_Error_Success, 1},
      // The watch thread outlives the deprovisioning: it still takes work.
      {"disconnect once deprovisioned", Trigger::kDeprovisioned, "OnDeprovisionClient",
       DAXO_Error_Success, true, DAXO_Disconnect, 1, "OnDisconnect", DAXO_Error_Success, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.scenario);
    ASSERT_NO_FATAL_FAILURE(Start());
    rec->React(c.callback, c.code, [call = c.call, r = rec.get()](DAXO_Client* client) {
      r->Record(client, "returned", call(client));
    });
    ASSERT_NO_FATAL_FAILURE(Provoke(client, *rec, c.trigger));
    int returned = rec->AwaitCode("returned");
    EXPECT_EQ(returned, DAXO_Error_Success) << "inside " << c.callback << rec->Seen();
    if (returned == DAXO_Error_Success) {
      EXPECT_EQ(rec->First(c.callback).second, c.networkThread);
      EXPECT_TRUE(threaded_mqtt::AwaitMade(c.instances, kBound)) << "the call was not carried out";
      threaded_mqtt::SetBrokerUp(true);
      EXPECT_TRUE(rec->Await(c.outcome, c.outcomeCode, c.outcomes))
          << "no " << c.outcome << rec->Seen();
    }
    Finish();
  }
}

// The client cannot be freed under its own callback: the deletion is
// refused and the client keeps working.
TEST_F(ThreadModelTest, DeletionInsideACallbackIsRefused) {
  const struct {
    Trigger trigger;
    const char* callback;
    DAXO_Error code;
  } cases[] = {
      {Trigger::kConnected, "OnConnect", DAXO_Error_Success},             // network thread
      {Trigger::kNeverUp, "OnDisconnect", DAXO_Error_ConnectionTimeout},  // watch thread
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.callback);
    ASSERT_NO_FATAL_FAILURE(Start());
    rec->React(c.callback, c.code, [r = rec.get()](DAXO_Client* client) {
      r->Record(client, "returned", DAXO_DeleteClient(client));
    });
    ASSERT_NO_FATAL_FAILURE(Provoke(client, *rec, c.trigger));
    int returned = rec->AwaitCode("returned");
    EXPECT_EQ(returned, DAXO_Error_InvalidArguments) << "inside " << c.callback << rec->Seen();
    if (returned == DAXO_Error_Success) Leak();  // already freed
    if (returned == DAXO_Error_InvalidArguments) {
      threaded_mqtt::SetBrokerUp(true);
      EXPECT_TRUE(rec->Await("OnConnect", DAXO_Error_Success)) << rec->Seen();
      EXPECT_EQ(DAXO_CheckConnection(client), DAXO_Error_Success);
    }
    Finish();
  }
}

// The broker acknowledges a deprovisioning while the application, on its
// own thread, disconnects or reconnects just after a connection woke the
// watch thread: no thread may wait for one that waits for it.
TEST_F(ThreadModelTest, DeprovisioningCompletesWhileTheApplicationReconnects) {
  constexpr int kRounds = 200;
  const std::pair<const char*, DAXO_Error (*)(DAXO_Client*)> calls[] = {
      {"DAXO_Disconnect", DAXO_Disconnect},
      {"DAXO_Connect", DAXO_Connect},
  };
  for (auto [name, call] : calls) {
    SCOPED_TRACE(name);
    ASSERT_NO_FATAL_FAILURE(Start());
    bool reconnects = call == DAXO_Connect;
    for (int round = 1; round <= kRounds; ++round) {
      SCOPED_TRACE(round);
      struct Results {
        std::atomic<int> connect{kNone}, deprovision{kNone}, call{kNone};
      };
      auto results = std::make_shared<Results>();
      int connects = reconnects ? 2 * round - 1 : round;
      bool returned = Bounded([results, call, connects, c = client, r = rec.get()] {
        results->connect = DAXO_Connect(c);
        if (!r->Await("OnConnect", DAXO_Error_Success, connects)) return;
        threaded_mqtt::HoldCompletions(true);
        results->deprovision = DAXO_DeprovisionClient(c);
        results->call = call(c);
      });
      if (!returned) {
        ADD_FAILURE() << name << " did not return while the deprovisioning completed";
        Leak();
        break;
      }
      threaded_mqtt::HoldCompletions(false);
      ASSERT_EQ(results->connect, DAXO_Error_Success);
      ASSERT_EQ(results->deprovision, DAXO_Error_Success) << "not connected in time";
      EXPECT_EQ(results->call, DAXO_Error_Success);
      ASSERT_TRUE(rec->Await("OnDeprovisionClient", 0, round));
      EXPECT_TRUE(rec->First("OnDeprovisionClient").second) << "on the network thread";
      EXPECT_FALSE(IdentityStored());
      if (reconnects) {
        ASSERT_TRUE(rec->Await("OnConnect", DAXO_Error_Success, connects + 1));
      }
      WriteIdentity();
      ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_AlreadyProvisioned);
    }
    Finish();
  }
}

// The acknowledgement of a deprovisioning and the deletion of the client
// come together: each may end the client's work, neither twice.
TEST_F(ThreadModelTest, DeletionRacesADeprovisioningCompletion) {
  for (int round = 1; round <= 20; ++round) {
    SCOPED_TRACE(round);
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
    ASSERT_TRUE(rec->Await("OnConnect", DAXO_Error_Success));
    threaded_mqtt::HoldCompletions(true);
    ASSERT_EQ(DAXO_DeprovisionClient(client), DAXO_Error_Success);
    auto result = std::make_shared<std::atomic<int>>(kNone);
    bool deleted = Bounded([result, c = client] {
      threaded_mqtt::HoldCompletions(false);
      *result = DAXO_DeleteClient(c);
    });
    client = nullptr;
    if (!deleted) {
      ADD_FAILURE() << "DAXO_DeleteClient did not return" << rec->Seen();
      Leak();
      break;
    }
    EXPECT_EQ(*result, DAXO_Error_Success);
    EXPECT_LE(rec->Count("OnDeprovisionClient", 0), 1);
    Finish();
  }
}

// One application thread sends while another replaces the connection: an
// instance is released only once no thread can still send on it.
TEST_F(ThreadModelTest, SendingWhileAnotherThreadReconnects) {
  ASSERT_NO_FATAL_FAILURE(Start());
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  ASSERT_TRUE(rec->Await("OnConnect", DAXO_Error_Success));
  struct Shared {
    std::atomic<bool> stop{false};
    std::atomic<int> refusedSends{0}, failedConnects{0};
  };
  auto shared = std::make_shared<Shared>();
  bool ended = Bounded([shared, c = client] {
    std::promise<void> sending;
    std::thread sender([shared, c, &sending] {
      for (bool first = true; !shared->stop; first = false) {
        DAXO_Error e = DAXO_CheckConnection(c);
        // During a reconnection a check is kept for the new connection.
        if (e != DAXO_Error_Success && e != DAXO_Error_NoConnectionToServer) shared->refusedSends++;
        if (first) sending.set_value();
      }
    });
    sending.get_future().wait();
    for (int i = 0; i < 50; ++i)
      if (DAXO_Connect(c) != DAXO_Error_Success) shared->failedConnects++;
    shared->stop = true;
    sender.join();
  });
  if (!ended) {
    ADD_FAILURE() << "sending and reconnecting did not end";
    Leak();
    return;
  }
  EXPECT_EQ(shared->refusedSends, 0);
  EXPECT_EQ(shared->failedConnects, 0);
}

}  // namespace
