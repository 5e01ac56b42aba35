// The provisioning exchange and the certificate store.
#include <cstdlib>

#include "daxo_internal.h"

extern "C" void ProvisionDisconnect(DAXO_Client* client) noexcept {
  if (client == nullptr || !client->provisionLoopStarted) return;
  MosquittoInterface* mi = client->mosqProvision;
  int rc = mi->mosquittoDisconnectFunction(mi);
  client->provisionLoopStarted = 0;
  if (rc == MOSQ_ERR_INVAL || rc == MOSQ_ERR_NOT_SUPPORTED) return;
  mi->mosquittoLoopStopFunction(mi, rc != MOSQ_ERR_SUCCESS);
}

extern "C" void FreeProvisionData(DAXO_Client* client) noexcept {
  if (client == nullptr) return;
  free(client->provisionDigest);
  free(client->provisionCert);
  client->provisionDigest = nullptr;
  client->provisionCert = nullptr;
  client->provisionCertLen = 0;
}

// Until the certificate store exists there is nothing on disk to remove.
extern "C" int DeleteCertificates(DAXO_Client* client) noexcept { return client != nullptr; }
