// The integration environment and the development agent, exercised with a
// bare MQTT client and the openssl command.
#include "environment.h"

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <regex>

#include "mqtt_probe.h"

namespace daxo_test {
namespace {

using namespace std::chrono_literals;
using Outcome = MqttProbe::Outcome;

constexpr const char* kCheckPayload = R"({"request":"CheckProvisioning"})";

std::string Sha256Hex(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(data.data(), data.size(), digest, &size, EVP_sha256(), nullptr);
  std::string hex(2 * size + 1, '\0');
  for (unsigned int i = 0; i < size; ++i) std::snprintf(&hex[2 * i], 3, "%02x", digest[i]);
  hex.pop_back();
  return hex;
}

struct Subject {
  std::string commonName;
  std::string organisation;
};

Subject ReadSubject(const std::string& certPem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(
      BIO_new_mem_buf(certPem.data(), static_cast<int>(certPem.size())), BIO_free);
  std::unique_ptr<X509, decltype(&X509_free)> cert(
      PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
  if (!cert) return {};
  char cn[256] = "", o[256] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(cert.get()), NID_commonName, cn, sizeof cn);
  X509_NAME_get_text_by_NID(X509_get_subject_name(cert.get()), NID_organizationName, o, sizeof o);
  return {cn, o};
}

// {"errorcode", "errorMessage"} of an error reply; code -1 when unreadable.
std::pair<int, std::string> ReadError(const std::string& payload) {
  std::unique_ptr<json_object, decltype(&json_object_put)> body(json_tokener_parse(payload.c_str()),
                                                                json_object_put);
  json_object *code = nullptr, *message = nullptr;
  if (!json_object_object_get_ex(body.get(), "errorcode", &code) ||
      !json_object_object_get_ex(body.get(), "errorMessage", &message))
    return {-1, ""};
  return {json_object_get_int(code), json_object_get_string(message)};
}

struct Provisioned {
  std::string id;
  std::string certFile;
  std::string keyFile;
};

class EnvironmentTest : public ::testing::Test {
 protected:
  // A PEM request made by `openssl req` with a fresh RSA key in its own folder.
  std::string MakeRequest(const std::string& subject, std::string* keyFile = nullptr) {
    std::string folder = env_.NewCertFolder();
    ExitStatus status =
        RunCommand({"/usr/bin/openssl", "req", "-new", "-newkey", "rsa:2048", "-nodes", "-keyout",
                    folder + "/priv_key.key", "-out", folder + "/request.csr", "-subj", subject},
                   (env_.Folder() / "openssl.log").string());
    EXPECT_TRUE(status.Clean()) << "openssl req " << subject << ": " << status.Describe();
    if (keyFile != nullptr) *keyFile = folder + "/priv_key.key";
    return ReadFile(folder + "/request.csr");
  }

  // Publishes payload on "/createConnector" as an anonymous client and
  // returns the agent's answer for its digest, success or error.
  std::optional<ProbeMessage> AskForCertificate(const std::string& payload) {
    MqttProbe probe("provisioning-" + std::to_string(++probes_));
    EXPECT_EQ(probe.Connect(env_.Host(), env_.ProvisionPort(), env_.CaFile()), Outcome::kConnected);
    EXPECT_EQ(probe.Subscribe("/certBack/#"), 2);
    EXPECT_TRUE(probe.Publish("/createConnector", payload));
    std::string reply = "/certBack/" + Sha256Hex(payload);
    return probe.WaitForMessage([&reply](const ProbeMessage& m) {
      return m.topic == reply || m.topic == reply + "/error";
    });
  }

  Provisioned Provision(const std::string& name) {
    Provisioned client;
    std::optional<ProbeMessage> reply =
        AskForCertificate(MakeRequest("/CN=" + name, &client.keyFile));
    if (!reply || reply->topic.ends_with("/error")) {
      ADD_FAILURE() << "no certificate for " << name;
      return client;
    }
    client.certFile = client.keyFile.substr(0, client.keyFile.rfind('/')) + "/cert.crt";
    WriteFile(client.certFile, reply->payload);
    client.id = ReadSubject(reply->payload).commonName;
    return client;
  }

  std::unique_ptr<MqttProbe> ConnectMain(const Provisioned& client) {
    auto probe = std::make_unique<MqttProbe>(client.id);
    EXPECT_EQ(probe->Connect(env_.Host(), env_.MainPort(), env_.CaFile(), client.certFile,
                             client.keyFile),
              Outcome::kConnected);
    return probe;
  }

  // Pings on the client's tree and waits for the agent's answer to it.
  std::optional<ProbeMessage> Ping(MqttProbe& probe, const std::string& id,
                                   const std::string& payload = kCheckPayload) {
    std::size_t before = probe.ReceivedCount();
    EXPECT_TRUE(probe.Publish("/v1.0/" + id + "/ping", payload));
    std::string prefix = "/v1.0/" + id + "/ping/";
    return probe.WaitForMessage(
        [&prefix](const ProbeMessage& m) {
          return m.topic.starts_with(prefix) && m.topic.ends_with("/inbox");
        },
        10s, before);
  }

