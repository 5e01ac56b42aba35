// Connection supervision, run by the owner. libmosquitto gives up without
// any callback in two cases: an asynchronous connect issued while the broker
// is unreachable never completes, and a TLS failure while reconnecting ends
// the network thread. An attempt that has not been accepted within its grace
// time is therefore restarted; the grace grows from 10 s to 60 s so that a
// slow link is given time, and the application hears of the outage once.
#include <ctime>

#include "daxo_internal.h"

namespace {

constexpr long long kFirstGraceMs = 10000;
constexpr long long kLongestGraceMs = 60000;
// The application hears of a connection that does not come up after this,
// whatever the grace of the attempt.
constexpr long long kReportMs = 2000;

long long Read(const long long& value) noexcept { return __atomic_load_n(&value, __ATOMIC_ACQUIRE); }
void Write(long long& value, long long v) noexcept { __atomic_store_n(&value, v, __ATOMIC_RELEASE); }

// Up to a tenth more, so that devices that lost the same broker do not all
// come back in the same second.
long long Jittered(long long ms) noexcept {
  static thread_local unsigned state = static_cast<unsigned>(daxo::NowMs()) | 1u;
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return ms + static_cast<long long>(state % static_cast<unsigned>(ms / 10 + 1));
}

long long Waited(const ConnectionWatch& watch) noexcept {
  return daxo::NowMs() - Read(watch.sinceMs);
}

bool Stalled(const ConnectionWatch& watch, long long after) noexcept {
  return !daxo::Load(watch.connected) && Waited(watch) >= after;
}

// Stops whatever the instance's thread is doing (it may be parked for good)
// and starts a new attempt, with a longer grace than the last.
void Restart(DAXO_Client* client, MosquittoInterface* mi, int port,
             ConnectionWatch& watch) noexcept {
  daxo::LogFormat(client, "Connection to %s:%d not established within %lld s; trying again",
                  client->mqttHost, port, Read(watch.graceMs) / 1000);
  mi->mosquittoDisconnectFunction(mi);
  mi->mosquittoLoopStopFunction(mi, 1);
  long long longer = Read(watch.graceMs) * 2;
  Write(watch.graceMs, Jittered(longer < kLongestGraceMs ? longer : kLongestGraceMs));
  if (daxo::StartAttempt(client, mi, port, watch) != DAXO_Error_Success)
    daxo::LogFormat(client, "Connection to %s:%d failed to start", client->mqttHost, port);
}

// True once per outage of the main connection: the application is to hear
// of it before any new attempt can succeed.
bool OutageToReport(DAXO_Client* client) noexcept {
  return !__atomic_exchange_n(&client->mainWatch.lossReported, 1, __ATOMIC_ACQ_REL);
}

// With ownerMutex held; true when the application is to hear of an outage.
bool SuperviseMain(DAXO_Client* client) noexcept {
  ConnectionWatch& watch = client->mainWatch;
  if (daxo::Load(client->wantMain)) {
    // The last connection could not even be started: start a new one once
    // its grace has passed.
    if (Waited(watch) < Read(watch.graceMs)) return false;
    long long longer = Read(watch.graceMs) * 2;
    Write(watch.graceMs, Jittered(longer < kLongestGraceMs ? longer : kLongestGraceMs));
    if (daxo::ConnectNow(client, nullptr) != DAXO_Error_Success) daxo::WatchAttempt(watch);
    return false;
  }
  if (!daxo::Load(client->polling)) return false;
  bool report = Stalled(watch, kReportMs) && OutageToReport(client);
  if (Stalled(watch, Read(watch.graceMs)))
    Restart(client, client->mosq, client->mqttPort, watch);
  return report;
}

// Only the first connection of the provisioning instance is looked after:
// an exchange that cannot start must not wait for ever.
void SuperviseProvisioning(DAXO_Client* client) noexcept {
  ConnectionWatch& watch = client->provisionWatch;
  if (daxo::Load(client->provisionLoopStarted) && Stalled(watch, Read(watch.graceMs)))
    Restart(client, client->mosqProvision, client->mqttProvisionPort, watch);
}

}  // namespace

namespace daxo {

long long NowMs() noexcept {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

void WatchAttempt(ConnectionWatch& watch) noexcept {
  Store(watch.connected, 0);
  Write(watch.sinceMs, NowMs());
  if (Read(watch.graceMs) == 0) Write(watch.graceMs, kFirstGraceMs);
}

void WatchConnected(ConnectionWatch& watch) noexcept {
  Store(watch.lossReported, 0);
  Store(watch.connected, 1);
  Write(watch.graceMs, kFirstGraceMs);
}

void WatchLost(ConnectionWatch& watch, bool reported) noexcept {
  if (reported) Store(watch.lossReported, 1);
  WatchAttempt(watch);
}

DAXO_Error StartAttempt(DAXO_Client* client, MosquittoInterface* mi, int port,
                        ConnectionWatch& watch) noexcept {
  WatchAttempt(watch);
  int rc = mi->mosquittoConnectAsyncFunction(mi, client->mqttHost, port, client->mqttKeepAlive);
  if (rc != MOSQ_ERR_SUCCESS) return ConnectResultToError(rc);
  rc = mi->mosquittoLoopStartFunction(mi);
  return LoopStartResultToError(rc);
}

void SuperviseConnections(DAXO_Client* client) noexcept {
  bool outage;
  {
    MutexLock lock(&client->ownerMutex);
    outage = SuperviseMain(client);
    SuperviseProvisioning(client);
  }
  if (outage) {
    if (DAXO_OnDisconnect onDisconnect = Get(client->OnDisconnect))
      onDisconnect(client, client->callbackParameter, DAXO_Error_UnexpectedDisconnect);
  }
  EndStalledExchange(client);
}

bool NeedsSupervision(const DAXO_Client* client) noexcept {
  return Load(client->polling) || Load(client->provisionLoopStarted) || Load(client->wantMain) ||
         __atomic_load_n(&client->provisionDeadlineMs, __ATOMIC_ACQUIRE) != 0;
}

void WakeWatchThread(DAXO_Client* client) noexcept {
  MutexLock lock(&client->certCheckThreadMutex);
  pthread_cond_broadcast(&client->certCheckThreadCondition);
}

}  // namespace daxo
