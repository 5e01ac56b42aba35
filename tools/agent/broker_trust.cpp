#include "broker_trust.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace daxo_agent {

namespace {

struct Listener {
  int port = 0;
  std::string caFile{}, caPath{};
};

}  // namespace

std::string ClientCaFileOf(const std::string& brokerConfig, int port) {
  std::ifstream in(brokerConfig);
  if (!in) throw std::runtime_error("cannot read the broker configuration " + brokerConfig);
  // The lines before the first "listener" set up the default one, on "port".
  Listener defaults{1883}, other, wanted;
  Listener* current = &defaults;
  bool found = false;
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string key, value;
    if (!(words >> key) || key.starts_with('#')) continue;
    words >> value;
    if (key == "listener") {
      bool match = !found && value == std::to_string(port);
      found = found || match;
      current = match ? &wanted : &(other = {});
    } else if (key == "port" && current == &defaults) {
      defaults.port = std::atoi(value.c_str());
    } else if (key == "cafile") {
      current->caFile = value;
    } else if (key == "capath") {
      current->caPath = value;
    }
  }
  if (!found && defaults.port == port) {
    wanted = defaults;
    found = true;
  }
  const std::string &caFile = wanted.caFile, &caPath = wanted.caPath;
  std::string where = brokerConfig + ", listener " + std::to_string(port);
  if (!found)
    throw std::runtime_error(brokerConfig + " has no listener on port " + std::to_string(port) +
                             " (--port): the agent would connect to another broker");
  if (caFile.empty() && caPath.empty())
    throw std::runtime_error(where + " names no cafile: it cannot verify the certificates " +
                             "that the agent issues");
  return caFile;
}

void RequireTrust(const CertificateAuthority& ca, const std::string& caFile,
                  const std::string& source) {
  BioPtr bio(BIO_new_file(caFile.c_str(), "r"));
  if (bio == nullptr) throw std::runtime_error("cannot read " + caFile + " (" + source + ")");
  bool trusted = false;
  while (X509Ptr cert{PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)})
    trusted = trusted || ca.IsOwn(cert.get());
  ERR_clear_error();  // the end of the file reads as an error
  if (trusted) return;
  throw std::runtime_error(
      "the broker verifies client certificates with " + caFile + " (" + source +
      "), which does not hold this agent's authority \"" + ca.Subject() + "\" (" +
      ca.CertificatePath() +
      "): every client it provisions would be refused. Give --state the folder whose ca.crt the "
      "broker trusts (daxo-agent init DIR makes DIR/agent-state), or add " +
      ca.CertificatePath() + " to " + caFile + " and restart the broker");
}

}  // namespace daxo_agent
