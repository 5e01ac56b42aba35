// The library against the real broker and the development agent: identity,
// connection, outages, certificate renewal, sensors and metrics.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "daxo_client.h"
#include "daxo_internal.h"
#include "environment.h"
#include "library_client.h"

namespace daxo_test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// The stored certificate's common name; "" unless the stored key is its key.
std::string MatchingCommonName(const std::string& folder) {
  std::string pem = ReadText(folder + "/cert.crt") + ReadText(folder + "/priv_key.key");
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
  char cn[256] = "";
  if (cert && key && X509_check_private_key(cert, key) == 1)
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn, sizeof cn);
  X509_free(cert), EVP_PKEY_free(key), BIO_free(bio);
  return cn;
}

// A check's own request, handed back by the broker, is a reply of the wrong shape.
void OnRenewal(DAXO_Client*, void* self, DAXO_Error err) {
  if (err != DAXO_Error_WrongReply) static_cast<LibraryClient*>(self)->Record("renewal", err);
}

TEST_F(LibraryTest, ProvisionsConnectsAndOutlastsOutages) {
  TestEnvironment env;
  LibraryClient a(env), b(env), late(env), fresh(env), refused(env, {.clientName = "bad/name"});
  ASSERT_EQ(DAXO_ProvisionClient(a), DAXO_Error_Success);
  ASSERT_EQ(a.Code("provision"), DAXO_Error_Success);
  EXPECT_EQ(MatchingCommonName(a.CertFolder()), a.Id());
  EXPECT_EQ(DAXO_ProvisionClient(a), DAXO_Error_AlreadyProvisioned);
  EXPECT_EQ(a.Code("provision"), DAXO_Error_AlreadyProvisioned);
  ASSERT_EQ(DAXO_Connect(a), DAXO_Error_Success);
  ASSERT_EQ(a.Code("connect"), DAXO_Error_Success);

  ASSERT_EQ(DAXO_ProvisionClient(refused), DAXO_Error_Success);
  EXPECT_EQ(refused.Code("provision"), DAXO_Error_CertificateRequest);
  EXPECT_EQ(refused.Id(), "");

  ASSERT_TRUE(b.ProvisionAndConnect());
  std::string foreign = "/v1.0/" + a.Id() + "/ping/info/inbox";
  ASSERT_EQ(SendMessageToAgent(b, foreign.c_str(), "{}", 2, nullptr), DAXO_Error_Success);
  // Once b's own check is answered, the broker has dealt with the publication.
  EXPECT_TRUE(b.CheckConnection());
  EXPECT_TRUE(a.CheckConnection());
  EXPECT_EQ(a.Next("check", {}).code, LibraryClient::kNone) << "only a's own answer arrived";

  std::string first = b.Id();
  ASSERT_EQ(DAXO_DeprovisionClient(b), DAXO_Error_Success);
  ASSERT_NE(b.Code("deprovision"), LibraryClient::kNone);
  EXPECT_TRUE(fs::is_empty(b.CertFolder()));
  EXPECT_TRUE(env.WaitForAgentOutput("deprovisioned " + first));
  ASSERT_EQ(DAXO_ProvisionClient(b), DAXO_Error_Success);
  ASSERT_EQ(b.Code("provision"), DAXO_Error_Success);
  EXPECT_NE(b.Id(), first);
  EXPECT_EQ(MatchingCommonName(b.CertFolder()), b.Id());

  // libmosquitto never completes a connect issued while the broker is down;
  // the library restarts it, and reconnects an established client by itself.
  ASSERT_EQ(DAXO_ProvisionClient(late), DAXO_Error_Success);
  ASSERT_EQ(late.Code("provision"), DAXO_Error_Success);
  env.StopBroker();
  EXPECT_EQ(a.Code("disconnect"), DAXO_Error_UnexpectedDisconnect);
  ASSERT_EQ(DAXO_Connect(late), DAXO_Error_Success);
  EXPECT_EQ(late.Code("disconnect"), DAXO_Error_ConnectionRefused);
  EXPECT_TRUE(late.WaitForLog(":" + std::to_string(env.MainPort()) +
                              " failed: no connection: Connection refused"));
  ASSERT_EQ(DAXO_ProvisionClient(fresh), DAXO_Error_Success);
  env.StartBroker();
  EXPECT_EQ(a.Code("connect"), DAXO_Error_Success);
  EXPECT_EQ(late.Code("connect"), DAXO_Error_Success);
  EXPECT_EQ(fresh.Code("provision"), DAXO_Error_Success);

  // libmosquitto's network thread ends for good on a TLS failure; the
  // library must notice and keep trying.
  env.RestartBroker(BrokerIdentity::kForeign);
  EXPECT_EQ(a.Code("disconnect"), DAXO_Error_UnexpectedDisconnect);
  EXPECT_TRUE(a.WaitForLog("failed: the client refused the broker's certificate"));
  EXPECT_TRUE(a.WaitForLog("certificate verify failed"));
  env.RestartBroker(BrokerIdentity::kTrusted);
  EXPECT_EQ(a.Code("connect"), DAXO_Error_Success);
  EXPECT_EQ(a.Next("disconnect", {}).code, LibraryClient::kNone) << "one report per outage";

  ASSERT_EQ(DAXO_Disconnect(a), DAXO_Error_Success);
  EXPECT_EQ(a.Code("disconnect"), DAXO_Error_Success);
}

