// Provisioning: certificates for new clients on "/createConnector", and the
// forgetting of clients that deprovision themselves.
#ifndef DAXO_AGENT_PROVISIONING_H
#define DAXO_AGENT_PROVISIONING_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent.h"
#include "certificate_authority.h"
#include "store.h"

namespace daxo_agent {

struct SigningRequest;

// The request in pem, once it parses and its signature verifies; otherwise
// null, with fault saying why.
X509ReqPtr ReadVerifiedRequest(std::string_view pem, ApiFault& fault);
// The first entry of the given type, as UTF-8; nullopt when there is none.
std::optional<std::string> NameEntry(X509_NAME* name, int nid);

class Provisioning {
 public:
  Provisioning(const CertificateAuthority& ca, Store& store, const CertificateTerms& terms)
      : ca_(ca), store_(store), terms_(terms) {}

  std::vector<Route> Routes();

 private:
  void CreateConnector(const Message& message, Outbox& out);
  void Deprovision(const Message& message, Outbox& out);
  std::optional<std::string> IssueFor(const SigningRequest& request, ApiFault& fault);
  std::string UniqueId(const std::string& requestedName) const;

  const CertificateAuthority& ca_;
  Store& store_;
  const CertificateTerms& terms_;
};

}  // namespace daxo_agent

#endif
