// RAII handles for the C resources the library holds, so that every error
// path releases what exists by simply returning.
#ifndef DAXO_C_HANDLES_H
#define DAXO_C_HANDLES_H

#include <json-c/json.h>
#include <mosquitto.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace daxo {

template <auto Free>
struct CFree {
  template <class T>
  void operator()(T* p) const noexcept {
    Free(p);
  }
};

// OPENSSL_free is a macro; this is its function form.
inline void CryptoFree(void* p) noexcept { OPENSSL_free(p); }

// A stack owns its extensions: releasing it releases them too.
inline void FreeExtensionStack(STACK_OF(X509_EXTENSION)* stack) noexcept {
  sk_X509_EXTENSION_pop_free(stack, X509_EXTENSION_free);
}

using JsonPtr = std::unique_ptr<json_object, CFree<json_object_put>>;
using CStr = std::unique_ptr<char, CFree<free>>;  // malloc'd text
using FilePtr = std::unique_ptr<FILE, CFree<fclose>>;
using X509Ptr = std::unique_ptr<X509, CFree<X509_free>>;
using X509ReqPtr = std::unique_ptr<X509_REQ, CFree<X509_REQ_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, CFree<EVP_PKEY_free>>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, CFree<EVP_PKEY_CTX_free>>;
using BioPtr = std::unique_ptr<BIO, CFree<BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, CFree<BN_clear_free>>;
using X509AlgorPtr = std::unique_ptr<X509_ALGOR, CFree<X509_ALGOR_free>>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, CFree<EVP_MD_CTX_free>>;
using Asn1BitStringPtr = std::unique_ptr<ASN1_BIT_STRING, CFree<ASN1_BIT_STRING_free>>;
using CryptoBytes = std::unique_ptr<unsigned char, CFree<CryptoFree>>;  // OPENSSL_malloc'd
using X509ExtensionPtr = std::unique_ptr<X509_EXTENSION, CFree<X509_EXTENSION_free>>;
using X509ExtensionStackPtr = std::unique_ptr<STACK_OF(X509_EXTENSION), CFree<FreeExtensionStack>>;
using MosquittoPtr = std::unique_ptr<mosquitto, CFree<mosquitto_destroy>>;
using SqlitePtr = std::unique_ptr<sqlite3, CFree<sqlite3_close_v2>>;
using SqliteStmtPtr = std::unique_ptr<sqlite3_stmt, CFree<sqlite3_finalize>>;

// The levels of a topic as mosquitto_sub_topic_tokenise yields them (an
// empty level is null), held in one allocation: the level pointers followed
// by a copy of the topic cut at each "/". Every inbound message is split, so
// one malloc instead of one per level is worth its few lines.
class TopicLevels {
 public:
  TopicLevels() = default;
  TopicLevels(const TopicLevels&) = delete;
  TopicLevels& operator=(const TopicLevels&) = delete;
  ~TopicLevels() { free(levels_); }

  // Splits topic; false when it is null or memory runs out.
  bool Tokenise(const char* topic) noexcept {
    if (topic == nullptr) return false;
    size_t length = strlen(topic);
    int count = 1;
    for (const char* c = topic; *c != '\0'; ++c) count += *c == '/';
    size_t pointers = sizeof(char*) * static_cast<size_t>(count);
    auto* block = static_cast<char**>(malloc(pointers + length + 1));
    if (block == nullptr) return false;
    char* text = reinterpret_cast<char*>(block) + pointers;
    memcpy(text, topic, length + 1);
    for (int i = 0; i < count; ++i) {
      char* end = strchrnul(text, '/');
      bool empty = end == text;
      *end = '\0';
      block[i] = empty ? nullptr : text;
      text = end + 1;
    }
    free(levels_);
    levels_ = block;
    count_ = count;
    return true;
  }
  int Count() const noexcept { return count_; }
  char** Levels() const noexcept { return levels_; }
  // A missing or empty level (level 0 of "/a/b") is null.
  const char* operator[](int i) const noexcept {
    return i >= 0 && i < count_ ? levels_[i] : nullptr;
  }

 private:
  char** levels_ = nullptr;
  int count_ = 0;
};

}  // namespace daxo

#endif
