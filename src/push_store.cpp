// The push store: pushes are kept until the agent answers them, sent only
// once the agent has answered a connection check on the current connection,
// and sent again when their connection, or the agent, was lost before the
// answer came.
//
// Kept pushes go out at QoS 0: the store is their only queue. libmosquitto
// keeps QoS 1 and 2 messages that were not acknowledged and sends them
// again by itself on the next connection, before the agent has subscribed
// again; the broker then drops them, or, once the store had sent them too,
// they would arrive twice. The agent's answer, not the broker's
// acknowledgement, ends a push.
//
// Answers carry only the sensor id, so a lost push cannot be told from the
// answer of a later one of its sensor. Pushes therefore go in batches, each
// followed by a connection check, its fence; the next batch waits for the
// fence's answer. The agent handles messages in the order they arrive, so
// when the fence is answered every push of the batch has been answered or
// lost: a sensor with as many answers as pushes is delivered, and the
// application hears of those answers then; the others' pushes go again.
// Checks go on the same QoS 0 path, the application's too, so that they
// keep their place among the pushes.
#include "push_store.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "string_utils.h"

namespace {

using daxo::MutexLock;

// Pushes in a batch: enough to keep the agent busy, few enough that a long
// backlog leaves room for the application's other requests.
constexpr int kBatch = 64;
// A fence unanswered for this long while connected: the agent may have
// gone, and the batch is sent again once it answers a check.
constexpr long long kQuietMs = 10000;
// A check unanswered for this long, the agent not known to hear, is taken
// as lost (sent before the agent had subscribed again, or while it was
// away) and sent again; the checks sent before it are taken as lost too,
// else an answer that cannot come would shift every later one onto the
// wrong owner.
constexpr long long kCheckRetryMs = 2000;

constexpr char kCheckPayload[] = "{\"request\":\"CheckProvisioning\"}";

pthread_mutex_t gOpenMutex = PTHREAD_MUTEX_INITIALIZER;

PushStoreTag* StoreOf(const DAXO_Client* client) noexcept {
  return __atomic_load_n(&client->pushStore, __ATOMIC_ACQUIRE);
}

// With the store's mutex held; publishes only on a connection that runs.
bool PublishNow(DAXO_Client* client, const char* topic, const char* payload, int length) noexcept {
  MutexLock lock(&client->instanceMutex);
  MosquittoInterface* mi = client->mosq;
  if (mi == nullptr || !client->mainWatch.sendable) return false;
  return mi->mosquittoPublishFunction(mi, nullptr, topic, length, payload, 0, 0) ==
         MOSQ_ERR_SUCCESS;
}

bool SendCheck(DAXO_Client* client, PushStoreTag* store) noexcept {
  daxo::CStr topic = daxo::Format("/%s/%s/ping", daxo::kApiVersion, client->clientId);
  if (!topic || !PublishNow(client, topic.get(), kCheckPayload, sizeof kCheckPayload - 1))
    return false;
  if (store->fenceOut) store->appChecksBefore = std::exchange(store->appChecksAfter, 0);
  store->fenceOut = true;
  store->checkSentMs = daxo::NowMs();
  return true;
}

// Sends the next batch and its fence, once the last fence is answered.
void Pump(DAXO_Client* client, PushStoreTag* store) noexcept {
  if (!store->online || !store->ready || store->fenceOut) return;
  while (store->inFlight < kBatch) {
    while (store->unsent != nullptr && store->unsent->dropped) store->unsent = store->unsent->next;
    KeptPush* push = store->unsent;
    if (push == nullptr || !PublishNow(client, push->topic, push->payload, push->length)) break;
    push->sentMs = daxo::NowMs();
    store->inFlight++;
    store->unsent = push->next;
  }
  if (store->inFlight > 0) SendCheck(client, store);
}

// Unlinks push, whose predecessor is prev (null: the head).
void Unlink(PushStoreTag* store, KeptPush* prev, KeptPush* push) noexcept {
  (prev != nullptr ? prev->next : store->head) = push->next;
  if (store->tail == push) store->tail = prev;
  if (store->unsent == push) store->unsent = push->next;
  if (push->sentMs != 0) store->inFlight--;
  if (!push->dropped) {
    store->count--;
    store->bytes -= push->bytes;
  }
}

// The agent has answered a check: what it has not answered never reached
// it and is to be sent again, and no answer can come for a dropped push.
void Rewind(PushStoreTag* store) noexcept {
  KeptPush* prev = nullptr;
  for (KeptPush* push = store->head; push != nullptr;) {
    KeptPush* next = push->next;
    push->sentMs = 0;
    push->answered = push->unproven = false;
    if (push->dropped) {
      Unlink(store, prev, push);
      free(push);
    } else {
      prev = push;
    }
    push = next;
  }
  store->inFlight = 0;
  store->unsent = store->head;
}

// The batch's fence is answered: each sensor whose pushes all have their
// answer is delivered (its pushes moved to *delivered, in order, for the
// application to hear of), the others' pushes go again. Returns how many.
int Settle(PushStoreTag* store, KeptPush** delivered) noexcept {
  for (KeptPush* p = store->head; p != store->unsent; p = p->next) {
    p->unproven = false;
    for (KeptPush* q = store->head; q != store->unsent && !p->unproven; q = q->next)
      p->unproven = !q->answered && strcmp(q->sensorId, p->sensorId) == 0;
  }
  KeptPush** last = delivered;
  int again = 0;
  daxo::BeginWrite(store);  // the deletes in one transaction; each stands alone otherwise
  KeptPush* prev = nullptr;
  for (KeptPush* p = store->head; p != nullptr && p->sentMs != 0;) {
    KeptPush* next = p->next;
    if (p->unproven && !p->dropped) {
      again++;
      prev = p;
    } else {
      if (!p->dropped) daxo::DeleteRow(store, p);
      Unlink(store, prev, p);
      if (p->dropped || p->unproven) {
        free(p);
      } else {
        p->next = nullptr;
        *last = p;
        last = &p->next;
      }
    }
    p = next;
  }
  daxo::EndWrite(store, true);
  Rewind(store);
  return again;
}

void Deliver(DAXO_Client* client, KeptPush* delivered) noexcept {
  DAXO_OnPushMetricValues callback = daxo::Get(client->OnPushMetricValues);
  while (delivered != nullptr) {
    KeptPush* p = std::exchange(delivered, delivered->next);
    if (callback != nullptr) callback(client, client->callbackParameter, p->sensorId, p->code);
    free(p);
  }
}

// Drops reported to the application once the store's mutex is released:
// runs of pushes of one sensor, with the sensor ids copied behind them.
struct DropGroup {
  const char* sensorId;
  int count;
};
struct DropReport {
  size_t groups = 0;
  std::unique_ptr<DropGroup, daxo::CFree<free>> block;
};

// Room for the report of dropping the n oldest pushes; false when memory
// runs out.
bool AllocateReport(const PushStoreTag* store, size_t n, DropReport* report) noexcept {
  size_t names = 0, seen = 0;
  for (const KeptPush* p = store->head; p != nullptr && seen < n; p = p->next) {
    if (p->dropped) continue;
    names += strlen(p->sensorId) + 1;
    seen++;
  }
  report->block.reset(static_cast<DropGroup*>(malloc(n * sizeof(DropGroup) + names)));
  return report->block != nullptr;
}

// Drops the n oldest pushes from memory, their rows already deleted (those
// whose answer may still come are marked, the others freed), into the
// report allocated for them.
void ApplyDrops(PushStoreTag* store, size_t n, DropReport* report) noexcept {
  DropGroup* groups = report->block.get();
  char* text = reinterpret_cast<char*>(groups + n);
  KeptPush* prev = nullptr;
  for (KeptPush* p = store->head; p != nullptr && n > 0;) {
    KeptPush* next = p->next;
    if (p->dropped) {
      prev = p, p = next;
      continue;
    }
    size_t& g = report->groups;
    if (g == 0 || strcmp(groups[g - 1].sensorId, p->sensorId) != 0) {
      groups[g++] = {strcpy(text, p->sensorId), 0};
      text += strlen(text) + 1;
    }
    groups[g - 1].count++;
    n--;
    if (p->sentMs != 0) {
      // Its answer is still to come and must not be taken for a later one's.
      store->count--;
      store->bytes -= p->bytes;
      p->bytes = 0;
      p->dropped = true;
      prev = p;
    } else {
      Unlink(store, prev, p);
      free(p);
    }
    p = next;
  }
}

void Report(DAXO_Client* client, const DropReport& report, DAXO_PushDropReason reason) noexcept {
  DAXO_OnPushDropped onDropped = daxo::Get(client->OnPushDropped);
  for (size_t i = 0; i < report.groups; ++i) {
    const DropGroup& g = report.block.get()[i];
    daxo::LogFormat(client, "Push store: %d push%s of sensor %s dropped (%s)", g.count,
                    g.count == 1 ? "" : "es", g.sensorId,
                    reason == DAXO_PushDrop_StoreFull ? "the store is full" : "the client ended");
    if (onDropped != nullptr)
      onDropped(client, client->callbackParameter, g.sensorId, g.count, reason);
  }
}

// How many of the oldest pushes must go for bytes more to fit; -1: never.
long long ToDrop(const PushStoreTag* store, size_t bytes) noexcept {
  if (bytes > store->maxBytes) return -1;
  size_t freed = 0;
  long long n = 0;
  for (const KeptPush* p = store->head; p != nullptr; p = p->next) {
    if (store->bytes - freed + bytes <= store->maxBytes) break;
    if (p->dropped) continue;
    freed += p->bytes;
    n++;
  }
  return n;
}

// Makes room for push under the policy, then keeps it. The file's deletes
// and insert are one transaction, and memory follows only once it is
// committed: a failed write drops nothing.
DAXO_Error Keep(PushStoreTag* store, KeptPush* push, DropReport* report) noexcept {
  long long n = ToDrop(store, push->bytes);
  if (n < 0 || (n > 0 && store->policy == PushStoreRefuse)) return DAXO_Error_PushStoreFull;
  auto drop = static_cast<size_t>(n);
  if (drop > 0 && !AllocateReport(store, drop, report)) return DAXO_Error_NoMemory;
  DAXO_Error err = daxo::BeginWrite(store);
  if (err != DAXO_Error_Success) return err;
  size_t left = drop;
  for (KeptPush* p = store->head; p != nullptr && left > 0 && err == DAXO_Error_Success;
       p = p->next) {
    if (p->dropped) continue;
    err = daxo::DeleteRow(store, p);
    left--;
  }
  if (err == DAXO_Error_Success) err = daxo::InsertRow(store, push);
  if (err == DAXO_Error_Success) err = daxo::EndWrite(store, true);
  if (err != DAXO_Error_Success) {
    daxo::EndWrite(store, false);
    return err;
  }
  if (drop > 0) ApplyDrops(store, drop, report);
  daxo::AppendKept(store, push);
  return DAXO_Error_Success;
}

// Rows a file kept for another identity (the client was provisioned anew):
// that client's topics are not this one's to publish on, and its sensors
// are not this one's. Returns how many were dropped.
int DropForeign(const DAXO_Client* client, PushStoreTag* store) noexcept {
  daxo::CStr prefix = daxo::Format("/%s/%s/", daxo::kApiVersion, client->clientId);
  if (!prefix) return 0;  // kept: a wrong topic is refused later, not lost
  size_t length = strlen(prefix.get());
  int dropped = 0;
  KeptPush* prev = nullptr;
  for (KeptPush* p = store->head; p != nullptr;) {
    KeptPush* next = p->next;
    if (strncmp(p->topic, prefix.get(), length) == 0) {
      prev = p;
    } else {
      daxo::DeleteRow(store, p);
      Unlink(store, prev, p);
      free(p);
      dropped++;
    }
    p = next;
  }
  return dropped;
}

// A file written under a larger PushStoreMaxBytes: "drop-oldest" drops
// what is over the bound now, "refuse" keeps it and refuses new pushes
// until it has drained.
DAXO_Error Shrink(PushStoreTag* store, DropReport* report) noexcept {
  long long n = ToDrop(store, 0);
  if (n <= 0 || store->policy == PushStoreRefuse) return DAXO_Error_Success;
  auto drop = static_cast<size_t>(n);
  if (!AllocateReport(store, drop, report)) return DAXO_Error_NoMemory;
  DAXO_Error err = daxo::BeginWrite(store);
  size_t left = drop;
  for (KeptPush* p = store->head; p != nullptr && left > 0 && err == DAXO_Error_Success;
       p = p->next, left--)
    err = daxo::DeleteRow(store, p);
  if (err == DAXO_Error_Success) err = daxo::EndWrite(store, true);
  if (err != DAXO_Error_Success) {
    daxo::EndWrite(store, false);
    report->block.reset();
    return err;
  }
  ApplyDrops(store, drop, report);
  return DAXO_Error_Success;
}

void FreeKept(PushStoreTag* store) noexcept {
  for (KeptPush* p = store->head; p != nullptr;) free(std::exchange(p, p->next));
  store->head = store->tail = store->unsent = nullptr;
}

}  // namespace

