// The development agent's certificate checks and renewals, its replacement
// of the authority and the validity of what it issues, exercised with a bare
// MQTT client.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "agent_probe.h"

namespace daxo_test {
namespace {

using namespace std::chrono_literals;
using X509Ptr = std::unique_ptr<X509, decltype(&X509_free)>;

constexpr std::time_t kDay = 24 * 60 * 60;

X509Ptr ReadCertificate(const std::string& pem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(
      BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
  return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
}

std::string CommonName(X509* cert) {
  char cn[256] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn, sizeof cn);
  return cn;
}

std::time_t NotAfter(X509* cert) {
  std::tm tm{};
  EXPECT_EQ(ASN1_TIME_to_tm(X509_get0_notAfter(cert), &tm), 1);
  return timegm(&tm);
}

// "YYYYMMDD?HHMMSS" read as local time, as clients read it; -1 when malformed.
std::time_t FromLocalStamp(const std::string& stamp) {
  std::tm tm{};
  int length = 0;
  if (stamp.size() != 15 ||
      std::sscanf(stamp.c_str(), "%4d%2d%2d%*c%2d%2d%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
                  &tm.tm_hour, &tm.tm_min, &tm.tm_sec, &length) != 6 ||
      length != 15)
    return -1;
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  tm.tm_isdst = -1;
  return std::mktime(&tm);
}

bool Verifies(X509* cert, X509* authority) {
  std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), X509_STORE_free);
  std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(X509_STORE_CTX_new(),
                                                                          X509_STORE_CTX_free);
  return X509_STORE_add_cert(store.get(), authority) == 1 &&
         X509_STORE_CTX_init(context.get(), store.get(), cert, nullptr) == 1 &&
         X509_verify_cert(context.get()) == 1;
}

struct Request {
  std::string keyPem;
  std::string pem;
};

