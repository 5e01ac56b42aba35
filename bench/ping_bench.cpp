// The connection check's round trip, from the request until its answer is
// delivered: through the library, and as the same exchange on a bare
// libmosquitto client with TCP_NODELAY on and off, all against one broker and
// one agent. The library and the bare clients with TCP_NODELAY take turns, so
// that a change in the machine's load reaches them alike.
//
// One bare client subscribes to its whole tree, as the library does: the
// broker then also returns every request to its sender, and the difference
// to the client that subscribes to the answer alone is the cost of that echo.
//
// Usage: daxo_bench_ping [rounds]   (default 500; a tenth of them, at least
// ten, without TCP_NODELAY, where each round waits on delayed acknowledgements)
#include <mosquitto.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "daxo_client.h"
#include "environment.h"
#include "raw_client.h"
#include "summary.h"

namespace {

using Clock = std::chrono::steady_clock;
using Micros = std::chrono::duration<double, std::micro>;
using daxo_test::TestEnvironment;

constexpr auto kTimeout = std::chrono::seconds(10);
constexpr int kWarmUpRounds = 20;
constexpr char kPingRequest[] = "{\"request\":\"CheckProvisioning\"}";

// Events reported from a network thread, counted so that a round waits for
// the one that follows its own request.
class Signal {
 public:
  void Notify(int code) {
    std::lock_guard lock(mutex_);
    ++count_;
    last_ = code;
    changed_.notify_all();
  }
  unsigned long Count() {
    std::lock_guard lock(mutex_);
    return count_;
  }
  // The latest code once more than seen events have come, or nothing within
  // kTimeout.
  std::optional<int> After(unsigned long seen) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kTimeout, [&] { return count_ > seen; })) return std::nullopt;
    return last_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  unsigned long count_ = 0;
  int last_ = 0;
};

class LibraryPinger {
 public:
  explicit LibraryPinger(TestEnvironment& env) {
    std::string config = env.WriteClientConfig({.certFolder = env.NewCertFolder()});
    DAXO_Error err = DAXO_Error_Unknown;
    client_ = DAXO_NewClient(config.c_str(), this, &err);
    if (client_ == nullptr) throw std::runtime_error("DAXO_NewClient: " + std::to_string(err));
    DAXO_ProvisionClientCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error e) {
      static_cast<LibraryPinger*>(self)->provision_.Notify(e);
    });
    DAXO_ConnectCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error e) {
      static_cast<LibraryPinger*>(self)->connect_.Notify(e);
    });
    DAXO_CheckConnectionCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_ApiError e) {
      static_cast<LibraryPinger*>(self)->check_.Notify(e);
    });
    if (DAXO_ProvisionClient(client_) != DAXO_Error_Success ||
        provision_.After(0) != DAXO_Error_Success || DAXO_Connect(client_) != DAXO_Error_Success ||
        connect_.After(0) != DAXO_Error_Success) {
      DAXO_DeleteClient(client_);
      throw std::runtime_error("the library client did not provision and connect");
    }
  }
  ~LibraryPinger() { DAXO_DeleteClient(client_); }
  LibraryPinger(const LibraryPinger&) = delete;
  LibraryPinger& operator=(const LibraryPinger&) = delete;

  bool RoundTrip() {
    unsigned long seen = check_.Count();
    return DAXO_CheckConnection(client_) == DAXO_Error_Success &&
           check_.After(seen) == DAXO_ApiError_NoError;
  }

 private:
  DAXO_Client* client_ = nullptr;
  Signal provision_, connect_, check_;
};

enum class Subscription { kAnswer, kWholeTree };

// The exchange the library makes, written directly on libmosquitto.
class RawPinger {
 public:
  RawPinger(TestEnvironment& env, const std::string& id, bool noDelay, Subscription subscription)
      : pingTopic_("/v1.0/" + id + "/ping"),
        inboxTopic_(pingTopic_ + "/info/inbox"),
        client_(env, id, subscription == Subscription::kAnswer ? inboxTopic_ : "/v1.0/" + id + "/#",
                {this,
                 [](void* self, const mosquitto_message* m) {
                   auto* pinger = static_cast<RawPinger*>(self);
                   if (pinger->inboxTopic_ == m->topic) pinger->reply_.Notify(0);
                 }},
                noDelay) {}

  bool RoundTrip() {
    unsigned long seen = reply_.Count();
    return client_.Publish(pingTopic_, kPingRequest, sizeof kPingRequest - 1) &&
           reply_.After(seen).has_value();
  }

 private:
  std::string pingTopic_, inboxTopic_;
  Signal reply_;
  bench::RawClient client_;  // last: its network thread uses the members above
};

