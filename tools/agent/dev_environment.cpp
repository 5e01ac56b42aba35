#include "dev_environment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "certificate_authority.h"

namespace daxo_agent {
namespace fs = std::filesystem;
namespace {

constexpr const char* kMosquitto = "/usr/sbin/mosquitto";
constexpr const char* kHost = "127.0.0.1";
constexpr std::chrono::days kValidity{3650};

std::string Reason(const std::string& what) { return what + ": " + std::strerror(errno); }

// Through a fresh file and a rename, so that a file that existed gets the
// mode too and is never seen half written. The fresh file is made anew and
// never followed: a link planted under its name must not receive a key.
void WriteFile(const fs::path& path, const std::string& content, mode_t mode = 0644) {
  fs::path fresh = path;
  fresh += ".new";
  if (unlink(fresh.c_str()) != 0 && errno != ENOENT)
    throw std::runtime_error(Reason("cannot remove " + fresh.string()));
  int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error(Reason("cannot create " + fresh.string()));
  bool written = fchmod(fd, mode) == 0;
  for (std::size_t done = 0; written && done < content.size();) {
    ssize_t n = write(fd, content.data() + done, content.size() - done);
    written = n > 0 || (n < 0 && errno == EINTR);
    if (n > 0) done += static_cast<std::size_t>(n);
  }
  written = close(fd) == 0 && written;
  if (written && rename(fresh.c_str(), path.c_str()) == 0) return;
  std::string reason = Reason("cannot write " + path.string());
  unlink(fresh.c_str());
  throw std::runtime_error(reason);
}

// The folder receives the broker's private key and the agent's authority.
void RequirePrivateFolder(const fs::path& dir) {
  struct stat st {};
  if (stat(dir.c_str(), &st) != 0) {
    if (errno != ENOENT) throw std::runtime_error(Reason("cannot inspect " + dir.string()));
    fs::create_directories(dir.parent_path());
    if (mkdir(dir.c_str(), 0700) != 0)
      throw std::runtime_error(Reason("cannot create " + dir.string()));
    return;
  }
  if (!S_ISDIR(st.st_mode)) throw std::runtime_error(dir.string() + " is not a folder");
  if (st.st_uid != geteuid())
    throw std::runtime_error(dir.string() +
                             " belongs to another user, who could read or replace the keys "
                             "written into it; choose a folder of your own");
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    throw std::runtime_error(dir.string() +
                             " is writable by others, who could read or replace the keys written "
                             "into it; run chmod go-w on it or choose another folder");
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
  RequirePrivateFolder(dir);
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
  // The application's private key will live there.
  fs::path certs = dir / "client-certs";
  if (mkdir(certs.c_str(), 0700) != 0 && errno != EEXIST)
    throw std::runtime_error(Reason("cannot create " + certs.string()));
  std::printf(
      "A development environment is ready in %s.\n"
      "Start the broker and the agent, each in a terminal of its own:\n\n"
      "  %s -c %s\n  %s\n\n"
      "Applications use %s (e.g. daxoctl -c %s provision).\n",
      dir.c_str(), kMosquitto, (dir / "mosquitto.conf").c_str(), AgentCommand(env, dir).c_str(),
      (dir / "client.conf").c_str(), (dir / "client.conf").c_str());
}

}  // namespace daxo_agent
