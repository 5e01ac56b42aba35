// Key, request, digest and certificate utilities.
#include "open_ssl_connector.h"

#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "c_handles.h"
#include "string_utils.h"

namespace {

using daxo::Asn1BitStringPtr;
using daxo::BignumPtr;
using daxo::BioPtr;
using daxo::CryptoBytes;
using daxo::CStr;
using daxo::EvpMdCtxPtr;
using daxo::EvpPkeyCtxPtr;
using daxo::EvpPkeyPtr;
using daxo::X509AlgorPtr;
using daxo::X509ExtensionPtr;
using daxo::X509ExtensionStackPtr;
using daxo::X509Ptr;
using daxo::X509ReqPtr;

constexpr const char* kNullArguments = "NULL Argument/s are passed to the function";
constexpr const char* kEmptyArguments = "Empty Argument/s are passed to the function";
constexpr const char* kRsaOptions = "Could not set RSA options";
constexpr const char* kKeyGeneration = "Could not generate RSA-key pair";
constexpr const char* kRequestNew = "X509_REQ_new failed";
constexpr const char* kVersion = "Could not set certificate version";
constexpr const char* kOrganisation = "Could not set organisation";
constexpr const char* kCommonName = "Could not set Common Name";
constexpr const char* kKeyUsageText = "Could not set key right string";
constexpr const char* kExtension = "Could not set extension";
constexpr const char* kExtensions = "Could not set the extensions";
constexpr const char* kKeyPem = "Could not transform private key into PEM format";
constexpr const char* kPublicKey = "Could not set the public key";
constexpr const char* kSign = "Could not sign the request with the CA key";
constexpr const char* kRequestBuffer = "Could not create certificate request buffer";
constexpr const char* kRequestPem = "Could not transform certificate request into buffer";
constexpr const char* kRequestNoData = "No Data avaiaible after transformation";

constexpr const char* kCnArguments = "NULL or empty Argument/s are passed to the function";
constexpr const char* kCnLoad = "Could not load certificate";
constexpr const char* kCnMissing = "No CommonName subject included in certificate";
constexpr const char* kCnEntry = "Could not retrieve the common name entry";
constexpr const char* kCnData = "Could not transform CN field to C string";

constexpr int kKeyBits = 2048;
constexpr unsigned long kPublicExponent = 65537;
// Not the PKCS#10 value 0: the agent's side of the exchange expects 2.
constexpr long kRequestVersion = 2;
constexpr size_t kMaxSignatureBytes = 512;  // RSA up to 4096 bits

// A NUL-terminated heap copy of exactly len bytes, which may hold a NUL.
char* CopyBytes(const char* data, long len) noexcept {
  auto* copy = static_cast<char*>(malloc(static_cast<size_t>(len) + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, data, static_cast<size_t>(len));
  copy[len] = '\0';
  return copy;
}

const char* MakeExponent(BignumPtr* exponent) noexcept {
  exponent->reset(BN_new());
  if (*exponent == nullptr || BN_set_word(exponent->get(), kPublicExponent) != 1)
    return kRsaOptions;
  return nullptr;
}

EVP_PKEY* GenerateRsaKey(BIGNUM* exponent) noexcept {
  EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  if (ctx == nullptr || EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), kKeyBits) <= 0 ||
      EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), exponent) <= 0)
    return nullptr;
  EVP_PKEY* key = nullptr;
  if (EVP_PKEY_generate(ctx.get(), &key) <= 0) return nullptr;
  return key;
}

const char* GenerateKey(GenerateKeyFunction generate, BIGNUM* exponent, EvpPkeyPtr* key) noexcept {
  key->reset(generate(exponent));
  return *key == nullptr ? kKeyGeneration : nullptr;
}

const char* NewRequest(X509ReqPtr* request) noexcept {
  request->reset(X509_REQ_new());
  if (*request == nullptr) return kRequestNew;
  if (X509_REQ_set_version(request->get(), kRequestVersion) != 1) return kVersion;
  return nullptr;
}

bool AppendEntry(X509_NAME* name, const char* field, const char* text) noexcept {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC, bytes, -1, -1, 0) == 1;
}

const char* SetSubject(X509_REQ* request, const char* organization,
                       const char* commonName) noexcept {
  X509_NAME* name = X509_REQ_get_subject_name(request);
  if (!AppendEntry(name, "O", organization)) return kOrganisation;
  if (!AppendEntry(name, "CN", commonName)) return kCommonName;
  return nullptr;
}