namespace daxo {

KeptPush* NewKeptPush(const char* sensorId, size_t sensorLength, const char* topic,
                      size_t topicLength, const char* payload, int length) noexcept {
  size_t size = sizeof(KeptPush) + sensorLength + topicLength + static_cast<size_t>(length) + 3;
  auto* push = static_cast<KeptPush*>(calloc(1, size));
  if (push == nullptr) return nullptr;
  char* text = reinterpret_cast<char*>(push + 1);
  push->sensorId = static_cast<char*>(memcpy(text, sensorId, sensorLength));
  push->topic = static_cast<char*>(memcpy(text + sensorLength + 1, topic, topicLength));
  push->payload = static_cast<char*>(memcpy(push->topic + topicLength + 1, payload, length));
  push->length = length;
  push->bytes = size;
  return push;
}

void AppendKept(PushStoreTag* store, KeptPush* push) noexcept {
  (store->tail != nullptr ? store->tail->next : store->head) = push;
  store->tail = push;
  if (store->unsent == nullptr) store->unsent = push;
  store->count++;
  store->bytes += push->bytes;
}

DAXO_Error OpenPushStore(DAXO_Client* client) noexcept {
  if (client->pushStorePath == nullptr) return DAXO_Error_Success;
  DbOpen opened{DAXO_Error_Success, false, {}};
  DropReport shrunk;
  int foreign = 0;
  size_t kept = 0;
  bool persistent = strcmp(client->pushStorePath, "memory") != 0;
  {
    // Two DAXO_Connect at once must not both open the file: the loser
    // could move aside the file the winner has open.
    MutexLock open(&gOpenMutex);
    if (PushStoreTag* store = StoreOf(client)) {
      // The identity may have changed since (deprovisioned, provisioned anew).
      if (!store->db) return DAXO_Error_Success;
      MutexLock lock(&store->mutex);
      foreign = DropForeign(client, store);
    } else {
      auto* made = new (std::nothrow) PushStoreTag{};
      if (made == nullptr) return DAXO_Error_NoMemory;
      made->maxBytes = static_cast<size_t>(client->pushStoreMaxBytes);
      made->policy = client->pushStorePolicy;
      if (persistent) {
        opened = OpenDatabase(client, made);
        if (opened.err == DAXO_Error_Success) opened.err = LoadRows(made);
        if (opened.err == DAXO_Error_Success) foreign = DropForeign(client, made);
        if (opened.err == DAXO_Error_Success &&
            (opened.err = Shrink(made, &shrunk)) != DAXO_Error_Success)
          snprintf(opened.why, sizeof opened.why,
                   "what it holds over PushStoreMaxBytes cannot be dropped");
      }
      if (opened.err != DAXO_Error_Success) {
        FreeKept(made);
        delete made;
      } else {
        kept = made->count;
        pthread_mutex_init(&made->mutex, nullptr);
        __atomic_store_n(&client->pushStore, made, __ATOMIC_RELEASE);
      }
    }
  }
  if (opened.err != DAXO_Error_Success) {
    LogFormat(client, "Push store %s cannot be used: %s", client->pushStorePath, opened.why);
    return opened.err;
  }
  DAXO_OnPushDropped onDropped = Get(client->OnPushDropped);
  if (foreign > 0) {
    LogFormat(client, "Push store %s: %d push%s of another client identity dropped",
              client->pushStorePath, foreign, foreign == 1 ? "" : "es");
    if (onDropped != nullptr)
      onDropped(client, client->callbackParameter, nullptr, foreign, DAXO_PushDrop_OtherIdentity);
  }
  if (opened.movedAside) {
    LogFormat(client, "Push store %s: %s", client->pushStorePath, opened.why);
    if (onDropped != nullptr)
      onDropped(client, client->callbackParameter, nullptr, 0, DAXO_PushDrop_StoreCorrupt);
  }
  Report(client, shrunk, DAXO_PushDrop_StoreFull);
  if (kept > 0)
    LogFormat(client, "Push store %s: %zu push%s kept from before", client->pushStorePath, kept,
              kept == 1 ? "" : "es");
  return DAXO_Error_Success;
}

DAXO_Error StorePush(DAXO_Client* client, const char* sensorId, const char* topic,
                     const char* payload) noexcept {
  PushStoreTag* store = StoreOf(client);
  if (store == nullptr) return DAXO_Error_NoConnectionToServer;  // before DAXO_Connect
  // A topic the transport refuses would stay at the head of the store for
  // ever, and a sensor id with levels of its own would never be matched by
  // its answer.
  if (strchr(sensorId, '/') != nullptr || mosquitto_pub_topic_check(topic) != MOSQ_ERR_SUCCESS)
    return DAXO_Error_InvalidArguments;
  KeptPush* push = NewKeptPush(sensorId, strlen(sensorId), topic, strlen(topic), payload,
                               static_cast<int>(strlen(payload)));
  if (push == nullptr) return DAXO_Error_NoMemory;
  DropReport report;
  DAXO_Error err;
  {
    MutexLock lock(&store->mutex);
    err = Keep(store, push, &report);
    if (err == DAXO_Error_Success) Pump(client, store);
  }
  if (err != DAXO_Error_Success) {
    free(push);
    if (err == DAXO_Error_PushStoreFull)
      LogFormat(client, "Push store full (%d bytes): push to sensor %s refused",
                client->pushStoreMaxBytes, sensorId);
    else
      LogFormat(client, "Push store: push to sensor %s not kept, nothing dropped (%s)", sensorId,
                DAXO_ErrorName(err));
    return err;
  }
  Report(client, report, DAXO_PushDrop_StoreFull);
  LogPayload(client, "PushKept", nullptr, payload);
  return DAXO_Error_Success;
}

void StoreAnswered(DAXO_Client* client, const char* sensorId, DAXO_ApiError code) noexcept {
  PushStoreTag* store = StoreOf(client);
  if (store == nullptr) return;
  bool matched = false;
  {
    MutexLock lock(&store->mutex);
    for (KeptPush* p = store->head; p != store->unsent; p = p->next) {
      if (p->answered || strcmp(p->sensorId, sensorId) != 0) continue;
      p->answered = matched = true;
      p->code = code;
      break;
    }
  }
  if (!matched)
    LogFormat(client, "Push store: an answer for sensor %s matches no kept push", sensorId);
}

bool StoreCheckAnswered(DAXO_Client* client) noexcept {
  PushStoreTag* store = StoreOf(client);
  if (store == nullptr) return false;
  KeptPush* delivered = nullptr;
  int again = 0;
  {
    MutexLock lock(&store->mutex);
    if (store->appChecksBefore > 0) {
      store->appChecksBefore--;
      return false;
    }
    if (!store->fenceOut) {
      if (store->appChecksAfter > 0) store->appChecksAfter--;
      return false;
    }
    store->fenceOut = false;
    store->appChecksBefore = std::exchange(store->appChecksAfter, 0);
    if (store->ready) {
      again = Settle(store, &delivered);
    } else {
      // What it had not answered before this check never reached it.
      store->ready = true;
      Rewind(store);
    }
    Pump(client, store);
  }
  if (again > 0)
    LogFormat(client, "Push store: %d push%s of a batch with a lost push sent again", again,
              again == 1 ? "" : "es");
  Deliver(client, delivered);
  return true;
}

DAXO_Error StoreCheck(DAXO_Client* client) noexcept {
  PushStoreTag* store = StoreOf(client);
  MutexLock lock(&store->mutex);
  daxo::CStr topic = daxo::Format("/%s/%s/ping", daxo::kApiVersion, client->clientId);
  if (!topic) return DAXO_Error_NoMemory;
  if (!PublishNow(client, topic.get(), kCheckPayload, sizeof kCheckPayload - 1))
    return DAXO_Error_NoConnectionToServer;
  (store->fenceOut ? store->appChecksAfter : store->appChecksBefore)++;
  return DAXO_Error_Success;
}

void StoreOnline(DAXO_Client* client) noexcept {
  PushStoreTag* store = StoreOf(client);
  if (store == nullptr) return;
  MutexLock lock(&store->mutex);
  store->online = true;
  store->ready = false;
  // What was sent on the last connection stays marked sent until the check
  // is answered; no answer to a check sent on it can come.
  store->appChecksBefore = store->appChecksAfter = 0;
  store->fenceOut = false;
  SendCheck(client, store);
}

void StoreOffline(DAXO_Client* client) noexcept {
  PushStoreTag* store = StoreOf(client);
  if (store == nullptr) return;
  MutexLock lock(&store->mutex);
  store->online = false;
  store->ready = false;
}

void SuperviseStore(DAXO_Client* client) noexcept {
  PushStoreTag* store = StoreOf(client);
  if (store == nullptr) return;
  bool quiet = false;
  {
    MutexLock lock(&store->mutex);
    if (!store->online) return;
    Pump(client, store);  // what the transport could not take before
    long long now = NowMs();
    if (store->ready) {
      if (!store->fenceOut || now - store->checkSentMs < kQuietMs) return;
      store->ready = false;
      quiet = true;
      SendCheck(client, store);
    } else if (!store->fenceOut || now - store->checkSentMs >= kCheckRetryMs) {
      SendCheck(client, store);
    }
  }
  if (quiet)
    LogFormat(client, "Push store: a batch unanswered for %lld s; checking the agent hears",
              kQuietMs / 1000);
}

size_t StoredPushCount(const DAXO_Client* client) noexcept {
  PushStoreTag* store = StoreOf(client);
  if (store == nullptr) return 0;
  MutexLock lock(&store->mutex);
  return store->count;
}

void DropMemoryStore(DAXO_Client* client) noexcept {
  PushStoreTag* store = StoreOf(client);
  if (store == nullptr || store->db) return;
  DropReport report;
  size_t unreported = 0;
  {
    MutexLock lock(&store->mutex);
    if (store->count > 0 && AllocateReport(store, store->count, &report)) {
      ApplyDrops(store, store->count, &report);
    } else if (store->count > 0) {
      // Without memory to name the sensors the pushes still go, reported as one run.
      unreported = store->count;
      FreeKept(store);
      store->count = store->bytes = 0;
      store->inFlight = 0;
    }
  }
  if (unreported != 0) {
    LogFormat(client, "Push store: %zu pushes dropped (the client ended)", unreported);
    if (DAXO_OnPushDropped onDropped = Get(client->OnPushDropped))
      onDropped(client, client->callbackParameter, nullptr, static_cast<int>(unreported),
                DAXO_PushDrop_ClientEnded);
  }
  Report(client, report, DAXO_PushDrop_ClientEnded);
}

void ClosePushStore(DAXO_Client* client) noexcept {
  PushStoreTag* store = StoreOf(client);
  if (store == nullptr) return;
  DropMemoryStore(client);
  __atomic_store_n(&client->pushStore, nullptr, __ATOMIC_RELEASE);
  FreeKept(store);
  pthread_mutex_destroy(&store->mutex);
  delete store;
}

}  // namespace daxo
