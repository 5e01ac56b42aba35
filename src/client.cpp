// Creation and release of the client object.
#include <cstdlib>

#include "daxo_internal.h"
#include "string_utils.h"

extern "C" DAXO_Client* NewClientInternal(
    const char* confFile, void* callbackParameter, DAXO_Error* err,
    CreateMosquittoClientFunction createMosquittoClientFunction,
    DestroyMosquittoClientFunction destroyMosquittoClientFunction) noexcept {
  if (err == nullptr) return nullptr;
  if (confFile == nullptr) {
    *err = DAXO_Error_InvalidArguments;
    return nullptr;
  }
  auto* client = static_cast<DAXO_Client*>(calloc(1, sizeof(DAXO_Client)));
  if (client == nullptr) {
    *err = DAXO_Error_NoMemory;
    return nullptr;
  }
  pthread_mutex_init(&client->connectionMutex, nullptr);
  *err = LoadConfig(client, confFile);
  if (*err != DAXO_Error_Success) {
    DAXO_DeleteClient(client);
    return nullptr;
  }
  client->callbackParameter = callbackParameter;
  client->createMosquittoClientFunction = createMosquittoClientFunction;
  client->destroyMosquittoClientFunction = destroyMosquittoClientFunction;
  if (!StartCertificateCheckingThread(client)) {
    DAXO_DeleteClient(client);
    *err = DAXO_Error_ThreadCreate;
    return nullptr;
  }
  return client;
}

namespace daxo {

void DestroyClient(DAXO_Client* client) noexcept {
  StopCertificateCheckingThread(client);
  if (client->mosq != nullptr) {
    DAXO_Disconnect(client);
    client->destroyMosquittoClientFunction(client->mosq);
  }
  if (client->mosqProvision != nullptr) {
    ProvisionDisconnect(client);
    client->destroyMosquittoClientFunction(client->mosqProvision);
  }
  for (char* text : {client->clientId, client->mqttHost, client->caFile, client->certFolder,
                     client->clientName, client->provisionDigest, client->provisionCert,
                     client->renewalContent})
    free(text);
  FreeSecret(client->newKeyContent);
  pthread_mutex_destroy(&client->connectionMutex);
  free(client);
}

}  // namespace daxo
