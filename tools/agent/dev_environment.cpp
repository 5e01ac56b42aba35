#include "dev_environment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "certificate_authority.h"

namespace daxo_agent {
namespace fs = std::filesystem;
namespace {

constexpr const char* kMosquitto = "/usr/sbin/mosquitto";
constexpr const char* kHost = "127.0.0.1";
constexpr std::chrono::days kValidity{3650};

// Through a fresh file and a rename, so that a file that existed gets the
// mode too and is never seen half written.
void WriteFile(const fs::path& path, const std::string& content, mode_t mode = 0644) {
  fs::path fresh = path;
  fresh += ".new";
  int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  bool written = fd >= 0 && fchmod(fd, mode) == 0 &&
                 write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  if (fd >= 0) close(fd);
  if (!written || rename(fresh.c_str(), path.c_str()) != 0)
    throw std::runtime_error("cannot write " + path.string());
}

void IssuePair(const CertificateAuthority& ca, const fs::path& dir, const std::string& name,
               CertificateOrder order) {
  EvpPkeyPtr key(EVP_EC_gen("P-256"));
  if (key == nullptr) throw std::runtime_error("cannot make a key for " + name);
  order.publicKey = key.get();
  order.validity = kValidity;
  WriteFile(dir / (name + ".key"), PrivateKeyPem(key.get()), 0600);
  WriteFile(dir / (name + ".crt"), ca.Issue(order).pem);
}

std::string Listener(const fs::path& dir, int port, bool main) {
  std::string text = "listener " + std::to_string(port) + " " + kHost + "\ncafile " +
                     (dir / "ca.crt").string() + "\ncertfile " + (dir / "broker.crt").string() +
                     "\nkeyfile " + (dir / "broker.key").string() + "\n";
  if (main)
    return "\n# Applications and the agent, each with the certificate the authority issued it;\n"
           "# its common name is the user name that main.acl confines.\n" +
           text +
           "require_certificate true\nuse_identity_as_username true\nallow_anonymous false\n"
           "acl_file " +
           (dir / "main.acl").string() + "\n";
  return "\n# Provisioning: anonymous clients ask the agent for a certificate.\n" + text +
         "require_certificate false\nallow_anonymous true\nacl_file " +
         (dir / "provisioning.acl").string() + "\n";
}

std::string BrokerConfig(const DevEnvironment& env, const fs::path& dir) {
  std::string text =
      "# Written by daxo-agent init; running it again rewrites this file.\n"
      "# The two listeners differ in who may connect, hence per_listener_settings.\n"
      "per_listener_settings true\npersistence false\nset_tcp_nodelay true\n"
      "log_dest stderr\nlog_dest file " +
      (dir / "mosquitto.log").string() + "\n";
  // Started as root, the broker would switch to its own user, which cannot
  // enter this folder.
  if (geteuid() == 0) text += "user root\n";
  return text + Listener(dir, env.mainPort, true) + Listener(dir, env.provisionPort, false);
}

std::string ClientConfig(const DevEnvironment& env, const fs::path& dir) {
  return "# Written by daxo-agent init for applications on this machine.\nMqttHost " +
         std::string(kHost) + "\nMqttPort " + std::to_string(env.mainPort) +
         "\nMqttProvisionPort " + std::to_string(env.provisionPort) +
         "\nMqttKeepAlive 30\nCaFile " + (dir / "ca.crt").string() + "\nCertFolder " +
         (dir / "client-certs").string() + "\n";
}

std::string AgentCommand(const DevEnvironment& env, const fs::path& dir) {
  std::error_code error;
  fs::path self = fs::read_symlink("/proc/self/exe", error);
  return (error ? "daxo-agent" : self.string()) + " --host " + kHost + " --port " +
         std::to_string(env.mainPort) + " --cafile " + (dir / "ca.crt").string() + " --cert " +
         (dir / "agent.crt").string() + " --key " + (dir / "agent.key").string() + " --state " +
         (dir / "agent-state").string() + " --broker-config " + (dir / "mosquitto.conf").string();
}

// The configuration files hold paths as single words, and the printed lines
// are pasted into a shell.
void RequirePlainPath(const fs::path& dir) {
  std::string text = dir.string();
  auto plain = [](unsigned char c) {
    return std::isalnum(c) ||
           std::string_view("/._-+,:@%").find(static_cast<char>(c)) != std::string_view::npos;
  };
  if (!std::all_of(text.begin(), text.end(), plain))
    throw std::runtime_error("\"" + text +
                             "\" holds a blank or a character the broker's configuration or a "
                             "shell would read otherwise; choose another folder");
}

}  // namespace

void WriteDevEnvironment(const DevEnvironment& env) {
  fs::path dir = fs::absolute(env.dir).lexically_normal();
  if (!dir.has_filename()) dir = dir.parent_path();
  RequirePlainPath(dir);
  if (!fs::exists(dir)) {
    fs::create_directories(dir);
    fs::permissions(dir, fs::perms::owner_all, fs::perm_options::replace);
  }
  CertificateAuthority ca = CertificateAuthority::Open((dir / "agent-state").string());
  WriteFile(dir / "ca.crt", ca.Pem());
  IssuePair(
      ca, dir, "broker",
      {.commonName = "localhost", .server = true, .subjectAltName = "DNS:localhost,IP:127.0.0.1"});
  IssuePair(ca, dir, "agent", {.commonName = "daxo-agent"});
  WriteFile(dir / "provisioning.acl", "topic write /createConnector\ntopic read /certBack/#\n");
  WriteFile(dir / "main.acl",
            "pattern readwrite /v1.0/%u/#\n\nuser daxo-agent\ntopic readwrite #\n");
  WriteFile(dir / "mosquitto.conf", BrokerConfig(env, dir));
  WriteFile(dir / "client.conf", ClientConfig(env, dir));
  std::printf(
      "A development environment is ready in %s.\n"
      "Start the broker and the agent, each in a terminal of its own:\n\n"
      "  %s -c %s\n  %s\n\n"
      "Applications use %s (e.g. daxoctl -c %s provision).\n",
      dir.c_str(), kMosquitto, (dir / "mosquitto.conf").c_str(), AgentCommand(env, dir).c_str(),
      (dir / "client.conf").c_str(), (dir / "client.conf").c_str());
}

}  // namespace daxo_agent
