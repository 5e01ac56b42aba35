// Pushes of 100 values, 25 of each type, through the library and as the same
// body built with json-c by hand, in one run:
//
// (a) Throughput against the real broker and agent, QoS 2 over TLS. Each
//     side builds every body afresh: the library fills a value container
//     and calls DAXO_PushMetricValues, the bare client builds the JSON and
//     calls mosquitto_publish. A push is done when the agent's answer has
//     arrived. The library tells an application of nothing earlier (its
//     publish acknowledgements are not exposed), so the bare client is
//     timed by the same event; the moment its last QoS 2 flow completed
//     (PUBCOMP) is reported beside it. Both keep at most kWindow pushes
//     unanswered: the broker queues at most 1000 messages for the agent
//     and drops QoS 2 messages beyond that. The library subscribes to its
//     whole tree, so the broker returns every push to it; one bare client
//     does the same, to show what that echo costs. The library runs without
//     its push store, and with it in memory and in a file at each of its
//     two durability levels; fsync and fdatasync calls are counted.
//
// (c) Resident memory while the broker is down and pushes go on, with the
//     push store in memory at its default bound: the curve against the
//     number of pushes made, which is what an outage at any rate adds.
//
// (b) The thread CPU time of building one body, per value: the library's
//     DAXO_PushMetricValues on a client whose transport publishes nothing,
//     against json-c by hand with the same topic formatting and the same
//     do-nothing publish. The bodies are compared byte for byte first.
//
// Usage: daxo_bench_push [messages]   (default 2000 per round)
#include <dlfcn.h>
#include <json-c/json.h>
#include <mosquitto.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "daxo_client.h"
#include "daxo_internal.h"
#include "environment.h"
#include "raw_client.h"
#include "summary.h"

// Every fsync and fdatasync of the process, the store's included (this
// program exports them, so they stand in for libc's).
std::atomic<long> syncs{0};

extern "C" int fsync(int fd) {
  static auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
  ++syncs;
  return real(fd);
}

extern "C" int fdatasync(int fd) {
  static auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fdatasync"));
  ++syncs;
  return real(fd);
}

namespace {

using Clock = std::chrono::steady_clock;
using daxo_test::TestEnvironment;

constexpr int kValuesPerType = 25;
constexpr int kValues = 4 * kValuesPerType;
constexpr long kWindow = 64;
constexpr long kWarmUpMessages = 200;
constexpr int kRounds = 5;
constexpr int kCpuRounds = 15;
constexpr int kCpuBodies = 2000;
constexpr auto kTimeout = std::chrono::seconds(60);

int64_t NowMillis() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// The metric ids of one sensor, integer metrics first, then double, bool and
// string ones; value k of message n is derived from both.
struct Batch {
  std::string sensorId;
  std::vector<std::string> metricIds;

  static DAXO_ValueType TypeOf(int k) {
    return static_cast<DAXO_ValueType>(1 + k / kValuesPerType);
  }
  static int64_t Integer(long n, int k) { return n * kValues + k; }
  static double Double(long n, int k) { return static_cast<double>(n) + k / 8.0; }
  static int Bool(long n, int k) { return static_cast<int>((n + k) % 2); }
  static const char* String(int k) {
    static const std::vector<std::string> texts = [] {
      std::vector<std::string> t;
      for (int i = 0; i < kValuesPerType; ++i) t.push_back("state " + std::to_string(i));
      return t;
    }();
    return texts[k % kValuesPerType].c_str();
  }
};

// Creates the sensor and its metrics through the agent's control socket, so
// that the library and the bare client get the same kind of sensor.
Batch DefineSensor(const TestEnvironment& env, const std::string& clientId) {
  static const char* const kTypes[] = {"integer", "double", "bool", "string"};
  std::string definition = R"({"name":"bench","metrics":[)";
  for (int k = 0; k < kValues; ++k)
    definition += std::string(k ? "," : "") + R"({"name":"m)" + std::to_string(k) +
                  R"(","valueType":")" + kTypes[Batch::TypeOf(k) - 1] +
                  R"(","valueAnnotation":"bench"})";
  std::string answer = env.AgentControl("job-create " + clientId + " " + definition + "]}");
  json_object* parsed = json_tokener_parse(answer.c_str());
  json_object* sensor = json_object_object_get(parsed, "sensor");
  json_object* metrics = json_object_object_get(sensor, "metrics");
  Batch batch;
  if (sensor != nullptr)
    batch.sensorId = json_object_get_string(json_object_object_get(sensor, "sensorId"));
  for (std::size_t k = 0; k < json_object_array_length(metrics); ++k)
    batch.metricIds.push_back(json_object_get_string(
        json_object_object_get(json_object_array_get_idx(metrics, k), "metricId")));
  json_object_put(parsed);
  if (batch.metricIds.size() != kValues) throw std::runtime_error("job-create failed: " + answer);
  return batch;
}

