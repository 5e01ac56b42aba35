// The daily certificate check pass.
#include "daxo_internal.h"

// Until the expiry check exists, a pass has nothing to send.
extern "C" DAXO_Error CheckCertificatesExpirationDates(DAXO_Client* client) noexcept {
  return client == nullptr ? DAXO_Error_InvalidArguments : DAXO_Error_Success;
}
