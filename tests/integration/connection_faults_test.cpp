// Faults in a connection's life that used to hang the application or never
// end: a link slower than the first grace, pushes racing reconnections, and a
// broker that comes and goes while the application pushes and reconnects at
// random from its callbacks.
// DAXO_CHAOS_SECONDS sets the length of the last (20 by default).
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
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

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Runs call on another thread and waits for it at most bound. A call that
// does not return is a hang: it is reported and left running, and the caller
// must leak whatever it uses.
template <class Call>
std::optional<DAXO_Error> Bounded(const char* what, std::chrono::seconds bound, Call call) {
  auto result = std::make_unique<std::future<DAXO_Error>>(std::async(std::launch::async, call));
  if (result->wait_for(bound) == std::future_status::ready) return result->get();
  ADD_FAILURE() << what << " did not return within " << bound.count() << " s";
  (void)result.release();  // its destructor would wait for the call
  return std::nullopt;
}

// A deletion that hangs leaks the client object, which its threads still use.
template <class Client>
void DeleteWithin(std::unique_ptr<Client>& c, std::chrono::seconds bound = 20s) {
  DAXO_Client* client = c->Release();
  std::optional<DAXO_Error> deleted =
      Bounded("DAXO_DeleteClient", bound, [client] { return DAXO_DeleteClient(client); });
  if (!deleted)
    (void)c.release();
  else
    EXPECT_EQ(*deleted, DAXO_Error_Success);
}

template <class Client>
Client& As(void* self) {
  return *static_cast<Client*>(static_cast<LibraryClient*>(self));
}