  TestEnvironment env_;
  int probes_ = 0;
};

TEST_F(EnvironmentTest, AgentIssuesCertificatesFromItsAuthority) {
  std::string request = MakeRequest("/O=QuellborneGmbH/CN=kitchen-sensor");
  std::vector<std::string> ids;
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    std::optional<ProbeMessage> reply = AskForCertificate(request);
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->topic, "/certBack/" + Sha256Hex(request)) << reply->payload;
    Subject subject = ReadSubject(reply->payload);
    EXPECT_TRUE(std::regex_match(subject.commonName, std::regex("kitchen-sensor-[0-9a-f]{6}")))
        << subject.commonName;
    EXPECT_EQ(subject.organisation, "QuellborneGmbH");
    std::string certFile = (env_.Folder() / ("issued-" + std::to_string(round) + ".crt")).string();
    WriteFile(certFile, reply->payload);
    ExitStatus verify = RunCommand(
        {"/usr/bin/openssl", "verify", "-CAfile", env_.CaFile(), "-purpose", "sslclient", certFile},
        (env_.Folder() / "openssl.log").string());
    EXPECT_TRUE(verify.Clean()) << verify.Describe();
    ids.push_back(subject.commonName);
  }
  EXPECT_NE(ids[0], ids[1]) << "the same request twice must give two identities";
}

TEST_F(EnvironmentTest, AgentRefusesUnusableRequestsWithTheirErrorCode) {
  std::string valid = MakeRequest("/CN=valid");
  // The first base64 character of the last line lies in the signature.
  std::string tampered = valid;
  std::size_t lastLine = tampered.rfind('\n', tampered.rfind("-----END") - 2) + 1;
  tampered[lastLine] = tampered[lastLine] == 'A' ? 'B' : 'A';
  struct Case {
    const char* name;
    std::string payload;
    int code;
  } cases[] = {
      {"not PEM", "hello agent", 20},
      {"signature does not verify", tampered, 20},
      {"empty", "", 21},
      {"no common name", MakeRequest("/O=QuellborneGmbH"), 22},
      {"slash in the name", MakeRequest("/CN=bad\\/name"), 25},
      {"plus in the name", MakeRequest("/CN=bad\\+name"), 25},
      {"hash in the name", MakeRequest("/CN=bad#name"), 25},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<ProbeMessage> reply = AskForCertificate(c.payload);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->topic, "/certBack/" + Sha256Hex(c.payload) + "/error");
    auto [code, message] = ReadError(reply->payload);
    EXPECT_EQ(code, c.code) << reply->payload;
    EXPECT_FALSE(message.empty());
  }
}

TEST_F(EnvironmentTest, IssuedCertificateOpensTheMainPortAndPingsAreAnswered) {
  Provisioned client = Provision("pinger");
  std::unique_ptr<MqttProbe> probe = ConnectMain(client);
  ASSERT_EQ(probe->Subscribe("/v1.0/" + client.id + "/#"), 2);
  struct Case {
    const char* payload;
    const char* topicEnd;
    int code;  // -1: success
  } cases[] = {
      {kCheckPayload, "/ping/info/inbox", -1},
      {"CheckProvisioning", "/ping/error/inbox", 4},
      {"[1, 2]", "/ping/error/inbox", 5},
      {"{}", "/ping/error/inbox", 6},
      {R"({"request":"Other"})", "/ping/error/inbox", 6},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.payload);
    std::optional<ProbeMessage> reply = Ping(*probe, client.id, c.payload);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->topic, "/v1.0/" + client.id + c.topicEnd);
    EXPECT_FALSE(reply->payload.empty());
    if (c.code >= 0) {
      EXPECT_EQ(ReadError(reply->payload).first, c.code) << reply->payload;
    }
  }
}

TEST_F(EnvironmentTest, MainPortRefusesClientsWithoutCertificate) {
  MqttProbe anonymous("anonymous");
  EXPECT_EQ(anonymous.Connect(env_.Host(), env_.MainPort(), env_.CaFile()), Outcome::kFailed);
}

TEST_F(EnvironmentTest, ClientsCannotReachEachOthersTrees) {
  Provisioned alpha = Provision("alpha");
  // A certificate from the CA that the agent never issued counts as well.
  std::string folder = env_.NewCertFolder();
  env_.IssueClientCertificate(folder, {.commonName = "beta"});
  Provisioned beta{"beta", folder + "/cert.crt", folder + "/priv_key.key"};
  std::unique_ptr<MqttProbe> a = ConnectMain(alpha), b = ConnectMain(beta);
  ASSERT_EQ(a->Subscribe("/v1.0/" + alpha.id + "/#"), 2);
  b->Subscribe("/v1.0/" + alpha.id + "/#");  // the broker may grant it; delivery is what counts
  ASSERT_EQ(b->Subscribe("/v1.0/" + beta.id + "/#"), 2);

  ASSERT_TRUE(Ping(*a, alpha.id));
  ASSERT_TRUE(b->Publish("/v1.0/" + alpha.id + "/ping", kCheckPayload));
  // Beta's own answer comes after anything the agent did for the forged ping.
  ASSERT_TRUE(Ping(*b, beta.id));
  ASSERT_TRUE(env_.WaitForAgentOutput("sent /v1.0/" + beta.id + "/ping/info/inbox"));

  for (const ProbeMessage& m : b->Received())
    EXPECT_FALSE(m.topic.starts_with("/v1.0/" + alpha.id)) << m.topic;
  std::vector<std::string> lines = env_.AgentOutput();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "daxo-agent: received /v1.0/" + alpha.id + "/ping " + kCheckPayload),
            1);
}

