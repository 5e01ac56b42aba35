// The main MQTT instance: connecting, its handlers, sending, disconnecting
// and the deprovisioning completion.
#include <cerrno>

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

// Subscribes to the client's tree; the application hears of the connection
// only when the subscription is acknowledged.
void ConnectCallback(struct mosquitto* mosq, void* obj, int result) noexcept {
  DAXO_Client* client = ClientOf(mosq, obj);
  if (client == nullptr) return;
  if (result != 0) {
    if (client->OnConnect != nullptr)
      client->OnConnect(client, client->callbackParameter, ConvertConnackCode(result));
    return;
  }
  daxo::WatchConnected(client->mainWatch);
  CStr filter = Format("/%s/%s/#", daxo::kApiVersion, client->clientId);
  if (!filter) {
    if (client->OnConnect != nullptr)
      client->OnConnect(client, client->callbackParameter, DAXO_Error_NoMemory);
    LogMessage(client, "ConnectCallback: No Memory");
    return;
  }
  MosquittoInterface* mi = client->mosq;
  mi->mosquittoSubscribeFunction(mi, nullptr, filter.get(), 2);
}

void SubscribeCallback(struct mosquitto* /*mosq*/, void* obj, int /*mid*/, int /*qosCount*/,
                       const int* /*grantedQos*/) noexcept {
  auto* client = static_cast<DAXO_Client*>(obj);
  if (client != nullptr && client->OnConnect != nullptr)
    client->OnConnect(client, client->callbackParameter, DAXO_Error_Success);
}

void DisconnectCallback(struct mosquitto* /*mosq*/, void* obj, int result) noexcept {
  auto* client = static_cast<DAXO_Client*>(obj);
  if (client == nullptr) return;
  daxo::WatchLost(client->mainWatch, result != 0);
  if (client->OnDisconnect == nullptr) return;
  client->OnDisconnect(client, client->callbackParameter,
                       result == 0 ? DAXO_Error_Success : DAXO_Error_UnexpectedDisconnect);
}

// Completes a deprovisioning once the broker acknowledges its request.
void PublishCallback(struct mosquitto* /*mosq*/, void* obj, int mid) noexcept {
  auto* client = static_cast<DAXO_Client*>(obj);
  if (client == nullptr || mid != client->messageId) return;
  client->messageId = 0;
  StopCertificateCheckingThread(client);
  DeleteCertificates(client);
  if (client->OnDeprovisionClient != nullptr)
    client->OnDeprovisionClient(client, client->callbackParameter);
}

// A main instance that is no longer the current one is released here, on
// the application's thread, once its network thread has stopped.
void ReleaseMain(DAXO_Client* client) noexcept {
  if (client->mosq == nullptr) return;
  daxo::DisconnectMain(client);
  client->destroyMosquittoClientFunction(client->mosq);
  client->mosq = nullptr;
}

void ReleaseProvisioning(DAXO_Client* client) noexcept {
  if (client->mosqProvision == nullptr) return;
  ProvisionDisconnect(client);
  client->destroyMosquittoClientFunction(client->mosqProvision);
  client->mosqProvision = nullptr;
}

void InstallHandlers(DAXO_Client* client, MosquittoInterface* mi) noexcept {
  mi->mosquittoReconnectDelaySetFunction(mi, 1, 1, 0);
  mi->mosquittoLogCallbackSetFunction(mi, LogCallback);
  mi->mosquittoConnectCallbackSetFunction(mi, ConnectCallback);
  mi->mosquittoDisconnectConnectCallbackSetFunction(mi, DisconnectCallback);
  mi->mosquittMessageCallbackSetFunction(mi, MessageCallback);
  mi->mosquittoSubscribeCallbackSetFunction(mi, SubscribeCallback);
  daxo::InstallPublishHandler(client);
}

