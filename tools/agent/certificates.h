// The upkeep of client certificates once clients are connected: how long a
// certificate they hold stays valid, whether the authority they trust has a
// successor, and new certificates for their new keys.
//
//   /v1.0/ID/checkExpireDate   payload: one PEM certificate. Answered on
//       .../checkExpireDate/inbox with
//       {"providedExpiresAt": its notAfter in the agent's local time as
//        YYYYMMDDTHHMMSS, "certificateType": "certificate authority" for the
//        agent's own authority (same subject and key, current or earlier
//        certificate), else "client certificate"}
//       and, for the authority, "validity": "valid" when the certificate is
//       the authority's current one, else "new one available" with "newCa",
//       the current certificate in PEM (see offer-new-ca in control.h).
//   /v1.0/ID/renewCertificate  payload: a PEM certificate request. Answered
//       on .../renewCertificate/inbox with a PEM client certificate for the
//       request's key whose common name is ID, whatever name the request
//       asks for, valid for --renewal-days.
//
// A payload that is no certificate, or no request with a valid signature, is
// logged and not answered: clients listen on the inbox topics only, and an
// error reply would reach them as a reply they cannot read.
#ifndef DAXO_AGENT_CERTIFICATES_H
#define DAXO_AGENT_CERTIFICATES_H

#include <vector>

#include "agent.h"
#include "certificate_authority.h"
#include "store.h"

namespace daxo_agent {

std::vector<Route> CertificateRoutes(const CertificateAuthority& ca, Store& store,
                                     const CertificateTerms& terms);

}  // namespace daxo_agent

#endif
