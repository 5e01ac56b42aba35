// Throwaway certificate authorities and certificates for integration tests,
// made in memory with EC P-256 keys (fast enough to make per test).
#ifndef DAXO_TEST_PKI_H
#define DAXO_TEST_PKI_H

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace daxo_test {

struct CertificateTerms {
  std::string commonName{};
  std::string organisation{};  // empty: none
  std::vector<std::string> dnsNames{};
  std::vector<std::string> ipAddresses{};
  bool server = false;  // serverAuth instead of clientAuth
  // Relative to now; a negative start with a short validity gives an
  // expired certificate.
  std::chrono::seconds start{0};
  std::chrono::seconds validity = std::chrono::hours(24);
};

struct KeyAndCertificate {
  std::string keyPem;
  std::string certPem;
};

class TestAuthority {
 public:
  explicit TestAuthority(const std::string& commonName);
  ~TestAuthority();
  TestAuthority(const TestAuthority&) = delete;
  TestAuthority& operator=(const TestAuthority&) = delete;

  const KeyAndCertificate& Own() const { return own_; }
  KeyAndCertificate Issue(const CertificateTerms& terms) const;

 private:
  struct Handles;
  std::unique_ptr<Handles> handles_;
  KeyAndCertificate own_;
};

// Writes content to path with the given mode, replacing the file.
void WriteFile(const std::string& path, const std::string& content, unsigned mode = 0644);
std::string ReadFile(const std::string& path);

}  // namespace daxo_test

#endif
