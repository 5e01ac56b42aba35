#include "certificate_authority.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "log.h"

namespace daxo_agent {
namespace fs = std::filesystem;
namespace {

constexpr long kAuthorityValidityDays = 3650;

void Check(bool ok, const std::string& what) {
  if (ok) return;
  char reason[256] = "no OpenSSL detail";
  if (unsigned long err = ERR_get_error(); err != 0) ERR_error_string_n(err, reason, sizeof reason);
  ERR_clear_error();
  throw std::runtime_error(what + ": " + reason);
}

std::string SetRandomSerial(X509* cert) {
  BignumPtr serial(BN_new());
  // 127 random bits keep the serial positive and within the 20 octets allowed.
  Check(serial != nullptr && BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1,
        "random serial");
  Check(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert)) != nullptr, "serial");
  char* hex = BN_bn2hex(serial.get());
  std::string text = hex != nullptr ? hex : "";
  OPENSSL_free(hex);
  return text;
}

void AddExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509ExtensionPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  Check(ext != nullptr && X509_add_ext(cert, ext.get(), -1) == 1,
        std::string("extension ") + value);
}

void AddNameEntry(X509_NAME* name, int nid, const std::string& value) {
  if (value.empty()) return;
  auto bytes = reinterpret_cast<const unsigned char*>(value.data());
  Check(X509_NAME_add_entry_by_NID(name, nid, MBSTRING_UTF8, bytes, static_cast<int>(value.size()),
                                   -1, 0) == 1,
        std::string("subject entry ") + OBJ_nid2sn(nid));
}

void SetValidity(X509* cert, std::chrono::seconds validity) {
  Check(X509_gmtime_adj(X509_getm_notBefore(cert), 0) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(cert), validity.count()) != nullptr,
        "validity");
}

// A certificate with everything but issuer, extensions and signature.
X509Ptr NewCertificate(EVP_PKEY* publicKey, std::chrono::seconds validity, std::string& serial) {
  X509Ptr cert(X509_new());
  Check(cert != nullptr && X509_set_version(cert.get(), X509_VERSION_3) == 1, "certificate");
  serial = SetRandomSerial(cert.get());
  SetValidity(cert.get(), validity);
  Check(X509_set_pubkey(cert.get(), publicKey) == 1, "public key");
  return cert;
}

std::string ToPem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  Check(bio != nullptr && PEM_write_bio_X509(bio.get(), cert) == 1, "PEM encoding");
  char* data = nullptr;
  long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

void WriteNewFile(const fs::path& path, const std::string& content, mode_t mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot create " + path.string());
  bool written = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  close(fd);
  if (!written) throw std::runtime_error("cannot write " + path.string());
}

// The file is never missing, whenever the agent stops: it holds the old
// content or the new one. The old one stays next to it as PATH.previous.
void ReplaceFile(const fs::path& path, const std::string& content, mode_t mode) {
  fs::path fresh = path, previous = path;
  fresh += ".new";
  previous += ".previous";
  fs::remove(fresh);
  WriteNewFile(fresh, content, mode);
  fs::copy_file(path, previous, fs::copy_options::overwrite_existing);
  fs::rename(fresh, path);
}

BioPtr OpenForReading(const fs::path& path) {
  BioPtr bio(BIO_new_file(path.c_str(), "r"));
  if (bio == nullptr) throw std::runtime_error("cannot read " + path.string());
  return bio;
}

