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
  pthread_mutex_init(&client->ownerMutex, nullptr);
  pthread_mutex_init(&client->certCheckThreadMutex, nullptr);
  pthread_cond_init(&client->certCheckThreadCondition, nullptr);
  pthread_mutex_init(&client->instanceMutex, nullptr);
  client->provisionTimeoutMs = daxo::kProvisionTimeoutMs;
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
  // Once the watch thread has ended, the caller is the connections' only
  // owner; network threads may still hand over work until they are stopped.
  StopCertificateCheckingThread(client);
  ReleaseConnections(client);
  FreeOwnerTasks(client);
  ClosePushStore(client);
  for (char* text : {client->clientId, client->mqttHost, client->caFile, client->certFolder,
                     client->clientName, client->provisionDigest, client->provisionCert,
                     client->renewalContent, client->renewalOldCa, client->pushStorePath})
    free(text);
  FreeSecret(client->newKeyContent);
  pthread_mutex_destroy(&client->instanceMutex);
  pthread_mutex_destroy(&client->ownerMutex);
  pthread_mutex_destroy(&client->certCheckThreadMutex);
  pthread_cond_destroy(&client->certCheckThreadCondition);
  free(client);
}

}  // namespace daxo
