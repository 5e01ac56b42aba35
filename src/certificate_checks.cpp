// Checks of the certificates the agent sends, made before anything is
// stored: a file replaced by something unusable would cost the device its
// identity.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <climits>
#include <cstring>
#include <ctime>

#include "c_handles.h"
#include "open_ssl_connector.h"
#include "string_utils.h"

namespace {

using daxo::BioPtr;
using daxo::EvpPkeyPtr;
using daxo::X509Ptr;

using X509StorePtr = std::unique_ptr<X509_STORE, daxo::CFree<X509_STORE_free>>;
using X509StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, daxo::CFree<X509_STORE_CTX_free>>;

constexpr const char* kNotCertificate = "not a PEM certificate";
constexpr const char* kNotKey = "not a PEM private key";
constexpr const char* kOtherKey = "the certificate is for another key";
constexpr const char* kOtherName = "the certificate names another client";
constexpr const char* kNoName = "the certificate names no client";
constexpr const char* kNotAuthority = "not a certificate authority";
constexpr const char* kNoMemory = "out of memory";
constexpr const char* kAuthorityFile = "the authority file cannot be read";
constexpr const char* kNotSigned = "not signed by the authority file";

X509Ptr ReadCertificate(const char* pem, size_t len) noexcept {
  if (pem == nullptr || len == 0 || len > INT_MAX) return nullptr;
  BioPtr in(BIO_new_mem_buf(pem, static_cast<int>(len)));
  if (in == nullptr) return nullptr;
  X509Ptr certificate(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
  // What failed is reported by our message; libcrypto's queue would only
  // surface in the next unrelated caller's error.
  ERR_clear_error();
  return certificate;
}

EvpPkeyPtr ReadKey(const char* pem) noexcept {
  if (pem == nullptr) return nullptr;
  BioPtr in(BIO_new_mem_buf(pem, -1));
  if (in == nullptr) return nullptr;
  EvpPkeyPtr key(PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr));
  ERR_clear_error();
  return key;
}

bool NamesClient(X509* certificate, const char* commonName, const char** failure) noexcept {
  X509_NAME* subject = X509_get_subject_name(certificate);
  int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  ASN1_STRING* data =
      index < 0 ? nullptr : X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
  if (data == nullptr) {
    *failure = kNoName;
    return false;
  }
  size_t length = static_cast<size_t>(ASN1_STRING_length(data));
  if (length != strlen(commonName) ||
      memcmp(ASN1_STRING_get0_data(data), commonName, length) != 0) {
    *failure = kOtherName;
    return false;
  }
  return true;
}

}  // namespace

extern "C" const char* CheckCertificateForKey(const char* certPem, size_t certLen,
                                              const char* keyPem, const char* commonName) noexcept {
  X509Ptr certificate = ReadCertificate(certPem, certLen);
  if (certificate == nullptr) return kNotCertificate;
  EvpPkeyPtr key = ReadKey(keyPem);
  if (key == nullptr) return kNotKey;
  int matches = X509_check_private_key(certificate.get(), key.get());
  ERR_clear_error();
  if (matches != 1) return kOtherKey;
  const char* failure = nullptr;
  if (commonName != nullptr && !NamesClient(certificate.get(), commonName, &failure))
    return failure;
  return nullptr;
}

extern "C" const char* CheckAuthorityCertificate(const char* pem, size_t len) noexcept {
  X509Ptr certificate = ReadCertificate(pem, len);
  if (certificate == nullptr) return kNotCertificate;
  // 1: a CA by its basic constraints; 3: an old self-signed certificate
  // without extensions, which TLS also accepts as a trust anchor.
  int ca = X509_check_ca(certificate.get());
  return ca == 1 || ca == 3 ? nullptr : kNotAuthority;
}

extern "C" const char* VerifyCertificate(const char* certPem, size_t len,
                                         const char* caFile) noexcept {
  X509Ptr certificate = ReadCertificate(certPem, len);
  if (certificate == nullptr) return kNotCertificate;
  X509StorePtr store(X509_STORE_new());
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  if (store == nullptr || context == nullptr) return kNoMemory;
  int loaded = X509_STORE_load_file(store.get(), caFile);
  ERR_clear_error();
  if (loaded != 1) return kAuthorityFile;
  if (X509_STORE_CTX_init(context.get(), store.get(), certificate.get(), nullptr) != 1)
    return kNoMemory;
  int verified = X509_verify_cert(context.get());
  ERR_clear_error();
  return verified == 1 ? nullptr : kNotSigned;
}

extern "C" int CertificateExpiry(const char* pem, size_t len, char* date, size_t size) noexcept {
  X509Ptr certificate = ReadCertificate(pem, len);
  if (certificate == nullptr) return -1;
  const ASN1_TIME* end = X509_get0_notAfter(certificate.get());
  struct tm at {};
  if (date != nullptr && size > 0) {
    date[0] = '\0';
    if (ASN1_TIME_to_tm(end, &at) == 1) strftime(date, size, "%Y-%m-%d %H:%M:%S UTC", &at);
  }
  return X509_cmp_current_time(end) < 0 ? 1 : 0;
}

extern "C" char* AuthorityBundle(const char* newPem, const char* oldFile) noexcept {
  X509Ptr fresh = ReadCertificate(newPem, newPem != nullptr ? strlen(newPem) : 0);
  BioPtr out(BIO_new(BIO_s_mem()));
  if (fresh == nullptr || out == nullptr) return nullptr;
  size_t length = strlen(newPem);
  if (BIO_write(out.get(), newPem, static_cast<int>(length)) != static_cast<int>(length))
    return nullptr;
  if (newPem[length - 1] != '\n' && BIO_write(out.get(), "\n", 1) != 1) return nullptr;
  // The old authorities keep the broker trusted until it has switched to the
  // new one; an unreadable old file simply adds nothing.
  if (BioPtr in(BIO_new_file(oldFile, "rb")); in != nullptr) {
    while (X509Ptr old{PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr)}) {
      if (X509_cmp(old.get(), fresh.get()) == 0) continue;
      if (X509_cmp_current_time(X509_get0_notAfter(old.get())) <= 0) continue;
      if (PEM_write_bio_X509(out.get(), old.get()) != 1) return nullptr;
    }
  }
  ERR_clear_error();
  char* data = nullptr;
  long bundleLength = BIO_get_mem_data(out.get(), &data);
  return bundleLength > 0 ? StrnDup(data, static_cast<size_t>(bundleLength)) : nullptr;
}
