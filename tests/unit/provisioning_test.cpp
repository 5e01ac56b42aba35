#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "client_fixture.h"
#include "test_certificates.h"

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class ProvisioningTest : public FakeClientTest {
 protected:
  void SetUp() override {
    FakeClientTest::SetUp();
    DAXO_ProvisionClientCallbackSet(client, [](DAXO_Client*, void* self, DAXO_Error err) {
      Self(self).calls.push_back({"OnProvisionClient", err, ""});
    });
  }

  std::string CertFolder() const { return client->certFolder; }

  // Starts an exchange and brings the provisioning connection up.
  FakeMqtt& Requested() {
    bool running = client->provisionLoopStarted;
    size_t sent = running ? FakeMqtt::Last()->publishes.size() : 0;
    EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
    FakeMqtt& fake = *FakeMqtt::Last();
    if (!running) fake.FireConnect(0);
    EXPECT_EQ(fake.publishes.size(), sent + 1);
    logs.clear();
    return fake;
  }

  std::string ReplyTopic(const FakeMqtt& fake) const {
    return "/certBack/" + testcert::Sha256Hex(fake.publishes.back().payload);
  }

  // Leaves a complete identity on disk, as a finished provisioning does.
  void StoredIdentity(const std::string& cn) {
    fs::create_directories(CertFolder());
    std::ofstream(client->caFile) << testcert::SelfSigned("CA");
    std::ofstream(CertFolder() + "/priv_key.key") << "key";
    std::ofstream(CertFolder() + "/cert.crt") << testcert::SelfSigned(cn);
  }
};

TEST_F(ProvisioningTest, StartsTheExchangeOnTheProvisioningPort) {
  ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
  FakeMqtt& fake = *FakeMqtt::Last();
  EXPECT_EQ(fake.id, "myid");
  EXPECT_EQ(fake.cleanSession, 1);
  ASSERT_TRUE(fake.tls);
  EXPECT_EQ(fake.tls->caFile, client->caFile);
  EXPECT_EQ(fake.tls->certFile, "");
  EXPECT_EQ(fake.tls->keyFile, "");
  ASSERT_EQ(fake.connects.size(), 1u);
  EXPECT_EQ(fake.connects[0].port, 8884);
  EXPECT_TRUE(fake.loopRunning);
  EXPECT_EQ(fake.onLog, nullptr) << "the provisioning instance's lines are not forwarded";
  EXPECT_TRUE(fake.publishes.empty()) << "the request waits for the connection";

  struct stat st {};
  ASSERT_EQ(stat((CertFolder() + "/priv_key.key").c_str(), &st), 0);
  EXPECT_EQ(stat(CertFolder().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  ASSERT_TRUE(fake.FireConnect(0));
  ASSERT_EQ(fake.subscribes.size(), 1u);
  EXPECT_EQ(fake.subscribes[0].filter, "/certBack/#");
  EXPECT_EQ(fake.subscribes[0].qos, 2);
  ASSERT_EQ(fake.publishes.size(), 1u);
  const FakePublish& request = fake.publishes[0];
  EXPECT_EQ(request.topic, "/createConnector");
  EXPECT_EQ(request.qos, 2);
  EXPECT_EQ(request.payload.find("-----BEGIN CERTIFICATE REQUEST-----"), 0u);
  EXPECT_EQ(testcert::RequestSubject(request.payload), "O=QuellborneGmbH,CN=IOT-Client");
  EXPECT_EQ(client->provisionDigest, testcert::Sha256Hex(request.payload));
}

TEST_F(ProvisioningTest, TheConfiguredNameIsRequested) {
  std::string named = dir.Write("named.conf", ValidConfig(dir) + "ClientName kitchen sensor\n");
  DAXO_DeleteClient(client);
  DAXO_Error err;
  client = NewClientInternal(named.c_str(), this, &err, FakeMqtt::Create, FakeMqtt::Destroy);
  ASSERT_NE(client, nullptr);
  FakeMqtt& fake = Requested();
  EXPECT_EQ(testcert::RequestSubject(fake.publishes[0].payload),
            "O=QuellborneGmbH,CN=kitchen sensor");
}

TEST_F(ProvisioningTest, TheCertificateNamesTheClient) {
  FakeMqtt& fake = Requested();
  std::string cert = testcert::SelfSigned("IOT-Client-4f2a9c");
  ASSERT_TRUE(fake.Deliver(ReplyTopic(fake), cert));
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].name, "OnProvisionClient");
  EXPECT_EQ(calls[0].code, DAXO_Error_Success);
  EXPECT_STREQ(DAXO_GetClientId(client), "IOT-Client-4f2a9c");
  EXPECT_EQ(ReadFile(CertFolder() + "/cert.crt"), cert);
  EXPECT_EQ(client->provisionDigest, nullptr) << "the exchange is over";
  EXPECT_TRUE(logs.empty());
}

