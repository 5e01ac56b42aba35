#include "provisioning.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

#include <cstdio>
#include <optional>
#include <stdexcept>

#include "log.h"

namespace daxo_agent {

struct SigningRequest {
  X509ReqPtr request;
  std::string commonName;
  std::string organisation;
};

namespace {

// The suffix adds 7 characters to the requested name; X.509 allows 64.
constexpr std::size_t kMaxRequestedName = 64 - 7;

std::string HexBytes(const unsigned char* bytes, std::size_t count) {
  std::string hex;
  char digits[3];
  for (std::size_t i = 0; i < count; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
    hex += digits;
  }
  return hex;
}

std::string Sha256Hex(std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &size, EVP_sha256(), nullptr) != 1)
    throw std::runtime_error("SHA-256 failed");
  return HexBytes(digest, size);
}

// The name becomes a topic level and the broker's user name.
bool UsableClientName(const std::string& name) {
  return name.size() <= kMaxRequestedName && UsableTopicLevel(name);
}

std::optional<SigningRequest> ReadSigningRequest(std::string_view pem, ApiFault& fault) {
  SigningRequest parsed{ReadVerifiedRequest(pem, fault), {}, {}};
  if (parsed.request == nullptr) return std::nullopt;
  X509_NAME* subject = X509_REQ_get_subject_name(parsed.request.get());
  std::optional<std::string> cn = NameEntry(subject, NID_commonName);
  if (!cn || cn->empty()) {
    fault = {kCertificateWithoutCommonName, "the certificate request has no common name"};
    return std::nullopt;
  }
  if (!UsableClientName(*cn)) {
    fault = {kInvalidClientName, "the client name \"" + *cn + "\" is not allowed"};
    return std::nullopt;
  }
  parsed.commonName = *cn;
  parsed.organisation = NameEntry(subject, NID_organizationName).value_or("");
  return parsed;
}

}  // namespace

std::optional<std::string> NameEntry(X509_NAME* name, int nid) {
  int index = X509_NAME_get_index_by_NID(name, nid, -1);
  if (index < 0) return std::nullopt;
  unsigned char* utf8 = nullptr;
  int size = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
  if (size < 0) return std::nullopt;
  std::string text(reinterpret_cast<char*>(utf8), static_cast<std::size_t>(size));
  OPENSSL_free(utf8);
  return text;
}

X509ReqPtr ReadVerifiedRequest(std::string_view pem, ApiFault& fault) {
  if (pem.empty()) {
    fault = {kCertificateIsEmpty, "the certificate request is empty"};
    return nullptr;
  }
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  X509ReqPtr request(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
  if (request == nullptr) {
    fault = {kCertificateFormatError, "the payload is not a PEM certificate request"};
  } else if (EVP_PKEY* key = X509_REQ_get0_pubkey(request.get());
             key == nullptr || X509_REQ_verify(request.get(), key) != 1) {
    fault = {kCertificateFormatError, "the certificate request's signature does not verify"};
    request.reset();
  }
  ERR_clear_error();
  return request;
}

std::vector<Route> Provisioning::Routes() {
  return {
      {"/createConnector", [this](const Message& m, Outbox& out) { CreateConnector(m, out); }},
      {"/v1.0/+/delete", [this](const Message& m, Outbox& out) { Deprovision(m, out); }},
  };
}

void Provisioning::CreateConnector(const Message& message, Outbox& out) {
  std::string replyTopic = "/certBack/" + Sha256Hex(message.payload);
  ApiFault fault;
  std::optional<SigningRequest> request = ReadSigningRequest(message.payload, fault);
  std::optional<std::string> certificate;
  if (request) certificate = IssueFor(*request, fault);
  if (!certificate) {
    Log("refused the certificate request: " + fault.message);
    out.PublishError(replyTopic + "/error", fault);
    return;
  }
  out.Publish(replyTopic, *certificate);
}

std::optional<std::string> Provisioning::IssueFor(const SigningRequest& request, ApiFault& fault) {
  try {
    ClientRecord record{UniqueId(request.commonName), request.commonName,
                        request.organisation,         {},
                        std::time(nullptr),           0};
    IssuedCertificate issued =
        ca_.Issue({X509_REQ_get0_pubkey(request.request.get()), record.id, record.organisation,
                   std::chrono::days(terms_.provisioningDays.load())});
    record.serial = issued.serial;
    record.notAfter = issued.notAfter;
    Log("issued " + record.id + " for the requested name " + record.requestedName);
    store_.AddClient(std::move(record));
    return issued.pem;
  } catch (const std::exception& e) {
    fault = {kInternalError, std::string("cannot issue a certificate: ") + e.what()};
    return std::nullopt;
  }
}

std::string Provisioning::UniqueId(const std::string& requestedName) const {
  for (;;) {
    unsigned char suffix[3];
    if (RAND_bytes(suffix, sizeof suffix) != 1) throw std::runtime_error("no random bytes");
    std::string id = requestedName + "-" + HexBytes(suffix, sizeof suffix);
    if (!store_.HasClient(id)) return id;
  }
}

void Provisioning::Deprovision(const Message& message, Outbox&) {
  const std::string& id = message.levels.at(2);
  if (store_.RemoveClient(id))
    Log("deprovisioned " + id);
  else
    Log("deprovisioned " + id + ", which this agent run had not issued");
}

}  // namespace daxo_agent