void CreateAuthorityFiles(const fs::path& certPath, const fs::path& keyPath) {
  EvpPkeyPtr key(EVP_EC_gen("P-256"));
  Check(key != nullptr, "CA key");
  std::string serial;
  X509Ptr cert = NewCertificate(key.get(), std::chrono::days(kAuthorityValidityDays), serial);
  X509_NAME* name = X509_get_subject_name(cert.get());
  AddNameEntry(name, NID_organizationName, "daxo development");
  AddNameEntry(name, NID_commonName, "daxo-agent development CA");
  Check(X509_set_issuer_name(cert.get(), name) == 1, "issuer");
  AddExtension(cert.get(), cert.get(), NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(cert.get(), cert.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  AddExtension(cert.get(), cert.get(), NID_subject_key_identifier, "hash");
  Check(X509_sign(cert.get(), key.get(), EVP_sha256()) > 0, "CA signature");
  // The key goes first: a folder holding a key without its certificate is
  // refused at the next start instead of being silently replaced.
  WriteNewFile(keyPath, PrivateKeyPem(key.get()), 0600);
  WriteNewFile(certPath, ToPem(cert.get()), 0644);
}

}  // namespace

std::string PrivateKeyPem(EVP_PKEY* key) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  Check(bio != nullptr &&
            PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
        "key encoding");
  char* data = nullptr;
  long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

std::time_t ExpiryOf(const X509* cert) {
  std::tm tm{};
  Check(ASN1_TIME_to_tm(X509_get0_notAfter(cert), &tm) == 1, "expiry");
  return timegm(&tm);
}

CertificateAuthority CertificateAuthority::Open(const std::string& stateDir) {
  fs::path dir(stateDir);
  if (!fs::exists(dir)) {
    fs::create_directories(dir);
    fs::permissions(dir, fs::perms::owner_all, fs::perm_options::replace);
  }
  fs::path certPath = dir / "ca.crt", keyPath = dir / "ca.key";
  bool haveCert = fs::exists(certPath), haveKey = fs::exists(keyPath);
  if (haveCert != haveKey)
    throw std::runtime_error("only one of ca.crt and ca.key is present in " + stateDir);
  if (!haveCert) {
    CreateAuthorityFiles(certPath, keyPath);
    Log("created a certificate authority in " + stateDir);
  }
  X509Ptr cert(PEM_read_bio_X509(OpenForReading(certPath).get(), nullptr, nullptr, nullptr));
  EvpPkeyPtr key(PEM_read_bio_PrivateKey(OpenForReading(keyPath).get(), nullptr, nullptr, nullptr));
  Check(cert != nullptr, "reading " + certPath.string());
  Check(key != nullptr, "reading " + keyPath.string());
  Check(X509_check_private_key(cert.get(), key.get()) == 1, "ca.key does not match ca.crt");
  return CertificateAuthority(stateDir, std::move(cert), std::move(key));
}

IssuedCertificate CertificateAuthority::Issue(const CertificateOrder& order) const {
  std::lock_guard lock(mutex_);
  IssuedCertificate issued;
  X509Ptr cert = NewCertificate(order.publicKey, order.validity, issued.serial);
  X509_NAME* name = X509_get_subject_name(cert.get());
  AddNameEntry(name, NID_organizationName, order.organisation);
  AddNameEntry(name, NID_commonName, order.commonName);
  Check(X509_set_issuer_name(cert.get(), X509_get_subject_name(cert_.get())) == 1, "issuer");
  bool rsa = EVP_PKEY_is_a(order.publicKey, "RSA");
  AddExtension(cert.get(), cert_.get(), NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(cert.get(), cert_.get(), NID_key_usage,
               rsa ? "critical,digitalSignature,keyEncipherment" : "critical,digitalSignature");
  AddExtension(cert.get(), cert_.get(), NID_ext_key_usage,
               order.server ? "serverAuth" : "clientAuth");
  if (!order.subjectAltName.empty())
    AddExtension(cert.get(), cert_.get(), NID_subject_alt_name, order.subjectAltName.c_str());
  AddExtension(cert.get(), cert_.get(), NID_subject_key_identifier, "hash");
  AddExtension(cert.get(), cert_.get(), NID_authority_key_identifier, "keyid");
  Check(X509_sign(cert.get(), key_.get(), EVP_sha256()) > 0, "signature");
  issued.pem = ToPem(cert.get());
  issued.notAfter = ExpiryOf(cert.get());
  return issued;
}

IssuedCertificate CertificateAuthority::Replace() {
  std::lock_guard lock(mutex_);
  IssuedCertificate issued;
  // A copy keeps subject, key identifiers and constraints exactly as they were.
  X509Ptr cert(X509_dup(cert_.get()));
  Check(cert != nullptr, "copy of the CA certificate");
  issued.serial = SetRandomSerial(cert.get());
  SetValidity(cert.get(), std::chrono::days(kAuthorityValidityDays));
  Check(X509_sign(cert.get(), key_.get(), EVP_sha256()) > 0, "CA signature");
  issued.pem = ToPem(cert.get());
  issued.notAfter = ExpiryOf(cert.get());
  // Read back, so that comparisons see exactly the certificate that clients
  // get, not the copy with the old one's cached digests.
  BioPtr bio(BIO_new_mem_buf(issued.pem.data(), static_cast<int>(issued.pem.size())));
  X509Ptr reread(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  Check(reread != nullptr, "reading the new CA certificate");
  ReplaceFile(fs::path(stateDir_) / "ca.crt", issued.pem, 0644);
  cert_ = std::move(reread);
  return issued;
}

bool CertificateAuthority::IsOwn(X509* cert) const {
  std::lock_guard lock(mutex_);
  EVP_PKEY* key = X509_get0_pubkey(cert);
  return key != nullptr &&
         X509_NAME_cmp(X509_get_subject_name(cert), X509_get_subject_name(cert_.get())) == 0 &&
         EVP_PKEY_eq(key, key_.get()) == 1;
}

bool CertificateAuthority::IsCurrent(X509* cert) const {
  std::lock_guard lock(mutex_);
  return X509_cmp(cert, cert_.get()) == 0;
}

std::string CertificateAuthority::Pem() const {
  std::lock_guard lock(mutex_);
  return ToPem(cert_.get());
}

std::time_t CertificateAuthority::NotAfter() const {
  std::lock_guard lock(mutex_);
  return ExpiryOf(cert_.get());
}

std::string CertificateAuthority::Subject() const {
  std::lock_guard lock(mutex_);
  char line[256];
  X509_NAME_oneline(X509_get_subject_name(cert_.get()), line, sizeof line);
  return line;
}

}  // namespace daxo_agent
