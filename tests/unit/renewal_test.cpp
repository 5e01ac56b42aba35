#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>

#include "client_fixture.h"
#include "fake_time.h"
#include "test_certificates.h"

namespace {

TEST(ExpiryDate, ACertificateIsDueThirtyDaysBeforeItExpires) {
  setenv("TZ", "UTC", 1);  // local time is UTC whatever the machine's zone
  tzset();
  const std::tuple<const char*, const char*, int> cases[] = {
      {"20301231T000000", "20301130T235959", 0},
      {"20301231T000000", "20301201T000000", 0},  // the boundary second itself
      {"20301231T000000", "20301201T000001", 1},
      {"20301231X000000", "20301201T000001", 1},  // position 8 is not read
      {"20301231T000000Z+01", "20301201T000001", 1},
      {"20300305T120000", "20300203T115959", 0},  // month carry: 3 February
      {"20300305T120000", "20300203T120001", 1},
      {"20300101T000000", "20291202T000001", 1},  // year carry
      {"2030123", "20400101T000000", 0},          // too short: never read past its end
      {"abcdefghijklmno", "20400101T000000", 1},  // no digits: year 0, long past
  };
  for (auto [date, now, expiring] : cases) {
    struct tm t {};
    strptime(now, "%Y%m%dT%H%M%S", &t);
    fake_time::Scope frozen(timegm(&t));
    EXPECT_EQ(WillDateExpireInDays(date, 30), expiring) << date << " at " << now;
  }
  EXPECT_EQ(WillDateExpireInDays(nullptr, 30), 0);
  unsetenv("TZ");
  tzset();
}

class RenewalTest : public FakeClientTest {
 protected:
  // A working identity, which a failed renewal must leave in place.
  void WriteIdentity() {
    std::filesystem::create_directories(client->certFolder);
    identity = testcert::MakeIdentity("client-1");
    dir.Write("certs/priv_key.key", identity.key);
    dir.Write("certs/cert.crt", identity.cert);
    authority = testcert::Authority("CA");
    std::ofstream(client->caFile) << authority;
  }
  std::string Files() {
    return testcert::ReadFile(dir / "certs/priv_key.key") +
           testcert::ReadFile(dir / "certs/cert.crt") + testcert::ReadFile(client->caFile);
  }
  testcert::Identity identity;
  std::string authority;
};

std::string Answer(const char* type, const char* date, const char* extra = "") {
  return std::string(R"({"providedExpiresAt":")") + date + R"(","certificateType":")" + type +
         "\"" + extra + "}";
}

TEST_F(RenewalTest, ExpiryAnswersGiveTheirOutcome) {
  FakeMqtt& fake = Connected();
  client->OnCertificateRenew = [](DAXO_Client*, void* self, DAXO_Error err) {
    Self(self).calls.push_back({"renewal", err, ""});
  };
  const char *far = "20991231T000000", *past = "20000101T000000";
  const std::tuple<const char*, std::string, int> cases[] = {
      {"checkExpireDate", Answer("client certificate", far), DAXO_Error_WrongReply},
      {"checkExpireDate/inbox/more", Answer("client certificate", far), DAXO_Error_WrongReply},
      {"checkExpireDate/outbox", Answer("client certificate", far), DAXO_Error_WrongReply},
      {"checkExpireDate/inbox", "not json", DAXO_Error_WrongReply},
      {"checkExpireDate/inbox", R"({"certificateType":"client certificate"})",
       DAXO_Error_WrongReply},
      {"checkExpireDate/inbox", Answer("client certificate", "2099123"), DAXO_Error_WrongReply},
      {"checkExpireDate/inbox", R"({"providedExpiresAt":"20991231T000000"})",
       DAXO_Error_WrongReply},
      {"checkExpireDate/inbox", Answer("client certificate", far), DAXO_Error_Success},
      {"checkExpireDate/inbox", Answer("something else", past), DAXO_Error_Success},
      {"checkExpireDate/inbox", Answer("certificate authority", past), DAXO_Error_WrongReply},
      {"checkExpireDate/inbox", Answer("certificate authority", past, R"(,"validity":"valid")"),
       DAXO_Error_Success},
      {"renewCertificate", "pem", DAXO_Error_WrongReply},
      {"renewCertificate/inbox", "pem", DAXO_Error_WritingToCertificateFile},
  };
  for (const auto& [levels, payload, outcome] : cases) {
    calls.clear();
    fake.Deliver(std::string("/v1.0/client-1/") + levels, payload);
    Settle();  // a certificate's outcome comes from the watch thread
    ASSERT_EQ(calls.size(), 1u) << levels << " " << payload;
    EXPECT_EQ(calls[0].code, outcome) << levels << " " << payload;
  }
  EXPECT_TRUE(fake.publishes.empty());
  EXPECT_EQ(fake.disconnects, 0) << "no renewal was pending: the connection stays";
}

TEST_F(RenewalTest, AnExpiringClientCertificateAsksForANewOneOnce) {
  FakeMqtt& fake = Connected();
  for (int i = 0; i < 2; ++i) {
    fake.Deliver("/v1.0/client-1/checkExpireDate/inbox",
                 Answer("client certificate", "20000101T000000"));
    Settle();  // the key is made on the watch thread, not the network thread
  }
  ASSERT_EQ(fake.publishes.size(), 2u);
  EXPECT_EQ(fake.publishes[0].topic, "/v1.0/client-1/renewCertificate");
  EXPECT_EQ(testcert::RequestSubject(fake.publishes[0].payload), "O=QuellborneGmbH,CN=IOT-Client");
  EXPECT_EQ(fake.publishes[1].payload, fake.publishes[0].payload) << "no second key";
}

// The reconnection runs on the watch thread; a connection that cannot even
// start ends it there at once, with its outcome reported to the renewal and
// to the application.
TEST_F(RenewalTest, AFailedReconnectionPutsBackWhateverCallbacksTheApplicationHad) {
  static std::promise<DAXO_Error>* outcome;
  const struct {
    std::string newCa;  // empty: a client certificate is renewed
    bool applicationOnConnect;
  } cases[] = {
      {"", true},  // first: the other clears the recording OnConnect for good
      {testcert::Authority("new"), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.newCa);
    FakeMqtt& fake = Connected();
    if (!c.applicationOnConnect) DAXO_ConnectCallbackSet(client, nullptr);
    WriteIdentity();
    std::string before = Files();
    DAXO_OnConnect onConnect = client->OnConnect;
    DAXO_OnDisconnect onDisconnect = client->OnDisconnect;
    std::promise<DAXO_Error> reported;
    outcome = &reported;
    client->OnCertificateRenew = [](DAXO_Client*, void*, DAXO_Error err) {
      if (err != DAXO_Error_Success) outcome->set_value(err);
    };
    FakeMqtt::OnCreate([](FakeMqtt& f) { f.connectResult = MOSQ_ERR_INVAL; });
    fake.Deliver("/v1.0/client-1/checkExpireDate/inbox", testcert::ExpiringAnswer(c.newCa));
    if (c.newCa.empty()) {
      Settle();  // the request, made on the watch thread, comes before its answer
      fake.Deliver("/v1.0/client-1/renewCertificate/inbox",
                   testcert::IssuedFor(fake.publishes.back().payload, "client-1"));
    }
    std::future<DAXO_Error> result = reported.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(result.get(), DAXO_Error_InvalidArguments);
    Settle();
    EXPECT_EQ(client->OnConnect, onConnect);
    EXPECT_EQ(client->OnDisconnect, onDisconnect);
    EXPECT_EQ(client->preserveUserDefinedOnConnectCallback, nullptr);
    EXPECT_EQ(Files(), before) << "the working identity is put back";
    // The old connection is gone: the application hears why, and the watch
    // thread will start it again.
    if (c.applicationOnConnect) {
      ASSERT_FALSE(calls.empty());
      EXPECT_EQ(calls.back().name, "OnConnect");
      EXPECT_EQ(calls.back().code, DAXO_Error_InvalidArguments);
    }
    EXPECT_EQ(client->wantMain, 1);
    FakeMqtt::OnCreate(nullptr);
  }
}

}  // namespace
