#include "certificates.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <stdexcept>

#include "log.h"
#include "provisioning.h"

namespace daxo_agent {
namespace {

constexpr const char* kAuthority = "certificate authority";
constexpr const char* kClient = "client certificate";

// Clients read the digits at fixed positions as their own local time.
std::string LocalTimestamp(std::time_t t) {
  std::tm local{};
  char text[32];
  if (localtime_r(&t, &local) == nullptr ||
      std::strftime(text, sizeof text, "%Y%m%dT%H%M%S", &local) != 15)
    throw std::runtime_error("the expiry does not fit YYYYMMDDTHHMMSS");
  return text;
}

X509Ptr ReadCertificate(std::string_view pem) {
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  ERR_clear_error();
  return cert;
}

void CheckExpireDate(const CertificateAuthority& ca, const Message& message, Outbox& out) {
  X509Ptr cert = ReadCertificate(message.payload);
  if (cert == nullptr) {
    Log("no answer to " + message.topic + ": the payload is not a PEM certificate");
    return;
  }
  JsonPtr answer(json_object_new_object());
  AddString(answer.get(), "providedExpiresAt", LocalTimestamp(ExpiryOf(cert.get())));
  bool authority = ca.IsOwn(cert.get());
  AddString(answer.get(), "certificateType", authority ? kAuthority : kClient);
  if (authority && ca.IsCurrent(cert.get())) {
    AddString(answer.get(), "validity", "valid");
  } else if (authority) {
    AddString(answer.get(), "validity", "new one available");
    AddString(answer.get(), "newCa", ca.Pem());
  }
  out.Publish(message.topic + "/inbox", PlainText(answer.get()));
}

// The id comes from the topic: the broker lets a client publish below its
// own id only, so it is the identity the client connected with.
void RenewCertificate(const CertificateAuthority& ca, Store& store, const CertificateTerms& terms,
                      const Message& message, Outbox& out) {
  const std::string& id = message.levels.at(2);
  ApiFault fault;
  X509ReqPtr request = ReadVerifiedRequest(message.payload, fault);
  if (request == nullptr) {
    Log("no answer to " + message.topic + ": " + fault.message);
    return;
  }
  X509_NAME* subject = X509_REQ_get_subject_name(request.get());
  ClientRecord record = store.FindClient(id).value_or(
      ClientRecord{id, NameEntry(subject, NID_commonName).value_or(""), {}, {}, 0, 0});
  record.organisation = NameEntry(subject, NID_organizationName).value_or("");
  IssuedCertificate issued = ca.Issue({X509_REQ_get0_pubkey(request.get()), id, record.organisation,
                                       std::chrono::days(terms.renewalDays.load())});
  record.serial = issued.serial;
  record.issuedAt = std::time(nullptr);
  record.notAfter = issued.notAfter;
  store.AddClient(record);
  Log("renewed the certificate of " + id + " until " + IsoTime(issued.notAfter));
  out.Publish(message.topic + "/inbox", issued.pem);
}

}  // namespace

std::vector<Route> CertificateRoutes(const CertificateAuthority& ca, Store& store,
                                     const CertificateTerms& terms) {
  return {
      {"/v1.0/+/checkExpireDate",
       [&ca](const Message& m, Outbox& out) { CheckExpireDate(ca, m, out); }},
      {"/v1.0/+/renewCertificate",
       [&ca, &store, &terms](const Message& m, Outbox& out) {
         RenewCertificate(ca, store, terms, m, out);
       }},
  };
}

}  // namespace daxo_agent
