// Provisioning as the application asks for it: a client already provisioned
// on disk only learns its identifier; any other starts the exchange with the
// agent. Deprovisioning sends the request whose acknowledgement completes it.
#include <unistd.h>

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

// A certificate without the rest of its identity is still someone's
// identity: a misspelled or unmounted authority file must not make
// provisioning replace it.
DAXO_Error RefuseToReplace(DAXO_Client* client) noexcept {
  daxo::CStr cert = daxo::Format("%s/%s", client->certFolder, daxo::kCertFileName);
  daxo::CStr key = daxo::Format("%s/%s", client->certFolder, daxo::kKeyFileName);
  if (!cert || !key) return DAXO_Error_NoMemory;
  if (access(cert.get(), F_OK) != 0) return DAXO_Error_Success;
  bool noAuthority = access(client->caFile, F_OK) != 0;
  daxo::LogFormat(client,
                  "Provisioning refused: %s is missing; the identity in %s is kept (reset it "
                  "to provision again)",
                  noAuthority ? client->caFile : key.get(), client->certFolder);
  return noAuthority ? DAXO_Error_TlsSetFailed : DAXO_Error_WrongCertificateFile;
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
  daxo::RecoverIdentity(client);
  // A stored identity that could not be looked for must not be replaced.
  int stored = CheckCertificates(client);
  if (stored < 0) return DAXO_Error_NoMemory;
  if (!stored) {
    if (DAXO_Error err = RefuseToReplace(client); err != DAXO_Error_Success) return err;
    __atomic_store_n(&client->OnProvision, static_cast<OnProvisionCallback>(ProvisionCallback),
                     __ATOMIC_RELEASE);
    daxo::Store(client->dailyChecksOff, 0);
    return daxo::RunOnOwner(client, OwnerProvision, mosquitto);
  }
  if (DAXO_Error err = daxo::CheckStoredIdentity(client); err != DAXO_Error_Success) return err;
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

DAXO_Error ResetClientIdentity(DAXO_Client* client) noexcept {
  MutexLock lock(&client->ownerMutex);
  if (Load(client->polling) || Load(client->provisionLoopStarted) ||
      Load(client->renewalTrial) != RenewalTrialNone)
    return DAXO_Error_Busy;
  // A connection that could not even start (an expired identity, say) is
  // only waiting to be tried again with the identity removed here.
  Store(client->wantMain, 0);
  DAXO_Error err = ResetIdentity(client);
  if (err != DAXO_Error_Success) return err;
  Store(client->dailyChecksOff, 1);
  Reset(&client->clientId, nullptr);
  return DAXO_Error_Success;
}

}  // namespace daxo
