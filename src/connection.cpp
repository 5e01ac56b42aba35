// The main MQTT instance: connecting, its handlers, sending, disconnecting
// and the deprovisioning completion.
#include <cerrno>
#include <utility>

#include "daxo_internal.h"
#include "string_utils.h"

namespace {

using daxo::CStr;
using daxo::Format;

// The connection check body, sent without its NUL.
constexpr char kCheckPayload[] = "{\"request\":\"CheckProvisioning\"}";

DAXO_Client* ClientOf(struct mosquitto* mosq, void* obj) noexcept {
  return mosq != nullptr ? static_cast<DAXO_Client*>(obj) : nullptr;
}

void ReportConnect(DAXO_Client* client, DAXO_Error err) noexcept {
  if (DAXO_OnConnect onConnect = daxo::Get(client->OnConnect))
    onConnect(client, client->callbackParameter, err);
}

// A connection without its subscription cannot hear the agent: it is
// reported as failed, and the next reconnection subscribes again.
void ReportRefusedSubscription(DAXO_Client* client, const char* why) noexcept {
  daxo::LogFormat(client, "Connection to %s:%d: subscription to the client's topics %s",
                  client->mqttHost, client->mqttPort, why);
  ReportConnect(client, DAXO_Error_ConnectionFailed);
}

// Subscribes to the client's tree; the application hears of the connection
// only when the subscription is acknowledged.
void ConnectCallback(struct mosquitto* mosq, void* obj, int result) noexcept {
  daxo::LibraryThreadScope libraryThread;
  DAXO_Client* client = ClientOf(mosq, obj);
  if (client == nullptr) return;
  if (result != 0) {
    // Heard through OnConnect: the watch thread has nothing more to report.
    daxo::Store(client->mainWatch.lossReported, 1);
    return ReportConnect(client, daxo::NoteRefusal(daxo::MainEndpoint(client), result));
  }
  daxo::WatchConnected(client->mainWatch);
  CStr filter = Format("/%s/%s/#", daxo::kApiVersion, client->clientId);
  if (!filter) {
    ReportConnect(client, DAXO_Error_NoMemory);
    LogMessage(client, "ConnectCallback: No Memory");
    return;
  }
  // This instance's own thread: the owner replaces client->mosq only after
  // joining it.
  MosquittoInterface* mi = client->mosq;
  if (mi->mosquittoSubscribeFunction(mi, nullptr, filter.get(), 2) != MOSQ_ERR_SUCCESS)
    ReportRefusedSubscription(client, "could not be sent");
}

constexpr int kSubscriptionRefused = 0x80;

void SubscribeCallback(struct mosquitto* /*mosq*/, void* obj, int /*mid*/, int qosCount,
                       const int* grantedQos) noexcept {
  daxo::LibraryThreadScope libraryThread;
  auto* client = static_cast<DAXO_Client*>(obj);
  if (client == nullptr) return;
  if (qosCount < 1 || grantedQos == nullptr || grantedQos[0] == kSubscriptionRefused)
    return ReportRefusedSubscription(client, "was refused by the broker");
  daxo::StoreOnline(client);
  ReportConnect(client, DAXO_Error_Success);
}

// A connection the broker never accepted is a failed attempt, reported
// with its reason by the watch thread (a refusal already reached OnConnect);
// only the loss of an accepted one is an outage starting now.
void DisconnectCallback(struct mosquitto* /*mosq*/, void* obj, int result) noexcept {
  daxo::LibraryThreadScope libraryThread;
  auto* client = static_cast<DAXO_Client*>(obj);
  if (client == nullptr) return;
  if (result != 0 && !daxo::Load(client->mainWatch.connected)) {
    if (result != MOSQ_ERR_CONN_REFUSED)
      daxo::NoteClosedBeforeAccepted(daxo::MainEndpoint(client), result);
    return;
  }
  if (result != 0)
    daxo::LogFormat(client, "Connection to %s:%d lost: %s", client->mqttHost, client->mqttPort,
                    result == MOSQ_ERR_KEEPALIVE ? "no answer within the keep-alive"
                                                 : mosquitto_strerror(result));
  daxo::WatchLost(client->mainWatch, result != 0);
  daxo::StoreOffline(client);
  if (DAXO_OnDisconnect onDisconnect = daxo::Get(client->OnDisconnect))
    onDisconnect(client, client->callbackParameter,
                 result == 0 ? DAXO_Error_Success : DAXO_Error_UnexpectedDisconnect);
}

// Completes a deprovisioning once the broker acknowledges its request. The
// watch thread goes on (it owns the connections); it only stops checking
// certificates that are gone.
void PublishCallback(struct mosquitto* /*mosq*/, void* obj, int mid) noexcept {
  daxo::LibraryThreadScope libraryThread;
  auto* client = static_cast<DAXO_Client*>(obj);
  // Without a deprovision callback the completion is not carried out, as if
  // no handler were installed.
  if (client == nullptr) return;
  DAXO_OnDeprovisionClient onDeprovision = daxo::Get(client->OnDeprovisionClient);
  if (onDeprovision == nullptr || mid != client->messageId) return;
  client->messageId = 0;
  daxo::Store(client->dailyChecksOff, 1);
  DeleteCertificates(client);
  daxo::DropMemoryStore(client);
  onDeprovision(client, client->callbackParameter);
}

// libmosquitto may read errno after a line it logged.
void LibraryLogCallback(struct mosquitto* mosq, void* obj, int level, const char* str) noexcept {
  daxo::LibraryThreadScope libraryThread;
  int e = errno;
  if (DAXO_Client* client = ClientOf(mosq, obj); client != nullptr && str != nullptr)
    daxo::NoteTransportLine(daxo::MainEndpoint(client), str);
  LogCallback(mosq, obj, level, str);
  errno = e;
}

void MainMessageCallback(struct mosquitto* mosq, void* obj,
                         const struct mosquitto_message* message) noexcept {
  daxo::LibraryThreadScope libraryThread;
  MessageCallback(mosq, obj, message);
}

// Takes an instance out of the client once its network thread has stopped;
// publishers that still hold it finish first.
void Detach(DAXO_Client* client, MosquittoInterface* DAXO_Client::*field) noexcept {
  MosquittoInterface* mi;
  {
    daxo::MutexLock lock(&client->instanceMutex);
    mi = std::exchange(client->*field, nullptr);
  }
  client->destroyMosquittoClientFunction(mi);
}

void ReleaseMain(DAXO_Client* client) noexcept {
  if (client->mosq == nullptr) return;
  daxo::DisconnectMain(client);
  Detach(client, &DAXO_Client::mosq);
}

void InstallHandlers(MosquittoInterface* mi) noexcept {
  mi->mosquittoReconnectDelaySetFunction(mi, 1, 1, 0);
  mi->mosquittoLogCallbackSetFunction(mi, LibraryLogCallback);
  mi->mosquittoConnectCallbackSetFunction(mi, ConnectCallback);
  mi->mosquittoDisconnectConnectCallbackSetFunction(mi, DisconnectCallback);
  mi->mosquittMessageCallbackSetFunction(mi, MainMessageCallback);
  mi->mosquittoSubscribeCallbackSetFunction(mi, SubscribeCallback);
  // Always installed: setting it later, from the application's thread,
  // would take libmosquitto's callback lock while a callback on the network
  // thread may be waiting to send.
  mi->mosquittoPublishCallbackSetFunction(mi, PublishCallback);
}

DAXO_Error SetClientTls(DAXO_Client* client, MosquittoInterface* mi) noexcept {
  CStr cert = Format("%s/%s", client->certFolder, daxo::kCertFileName);
  CStr key = Format("%s/%s", client->certFolder, daxo::kKeyFileName);
  if (!cert || !key) return DAXO_Error_NoMemory;
  int rc = mi->mosquittoTlsSetFunction(mi, client->caFile, nullptr, cert.get(), key.get(), nullptr);
  if (rc == MOSQ_ERR_SUCCESS) return DAXO_Error_Success;
  daxo::LogFormat(client, "Connection to %s:%d: the TLS files %s, %s and %s cannot be used: %s",
                  client->mqttHost, client->mqttPort, client->caFile, cert.get(), key.get(),
                  mosquitto_strerror(rc));
  return DAXO_Error_TlsSetFailed;
}

}  // namespace

