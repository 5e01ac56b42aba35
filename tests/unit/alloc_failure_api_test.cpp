// The exported operations and the transport's handlers, each run while one
// allocation after another fails: a documented code, nothing half sent, no
// leak (the asan preset), and the client still usable afterwards. The
// requests, the container Adds and DAXO_NewClient have their own loops
// (requests_test, client_test); CreateCSR runs under the provisioning loop.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "alloc_failure.h"
#include "client_fixture.h"
#include "reused_key.h"
#include "test_certificates.h"

namespace {

class AllocFailureApi : public FakeClientTest {
 protected:
  struct Operation {
    const char* name;
    std::function<void()> setup;  // unarmed
    std::function<int()> call;
    std::set<int> codes;  // besides the undisturbed result
    int published;        // messages a success sends; -1: not counted
    int normal = DAXO_Error_Success;
  };

  // The last instance's publishes, or none before the first.
  size_t Published() const {
    FakeMqtt* fake = FakeMqtt::Last();
    return fake != nullptr ? fake->publishes.size() : 0;
  }

  void Run(const Operation& op) {
    SCOPED_TRACE(op.name);
    size_t before = 0;
    long allocations = alloc_failure::ForEachAllocationFailure(
        [&] {
          op.setup();
          calls.clear();
          before = Published();
        },
        op.call,
        [&](int err, long n, bool fired) {
          EXPECT_TRUE(err == op.normal || op.codes.count(err)) << n << ": " << err;
          EXPECT_TRUE(fired || err == op.normal) << n;
          size_t sent = Published() - before;
          if (op.published >= 0) {
            EXPECT_EQ(sent, err == DAXO_Error_Success ? size_t(op.published) : 0u) << n;
          }
        });
    RecordProperty(op.name, static_cast<int>(allocations));
  }

