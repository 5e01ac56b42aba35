// Certificates made at test time with libcrypto directly, independent of the
// library's own certificate code.
#ifndef DAXO_TEST_CERTIFICATES_H
#define DAXO_TEST_CERTIFICATES_H

#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>
#include <string>

namespace testcert {

template <class T, void (*Free)(T*)>
using Ptr = std::unique_ptr<T, std::integral_constant<decltype(Free), Free>>;

inline std::string Text(BIO* bio) {
  char* data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  return std::string(data, length);
}

// A self-signed PEM certificate whose subject is O=org, CN=cn.
inline std::string SelfSigned(const std::string& cn, const std::string& org = "Tests") {
  Ptr<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
  Ptr<X509, X509_free> cert(X509_new());
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_NAME* name = X509_get_subject_name(cert.get());
  for (auto [field, value] : {std::pair{"O", &org}, std::pair{"CN", &cn}})
    X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(value->c_str()), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  X509_set_pubkey(cert.get(), key.get());
  X509_sign(cert.get(), key.get(), EVP_sha256());
  Ptr<BIO, BIO_free_all> bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cert.get());
  return Text(bio.get());
}

// Lowercase hex SHA-256 of text.
inline std::string Sha256Hex(const std::string& text) {
  unsigned char md[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), md);
  char hex[2 * SHA256_DIGEST_LENGTH + 1];
  for (int i = 0; i < SHA256_DIGEST_LENGTH; ++i) snprintf(hex + 2 * i, 3, "%02x", md[i]);
  return hex;
}

// The subject of a PEM request, "O=..,CN=.." in order.
inline std::string RequestSubject(const std::string& pem) {
  Ptr<BIO, BIO_free_all> in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  Ptr<X509_REQ, X509_REQ_free> req(PEM_read_bio_X509_REQ(in.get(), nullptr, nullptr, nullptr));
  Ptr<BIO, BIO_free_all> out(BIO_new(BIO_s_mem()));
  if (req)
    X509_NAME_print_ex(out.get(), X509_REQ_get_subject_name(req.get()), 0, XN_FLAG_SEP_COMMA_PLUS);
  return req ? Text(out.get()) : "<unreadable>";
}

}  // namespace testcert

#endif
