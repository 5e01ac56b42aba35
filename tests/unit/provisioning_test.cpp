#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>

#include "client_fixture.h"
#include "test_certificates.h"

namespace {

class ProvisioningTest : public FakeClientTest {
 protected:
  std::string File(const char* name) const { return std::string(client->certFolder) + name; }

  // Starts an exchange and brings the provisioning connection up.
  FakeMqtt& Requested() {
    bool running = client->provisionLoopStarted;
    EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
    if (!running) FakeMqtt::Last()->FireConnect(0);
    return *FakeMqtt::Last();
  }

  static std::string ReplyTopic(const FakeMqtt& fake) {
    return "/certBack/" + testcert::Sha256Hex(fake.publishes.back().payload);
  }

  std::vector<int> Outcomes() {
    std::vector<int> codes;
    for (const Call& c : calls) codes.push_back(c.code);
    calls.clear();
    return codes;
  }
};

TEST_F(ProvisioningTest, SendsTheRequestOnceTheProvisioningPortIsUp) {
  FakeMqtt::OnCreate([](FakeMqtt& f) { f.connectResult = MOSQ_ERR_TLS; });
  EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_TlsConnection);
  FakeMqtt::OnCreate(nullptr);
  FakeMqtt::FailNextCreate(ENOMEM);
  EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_NoMemory);
  EXPECT_TRUE(FakeMqtt::Last()->destroyed) << "a failed attempt's instance is released";

  ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
  FakeMqtt& fake = *FakeMqtt::Last();
  EXPECT_EQ(fake.tls, client->caFile + std::string("  ")) << "no client certificate yet";
  EXPECT_EQ(fake.connects.at(0), "localhost:8884:60");
  fake.FireConnect(3);
  fake.subscribeResult = MOSQ_ERR_NO_CONN;
  fake.FireConnect(0);
  EXPECT_EQ(Outcomes(),
            (std::vector<int>{DAXO_Error_ServerUnavailable, DAXO_Error_NoConnectionToServer}));
  fake.subscribeResult = MOSQ_ERR_SUCCESS;
  fake.FireConnect(0);
  EXPECT_EQ(fake.subscribes.at(0).filter, "/certBack/#");
  ASSERT_EQ(fake.publishes.size(), 1u);
  EXPECT_EQ(fake.publishes[0].topic, "/createConnector");
  EXPECT_EQ(testcert::RequestSubject(fake.publishes[0].payload), "O=QuellborneGmbH,CN=IOT-Client");
  EXPECT_EQ(client->provisionDigest, testcert::Sha256Hex(fake.publishes[0].payload));
  for (const std::string& line : logs)
    EXPECT_EQ(line.find("REQUEST"), std::string::npos) << "the request is not logged: " << line;
}

TEST_F(ProvisioningTest, RepliesEndTheExchange) {
  const struct {
    const char* suffix;
    std::string payload;  // "issued": a certificate for the request's key
    std::vector<int> outcomes;
  } cases[] = {
      // Nothing is stored: the pending key waits for a good answer.
      {"", "not a certificate", {DAXO_Error_WrongReply}},
      {"", testcert::SelfSigned("IOT-Client-4f2a9c"), {DAXO_Error_WrongReply}},
      {"/error", R"({"errorcode":1})", {DAXO_Error_NoBackendConnection}},
      {"/error", R"({"errorcode":20})", {DAXO_Error_CertificateRequest}},
      {"/error", R"({"errorcode":25})", {DAXO_Error_CertificateRequest}},
      {"/error", R"({"errorcode":24})", {DAXO_Error_Unknown}},
      {"/error", "not json", {DAXO_Error_ClientProvision}},  // unreadable, yet the end
      {"/error", R"({"errorMessage":"no code"})", {DAXO_Error_ClientProvision}},
      {"", "issued", {DAXO_Error_Success}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.payload);
    FakeMqtt& fake = Requested();
    std::string request = fake.publishes.back().payload;
    EXPECT_FALSE(std::filesystem::exists(File("/priv_key.key"))) << "the key waits as pending";
    fake.Deliver(
        ReplyTopic(fake) + c.suffix,
        c.payload == "issued" ? testcert::IssuedFor(request, "IOT-Client-4f2a9c") : c.payload);
    EXPECT_EQ(Outcomes(), c.outcomes);
    EXPECT_EQ(client->provisionDigest, nullptr);
  }
  EXPECT_FALSE(std::filesystem::exists(File("/priv_key.key.new")));
  EXPECT_FALSE(std::filesystem::exists(File("/cert.crt.new")));
  std::filesystem::remove(File("/cert.crt"));  // to provision again
  EXPECT_STREQ(DAXO_GetClientId(client), "IOT-Client-4f2a9c");
  FakeMqtt& fake = Requested();  // only the reply to this request counts
  std::string reply = ReplyTopic(fake);
  for (const std::string& topic : {reply + "X", reply + "/warning", "/other/" + reply.substr(10)}) {
    logs.clear();
    fake.Deliver(topic, "payload");
    EXPECT_EQ(logs.at(0),
              "ProvisionMessageCallback: Recieved message on unsupported topic: [" + topic + "]");
  }
  ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
  EXPECT_NE(ReplyTopic(fake), reply) << "asking again sends at once on the running connection";
  fake.Deliver(reply, testcert::SelfSigned("stale"));
  EXPECT_TRUE(calls.empty());
  fake.Deliver(ReplyTopic(fake), testcert::IssuedFor(fake.publishes.back().payload, "fresh"));
  EXPECT_STREQ(DAXO_GetClientId(client), "fresh");
}

