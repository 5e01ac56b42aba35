// The daily certificate check: the client certificate and the authority
// file go to the agent, whose answers the renewal handles.
#include <cstring>

#include "daxo_internal.h"
#include "string_utils.h"

namespace {

// A failure is also the outcome of the check that met it.
DAXO_Error Outcome(DAXO_Client* client, DAXO_Error err) noexcept {
  if (err != DAXO_Error_Success) CallOnCertificateRenewCallback(client, err);
  return err;
}

}  // namespace

extern "C" {

void CallOnCertificateRenewCallback(DAXO_Client* client, DAXO_Error err) noexcept {
  if (client == nullptr) return;
  if (client->OnCertificateRenew != nullptr)
    client->OnCertificateRenew(client, client->callbackParameter, err);
  if (err != DAXO_Error_Success)
    daxo::LogFormat(client, "Failed to renew the Certificate: error - %d", err);
}

DAXO_Error SendCertificateContentToCheckExpireDate(DAXO_Client* client, char* fileName) noexcept {
  // Nothing can be sent for a client that does not know its identifier.
  if (client->clientId == nullptr) return DAXO_Error_WrongCertificateFile;
  daxo::CStr content(GetFileContent(fileName));
  if (!content) return DAXO_Error_WrongCertificateFile;
  daxo::CStr topic = daxo::Format("/%s/%s/checkExpireDate", daxo::kApiVersion, client->clientId);
  if (!topic) return DAXO_Error_NoMemory;
  return SendMessageToAgent(client, topic.get(), content.get(),
                            static_cast<int>(strlen(content.get())), nullptr);
}

DAXO_Error CheckClientCertificateExpirationDate(DAXO_Client* client,
                                                OnCertificateRenewCallback callback) noexcept {
  if (client == nullptr) return DAXO_Error_InvalidArguments;
  client->OnCertificateRenew = callback;
  if (!CheckCertificates(client)) return Outcome(client, DAXO_Error_WrongCertificateFile);
  daxo::CStr path = daxo::Format("%s/%s", client->certFolder, daxo::kCertFileName);
  if (!path) return Outcome(client, DAXO_Error_NoMemory);
  return Outcome(client, SendCertificateContentToCheckExpireDate(client, path.get()));
}

DAXO_Error CheckCAExpirationDate(DAXO_Client* client,
                                 OnCertificateRenewCallback callback) noexcept {
  if (client == nullptr) return DAXO_Error_InvalidArguments;
  client->OnCertificateRenew = callback;
  if (strcmp(client->caFile, daxo::kAgentAuthorityFile) == 0)
    return Outcome(client, DAXO_Error_Success);
  return Outcome(client, SendCertificateContentToCheckExpireDate(client, client->caFile));
}

DAXO_Error CheckCertificatesExpirationDates(DAXO_Client* client) noexcept {
  DAXO_Error err = CheckClientCertificateExpirationDate(client, nullptr);
  if (err != DAXO_Error_Success) return err;
  return CheckCAExpirationDate(client, nullptr);
}

}  // extern "C"