// A request for commonName with a fresh key; signed with another key when
// forged, so that its signature does not verify.
Request MakeRequest(const std::string& commonName, bool forged = false) {
  using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
  Key key(EVP_EC_gen("P-256"), EVP_PKEY_free), signer(EVP_EC_gen("P-256"), EVP_PKEY_free);
  std::unique_ptr<X509_REQ, decltype(&X509_REQ_free)> request(X509_REQ_new(), X509_REQ_free);
  X509_NAME_add_entry_by_NID(X509_REQ_get_subject_name(request.get()), NID_commonName,
                             MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  X509_REQ_set_pubkey(request.get(), key.get());
  X509_REQ_sign(request.get(), forged ? signer.get() : key.get(), EVP_sha256());
  std::unique_ptr<BIO, decltype(&BIO_free)> keyBio(BIO_new(BIO_s_mem()), BIO_free),
      requestBio(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_PrivateKey(keyBio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_bio_X509_REQ(requestBio.get(), request.get());
  auto text = [](BIO* bio) {
    char* data = nullptr;
    long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(size));
  };
  return {text(keyBio.get()), text(requestBio.get())};
}

class AgentCertificatesTest : public AgentProbeTest {
 protected:
  std::string ClientCertificate() const { return ReadFile(certFolder_ + "/cert.crt"); }
};

TEST_F(AgentCertificatesTest, ExpiryAnswersNameTheTypeLocalExpiryAndTheAuthoritysSuccessor) {
  const std::string client = ClientCertificate(), oldCa = ReadFile(env_.CaFile());
  struct Case {
    std::string name;
    std::string certificate;
    std::string type;
    std::string validity;  // empty: no such member
  };
  auto check = [this](const Case& c) -> Json {
    SCOPED_TRACE(c.name);
    std::optional<ProbeMessage> reply = Request("/checkExpireDate", c.certificate);
    if (!reply) {
      ADD_FAILURE() << "no answer";
      return Json(nullptr, json_object_put);
    }
    EXPECT_EQ(reply->topic, tree_ + "/checkExpireDate/inbox");
    Json body = Parse(reply->payload);
    EXPECT_EQ(Member(body.get(), "certificateType"), c.type) << reply->payload;
    EXPECT_EQ(Member(body.get(), "validity"), c.validity) << reply->payload;
    X509Ptr sent = ReadCertificate(c.certificate);
    EXPECT_EQ(FromLocalStamp(Member(body.get(), "providedExpiresAt")), NotAfter(sent.get()))
        << reply->payload;
    return body;
  };
  for (const Case& c : {Case{"client", client, "client certificate", ""},
                        Case{"authority", oldCa, "certificate authority", "valid"}})
    check(c);

  Json offered = Control("offer-new-ca");
  ASSERT_EQ(Member(offered.get(), "ok"), "true") << json_object_get_string(offered.get());
  Json answer = check({"replaced authority", oldCa, "certificate authority", "new one available"});
  ASSERT_TRUE(answer);
  std::string newCa = Member(answer.get(), "newCa");
  check({"successor", newCa, "certificate authority", "valid"});
  check({"client after the replacement", client, "client certificate", ""});

  X509Ptr successor = ReadCertificate(newCa), old = ReadCertificate(oldCa),
          issued = ReadCertificate(client);
  ASSERT_TRUE(successor);
  EXPECT_TRUE(Verifies(issued.get(), successor.get()));
  EXPECT_GT(NotAfter(successor.get()), NotAfter(old.get()));
  EXPECT_EQ(ReadFile((env_.Folder() / "agent-state/ca.crt").string()), newCa);
  EXPECT_EQ(ReadFile((env_.Folder() / "agent-state/ca.crt.previous").string()), oldCa);

  // A broker that trusts only the successor still takes what the old one issued.
  WriteFile(env_.CaFile(), newCa);
  env_.RestartBroker(BrokerIdentity::kTrusted);
  MqttProbe again(id_ + "-again");
  EXPECT_EQ(again.Connect(env_.Host(), env_.MainPort(), env_.CaFile(), certFolder_ + "/cert.crt",
                          certFolder_ + "/priv_key.key"),
            MqttProbe::Outcome::kConnected);
}

TEST_F(AgentCertificatesTest, MalformedPayloadsAreLoggedAndNotAnswered) {
  const std::string request = MakeRequest(id_).pem;
  struct Case {
    std::string topic;
    std::string payload;
  } cases[] = {
      {"/checkExpireDate", ""},
      {"/checkExpireDate", "not a certificate"},
      {"/checkExpireDate", request},
      {"/renewCertificate", ""},
      {"/renewCertificate", ClientCertificate()},
      {"/renewCertificate", MakeRequest(id_, true).pem},
  };
  std::size_t before = probe_.ReceivedCount();
  for (const Case& c : cases) EXPECT_TRUE(probe_.Publish(tree_ + c.topic, c.payload));
  // The agent handles one client's messages in order, so once this is
  // answered, the cases before it had their chance.
  std::optional<ProbeMessage> last = Request("/checkExpireDate", ClientCertificate());
  ASSERT_TRUE(last);
  std::vector<ProbeMessage> received = probe_.Received();
  EXPECT_EQ(std::count_if(received.begin() + static_cast<long>(before), received.end(),
                          [](const ProbeMessage& m) { return m.topic.ends_with("/inbox"); }),
            1);
  auto refusals = [](const std::vector<std::string>& lines) {
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.find("no answer to") != std::string::npos;
    });
  };
  // The agent logs in order: its answer comes after the refusals.
  EXPECT_TRUE(env_.WaitForAgentOutput("sent " + tree_ + "/checkExpireDate/inbox"));
  EXPECT_EQ(refusals(env_.AgentOutput()), std::ssize(cases));
}

