#include "environment.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace daxo_test {
namespace fs = std::filesystem;
namespace {

constexpr const char* kMosquitto = "/usr/sbin/mosquitto";
constexpr const char* kReadyLine = "daxo-agent: ready";
// Generous: sanitizer builds start processes and handshakes slowly.
constexpr auto kStartTimeout = std::chrono::seconds(20);
constexpr int kPortAttempts = 3;

int BindEphemeralPort(int& fd) {
  fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
    throw std::runtime_error("cannot find a free port");
  return ntohs(address.sin_port);
}

bool Accepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool connected =
      fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) close(fd);
  return connected;
}

struct ScopedFd {
  int fd;
  ~ScopedFd() {
    if (fd >= 0) close(fd);
  }
};

std::string Tail(const std::vector<std::string>& lines) {
  std::string text;
  std::size_t first = lines.size() > 20 ? lines.size() - 20 : 0;
  for (std::size_t i = first; i < lines.size(); ++i) text += "\n  " + lines[i];
  return text;
}

std::string ListenerSection(int port, const std::string& folder, const std::string& certName,
                            bool mutual) {
  std::string section = "\nlistener " + std::to_string(port) + " 127.0.0.1\n";
  section += "cafile " + folder + "/ca.crt\n";
  section += "certfile " + folder + "/" + certName + ".crt\n";
  section += "keyfile " + folder + "/" + certName + ".key\n";
  if (mutual)
    section +=
        "allow_anonymous false\nrequire_certificate true\nuse_identity_as_username true\n"
        "acl_file " +
        folder + "/main.acl\n";
  else
    section +=
        "allow_anonymous true\nrequire_certificate false\n"
        "acl_file " +
        folder + "/provisioning.acl\n";
  return section;
}

}  // namespace

