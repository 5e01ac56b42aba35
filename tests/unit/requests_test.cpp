#include <gtest/gtest.h>
#include <json-c/json.h>

#include <functional>

#include "alloc_failure.h"
#include "client_fixture.h"

namespace {

using Action = std::function<DAXO_Error()>;
using Send = std::function<DAXO_Error(DAXO_Client*)>;

const std::string kSchemas =
    R"({"metrics":[{"valueUnit":"SI.Temperature.CELSIUS","matchingId":"a","name":"temp"},)"
    R"({"valueType":"string","valueAnnotation":"ok","matchingId":"b","name":"state"},)"
    R"({"metricId":"m1","name":"renamed"},{"metricId":"m2","valueAnnotation":"note"}]})";
const std::string kValues =
    R"({"metrics":[{"metricId":"m1","value":42},{"metricId":"m2","value":true},)"
    R"({"metricId":"m3","value":21.5},{"metricId":"m4","value":""},)"
    R"({"metricId":"m1","value":-9223372036854775808}],"timestamp":-9223372036854775808})";

class RequestsTest : public FakeClientTest {
 protected:
  void SetUp() override {
    FakeClientTest::SetUp();
    for (const Action& add : Adds()) ASSERT_EQ(add(), DAXO_Error_Success);
  }
  void TearDown() override {
    DAXO_DestroyMetricSchemaContainer(schema);
    DAXO_DestroyMetricValueContainer(values);
    FakeClientTest::TearDown();
  }
  std::vector<Action> Adds() {
    return {
        [&] { return DAXO_AddStandardMetricSchema(schema, "a", "temp", DAXO_ValueUnit_SICelsius); },
        [&] {
          return DAXO_AddCustomMetricSchema(schema, "b", "state", DAXO_ValueType_String, "ok");
        },
        [&] { return DAXO_AddMetricUpdateSchema(schema, "m1", "renamed", nullptr); },
        [&] { return DAXO_AddMetricUpdateSchema(schema, "m2", nullptr, "note"); },
        [&] { return DAXO_AddIntegerMetricValue(values, 42, "m1"); },
        [&] { return DAXO_AddBoolMetricValue(values, 7, "m2"); },
        [&] { return DAXO_AddDoubleMetricValue(values, 21.5, "m3"); },
        [&] { return DAXO_AddStringMetricValue(values, "", "m4"); },
        [&] { return DAXO_AddIntegerMetricValue(values, INT64_MIN, "m1"); },
        [&] { return DAXO_AddEpochTimeStamp(values, UINT64_C(1) << 63); },
    };
  }
  // Each request and the "topic body" it publishes below the client's tree.
  std::vector<std::pair<Send, std::string>> Requests() {
    return {
        {[](auto c) { return DAXO_CreateSensor(c, "kitchen"); },
         R"(sensor/create {"name":"kitchen"})"},
        {[](auto c) { return DAXO_CreateSensor(c, "a\"b\\c\n\x01"); },
         R"(sensor/create {"name":"a\"b\\c\n\u0001"})"},
        {[](auto c) { return DAXO_UpdateSensor(c, "s1", "hall"); },
         R"(sensor/s1/update {"name":"hall"})"},
        {[](auto c) { return DAXO_DeleteSensor(c, "a/b"); }, "sensor/a/b/delete {}"},
        {[](auto c) { return DAXO_ListSensors(c); }, "inventory {}"},
        {[](auto c) { return DAXO_DescribeMetric(c, "s1", "m1"); },
         "sensor/s1/metric/m1/inventory {}"},
        {[&](auto c) { return DAXO_CreateMetrics(c, "s1", schema); },
         "sensor/s1/metric " + kSchemas},
        {[&](auto c) { return DAXO_UpdateMetrics(c, "s1", schema); },
         "sensor/s1/metric/update " + kSchemas},
        {[&](auto c) { return DAXO_DeleteMetrics(c, "s1", ids, 2); },
         R"(sensor/s1/metric/delete {"metrics":[{"metricId":"m1"},{"metricId":"m2"}]})"},
        {[&](auto c) { return DAXO_PushMetricValues(c, "s1", values); }, "sensor/s1 " + kValues},
        {[](auto c) { return DAXO_ReportClientError(c, 3, "disk full"); },
         R"(error {"errocode":3,"errorMessage":"disk full"})"},
        {[](auto c) { return DAXO_ReportSensorError(c, "s1", -2, ""); },
         R"(sensor/s1/error {"errorcode":-2,"errorMessage":""})"},
        {[](auto c) { return DAXO_ReportMetricError(c, "s1", "m1", 0, "stuck"); },
         R"(sensor/s1/metric/m1/error {"errorcode":0,"errorMessage":"stuck"})"},
    };
  }
  // The one message a request published, with its body rendered plainly
  // (member order kept); "" unless exactly one.
  std::string Sent(FakeMqtt& fake, const Send& send) {
    fake.publishes.clear();
    if (send(client) != DAXO_Error_Success || fake.publishes.size() != 1) return "";
    const FakePublish& p = fake.publishes[0];
    json_object* json = json_tokener_parse(p.payload.c_str());
    std::string body =
        json ? json_object_to_json_string_ext(json, JSON_C_TO_STRING_PLAIN) : p.payload;
    json_object_put(json);
    std::string topic = p.topic.rfind("/v1.0/client-1/", 0) == 0 ? p.topic.substr(15) : p.topic;
    return topic + (p.qos == 2 && !p.retain ? " " : " retained or not QoS 2 ") + body;
  }

