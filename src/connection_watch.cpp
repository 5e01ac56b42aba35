// Connection supervision. libmosquitto gives up without any callback in two
// cases: an asynchronous connect issued while the broker is unreachable
// never completes, and a TLS failure while reconnecting ends the network
// thread. The watch thread therefore restarts every attempt that has not
// been accepted within a few seconds, and tells the application once per
// outage.
#include <ctime>

#include "daxo_internal.h"

namespace {

constexpr long long kAttemptMs = 2000;

long long NowMs() noexcept {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

bool Stalled(const ConnectionWatch& watch) noexcept {
  return !daxo::Load(watch.connected) &&
         NowMs() - __atomic_load_n(&watch.sinceMs, __ATOMIC_ACQUIRE) >= kAttemptMs;
}

// With connectionMutex held: stops whatever the instance's thread is doing
// (it may be parked for good) and starts a new attempt.
void Restart(DAXO_Client* client, MosquittoInterface* mi, int port,
             ConnectionWatch& watch) noexcept {
  daxo::LogFormat(client, "Connection to %s:%d not established; trying again", client->mqttHost,
                  port);
  mi->mosquittoDisconnectFunction(mi);
  mi->mosquittoLoopStopFunction(mi, 1);
  if (daxo::StartAttempt(client, mi, port, watch) != DAXO_Error_Success)
    daxo::LogFormat(client, "Connection to %s:%d failed to start", client->mqttHost, port);
}

// True when the main connection is stalled and the application has not yet
// heard of this outage; marks it as heard.
bool MainOutageToReport(DAXO_Client* client) noexcept {
  daxo::MutexLock lock(&client->connectionMutex);
  if (!daxo::Load(client->polling) || !Stalled(client->mainWatch)) return false;
  return !__atomic_exchange_n(&client->mainWatch.lossReported, 1, __ATOMIC_ACQ_REL);
}

void SuperviseMain(DAXO_Client* client) noexcept {
  // The application hears of the outage before any new attempt can succeed,
  // and without the lock held, so that its callback may call the library.
  if (MainOutageToReport(client) && client->OnDisconnect != nullptr)
    client->OnDisconnect(client, client->callbackParameter, DAXO_Error_UnexpectedDisconnect);
  daxo::MutexLock lock(&client->connectionMutex);
  if (daxo::Load(client->polling) && Stalled(client->mainWatch))
    Restart(client, client->mosq, client->mqttPort, client->mainWatch);
}

// Only the first connection of the provisioning instance is looked after:
// an exchange that cannot start must not wait for ever.
void SuperviseProvisioning(DAXO_Client* client) noexcept {
  daxo::MutexLock lock(&client->connectionMutex);
  if (daxo::Load(client->provisionLoopStarted) && Stalled(client->provisionWatch))
    Restart(client, client->mosqProvision, client->mqttProvisionPort, client->provisionWatch);
}

}  // namespace

namespace daxo {

void WatchAttempt(ConnectionWatch& watch) noexcept {
  Store(watch.connected, 0);
  __atomic_store_n(&watch.sinceMs, NowMs(), __ATOMIC_RELEASE);
}

void WatchConnected(ConnectionWatch& watch) noexcept {
  Store(watch.lossReported, 0);
  Store(watch.connected, 1);
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
  SuperviseMain(client);
  SuperviseProvisioning(client);
}

bool NeedsSupervision(const DAXO_Client* client) noexcept {
  return Load(client->polling) || Load(client->provisionLoopStarted);
}

void WakeWatchThread(DAXO_Client* client) noexcept {
  if (!client->certCheckThreadStarted) return;
  MutexLock lock(&client->certCheckThreadMutex);
  pthread_cond_broadcast(&client->certCheckThreadCondition);
}

}  // namespace daxo