const char* AddKeyUsage(X509_REQ* request) noexcept {
  CStr usage = daxo::Format("%s,%s,%s", "digitalSignature", "keyEncipherment", "keyAgreement");
  if (usage == nullptr) return kKeyUsageText;
  X509ExtensionStackPtr extensions(sk_X509_EXTENSION_new_null());
  if (const char* err = AddExt(extensions.get(), NID_key_usage, usage.get())) return err;
  // The request keeps its own encoding of the extensions.
  if (X509_REQ_add_extensions(request, extensions.get()) != 1) return kExtensions;
  return nullptr;
}

bool SetSignatureAlgorithm(X509_REQ* request) noexcept {
  X509AlgorPtr algorithm(X509_ALGOR_new());
  return algorithm != nullptr &&
         X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(NID_sha256WithRSAEncryption), V_ASN1_NULL,
                         nullptr) == 1 &&
         X509_REQ_set1_signature_algo(request, algorithm.get()) == 1;
}

ASN1_BIT_STRING* SignBytes(EVP_PKEY* key, const unsigned char* tbs, int tbsLen) noexcept {
  unsigned char bytes[kMaxSignatureBytes];
  size_t len = sizeof bytes;
  EvpMdCtxPtr md(EVP_MD_CTX_new());
  if (md == nullptr || EVP_PKEY_get_size(key) > static_cast<int>(sizeof bytes) ||
      EVP_DigestSignInit(md.get(), nullptr, EVP_sha256(), nullptr, key) != 1 ||
      EVP_DigestSign(md.get(), bytes, &len, tbs, static_cast<size_t>(tbsLen)) != 1)
    return nullptr;
  Asn1BitStringPtr signature(ASN1_BIT_STRING_new());
  if (signature == nullptr || ASN1_BIT_STRING_set(signature.get(), bytes, len) != 1) return nullptr;
  // Whole bytes: without the flag, encoding would drop trailing zero bits.
  signature->flags = (signature->flags & ~0x07L) | ASN1_STRING_FLAG_BITS_LEFT;
  return signature.release();
}

// X509_REQ_sign decodes the algorithm identifier of a provider key into a
// field embedded in the request, and libcrypto 3.0 frees that field when the
// decoding runs out of memory, corrupting the heap. Encoding and signing the
// request body here keeps an allocation failure an ordinary error.
const char* SignRequest(X509_REQ* request, EVP_PKEY* key) noexcept {
  if (X509_REQ_set_pubkey(request, key) != 1) return kPublicKey;
  if (!SetSignatureAlgorithm(request)) return kSign;
  unsigned char* encoded = nullptr;
  int len = i2d_re_X509_REQ_tbs(request, &encoded);
  CryptoBytes tbs(encoded);
  if (len <= 0) return kSign;
  ASN1_BIT_STRING* signature = SignBytes(key, tbs.get(), len);
  if (signature == nullptr) return kSign;
  X509_REQ_set0_signature(request, signature);
  return nullptr;
}

}  // namespace

extern "C" const char* CreateCSR(const char* commonName, const char* organization,
                                 char** certRequest, long* certRequestLen,
                                 char** privatekeyString) noexcept {
  return CreateCSRInternal(commonName, organization, certRequest, certRequestLen, privatekeyString,
                           GenerateRsaKey);
}

extern "C" const char* CreateCSRInternal(const char* commonName, const char* organization,
                                         char** certRequest, long* certRequestLen,
                                         char** privatekeyString,
                                         GenerateKeyFunction generateKey) noexcept {
  if (commonName == nullptr || organization == nullptr || certRequest == nullptr ||
      certRequestLen == nullptr || privatekeyString == nullptr || generateKey == nullptr)
    return kNullArguments;
  if (*commonName == '\0' || *organization == '\0') return kEmptyArguments;
  *certRequest = nullptr;
  *privatekeyString = nullptr;
  *certRequestLen = 0;

  BignumPtr exponent;
  EvpPkeyPtr key;
  X509ReqPtr request;
  const char* err = MakeExponent(&exponent);
  if (err == nullptr) err = GenerateKey(generateKey, exponent.get(), &key);
  if (err == nullptr) err = NewRequest(&request);
  if (err == nullptr) err = SetSubject(request.get(), organization, commonName);
  if (err == nullptr) err = AddKeyUsage(request.get());
  if (err == nullptr) err = ConvertPrivateKeyToPemEncodedString(key.get(), privatekeyString);
  if (err == nullptr) err = SignRequest(request.get(), key.get());
  if (err == nullptr)
    err = ConvertCertificateRequestToPemEncodedString(request.get(), certRequest, certRequestLen);
  FreeRessources(request.release(), key.release(), exponent.release());
  return err;
}