// Which side refused which certificate, on either connection; the session
// may end before DAXO_Connect or DAXO_ProvisionClient returns, or after.
TEST_F(LibraryTest, NamesTheCertificateThatWasRefused) {
  TestEnvironment env;
  LibraryClient expired(env), fresh(env);
  env.IssueClientCertificate(expired.CertFolder(), {.commonName = "expired", .start = -48h});
  // Named before any broker is asked, by provisioning and connecting alike.
  EXPECT_EQ(DAXO_ProvisionClient(expired), DAXO_Error_ClientCertificateExpired);
  EXPECT_TRUE(expired.WaitForLog("/cert.crt expired on "));
  ASSERT_EQ(DAXO_ProvisionClient(expired), DAXO_Error_ClientCertificateExpired);
  free(expired->clientId);
  expired->clientId = strdup("expired");
  EXPECT_EQ(DAXO_Connect(expired), DAXO_Error_ClientCertificateExpired);
  EXPECT_TRUE(expired.WaitForLog("reset the identity and provision again"));
  ASSERT_EQ(DAXO_ResetIdentity(expired), DAXO_Error_Success);
  EXPECT_TRUE(expired.ProvisionAndConnect());

  env.RestartBroker(BrokerIdentity::kForeign);
  DAXO_Error started = DAXO_ProvisionClient(fresh);
  EXPECT_TRUE(started == DAXO_Error_Success || started == DAXO_Error_BrokerCertificateRefused);
  EXPECT_TRUE(fresh.WaitForLog(std::to_string(env.ProvisionPort()) +
                               " failed: the client refused the broker's certificate"));
}