TEST(AgentCertificateTerms, ShortLivedProvisioningIsDueAtOnceAndRenewalNamesTheClient) {
  TestEnvironment env({"--cert-days", "10", "--renewal-days", "400"});
  MqttProbe provisioning("provisioning");
  ASSERT_EQ(provisioning.Connect(env.Host(), env.ProvisionPort(), env.CaFile()),
            MqttProbe::Outcome::kConnected);
  ASSERT_EQ(provisioning.Subscribe("/certBack/#"), 2);
  auto provision = [&provisioning](const Request& request) {
    std::size_t before = provisioning.ReceivedCount();
    EXPECT_TRUE(provisioning.Publish("/createConnector", request.pem));
    std::optional<ProbeMessage> reply = provisioning.WaitForMessage(
        [](const ProbeMessage& m) { return m.topic.starts_with("/certBack/"); }, 10s, before);
    return reply ? reply->payload : "";
  };
  // Within a day of the expected expiry: the clock runs on between steps.
  auto expectValidity = [](X509* cert, std::time_t days) {
    ASSERT_TRUE(cert);
    EXPECT_NEAR(static_cast<double>(NotAfter(cert) - std::time(nullptr)),
                static_cast<double>(days * kDay), static_cast<double>(kDay));
  };

  Request kitchen = MakeRequest("kitchen");
  std::string folder = env.NewCertFolder();
  WriteFile(folder + "/cert.crt", provision(kitchen));
  WriteFile(folder + "/priv_key.key", kitchen.keyPem, 0600);
  X509Ptr shortLived = ReadCertificate(ReadFile(folder + "/cert.crt"));
  expectValidity(shortLived.get(), 10);
  std::string id = CommonName(shortLived.get());
  MqttProbe client(id);
  ASSERT_EQ(client.Connect(env.Host(), env.MainPort(), env.CaFile(), folder + "/cert.crt",
                           folder + "/priv_key.key"),
            MqttProbe::Outcome::kConnected);
  ASSERT_EQ(client.Subscribe("/v1.0/" + id + "/#"), 2);
  auto ask = [&client, &id](const std::string& topic, const std::string& payload) {
    std::size_t before = client.ReceivedCount();
    EXPECT_TRUE(client.Publish("/v1.0/" + id + topic, payload));
    std::optional<ProbeMessage> reply = client.WaitForMessage(
        [&](const ProbeMessage& m) { return m.topic == "/v1.0/" + id + topic + "/inbox"; }, 10s,
        before);
    return reply ? reply->payload : "";
  };

  // Clients renew what expires within 30 days.
  Json check = Parse(ask("/checkExpireDate", ReadFile(folder + "/cert.crt")));
  EXPECT_LT(FromLocalStamp(Member(check.get(), "providedExpiresAt")),
            std::time(nullptr) + 30 * kDay);

  Request renewal = MakeRequest("IOT-Client");
  std::string renewedFolder = env.NewCertFolder();
  WriteFile(renewedFolder + "/cert.crt", ask("/renewCertificate", renewal.pem));
  WriteFile(renewedFolder + "/priv_key.key", renewal.keyPem, 0600);
  X509Ptr renewed = ReadCertificate(ReadFile(renewedFolder + "/cert.crt"));
  expectValidity(renewed.get(), 400);
  EXPECT_EQ(CommonName(renewed.get()), id);
  X509Ptr authority = ReadCertificate(ReadFile(env.CaFile()));
  EXPECT_TRUE(Verifies(renewed.get(), authority.get()));
  MqttProbe renewedClient(id + "-renewed");
  EXPECT_EQ(renewedClient.Connect(env.Host(), env.MainPort(), env.CaFile(),
                                  renewedFolder + "/cert.crt", renewedFolder + "/priv_key.key"),
            MqttProbe::Outcome::kConnected);

  Json changed = Parse(env.AgentControl("cert-days 365"));
  EXPECT_EQ(Member(changed.get(), "ok"), "true");
  expectValidity(ReadCertificate(provision(MakeRequest("hall"))).get(), 365);
  EXPECT_EQ(Member(Parse(env.AgentControl("cert-days 0")).get(), "ok"), "false");
}

}  // namespace
}  // namespace daxo_test
