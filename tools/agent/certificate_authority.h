// The agent's certificate authority: a key and a self-signed certificate kept
// in the state folder, used to sign the client certificates it issues.
#ifndef DAXO_AGENT_CERTIFICATE_AUTHORITY_H
#define DAXO_AGENT_CERTIFICATE_AUTHORITY_H

#include <chrono>
#include <ctime>
#include <string>

#include "openssl_handles.h"

namespace daxo_agent {

struct CertificateOrder {
  EVP_PKEY* publicKey = nullptr;  // borrowed from the signing request
  std::string commonName;
  std::string organisation;  // empty: no O entry
  std::chrono::seconds validity{0};
};

struct IssuedCertificate {
  std::string pem;
  std::string serial;  // hexadecimal
  std::time_t notAfter = 0;
};

class CertificateAuthority {
 public:
  // Reads "ca.crt" and "ca.key" from stateDir, or creates both (and the
  // folder, mode 0700) when neither exists. Throws std::runtime_error.
  static CertificateAuthority Open(const std::string& stateDir);

  // Signs a client certificate (clientAuth) with SHA-256. Throws
  // std::runtime_error when OpenSSL refuses a step.
  IssuedCertificate Issue(const CertificateOrder& order) const;

  std::string Subject() const;

 private:
  CertificateAuthority(X509Ptr cert, EvpPkeyPtr key)
      : cert_(std::move(cert)), key_(std::move(key)) {}

  X509Ptr cert_;
  EvpPkeyPtr key_;
};

}  // namespace daxo_agent

#endif
