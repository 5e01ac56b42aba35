// A client pushing ten values a second for a while, with a certificate
// check pass now and then, must not grow: its resident memory and open
// descriptors are sampled throughout. DAXO_SOAK_SECONDS sets the duration
// (30 by default); a long run prints its figures.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daxo_client.h"
#include "daxo_internal.h"
#include "environment.h"
#include "library_client.h"
#include "sequence_pushes.h"

namespace daxo_test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

struct Sample {
  double seconds;
  long rssKb;
  long fds;
};

Sample Measure(Clock::time_point start) {
  Sample s{std::chrono::duration<double>(Clock::now() - start).count(), -1, 0};
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:")) s.rssKb = std::atol(line.c_str() + 6);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++s.fds;
  }
  return s;
}

// Counts what the library reports, and keeps nothing per message, so that
// the test itself does not grow with the number of pushes.
class CountingClient {
 public:
  explicit CountingClient(TestEnvironment& env) {
    DAXO_Error err = DAXO_Error_Unknown;
    client_ = DAXO_NewClient(env.WriteClientConfig({.certFolder = env.NewCertFolder()}).c_str(),
                             this, &err);
    if (client_ == nullptr) return;
    DAXO_ProvisionClientCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error e) {
      Self(self).Set([&](CountingClient& c) { c.provisioned = e; });
    });
    DAXO_ConnectCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error e) {
      Self(self).Set([&](CountingClient& c) { c.connected = e; });
    });
    DAXO_DisconnectCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error) {
      Self(self).Set([](CountingClient& c) { ++c.disconnects; });
    });
    DAXO_CreateSensorCallbackSet(
        client_, [](DAXO_Client*, void* self, const char*, const char* id, DAXO_ApiError) {
          Self(self).Set([&](CountingClient& c) { c.sensorId = id ? id : "?"; });
        });
    DAXO_CreateMetricsCallbackSet(
        client_, [](DAXO_Client*, void* self, DAXO_CreatedMetrics* created, DAXO_ApiError) {
          Self(self).Set([&](CountingClient& c) {
            c.metricId = created && created->metricsCount == 1 ? created->metrics[0].metricId : "?";
          });
          DAXO_DestroyCreatedMetrics(created);
        });
    DAXO_PushMetricValuesCallbackSet(
        client_, [](DAXO_Client*, void* self, const char*, DAXO_ApiError e) {
          Self(self).Set(
              [&](CountingClient& c) { ++(e == DAXO_ApiError_NoError ? c.answered : c.failed); });
        });
  }
  ~CountingClient() { DAXO_DeleteClient(client_); }
  operator DAXO_Client*() const { return client_; }

  // A check pass as the watch thread makes it, with the answers counted: the
  // agent's answer succeeds, the client's own request handed back does not.
  static void OnCheckAnswer(DAXO_Client*, void* self, DAXO_Error e) {
    Self(self).Set([&](CountingClient& c) { e == DAXO_Error_Success ? ++c.checkAnswers : 0; });
  }

  template <class Done>
  bool WaitFor(Done done, std::chrono::seconds timeout = 20s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(*this); });
  }

  int provisioned = -1, connected = -1;
  long disconnects = 0, answered = 0, failed = 0, checkAnswers = 0;
  std::string sensorId, metricId;

 private:
  static CountingClient& Self(void* p) { return *static_cast<CountingClient*>(p); }
  template <class Change>
  void Set(Change change) {
    std::lock_guard lock(mutex_);
    change(*this);
    changed_.notify_all();
  }

  DAXO_Client* client_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
};

using SoakTest = LibraryTest;