extern "C" const char* AddExt(STACK_OF(X509_EXTENSION) * sk, int nid, const char* value) noexcept {
  if (sk == nullptr || value == nullptr) return kNullArguments;
  X509ExtensionPtr extension(X509V3_EXT_nconf_nid(nullptr, nullptr, nid, value));
  if (extension == nullptr || sk_X509_EXTENSION_push(sk, extension.get()) <= 0) return kExtension;
  extension.release();  // the stack owns it now
  return nullptr;
}

extern "C" const char* ConvertPrivateKeyToPemEncodedString(EVP_PKEY* pKey,
                                                           char** privatekeyString) noexcept {
  if (pKey == nullptr || privatekeyString == nullptr) return kKeyPem;
  *privatekeyString = nullptr;
  // A memory BIO wipes its buffer when freed, so the key leaves no copy behind.
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (bio == nullptr ||
      PEM_write_bio_PrivateKey(bio.get(), pKey, nullptr, nullptr, 0, nullptr, nullptr) != 1)
    return kKeyPem;
  char* data = nullptr;
  long len = BIO_get_mem_data(bio.get(), &data);
  if (data == nullptr || len <= 0) return kKeyPem;
  char* copy = CopyBytes(data, len);
  if (copy == nullptr) return kKeyPem;
  *privatekeyString = copy;
  return nullptr;
}

extern "C" const char* ConvertCertificateRequestToPemEncodedString(X509_REQ* x509_req,
                                                                   char** certBuffer,
                                                                   long* buffLen) noexcept {
  if (x509_req == nullptr || certBuffer == nullptr || buffLen == nullptr) return kRequestPem;
  *buffLen = 0;
  *certBuffer = nullptr;
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (bio == nullptr) return kRequestBuffer;
  if (PEM_write_bio_X509_REQ(bio.get(), x509_req) != 1) return kRequestPem;
  char* data = nullptr;
  long len = BIO_get_mem_data(bio.get(), &data);
  if (data == nullptr || len <= 0) return kRequestNoData;
  char* copy = CopyBytes(data, len);
  if (copy == nullptr) return kRequestPem;
  *certBuffer = copy;
  *buffLen = len;
  return nullptr;
}

extern "C" void FreeRessources(X509_REQ* x509_req, EVP_PKEY* evpOut, BIGNUM* bne) noexcept {
  X509_REQ_free(x509_req);
  EVP_PKEY_free(evpOut);
  BN_clear_free(bne);
}

extern "C" void sha256(char* string, char* outputBuffer) noexcept {
  if (outputBuffer == nullptr) return;
  outputBuffer[0] = '\0';
  if (string == nullptr) return;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  // libcrypto allocates a digest context, so even a digest can fail; an empty
  // text then stands for "no digest" instead of leaving the buffer undefined.
  if (EVP_Digest(string, strlen(string), digest, &len, EVP_sha256(), nullptr) != 1) len = 0;
  for (unsigned int i = 0; i < len; ++i) snprintf(outputBuffer + 2 * i, 3, "%02x", digest[i]);
  outputBuffer[2 * len] = '\0';
}

extern "C" X509* openPemFile(const char* filename) noexcept {
  BioPtr file(BIO_new_file(filename, "rb"));
  if (file == nullptr) return nullptr;
  return PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr);
}

extern "C" const char* ReadCertificateCN(const char* certPath, char** commonName) noexcept {
  if (certPath == nullptr || *certPath == '\0' || commonName == nullptr) return kCnArguments;
  *commonName = nullptr;
  X509Ptr certificate(openPemFile(certPath));
  if (certificate == nullptr) return kCnLoad;
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0) return kCnMissing;
  X509_NAME_ENTRY* entry = X509_NAME_get_entry(subject, index);
  if (entry == nullptr) return kCnEntry;
  ASN1_STRING* data = X509_NAME_ENTRY_get_data(entry);
  if (data == nullptr) return kCnData;
  const auto* bytes = reinterpret_cast<const char*>(ASN1_STRING_get0_data(data));
  char* copy = StrnDup(bytes, static_cast<size_t>(ASN1_STRING_length(data)));
  if (copy == nullptr) return kCnData;
  *commonName = copy;
  return nullptr;
}
