// Certificates made at test time with libcrypto directly, independent of the
// library's own certificate code.
#ifndef DAXO_TEST_CERTIFICATES_H
#define DAXO_TEST_CERTIFICATES_H

#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
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

using Key = Ptr<EVP_PKEY, EVP_PKEY_free>;

inline std::string Pem(X509* cert) {
  Ptr<BIO, BIO_free_all> bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cert);
  return Text(bio.get());
}

inline std::string Pem(EVP_PKEY* key) {
  Ptr<BIO, BIO_free_all> bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  return Text(bio.get());
}

// A certificate for subjectKey, subject O=org, CN=cn, valid from `from` to
// `to` seconds from now, signed by issuerKey (itself: self-signed); ca marks
// it as an authority.
inline std::string Issue(EVP_PKEY* subjectKey, const std::string& cn, EVP_PKEY* issuerKey,
                         const std::string& issuer, bool ca = false, long from = 0, long to = 3600,
                         const std::string& org = "Tests") {
  Ptr<X509, X509_free> cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), static_cast<long>(random()));
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), from);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), to);
  for (auto [name, common] : {std::pair{X509_get_subject_name(cert.get()), &cn},
                              std::pair{X509_get_issuer_name(cert.get()), &issuer}})
    for (auto [field, value] : {std::pair{"O", &org}, std::pair{"CN", common}})
      X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                                 reinterpret_cast<const unsigned char*>(value->c_str()), -1, -1, 0);
  if (ca) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert.get(), cert.get(), nullptr, nullptr, 0);
    X509_EXTENSION* ext =
        X509V3_EXT_conf_nid(nullptr, &ctx, NID_basic_constraints, "critical,CA:TRUE");
    X509_add_ext(cert.get(), ext, -1);
    X509_EXTENSION_free(ext);
  }
  X509_set_pubkey(cert.get(), subjectKey);
  X509_sign(cert.get(), issuerKey, EVP_sha256());
  return Pem(cert.get());
}

// A self-signed PEM certificate whose subject is O=org, CN=cn.
inline std::string SelfSigned(const std::string& cn, const std::string& org = "Tests") {
  Key key(EVP_EC_gen("P-256"));
  return Issue(key.get(), cn, key.get(), cn, false, 0, 3600, org);
}

// A key and its self-signed certificate, valid from `from` to `to` seconds
// from now.
struct Identity {
  std::string key, cert;
};
inline Identity MakeIdentity(const std::string& cn, long from = 0, long to = 3600) {
  Key key(EVP_EC_gen("P-256"));
  return {Pem(key.get()), Issue(key.get(), cn, key.get(), cn, false, from, to)};
}

// A certificate for the public key of a PEM request, signed by a new key.
inline std::string IssuedFor(const std::string& requestPem, const std::string& cn) {
  Ptr<BIO, BIO_free_all> in(
      BIO_new_mem_buf(requestPem.data(), static_cast<int>(requestPem.size())));
  Ptr<X509_REQ, X509_REQ_free> req(PEM_read_bio_X509_REQ(in.get(), nullptr, nullptr, nullptr));
  Key issuer(EVP_EC_gen("P-256"));
  return req ? Issue(X509_REQ_get0_pubkey(req.get()), cn, issuer.get(), "Issuer") : "no request";
}

// A self-signed authority.
inline std::string Authority(const std::string& cn, long to = 3600) {
  Key key(EVP_EC_gen("P-256"));
  return Issue(key.get(), cn, key.get(), cn, true, 0, to);
}

// The whole content of a file; "" when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The agent's expiry answer that makes a client renew: its certificate, or,
// with newCa, its authority for newCa (any text, escaped for JSON here).
inline std::string ExpiringAnswer(const std::string& newCa = "") {
  std::string answer = R"({"providedExpiresAt":"20000101T000000","certificateType":")";
  if (newCa.empty()) return answer + "client certificate\"}";
  answer += R"(certificate authority","validity":"new one available","newCa":")";
  for (char c : newCa) answer += c == '\n' ? std::string("\\n") : std::string(1, c);
  return answer + "\"}";
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