extern "C" DAXO_Error ConnectInternal(DAXO_Client* client, MosquittoInterface* mosquitto) noexcept {
  if (client == nullptr || client->clientId == nullptr) return DAXO_Error_InvalidArguments;
  if (DAXO_Error err = daxo::OpenPushStore(client); err != DAXO_Error_Success) return err;
  return daxo::RunOnOwner(client, OwnerConnect, mosquitto);
}

extern "C" DAXO_Error SendMessageToAgent(DAXO_Client* client, const char* topic,
                                         const char* message, int message_len,
                                         int* messageId) noexcept {
  if (client == nullptr || topic == nullptr || message == nullptr)
    return DAXO_Error_InvalidArguments;
  DAXO_Error err;
  bool onMain;
  {
    daxo::MutexLock lock(&client->instanceMutex);
    onMain = client->mosq != nullptr;
    MosquittoInterface* mi = onMain ? client->mosq : client->mosqProvision;
    const ConnectionWatch& watch = onMain ? client->mainWatch : client->provisionWatch;
    err = watch.sendable ? daxo::PublishOn(mi, topic, message, message_len, messageId)
                         : DAXO_Error_NoConnectionToServer;
  }
  if (onMain) daxo::LogPayload(client, "SendMessage", nullptr, message);
  return err;
}