TEST_F(ProvisioningTest, ACertificateWithoutReadableNameIsReported) {
  FakeMqtt& fake = Requested();
  fake.Deliver(ReplyTopic(fake), "not a certificate");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].code, DAXO_Error_ReadCertificateCN);
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_EQ(logs[0].rfind("ProcessCertBack: ReadCertificateCN failed (", 0), 0u) << logs[0];
  EXPECT_EQ(DAXO_GetClientId(client), nullptr);
}

TEST_F(ProvisioningTest, ErrorRepliesAreConverted) {
  struct {
    const char* payload;
    std::vector<int> outcomes;
    size_t logLines;
  } cases[] = {
      {R"({"errorcode":1,"errorMessage":"no backend"})", {DAXO_Error_NoBackendConnection}, 1},
      {R"({"errorcode":20})", {DAXO_Error_CertificateRequest}, 1},
      {R"({"errorcode":25})", {DAXO_Error_CertificateRequest}, 1},
      {R"({"errorcode":23})", {DAXO_Error_Unknown}, 1},
      {"not json", {}, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.payload);
    calls.clear();
    FakeMqtt& fake = Requested();
    fake.Deliver(ReplyTopic(fake) + "/error", c.payload);
    std::vector<int> outcomes;
    for (const Call& call : calls) outcomes.push_back(call.code);
    EXPECT_EQ(outcomes, c.outcomes);
    ASSERT_EQ(logs.size(), c.logLines);
    EXPECT_EQ(logs[0], "ProvisionMessageCallback: Failed to provision client");
    EXPECT_EQ(client->provisionDigest, nullptr);
  }
}

TEST_F(ProvisioningTest, OtherTopicsAreLoggedAsUnsupported) {
  FakeMqtt& fake = Requested();
  std::string reply = ReplyTopic(fake);
  std::string upper = reply;
  for (size_t i = 10; i < upper.size(); ++i) upper[i] = static_cast<char>(toupper(upper[i]));
  const std::string topics[] = {upper, "/certBack/" + testcert::Sha256Hex("other"),
                                reply + "/warning", reply + "/error/more", "/certBack",
                                "/elsewhere/" + reply.substr(10)};
  for (const std::string& topic : topics) {
    SCOPED_TRACE(topic);
    logs.clear();
    fake.Deliver(topic, "payload");
    EXPECT_EQ(logs, std::vector<std::string>{
                        "ProvisionMessageCallback: Recieved message on unsupported topic: [" +
                        topic + "]"});
  }
  logs.clear();
  fake.Deliver(reply, "");
  EXPECT_TRUE(logs.empty()) << "an empty payload is ignored silently";
  EXPECT_TRUE(calls.empty());
  EXPECT_NE(client->provisionDigest, nullptr) << "still waiting";
}

TEST_F(ProvisioningTest, ConnectionProblemsBecomeOutcomes) {
  struct {
    int connack;
    int subscribeRc;
    DAXO_Error outcome;
  } cases[] = {
      {1, MOSQ_ERR_SUCCESS, DAXO_Error_WrongProtocol},
      {2, MOSQ_ERR_SUCCESS, DAXO_Error_WrongIdentifier},
      {3, MOSQ_ERR_SUCCESS, DAXO_Error_ServerUnavailable},
      {5, MOSQ_ERR_SUCCESS, DAXO_Error_Unknown},
      {0, MOSQ_ERR_NOMEM, DAXO_Error_NoMemory},
      {0, MOSQ_ERR_PROTOCOL, DAXO_Error_Unknown},
      {0, MOSQ_ERR_NO_CONN, DAXO_Error_NoConnectionToServer},
  };
  ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
  FakeMqtt& fake = *FakeMqtt::Last();
  for (const auto& c : cases) {
    calls.clear();
    fake.subscribeResult = c.subscribeRc;
    fake.FireConnect(c.connack);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].code, c.outcome);
  }
  EXPECT_TRUE(fake.publishes.empty());
}

TEST_F(ProvisioningTest, AReconnectionAfterTheExchangeSendsNothing) {
  FakeMqtt& fake = Requested();
  fake.Deliver(ReplyTopic(fake), testcert::SelfSigned("IOT-Client-1"));
  fake.FireConnect(0);
  EXPECT_EQ(fake.publishes.size(), 1u);
  EXPECT_EQ(calls.size(), 1u);
}

