// Every reply and command the client receives, delivered whole while one
// allocation after another fails: the application hears nothing, an error,
// or exactly what an undisturbed delivery gives it, and the next message is
// handled normally.
#include <gtest/gtest.h>

#include <filesystem>

#include "alloc_failure.h"
#include "client_fixture.h"
#include "record_summary.h"
#include "reused_key.h"
#include "test_certificates.h"

namespace {

// Texts longer than json-c's first string buffer, with escapes, so that a
// lost buffer growth would show as a shortened text.
const std::string kLong = "a-sensor-name-long-enough-to-outgrow-a-small-buffer";
const std::string kSensor = R"({"name":")" + kLong + R"(\t1","sensorId":"s1","frequency":30,)" +
                            R"("monitoringService":"cpu","metrics":[{"metricId":"m1"},)" +
                            R"({"metricId":")" + kLong + R"(\n"}]})";
// Enough members to make json-c grow the object's table.
const std::string kPlugin =
    R"({"name":"p","sensorId":"s2","pluginName":"plug","pluginDownloadUrl":"http://x/)" + kLong +
    R"(","pluginParams":{"k":"v","n":5},"metrics":[],"x1":1,"x2":2,"x3":3,"x4":4,"x5":5,"x6":6})";
const std::string kError = R"({"errorcode":15,"errorMessage":")" + kLong + R"(\"x"})";

using AllocFailureInbound = FakeClientTest;

std::string Seen(const std::vector<FakeClientTest::Call>& calls) {
  std::string seen;
  for (const auto& c : calls) seen += c.name + " " + std::to_string(c.code) + " " + c.text + ";";
  return seen;
}

TEST_F(AllocFailureInbound, EveryReplyIsWholeOrDropped) {
  using Id = const char*;
  const struct {
    std::string levels, payload;  // levels below /v1.0/client-1/
    std::string seen;             // what an undisturbed delivery gives
  } kReplies[] = {
      {"inventory/inbox", "[" + kSensor + "," + kPlugin + "]",
       "OnListSensors -1 (" + kLong + "\t1 s1 f30 t1 -@- cpu {} [m1;" + kLong +
           "\n;])(p s2 f0 t2 plug@http://x/" + kLong + " - {k=v;n=5;} []);"},
      {"inventory/error/inbox", kError, "OnListSensors 15 null;"},
      {"sensor/inbox", R"({"name":")" + kLong + R"(\n","sensorId":"s9"})",
       "OnCreateSensor -1 " + kLong + "\n|s9;"},
      {"sensor/error/inbox", kError, "OnCreateSensor 15 null|null;"},
      {"sensor/job/create", kSensor,
       "OnCreateSensorJob 0 " + kLong + "\t1 s1 f30 t1 -@- cpu {} [m1;" + kLong + "\n;];"},
      {"sensor/s1/job/delete", "{}", "OnDeleteSensorJob 0 s1;"},
      {"sensor/s1/metric/inbox",
       R"([{"metricId":"m1","matchingId":"a"},{"metricId":")" + kLong + R"(\/","matchingId":"b"}])",
       "OnCreateMetrics -1 s1: m1<-a " + kLong + "/<-b;"},
      {"sensor/s1/metric/error/inbox", kError, "OnCreateMetrics 15 null;"},
      {"sensor/s1/metric/m1/inventory/inbox",
       R"({"metricId":"m1","valueType":"double","valueAnnotation":")" + kLong +
           R"(\"","lastUpdated":17,"value":21.5,"name":"t"})",
       "OnDescribeMetric -1 s1|m1 u0 t2 " + kLong + "\" @17 21.5 t;"},
      {"sensor/s1/metric/m1/inventory/error/inbox", kError, "OnDescribeMetric 15 s1|null;"},
      {"sensor/s1/update/info/inbox", "{}", "OnModifySensor -1 s1;"},
      {"sensor/s1/update/error/inbox", kError, "OnModifySensor 15 s1;"},
      {"sensor/s1/delete/info/inbox", "{}", "OnDeleteSensor -1 s1;"},
      {"sensor/s1/delete/error/inbox", kError, "OnDeleteSensor 15 s1;"},
      {"sensor/s1/info/inbox", "{}", "OnPushMetricValues -1 s1;"},
      {"sensor/s1/error/inbox", kError, "OnPushMetricValues 15 s1;"},
      {"sensor/s1/metric/delete/info/inbox", "{}", "OnDeleteMetrics -1 s1;"},
      {"sensor/s1/metric/update/error/inbox", kError, "OnUpdateMetrics 15 s1;"},
      {"ping/info/inbox", "{}", "OnCheckConnection -1 ;"},
      {"ping/error/inbox", kError, "OnCheckConnection 15 ;"},
      {"checkExpireDate/inbox",
       R"({"providedExpiresAt":"20991231T000000","certificateType":"client certificate"})",
       "renewal 0 ;"},
      {"checkExpireDate/inbox",
       R"({"providedExpiresAt":"20000101T000000","certificateType":"certificate authority",)"
       R"("validity":"valid"})",
       "renewal 0 ;"},
  };
  FakeMqtt& fake = Connected();
  RecordReplies();
  DAXO_RECORD(DAXO_ListSensorsCallbackSet, "OnListSensors",
              (DAXO_Client*, DAXO_SensorsInfo* l, void* self, DAXO_ApiError e), e,
              Take(l, DAXO_DestroySensorsInfo, l ? Sum(*l) : "null"));
  DAXO_RECORD(DAXO_CreateSensorJobCallbackSet, "OnCreateSensorJob",
              (DAXO_Client*, DAXO_SensorMetadata* s, void* self), 0,
              Take(s, DAXO_DestroySensorMetadata, Sum(*s)));
  DAXO_RECORD(DAXO_CreateMetricsCallbackSet, "OnCreateMetrics",
              (DAXO_Client*, void* self, DAXO_CreatedMetrics* m, DAXO_ApiError e), e,
              Take(m, DAXO_DestroyCreatedMetrics, m ? Sum(*m) : "null"));
  DAXO_RECORD(DAXO_DescribeMetricCallbackSet, "OnDescribeMetric",
              (DAXO_Client*, Id sensor, DAXO_MetricMetadata* m, void* self, DAXO_ApiError e), e,
              Str(sensor) + "|" + Take(m, DAXO_DestroyMetricMetadata, m ? Sum(*m) : "null"));
  client->OnCertificateRenew = [](DAXO_Client*, void* self, DAXO_Error err) {
    alloc_failure::Suspend unarmed;
    Self(self).calls.push_back({"renewal", err, ""});
  };
  for (const auto& r : kReplies) {
    const std::string topic = "/v1.0/client-1/" + r.levels;
    SCOPED_TRACE(topic + " " + r.payload);
    long allocations = alloc_failure::ForEachAllocationFailure(
        [&] {
          calls.clear();
          return fake.Deliver(topic, r.payload);
        },
        [&](bool, long n, bool fired) {
          std::string seen = Seen(calls);
          // An expiry answer that cannot be read is reported as such.
          bool refused = r.seen == "renewal 0 ;" && seen == "renewal 15 ;";
          EXPECT_TRUE(seen.empty() || seen == r.seen || refused) << "allocation " << n << ": " << seen;
          EXPECT_TRUE(fired || seen == r.seen) << "allocation " << n;
          calls.clear();
          fake.Deliver(topic, r.payload);
          EXPECT_EQ(Seen(calls), r.seen) << "after allocation " << n;
        });
    EXPECT_GT(allocations, 0);
    EXPECT_TRUE(fake.publishes.empty());
  }
}