// The body of message n as the library builds it, written on json-c.
json_object* HandBody(const Batch& batch, long n, int64_t timestamp) {
  json_object* array = json_object_new_array();
  for (int k = 0; k < kValues; ++k) {
    json_object* element = json_object_new_object();
    json_object_object_add(element, "metricId", json_object_new_string(batch.metricIds[k].c_str()));
    json_object* value = nullptr;
    switch (Batch::TypeOf(k)) {
      case DAXO_ValueType_Integer:
        value = json_object_new_int64(Batch::Integer(n, k));
        break;
      case DAXO_ValueType_Double:
        value = json_object_new_double(Batch::Double(n, k));
        break;
      case DAXO_ValueType_Bool:
        value = json_object_new_boolean(Batch::Bool(n, k));
        break;
      default:
        value = json_object_new_string(Batch::String(k));
        break;
    }
    json_object_object_add(element, "value", value);
    json_object_array_add(array, element);
  }
  json_object* body = json_object_new_object();
  json_object_object_add(body, "metrics", array);
  json_object_object_add(body, "timestamp", json_object_new_int64(timestamp));
  return body;
}

std::string PushTopic(const std::string& clientId, const std::string& sensorId) {
  char topic[256];
  std::snprintf(topic, sizeof topic, "/v1.0/%s/sensor/%s", clientId.c_str(), sensorId.c_str());
  return topic;
}

void FillContainer(DAXO_MetricValueContainer* c, const Batch& batch, long n, int64_t timestamp) {
  for (int k = 0; k < kValues; ++k) {
    const char* id = batch.metricIds[k].c_str();
    switch (Batch::TypeOf(k)) {
      case DAXO_ValueType_Integer:
        DAXO_AddIntegerMetricValue(c, Batch::Integer(n, k), id);
        break;
      case DAXO_ValueType_Double:
        DAXO_AddDoubleMetricValue(c, Batch::Double(n, k), id);
        break;
      case DAXO_ValueType_Bool:
        DAXO_AddBoolMetricValue(c, Batch::Bool(n, k), id);
        break;
      default:
        DAXO_AddStringMetricValue(c, Batch::String(k), id);
        break;
    }
  }
  DAXO_AddEpochTimeStamp(c, static_cast<uint64_t>(timestamp));
}

