#include "environment.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace daxo_test {
namespace fs = std::filesystem;
using namespace std::chrono_literals;
namespace {

constexpr const char* kMosquitto = "/usr/sbin/mosquitto";
constexpr const char* kReadyLine = "daxo-agent: ready";
constexpr auto kStartTimeout = 20s;  // sanitizer builds start slowly

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free_all)>;
using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using X509Ptr = std::unique_ptr<X509, decltype(&X509_free)>;
using Extensions = std::vector<std::pair<int, std::string>>;

void Check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test PKI: ") + what);
}

// Writes name.crt and name.key, readable by their owner only.
void WritePair(const std::string& name, EVP_PKEY* key, X509* cert) {
  for (bool isKey : {false, true}) {
    std::string path = name + (isKey ? ".key" : ".crt");
    BioPtr bio(BIO_new_file(path.c_str(), "w"), BIO_free_all);
    Check(bio && (isKey ? PEM_write_bio_PrivateKey(bio.get(), key, 0, 0, 0, 0, 0)
                        : PEM_write_bio_X509(bio.get(), cert)) == 1,
          "PEM");
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  }
}

void WriteFile(const std::string& path, const std::string& content) {
  if (!(std::ofstream(path, std::ios::binary) << content)) throw std::runtime_error(path);
}

// Both sockets stay bound until both ports are known, so that they differ.
void PickPorts(int& first, int& second) {
  int fds[2] = {-1, -1}, *ports[2] = {&first, &second};
  bool bound = true;
  for (int i = 0; i < 2; ++i) {
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    fds[i] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bound = bound && fds[i] >= 0 &&
            bind(fds[i], reinterpret_cast<sockaddr*>(&address), size) == 0 &&
            getsockname(fds[i], reinterpret_cast<sockaddr*>(&address), &size) == 0;
    *ports[i] = ntohs(address.sin_port);
  }
  for (int fd : fds)
    if (fd >= 0) close(fd);
  if (!bound) throw std::runtime_error("cannot find free ports");
}

bool Accepts(int port) {
  sockaddr_in address = Loopback(port);
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool connected =
      fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) close(fd);
  return connected;
}

std::string Tail(const std::vector<std::string>& lines) {
  std::string text;
  for (std::size_t i = lines.size() > 20 ? lines.size() - 20 : 0; i < lines.size(); ++i)
    text += "\n  " + lines[i];
  return text;
}

long ReadyCount(const std::vector<std::string>& lines) {
  return std::count(lines.begin(), lines.end(), kReadyLine);
}

}  // namespace

struct TestEnvironment::Authority {
  KeyPtr key{EVP_EC_gen("P-256"), EVP_PKEY_free};
  X509Ptr cert{nullptr, X509_free};
  long serial = 1;

  explicit Authority(const std::string& name) {
    cert = Sign(key.get(), {name, -1h},
                {{NID_basic_constraints, "critical,CA:TRUE"},
                 {NID_key_usage, "critical,keyCertSign,cRLSign"},
                 {NID_subject_key_identifier, "hash"}});
  }

  X509Ptr Sign(EVP_PKEY* subjectKey, const CertificateTerms& terms, const Extensions& extensions) {
    X509Ptr made(X509_new(), X509_free);
    X509* issuer = cert ? cert.get() : made.get();
    Check(
        key && made && X509_set_version(made.get(), X509_VERSION_3) == 1 &&
            ASN1_INTEGER_set(X509_get_serialNumber(made.get()), serial++) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(made.get()), terms.start.count()) &&
            X509_gmtime_adj(X509_getm_notAfter(made.get()), (terms.start + 24h).count()) &&
            X509_set_pubkey(made.get(), subjectKey) == 1 &&
            X509_NAME_add_entry_by_NID(
                X509_get_subject_name(made.get()), NID_commonName, MBSTRING_UTF8,
                reinterpret_cast<const unsigned char*>(terms.commonName.c_str()), -1, -1, 0) == 1 &&
            X509_set_issuer_name(made.get(), X509_get_subject_name(issuer)) == 1,
        "certificate");
    for (const auto& [nid, value] : extensions) {
      X509V3_CTX context;
      X509V3_set_ctx(&context, issuer, made.get(), nullptr, nullptr, 0);
      std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
          X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()), X509_EXTENSION_free);
      Check(extension && X509_add_ext(made.get(), extension.get(), -1) == 1, "extension");
    }
    Check(X509_sign(made.get(), key.get(), EVP_sha256()) > 0, "signature");
    return made;
  }

  // Writes name.key and name.crt.
  void Issue(const std::string& name, const CertificateTerms& terms, bool server = false) {
    KeyPtr subjectKey(EVP_EC_gen("P-256"), EVP_PKEY_free);
    Check(subjectKey != nullptr, "key");
    Extensions extensions = {{NID_basic_constraints, "critical,CA:FALSE"},
                             {NID_key_usage, "critical,digitalSignature"},
                             {NID_ext_key_usage, server ? "serverAuth" : "clientAuth"},
                             {NID_authority_key_identifier, "keyid"}};
    if (server) extensions.emplace_back(NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1");
    X509Ptr issued = Sign(subjectKey.get(), terms, extensions);
    WritePair(name, subjectKey.get(), issued.get());
  }
};

