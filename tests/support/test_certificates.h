// Certificates made at test time with the OpenSSL API directly, independent
// of the library's own certificate code.
#ifndef DAXO_TEST_CERTIFICATES_H
#define DAXO_TEST_CERTIFICATES_H

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace testcert {

// A self-signed PEM certificate whose subject is O=org, CN=cn.
inline std::string SelfSigned(const std::string& cn, const std::string& org = "Tests") {
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(org.c_str()), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  X509_set_pubkey(cert.get(), key.get());
  X509_sign(cert.get(), key.get(), EVP_sha256());
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_X509(bio.get(), cert.get());
  char* data = nullptr;
  long len = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, len);
}

// Lowercase hex SHA-256 of text.
inline std::string Sha256Hex(const std::string& text) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(text.data(), text.size(), md, &len, EVP_sha256(), nullptr);
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < len; ++i) {
    hex += digits[md[i] >> 4];
    hex += digits[md[i] & 15];
  }
  return hex;
}

// The subject entries of a PEM request, as "O=..,CN=.." in order.
inline std::string RequestSubject(const std::string& pem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), pem.size()),
                                                BIO_free);
  std::unique_ptr<X509_REQ, decltype(&X509_REQ_free)> req(
      PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr), X509_REQ_free);
  if (!req) return "<unreadable>";
  std::string out;
  X509_NAME* name = X509_REQ_get_subject_name(req.get());
  for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
    X509_NAME_ENTRY* e = X509_NAME_get_entry(name, i);
    int nid = OBJ_obj2nid(X509_NAME_ENTRY_get_object(e));
    ASN1_STRING* v = X509_NAME_ENTRY_get_data(e);
    if (!out.empty()) out += ",";
    out += std::string(OBJ_nid2sn(nid)) + "=" +
           std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(v)),
                       ASN1_STRING_length(v));
  }
  return out;
}

}  // namespace testcert

#endif