// Events counted on a network thread; a waiter wants a count reached.
class Counter {
 public:
  void Add() {
    std::lock_guard lock(mutex_);
    ++count_;
    last_ = Clock::now();
    changed_.notify_all();
  }
  long Count() {
    std::lock_guard lock(mutex_);
    return count_;
  }
  Clock::time_point Last() {
    std::lock_guard lock(mutex_);
    return last_;
  }
  bool WaitFor(long count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kTimeout, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  long count_ = 0;
  Clock::time_point last_{};
};

class Pusher {
 public:
  virtual ~Pusher() = default;
  virtual const char* Name() const = 0;
  virtual bool Publish(long n) = 0;
  Counter answered, refused, completed;
};

class LibraryPusher : public Pusher {
 public:
  // storeLines: the push store's settings appended to the configuration.
  LibraryPusher(TestEnvironment& env, const char* name, const std::string& storeLines = "")
      : name_(name) {
    std::string config = env.WriteClientConfig({.certFolder = env.NewCertFolder()});
    std::ofstream(config, std::ios::app) << storeLines;
    DAXO_Error err = DAXO_Error_Unknown;
    client_ = DAXO_NewClient(config.c_str(), this, &err);
    if (client_ == nullptr) throw std::runtime_error("DAXO_NewClient: " + std::to_string(err));
    DAXO_ProvisionClientCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error) {
      static_cast<LibraryPusher*>(self)->ready_.Add();
    });
    DAXO_ConnectCallbackSet(client_, [](DAXO_Client*, void* self, DAXO_Error e) {
      if (e == DAXO_Error_Success) static_cast<LibraryPusher*>(self)->ready_.Add();
    });
    DAXO_PushMetricValuesCallbackSet(client_,
                                     [](DAXO_Client*, void* self, const char*, DAXO_ApiError e) {
                                       auto* pusher = static_cast<LibraryPusher*>(self);
                                       if (e != DAXO_ApiError_NoError) pusher->refused.Add();
                                       pusher->answered.Add();
                                     });
    if (DAXO_ProvisionClient(client_) != DAXO_Error_Success || !ready_.WaitFor(1) ||
        DAXO_Connect(client_) != DAXO_Error_Success || !ready_.WaitFor(2)) {
      DAXO_DeleteClient(client_);
      throw std::runtime_error("the library client did not provision and connect");
    }
    batch_ = DefineSensor(env, DAXO_GetClientId(client_));
  }
  ~LibraryPusher() override { DAXO_DeleteClient(client_); }

  const char* Name() const override { return name_; }
  DAXO_Client* Client() const { return client_; }
  bool Publish(long n) override {
    DAXO_MetricValueContainer* container = DAXO_CreateMetricValueContainer();
    FillContainer(container, batch_, n, NowMillis());
    DAXO_Error err = DAXO_PushMetricValues(client_, batch_.sensorId.c_str(), container);
    DAXO_DestroyMetricValueContainer(container);
    return err == DAXO_Error_Success;
  }

 private:
  const char* name_;
  DAXO_Client* client_ = nullptr;
  Counter ready_;
  Batch batch_;
};

enum class Subscription { kReplies, kWholeTree };

class RawPusher : public Pusher {
 public:
  RawPusher(TestEnvironment& env, const std::string& id, Subscription subscription)
      : name_(subscription == Subscription::kReplies ? "raw, replies only" : "raw, tree/#"),
        batch_(DefineSensor(env, id)),
        topic_(PushTopic(id, batch_.sensorId)),
        info_(topic_ + "/info/inbox"),
        client_(env, id,
                subscription == Subscription::kReplies ? topic_ + "/+/inbox" : "/v1.0/" + id + "/#",
                {this, Answered, [](void* self) { static_cast<RawPusher*>(self)->completed.Add(); }}) {}

  const char* Name() const override { return name_; }
  bool Publish(long n) override {
    json_object* body = HandBody(batch_, n, NowMillis());
    const char* text = json_object_to_json_string(body);
    bool sent = client_.Publish(topic_, text, static_cast<int>(std::strlen(text)));
    json_object_put(body);
    return sent;
  }

 private:
  static void Answered(void* self, const mosquitto_message* m) {
    auto* pusher = static_cast<RawPusher*>(self);
    if (!std::string_view(m->topic).starts_with(pusher->topic_ + "/")) return;  // the echo
    if (pusher->info_ != m->topic) pusher->refused.Add();
    pusher->answered.Add();
  }

  const char* name_;
  Batch batch_;
  std::string topic_, info_;
  bench::RawClient client_;  // last: its network thread uses the members above
};

struct Round {
  double seconds;         // until the last answer
  double pubcompSeconds;  // until the last QoS 2 flow completed; bare clients only
  long syncs;             // fsync and fdatasync calls meanwhile
};