TEST_F(LibraryTest, RenewsItsCertificateAndAuthority) {
  TestEnvironment env({"--cert-days", "10"});
  std::string caCopy = (env.Folder() / "client-ca.crt").string();
  fs::copy_file(env.CaFile(), caCopy);
  LibraryClient c(env, {.caFile = caCopy});
  ASSERT_TRUE(c.ProvisionAndConnect());
  std::string id = c.Id(), before = ReadText(c.CertFolder() + "/cert.crt");
  DAXO_OnConnect onConnect = c->OnConnect;
  ASSERT_EQ(CheckClientCertificateExpirationDate(c, OnRenewal), DAXO_Error_Success);
  ASSERT_EQ(c.Next("renewal", std::chrono::seconds(30)).code, DAXO_Error_Success);
  EXPECT_NE(ReadText(c.CertFolder() + "/cert.crt"), before);
  EXPECT_EQ(MatchingCommonName(c.CertFolder()), id);
  EXPECT_EQ(c->OnConnect, onConnect) << "the application's OnConnect is back";
  EXPECT_EQ(c.Next("connect", {}).code, LibraryClient::kNone) << "and was not called";
  EXPECT_EQ(c.Next("disconnect", {}).code, LibraryClient::kNone) << "nor OnDisconnect";

  // A pair that does not belong together (written by hand) is named; the
  // way back is a new identity.
  ASSERT_EQ(DAXO_Disconnect(c), DAXO_Error_Success);
  ASSERT_EQ(c.Code("disconnect"), DAXO_Error_Success);
  std::string cert = ReadText(c.CertFolder() + "/cert.crt");
  env.IssueClientCertificate(c.CertFolder(), {.commonName = "someone-else"});
  std::ofstream(c.CertFolder() + "/cert.crt") << cert;
  EXPECT_EQ(DAXO_Connect(c), DAXO_Error_WrongCertificateFile);
  EXPECT_EQ(DAXO_ProvisionClient(c), DAXO_Error_WrongCertificateFile);
  ASSERT_EQ(DAXO_ResetIdentity(c), DAXO_Error_Success);
  ASSERT_TRUE(c.ProvisionAndConnect());
  EXPECT_EQ(MatchingCommonName(c.CertFolder()), c.Id());

  env.AgentControl("offer-new-ca");
  ASSERT_EQ(CheckCAExpirationDate(c, OnRenewal), DAXO_Error_Success);
  ASSERT_EQ(c.Next("renewal", std::chrono::seconds(30)).code, DAXO_Error_Success);
  // The new authority first, the old one after it while it is valid.
  std::string oldCa = ReadText(env.CaFile()),
              newCa = ReadText(env.Folder() / "agent-state" / "ca.crt");
  EXPECT_EQ(ReadText(caCopy), newCa + oldCa);
  EXPECT_EQ(c->OnConnect, onConnect);
  EXPECT_EQ(c.Next("connect", {}).code, LibraryClient::kNone);
  EXPECT_EQ(c.Code("disconnect"), DAXO_Error_Success) << "an authority change is not hidden";
  EXPECT_TRUE(c.CheckConnection());
}

