// The agent's certificate authority: a key and a self-signed certificate kept
// in the state folder, used to sign the client certificates it issues. The
// MQTT thread issues while the control thread may replace the certificate,
// so every member function takes the lock.
#ifndef DAXO_AGENT_CERTIFICATE_AUTHORITY_H
#define DAXO_AGENT_CERTIFICATE_AUTHORITY_H

#include <atomic>
#include <chrono>
#include <ctime>
#include <mutex>
#include <string>

#include "openssl_handles.h"

namespace daxo_agent {

struct CertificateOrder {
  EVP_PKEY* publicKey = nullptr;  // borrowed from the signing request
  std::string commonName{};
  std::string organisation{};  // empty: no O entry
  std::chrono::seconds validity{0};
  bool server = false;           // serverAuth instead of clientAuth
  std::string subjectAltName{};  // e.g. "DNS:localhost,IP:127.0.0.1"; empty: none
};

struct IssuedCertificate {
  std::string pem;
  std::string serial;  // hexadecimal
  std::time_t notAfter = 0;
};

// The certificate's notAfter. Throws std::runtime_error when it cannot be read.
std::time_t ExpiryOf(const X509* cert);

// The key as unencrypted PEM. Throws std::runtime_error.
std::string PrivateKeyPem(EVP_PKEY* key);

// Validity in days of the client certificates issued on provisioning and on
// renewal; the control thread may change them while the MQTT thread issues.
inline constexpr int kMaxCertDays = 36500;
struct CertificateTerms {
  std::atomic<int> provisioningDays;
  std::atomic<int> renewalDays;
};

class CertificateAuthority {
 public:
  // Reads "ca.crt" and "ca.key" from stateDir, or creates both (and the
  // folder, mode 0700) when neither exists. Throws std::runtime_error.
  static CertificateAuthority Open(const std::string& stateDir);

  // Signs a client (or, for order.server, a server) certificate with
  // SHA-256. Throws std::runtime_error when OpenSSL refuses a step.
  IssuedCertificate Issue(const CertificateOrder& order) const;

  // Replaces the authority's certificate by one with the same key, subject
  // and extensions and a fresh validity, so that everything that trusts the
  // old certificate also verifies chains against the new one and the other
  // way round. The old file is kept as "ca.crt.previous". Returns the new
  // certificate. Throws std::runtime_error; the authority is then unchanged.
  IssuedCertificate Replace();

  // Whether cert is this authority's, current or earlier: same subject and
  // same key.
  bool IsOwn(X509* cert) const;
  // Whether cert is the authority's current certificate, byte for byte.
  bool IsCurrent(X509* cert) const;
  std::string Pem() const;
  std::time_t NotAfter() const;
  std::string Subject() const;
  // Where the current certificate is kept.
  std::string CertificatePath() const { return stateDir_ + "/ca.crt"; }

 private:
  CertificateAuthority(std::string stateDir, X509Ptr cert, EvpPkeyPtr key)
      : stateDir_(std::move(stateDir)), cert_(std::move(cert)), key_(std::move(key)) {}

  const std::string stateDir_;
  mutable std::mutex mutex_;
  X509Ptr cert_;
  const EvpPkeyPtr key_;
};

}  // namespace daxo_agent

#endif
