#include "test_pki.h"

#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace daxo_test {
namespace {

template <auto Free>
struct CFree {
  template <class T>
  void operator()(T* p) const noexcept {
    Free(p);
  }
};
using BioPtr = std::unique_ptr<BIO, CFree<BIO_free_all>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, CFree<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, CFree<X509_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, CFree<X509_EXTENSION_free>>;

void Check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test PKI: ") + what);
}

std::string BioText(BIO* bio) {
  char* data = nullptr;
  long size = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<std::size_t>(size));
}

std::string CertPem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  Check(PEM_write_bio_X509(bio.get(), cert) == 1, "certificate PEM");
  return BioText(bio.get());
}

std::string KeyPem(EVP_PKEY* key) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  Check(PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
        "key PEM");
  return BioText(bio.get());
}

void AddExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  ExtensionPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
  Check(ext != nullptr && X509_add_ext(cert, ext.get(), -1) == 1, "extension");
}

void AddName(X509_NAME* name, int nid, const std::string& value) {
  if (value.empty()) return;
  Check(X509_NAME_add_entry_by_NID(name, nid, MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(value.data()),
                                   static_cast<int>(value.size()), -1, 0) == 1,
        "subject");
}

std::string AltNames(const CertificateTerms& terms) {
  std::string names;
  for (const std::string& dns : terms.dnsNames) names += (names.empty() ? "DNS:" : ",DNS:") + dns;
  for (const std::string& ip : terms.ipAddresses) names += (names.empty() ? "IP:" : ",IP:") + ip;
  return names;
}

X509Ptr NewCertificate(EVP_PKEY* key, const CertificateTerms& terms, long serial) {
  X509Ptr cert(X509_new());
  Check(cert && X509_set_version(cert.get(), X509_VERSION_3) == 1, "version");
  Check(ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial) == 1, "serial");
  Check(X509_gmtime_adj(X509_getm_notBefore(cert.get()), terms.start.count()) &&
            X509_gmtime_adj(X509_getm_notAfter(cert.get()), (terms.start + terms.validity).count()),
        "validity");
  Check(X509_set_pubkey(cert.get(), key) == 1, "public key");
  X509_NAME* subject = X509_get_subject_name(cert.get());
  AddName(subject, NID_organizationName, terms.organisation);
  AddName(subject, NID_commonName, terms.commonName);
  return cert;
}

}  // namespace

struct TestAuthority::Handles {
  EvpPkeyPtr key;
  X509Ptr cert;
  mutable long nextSerial = 2;
};

TestAuthority::TestAuthority(const std::string& commonName) : handles_(new Handles) {
  handles_->key.reset(EVP_EC_gen("P-256"));
  Check(handles_->key != nullptr, "CA key");
  CertificateTerms terms{
      commonName, "daxo tests", {}, {}, false, std::chrono::hours(-1), std::chrono::hours(24 * 30)};
  X509Ptr cert = NewCertificate(handles_->key.get(), terms, 1);
  Check(X509_set_issuer_name(cert.get(), X509_get_subject_name(cert.get())) == 1, "issuer");
  AddExtension(cert.get(), cert.get(), NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(cert.get(), cert.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  AddExtension(cert.get(), cert.get(), NID_subject_key_identifier, "hash");
  Check(X509_sign(cert.get(), handles_->key.get(), EVP_sha256()) > 0, "CA signature");
  own_ = {KeyPem(handles_->key.get()), CertPem(cert.get())};
  handles_->cert = std::move(cert);
}

TestAuthority::~TestAuthority() = default;

KeyAndCertificate TestAuthority::Issue(const CertificateTerms& terms) const {
  EvpPkeyPtr key(EVP_EC_gen("P-256"));
  Check(key != nullptr, "key");
  X509Ptr cert = NewCertificate(key.get(), terms, handles_->nextSerial++);
  X509* issuer = handles_->cert.get();
  Check(X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer)) == 1, "issuer");
  AddExtension(cert.get(), issuer, NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(cert.get(), issuer, NID_key_usage, "critical,digitalSignature");
  AddExtension(cert.get(), issuer, NID_ext_key_usage, terms.server ? "serverAuth" : "clientAuth");
  if (std::string names = AltNames(terms); !names.empty())
    AddExtension(cert.get(), issuer, NID_subject_alt_name, names);
  AddExtension(cert.get(), issuer, NID_authority_key_identifier, "keyid");
  Check(X509_sign(cert.get(), handles_->key.get(), EVP_sha256()) > 0, "signature");
  return {KeyPem(key.get()), CertPem(cert.get())};
}

void WriteFile(const std::string& path, const std::string& content, unsigned mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  bool written = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  close(fd);
  if (!written) throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace daxo_test
