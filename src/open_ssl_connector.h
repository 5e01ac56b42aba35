// Key, request, digest and certificate utilities: every use the library
// makes of libcrypto's certificate and digest facilities. The module keeps no
// state and knows nothing of the client: a fallible operation returns null on
// success or a constant English message naming the step that failed, which
// the caller logs as it is and never frees.
#ifndef DAXO_OPEN_SSL_CONNECTOR_H
#define DAXO_OPEN_SSL_CONNECTOR_H

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "daxo_client.h"

#ifdef __cplusplus
extern "C" {
#endif

// CreateCSR generates a fresh RSA-2048 key (exponent 65537) and a signed
// PKCS#10 request with subject O=organization, CN=commonName and a key-usage
// extension. On success *certRequest holds the request's PEM text,
// *certRequestLen its length without the NUL and *privatekeyString the
// unencrypted PEM key; the caller frees both texts, wiping the key first.
// When a step after the key's encoding fails, *privatekeyString is already
// set and is the caller's to release.
DAXO_EXPORT const char* CreateCSR(const char* commonName, const char* organization,
                                  char** certRequest, long* certRequestLen,
                                  char** privatekeyString) DAXO_NOEXCEPT;

// Makes the key pair for CreateCSR: a new key with the given public
// exponent, or null.
typedef EVP_PKEY* (*GenerateKeyFunction)(BIGNUM* exponent);

// CreateCSRInternal is CreateCSR with the key generation supplied, so that
// tests can exercise every later step without paying for a fresh RSA key.
DAXO_EXPORT const char* CreateCSRInternal(const char* commonName, const char* organization,
                                          char** certRequest, long* certRequestLen,
                                          char** privatekeyString,
                                          GenerateKeyFunction generateKey) DAXO_NOEXCEPT;

// sha256 writes the lowercase hex SHA-256 digest of string's bytes (without
// the NUL) and a NUL into outputBuffer, which holds at least 65 bytes. Should
// libcrypto fail, outputBuffer is left as an empty string.
DAXO_EXPORT void sha256(char* string, char* outputBuffer) DAXO_NOEXCEPT;

// openPemFile returns the first PEM certificate of filename, released by the
// caller with X509_free, or null.
DAXO_EXPORT X509* openPemFile(const char* filename) DAXO_NOEXCEPT;

// ReadCertificateCN stores a copy of the first subject common name of the PEM
// certificate at certPath in *commonName (freed by the caller).
DAXO_EXPORT const char* ReadCertificateCN(const char* certPath, char** commonName) DAXO_NOEXCEPT;

// Builds an extension of type nid from its text form and pushes it on sk.
DAXO_EXPORT const char* AddExt(STACK_OF(X509_EXTENSION) * sk, int nid,
                               const char* value) DAXO_NOEXCEPT;

// Encode the object as PEM into a heap string owned by the caller.
DAXO_EXPORT const char* ConvertPrivateKeyToPemEncodedString(EVP_PKEY* pKey,
                                                            char** privatekeyString) DAXO_NOEXCEPT;
DAXO_EXPORT const char* ConvertCertificateRequestToPemEncodedString(X509_REQ* x509_req,
                                                                    char** certBuffer,
                                                                    long* buffLen) DAXO_NOEXCEPT;

// Releases each non-null object: the request, the key, then the exponent.
DAXO_EXPORT void FreeRessources(X509_REQ* x509_req, EVP_PKEY* evpOut, BIGNUM* bne) DAXO_NOEXCEPT;

// Checks of certificates and keys that arrive as text, before anything is
// stored. Each returns null when the check passes, or why it does not.

// CheckCertificateForKey: certPem holds a certificate (certLen bytes, no NUL
// needed) whose public key is the one of the PEM private key keyPem and,
// when commonName is not null, whose first subject common name is
// commonName.
DAXO_EXPORT const char* CheckCertificateForKey(const char* certPem, size_t certLen,
                                               const char* keyPem,
                                               const char* commonName) DAXO_NOEXCEPT;

// CheckAuthorityCertificate: pem's first certificate is a CA certificate.
DAXO_EXPORT const char* CheckAuthorityCertificate(const char* pem, size_t len) DAXO_NOEXCEPT;

// VerifyCertificate: certPem's first certificate chains to a certificate of
// the PEM file caFile, at the current time.
DAXO_EXPORT const char* VerifyCertificate(const char* certPem, size_t len,
                                          const char* caFile) DAXO_NOEXCEPT;

// CertificateExpiry: 1 when pem's first certificate is past its end of
// validity, 0 when it is not, -1 when pem holds no certificate. The end of
// validity is written to date ("2026-11-25 10:00:00 UTC") when size allows.
DAXO_EXPORT int CertificateExpiry(const char* pem, size_t len, char* date,
                                  size_t size) DAXO_NOEXCEPT;

// AuthorityBundle: newPem followed by every certificate of the PEM file
// oldFile that is still valid and is not newPem's own; a heap text freed by
// the caller, or null when memory runs out.
DAXO_EXPORT char* AuthorityBundle(const char* newPem, const char* oldFile) DAXO_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
