#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "client_fixture.h"
#include "fake_time.h"
#include "test_certificates.h"

namespace {

// Local time in a fixed zone, whatever the machine's.
class FixedZone : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = getenv("TZ");
    savedTz_ = tz != nullptr ? tz : "";
    hadTz_ = tz != nullptr;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    if (hadTz_) {
      setenv("TZ", savedTz_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  static time_t At(int year, int month, int day, int hour, int minute, int second) {
    struct tm t {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    return timegm(&t);
  }

 private:
  std::string savedTz_;
  bool hadTz_ = false;
};

TEST_F(FixedZone, ACertificateIsDueThirtyDaysBeforeItExpires) {
  struct {
    const char* date;
    time_t now;
    int expiring;
  } cases[] = {
      {"20301231T000000", At(2030, 11, 30, 23, 59, 59), 0},
      {"20301231T000000", At(2030, 12, 1, 0, 0, 0), 0},  // the boundary second itself
      {"20301231T000000", At(2030, 12, 1, 0, 0, 1), 1},
      {"20301231X000000", At(2030, 12, 1, 0, 0, 1), 1},  // position 8 is not read
      {"20301231T000000Z+01", At(2030, 12, 1, 0, 0, 1), 1},
      {"20300305T120000", At(2030, 2, 3, 11, 59, 59), 0},  // month carry: 3 February
      {"20300305T120000", At(2030, 2, 3, 12, 0, 1), 1},
      {"20300101T000000", At(2029, 12, 2, 0, 0, 1), 1},  // year carry
      {"20290101T000000", At(2030, 6, 1, 0, 0, 0), 1},   // long expired
      {"2030123", At(2040, 1, 1, 0, 0, 0), 0},           // too short: never read past its end
      {"", At(2040, 1, 1, 0, 0, 0), 0},
      {"abcdefghijklmno", At(2040, 1, 1, 0, 0, 0), 1},  // no digits: year 0, long past
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.date) + " at " + std::to_string(c.now));
    fake_time::Scope now(c.now);
    EXPECT_EQ(WillDateExpireInDays(c.date, 30), c.expiring);
  }
  EXPECT_EQ(WillDateExpireInDays(nullptr, 30), 0);
}

class RenewalTest : public FakeClientTest {
 protected:
  void SetUp() override {
    FakeClientTest::SetUp();
    fake = &Connected();
    client->OnCertificateRenew = [](DAXO_Client*, void* self, DAXO_Error err) {
      Self(self).calls.push_back({"renewal", err, ""});
    };
    setenv("TZ", "UTC", 1);
    tzset();
  }
  std::vector<int> Outcomes() {
    std::vector<int> codes;
    for (const Call& c : calls) codes.push_back(c.code);
    calls.clear();
    return codes;
  }
  static std::string Answer(const char* type, const char* date, const char* extra = "") {
    return std::string(R"({"providedExpiresAt":")") + date + R"(","certificateType":")" + type +
           "\"" + extra + "}";
  }
  FakeMqtt* fake = nullptr;
};

constexpr const char* kFarAway = "20991231T000000";
constexpr const char* kExpired = "20000101T000000";

TEST_F(RenewalTest, ExpiryAnswersGiveTheirOutcome) {
  struct {
    const char* levels;
    std::string payload;
    std::vector<int> outcomes;
  } cases[] = {
      {"checkExpireDate", Answer("client certificate", kFarAway), {DAXO_Error_WrongReply}},
      {"checkExpireDate/inbox/more", Answer("client certificate", kFarAway),
       {DAXO_Error_WrongReply}},
      {"checkExpireDate/outbox", Answer("client certificate", kFarAway), {DAXO_Error_WrongReply}},
      {"checkExpireDate/inbox", "not json", {DAXO_Error_WrongReply}},
      {"checkExpireDate/inbox", R"({"certificateType":"client certificate"})",
       {DAXO_Error_WrongReply}},
      {"checkExpireDate/inbox", Answer("client certificate", "2099123"), {DAXO_Error_WrongReply}},
      {"checkExpireDate/inbox", R"({"providedExpiresAt":"20991231T000000"})",
       {DAXO_Error_WrongReply}},
      {"checkExpireDate/inbox", Answer("client certificate", kFarAway), {DAXO_Error_Success}},
      {"checkExpireDate/inbox", Answer("something else", kExpired), {DAXO_Error_Success}},
      {"checkExpireDate/inbox", Answer("certificate authority", kExpired),
       {DAXO_Error_WrongReply}},
      {"checkExpireDate/inbox", Answer("certificate authority", kExpired, R"(,"validity":"valid")"),
       {DAXO_Error_Success}},
      {"checkExpireDate/inbox",
       Answer("certificate authority", kExpired, R"(,"validity":"new one available")"),
       {DAXO_Error_Success}},
      {"renewCertificate", "pem", {DAXO_Error_WrongReply}},
      {"renewCertificate/inbox", "pem", {DAXO_Error_WritingToCertificateFile}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.levels) + " " + c.payload);
    fake->Deliver(std::string("/v1.0/client-1/") + c.levels, c.payload);
    EXPECT_EQ(Outcomes(), c.outcomes);
  }
  EXPECT_TRUE(fake->publishes.empty());
  EXPECT_EQ(fake->disconnects, 0) << "no renewal was pending: the connection stays";
  EXPECT_EQ(logs.back(), "Failed to renew the Certificate: error - 35");
}