TEST_F(ProvisioningTest, AStoredIdentityIsOnlyReadAndDeprovisioningRemovesIt) {
  std::filesystem::create_directories(client->certFolder);
  std::ofstream(client->caFile) << testcert::SelfSigned("CA");
  testcert::Identity device = testcert::MakeIdentity("device-7");
  std::ofstream(File("/priv_key.key")) << device.key;
  std::ofstream(File("/cert.crt")) << device.cert;
  EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_AlreadyProvisioned);
  EXPECT_EQ(Outcomes(), std::vector<int>{DAXO_Error_AlreadyProvisioned});
  EXPECT_TRUE(FakeMqtt::Instances().empty());
  DAXO_RECORD(DAXO_DeprovisionClientCallbackSet, "OnDeprovisionClient", (DAXO_Client*, void* self),
              0, "");
  ASSERT_EQ(DAXO_Connect(client), DAXO_Error_Success) << "as device-7";
  FakeMqtt& fake = *FakeMqtt::Last();
  fake.FireConnect(0);
  ASSERT_EQ(DAXO_DeprovisionClient(client), DAXO_Error_Success);
  EXPECT_EQ(fake.publishes.at(0).topic, "/v1.0/device-7/delete");
  EXPECT_TRUE(std::filesystem::exists(File("/cert.crt"))) << "kept until the acknowledgement";
  for (int i = 0; i < 2; ++i) fake.FirePublish(fake.publishes[0].mid);
  ASSERT_EQ(calls.size(), 1u) << "completed once";
  EXPECT_EQ(client->dailyChecksOff, 1) << "the watch thread goes on, without its daily checks";
  EXPECT_FALSE(std::filesystem::exists(File("/cert.crt")) ||
               std::filesystem::exists(File("/priv_key.key")));

  // Provisioning again while still connected asks on the provisioning port.
  FakeMqtt& provisioning = Requested();
  EXPECT_EQ(fake.publishes.size(), 1u) << "nothing on the main instance";
  provisioning.Deliver(ReplyTopic(provisioning),
                       testcert::IssuedFor(provisioning.publishes.back().payload, "device-8"));
  EXPECT_STREQ(DAXO_GetClientId(client), "device-8");
}