DAXO_Error SetClientTls(DAXO_Client* client, MosquittoInterface* mi) noexcept {
  CStr cert = Format("%s/%s", client->certFolder, daxo::kCertFileName);
  CStr key = Format("%s/%s", client->certFolder, daxo::kKeyFileName);
  if (!cert || !key) return DAXO_Error_NoMemory;
  int rc = mi->mosquittoTlsSetFunction(mi, client->caFile, nullptr, cert.get(), key.get(), nullptr);
  return rc == MOSQ_ERR_SUCCESS ? DAXO_Error_Success : DAXO_Error_TlsSetFailed;
}

DAXO_Error StartMain(DAXO_Client* client, MosquittoInterface* mi) noexcept {
  daxo::LogFormat(client, "Connecting: host - %s, port - %d, keep_alive - %d", client->mqttHost,
                  client->mqttPort, client->mqttKeepAlive);
  daxo::Store(client->mainWatch.lossReported, 0);
  DAXO_Error err = daxo::StartAttempt(client, mi, client->mqttPort, client->mainWatch);
  if (err == DAXO_Error_Success) daxo::Store(client->polling, 1);
  return err;
}

DAXO_Error Connect(DAXO_Client* client, MosquittoInterface* mosquitto) noexcept {
  ReleaseProvisioning(client);
  ReleaseMain(client);
  errno = 0;
  MosquittoInterface* mi =
      client->createMosquittoClientFunction(mosquitto, client->clientId, 1, client);
  if (mi == nullptr) return errno == ENOMEM ? DAXO_Error_NoMemory : DAXO_Error_InvalidArguments;
  client->mosq = mi;
  InstallHandlers(client, mi);
  if (DAXO_Error err = SetClientTls(client, mi); err != DAXO_Error_Success) return err;
  return StartMain(client, mi);
}

}  // namespace

extern "C" DAXO_Error ConnectInternal(DAXO_Client* client, MosquittoInterface* mosquitto) noexcept {
  if (client == nullptr || client->clientId == nullptr) return DAXO_Error_InvalidArguments;
  DAXO_Error err;
  {
    daxo::MutexLock lock(&client->connectionMutex);
    err = Connect(client, mosquitto);
  }
  daxo::WakeWatchThread(client);
  return err;
}

extern "C" DAXO_Error SendMessageToAgent(DAXO_Client* client, const char* topic,
                                         const char* message, int message_len,
                                         int* messageId) noexcept {
  if (client == nullptr || topic == nullptr || message == nullptr)
    return DAXO_Error_InvalidArguments;
  MosquittoInterface* mi = client->mosq != nullptr ? client->mosq : client->mosqProvision;
  return daxo::PublishOn(client, mi, topic, message, message_len, messageId);
}

namespace daxo {

DAXO_Error CheckConnection(DAXO_Client* client) noexcept {
  CStr topic = Format("/%s/%s/ping", daxo::kApiVersion, client->clientId);
  if (!topic) return DAXO_Error_NoMemory;
  return SendMessageToAgent(client, topic.get(), kCheckPayload, sizeof kCheckPayload - 1, nullptr);
}

DAXO_Error PublishOn(DAXO_Client* client, MosquittoInterface* mi, const char* topic,
                     const char* message, int length, int* messageId) noexcept {
  if (mi == nullptr) return DAXO_Error_NoConnectionToServer;
  int rc = mi->mosquittoPublishFunction(mi, messageId, topic, length, message, 2, 0);
  if (mi == client->mosq) LogFormat(client, "SendMessage: %s", message);
  return PublishResultToError(rc);
}

void InstallPublishHandler(DAXO_Client* client) noexcept {
  MosquittoInterface* mi = client->mosq;
  if (mi == nullptr) return;  // remembered for the next main instance
  mi->mosquittoPublishCallbackSetFunction(
      mi, client->OnDeprovisionClient != nullptr ? PublishCallback : nullptr);
}

DAXO_Error Disconnect(DAXO_Client* client) noexcept {
  MutexLock lock(&client->connectionMutex);
  return DisconnectMain(client);
}

DAXO_Error DisconnectMain(DAXO_Client* client) noexcept {
  if (!Load(client->polling)) return DAXO_Error_Success;
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

}  // namespace daxo