TestEnvironment::TempFolder::TempFolder() {
  const char* base = std::getenv("DAXO_TEST_TMP");
  fs::path root = base != nullptr && *base != '\0' ? base : "/tmp";
  fs::create_directories(root);
  std::string pattern = (root / "daxo-env-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr)
    throw std::runtime_error("mkdtemp failed in " + root.string());
  path = pattern;
}

TestEnvironment::TempFolder::~TempFolder() {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

TestEnvironment::TestEnvironment(std::vector<std::string> agentArguments)
    : folder_(temp_.path), agentArguments_(std::move(agentArguments)), authority_("daxo test CA") {
  WritePki();
  // Another process may take a port between our probe and the broker's bind.
  for (int attempt = 1;; ++attempt) {
    PickPorts();
    WriteBrokerConfig(BrokerIdentity::kTrusted);
    try {
      StartBroker();
      break;
    } catch (const std::runtime_error&) {
      broker_.Stop();
      if (attempt == kPortAttempts) throw;
    }
  }
  StartAgent();
}

TestEnvironment::~TestEnvironment() {
  std::optional<ExitStatus> agent = agent_.Stop();
  if (!agentStopped_ && agent && !agent->Clean())
    ADD_FAILURE() << "daxo-agent ended with " << agent->Describe() << ":" << Tail(agent_.Lines());
  broker_.Stop();
}

std::string TestEnvironment::CaFile() const { return PathOf("ca.crt"); }

void TestEnvironment::WritePki() {
  WriteFile(PathOf("ca.crt"), authority_.Own().certPem);
  KeyAndCertificate broker = authority_.Issue({"localhost",
                                               "",
                                               {"localhost"},
                                               {"127.0.0.1"},
                                               true,
                                               std::chrono::hours(-1),
                                               std::chrono::hours(48)});
  WriteFile(PathOf("broker.crt"), broker.certPem);
  WriteFile(PathOf("broker.key"), broker.keyPem, 0600);
  KeyAndCertificate agent = authority_.Issue(
      {"daxo-agent", "", {}, {}, false, std::chrono::hours(-1), std::chrono::hours(48)});
  WriteFile(PathOf("agent.crt"), agent.certPem);
  WriteFile(PathOf("agent.key"), agent.keyPem, 0600);
  fs::create_directory(folder_ / "agent-state");
  fs::permissions(folder_ / "agent-state", fs::perms::owner_all, fs::perm_options::replace);
  WriteFile(PathOf("agent-state/ca.crt"), authority_.Own().certPem);
  WriteFile(PathOf("agent-state/ca.key"), authority_.Own().keyPem, 0600);
  WriteFile(PathOf("provisioning.acl"), "topic write /createConnector\ntopic read /certBack/#\n");
  WriteFile(PathOf("main.acl"),
            "pattern readwrite /v1.0/%u/#\n\nuser daxo-agent\ntopic readwrite #\n");
  fs::create_directory(folder_ / "clients");
}

void TestEnvironment::PickPorts() {
  // Both sockets stay bound until both ports are known, so they differ.
  int provisionFd = -1, mainFd = -1;
  try {
    provisionPort_ = BindEphemeralPort(provisionFd);
    mainPort_ = BindEphemeralPort(mainFd);
  } catch (...) {
    if (provisionFd >= 0) close(provisionFd);
    if (mainFd >= 0) close(mainFd);
    throw;
  }
  close(provisionFd);
  close(mainFd);
}

void TestEnvironment::WriteBrokerConfig(BrokerIdentity identity) {
  std::string certName = "broker";
  if (identity == BrokerIdentity::kForeign) {
    if (!foreignAuthority_) {
      foreignAuthority_ = std::make_unique<TestAuthority>("daxo foreign CA");
      KeyAndCertificate foreign = foreignAuthority_->Issue({"localhost",
                                                            "",
                                                            {"localhost"},
                                                            {"127.0.0.1"},
                                                            true,
                                                            std::chrono::hours(-1),
                                                            std::chrono::hours(48)});
      WriteFile(PathOf("foreign-broker.crt"), foreign.certPem);
      WriteFile(PathOf("foreign-broker.key"), foreign.keyPem, 0600);
    }
    certName = "foreign-broker";
  }
  std::string config = "per_listener_settings true\npersistence false\nset_tcp_nodelay true\n";
  config += "log_dest file " + PathOf("mosquitto.log") + "\nlog_type all\n";
  // As root the broker would switch to its own user, which cannot read this folder.
  if (geteuid() == 0) config += "user root\n";
  config += ListenerSection(provisionPort_, folder_.string(), certName, false);
  config += ListenerSection(mainPort_, folder_.string(), certName, true);
  WriteFile(PathOf("mosquitto.conf"), config);
  identity_ = identity;
}

void TestEnvironment::StartBroker() {
  int readyBefore = ReadyCount();
  broker_.Start({kMosquitto, "-c", PathOf("mosquitto.conf")}, PathOf("broker.out"));
  WaitForBrokerListening();
  if (identity_ == BrokerIdentity::kTrusted && !agentStopped_ && agent_.Running())
    WaitForAgentReady(readyBefore);
}

void TestEnvironment::WaitForBrokerListening() {
  auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  while (!(Accepts(provisionPort_) && Accepts(mainPort_))) {
    if (!broker_.Running() || std::chrono::steady_clock::now() >= deadline)
      throw std::runtime_error("mosquitto does not listen on ports " +
                               std::to_string(provisionPort_) + " and " +
                               std::to_string(mainPort_) + ":" + Tail(broker_.Lines()));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void TestEnvironment::StopBroker() { broker_.Stop(); }

void TestEnvironment::RestartBroker(BrokerIdentity identity) {
  StopBroker();
  WriteBrokerConfig(identity);
  StartBroker();
}

std::optional<ExitStatus> TestEnvironment::StopAgent() {
  agentStopped_ = true;
  return agent_.Stop();
}

void TestEnvironment::StartAgent() {
  std::vector<std::string> argv = {DAXO_AGENT_PATH,
                                   "--host",
                                   host_,
                                   "--port",
                                   std::to_string(mainPort_),
                                   "--cafile",
                                   PathOf("ca.crt"),
                                   "--cert",
                                   PathOf("agent.crt"),
                                   "--key",
                                   PathOf("agent.key"),
                                   "--state",
                                   PathOf("agent-state")};
  argv.insert(argv.end(), agentArguments_.begin(), agentArguments_.end());
  agent_.Start(argv, PathOf("agent.log"));
  agentStopped_ = false;
  if (identity_ == BrokerIdentity::kTrusted && broker_.Running()) WaitForAgentReady(0);
}

int TestEnvironment::ReadyCount() const {
  std::vector<std::string> lines = agent_.Lines();
  return static_cast<int>(std::count(lines.begin(), lines.end(), kReadyLine));
}

void TestEnvironment::WaitForAgentReady(int readyBefore) {
  auto ready = [readyBefore](const std::vector<std::string>& lines) {
    return std::count(lines.begin(), lines.end(), kReadyLine) > readyBefore;
  };
  if (!agent_.WaitForOutput(ready, kStartTimeout))
    throw std::runtime_error("daxo-agent did not become ready:" + Tail(agent_.Lines()));
}

bool TestEnvironment::WaitForAgentOutput(std::string_view text, std::chrono::milliseconds timeout) {
  return agent_.WaitForOutput(
      [text](const std::vector<std::string>& lines) {
        return std::any_of(lines.begin(), lines.end(), [text](const std::string& line) {
          return line.find(text) != std::string::npos;
        });
      },
      timeout);
}

std::string TestEnvironment::AgentControlSocket() const {
  auto given = std::find(agentArguments_.begin(), agentArguments_.end(), "--control");
  if (given != agentArguments_.end() && given + 1 != agentArguments_.end()) return *(given + 1);
  return PathOf("agent-state/control.sock");
}

std::string TestEnvironment::AgentControl(const std::string& command,
                                          std::chrono::milliseconds timeout) const {
  std::string path = AgentControlSocket();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path)
    throw std::runtime_error("the control socket path is too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  ScopedFd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  if (connect(fd.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("no agent answers on " + path + ": " + std::strerror(errno));
  std::string request = command;
  std::replace(request.begin(), request.end(), '\n', ' ');
  request += '\n';
  if (send(fd.fd, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size()))
    throw std::runtime_error("cannot send the control command: " +
                             std::string(std::strerror(errno)));
  auto deadline = std::chrono::steady_clock::now() + timeout;
  std::string answer;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd entry{fd.fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0)
      throw std::runtime_error("no answer to \"" + command + "\" in time; so far: " + answer);
    char buffer[4096];
    ssize_t got = read(fd.fd, buffer, sizeof buffer);
    if (got > 0) answer.append(buffer, static_cast<std::size_t>(got));
    if (std::size_t end = answer.find('\n'); end != std::string::npos) return answer.substr(0, end);
    if (got <= 0) throw std::runtime_error("the agent closed the control connection: " + answer);
  }
}

std::string TestEnvironment::NewCertFolder() {
  fs::path folder = folder_ / "clients" / ("client-" + std::to_string(++clientFolders_));
  fs::create_directory(folder);
  fs::permissions(folder, fs::perms::owner_all, fs::perm_options::replace);
  return folder.string();
}

std::string TestEnvironment::WriteClientConfig(const ClientConfig& config) {
  std::string text = "MqttHost " + (config.host.empty() ? host_ : config.host) + "\n";
  text += "MqttPort " + std::to_string(config.port != 0 ? config.port : mainPort_) + "\n";
  text += "MqttProvisionPort " +
          std::to_string(config.provisionPort != 0 ? config.provisionPort : provisionPort_) + "\n";
  text += "MqttKeepAlive " + std::to_string(config.keepAlive) + "\n";
  text += "CaFile " + (config.caFile.empty() ? CaFile() : config.caFile) + "\n";
  text += "CertFolder " + config.certFolder + "\n";
  if (config.clientName) text += "ClientName " + *config.clientName + "\n";
  std::string path = PathOf("client-" + std::to_string(++clientConfigs_) + ".conf");
  WriteFile(path, text);
  return path;
}

void TestEnvironment::IssueClientCertificate(const std::string& certFolder,
                                             const CertificateTerms& terms) const {
  KeyAndCertificate issued = authority_.Issue(terms);
  WriteFile(certFolder + "/cert.crt", issued.certPem);
  WriteFile(certFolder + "/priv_key.key", issued.keyPem, 0600);
}

}  // namespace daxo_test
