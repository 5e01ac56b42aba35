// Connection supervision, run by the owner. libmosquitto gives up without
// any callback in two cases: an asynchronous connect refused by the broker's
// host never completes (its thread spins on the dead socket, holding a
// core), and a TLS failure while reconnecting ends the network thread. A
// refused connection is therefore stopped at once and tried again a second
// later, and an attempt with no socket that has not been accepted within its
// grace is restarted; the grace grows from 10 s to 60 s. An attempt whose
// socket is open (connecting, or in its TLS handshake) is left to
// libmosquitto, however slow the link. The application hears of the outage
// once.
#include <cerrno>
#include <ctime>

#include "daxo_internal.h"

namespace {

constexpr long long kFirstGraceMs = 10000;
constexpr long long kLongestGraceMs = 60000;
// The application hears of a connection that does not come up after this,
// whatever the grace of the attempt.
constexpr long long kReportMs = 2000;
// A refused connection is tried again after this, as libmosquitto retries a
// lost one.
constexpr long long kRetryMs = 1000;
// How long a new attempt may take to be refused before its loop starts:
// a refusal comes within a round trip.
constexpr int kRefusalWaitMs = 100;

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

// Down for that long, however many attempts were made meanwhile.
bool DownFor(const ConnectionWatch& watch, long long after) noexcept {
  long long since = Read(watch.downSinceMs);
  return !daxo::Load(watch.connected) && since != 0 && daxo::NowMs() - since >= after;
}

void Grow(ConnectionWatch& watch) noexcept {
  long long longer = Read(watch.graceMs) * 2;
  Write(watch.graceMs, Jittered(longer < kLongestGraceMs ? longer : kLongestGraceMs));
}

// Stops whatever the instance's thread is doing (it may be parked for good).
void StopAttempt(const daxo::Endpoint& at, MosquittoInterface* mi) noexcept {
  daxo::SetSendable(at.client, at.watch, 0);
  mi->mosquittoDisconnectFunction(mi);
  mi->mosquittoLoopStopFunction(mi, 1);
}

// A new attempt with a longer grace than the last; a failed start names its
// reason itself.
void Restart(const daxo::Endpoint& at, MosquittoInterface* mi) noexcept {
  daxo::LogFormat(at.client, "Connection to %s:%d not established within %lld s; trying again",
                  at.client->mqttHost, at.port, Read(at.watch.graceMs) / 1000);
  StopAttempt(at, mi);
  Grow(at.watch);
  daxo::StartAttempt(at, mi);
}

// One attempt of an instance that has not been accepted yet.
void SuperviseAttempt(const daxo::Endpoint& at, MosquittoInterface* mi) noexcept {
  ConnectionWatch& watch = at.watch;
  if (daxo::Load(watch.connected)) return;
  if (long long retryAt = Read(watch.retryAtMs); retryAt != 0) {
    if (daxo::NowMs() >= retryAt) daxo::StartAttempt(at, mi);
    return;
  }
  int errnum = 0;
  switch (daxo::MosquittoSocketState(mi, 0, &errnum)) {
    case daxo::SocketState::kFailed:
      daxo::NoteSocketFailure(at, errnum);
      StopAttempt(at, mi);
      Write(watch.retryAtMs, daxo::NowMs() + kRetryMs);
      return;
    case daxo::SocketState::kOpen:
      return;  // libmosquitto is still working on it
    case daxo::SocketState::kNone:
    case daxo::SocketState::kUnknown:
      if (Stalled(watch, Read(watch.graceMs))) Restart(at, mi);
      return;
  }
}

// True once per outage of the main connection: the application is to hear
// of it before any new attempt can succeed.
bool OutageToReport(DAXO_Client* client) noexcept {
  return !__atomic_exchange_n(&client->mainWatch.lossReported, 1, __ATOMIC_ACQ_REL);
}

// With ownerMutex held; the reason of an outage the application is to hear
// of, or Success.
DAXO_Error SuperviseMain(DAXO_Client* client) noexcept {
  ConnectionWatch& watch = client->mainWatch;
  if (daxo::Load(client->wantMain)) {
    // The last connection could not even be started: start a new one once
    // its grace has passed.
    if (Waited(watch) < Read(watch.graceMs)) return DAXO_Error_Success;
    Grow(watch);
    if (daxo::ConnectNow(client, nullptr) != DAXO_Error_Success) daxo::WatchAttempt(watch);
    return DAXO_Error_Success;
  }
  if (!daxo::Load(client->polling)) return DAXO_Error_Success;
  // The attempt first: a connection that has just failed names its reason.
  daxo::Endpoint at = daxo::MainEndpoint(client);
  SuperviseAttempt(at, client->mosq);
  // A renewal's trial answers for its own connection: a failure puts the
  // old files back rather than reaching OnDisconnect.
  if (daxo::Load(client->renewalTrial) != RenewalTrialNone) return DAXO_Error_Success;
  if (!DownFor(watch, kReportMs) || !OutageToReport(client)) return DAXO_Error_Success;
  return daxo::OutageReason(at, kReportMs);
}

// Only the first connection of the provisioning instance is looked after:
// an exchange that cannot start must not wait for ever.
void SuperviseProvisioning(DAXO_Client* client) noexcept {
  if (daxo::Load(client->provisionLoopStarted))
    SuperviseAttempt(daxo::ProvisionEndpoint(client), client->mosqProvision);
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
  Store(watch.tlsFailure, 0);
  Write(watch.retryAtMs, 0);
  if (Read(watch.downSinceMs) == 0) Write(watch.downSinceMs, NowMs());
  Write(watch.sinceMs, NowMs());
  if (Read(watch.graceMs) == 0) Write(watch.graceMs, kFirstGraceMs);
}

void WatchConnected(ConnectionWatch& watch) noexcept {
  Store(watch.lossReported, 0);
  ForgetFailures(watch);
  Store(watch.connected, 1);
  Write(watch.graceMs, kFirstGraceMs);
  Write(watch.downSinceMs, 0);
}

void WatchLost(ConnectionWatch& watch, bool reported) noexcept {
  if (reported) Store(watch.lossReported, 1);
  Write(watch.downSinceMs, NowMs());
  WatchAttempt(watch);
}

DAXO_Error StartAttempt(const Endpoint& at, MosquittoInterface* mi) noexcept {
  WatchAttempt(at.watch);
  errno = 0;
  int rc =
      mi->mosquittoConnectAsyncFunction(mi, at.client->mqttHost, at.port, at.client->mqttKeepAlive);
  int connectErrno = errno;
  if (rc != MOSQ_ERR_SUCCESS) return NoteStartFailure(at, rc, connectErrno);
  // A refused connection would only make the new thread spin: the attempt
  // counts as started and is tried again a second later.
  int errnum = 0;
  if (MosquittoSocketState(mi, kRefusalWaitMs, &errnum) == SocketState::kFailed) {
    // libmosquitto's TLS step may have read the error off the socket and
    // carried on as if the connection were pending: only errno kept it.
    NoteSocketFailure(at, errnum != 0 ? errnum : connectErrno);
    Write(at.watch.retryAtMs, NowMs() + kRetryMs);
    return DAXO_Error_Success;
  }
  DAXO_Error err = LoopStartResultToError(mi->mosquittoLoopStartFunction(mi));
  if (err == DAXO_Error_Success) SetSendable(at.client, at.watch, 1);
  if (err != DAXO_Error_Success) NoteLoopFailure(at, err);
  return err;
}

void SetSendable(DAXO_Client* client, ConnectionWatch& watch, int sendable) noexcept {
  MutexLock lock(&client->instanceMutex);
  watch.sendable = sendable;
}

void SuperviseConnections(DAXO_Client* client) noexcept {
  DAXO_Error outage;
  {
    MutexLock lock(&client->ownerMutex);
    outage = SuperviseMain(client);
    SuperviseProvisioning(client);
  }
  if (outage != DAXO_Error_Success) {
    if (DAXO_OnDisconnect onDisconnect = Get(client->OnDisconnect))
      onDisconnect(client, client->callbackParameter, outage);
  }
  EndStalledExchange(client);
}

bool NeedsSupervision(const DAXO_Client* client) noexcept {
  return Load(client->polling) || Load(client->provisionLoopStarted) || Load(client->wantMain) ||
         Load(client->renewalTrial) != RenewalTrialNone ||
         __atomic_load_n(&client->provisionDeadlineMs, __ATOMIC_ACQUIRE) != 0;
}

void WakeWatchThread(DAXO_Client* client) noexcept {
  MutexLock lock(&client->certCheckThreadMutex);
  pthread_cond_broadcast(&client->certCheckThreadCondition);
}

}  // namespace daxo
