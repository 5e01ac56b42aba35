// Provisioning: certificates for new clients on "/createConnector", and the
// forgetting of clients that deprovision themselves.
#ifndef DAXO_AGENT_PROVISIONING_H
#define DAXO_AGENT_PROVISIONING_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "agent.h"
#include "certificate_authority.h"
#include "store.h"

namespace daxo_agent {

struct SigningRequest;

class Provisioning {
 public:
  Provisioning(const CertificateAuthority& ca, Store& store, std::chrono::seconds validity)
      : ca_(ca), store_(store), validity_(validity) {}

  std::vector<Route> Routes();

 private:
  void CreateConnector(const Message& message, Outbox& out);
  void Deprovision(const Message& message, Outbox& out);
  std::optional<std::string> IssueFor(const SigningRequest& request, ApiFault& fault);
  std::string UniqueId(const std::string& requestedName) const;

  const CertificateAuthority& ca_;
  Store& store_;
  std::chrono::seconds validity_;
};

}  // namespace daxo_agent

#endif