namespace daxo {

DAXO_Error CheckConnection(DAXO_Client* client) noexcept {
  CStr topic = Format("/%s/%s/ping", daxo::kApiVersion, client->clientId);
  if (!topic) return DAXO_Error_NoMemory;
  if (PushStoreOn(client)) {
    DAXO_Error err = StoreCheck(client);
    if (err == DAXO_Error_Success) LogPayload(client, "SendMessage", nullptr, kCheckPayload);
    return err;
  }
  return SendMessageToAgent(client, topic.get(), kCheckPayload, sizeof kCheckPayload - 1, nullptr);
}

DAXO_Error PublishOn(MosquittoInterface* mi, const char* topic, const char* message, int length,
                     int* messageId) noexcept {
  if (mi == nullptr) return DAXO_Error_NoConnectionToServer;
  return PublishResultToError(
      mi->mosquittoPublishFunction(mi, messageId, topic, length, message, 2, 0));
}

DAXO_Error ConnectNow(DAXO_Client* client, MosquittoInterface* record) noexcept {
  // A broken or expired identity is named here: TLS would only say that the
  // broker refused it.
  RecoverIdentity(client);
  if (DAXO_Error err = CheckStoredIdentity(client); err != DAXO_Error_Success) return err;
  ReleaseProvisioning(client);
  ReleaseMain(client);
  errno = 0;
  MosquittoInterface* mi = client->createMosquittoClientFunction(record, client->clientId, 1, client);
  if (mi == nullptr) return errno == ENOMEM ? DAXO_Error_NoMemory : DAXO_Error_InvalidArguments;
  {
    MutexLock lock(&client->instanceMutex);
    client->mosq = mi;
  }
  InstallHandlers(mi);
  if (DAXO_Error err = SetClientTls(client, mi); err != DAXO_Error_Success) return err;
  LogFormat(client, "Connecting: host - %s, port - %d, keep_alive - %d", client->mqttHost,
            client->mqttPort, client->mqttKeepAlive);
  Store(client->mainWatch.lossReported, 0);
  ForgetFailures(client->mainWatch);
  __atomic_store_n(&client->mainWatch.downSinceMs, 0, __ATOMIC_RELEASE);
  DAXO_Error err = StartAttempt(MainEndpoint(client), mi);
  if (err == DAXO_Error_Success) {
    Store(client->polling, 1);
    Store(client->wantMain, 0);  // from now on the running attempt is supervised
  }
  return err;
}

DAXO_Error DisconnectMain(DAXO_Client* client) noexcept {
  if (!Load(client->polling)) return DAXO_Error_Success;
  SetSendable(client, client->mainWatch, 0);
  StoreOffline(client);
  MosquittoInterface* mi = client->mosq;
  int rc = mi->mosquittoDisconnectFunction(mi);
  Store(client->polling, 0);
  if (rc == MOSQ_ERR_INVAL) return DAXO_Error_InvalidArguments;
  if (rc == MOSQ_ERR_NOT_SUPPORTED) return DAXO_Error_NoThreadSupport;
  // A thread whose connection never came up does not act on the request;
  // only a forced stop ends it.
  bool force = rc != MOSQ_ERR_SUCCESS || !Load(client->mainWatch.connected);
  mi->mosquittoLoopStopFunction(mi, force);
  return DAXO_Error_Success;
}

void ReleaseProvisioning(DAXO_Client* client) noexcept {
  if (client->mosqProvision == nullptr) return;
  ProvisionDisconnect(client);
  Detach(client, &DAXO_Client::mosqProvision);
}

void ReleaseConnections(DAXO_Client* client) noexcept {
  Store(client->wantMain, 0);
  ReleaseMain(client);
  ReleaseProvisioning(client);
}

// Nobody waited for this connection: the owner tries again later.
void ReportConnectFailure(DAXO_Client* client, DAXO_Error err) noexcept {
  Store(client->wantMain, 1);
  LogFormat(client, "Connection to %s:%d could not be started: %s", client->mqttHost,
            client->mqttPort, DAXO_ErrorName(err));
  ReportConnect(client, err);
}

}  // namespace daxo