// Files that exist but cannot be used are named, kept, and refused by
// provisioning and connecting alike, until the application resets them.
TEST_F(ProvisioningTest, AnIdentityThatCannotBeUsedIsNamedKeptAndResetOnRequest) {
  testcert::Identity good = testcert::MakeIdentity("device-7");
  testcert::Identity other = testcert::MakeIdentity("device-7");
  testcert::Identity expired = testcert::MakeIdentity("device-7", -7200, -3600);
  std::string caFile = client->caFile;
  const struct {
    std::string key, cert;
    bool authority;
    int code;
    std::string line;
  } cases[] = {
      {good.key, "garbage", true, DAXO_Error_WrongCertificateFile, "(not a PEM certificate)"},
      {good.key, "", true, DAXO_Error_WrongCertificateFile, "(cert.crt is empty or unreadable)"},
      {good.key, good.cert.substr(0, 200), true, DAXO_Error_WrongCertificateFile,
       "(not a PEM certificate)"},
      {"garbage", good.cert, true, DAXO_Error_WrongCertificateFile, "(not a PEM private key)"},
      {other.key, good.cert, true, DAXO_Error_WrongCertificateFile,
       "(the certificate is for another key)"},
      {expired.key, expired.cert, true, DAXO_Error_ClientCertificateExpired, " expired on 20"},
      // A misspelled or unmounted authority file, a lost key: not a reason
      // to make a new key beside the certificate.
      {good.key, good.cert, false, DAXO_Error_TlsSetFailed,
       "Provisioning refused: " + caFile + " is missing"},
      {"", good.cert, true, DAXO_Error_WrongCertificateFile,
       "Provisioning refused: " + File("/priv_key.key") + " is missing"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    std::filesystem::create_directories(client->certFolder);
    std::filesystem::remove(caFile);
    if (c.authority) std::ofstream(caFile) << testcert::Authority("CA");
    std::filesystem::remove(File("/priv_key.key"));
    if (!c.key.empty()) std::ofstream(File("/priv_key.key")) << c.key;
    std::ofstream(File("/cert.crt")) << c.cert;
    logs.clear();
    EXPECT_EQ(DAXO_ProvisionClient(client), c.code);
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_NE(logs[0].find(c.line), std::string::npos) << logs[0];
    if (c.code != DAXO_Error_TlsSetFailed && !c.key.empty()) {
      Provisioned("device-7");
      EXPECT_EQ(DAXO_Connect(client), c.code) << "connecting names it too";
    }
    EXPECT_TRUE(FakeMqtt::Instances().empty()) << "nothing was started";
    std::ifstream key(File("/priv_key.key"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(key), {}), c.key) << "the key is kept";
    daxo::Store(client->wantMain, 1);  // as a retry of the watch thread that failed the same way leaves it
    EXPECT_EQ(DAXO_ResetIdentity(client), DAXO_Error_Success);
    EXPECT_EQ(daxo::Load(client->wantMain), 0) << "nothing is retried with the identity gone";
    EXPECT_EQ(DAXO_GetClientId(client), nullptr);
    EXPECT_FALSE(std::filesystem::exists(File("/cert.crt")));
  }
  EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success) << "a new identity can be made";
  EXPECT_EQ(DAXO_ResetIdentity(client), DAXO_Error_Busy) << "not while provisioning";
}

}  // namespace

namespace {

// An exchange without an answer ends with a failure after its time limit,
// from the watch thread, and releases its connection: the agent's silence
// on a connection that was accepted, or why the connection never came up.
TEST_F(ProvisioningTest, AnUnansweredExchangeEndsWithAFailure) {
  const struct {
    void (*happen)(FakeMqtt&);
    DAXO_Error outcome;
    const char* line;
  } cases[] = {
      {[](FakeMqtt& f) { f.FireConnect(0); }, DAXO_Error_ClientProvision,
       "Provisioning: no answer from localhost:8884 within 30 s"},
      {[](FakeMqtt& f) {
         f.FireLog("OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed");
       },
       DAXO_Error_BrokerCertificateRefused,
       "Connection to localhost:8884 failed: the client refused the broker's certificate: "
       "certificate verify failed (DAXO_Error_BrokerCertificateRefused)"},
      {[](FakeMqtt&) {}, DAXO_Error_ConnectionTimeout,
       "Connection to localhost:8884 failed: no answer within 30 s (DAXO_Error_ConnectionTimeout)"},
  };
  static std::promise<int>* outcome;
  DAXO_ProvisionClientCallbackSet(
      client, [](DAXO_Client*, void*, DAXO_Error err) { outcome->set_value(err); });
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    std::promise<int> reported;
    outcome = &reported;
    logs.clear();
    ASSERT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
    FakeMqtt& fake = *FakeMqtt::Last();
    c.happen(fake);
    // The unit tests' monotonic clock stands still: the deadline is moved.
    __atomic_store_n(&client->provisionDeadlineMs, 1, __ATOMIC_RELEASE);
    Wake();
    std::future<int> result = reported.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), c.outcome);
    Settle();
    EXPECT_TRUE(fake.destroyed) << "the connection is released";
    EXPECT_EQ(client->mosqProvision, nullptr);
    EXPECT_EQ(client->provisionDigest, nullptr);
    std::lock_guard lock(logsMutex);
    EXPECT_NE(std::find(logs.begin(), logs.end(), c.line), logs.end())
        << testing::PrintToString(logs);
  }
  DAXO_ProvisionClientCallbackSet(client, nullptr);
}

}  // namespace