// Publishes messages [first, first + count), never more than kWindow of
// them unanswered; nothing on failure.
std::optional<Round> Run(Pusher& pusher, long first, long count) {
  long answeredBefore = pusher.answered.Count(), completedBefore = pusher.completed.Count();
  long syncsBefore = syncs;
  auto start = Clock::now();
  for (long n = 0; n < count; ++n)
    if (!pusher.answered.WaitFor(answeredBefore + n - kWindow + 1) || !pusher.Publish(first + n))
      return std::nullopt;
  if (!pusher.answered.WaitFor(answeredBefore + count)) return std::nullopt;
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  double pubcomp = 0;
  if (pusher.completed.Count() >= completedBefore + count)
    pubcomp = std::chrono::duration<double>(pusher.completed.Last() - start).count();
  return Round{seconds, pubcomp, syncs - syncsBefore};
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::string StoreFile(const TestEnvironment& env, const char* name, const char* sync) {
  return "PushStore " + (env.Folder() / name).string() + "\nPushStoreSync " + sync + "\n";
}

int Throughput(TestEnvironment& env, long messages) {
  LibraryPusher library(env, "library");
  RawPusher replies(env, "bench-replies", Subscription::kReplies);
  RawPusher tree(env, "bench-tree", Subscription::kWholeTree);
  LibraryPusher memory(env, "library, store memory", "PushStore memory\n");
  LibraryPusher normal(env, "library, file NORMAL", StoreFile(env, "normal.db", "normal"));
  LibraryPusher full(env, "library, file FULL", StoreFile(env, "full.db", "full"));
  std::vector<Pusher*> pushers = {&library, &replies, &tree, &memory, &normal, &full};
  std::vector<std::vector<double>> rates(pushers.size()), pubcomps(pushers.size());
  std::vector<long> syncCounts(pushers.size());
  for (Pusher* p : pushers)
    if (!Run(*p, 0, kWarmUpMessages))
      return std::fprintf(stderr, "%s: warm-up failed\n", p->Name()), 1;
  // Taking turns, so that a change in the machine's load reaches all alike.
  for (int round = 0; round < kRounds; ++round) {
    for (std::size_t i = 0; i < pushers.size(); ++i) {
      std::optional<Round> r = Run(*pushers[i], kWarmUpMessages + round * messages, messages);
      if (!r)
        return std::fprintf(stderr, "%s: no answer within the time limit\n", pushers[i]->Name()), 1;
      rates[i].push_back(static_cast<double>(messages) / r->seconds);
      syncCounts[i] += r->syncs;
      if (r->pubcompSeconds > 0)
        pubcomps[i].push_back(static_cast<double>(messages) / r->pubcompSeconds);
    }
  }
  std::printf(
      "(a) pushes of %d values, QoS 2 over TLS, %ld messages per round, at most %ld "
      "unanswered; median of %d rounds\n",
      kValues, messages, kWindow, kRounds);
  std::printf("%-24s %12s %14s %22s %9s %12s\n", "", "messages/s", "values/s",
              "messages/s to PUBCOMP", "refused", "fsyncs/push");
  for (std::size_t i = 0; i < pushers.size(); ++i) {
    double rate = Median(rates[i]);
    std::string pubcomp =
        pubcomps[i].empty() ? "-" : std::to_string(static_cast<long>(Median(pubcomps[i])));
    std::printf("%-24s %12.0f %14.0f %22s %9ld %12.2f\n", pushers[i]->Name(), rate, rate * kValues,
                pubcomp.c_str(), pushers[i]->refused.Count(),
                static_cast<double>(syncCounts[i]) / static_cast<double>(messages * kRounds));
  }
  double libraryRate = Median(rates[0]), rawRate = Median(rates[1]);
  std::printf(
      "library / raw, replies only: %.3f (target >= 0.95: %s); library / raw, tree/#: %.3f\n\n",
      libraryRate / rawRate, libraryRate / rawRate >= 0.95 ? "met" : "missed",
      libraryRate / Median(rates[2]));
  bench::PrintComparison("push throughput, QoS 2 over TLS", bench::Figure("%.0f msg/s", libraryRate),
                         bench::Figure("%.0f msg/s", rawRate), libraryRate / rawRate, ">= 0.95");
  bench::PrintComparison("push throughput, raw also subscribed to its tree",
                         bench::Figure("%.0f msg/s", libraryRate),
                         bench::Figure("%.0f msg/s", Median(rates[2])),
                         libraryRate / Median(rates[2]), "-");
  const struct {
    std::size_t index;
    const char* measure;
    const char* target;
    double goal;
  } stores[] = {{3, "push throughput, store in memory", ">= 0.9", 0.9},
                {4, "push throughput, store file NORMAL", ">= 0.5", 0.5},
                {5, "push throughput, store file FULL", "-", 0}};
  for (const auto& s : stores) {
    double rate = Median(rates[s.index]);
    std::printf("%s / raw: %.3f (%s%s), %.2f fsyncs a push\n", s.measure, rate / rawRate, s.target,
                s.goal == 0                ? ""
                : rate / rawRate >= s.goal ? ": met"
                                           : ": missed",
                static_cast<double>(syncCounts[s.index]) / static_cast<double>(messages * kRounds));
    bench::PrintComparison(s.measure, bench::Figure("%.0f msg/s", rate),
                           bench::Figure("%.0f msg/s", rawRate), rate / rawRate, s.target);
    std::string syncsMeasure = std::string("  fsyncs per push, ") + (s.measure + 17);
    bench::PrintComparison(syncsMeasure.c_str(),
                           bench::Figure("%.2f", static_cast<double>(syncCounts[s.index]) /
                                                     static_cast<double>(messages * kRounds)),
                           "0", 0, "-");
  }
  std::printf("\n");
  return 0;
}

long ResidentKiB() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// (c): pushes made while the broker is down, as at 10 a second for
// minutes, with the memory store's default bound.
int OutageMemory(TestEnvironment& env, long pushes) {
  LibraryPusher pusher(env, "library, store memory", "PushStore memory\n");
  for (long n = 0; n < kWarmUpMessages; ++n) pusher.Publish(n);
  if (!pusher.answered.WaitFor(kWarmUpMessages))
    return std::fprintf(stderr, "outage: warm-up unanswered\n"), 1;
  env.StopBroker();
  long start = ResidentKiB(), peak = start;
  std::printf("(c) resident memory while the broker is down, store in memory (8 MiB bound)\n");
  std::printf("%10s %12s %10s\n", "pushes", "resident KiB", "waiting");
  for (long n = 0; n < pushes; ++n) {
    pusher.Publish(kWarmUpMessages + n);
    if ((n + 1) % (pushes / 10) != 0) continue;
    long now = ResidentKiB();
    peak = std::max(peak, now);
    size_t waiting = 0;
    DAXO_GetWaitingPushCount(pusher.Client(), &waiting);
    std::printf("%10ld %12ld %10zu\n", n + 1, now, waiting);
  }
  long end = ResidentKiB();
  std::printf("start %ld KiB, peak %ld KiB, end %ld KiB: %+ld KiB for %ld pushes of %d values\n\n",
              start, peak, end, peak - start, pushes, kValues);
  bench::PrintComparison("resident memory growth, 6000 pushes offline (store 8 MiB)",
                         bench::Figure("%.0f KiB", double(peak - start)), "-", 0, "<= 8192 + c");
  env.StartBroker();
  return 0;
}

// A transport that takes every message and sends nothing; it keeps the
// last payload when asked to.
struct NullTransport {
  static int Publish(MosquittoInterface*, int*, const char*, int length, const void* payload, int,
                     int) {
    bytes += static_cast<unsigned long>(length);
    if (capture)
      captured.assign(static_cast<const char*>(payload), static_cast<std::size_t>(length));
    return MOSQ_ERR_SUCCESS;
  }
  static inline unsigned long bytes = 0;
  static inline bool capture = false;
  static inline std::string captured;
};

double ThreadCpuNanos() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

int BuildCost() {
  MosquittoInterface transport{};
  transport.mosquittoPublishFunction = NullTransport::Publish;
  // The push needs only an identity and a transport: no configuration, no
  // connection, no threads.
  auto* client = static_cast<DAXO_Client*>(calloc(1, sizeof(DAXO_Client)));
  client->clientId = strdup("bench-build");
  client->mosq = &transport;
  client->mainWatch.sendable = 1;  // as if its network thread ran
  Batch batch;
  batch.sensorId = "s-0badcafe";
  for (int k = 0; k < kValues; ++k) batch.metricIds.push_back("m-" + std::to_string(10000000 + k));
  const int64_t timestamp = 1700000000000;
  DAXO_MetricValueContainer* filled = DAXO_CreateMetricValueContainer();
  FillContainer(filled, batch, 1, timestamp);

  auto library = [&](long) { DAXO_PushMetricValues(client, batch.sensorId.c_str(), filled); };
  auto libraryWithFill = [&](long n) {
    DAXO_MetricValueContainer* c = DAXO_CreateMetricValueContainer();
    FillContainer(c, batch, n, timestamp);
    DAXO_PushMetricValues(client, batch.sensorId.c_str(), c);
    DAXO_DestroyMetricValueContainer(c);
  };
  auto byHand = [&](long n) {
    json_object* body = HandBody(batch, n, timestamp);
    std::string topic = PushTopic(client->clientId, batch.sensorId);
    const char* text = json_object_to_json_string(body);
    NullTransport::Publish(&transport, nullptr, topic.c_str(), static_cast<int>(std::strlen(text)),
                           text, 2, 0);
    json_object_put(body);
  };

  NullTransport::capture = true;
  library(1);
  std::string fromLibrary = NullTransport::captured;
  byHand(1);
  bool same = fromLibrary == NullTransport::captured;
  NullTransport::capture = false;

  struct Variant {
    const char* name;
    std::function<void(long)> build;
    std::vector<double> nanosPerValue{};
  } variants[] = {{"library, push of a filled container", library},
                  {"library, fill + push + destroy", libraryWithFill},
                  {"json-c by hand", byHand}};
  for (int round = -1; round < kCpuRounds; ++round) {  // round -1 warms up
    for (Variant& v : variants) {
      double start = ThreadCpuNanos();
      for (long n = 0; n < kCpuBodies; ++n) v.build(n);
      if (round >= 0) v.nanosPerValue.push_back((ThreadCpuNanos() - start) / kCpuBodies / kValues);
    }
  }
  std::printf(
      "(b) thread CPU time per value of building a body of %d values (topic, JSON, text, "
      "hand-over); median of %d rounds of %d bodies\n",
      kValues, kCpuRounds, kCpuBodies);
  for (const Variant& v : variants)
    std::printf("%-38s %8.1f ns/value\n", v.name, Median(v.nanosPerValue));
  double ratio = Median(variants[0].nanosPerValue) / Median(variants[2].nanosPerValue);
  std::printf("library push / by hand: %.2f; bodies identical: %s (%zu bytes)\n", ratio,
              same ? "yes" : "NO", fromLibrary.size());
  bench::PrintComparison("CPU per pushed value (body building)",
                         bench::Figure("%.0f ns", Median(variants[0].nanosPerValue)),
                         bench::Figure("%.0f ns", Median(variants[2].nanosPerValue)), ratio, "-");

  DAXO_DestroyMetricValueContainer(filled);
  free(client->clientId);
  free(client);
  return same ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  long messages = argc > 1 ? std::atol(argv[1]) : 2000;
  if (messages < 1) {
    std::fprintf(stderr, "usage: %s [messages]\n", argv[0]);
    return 2;
  }
  DAXO_LibInit();
  mosquitto_lib_init();
  int status = 1;
  try {
    TestEnvironment env;
    status = Throughput(env, messages);
    if (status == 0) status = BuildCost();
    if (status == 0) status = OutageMemory(env, 6000);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "daxo_bench_push: %s\n", e.what());
  }
  mosquitto_lib_cleanup();
  DAXO_LibCleanup();
  return status;
}