TEST_F(SoakTest, TenValuesASecondWithCheckPassesNeitherGrowNorLose) {
  const char* configured = std::getenv("DAXO_SOAK_SECONDS");
  const auto duration = std::chrono::seconds(configured ? std::atol(configured) : 30);
  // Every minute, and at least three times in a short run.
  const auto checkPeriod = std::min<std::chrono::seconds>(60s, duration / 3);
  const auto samplePeriod = std::clamp<std::chrono::seconds>(duration / 15, 2s, 10s);
  const auto warmUp = duration / 5;

  TestEnvironment env;
  CountingClient c(env);
  ASSERT_NE(static_cast<DAXO_Client*>(c), nullptr);
  ASSERT_EQ(DAXO_ProvisionClient(c), DAXO_Error_Success);
  ASSERT_TRUE(c.WaitFor([](auto& s) { return s.provisioned == DAXO_Error_Success; }));
  ASSERT_EQ(DAXO_Connect(c), DAXO_Error_Success);
  ASSERT_TRUE(c.WaitFor([](auto& s) { return s.connected == DAXO_Error_Success; }));
  ASSERT_EQ(DAXO_CreateSensor(c, "soak"), DAXO_Error_Success);
  ASSERT_TRUE(c.WaitFor([](auto& s) { return !s.sensorId.empty(); }));
  ASSERT_EQ(DefineSequenceMetric(c, c.sensorId), DAXO_Error_Success);
  ASSERT_TRUE(c.WaitFor([](auto& s) { return !s.metricId.empty(); }));
  const SequenceMetric metric{c.sensorId, c.metricId};

  // One value per push, one push every 100 ms.
  const Clock::time_point start = Clock::now();
  std::vector<Sample> samples = {Measure(start)};
  long pushes = 0, refused = 0, passes = 0;
  auto nextSample = start + samplePeriod, nextPass = start;
  for (auto next = start; next < start + duration; next += 100ms) {
    std::this_thread::sleep_until(next);
    if (next >= nextPass) {
      CheckClientCertificateExpirationDate(c, CountingClient::OnCheckAnswer);
      CheckCAExpirationDate(c, CountingClient::OnCheckAnswer);
      ++passes, nextPass += checkPeriod;
    }
    refused += PushSequence(c, metric, pushes++) != DAXO_Error_Success;
    if (next >= nextSample) samples.push_back(Measure(start)), nextSample += samplePeriod;
  }
  samples.push_back(Measure(start));
  EXPECT_TRUE(c.WaitFor([&](auto& s) { return s.answered + s.failed >= pushes - refused; }));
  EXPECT_TRUE(c.WaitFor([&](auto& s) { return s.checkAnswers >= 2 * passes; }));

  const std::map<int64_t, int> delivered = Delivered(env, metric);
  long twice =
      std::count_if(delivered.begin(), delivered.end(), [](auto& d) { return d.second > 1; });

  auto settled = std::find_if(samples.begin(), samples.end(), [&](const Sample& s) {
    return s.seconds >= std::chrono::duration<double>(warmUp).count();
  });
  ASSERT_NE(settled, samples.end());
  const Sample &first = samples.front(), &warm = *settled, &end = samples.back();
  int rises = 0, intervals = 0;
  for (auto s = settled; s + 1 != samples.end(); ++s, ++intervals) rises += s[1].rssKb > s->rssKb;
  std::printf(
      "soak %llds: pushes %ld, refused %ld, answered %ld, failed %ld, delivered %zu, twice %ld, "
      "check passes %ld, check answers %ld, disconnects %ld\n"
      "  RSS kB start %ld, after %llds warm-up %ld, end %ld; fds %ld, %ld, %ld; RSS rose in %d of "
      "%d intervals\n",
      static_cast<long long>(duration.count()), pushes, refused, c.answered, c.failed,
      delivered.size(), twice, passes, c.checkAnswers, c.disconnects, first.rssKb,
      static_cast<long long>(warmUp.count()), warm.rssKb, end.rssKb, first.fds, warm.fds, end.fds,
      rises, intervals);

  EXPECT_EQ(refused, 0);
  EXPECT_EQ(c.failed, 0);
  EXPECT_EQ(c.answered, pushes);
  EXPECT_EQ(long(delivered.size()), pushes);
  EXPECT_EQ(twice, 0);
  EXPECT_EQ(c.disconnects, 0);
  EXPECT_LE(end.fds, warm.fds) << "descriptors leak";
  // Memory settles in steps, so only a rise in most intervals that adds up
  // to more than a little counts as growth. A sanitizer holds freed memory
  // back (AddressSanitizer's quarantine), so resident memory says nothing
  // there; AddressSanitizer's leak check stands in for it.
  if (!kSanitized) {
    EXPECT_FALSE(rises * 5 >= intervals * 4 && end.rssKb - warm.rssKb > 512)
        << "RSS grew steadily: " << warm.rssKb << " kB -> " << end.rssKb << " kB";
  }
}

}  // namespace
}  // namespace daxo_test