TestEnvironment::TempFolder::TempFolder() {
  const char* base = std::getenv("DAXO_TEST_TMP");
  fs::path root = base != nullptr && *base != '\0' ? base : "/tmp";
  fs::create_directories(root);
  std::string pattern = (root / "daxo-env-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed in " + pattern);
  path = pattern;
}

TestEnvironment::TempFolder::~TempFolder() {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

TestEnvironment::TestEnvironment(std::vector<std::string> agentArguments)
    : agentArguments_(std::move(agentArguments)),
      authority_(std::make_unique<Authority>("daxo test CA")) {
  // init keeps an authority it finds: this one expires within a day, so that
  // clients renew their trust in it.
  fs::create_directory(folder_ / "agent-state");
  fs::permissions(folder_ / "agent-state", fs::perms::owner_all, fs::perm_options::replace);
  WritePair(PathOf("agent-state/ca"), authority_->key.get(), authority_->cert.get());
  fs::create_directory(folder_ / "clients");
  // Another process may take a port between our probe and the broker's bind.
  for (int attempt = 1;; ++attempt) try {
      PickPorts(provisionPort_, mainPort_);
      WriteFiles();
      StartBroker();
      break;
    } catch (const std::runtime_error&) {
      if (attempt == 3) throw;
      broker_.Stop();
    }
  StartAgent();
}

// What a developer gets from `daxo-agent init`, started with the two
// command lines it prints.
void TestEnvironment::WriteFiles() {
  std::string log = PathOf("init.out");
  ExitStatus init =
      RunCommand({DAXO_AGENT_PATH, "init", folder_.string(), "--port", std::to_string(mainPort_),
                  "--provision-port", std::to_string(provisionPort_)},
                 log);
  std::ifstream out(log);
  std::vector<std::string> lines;
  for (std::string line; std::getline(out, line);) lines.push_back(line);
  if (!init.Clean()) throw std::runtime_error("daxo-agent init failed:" + Tail(lines));
  auto words = [](const std::string& line) {
    std::vector<std::string> argv;
    std::istringstream in(line);
    for (std::string word; in >> word;) argv.push_back(word);
    return argv;
  };
  for (const std::string& line : lines) {
    if (line.find(" --broker-config ") != line.npos) agentCommand_ = words(line);
    if (line.find(kMosquitto) != line.npos) brokerCommand_ = words(line);
  }
  if (agentCommand_.empty() || brokerCommand_.empty())
    throw std::runtime_error("daxo-agent init printed no command lines:" + Tail(lines));
  for (const char* suffix : {".crt", ".key"})
    fs::copy_file(PathOf(std::string("broker") + suffix),
                  PathOf(std::string("trusted-broker") + suffix),
                  fs::copy_options::overwrite_existing);
}

TestEnvironment::~TestEnvironment() {
  std::optional<ExitStatus> agent = agent_.Stop();
  if (!agentStopped_ && agent && !agent->Clean())
    ADD_FAILURE() << "daxo-agent ended with " << agent->Describe() << ":" << Tail(agent_.Lines());
  broker_.Stop();
}

// The broker's configuration stays as init wrote it; only its certificate
// changes.
void TestEnvironment::UseBrokerIdentity(BrokerIdentity identity) {
  std::string cert = identity == BrokerIdentity::kTrusted ? "trusted-broker" : "foreign-broker";
  if (identity == BrokerIdentity::kForeign && !fs::exists(PathOf(cert + ".crt")))
    Authority("daxo foreign CA").Issue(PathOf(cert), {"localhost", -1h}, true);
  for (const char* suffix : {".crt", ".key"})
    fs::copy_file(PathOf(cert + suffix), PathOf(std::string("broker") + suffix),
                  fs::copy_options::overwrite_existing);
  identity_ = identity;
}

void TestEnvironment::StartBroker() {
  long readyBefore = ReadyCount(agent_.Lines());
  broker_.Start(brokerCommand_, PathOf("broker.out"));
  auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  while (!(Accepts(provisionPort_) && Accepts(mainPort_))) {
    if (!broker_.Running() || std::chrono::steady_clock::now() >= deadline)
      throw std::runtime_error("mosquitto does not listen:" + Tail(broker_.Lines()));
    std::this_thread::sleep_for(10ms);
  }
  if (identity_ == BrokerIdentity::kTrusted && !agentStopped_ && agent_.Running())
    WaitForAgentReady(readyBefore);
}

void TestEnvironment::RestartBroker(BrokerIdentity identity) {
  StopBroker();
  UseBrokerIdentity(identity);
  StartBroker();
}

std::optional<ExitStatus> TestEnvironment::StopAgent() {
  agentStopped_ = true;
  return agent_.Stop();
}

void TestEnvironment::StartAgent() {
  std::vector<std::string> argv = agentCommand_;
  argv.insert(argv.end(), {"--push-log", PathOf("pushes.log")});
  argv.insert(argv.end(), agentArguments_.begin(), agentArguments_.end());
  agent_.Start(argv, PathOf("agent.log"));
  agentStopped_ = false;
  if (identity_ == BrokerIdentity::kTrusted && broker_.Running()) WaitForAgentReady(0);
}

void TestEnvironment::WaitForAgentReady(long readyBefore) {
  if (!agent_.WaitForOutput([=](const auto& lines) { return ReadyCount(lines) > readyBefore; },
                            kStartTimeout))
    throw std::runtime_error("daxo-agent did not become ready:" + Tail(agent_.Lines()));
}

bool TestEnvironment::WaitForAgentOutput(std::string_view text, std::chrono::milliseconds timeout) {
  auto has = [text](const std::string& line) { return line.find(text) != line.npos; };
  return agent_.WaitForOutput([&](const auto& lines) { return std::ranges::any_of(lines, has); },
                              timeout);
}

std::vector<std::string> TestEnvironment::AgentPushes() const {
  std::vector<std::string> lines;
  std::ifstream log(PathOf("pushes.log"));
  for (std::string line; std::getline(log, line);) lines.push_back(line);
  return lines;
}

std::string TestEnvironment::AgentControl(const std::string& command) const {
  std::string path = PathOf("agent-state/control.sock");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  std::string request = command + '\n', answer;
  std::replace(request.begin(), request.end() - 1, '\n', ' ');
  timeval timeout{10, 0};  // for each read: the answer is one short line
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::unique_ptr<int, void (*)(int*)> closer(&fd, [](int* f) { close(*f); });
  if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0 ||
      connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      send(fd, request.data(), request.size(), MSG_NOSIGNAL) != std::ssize(request))
    throw std::runtime_error("no agent answers on " + path + ": " + std::strerror(errno));
  char buffer[4096];
  for (ssize_t got; answer.find('\n') == answer.npos;
       answer.append(buffer, static_cast<std::size_t>(got)))
    if ((got = read(fd, buffer, sizeof buffer)) <= 0)
      throw std::runtime_error("no answer to \"" + command + "\"; so far: " + answer);
  return answer.substr(0, answer.find('\n'));
}

