// Provisioning as the application asks for it: a client already provisioned
// on disk only learns its identifier; any other starts the exchange with the
// agent. Deprovisioning sends the request whose acknowledgement completes it.
#include "daxo_internal.h"
#include "open_ssl_connector.h"
#include "string_utils.h"

namespace {

// The identifier is the common name of the stored certificate.
DAXO_Error ReadIdentity(DAXO_Client* client) noexcept {
  daxo::CStr path = daxo::Format("%s/%s", client->certFolder, daxo::kCertFileName);
  if (!path) return DAXO_Error_NoMemory;
  daxo::Reset(&client->clientId, nullptr);
  if (ReadCertificateCN(path.get(), &client->clientId) != nullptr) return DAXO_Error_GetClientId;
  return DAXO_Error_Success;
}

}  // namespace

extern "C" void ProvisionCallback(DAXO_Client* client, void* callbackParameter,
                                  DAXO_Error err) noexcept {
  if (client == nullptr) return;
  if (DAXO_OnProvisionClient onProvision = daxo::Get(client->OnProvisionClient))
    onProvision(client, callbackParameter, err);
}

extern "C" DAXO_Error ProvisionClientInternal(DAXO_Client* client,
                                              MosquittoInterface* mosquitto) noexcept {
  if (client == nullptr) return DAXO_Error_InvalidArguments;
  StartCertificateCheckingThread(client);  // after a deprovisioning; failure is not fatal here
  // A stored identity that could not be looked for must not be replaced.
  int stored = CheckCertificates(client);
  if (stored < 0) return DAXO_Error_NoMemory;
  if (!stored) {
    __atomic_store_n(&client->OnProvision, static_cast<OnProvisionCallback>(ProvisionCallback),
                     __ATOMIC_RELEASE);
    daxo::Store(client->dailyChecksOff, 0);
    return daxo::RunOnOwner(client, OwnerProvision, mosquitto);
  }
  if (DAXO_Error err = ReadIdentity(client); err != DAXO_Error_Success) return err;
  if (DAXO_OnProvisionClient onProvision = daxo::Get(client->OnProvisionClient))
    onProvision(client, client->callbackParameter, DAXO_Error_AlreadyProvisioned);
  return DAXO_Error_AlreadyProvisioned;
}

namespace daxo {

DAXO_Error Deprovision(DAXO_Client* client) noexcept {
  CStr topic = Format("/%s/%s/delete", kApiVersion, client->clientId);
  if (!topic) return DAXO_Error_NoMemory;
  return SendMessageToAgent(client, topic.get(), "{}", 2, &client->messageId);
}

}  // namespace daxo