  DAXO_MetricSchemaContainer* schema = DAXO_CreateMetricSchemaContainer();
  DAXO_MetricValueContainer* values = DAXO_CreateMetricValueContainer();
  char m1[3] = "m1", m2[3] = "m2";
  char* ids[3] = {m1, m2, nullptr};
};

TEST_F(RequestsTest, EachRequestHasItsTopicAndBody) {
  FakeMqtt& fake = Connected();
  for (const auto& [send, sent] : Requests()) EXPECT_EQ(Sent(fake, send), sent);
}

TEST_F(RequestsTest, RefusedCallsSendNothingAndLeaveContainersUnchanged) {
  for (const auto& [send, sent] : Requests()) {
    EXPECT_EQ(send(nullptr), DAXO_Error_InvalidArguments) << sent;
    EXPECT_EQ(send(client), DAXO_Error_InvalidArguments) << "unprovisioned " << sent;
  }
  DAXO_MetricValueContainer* onlyTime = DAXO_CreateMetricValueContainer();
  DAXO_AddEpochTimeStamp(onlyTime, 5);
  const Action refused[] = {
      [&] { return DAXO_CreateSensor(client, nullptr); },
      [&] { return DAXO_UpdateSensor(client, "s", nullptr); },
      [&] { return DAXO_DeleteSensor(client, "s+1"); },
      [&] { return DAXO_DescribeMetric(client, "s", nullptr); },
      [&] { return DAXO_AddStandardMetricSchema(schema, "x", "x", DAXO_ValueUnit_NoUnit); },
      [&] { return DAXO_AddStandardMetricSchema(schema, "x", "x", DAXO_ValueUnit(23)); },
      [&] { return DAXO_AddCustomMetricSchema(schema, "x", "x", DAXO_ValueType(5), "n"); },
      [&] { return DAXO_AddCustomMetricSchema(schema, "x", "x", DAXO_ValueType_Bool, nullptr); },
      [&] { return DAXO_AddMetricUpdateSchema(schema, "m", nullptr, nullptr); },
      [&] { return DAXO_AddStringMetricValue(values, nullptr, "m"); },
      [&] { return DAXO_AddIntegerMetricValue(nullptr, 1, "m"); },
      [&] { return DAXO_DeleteMetrics(client, "s1", ids, 0); },
      [&] { return DAXO_DeleteMetrics(client, "s1", ids, 3); },
      [&] { return DAXO_PushMetricValues(client, "s1", onlyTime); },
      [&] { return DAXO_ReportClientError(client, 1, nullptr); },
      [&] { return DAXO_ReportMetricError(client, "s1", nullptr, 1, "x"); },
  };
  FakeMqtt& fake = Connected();
  for (const Action& call : refused)
    EXPECT_EQ(call(), DAXO_Error_InvalidArguments) << &call - refused;
  EXPECT_TRUE(fake.publishes.empty());
  DAXO_DestroyMetricValueContainer(onlyTime);
  for (const auto& [send, sent] : Requests()) EXPECT_EQ(Sent(fake, send), sent);
}

TEST_F(RequestsTest, AllocationFailuresLeaveContainersWholeAndSendNothing) {
  FakeMqtt& fake = Connected();
  DAXO_LogCallbackSet(client, nullptr);
  const auto requests = Requests();
  // The create and push requests show the containers' contents.
  auto contents = [&] { return Sent(fake, requests[6].first) + Sent(fake, requests[9].first); };
  for (const Action& add : Adds()) {
    const std::string before = contents();
    alloc_failure::ForEachAllocationFailure(add, [&](DAXO_Error err, long n, bool) {
      EXPECT_TRUE(err == DAXO_Error_Success || contents() == before) << "allocation " << n;
    });
  }
  for (const auto& [send, sent] : requests) {
    alloc_failure::ForEachAllocationFailure(
        [&] { return fake.publishes.clear(), send(client); },
        [&](DAXO_Error err, long n, bool) {
          // A failure the C library absorbs (a shrinking realloc) still sends.
          EXPECT_EQ(fake.publishes.size(), err == DAXO_Error_Success ? 1u : 0u) << sent << n;
          EXPECT_TRUE(err == DAXO_Error_Success || err == DAXO_Error_NoMemory ||
                      err == DAXO_Error_ComposeJson)
              << err;
        });
  }
}

}  // namespace