TEST_F(ProvisioningTest, AskingAgainReplacesThePendingRequest) {
  FakeMqtt& fake = Requested();
  std::string oldReply = ReplyTopic(fake);
  ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
  ASSERT_EQ(fake.publishes.size(), 2u) << "sent at once on the running connection";
  EXPECT_EQ(FakeMqtt::Instances().size(), 1u);
  fake.Deliver(oldReply, testcert::SelfSigned("stale"));
  EXPECT_TRUE(calls.empty());
  fake.Deliver(ReplyTopic(fake), testcert::SelfSigned("fresh"));
  EXPECT_STREQ(DAXO_GetClientId(client), "fresh");
}

TEST_F(ProvisioningTest, AStoredIdentityIsOnlyRead) {
  StoredIdentity("device-7");
  EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_AlreadyProvisioned);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].code, DAXO_Error_AlreadyProvisioned);
  EXPECT_STREQ(DAXO_GetClientId(client), "device-7");
  EXPECT_TRUE(FakeMqtt::Instances().empty());

  std::ofstream(CertFolder() + "/cert.crt") << "garbage";
  EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_GetClientId);
  EXPECT_EQ(calls.size(), 1u) << "no callback for an unreadable identity";

  fs::remove(client->caFile);
  EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success) << "without the CA: provision";
}

TEST_F(ProvisioningTest, StartFailuresAreReportedAndNothingLeaks) {
  struct {
    const char* name;
    void (*configure)(FakeMqtt&);
    DAXO_Error err;
  } cases[] = {
      {"tls", [](FakeMqtt& f) { f.tlsSetResult = MOSQ_ERR_INVAL; }, DAXO_Error_TlsSetFailed},
      {"connect tls", [](FakeMqtt& f) { f.connectResult = MOSQ_ERR_TLS; },
       DAXO_Error_TlsConnection},
      {"connect errno", [](FakeMqtt& f) { f.connectResult = MOSQ_ERR_ERRNO; }, DAXO_Error_Errno},
      {"loop", [](FakeMqtt& f) { f.loopStartResult = MOSQ_ERR_NOT_SUPPORTED; },
       DAXO_Error_NoThreadSupport},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeMqtt* before = FakeMqtt::Last();
    FakeMqtt::OnCreate(c.configure);
    EXPECT_EQ(DAXO_ProvisionClient(client), c.err);
    EXPECT_EQ(client->provisionDigest, nullptr);
    EXPECT_EQ(client->provisionLoopStarted, 0);
    if (before != nullptr) {
      EXPECT_TRUE(before->destroyed) << "the failed attempt's instance";
    }
  }
  FakeMqtt::FailNextCreate(ENOMEM);
  EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_NoMemory);
  EXPECT_EQ(DAXO_ProvisionClient(nullptr), DAXO_Error_InvalidArguments);
}

TEST_F(ProvisioningTest, DeprovisioningCompletesOnTheAcknowledgement) {
  StoredIdentity("device-7");
  ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_AlreadyProvisioned);
  DAXO_DeprovisionClientCallbackSet(client, [](DAXO_Client*, void* self) {
    Self(self).calls.push_back({"OnDeprovisionClient", 0, ""});
  });
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success);
  FakeMqtt& fake = *FakeMqtt::Last();
  calls.clear();
  ASSERT_EQ(DAXO_DeprovisionClient(client), DAXO_Error_Success);
  ASSERT_EQ(fake.publishes.size(), 1u);
  EXPECT_EQ(fake.publishes[0].topic, "/v1.0/device-7/delete");
  EXPECT_EQ(fake.publishes[0].payload, "{}");
  EXPECT_EQ(client->messageId, fake.publishes[0].mid);
  EXPECT_TRUE(fs::exists(CertFolder() + "/cert.crt")) << "nothing removed before delivery";
  fake.FirePublish(fake.publishes[0].mid);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].name, "OnDeprovisionClient");
  EXPECT_FALSE(fs::exists(CertFolder() + "/cert.crt"));
  EXPECT_FALSE(fs::exists(CertFolder() + "/priv_key.key"));
  EXPECT_TRUE(fs::exists(client->caFile));

  // Provisioning again while still connected asks on the provisioning port.
  calls.clear();
  ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
  FakeMqtt& provisioning = *FakeMqtt::Last();
  ASSERT_NE(&provisioning, &fake);
  provisioning.FireConnect(0);
  ASSERT_EQ(provisioning.publishes.size(), 1u);
  EXPECT_EQ(fake.publishes.size(), 1u) << "nothing on the main instance";
  provisioning.Deliver(ReplyTopic(provisioning), testcert::SelfSigned("device-8"));
  EXPECT_STREQ(DAXO_GetClientId(client), "device-8");
  EXPECT_EQ(DAXO_DeprovisionClient(nullptr), DAXO_Error_InvalidArguments);
}

}  // namespace