TEST_F(LibraryTest, ManagesSensorsAndMetrics) {
  TestEnvironment env;
  LibraryClient c(env);
  ASSERT_TRUE(c.ProvisionAndConnect());
  // The text of the reply to a request the library must accept.
  auto Reply = [&](DAXO_Error sent, const std::string& name, int code = DAXO_ApiError_NoError) {
    EXPECT_EQ(sent, DAXO_Error_Success) << name;
    LibraryClient::Event reply = c.Next(name);
    EXPECT_EQ(reply.code, code) << name << " " << reply.text;
    return reply.text;
  };
  std::string kitchen = Reply(DAXO_CreateSensor(c, "kitchen"), "createSensor");
  std::string hall = Reply(DAXO_CreateSensor(c, "hall"), "createSensor");
  EXPECT_EQ(Reply(DAXO_UpdateSensor(c, kitchen.c_str(), "cellar"), "updateSensor"), kitchen);
  EXPECT_EQ(Reply(DAXO_ListSensors(c), "listSensors"), "cellar|" + kitchen + ";hall|" + hall);
  EXPECT_EQ(Reply(DAXO_DeleteSensor(c, kitchen.c_str()), "deleteSensor"), kitchen);
  EXPECT_EQ(Reply(DAXO_ListSensors(c), "listSensors"), "hall|" + hall);
  Reply(DAXO_UpdateSensor(c, kitchen.c_str(), "x"), "updateSensor", DAXO_ApiError_UnknownSensorId);

  env.AgentControl("job-create " + c.Id() + R"( {"name":"disk","metrics":[]})");
  std::string job = c.Next("createSensorJob").text;
  ASSERT_TRUE(job.starts_with("disk|")) << job;
  env.AgentControl("job-delete " + c.Id() + " " + job.substr(5));
  EXPECT_EQ(c.Next("deleteSensorJob").text, job.substr(5));

  DAXO_MetricSchemaContainer *schemas = DAXO_CreateMetricSchemaContainer(),
                             *update = DAXO_CreateMetricSchemaContainer();
  DAXO_AddStandardMetricSchema(schemas, "t", "temperature", DAXO_ValueUnit_SICelsius);
  DAXO_AddCustomMetricSchema(schemas, "i", "starts", DAXO_ValueType_Integer, "count");
  DAXO_AddCustomMetricSchema(schemas, "d", "load", DAXO_ValueType_Double, "share");
  DAXO_AddCustomMetricSchema(schemas, "b", "flame", DAXO_ValueType_Bool, "burning");
  DAXO_AddCustomMetricSchema(schemas, "s", "mode", DAXO_ValueType_String, "heat or idle");
  std::istringstream ids(Reply(DAXO_CreateMetrics(c, hall.c_str(), schemas), "createMetrics"));
  std::map<char, std::string> id;
  for (char m : std::string("tidbs")) std::getline(ids, id[m], '|');
  auto Describe = [&](char metric, int code = DAXO_ApiError_NoError) {
    return Reply(DAXO_DescribeMetric(c, hall.c_str(), id[metric].c_str()), "describeMetric", code);
  };
  EXPECT_EQ(Describe('t'), "temperature|4|null||0");
  EXPECT_EQ(Describe('s'), "mode|0|heat or idle||0");

  // Each type, pushed with the agent's time and then with the device's.
  for (uint64_t stamp : {0ull, 1700000000123ull}) {
    DAXO_MetricValueContainer* values = DAXO_CreateMetricValueContainer();
    DAXO_AddIntegerMetricValue(values, stamp ? 9007199254740993 : -42, id['i'].c_str());
    DAXO_AddDoubleMetricValue(values, stamp ? 21.5 : -0.25, id['d'].c_str());
    DAXO_AddBoolMetricValue(values, !stamp, id['b'].c_str());
    DAXO_AddStringMetricValue(values, stamp ? "" : "on \"high\" | 2", id['s'].c_str());
    if (stamp) DAXO_AddEpochTimeStamp(values, stamp);
    int64_t before = int64_t(std::time(nullptr)) * 1000;
    EXPECT_EQ(Reply(DAXO_PushMetricValues(c, hall.c_str(), values), "pushMetricValues"), hall);
    DAXO_DestroyMetricValueContainer(values);
    std::map<char, std::string> shown = {{'i', stamp ? "9007199254740993" : "-42"},
                                         {'d', stamp ? "21.5" : "-0.25"},
                                         {'b', stamp ? "false" : "true"},
                                         {'s', stamp ? "" : "on \"high\" | 2"}};
    for (auto [metric, text] : shown) {
      std::string described = Describe(metric);
      std::size_t at = described.rfind('|');
      EXPECT_TRUE(described.substr(0, at).ends_with("|" + text)) << described;
      int64_t updated = std::atoll(described.c_str() + at + 1);
      EXPECT_TRUE(stamp ? updated == int64_t(stamp) : updated >= before) << described;
    }
  }

  DAXO_AddMetricUpdateSchema(update, id['t'].c_str(), "flow temperature", nullptr);
  DAXO_AddMetricUpdateSchema(update, id['s'].c_str(), nullptr, "heat, idle or off");
  EXPECT_EQ(Reply(DAXO_UpdateMetrics(c, hall.c_str(), update), "updateMetrics"), hall);
  DAXO_DestroyMetricSchemaContainer(schemas), DAXO_DestroyMetricSchemaContainer(update);
  EXPECT_EQ(Describe('t'), "flow temperature|4|null||0");
  EXPECT_TRUE(Describe('s').starts_with("mode|0|heat, idle or off|"));
  std::vector<char*> doomed = {id['t'].data(), id['s'].data()};
  EXPECT_EQ(Reply(DAXO_DeleteMetrics(c, hall.c_str(), doomed.data(), 2), "deleteMetrics"), hall);
  EXPECT_EQ(Describe('s', DAXO_ApiError_UnknownMetricId), hall);

  ASSERT_EQ(DAXO_ReportClientError(c, 3, "disk full"), DAXO_Error_Success);
  ASSERT_EQ(DAXO_ReportMetricError(c, hall.c_str(), id['i'].c_str(), -7, "bus \"A\""), 0);
  // Reports get no answer; the agent serves one client's messages in order.
  ASSERT_TRUE(c.CheckConnection());
  std::string dump = env.AgentControl("dump");
  EXPECT_NE(dump.find(R"({"errorcode":3,"errorMessage":"disk full",)"), std::string::npos) << dump;
  EXPECT_NE(dump.find(R"({"sensorId":")" + hall + R"(","metricId":")" + id['i'] +
                      R"(","errorcode":-7,"errorMessage":"bus \"A\"",)"),
            std::string::npos);
}

}  // namespace
}  // namespace daxo_test