TEST_F(EnvironmentTest, BrokerRestartKeepsPortsAndTheAgentServesAgain) {
  Provisioned client = Provision("survivor");
  int mainPort = env_.MainPort(), provisionPort = env_.ProvisionPort();
  env_.StopBroker();
  MqttProbe early(client.id + "-early");
  EXPECT_EQ(early.Connect(env_.Host(), mainPort, env_.CaFile(), client.certFile, client.keyFile),
            Outcome::kFailed);
  env_.StartBroker();
  EXPECT_EQ(env_.MainPort(), mainPort);
  EXPECT_EQ(env_.ProvisionPort(), provisionPort);
  std::unique_ptr<MqttProbe> probe = ConnectMain(client);
  ASSERT_EQ(probe->Subscribe("/v1.0/" + client.id + "/#"), 2);
  std::optional<ProbeMessage> reply = Ping(*probe, client.id);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->topic, "/v1.0/" + client.id + "/ping/info/inbox");
}

TEST_F(EnvironmentTest, BrokerWithForeignCertificateIsRefusedUntilRestored) {
  env_.RestartBroker(BrokerIdentity::kForeign);
  MqttProbe refused("refused");
  EXPECT_EQ(refused.Connect(env_.Host(), env_.ProvisionPort(), env_.CaFile()), Outcome::kFailed);
  env_.RestartBroker(BrokerIdentity::kTrusted);
  EXPECT_FALSE(Provision("restored").id.empty());
}

TEST_F(EnvironmentTest, AgentStopsCleanlyAndRestartsWithTheSameAuthority) {
  std::optional<ExitStatus> stopped = env_.StopAgent();
  ASSERT_TRUE(stopped);
  EXPECT_TRUE(stopped->Clean()) << stopped->Describe();
  env_.StartAgent();
  Provisioned client = Provision("reborn");
  ASSERT_FALSE(client.id.empty());
  ExitStatus verify =
      RunCommand({"/usr/bin/openssl", "verify", "-CAfile", env_.CaFile(), client.certFile},
                 (env_.Folder() / "openssl.log").string());
  EXPECT_TRUE(verify.Clean());
}

TEST_F(EnvironmentTest, DeprovisionedClientIsForgotten) {
  Provisioned client = Provision("leaver");
  std::unique_ptr<MqttProbe> probe = ConnectMain(client);
  ASSERT_TRUE(probe->Publish("/v1.0/" + client.id + "/delete", "{}"));
  EXPECT_TRUE(env_.WaitForAgentOutput("deprovisioned " + client.id));
}

TEST(AgentAuthority, IsCreatedOnFirstRunAndReusedAfterwards) {
  TestEnvironment env;
  std::string state = (env.Folder() / "fresh" / "state").string();
  // Port 1 has no broker: the agent keeps retrying until it is stopped.
  std::vector<std::string> argv = {DAXO_AGENT_PATH,
                                   "--host",
                                   "127.0.0.1",
                                   "--port",
                                   "1",
                                   "--cafile",
                                   env.CaFile(),
                                   "--cert",
                                   (env.Folder() / "agent.crt").string(),
                                   "--key",
                                   (env.Folder() / "agent.key").string(),
                                   "--state",
                                   state};
  std::string log = (env.Folder() / "fresh-agent.log").string();
  std::string firstCa;
  for (bool first : {true, false}) {
    SCOPED_TRACE(first ? "first run" : "second run");
    ChildProcess agent;
    agent.Start(argv, log);
    ASSERT_TRUE(agent.WaitForOutput(
        [](const std::vector<std::string>& lines) {
          return std::any_of(lines.begin(), lines.end(), [](const std::string& l) {
            return l.find("cannot reach the broker") != std::string::npos;
          });
        },
        30s));
    std::optional<ExitStatus> status = agent.Stop();
    ASSERT_TRUE(status);
    EXPECT_TRUE(status->Clean()) << status->Describe();
    std::vector<std::string> lines = agent.Lines();
    bool created = std::any_of(lines.begin(), lines.end(), [](const std::string& l) {
      return l.find("created a certificate authority") != std::string::npos;
    });
    EXPECT_EQ(created, first);
    struct stat info {};
    ASSERT_EQ(stat(state.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    ASSERT_EQ(stat((state + "/ca.key").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0077, 0u);
    std::string ca = ReadFile(state + "/ca.crt");
    if (first) firstCa = ca;
    EXPECT_EQ(ca, firstCa);
  }
}

}  // namespace
}  // namespace daxo_test