  void Provision() {
    std::filesystem::create_directories(client->certFolder);
    std::ofstream(client->caFile) << testcert::SelfSigned("CA");
    static const testcert::Identity identity = testcert::MakeIdentity("client-1");
    std::ofstream(std::string(client->certFolder) + "/priv_key.key") << identity.key;
    std::ofstream(std::string(client->certFolder) + "/cert.crt") << identity.cert;
  }
};

const std::set<int> kNoMemory = {DAXO_Error_NoMemory};
const std::string kPingTopic = "/v1.0/client-1/ping/info/inbox", kEmpty = "{}";

TEST_F(AllocFailureApi, EveryOperationGivesItsCodeAndSendsAllOrNothing) {
  auto connected = [&] { Connected(); };
  DAXO_MetricSchemaContainer* schema = nullptr;
  DAXO_MetricValueContainer* values = nullptr;
  const Operation kOperations[] = {
      {"CreateMetricSchemaContainer", [&] { DAXO_DestroyMetricSchemaContainer(schema); },
       [&] { return (schema = DAXO_CreateMetricSchemaContainer()) ? 0 : int(DAXO_Error_NoMemory); },
       kNoMemory, 0},
      {"CreateMetricValueContainer", [&] { DAXO_DestroyMetricValueContainer(values); },
       [&] { return (values = DAXO_CreateMetricValueContainer()) ? 0 : int(DAXO_Error_NoMemory); },
       kNoMemory, 0},
      {"DestroyMetricSchemaContainer",
       [&] {
         DAXO_DestroyMetricSchemaContainer(schema);
         schema = DAXO_CreateMetricSchemaContainer();
         DAXO_AddStandardMetricSchema(schema, "a", "t", DAXO_ValueUnit_SIVolt);
       },
       [&] { return int(DAXO_DestroyMetricSchemaContainer(std::exchange(schema, nullptr))); },
       {}, 0},
      {"DestroyMetricValueContainer",
       [&] {
         DAXO_DestroyMetricValueContainer(values);
         values = DAXO_CreateMetricValueContainer();
         DAXO_AddStringMetricValue(values, "v", "m");
       },
       [&] { return int(DAXO_DestroyMetricValueContainer(std::exchange(values, nullptr))); },
       {}, 0},
      {"Connect", [&] { Provisioned(); }, [&] { return int(DAXO_Connect(client)); }, kNoMemory, 0},
      {"CheckConnection", connected, [&] { return int(DAXO_CheckConnection(client)); },
       kNoMemory, 1},
      {"DeprovisionClient", connected, [&] { return int(DAXO_DeprovisionClient(client)); },
       kNoMemory, 1},
      {"Disconnect", connected, [&] { return int(DAXO_Disconnect(client)); }, {}, 0},
      {"ProvisionClient (stored identity)", [&] { Provision(); },
       [&] { return int(DAXO_ProvisionClient(client)); },
       // The watch thread it starts may send the expiry check meanwhile;
       // libcrypto reports an allocation failure as an unreadable file.
       {DAXO_Error_NoMemory, DAXO_Error_GetClientId, DAXO_Error_WrongCertificateFile}, -1,
       DAXO_Error_AlreadyProvisioned},
  };
  for (const Operation& op : kOperations) Run(op);
  DAXO_DestroyMetricSchemaContainer(schema);
  DAXO_DestroyMetricValueContainer(values);
}

// A new exchange: a key, a request and a provisioning connection.
TEST_F(AllocFailureApi, ProvisioningSendsAWholeRequestOrFailsWithItsCode) {
  reused_key::Scope sameKey;
  Run({"ProvisionClient",
       [&] {
         std::filesystem::remove_all(client->certFolder);
         FreeProvisionData(client);
       },
       [&] {
         int err = DAXO_ProvisionClient(client);
         // A running provisioning connection sends at once.
         if (err == DAXO_Error_Success && FakeMqtt::Last()->publishes.empty())
           FakeMqtt::Last()->FireConnect(0);
         return err;
       },
       {DAXO_Error_NoMemory, DAXO_Error_CreateProvisionCertificate, DAXO_Error_CreatePrivateKey,
        DAXO_Error_TlsSetFailed},
       1});
}

TEST_F(AllocFailureApi, DeletingAClientReleasesEverything) {
  alloc_failure::ForEachAllocationFailure(
      [&] {
        DAXO_DeleteClient(client);
        DAXO_Error err;
        client = NewClientInternal(conf.c_str(), this, &err, FakeMqtt::Create, FakeMqtt::Destroy);
        Connected();
      },
      [&] { return DAXO_DeleteClient(std::exchange(client, nullptr)); },
      [&](DAXO_Error err, long n, bool) { EXPECT_EQ(err, DAXO_Error_Success) << n; });
}

// The handlers the transport calls on its network thread: a failure is
// reported through the callback concerned or leaves things as they were.
TEST_F(AllocFailureApi, TransportHandlersReportOrDropUnderEveryFailure) {
  RecordReplies();
  DAXO_RECORD(DAXO_DeprovisionClientCallbackSet, "OnDeprovisionClient", (DAXO_Client*, void* self),
              0, "");
  const struct {
    const char* name;
    std::function<bool(FakeMqtt&)> fire;
    std::string outcome;  // the one call an undisturbed run makes
  } kHandlers[] = {
      {"connect", [](FakeMqtt& f) { return f.FireConnect(0); }, "subscribed"},
      {"refused connect", [](FakeMqtt& f) { return f.FireConnect(5); },
       "OnConnect " + std::to_string(ConvertConnackCode(5))},
      {"subscribe",
       [](FakeMqtt& f) {
         int qos = 2;  // FireSubscribe's vector would be made under the armed scope
         f.onSubscribe(reinterpret_cast<struct mosquitto*>(&f), f.obj, 1, 1, &qos);
         return true;
       },
       "OnConnect 0"},
      {"disconnect", [](FakeMqtt& f) { return f.FireDisconnect(0); }, "OnDisconnect 0"},
      {"lost", [](FakeMqtt& f) { return f.FireDisconnect(7); }, "OnDisconnect 12"},
      {"publish", [](FakeMqtt& f) { return f.FirePublish(f.publishes.back().mid); },
       "OnDeprovisionClient 0"},
      {"message",
       [](FakeMqtt& f) { return f.Deliver(kPingTopic, kEmpty); },
       "OnCheckConnection -1"},
  };
  for (const auto& h : kHandlers) {
    SCOPED_TRACE(h.name);
    FakeMqtt* fake = nullptr;
    size_t subscribed = 0;
    alloc_failure::ForEachAllocationFailure(
        [&] {
          Provision();
          fake = &Connected();
          if (std::string(h.name) == "publish") DAXO_DeprovisionClient(client);
          subscribed = fake->subscribes.size();
          calls.clear();
        },
        [&] { return h.fire(*fake); },
        [&](bool, long n, bool fired) {
          std::string seen;
          for (const Call& c : calls) seen += c.name + " " + std::to_string(c.code);
          if (fake->subscribes.size() > subscribed) seen += "subscribed";
          bool reported = seen == "OnConnect " + std::to_string(DAXO_Error_NoMemory);
          EXPECT_TRUE(seen == h.outcome || (fired && (seen.empty() || reported)))
              << n << ": " << seen;
          if (seen == "OnDeprovisionClient 0") {
            EXPECT_FALSE(std::filesystem::exists(std::string(client->certFolder) + "/priv_key.key"))
                << n << ": reported complete with the key left";
          }
        });
  }
}

}  // namespace
