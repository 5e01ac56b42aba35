#include "broker_trust.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace daxo_agent {

namespace {
namespace fs = std::filesystem;

struct Listener {
  int port = 0;
  std::string caFile{}, caPath{};
};

// What the broker makes of its configuration, as far as client trust goes.
struct Reading {
  int wantedPort = 0;
  bool anyListener = false, portSet = false, found = false;
  Listener defaults{1883}, other{}, wanted{};
  Listener* current = &defaults;
  int depth = 0;
};

std::string Trimmed(const std::string& text) {
  std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") + 1 - first);
}

// The broker reads paths in its configuration from its own working folder,
// which the agent cannot know; the configuration's folder is the likely one.
std::string Resolved(const std::string& path, const fs::path& config) {
  if (path.empty() || fs::path(path).is_absolute()) return path;
  return (config.parent_path() / path).lexically_normal().string();
}

void Read(const fs::path& config, Reading& r) {
  std::ifstream in(config);
  if (!in) throw std::runtime_error("cannot read the broker configuration " + config.string());
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string key, first;
    if (!(words >> key) || key.starts_with('#')) continue;
    words >> first;
    // Paths run to the end of the line, blanks included.
    std::string rest = Trimmed(line.substr(line.find(key) + key.size()));
    if (key == "listener") {
      r.anyListener = true;
      bool match = !r.found && first == std::to_string(r.wantedPort);
      r.found = r.found || match;
      r.current = match ? &r.wanted : &(r.other = {});
    } else if (key == "port" && r.current == &r.defaults) {
      r.portSet = true;
      r.defaults.port = std::atoi(first.c_str());
    } else if (key == "cafile") {
      r.current->caFile = Resolved(rest, config);
    } else if (key == "capath") {
      r.current->caPath = Resolved(rest, config);
    } else if (key == "include_dir") {
      if (++r.depth > 8) throw std::runtime_error(config.string() + ": include_dir nests too deep");
      std::vector<fs::path> files;
      std::error_code error;
      for (const fs::directory_entry& entry : fs::directory_iterator(Resolved(rest, config), error))
        if (entry.path().extension() == ".conf") files.push_back(entry.path());
      if (error)
        throw std::runtime_error(config.string() + ": cannot list include_dir " + rest + ": " +
                                 error.message());
      std::sort(files.begin(), files.end());
      for (const fs::path& file : files) Read(file, r);
      --r.depth;
    }
  }
}

}  // namespace

std::string ClientCaFileOf(const std::string& brokerConfig, int port) {
  Reading r;
  r.wantedPort = port;
  Read(brokerConfig, r);
  // The lines before the first "listener" make a listener of their own only
  // when they set its port or when there is no other.
  if (!r.found && r.defaults.port == port && (r.portSet || !r.anyListener)) {
    r.wanted = r.defaults;
    r.found = true;
  }
  const std::string &caFile = r.wanted.caFile, &caPath = r.wanted.caPath;
  std::string where = brokerConfig + ", listener " + std::to_string(port);
  if (!r.found)
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
