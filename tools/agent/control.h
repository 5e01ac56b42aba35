// The agent's control commands, by which a developer or a test makes the
// agent act on its own: send sensor jobs to a client, replace its
// certificate authority, change what it issues, or show the registry.
// One command is one line of text; its answer is one line of JSON, an object
// whose "ok" member says whether the command was carried out and whose
// "error" member, on failure, says why.
//
//   job-create CLIENT_ID DEFINITION   creates the sensor and sends its
//       description on /v1.0/CLIENT_ID/sensor/job/create; DEFINITION is a
//       one-line JSON sensor definition without ids, e.g.
//       {"name":"hall","frequency":30,"monitoringService":"climate",
//        "metrics":[{"name":"t","valueUnit":"SI.Temperature.CELSIUS"}]}
//       Answer: {"ok":true,"sensor":DESCRIPTION} with the assigned ids.
//   job-delete CLIENT_ID SENSOR_ID    removes the sensor and sends "{}" on
//       /v1.0/CLIENT_ID/sensor/SENSOR_ID/job/delete. Answer: {"ok":true}.
//   offer-new-ca                      replaces the authority's certificate
//       by one with the same key and subject and a fresh validity (the old
//       file stays as ca.crt.previous) and from then on offers it to clients
//       that check the old one. Answer: {"ok":true,"authority":AUTHORITY}.
//   cert-days N                       client certificates issued on
//       provisioning from now on are valid for N days (1-36500), as with
//       --cert-days. Answer: {"ok":true,"authority":AUTHORITY}.
//   dump                              Answer: {"ok":true,"clients":[...],
//       "authority":AUTHORITY}, the registry with every client's sensors,
//       metrics and last values, and the error reports it sent.
//
// AUTHORITY is {"subject","notAfter","certDays","renewalDays"}: the
// authority's certificate and the validity of what it issues.
#ifndef DAXO_AGENT_CONTROL_H
#define DAXO_AGENT_CONTROL_H

#include <string>
#include <string_view>

#include "agent.h"
#include "certificate_authority.h"
#include "store.h"

namespace daxo_agent {

class Control {
 public:
  Control(Store& store, Outbox& out, CertificateAuthority& ca, CertificateTerms& terms)
      : store_(store), out_(out), ca_(ca), terms_(terms) {}

  // Carries out one command line; returns the answer without a newline.
  std::string Execute(std::string_view line);

 private:
  struct Command;
  static const Command kCommands[];

  JsonPtr JobCreate(std::string_view arguments);
  JsonPtr JobDelete(std::string_view arguments);
  JsonPtr OfferNewCa(std::string_view arguments);
  JsonPtr CertDays(std::string_view arguments);
  JsonPtr Dump(std::string_view arguments);
  JsonPtr WithAuthority(JsonPtr answer) const;

  Store& store_;
  Outbox& out_;
  CertificateAuthority& ca_;
  CertificateTerms& terms_;
};

}  // namespace daxo_agent

#endif
