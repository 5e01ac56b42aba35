// Owning handles for the C objects the agent holds, so that every early
// return releases what exists.
#ifndef DAXO_AGENT_OPENSSL_HANDLES_H
#define DAXO_AGENT_OPENSSL_HANDLES_H

#include <json-c/json.h>
#include <mosquitto.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace daxo_agent {

template <auto Free>
struct CFree {
  template <class T>
  void operator()(T* p) const noexcept {
    Free(p);
  }
};

using BioPtr = std::unique_ptr<BIO, CFree<BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, CFree<BN_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, CFree<EVP_PKEY_free>>;
using JsonPtr = std::unique_ptr<json_object, CFree<json_object_put>>;
using MosquittoPtr = std::unique_ptr<mosquitto, CFree<mosquitto_destroy>>;
using X509Ptr = std::unique_ptr<X509, CFree<X509_free>>;
using X509ReqPtr = std::unique_ptr<X509_REQ, CFree<X509_REQ_free>>;
using X509ExtensionPtr = std::unique_ptr<X509_EXTENSION, CFree<X509_EXTENSION_free>>;

}  // namespace daxo_agent

#endif
