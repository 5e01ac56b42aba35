#include <gtest/gtest.h>
#include <json-c/json.h>

#include <functional>

#include "alloc_failure.h"
#include "client_fixture.h"

namespace {

using RequestsTest = FakeClientTest;

struct RequestCase {
  const char* name;
  std::function<DAXO_Error(DAXO_Client*)> send;
  const char* topic;
  const char* payload;  // compared as JSON; "{}" also byte for byte
};

const RequestCase kRequests[] = {
    {"create", [](DAXO_Client* c) { return DAXO_CreateSensor(c, "kitchen"); },
     "/v1.0/client-1/sensor/create", R"({"name":"kitchen"})"},
    {"update", [](DAXO_Client* c) { return DAXO_UpdateSensor(c, "s1", "hall"); },
     "/v1.0/client-1/sensor/s1/update", R"({"name":"hall"})"},
    {"delete", [](DAXO_Client* c) { return DAXO_DeleteSensor(c, "abc"); },
     "/v1.0/client-1/sensor/abc/delete", "{}"},
    {"list", [](DAXO_Client* c) { return DAXO_ListSensors(c); }, "/v1.0/client-1/inventory", "{}"},
    {"describe", [](DAXO_Client* c) { return DAXO_DescribeMetric(c, "s1", "m1"); },
     "/v1.0/client-1/sensor/s1/metric/m1/inventory", "{}"},
    {"empty name", [](DAXO_Client* c) { return DAXO_CreateSensor(c, ""); },
     "/v1.0/client-1/sensor/create", R"({"name":""})"},
    {"escaped name", [](DAXO_Client* c) { return DAXO_CreateSensor(c, "a\"b\\c\n\x01"); },
     "/v1.0/client-1/sensor/create", R"({"name":"a\"b\\c\n\u0001"})"},
    {"a slash adds levels", [](DAXO_Client* c) { return DAXO_DeleteSensor(c, "a/b"); },
     "/v1.0/client-1/sensor/a/b/delete", "{}"},
};

std::string Canonical(const std::string& json) {
  json_object* parsed = json_tokener_parse(json.c_str());
  std::string text = parsed ? json_object_to_json_string_ext(parsed, JSON_C_TO_STRING_PLAIN)
                            : "<not json: " + json + ">";
  json_object_put(parsed);
  return text;
}

TEST_F(RequestsTest, EachRequestHasItsTopicAndBody) {
  FakeMqtt& fake = Connected();
  for (const RequestCase& r : kRequests) {
    SCOPED_TRACE(r.name);
    fake.publishes.clear();
    ASSERT_EQ(r.send(client), DAXO_Error_Success);
    ASSERT_EQ(fake.publishes.size(), 1u);
    const FakePublish& p = fake.publishes[0];
    EXPECT_EQ(p.topic, r.topic);
    EXPECT_EQ(Canonical(p.payload), Canonical(r.payload));
    if (std::string(r.payload) == "{}") {
      EXPECT_EQ(p.payload, "{}");
    }
    EXPECT_EQ(p.qos, 2);
    EXPECT_FALSE(p.retain);
  }
}

TEST_F(RequestsTest, RefusesMissingArgumentsAndUnprovisionedClients) {
  const std::function<DAXO_Error(DAXO_Client*)> refused[] = {
      [](DAXO_Client* c) { return DAXO_CreateSensor(c, nullptr); },
      [](DAXO_Client* c) { return DAXO_UpdateSensor(c, nullptr, "n"); },
      [](DAXO_Client* c) { return DAXO_UpdateSensor(c, "s", nullptr); },
      [](DAXO_Client* c) { return DAXO_DeleteSensor(c, nullptr); },
      [](DAXO_Client* c) { return DAXO_DescribeMetric(c, nullptr, "m"); },
      [](DAXO_Client* c) { return DAXO_DescribeMetric(c, "s", nullptr); },
  };
  for (const RequestCase& r : kRequests) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(r.send(nullptr), DAXO_Error_InvalidArguments);
    EXPECT_EQ(r.send(client), DAXO_Error_InvalidArguments) << "not provisioned";
  }
  FakeMqtt& fake = Connected();
  for (const auto& send : refused) EXPECT_EQ(send(client), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_DeleteSensor(client, "s+1"), DAXO_Error_InvalidArguments) << "the transport";
  EXPECT_EQ(DAXO_DeleteSensor(client, "#"), DAXO_Error_InvalidArguments);
  EXPECT_TRUE(fake.publishes.empty());
}

TEST_F(RequestsTest, ATransportRefusalIsReturnedUnchanged) {
  FakeMqtt& fake = Connected();
  fake.publishResult = MOSQ_ERR_NO_CONN;
  EXPECT_EQ(DAXO_ListSensors(client), DAXO_Error_NoConnectionToServer);
  fake.publishResult = MOSQ_ERR_PAYLOAD_SIZE;
  EXPECT_EQ(DAXO_CreateSensor(client, "x"), DAXO_Error_PayloadSize);
}

TEST_F(RequestsTest, AllocationFailuresSendNothing) {
  FakeMqtt& fake = Connected();
  DAXO_LogCallbackSet(client, nullptr);
  for (const RequestCase& r : kRequests) {
    SCOPED_TRACE(r.name);
    alloc_failure::ForEachAllocationFailure(
        [&] {
          fake.publishes.clear();
          return r.send(client);
        },
        [&](DAXO_Error err, long n, bool) {
          SCOPED_TRACE(n);
          // A failure the C library absorbs (a shrinking realloc) still
          // sends, but only the whole message.
          if (err == DAXO_Error_Success) {
            ASSERT_EQ(fake.publishes.size(), 1u);
            EXPECT_EQ(Canonical(fake.publishes[0].payload), Canonical(r.payload));
            return;
          }
          EXPECT_TRUE(err == DAXO_Error_NoMemory || err == DAXO_Error_ComposeJson) << err;
          EXPECT_TRUE(fake.publishes.empty());
        });
  }
}

}  // namespace
