// Outages while an application works: what its calls return, and which of
// its values reach the agent, and how often.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "daxo_client.h"
#include "environment.h"
#include "library_client.h"
#include "sequence_pushes.h"

namespace daxo_test {
namespace {

using namespace std::chrono_literals;

using Metric = SequenceMetric;

// Where the test stands when a push is made. A push is counted in the phase
// it was made in, so each phase's results are what the application saw then.
enum Phase { kUp, kStopping, kDown, kStarting, kReconnecting, kBack, kPhases };
constexpr const char* kPhaseNames[] = {"up",       "stopping",     "down",
                                       "starting", "reconnecting", "back"};

// One push every 100 ms on its own thread, until 20 were made in kBack.
class Pusher {
 public:
  struct Push {
    Phase phase;
    DAXO_Error result;
  };

  Pusher(DAXO_Client* c, Metric m)
      : thread_([this, c, m] {
          for (auto next = std::chrono::steady_clock::now(); backPushes_ < 20; next += 100ms) {
            std::this_thread::sleep_until(next);
            Phase phase = phase_;
            pushes_.push_back({phase, PushSequence(c, m, int64_t(pushes_.size()))});
            backPushes_ += phase == kBack;
          }
        }) {}
  // A test that stopped half way ends the pushing within two seconds.
  ~Pusher() {
    Enter(kBack);
    Finish();
  }

  void Enter(Phase phase) { phase_ = phase; }
  // Index = sequence number.
  const std::vector<Push>& Finish() {
    if (thread_.joinable()) thread_.join();
    return pushes_;
  }

 private:
  std::atomic<Phase> phase_{kUp};
  int backPushes_ = 0;
  std::vector<Push> pushes_;
  std::thread thread_;
};

// A connected client with a sensor whose one metric numbers the pushes.
class OutageTest : public LibraryTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(c.ProvisionAndConnect());
    m = CreateSequenceMetric(c);
    ASSERT_FALSE(m.metricId.empty());
  }

  TestEnvironment env;
  LibraryClient c{env};
  Metric m;
};

TEST_F(OutageTest, ABrokerOutageKeepsPushesForTheReconnectionAndDeliversNoneTwice) {
  Pusher pusher(c, m);
  // The waits set the length of each phase, not the order of events.
  std::this_thread::sleep_for(2s);
  pusher.Enter(kStopping);
  env.StopBroker();
  ASSERT_EQ(c.Code("disconnect"), DAXO_Error_UnexpectedDisconnect);
  pusher.Enter(kDown);
  std::this_thread::sleep_for(3s);  // past the library's own restart of the attempt
  pusher.Enter(kStarting);
  env.StartBroker();  // returns once the agent serves again
  pusher.Enter(kReconnecting);
  ASSERT_EQ(c.Code("connect"), DAXO_Error_Success);
  pusher.Enter(kBack);
  const std::vector<Pusher::Push>& pushes = pusher.Finish();
  const int last = int(pushes.size()) - 1;
  ASSERT_EQ(c.Code("pushMetricValues"), DAXO_ApiError_NoError);
  for (int i = 0; i < 200 && !Delivered(env, m).contains(last); ++i)
    std::this_thread::sleep_for(50ms);

  std::map<int64_t, int> delivered = Delivered(env, m);
  struct Figures {
    int made = 0, accepted = 0, refused = 0, delivered = 0;
  } figures[kPhases];
  for (int seq = 0; seq <= last; ++seq) {
    const auto [phase, result] = pushes[seq];
    SCOPED_TRACE("push " + std::to_string(seq) + " " + kPhaseNames[phase] + " " +
                 DAXO_ErrorName(result));
    bool accepted = result == DAXO_Error_Success, arrived = delivered.contains(seq);
    Figures& f = figures[phase];
    ++f.made, f.accepted += accepted, f.delivered += arrived;
    f.refused += result == DAXO_Error_NoConnectionToServer;
    EXPECT_TRUE(accepted || result == DAXO_Error_NoConnectionToServer);
    EXPECT_LE(delivered[seq], 1) << "delivered twice";
    if (phase == kUp || phase == kBack) {
      EXPECT_TRUE(accepted) << "while the connection was up";
    }
    // libmosquitto keeps what is published while the connection is down,
    // whatever the code says, and sends it once the broker is back. The
    // broker may go down holding the last push it took; a push sent on the
    // reconnection may reach the broker before the agent has subscribed again.
    bool mayBeLost = phase == kStopping || phase == kDown || phase == kStarting ||
                     phase == kReconnecting ||
                     (phase == kUp && (seq + 1 == last || pushes[seq + 1].phase != kUp));
    if (!mayBeLost) {
      EXPECT_TRUE(arrived) << "lost";
    }
  }
  // The first ones are reported as not sent, and sent all the same.
  EXPECT_GT(figures[kDown].refused, 0);
  int keptDuringOutage = 0;
  for (int phase : {kDown, kReconnecting}) keptDuringOutage += figures[phase].delivered;
  // Unless the client came back before the agent had subscribed again: the
  // broker then drops what libmosquitto resends, a race the test cannot
  // steer (seen once in a fresh system's first run under load).
  if (figures[kReconnecting].made > 0) {
    EXPECT_GT(keptDuringOutage, 0) << "nothing published during the outage was delivered";
  }
  std::string table;
  for (int phase = 0; phase < kPhases; ++phase) {
    const Figures& f = figures[phase];
    table += std::string(kPhaseNames[phase]) + ": made " + std::to_string(f.made) + ", accepted " +
             std::to_string(f.accepted) + ", refused " + std::to_string(f.refused) +
             ", delivered " + std::to_string(f.delivered) + "\n";
  }
  RecordProperty("pushes", table);
  std::printf("%s", table.c_str());
}

// The agent away while the broker stays: the client stays connected, its
// requests go unanswered and are not kept for the agent's return.
TEST_F(OutageTest, AnAgentRestartLeavesTheClientConnectedAndDropsWhatCameMeanwhile) {
  env.StopAgent();
  EXPECT_EQ(DAXO_CheckConnection(c), DAXO_Error_Success);
  EXPECT_EQ(PushSequence(c, m, 1), DAXO_Error_Success);
  EXPECT_EQ(c.Next("check", 3s).code, LibraryClient::kNone);
  EXPECT_EQ(c.Next("pushMetricValues", {}).code, LibraryClient::kNone);

  env.StartAgent();
  EXPECT_TRUE(c.CheckConnection());
  EXPECT_EQ(c.Next("check", 1s).code, LibraryClient::kNone) << "the early check stays unanswered";
  // The development agent keeps its registry in memory: the sensor is gone.
  EXPECT_EQ(PushSequence(c, m, 2), DAXO_Error_Success);
  EXPECT_EQ(c.Code("pushMetricValues"), DAXO_ApiError_UnknownSensorId);
  Metric again = CreateSequenceMetric(c);
  EXPECT_EQ(PushSequence(c, again, 3), DAXO_Error_Success);
  EXPECT_EQ(c.Code("pushMetricValues"), DAXO_ApiError_NoError);
  EXPECT_EQ(c.Next("disconnect", {}).code, LibraryClient::kNone);
  EXPECT_TRUE(Delivered(env, m).empty());
  EXPECT_EQ(Delivered(env, again), (std::map<int64_t, int>{{3, 1}}));
}

}  // namespace
}  // namespace daxo_test
