#include <gtest/gtest.h>
#include <json-c/json.h>

#include <functional>

#include "alloc_failure.h"
#include "client_fixture.h"

namespace {

// The published body re-rendered plainly: member order is kept, so equal
// text means equal members in equal order.
std::string Plain(const std::string& json) {
  json_object* parsed = json_tokener_parse(json.c_str());
  std::string text = parsed ? json_object_to_json_string_ext(parsed, JSON_C_TO_STRING_PLAIN)
                            : "<not json: " + json + ">";
  json_object_put(parsed);
  return text;
}

class MetricRequestsTest : public FakeClientTest {
 protected:
  void SetUp() override {
    FakeClientTest::SetUp();
    fake = &Connected();
    schemas = DAXO_CreateMetricSchemaContainer();
    values = DAXO_CreateMetricValueContainer();
    ASSERT_NE(schemas, nullptr);
    ASSERT_NE(values, nullptr);
  }
  void TearDown() override {
    DAXO_DestroyMetricSchemaContainer(schemas);
    DAXO_DestroyMetricValueContainer(values);
    FakeClientTest::TearDown();
  }

  // Sends with send and returns {topic, plain body}; empty when nothing went.
  std::pair<std::string, std::string> Sent(const std::function<DAXO_Error()>& send) {
    fake->publishes.clear();
    EXPECT_EQ(send(), DAXO_Error_Success);
    if (fake->publishes.size() != 1) return {};
    return {fake->publishes[0].topic, Plain(fake->publishes[0].payload)};
  }
  std::string SchemaBody() {
    return Sent([&] { return DAXO_CreateMetrics(client, "s1", schemas); }).second;
  }
  std::string ValuesBody() {
    return Sent([&] { return DAXO_PushMetricValues(client, "s1", values); }).second;
  }