std::string TestEnvironment::NewCertFolder() {
  fs::path folder = folder_ / "clients" / ("client-" + std::to_string(++files_));
  fs::create_directory(folder);
  fs::permissions(folder, fs::perms::owner_all, fs::perm_options::replace);
  return folder.string();
}

std::string TestEnvironment::WriteClientConfig(const ClientConfig& config) {
  std::string text = "MqttHost " + host_ + "\nMqttPort " +
                     std::to_string(config.mainPort != 0 ? config.mainPort : mainPort_) +
                     "\nMqttProvisionPort " + std::to_string(provisionPort_) +
                     "\nMqttKeepAlive 30\nCaFile " +
                     (config.caFile.empty() ? CaFile() : config.caFile) + "\nCertFolder " +
                     config.certFolder + "\n";
  if (config.clientName) text += "ClientName " + *config.clientName + "\n";
  std::string path = PathOf("client-" + std::to_string(++files_) + ".conf");
  WriteFile(path, text);
  return path;
}

void TestEnvironment::IssueClientCertificate(const std::string& certFolder,
                                             const CertificateTerms& terms) const {
  authority_->Issue(certFolder + "/cert", terms);
  fs::rename(certFolder + "/cert.key", certFolder + "/priv_key.key");
}

std::string ReadText(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace daxo_test
