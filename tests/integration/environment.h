// The integration environment: a throwaway PKI, a mosquitto broker with the
// agent's two TLS listeners on free loopback ports, and a running
// daxo-agent, all inside a fresh temporary folder. Everything is torn down by
// PID and the folder removed when the object is destroyed.
//
// Layout of Folder(): ca.crt (trust for clients), broker.{crt,key},
// agent.{crt,key}, agent-state/ (the agent's CA: the same ca.crt and ca.key,
// so the broker trusts what the agent issues; and its control.sock), mosquitto.conf, *.acl,
// mosquitto.log, broker.out, agent.log, clients/ (NewCertFolder), *.conf
// (WriteClientConfig).
#ifndef DAXO_TEST_ENVIRONMENT_H
#define DAXO_TEST_ENVIRONMENT_H

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "child_process.h"
#include "test_pki.h"

namespace daxo_test {

// What a library configuration file holds; empty fields take the
// environment's values.
struct ClientConfig {
  std::string certFolder{};                 // required
  std::optional<std::string> clientName{};  // the "ClientName" line, when set
  int keepAlive = 30;
  std::string host{};
  int port = 0;
  int provisionPort = 0;
  std::string caFile{};
};

enum class BrokerIdentity {
  kTrusted,  // a certificate from the CA in CaFile()
  kForeign,  // a certificate from another CA: clients and agent must refuse it
};

class TestEnvironment {
 public:
  // Builds and starts everything; throws std::runtime_error (after undoing
  // what was started) when a step fails or a bounded wait runs out.
  // agentArguments are appended to the agent's command line.
  explicit TestEnvironment(std::vector<std::string> agentArguments = {});
  ~TestEnvironment();
  TestEnvironment(const TestEnvironment&) = delete;
  TestEnvironment& operator=(const TestEnvironment&) = delete;

  // "127.0.0.1", named by the broker certificate like "localhost"; the
  // address keeps clients off ::1, where the broker does not listen.
  const std::string& Host() const { return host_; }
  int MainPort() const { return mainPort_; }
  int ProvisionPort() const { return provisionPort_; }
  // The CA that signs the broker's certificate and every client certificate.
  std::string CaFile() const;
  const std::filesystem::path& Folder() const { return folder_; }

  // A new empty folder (mode 0700) for one client's key and certificate.
  std::string NewCertFolder();
  // Writes a library configuration file ("Key value" lines); returns its path.
  std::string WriteClientConfig(const ClientConfig& config);
  // Stores "cert.crt" and "priv_key.key" in certFolder, signed by the CA, as
  // if the client had been provisioned: for expiry tests and the like.
  void IssueClientCertificate(const std::string& certFolder, const CertificateTerms& terms) const;

  // Same ports before and after. StartBroker returns once both listeners
  // accept connections and, when the agent runs, once it serves again.
  void StopBroker();
  void StartBroker();
  void RestartBroker(BrokerIdentity identity);

  // StopAgent returns how the agent ended (a clean stop is exit code 0).
  std::optional<ExitStatus> StopAgent();
  void StartAgent();
  bool AgentRunning() { return agent_.Running(); }
  // Waits until the current agent run has printed a line containing text.
  bool WaitForAgentOutput(std::string_view text,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10));
  std::vector<std::string> AgentOutput() const { return agent_.Lines(); }

  // The agent's control socket, and one command sent to it, its line breaks
  // turned into spaces: returns the one-line answer. Throws
  // std::runtime_error when no answer comes in time.
  std::string AgentControlSocket() const;
  std::string AgentControl(const std::string& command,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  class TempFolder {
   public:
    TempFolder();
    ~TempFolder();
    std::filesystem::path path;
  };

  std::string PathOf(const std::string& name) const { return (folder_ / name).string(); }
  void WritePki();
  void WriteBrokerConfig(BrokerIdentity identity);
  void PickPorts();
  void WaitForBrokerListening();
  int ReadyCount() const;
  void WaitForAgentReady(int readyBefore);

  TempFolder temp_;  // first member: removed after the processes have stopped
  std::filesystem::path folder_;
  std::vector<std::string> agentArguments_;
  std::string host_ = "127.0.0.1";
  int mainPort_ = 0;
  int provisionPort_ = 0;
  int clientFolders_ = 0;
  int clientConfigs_ = 0;
  BrokerIdentity identity_ = BrokerIdentity::kTrusted;
  bool agentStopped_ = true;  // on purpose, so teardown does not judge its exit
  TestAuthority authority_;
  std::unique_ptr<TestAuthority> foreignAuthority_;  // made on first use
  ChildProcess broker_;
  ChildProcess agent_;
};

}  // namespace daxo_test

#endif