  FakeMqtt* fake = nullptr;
  DAXO_MetricSchemaContainer* schemas = nullptr;
  DAXO_MetricValueContainer* values = nullptr;
};

TEST_F(MetricRequestsTest, SchemaEntriesKeepTheirMemberOrder) {
  EXPECT_EQ(SchemaBody(), R"({"metrics":[]})");
  ASSERT_EQ(DAXO_AddStandardMetricSchema(schemas, "a", "temp", DAXO_ValueUnit_SICelsius),
            DAXO_Error_Success);
  ASSERT_EQ(DAXO_AddCustomMetricSchema(schemas, "b", "state", DAXO_ValueType_String, "ok|bad"),
            DAXO_Error_Success);
  ASSERT_EQ(DAXO_AddMetricUpdateSchema(schemas, "m1", "renamed", nullptr), DAXO_Error_Success);
  ASSERT_EQ(DAXO_AddMetricUpdateSchema(schemas, "m2", nullptr, "note"), DAXO_Error_Success);
  const std::string body =
      R"({"metrics":[{"valueUnit":"SI.Temperature.CELSIUS","matchingId":"a","name":"temp"},)"
      R"({"valueType":"string","valueAnnotation":"ok|bad","matchingId":"b","name":"state"},)"
      R"({"metricId":"m1","name":"renamed"},{"metricId":"m2","valueAnnotation":"note"}]})";
  auto created = Sent([&] { return DAXO_CreateMetrics(client, "s1", schemas); });
  EXPECT_EQ(created.first, "/v1.0/client-1/sensor/s1/metric");
  EXPECT_EQ(created.second, body);
  auto updated = Sent([&] { return DAXO_UpdateMetrics(client, "s1", schemas); });
  EXPECT_EQ(updated.first, "/v1.0/client-1/sensor/s1/metric/update");
  EXPECT_EQ(updated.second, body) << "sending leaves the container as it was";
}

TEST_F(MetricRequestsTest, RefusedSchemaEntriesLeaveTheContainerUnchanged) {
  ASSERT_EQ(DAXO_AddStandardMetricSchema(schemas, "a", "temp", DAXO_ValueUnit_SIWatt),
            DAXO_Error_Success);
  std::string before = SchemaBody();
  const std::function<DAXO_Error()> refused[] = {
      [&] { return DAXO_AddStandardMetricSchema(schemas, "x", "x", DAXO_ValueUnit_NoUnit); },
      [&] { return DAXO_AddStandardMetricSchema(schemas, "x", "x", DAXO_ValueUnit(23)); },
      [&] { return DAXO_AddStandardMetricSchema(schemas, "x", "x", DAXO_ValueUnit(-1)); },
      [&] { return DAXO_AddStandardMetricSchema(schemas, nullptr, "x", DAXO_ValueUnit_SIBit); },
      [&] { return DAXO_AddStandardMetricSchema(nullptr, "x", "x", DAXO_ValueUnit_SIBit); },
      [&] { return DAXO_AddCustomMetricSchema(schemas, "x", "x", DAXO_ValueType_NoType, "n"); },
      [&] { return DAXO_AddCustomMetricSchema(schemas, "x", "x", DAXO_ValueType(5), "n"); },
      [&] { return DAXO_AddCustomMetricSchema(schemas, "x", "x", DAXO_ValueType_Bool, nullptr); },
      [&] { return DAXO_AddMetricUpdateSchema(schemas, "m", nullptr, nullptr); },
      [&] { return DAXO_AddMetricUpdateSchema(schemas, nullptr, "n", nullptr); },
  };
  for (const auto& add : refused) EXPECT_EQ(add(), DAXO_Error_InvalidArguments);
  EXPECT_EQ(SchemaBody(), before);
  EXPECT_EQ(DAXO_DestroyMetricSchemaContainer(nullptr), DAXO_Error_InvalidArguments);
}

TEST_F(MetricRequestsTest, DeleteListsTheIdentifiersInOrder) {
  char m1[] = "m1", m2[] = "m2";
  char* ids[] = {m1, m2, nullptr};
  auto sent = Sent([&] { return DAXO_DeleteMetrics(client, "s1", ids, 2); });
  EXPECT_EQ(sent.first, "/v1.0/client-1/sensor/s1/metric/delete");
  EXPECT_EQ(sent.second, R"({"metrics":[{"metricId":"m1"},{"metricId":"m2"}]})");
  EXPECT_EQ(Sent([&] { return DAXO_DeleteMetrics(client, "s1", ids, -1); }).second,
            R"({"metrics":[]})");
  fake->publishes.clear();
  EXPECT_EQ(DAXO_DeleteMetrics(client, "s1", ids, 0), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_DeleteMetrics(client, "s1", ids, 3), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_DeleteMetrics(client, nullptr, ids, 1), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_DeleteMetrics(client, "s1", nullptr, 1), DAXO_Error_InvalidArguments);
  EXPECT_TRUE(fake->publishes.empty());
}

TEST_F(MetricRequestsTest, PushWritesEachValueByItsType) {
  DAXO_AddIntegerMetricValue(values, 42, "m1");
  DAXO_AddBoolMetricValue(values, 7, "m2");
  auto sent = Sent([&] { return DAXO_PushMetricValues(client, "s1", values); });
  EXPECT_EQ(sent.first, "/v1.0/client-1/sensor/s1");
  EXPECT_EQ(sent.second,
            R"({"metrics":[{"metricId":"m1","value":42},{"metricId":"m2","value":true}]})");

  DAXO_AddBoolMetricValue(values, 0, "m2");
  DAXO_AddDoubleMetricValue(values, 21.5, "m3");
  DAXO_AddStringMetricValue(values, "", "m4");
  DAXO_AddIntegerMetricValue(values, INT64_MIN, "m1");
  DAXO_AddEpochTimeStamp(values, 1);
  DAXO_AddEpochTimeStamp(values, UINT64_C(1) << 63);
  EXPECT_EQ(ValuesBody(),
            R"({"metrics":[{"metricId":"m1","value":42},{"metricId":"m2","value":true},)"
            R"({"metricId":"m2","value":false},{"metricId":"m3","value":21.5},)"
            R"({"metricId":"m4","value":""},{"metricId":"m1","value":-9223372036854775808}],)"
            R"("timestamp":-9223372036854775808})");
}

TEST_F(MetricRequestsTest, PushRefusesEmptyContainersAndMissingArguments) {
  DAXO_AddEpochTimeStamp(values, 5);
  EXPECT_EQ(DAXO_PushMetricValues(client, "s1", values), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_AddStringMetricValue(values, nullptr, "m"), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_AddIntegerMetricValue(values, 1, nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_AddIntegerMetricValue(nullptr, 1, "m"), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_AddEpochTimeStamp(nullptr, 1), DAXO_Error_InvalidArguments);
  DAXO_AddIntegerMetricValue(values, 1, "m");
  EXPECT_EQ(DAXO_PushMetricValues(client, nullptr, values), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_PushMetricValues(client, "s1", nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_DestroyMetricValueContainer(nullptr), DAXO_Error_InvalidArguments);
  EXPECT_TRUE(fake->publishes.empty());
}

TEST_F(MetricRequestsTest, ErrorReportsNameTheirCodeMemberPerLevel) {
  struct {
    std::function<DAXO_Error()> report;
    const char* topic;
    const char* body;
  } cases[] = {
      {[&] { return DAXO_ReportClientError(client, 3, "disk full"); }, "/v1.0/client-1/error",
       R"({"errocode":3,"errorMessage":"disk full"})"},
      {[&] { return DAXO_ReportSensorError(client, "s1", -2, ""); },
       "/v1.0/client-1/sensor/s1/error", R"({"errorcode":-2,"errorMessage":""})"},
      {[&] { return DAXO_ReportMetricError(client, "s1", "m1", 0, "stuck"); },
       "/v1.0/client-1/sensor/s1/metric/m1/error", R"({"errorcode":0,"errorMessage":"stuck"})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.topic);
    auto sent = Sent(c.report);
    EXPECT_EQ(sent.first, c.topic);
    EXPECT_EQ(sent.second, c.body);
  }
  EXPECT_EQ(DAXO_ReportClientError(client, 1, nullptr), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_ReportSensorError(client, nullptr, 1, "x"), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_ReportMetricError(client, "s1", nullptr, 1, "x"), DAXO_Error_InvalidArguments);
}

TEST_F(MetricRequestsTest, RequestsOfAnUnprovisionedClientAreRefused) {
  free(client->clientId);
  client->clientId = nullptr;
  DAXO_AddIntegerMetricValue(values, 1, "m");
  char m1[] = "m1";
  char* ids[] = {m1};
  EXPECT_EQ(DAXO_CreateMetrics(client, "s1", schemas), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_UpdateMetrics(client, "s1", schemas), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_DeleteMetrics(client, "s1", ids, 1), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_PushMetricValues(client, "s1", values), DAXO_Error_InvalidArguments);
  EXPECT_EQ(DAXO_ReportClientError(client, 1, "x"), DAXO_Error_InvalidArguments);
  EXPECT_TRUE(fake->publishes.empty());
}

// Every Add and every request under each allocation failure in turn: a
// failed Add leaves the container as it was, a failed request sends nothing.
TEST_F(MetricRequestsTest, AllocationFailuresLeaveContainersWholeAndSendNothing) {
  DAXO_LogCallbackSet(client, nullptr);
  DAXO_AddStandardMetricSchema(schemas, "a", "temp", DAXO_ValueUnit_SICelsius);
  DAXO_AddStringMetricValue(values, "first", "m0");
  char m1[] = "m1";
  char* ids[] = {m1};
  const std::function<DAXO_Error()> adds[] = {
      [&] { return DAXO_AddStandardMetricSchema(schemas, "b", "x", DAXO_ValueUnit_SIVolt); },
      [&] { return DAXO_AddCustomMetricSchema(schemas, "c", "y", DAXO_ValueType_Bool, "n"); },
      [&] { return DAXO_AddMetricUpdateSchema(schemas, "m9", "z", "n"); },
      [&] { return DAXO_AddIntegerMetricValue(values, 7, "m1"); },
      [&] { return DAXO_AddDoubleMetricValue(values, 0.5, "m2"); },
      [&] { return DAXO_AddBoolMetricValue(values, 1, "m3"); },
      [&] { return DAXO_AddStringMetricValue(values, "text", "m4"); },
  };
  for (const auto& add : adds) {
    std::string schemasBefore = SchemaBody(), valuesBefore = ValuesBody();
    alloc_failure::ForEachAllocationFailure(add, [&](DAXO_Error err, long n, bool) {
      SCOPED_TRACE(n);
      if (err == DAXO_Error_Success) return;
      EXPECT_TRUE(err == DAXO_Error_NoMemory || err == DAXO_Error_ComposeJson) << err;
      EXPECT_EQ(SchemaBody(), schemasBefore);
      EXPECT_EQ(ValuesBody(), valuesBefore);
    });
  }
  const std::function<DAXO_Error()> requests[] = {
      [&] { return DAXO_CreateMetrics(client, "s1", schemas); },
      [&] { return DAXO_DeleteMetrics(client, "s1", ids, 1); },
      [&] { return DAXO_PushMetricValues(client, "s1", values); },
      [&] { return DAXO_ReportMetricError(client, "s1", "m1", 4, "x"); },
  };
  for (const auto& request : requests) {
    alloc_failure::ForEachAllocationFailure(
        [&] {
          fake->publishes.clear();
          return request();
        },
        [&](DAXO_Error err, long n, bool) {
          SCOPED_TRACE(n);
          if (err == DAXO_Error_Success) {
            EXPECT_EQ(fake->publishes.size(), 1u);
            return;
          }
          EXPECT_TRUE(err == DAXO_Error_NoMemory || err == DAXO_Error_ComposeJson) << err;
          EXPECT_TRUE(fake->publishes.empty());
        });
  }
}

}  // namespace