struct Variant {
  const char* name;
  std::function<bool()> roundTrip;
  std::vector<double> micros{};
};

bool TimeRound(Variant& variant, bool keep) {
  auto start = Clock::now();
  if (!variant.roundTrip()) {
    std::fprintf(stderr, "%s: no answer within %lld s\n", variant.name,
                 static_cast<long long>(kTimeout.count()));
    return false;
  }
  if (keep) variant.micros.push_back(Micros(Clock::now() - start).count());
  return true;
}

// Warms every variant up, then runs rounds of each in turn.
bool Measure(std::vector<Variant*> variants, int rounds) {
  for (int round = -kWarmUpRounds; round < rounds; ++round)
    for (Variant* variant : variants)
      if (!TimeRound(*variant, round >= 0)) return false;
  return true;
}

struct Summary {
  double p50, p99, mean;
};

Summary Summarise(std::vector<double> micros) {
  std::sort(micros.begin(), micros.end());
  auto at = [&](double q) {  // nearest rank
    auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(micros.size())));
    return micros[std::clamp<std::size_t>(rank, 1, micros.size()) - 1];
  };
  double sum = 0;
  for (double m : micros) sum += m;
  return {at(0.50), at(0.99), sum / static_cast<double>(micros.size())};
}

int Run(int rounds) {
  TestEnvironment env;
  LibraryPinger library(env);
  RawPinger noDelay(env, "bench-nodelay", true, Subscription::kAnswer);
  RawPinger wholeTree(env, "bench-tree", true, Subscription::kWholeTree);
  Variant viaLibrary{"library", [&] { return library.RoundTrip(); }};
  Variant rawNoDelay{"raw, TCP_NODELAY on", [&] { return noDelay.RoundTrip(); }};
  Variant rawWholeTree{"raw, NODELAY, tree/#", [&] { return wholeTree.RoundTrip(); }};
  if (!Measure({&viaLibrary, &rawNoDelay, &rawWholeTree}, rounds)) return 1;

  RawPinger nagle(env, "bench-nagle", false, Subscription::kAnswer);
  Variant rawNagle{"raw, TCP_NODELAY off", [&] { return nagle.RoundTrip(); }};
  if (!Measure({&rawNagle}, std::max(10, rounds / 10))) return 1;

  std::printf("%-22s %7s %11s %11s %11s\n", "round trip", "rounds", "p50 (us)", "p99 (us)",
              "mean (us)");
  for (const Variant* variant : {&viaLibrary, &rawNoDelay, &rawWholeTree, &rawNagle}) {
    Summary s = Summarise(variant->micros);
    std::printf("%-22s %7zu %11.1f %11.1f %11.1f\n", variant->name, variant->micros.size(), s.p50,
                s.p99, s.mean);
  }
  Summary lib = Summarise(viaLibrary.micros);
  Summary raw = Summarise(rawNoDelay.micros), tree = Summarise(rawWholeTree.micros);
  std::printf(
      "\nlibrary / raw, TCP_NODELAY on: p50 %.2f (target <= 1.20: %s), p99 %.2f, mean %.2f\n",
      lib.p50 / raw.p50, lib.p50 / raw.p50 <= 1.2 ? "met" : "missed", lib.p99 / raw.p99,
      lib.mean / raw.mean);
  std::printf("library / raw, NODELAY, tree/#: p50 %.2f, p99 %.2f, mean %.2f\n", lib.p50 / tree.p50,
              lib.p99 / tree.p99, lib.mean / tree.mean);
  bench::PrintComparison("round trip p50 (connection check)", bench::Figure("%.0f us", lib.p50),
                         bench::Figure("%.0f us", raw.p50), lib.p50 / raw.p50, "<= 1.2");
  bench::PrintComparison("round trip p99 (connection check)", bench::Figure("%.0f us", lib.p99),
                         bench::Figure("%.0f us", raw.p99), lib.p99 / raw.p99, "-");
  bench::PrintComparison("round trip p50, raw also subscribed to its tree",
                         bench::Figure("%.0f us", lib.p50), bench::Figure("%.0f us", tree.p50),
                         lib.p50 / tree.p50, "-");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = argc > 1 ? std::atoi(argv[1]) : 500;
  if (rounds < 1) {
    std::fprintf(stderr, "usage: %s [rounds]\n", argv[0]);
    return 2;
  }
  DAXO_LibInit();
  mosquitto_lib_init();
  int status = 1;
  try {
    status = Run(rounds);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "daxo_bench_ping: %s\n", e.what());
  }
  mosquitto_lib_cleanup();
  DAXO_LibCleanup();
  return status;
}
