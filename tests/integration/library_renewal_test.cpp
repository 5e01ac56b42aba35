// Certificates that stay valid: the expiry check and both renewals against
// the real broker and the development agent.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "daxo_internal.h"
#include "environment.h"
#include "library_client.h"

namespace daxo_test {
namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// The certificate's first common name, and whether key is its key.
struct Pair {
  std::string commonName;
  bool matches = false;
};

Pair Inspect(const std::string& certFolder) {
  std::unique_ptr<FILE, decltype(&fclose)> certFile(
      fopen((certFolder + "/cert.crt").c_str(), "r"), fclose);
  std::unique_ptr<FILE, decltype(&fclose)> keyFile(
      fopen((certFolder + "/priv_key.key").c_str(), "r"), fclose);
  if (!certFile || !keyFile) return {};
  std::unique_ptr<X509, decltype(&X509_free)> cert(
      PEM_read_X509(certFile.get(), nullptr, nullptr, nullptr), X509_free);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      PEM_read_PrivateKey(keyFile.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
  if (!cert || !key) return {};
  char cn[256] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(cert.get()), NID_commonName, cn, sizeof cn);
  return {cn, EVP_PKEY_eq(X509_get0_pubkey(cert.get()), key.get()) == 1};
}

void OnRenewal(DAXO_Client*, void* self, DAXO_Error err) {
  static_cast<LibraryClient*>(self)->Record("renewal", err);
}

// The outcome of a check: the broker hands the client its own check back
// through its subscription, which counts as a reply of the wrong shape.
std::optional<int> RenewalOutcome(LibraryClient& c) {
  std::optional<int> outcome;
  do {
    outcome = c.Next("renewal", std::chrono::seconds(30));
  } while (outcome == DAXO_Error_WrongReply);
  return outcome;
}

class LibraryRenewalTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { DAXO_LibInit(); }
  static void TearDownTestSuite() { DAXO_LibCleanup(); }
};

TEST_F(LibraryRenewalTest, AnExpiringClientCertificateIsRenewedAndTheClientReconnects) {
  TestEnvironment env({"--cert-days", "10"});
  LibraryClient c(env);
  ASSERT_TRUE(c.ProvisionAndConnect());
  std::string before = ReadFile(c.CertFolder() + "/cert.crt");
  DAXO_OnConnect applicationOnConnect = c.Get()->OnConnect;

  ASSERT_EQ(CheckClientCertificateExpirationDate(c.Get(), OnRenewal), DAXO_Error_Success);
  ASSERT_EQ(RenewalOutcome(c), DAXO_Error_Success);

  EXPECT_NE(ReadFile(c.CertFolder() + "/cert.crt"), before);
  Pair pair = Inspect(c.CertFolder());
  EXPECT_EQ(pair.commonName, c.Id()) << "the renewed certificate keeps the identifier";
  EXPECT_TRUE(pair.matches) << "key and certificate on disk belong together";
  EXPECT_EQ(c.Get()->OnConnect, applicationOnConnect) << "the application's OnConnect is back";
  EXPECT_EQ(c.Pending("connect"), 0u) << "and was not called for the renewal";
  EXPECT_EQ(c.Pending("disconnect"), 0u) << "nor OnDisconnect";
  EXPECT_NE(c.Get()->OnDisconnect, nullptr);
  EXPECT_EQ(c.Get()->newKeyContent, nullptr);

  ASSERT_EQ(DAXO_CheckConnection(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.Next("check"), DAXO_ApiError_NoError);
}

TEST_F(LibraryRenewalTest, ACertificateFarFromExpiryIsLeftAlone) {
  TestEnvironment env;
  LibraryClient c(env);
  ASSERT_TRUE(c.ProvisionAndConnect());
  std::string before = ReadFile(c.CertFolder() + "/cert.crt");
  ASSERT_EQ(CheckClientCertificateExpirationDate(c.Get(), OnRenewal), DAXO_Error_Success);
  EXPECT_EQ(RenewalOutcome(c), DAXO_Error_Success);
  EXPECT_EQ(ReadFile(c.CertFolder() + "/cert.crt"), before);
}

}  // namespace
}  // namespace daxo_test

namespace daxo_test {
namespace {

// A renewal that stops between the key and the certificate leaves a pair
// that does not belong together; the documented way back is a new identity.
TEST_F(LibraryRenewalTest, AHalfFinishedRenewalIsRecoveredByProvisioningAgain) {
  TestEnvironment env;
  LibraryClient c(env);
  ASSERT_TRUE(c.ProvisionAndConnect());
  ASSERT_EQ(DAXO_Disconnect(c.Get()), DAXO_Error_Success);
  ASSERT_EQ(c.Next("disconnect"), DAXO_Error_Success);
  std::string otherFolder = env.NewCertFolder();
  env.IssueClientCertificate(otherFolder, {.commonName = "someone-else"});
  std::ofstream(c.CertFolder() + "/priv_key.key") << ReadFile(otherFolder + "/priv_key.key");
  ASSERT_FALSE(Inspect(c.CertFolder()).matches);

  EXPECT_NE(DAXO_Connect(c.Get()), DAXO_Error_Success) << "TLS refuses the mismatched pair";

  std::remove((c.CertFolder() + "/cert.crt").c_str());
  std::remove((c.CertFolder() + "/priv_key.key").c_str());
  ASSERT_TRUE(c.ProvisionAndConnect());
  EXPECT_TRUE(Inspect(c.CertFolder()).matches);
}

}  // namespace
}  // namespace daxo_test

namespace daxo_test {
namespace {

TEST_F(LibraryRenewalTest, AReplacedAuthorityIsInstalledAndTheClientReconnects) {
  TestEnvironment env;
  std::string caCopy = (env.Folder() / "client-ca.crt").string();
  std::ofstream(caCopy) << ReadFile(env.CaFile());
  LibraryClient c(env, {.caFile = caCopy});
  ASSERT_TRUE(c.ProvisionAndConnect());
  DAXO_OnConnect applicationOnConnect = c.Get()->OnConnect;
  std::string before = ReadFile(caCopy);
  env.AgentControl("offer-new-ca");

  ASSERT_EQ(CheckCAExpirationDate(c.Get(), OnRenewal), DAXO_Error_Success);
  ASSERT_EQ(RenewalOutcome(c), DAXO_Error_Success);

  std::string installed = ReadFile(caCopy);
  EXPECT_NE(installed, before);
  EXPECT_EQ(installed, ReadFile((env.Folder() / "agent-state" / "ca.crt").string()));
  EXPECT_EQ(c.Get()->OnConnect, applicationOnConnect);
  EXPECT_EQ(c.Pending("connect"), 0u);
  EXPECT_EQ(c.Next("disconnect"), DAXO_Error_Success) << "an authority change is not hidden";
  ASSERT_EQ(DAXO_CheckConnection(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(c.Next("check"), DAXO_ApiError_NoError);

  // The new authority is current: the next check leaves it alone.
  ASSERT_EQ(CheckCAExpirationDate(c.Get(), OnRenewal), DAXO_Error_Success);
  EXPECT_EQ(RenewalOutcome(c), DAXO_Error_Success);
  EXPECT_EQ(ReadFile(caCopy), installed);
}

}  // namespace
}  // namespace daxo_test
