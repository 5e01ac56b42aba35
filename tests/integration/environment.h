// The files of `daxo-agent init` in a temporary folder, with the broker's two
// TLS listeners on free loopback ports, started by the command lines init
// prints; torn down by PID.
#ifndef DAXO_TEST_ENVIRONMENT_H
#define DAXO_TEST_ENVIRONMENT_H

#include <netinet/in.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "child_process.h"

namespace daxo_test {

struct ClientConfig {                       // empty fields take the environment's values
  std::string certFolder{};                 // required
  std::optional<std::string> clientName{};  // the "ClientName" line, when set
  std::string caFile{};
  int mainPort = 0;  // another port in front of the broker's main listener
};

struct CertificateTerms {
  std::string commonName{};
  std::chrono::seconds start{0};  // relative to now; valid for a day from there
};

enum class BrokerIdentity {
  kTrusted,  // a certificate from the CA in CaFile()
  kForeign,  // a certificate from another CA: clients and agent must refuse it
};

// The loopback address at port (0: any free port).
sockaddr_in Loopback(int port);

// The whole content of a file; empty when it cannot be read.
std::string ReadText(const std::filesystem::path& path);

class TestEnvironment {
 public:
  // Throws std::runtime_error when a step fails or a bounded wait runs out.
  explicit TestEnvironment(std::vector<std::string> agentArguments = {});
  ~TestEnvironment();

  // An address rather than "localhost" keeps clients off ::1, where the
  // broker does not listen; the broker certificate names both.
  const std::string& Host() const { return host_; }
  int MainPort() const { return mainPort_; }
  int ProvisionPort() const { return provisionPort_; }
  std::string CaFile() const { return PathOf("ca.crt"); }
  const std::filesystem::path& Folder() const { return folder_; }

  // A new empty folder (mode 0700) for one client's key and certificate.
  std::string NewCertFolder();
  std::string WriteClientConfig(const ClientConfig& config);
  // Stores "cert.crt" and "priv_key.key" in certFolder, signed by the CA, as
  // if the client had been provisioned.
  void IssueClientCertificate(const std::string& certFolder, const CertificateTerms& terms) const;

  // The ports stay the same. StartBroker returns once both listeners accept
  // and, when the agent runs, once it serves again.
  void StopBroker() { broker_.Stop(); }
  void StartBroker();
  void RestartBroker(BrokerIdentity identity);

  std::optional<ExitStatus> StopAgent();
  void StartAgent();
  // Waits until the current agent run has printed a line containing text.
  bool WaitForAgentOutput(std::string_view text,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10));
  std::vector<std::string> AgentOutput() const { return agent_.Lines(); }
  // Every push the agent has stored since the environment started, across
  // agent restarts: "CLIENT_ID SENSOR_ID BODY".
  std::vector<std::string> AgentPushes() const;
  // One command, its line breaks turned into spaces, and the one-line answer.
  std::string AgentControl(const std::string& command) const;

 private:
  struct Authority;
  struct TempFolder {
    TempFolder();
    ~TempFolder();
    std::filesystem::path path;
  };

  std::string PathOf(const std::string& name) const { return (folder_ / name).string(); }
  void WriteFiles();
  void UseBrokerIdentity(BrokerIdentity identity);
  void WaitForAgentReady(long readyBefore);

  TempFolder temp_;  // first member: removed after the processes have stopped
  std::filesystem::path folder_ = temp_.path;
  std::vector<std::string> agentArguments_;
  std::vector<std::string> brokerCommand_, agentCommand_;  // as init printed them
  std::string host_ = "127.0.0.1";
  int mainPort_ = 0;
  int provisionPort_ = 0;
  int files_ = 0;
  BrokerIdentity identity_ = BrokerIdentity::kTrusted;
  bool agentStopped_ = true;  // on purpose, so teardown does not judge its exit
  std::unique_ptr<Authority> authority_;
  ChildProcess broker_;
  ChildProcess agent_;
};

}  // namespace daxo_test

#endif
