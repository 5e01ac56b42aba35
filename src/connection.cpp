// The main MQTT instance: disconnection and the deprovisioning completion.
#include "daxo_internal.h"

namespace {

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

}  // namespace

namespace daxo {

void InstallPublishHandler(DAXO_Client* client) noexcept {
  MosquittoInterface* mi = client->mosq;
  if (mi == nullptr) return;  // remembered for the next main instance
  mi->mosquittoPublishCallbackSetFunction(
      mi, client->OnDeprovisionClient != nullptr ? PublishCallback : nullptr);
}

DAXO_Error DisconnectMain(DAXO_Client* client) noexcept {
  if (!client->polling) return DAXO_Error_Success;
  MosquittoInterface* mi = client->mosq;
  int rc = mi->mosquittoDisconnectFunction(mi);
  client->polling = 0;
  if (rc == MOSQ_ERR_INVAL) return DAXO_Error_InvalidArguments;
  if (rc == MOSQ_ERR_NOT_SUPPORTED) return DAXO_Error_NoThreadSupport;
  mi->mosquittoLoopStopFunction(mi, rc != MOSQ_ERR_SUCCESS);
  return DAXO_Error_Success;
}

}  // namespace daxo