// A relay on a free loopback port to the broker's main listener that holds
// what a client sends for a while after it connects, as a slow link holds a
// TLS ClientHello. Every connection is held afresh.
class SlowLink {
 public:
  SlowLink(int brokerPort, std::chrono::seconds hold) : brokerPort_(brokerPort), hold_(hold) {
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(listener_, 8) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        pipe2(stop_, O_CLOEXEC) != 0)
      throw std::runtime_error(std::string("slow link: ") + std::strerror(errno));
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
  }
  ~SlowLink() {
    (void)!write(stop_[1], "", 1);
    thread_.join();
    for (const Link& link : links_) close(link.client), close(link.broker);
    close(listener_), close(stop_[0]), close(stop_[1]);
  }

  int Port() const { return port_; }
  int Connections() const { return connections_; }

 private:
  struct Link {
    int client, broker;
    Clock::time_point opens;
  };

  void Run() {
    for (;;) {
      std::vector<pollfd> fds = {{stop_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
      for (const Link& link : links_) {
        fds.push_back(
            {link.client, static_cast<short>(Clock::now() >= link.opens ? POLLIN : 0), 0});
        fds.push_back({link.broker, POLLIN, 0});
      }
      // A held link opens at the latest one tick after its time.
      if (poll(fds.data(), fds.size(), 50) < 0 && errno != EINTR) return;
      if (fds[0].revents != 0) return;
      for (std::size_t i = links_.size(); i-- > 0;) {
        const pollfd &fromClient = fds[2 + 2 * i], &fromBroker = fds[3 + 2 * i];
        if ((fromClient.revents && !Forward(links_[i].client, links_[i].broker)) ||
            (fromBroker.revents && !Forward(links_[i].broker, links_[i].client))) {
          close(links_[i].client), close(links_[i].broker);
          links_.erase(links_.begin() + static_cast<long>(i));
        }
      }
      if (fds[1].revents & POLLIN) Accept();
    }
  }

  void Accept() {
    int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    int broker = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(brokerPort_);
    if (client >= 0 && broker >= 0 &&
        connect(broker, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      links_.push_back({client, broker, Clock::now() + hold_});
      ++connections_;
      return;
    }
    if (client >= 0) close(client);
    if (broker >= 0) close(broker);
  }

  // False once either side has closed.
  static bool Forward(int from, int to) {
    char buffer[16384];
    ssize_t got = read(from, buffer, sizeof buffer);
    for (ssize_t sent = 0, n; sent < got; sent += n)
      if ((n = send(to, buffer + sent, static_cast<std::size_t>(got - sent), MSG_NOSIGNAL)) <= 0)
        return false;
    return got > 0;
  }

  const int brokerPort_;
  const std::chrono::seconds hold_;
  int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int stop_[2] = {-1, -1};
  int port_ = 0;
  std::atomic<int> connections_{0};
  std::vector<Link> links_;  // the relay thread's own
  std::thread thread_;
};

using SlowLinkTest = LibraryTest;

TEST_F(SlowLinkTest, ConnectsThoughEveryHandshakeIsHeld) {
  for (auto [hold, bound] : {std::pair{3s, 30s}, {10s, 60s}}) {
    SCOPED_TRACE("held " + std::to_string(hold.count()) + " s");
    TestEnvironment env;
    SlowLink link(env.MainPort(), hold);
    LibraryClient c(env, {.mainPort = link.Port()});
    ASSERT_EQ(DAXO_ProvisionClient(c), DAXO_Error_Success);
    ASSERT_EQ(c.Code("provision"), DAXO_Error_Success);
    const Clock::time_point start = Clock::now();
    ASSERT_EQ(DAXO_Connect(c), DAXO_Error_Success);
    const int connected = c.Next("connect", bound).code;
    EXPECT_EQ(connected, DAXO_Error_Success);
    std::printf("held %llds: OnConnect %d after %.1f s; %d connections through the link\n",
                static_cast<long long>(hold.count()), connected,
                std::chrono::duration<double>(Clock::now() - start).count(), link.Connections());
  }
}

// Pushes from another thread while the application reconnects: none may be
// written on a connection still being set up, which the broker would see as
// a broken TLS record. (Connections closed in their handshake leave only
// "unexpected eof" behind.)
TEST_F(LibraryTest, PushesWhileReconnectingNeverReachTheBrokerUnencrypted) {
  TestEnvironment env;
  LibraryClient c(env);
  ASSERT_TRUE(c.ProvisionAndConnect());
  SequenceMetric metric = CreateSequenceMetric(c);
  std::atomic<bool> pushing = true;
  std::thread pusher([&] {
    for (int i = 0; pushing; ++i) PushSequence(c, metric, i);
  });
  // Each connection is let come up first: stopping one in its handshake
  // takes libmosquitto's forced stop, which this test is not about.
  // A failed round ends the rounds, never the test with the pusher running.
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(DAXO_Connect(c), DAXO_Error_Success);
    int connected = c.Code("connect");
    EXPECT_EQ(connected, DAXO_Error_Success) << "round " << i;
    if (connected != DAXO_Error_Success) break;
  }
  pushing = false;
  pusher.join();
  std::ifstream log(env.Folder() / "mosquitto.log");
  for (std::string line; std::getline(log, line);) {
    for (const char* broken : {"wrong version number", "bad record type", "unexpected message"})
      EXPECT_EQ(line.find(broken), std::string::npos) << line;
  }
}

// The application's part in the chaos: while it acts, its callbacks count
// what happens and reconnect at random.
class ChaoticClient : public LibraryClient {
 public:
  struct Counts {
    std::atomic<long> connected{0}, refused{0}, lost{0}, closed{0}, answered{0}, answerErrors{0},
        connectCalls{0}, cycleCalls{0}, callFailures{0};
  };

  ChaoticClient(TestEnvironment& env, const ClientConfig& config, unsigned seed)
      : LibraryClient(env, config), random_(seed) {
    DAXO_LogCallbackSet(*this, [](DAXO_Client*, const char*, void*) {});
    DAXO_ConnectCallbackSet(*this, [](DAXO_Client* client, void* self, DAXO_Error err) {
      ChaoticClient& c = As<ChaoticClient>(self);
      if (!c.acting) return c.Record("connect", err);
      ++(err == DAXO_Error_Success ? c.counts.connected : c.counts.refused);
      c.Act(client, 10, 20);
    });
    DAXO_DisconnectCallbackSet(*this, [](DAXO_Client* client, void* self, DAXO_Error err) {
      ChaoticClient& c = As<ChaoticClient>(self);
      if (!c.acting) return c.Record("disconnect", err);
      ++(err == DAXO_Error_Success ? c.counts.closed : c.counts.lost);
      c.Act(client, 25, 15);
    });
    DAXO_PushMetricValuesCallbackSet(
        *this, [](DAXO_Client*, void* self, const char*, DAXO_ApiError err) {
          ChaoticClient& c = As<ChaoticClient>(self);
          ++(err == DAXO_ApiError_NoError ? c.counts.answered : c.counts.answerErrors);
        });
  }

  // The client's own check handed back by the broker is an answer of the
  // wrong shape, not an outcome.
  static void OnRenewal(DAXO_Client*, void* self, DAXO_Error err) {
    if (err != DAXO_Error_WrongReply) As<ChaoticClient>(self).Record("renewal", err);
  }

  std::atomic<bool> acting{false};
  Counts counts;

 private:
  // Branching below one on average, so that the calls die out between
  // outages instead of keeping the client away for good.
  void Act(DAXO_Client* client, int connectPercent, int cyclePercent) {
    int roll;
    {
      std::lock_guard lock(randomMutex_);
      roll = std::uniform_int_distribution(0, 99)(random_);
    }
    if (roll < cyclePercent) {
      ++counts.cycleCalls;
      counts.callFailures += DAXO_Disconnect(client) != DAXO_Error_Success;
      counts.callFailures += DAXO_Connect(client) != DAXO_Error_Success;
    } else if (roll < cyclePercent + connectPercent) {
      ++counts.connectCalls;
      counts.callFailures += DAXO_Connect(client) != DAXO_Error_Success;
    }
  }

  std::mutex randomMutex_;
  std::mt19937 random_;
};

struct Resources {
  long threads = 0, fds = 0;
  bool operator==(const Resources&) const = default;
};

Resources Count() {
  auto entries = [](const char* folder) {
    long n = 0;
    for (const auto& entry : fs::directory_iterator(folder)) (void)entry, ++n;
    return n;
  };
  return {entries("/proc/self/task"), entries("/proc/self/fd")};
}

// Threads end just after their last callback or join; they are given a moment.
bool BackTo(const Resources& start, std::chrono::seconds bound = 10s) {
  for (auto deadline = Clock::now() + bound; Count() != start; std::this_thread::sleep_for(10ms))
    if (Clock::now() >= deadline) return false;
  return true;
}

using ChaosTest = LibraryTest;

TEST_F(ChaosTest, ABrokerThatComesAndGoesWhileTheApplicationReconnectsLeavesNothingBehind) {
  const char* configured = std::getenv("DAXO_CHAOS_SECONDS");
  const auto duration = std::chrono::seconds(configured ? std::atol(configured) : 20);
  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  auto pause = [&] {
    return std::chrono::milliseconds(std::uniform_int_distribution(1000, 5000)(random));
  };

  TestEnvironment env({"--cert-days", "10"});  // every issued certificate is due for renewal
  std::string caCopy = (env.Folder() / "client-ca.crt").string();
  fs::copy_file(env.CaFile(), caCopy);
  // A sanitizer's runtime starts a thread of its own with the process's first.
  std::thread([] {}).join();
  const Resources before = Count();
  auto c = std::make_unique<ChaoticClient>(env, ClientConfig{.caFile = caCopy}, seed);
  ASSERT_TRUE(c->ProvisionAndConnect());
  const SequenceMetric metric = CreateSequenceMetric(*c);
  ASSERT_FALSE(metric.metricId.empty());

  c->acting = true;
  std::atomic<bool> pushing = true;
  long made = 0, accepted = 0;
  Resources peak = before;
  std::thread pusher([&] {
    for (auto next = Clock::now(); pushing; next += 100ms) {
      std::this_thread::sleep_until(next);
      accepted += PushSequence(*c, metric, made++) == DAXO_Error_Success;
      Resources now = Count();
      peak = {std::max(peak.threads, now.threads), std::max(peak.fds, now.fds)};
    }
  });
  // The broker is up for 1-5 s and down for 1-5 s; a certificate renewal
  // after a third of the time and an authority replacement after two thirds.
  const Clock::time_point start = Clock::now();
  int restarts = 0;
  bool renewed = false, replaced = false;
  auto forceDue = [&](bool all) {
    if (!renewed && (all || Clock::now() >= start + duration / 3)) {
      CheckClientCertificateExpirationDate(*c, ChaoticClient::OnRenewal);
      renewed = true;
    } else if (!replaced && (all || Clock::now() >= start + 2 * duration / 3)) {
      env.AgentControl("offer-new-ca");
      CheckCAExpirationDate(*c, ChaoticClient::OnRenewal);
      replaced = true;
    }
  };
  while (Clock::now() < start + duration) {
    std::this_thread::sleep_for(pause());
    env.StopBroker();
    std::this_thread::sleep_for(pause());
    env.StartBroker();
    ++restarts;
    forceDue(false);
  }
  while (!replaced) forceDue(true);
  pushing = false;
  pusher.join();
  c->acting = false;

  // Whatever the callbacks left queued, the client connects and is answered.
  bool works = false;
  for (int attempt = 0; attempt < 3 && !works; ++attempt)
    works = DAXO_Connect(*c) == DAXO_Error_Success && c->Next("connect", 30s).code == 0 &&
            c->CheckConnection();
  EXPECT_TRUE(works) << "the client does not work after the chaos";
  std::string renewals;
  for (auto r = c->Next("renewal", 0s); r.code != LibraryClient::kNone; r = c->Next("renewal", 0s))
    renewals += std::string(renewals.empty() ? "" : ", ") + DAXO_ErrorName(DAXO_Error(r.code));

  const ChaoticClient::Counts& n = c->counts;
  std::printf(
      "chaos %llds, seed %u: broker restarts %d; pushes made %ld, accepted %ld, answered %ld "
      "(%ld with an error); connections %ld, refused %ld, losses %ld, closed %ld; from callbacks "
      "connect %ld, disconnect+connect %ld; renewal outcomes: %s\n",
      static_cast<long long>(duration.count()), seed, restarts, made, accepted, n.answered.load(),
      n.answerErrors.load(), n.connected.load(), n.refused.load(), n.lost.load(), n.closed.load(),
      n.connectCalls.load(), n.cycleCalls.load(), renewals.empty() ? "none" : renewals.c_str());
  EXPECT_EQ(n.callFailures, 0) << "a call from a callback did not return DAXO_Error_Success";
  EXPECT_GT(n.answered, 0);

  DeleteWithin(c);
  if (c != nullptr) {
    bool settled = BackTo(before);
    Resources after = Count();
    std::printf(
        "threads %ld at the start, %ld at the peak, %ld at the end; descriptors %ld, %ld, %ld\n",
        before.threads, peak.threads, after.threads, before.fds, peak.fds, after.fds);
    EXPECT_TRUE(settled) << "threads " << before.threads << " -> " << after.threads
                         << ", descriptors " << before.fds << " -> " << after.fds;
  }
}

}  // namespace
}  // namespace daxo_test