// An expiring client certificate makes the watch thread ask for a new one:
// the request goes out whole, or not at all with the failure returned.
TEST_F(AllocFailureInbound, ARenewalRequestIsSentWholeOrNone) {
  FakeMqtt& fake = Connected();
  reused_key::Scope sameKey;
  alloc_failure::ForEachAllocationFailure(
      [&] {
        fake.publishes.clear();
        FreeProvisionData(client);
        free(std::exchange(client->newKeyContent, nullptr));
      },
      [&] { return RenewClientCertificate(client); },
      [&](DAXO_Error err, long n, bool fired) {
        if (fake.publishes.empty()) {
          EXPECT_TRUE(fired) << n;
          EXPECT_NE(err, DAXO_Error_Success) << n;
          EXPECT_EQ(client->newKeyContent, nullptr) << "no key kept without its request " << n;
        } else {
          ASSERT_EQ(fake.publishes.size(), 1u) << n;
          EXPECT_EQ(err, DAXO_Error_Success) << n;
          EXPECT_EQ(fake.publishes[0].topic, "/v1.0/client-1/renewCertificate");
          EXPECT_EQ(testcert::RequestSubject(fake.publishes[0].payload),
                    "O=QuellborneGmbH,CN=IOT-Client")
              << n;
        }
      });
}

// The provisioning reply: the certificate is stored and names the client,
// or the exchange ends with an error outcome.
TEST_F(AllocFailureInbound, AProvisioningReplyIsStoredOrReportedAsFailed) {
  reused_key::Scope sameKey;
  std::string certificate;  // for the one key every request carries
  for (const char* suffix : {"", "/error"}) {
    std::string topic;
    alloc_failure::ForEachAllocationFailure(
        [&] {
          free(std::exchange(client->clientId, nullptr));
          std::filesystem::remove_all(client->certFolder);
          EXPECT_EQ(DAXO_ProvisionClient(client), DAXO_Error_Success);
          FakeMqtt& fake = *FakeMqtt::Last();
          if (fake.publishes.empty()) fake.FireConnect(0);
          topic = "/certBack/" + testcert::Sha256Hex(fake.publishes.back().payload) + suffix;
          if (certificate.empty())
            certificate = testcert::IssuedFor(fake.publishes.back().payload, "IOT-Client-4f2a9c");
          calls.clear();
        },
        [&] { return FakeMqtt::Last()->Deliver(topic, *suffix ? kError : certificate); },
        [&](bool, long n, bool fired) {
          ASSERT_LE(calls.size(), 1u) << n;
          if (calls.empty()) {  // dropped before it was recognised: still pending
            EXPECT_TRUE(fired) << n;
            return;
          }
          EXPECT_EQ(client->provisionDigest, nullptr) << "the exchange ended " << n;
          int outcome = calls[0].code;
          if (*suffix) {
            // A reply that could not be read for want of memory still ends it.
            EXPECT_TRUE(outcome == DAXO_Error_Unknown ||
                        (fired && outcome == DAXO_Error_ClientProvision))
                << n << ": " << outcome;
          } else if (outcome == DAXO_Error_Success) {
            EXPECT_STREQ(DAXO_GetClientId(client), "IOT-Client-4f2a9c") << n;
          } else {
            EXPECT_TRUE(fired) << n;
            EXPECT_EQ(DAXO_GetClientId(client), nullptr) << n;
          }
        });
  }
}

}  // namespace
