// The library against the real broker and the development agent:
// provisioning, connection, the connection check and deprovisioning.
#include <gtest/gtest.h>

#include <filesystem>

#include "daxo_internal.h"
#include "environment.h"
#include "library_client.h"

namespace daxo_test {
namespace {

namespace fs = std::filesystem;

class LibraryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { DAXO_LibInit(); }
  static void TearDownTestSuite() { DAXO_LibCleanup(); }

  TestEnvironment env;
};

TEST_F(LibraryTest, ProvisionsConnectsChecksAndDisconnects) {
  LibraryClient c(env);
  ASSERT_EQ(DAXO_ProvisionClient(c.Get()), DAXO_Error_Success);
  ASSERT_EQ(c.Next("provision"), DAXO_Error_Success);
  EXPECT_EQ(c.Id().rfind("IOT-Client-", 0), 0u) << c.Id();
  EXPECT_TRUE(fs::exists(c.CertFolder() + "/cert.crt"));
  EXPECT_TRUE(fs::exists(c.CertFolder() + "/priv_key.key"));

  EXPECT_EQ(DAXO_ProvisionClient(c.Get()), DAXO_Error_AlreadyProvisioned);
  EXPECT_EQ(c.Next("provision"), DAXO_Error_AlreadyProvisioned);

  ASSERT_EQ(DAXO_Connect(c.Get()), DAXO_Error_Success);
  ASSERT_EQ(c.Next("connect"), DAXO_Error_Success);
  ASSERT_EQ(DAXO_CheckConnection(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.Next("check"), DAXO_ApiError_NoError);

  ASSERT_EQ(DAXO_Disconnect(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.Next("disconnect"), DAXO_Error_Success);
  EXPECT_EQ(c.Pending("connect"), 0u);
}

TEST_F(LibraryTest, AStoredIdentityConnectsWithoutTheAgent) {
  std::string folder;
  std::string id;
  {
    LibraryClient first(env);
    ASSERT_TRUE(first.ProvisionAndConnect());
    folder = first.CertFolder();
    id = first.Id();
  }
  LibraryClient second(env, {.certFolder = folder});
  EXPECT_EQ(DAXO_ProvisionClient(second.Get()), DAXO_Error_AlreadyProvisioned);
  EXPECT_EQ(second.Id(), id);
  ASSERT_EQ(DAXO_Connect(second.Get()), DAXO_Error_Success);
  EXPECT_EQ(second.Next("connect"), DAXO_Error_Success);
}

TEST_F(LibraryTest, ReconnectsOnItsOwnAfterABrokerRestart) {
  LibraryClient c(env);
  ASSERT_TRUE(c.ProvisionAndConnect());
  env.StopBroker();
  EXPECT_EQ(c.Next("disconnect"), DAXO_Error_UnexpectedDisconnect);
  env.StartBroker();
  EXPECT_EQ(c.Next("connect"), DAXO_Error_Success);
  ASSERT_EQ(DAXO_CheckConnection(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.Next("check"), DAXO_ApiError_NoError);
}

TEST_F(LibraryTest, DeprovisionsAndProvisionsAgainWhileConnected) {
  LibraryClient c(env);
  ASSERT_TRUE(c.ProvisionAndConnect());
  std::string first = c.Id();
  ASSERT_EQ(DAXO_DeprovisionClient(c.Get()), DAXO_Error_Success);
  ASSERT_TRUE(c.Next("deprovision"));
  EXPECT_FALSE(fs::exists(c.CertFolder() + "/cert.crt"));
  EXPECT_FALSE(fs::exists(c.CertFolder() + "/priv_key.key"));
  EXPECT_TRUE(env.WaitForAgentOutput("deprovisioned " + first));

  ASSERT_EQ(DAXO_ProvisionClient(c.Get()), DAXO_Error_Success);
  ASSERT_EQ(c.Next("provision"), DAXO_Error_Success);
  EXPECT_NE(c.Id(), first);
  EXPECT_TRUE(fs::exists(c.CertFolder() + "/cert.crt"));
}

TEST_F(LibraryTest, TheAgentsRefusalReachesTheApplication) {
  LibraryClient c(env, {.clientName = "bad/name"});
  ASSERT_EQ(DAXO_ProvisionClient(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.Next("provision"), DAXO_Error_CertificateRequest);
  EXPECT_EQ(c.Id(), "");
}

TEST_F(LibraryTest, AClientCannotPublishIntoAnothersTree) {
  LibraryClient a(env), b(env);
  ASSERT_TRUE(a.ProvisionAndConnect());
  ASSERT_TRUE(b.ProvisionAndConnect());
  std::string foreign = "/v1.0/" + a.Id() + "/ping/info/inbox";
  ASSERT_EQ(SendMessageToAgent(b.Get(), foreign.c_str(), "{}", 2, nullptr), DAXO_Error_Success);
  // Each connection's messages are handled in order: once b's own check is
  // answered, its foreign publication has been dealt with by the broker.
  ASSERT_EQ(DAXO_CheckConnection(b.Get()), DAXO_Error_Success);
  ASSERT_EQ(b.Next("check"), DAXO_ApiError_NoError);
  ASSERT_EQ(DAXO_CheckConnection(a.Get()), DAXO_Error_Success);
  ASSERT_EQ(a.Next("check"), DAXO_ApiError_NoError);
  EXPECT_EQ(a.Pending("check"), 0u) << "only a's own answer arrived";
}

}  // namespace
}  // namespace daxo_test

namespace daxo_test {
namespace {

// libmosquitto's network thread ends for good on the TLS failure; the
// library must notice and keep trying.
TEST_F(LibraryTest, ABrokerWithAForeignCertificateIsReportedAndOutlasted) {
  LibraryClient c(env);
  ASSERT_TRUE(c.ProvisionAndConnect());
  env.RestartBroker(BrokerIdentity::kForeign);
  EXPECT_EQ(c.Next("disconnect"), DAXO_Error_UnexpectedDisconnect);
  ASSERT_TRUE(c.WaitForLog("certificate verify failed"));
  ASSERT_TRUE(c.WaitForLog("not established; trying again"));
  env.RestartBroker(BrokerIdentity::kTrusted);
  EXPECT_EQ(c.Next("connect"), DAXO_Error_Success);
  EXPECT_EQ(c.Pending("disconnect"), 0u) << "one report per outage";
  ASSERT_EQ(DAXO_CheckConnection(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.Next("check"), DAXO_ApiError_NoError);
}

// An asynchronous connect issued while the broker is down never completes in
// libmosquitto; the library restarts it.
TEST_F(LibraryTest, ConnectingWhileTheBrokerIsDownSucceedsOnceItIsBack) {
  LibraryClient c(env);
  ASSERT_EQ(DAXO_ProvisionClient(c.Get()), DAXO_Error_Success);
  ASSERT_EQ(c.Next("provision"), DAXO_Error_Success);
  env.StopBroker();
  ASSERT_EQ(DAXO_Connect(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.Next("disconnect"), DAXO_Error_UnexpectedDisconnect);
  env.StartBroker();
  EXPECT_EQ(c.Next("connect"), DAXO_Error_Success);
  ASSERT_EQ(DAXO_Disconnect(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.Next("disconnect"), DAXO_Error_Success);
}

TEST_F(LibraryTest, DisconnectingAnAttemptThatNeverCameUpReturns) {
  LibraryClient c(env);
  ASSERT_EQ(DAXO_ProvisionClient(c.Get()), DAXO_Error_Success);
  ASSERT_EQ(c.Next("provision"), DAXO_Error_Success);
  env.StopBroker();
  ASSERT_EQ(DAXO_Connect(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(DAXO_Disconnect(c.Get()), DAXO_Error_Success);
  LibraryClient p(env);
  ASSERT_EQ(DAXO_ProvisionClient(p.Get()), DAXO_Error_Success);
  // Both deletions stop threads that never connected.
}

TEST_F(LibraryTest, ProvisioningWhileTheBrokerIsDownCompletesOnceItIsBack) {
  LibraryClient c(env);
  env.StopBroker();
  ASSERT_EQ(DAXO_ProvisionClient(c.Get()), DAXO_Error_Success);
  env.StartBroker();
  EXPECT_EQ(c.Next("provision"), DAXO_Error_Success);
  EXPECT_FALSE(c.Id().empty());
}

}  // namespace
}  // namespace daxo_test