TEST_F(RenewalTest, AnExpiringClientCertificateAsksForANewOneOnce) {
  std::string expiring = Answer("client certificate", kExpired);
  fake->Deliver("/v1.0/client-1/checkExpireDate/inbox", expiring);
  EXPECT_TRUE(Outcomes().empty()) << "the outcome comes with the new certificate";
  ASSERT_EQ(fake->publishes.size(), 1u);
  EXPECT_EQ(fake->publishes[0].topic, "/v1.0/client-1/renewCertificate");
  EXPECT_EQ(testcert::RequestSubject(fake->publishes[0].payload), "O=QuellborneGmbH,CN=IOT-Client");
  ASSERT_NE(client->newKeyContent, nullptr);
  std::string key = client->newKeyContent;

  fake->Deliver("/v1.0/client-1/checkExpireDate/inbox", expiring);
  ASSERT_EQ(fake->publishes.size(), 2u);
  EXPECT_EQ(fake->publishes[1].payload, fake->publishes[0].payload) << "the same request again";
  EXPECT_EQ(client->newKeyContent, key) << "no second key";
}

TEST_F(RenewalTest, APassWithoutIdentitySendsNothingAndSaysWhy) {
  EXPECT_EQ(CheckCertificatesExpirationDates(client), DAXO_Error_WrongCertificateFile);
  EXPECT_TRUE(fake->publishes.empty());
  EXPECT_EQ(logs, std::vector<std::string>{"Failed to renew the Certificate: error - 36"});
}

TEST_F(RenewalTest, APassSendsTheFilesAsTheyAre) {
  std::filesystem::create_directories(client->certFolder);
  std::string cert = testcert::SelfSigned("client-1"), ca = testcert::SelfSigned("CA");
  std::ofstream(std::string(client->certFolder) + "/cert.crt") << cert;
  std::ofstream(std::string(client->certFolder) + "/priv_key.key") << "key";
  std::ofstream(client->caFile) << ca;
  EXPECT_EQ(CheckCertificatesExpirationDates(client), DAXO_Error_Success);
  ASSERT_EQ(fake->publishes.size(), 2u);
  EXPECT_EQ(fake->publishes[0].topic, "/v1.0/client-1/checkExpireDate");
  EXPECT_EQ(fake->publishes[0].payload, cert);
  EXPECT_EQ(fake->publishes[1].payload, ca);
}

}  // namespace
