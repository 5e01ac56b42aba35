// Metrics end to end: definitions, value pushes, descriptions, changes,
// deletions and error reports through the library, answered by the
// development agent over the real broker.
#include <chrono>
#include <functional>
#include <map>
#include <memory>

#include "agent_probe.h"
#include "library_client.h"

namespace daxo_test {
namespace {

struct SchemasDeleter {
  void operator()(DAXO_MetricSchemaContainer* c) const { DAXO_DestroyMetricSchemaContainer(c); }
};
struct ValuesDeleter {
  void operator()(DAXO_MetricValueContainer* c) const { DAXO_DestroyMetricValueContainer(c); }
};
using Schemas = std::unique_ptr<DAXO_MetricSchemaContainer, SchemasDeleter>;
using Values = std::unique_ptr<DAXO_MetricValueContainer, ValuesDeleter>;

using AddValue = std::function<DAXO_Error(DAXO_MetricValueContainer*, const char* metricId)>;

AddValue Integer(int64_t v) {
  return [v](auto* c, const char* id) { return DAXO_AddIntegerMetricValue(c, v, id); };
}
AddValue Double(double v) {
  return [v](auto* c, const char* id) { return DAXO_AddDoubleMetricValue(c, v, id); };
}
AddValue Bool(int v) {
  return [v](auto* c, const char* id) { return DAXO_AddBoolMetricValue(c, v, id); };
}
AddValue String(std::string v) {
  return [v](auto* c, const char* id) { return DAXO_AddStringMetricValue(c, v.c_str(), id); };
}

int64_t NowMillis() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

class LibraryMetricsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { DAXO_LibInit(); }
  static void TearDownTestSuite() { DAXO_LibCleanup(); }

  // A sensor with one metric of each kind, known by their matching ids.
  void SetUp() override {
    ASSERT_TRUE(c.ProvisionAndConnect());
    ASSERT_EQ(DAXO_CreateSensor(c.Get(), "boiler"), DAXO_Error_Success);
    auto created = c.NextEvent("createSensor");
    ASSERT_TRUE(created);
    sensor = created->text.substr(created->text.find('|') + 1);

    Schemas schemas(DAXO_CreateMetricSchemaContainer());
    DAXO_AddStandardMetricSchema(schemas.get(), "t", "temperature", DAXO_ValueUnit_SICelsius);
    DAXO_AddCustomMetricSchema(schemas.get(), "i", "starts", DAXO_ValueType_Integer, "count");
    DAXO_AddCustomMetricSchema(schemas.get(), "d", "load", DAXO_ValueType_Double, "share");
    DAXO_AddCustomMetricSchema(schemas.get(), "b", "flame", DAXO_ValueType_Bool, "burning");
    DAXO_AddCustomMetricSchema(schemas.get(), "s", "mode", DAXO_ValueType_String, "heat or idle");
    ASSERT_EQ(DAXO_CreateMetrics(c.Get(), sensor.c_str(), schemas.get()), DAXO_Error_Success);
    auto metrics = c.NextEvent("createMetrics");
    ASSERT_TRUE(metrics);
    ASSERT_EQ(metrics->code, DAXO_ApiError_NoError);
    // "sensor|t=m-...|i=m-...|...", in the order of the request.
    std::string expected = sensor;
    for (const char* matching : {"t", "i", "d", "b", "s"}) {
      std::size_t at = metrics->text.find(std::string("|") + matching + "=");
      ASSERT_NE(at, std::string::npos) << metrics->text;
      ids[matching] = metrics->text.substr(at + 3, metrics->text.find('|', at + 1) - at - 3);
      expected += std::string("|") + matching + "=" + ids[matching];
    }
    ASSERT_EQ(metrics->text, expected);
  }

  // The summary of the reply of that name, after checking its code.
  std::string Reply(const std::string& name, int code) {
    auto reply = c.NextEvent(name);
    if (!reply) return "no " + name + " reply";
    EXPECT_EQ(reply->code, code) << name << " " << reply->text;
    return reply->text;
  }

  DAXO_Error Push(const std::string& sensorId,
                  const std::vector<std::pair<std::string, AddValue>>& values,
                  std::optional<uint64_t> timestamp = std::nullopt) {
    Values container(DAXO_CreateMetricValueContainer());
    for (const auto& [metricId, add] : values)
      EXPECT_EQ(add(container.get(), metricId.c_str()), DAXO_Error_Success);
    if (timestamp) DAXO_AddEpochTimeStamp(container.get(), *timestamp);
    return DAXO_PushMetricValues(c.Get(), sensorId.c_str(), container.get());
  }

  // "id|name|unit U|value|lastUpdated" or "id|name|type T annotation|...".
  std::string Describe(const std::string& metricId) {
    EXPECT_EQ(DAXO_DescribeMetric(c.Get(), sensor.c_str(), metricId.c_str()), DAXO_Error_Success);
    std::string text = Reply("describeMetric", DAXO_ApiError_NoError);
    EXPECT_EQ(text.rfind(sensor + "|", 0), 0u) << text;
    return text.substr(sensor.size() + 1);
  }

  TestEnvironment env;
  LibraryClient c{env};
  std::string sensor;
  std::map<std::string, std::string> ids;  // by matching id
};

TEST_F(LibraryMetricsTest, DefinedMetricsAreListedAndDescribedWithoutValues) {
  ASSERT_EQ(DAXO_ListSensors(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(Reply("listSensors", DAXO_ApiError_NoError), "boiler|" + sensor + "|" + ids["t"] + "|" +
                                                             ids["i"] + "|" + ids["d"] + "|" +
                                                             ids["b"] + "|" + ids["s"]);

  struct Case {
    const char* matching;
    std::string description;  // without the id
  } cases[] = {
      {"t", "temperature|unit 4||0"},       {"i", "starts|type 1 count||0"},
      {"d", "load|type 2 share||0"},        {"b", "flame|type 3 burning||0"},
      {"s", "mode|type 4 heat or idle||0"},
  };
  for (const Case& m : cases) {
    SCOPED_TRACE(m.matching);
    EXPECT_EQ(Describe(ids[m.matching]), ids[m.matching] + "|" + m.description);
  }
}

TEST_F(LibraryMetricsTest, PushedValuesOfEveryTypeAreDescribedWithTheirTime) {
  struct Case {
    const char* matching;
    AddValue add;
    std::optional<uint64_t> timestamp;
    std::string value;
  } cases[] = {
      {"i", Integer(9007199254740993), 1700000000123, "9007199254740993"},
      {"i", Integer(-42), std::nullopt, "-42"},
      {"d", Double(21.5), 1700000000456, "21.5"},
      {"d", Double(-0.25), std::nullopt, "-0.25"},
      {"b", Bool(7), 1, "true"},
      {"b", Bool(0), std::nullopt, "false"},
      {"s", String("on \"high\" | 2"), 1700000000789, "on \"high\" | 2"},
      {"s", String(""), std::nullopt, ""},
      {"t", Double(19.75), std::nullopt, "19.75"},
      {"t", Integer(20), 1700000000999, "20"},
  };
  for (const Case& v : cases) {
    std::string metricId = ids[v.matching];
    SCOPED_TRACE(std::string(v.matching) + " " + v.value);
    int64_t before = NowMillis();
    ASSERT_EQ(Push(sensor, {{metricId, v.add}}, v.timestamp), DAXO_Error_Success);
    EXPECT_EQ(Reply("pushMetricValues", DAXO_ApiError_NoError), sensor);
    std::string description = Describe(metricId);
    std::size_t stamp = description.rfind('|');
    EXPECT_TRUE(description.substr(0, stamp).ends_with("|" + v.value)) << description;
    int64_t lastUpdated = std::stoll(description.substr(stamp + 1));
    if (v.timestamp) {
      EXPECT_EQ(lastUpdated, static_cast<int64_t>(*v.timestamp));
    } else {
      EXPECT_GE(lastUpdated, before);
      EXPECT_LE(lastUpdated, NowMillis());
    }
  }
}

TEST_F(LibraryMetricsTest, MetricsAreRenamedReannotatedAndDeleted) {
  Schemas update(DAXO_CreateMetricSchemaContainer());
  DAXO_AddMetricUpdateSchema(update.get(), ids["t"].c_str(), "flow temperature", nullptr);
  DAXO_AddMetricUpdateSchema(update.get(), ids["s"].c_str(), nullptr, "heat, idle or off");
  ASSERT_EQ(DAXO_UpdateMetrics(c.Get(), sensor.c_str(), update.get()), DAXO_Error_Success);
  EXPECT_EQ(Reply("updateMetrics", DAXO_ApiError_NoError), sensor);
  EXPECT_EQ(Describe(ids["t"]), ids["t"] + "|flow temperature|unit 4||0");
  EXPECT_EQ(Describe(ids["s"]), ids["s"] + "|mode|type 4 heat, idle or off||0");
  ASSERT_EQ(DAXO_UpdateMetrics(c.Get(), sensor.c_str(), update.get()), DAXO_Error_Success);
  EXPECT_EQ(Reply("updateMetrics", DAXO_ApiError_NoMetricsUpdated), sensor);

  std::vector<char*> doomed = {ids["t"].data(), ids["s"].data()};
  ASSERT_EQ(DAXO_DeleteMetrics(c.Get(), sensor.c_str(), doomed.data(), 2), DAXO_Error_Success);
  EXPECT_EQ(Reply("deleteMetrics", DAXO_ApiError_NoError), sensor);
  ASSERT_EQ(DAXO_DescribeMetric(c.Get(), sensor.c_str(), ids["t"].c_str()), DAXO_Error_Success);
  EXPECT_EQ(Reply("describeMetric", DAXO_ApiError_UnknownMetricId), sensor);
  ASSERT_EQ(DAXO_ListSensors(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(Reply("listSensors", DAXO_ApiError_NoError),
            "boiler|" + sensor + "|" + ids["i"] + "|" + ids["d"] + "|" + ids["b"]);
  ASSERT_EQ(DAXO_DeleteMetrics(c.Get(), sensor.c_str(), doomed.data(), 1), DAXO_Error_Success);
  EXPECT_EQ(Reply("deleteMetrics", DAXO_ApiError_UnknownMetricId), sensor);
}

TEST_F(LibraryMetricsTest, TheAgentsRefusalsReachTheMetricCallbacks) {
  auto push = [this](std::string sensorId, std::vector<std::pair<std::string, AddValue>> values) {
    return [=, this] { return Push(sensorId, values); };
  };
  auto schemas = [this](std::string sensorId, std::function<void(DAXO_MetricSchemaContainer*)> fill,
                        bool update) {
    return [=, this] {
      Schemas container(DAXO_CreateMetricSchemaContainer());
      fill(container.get());
      return update ? DAXO_UpdateMetrics(c.Get(), sensorId.c_str(), container.get())
                    : DAXO_CreateMetrics(c.Get(), sensorId.c_str(), container.get());
    };
  };
  auto remove = [this](std::vector<std::string> metricIds) {
    return [=, this]() mutable {
      std::vector<char*> list;
      for (std::string& id : metricIds) list.push_back(id.data());
      return DAXO_DeleteMetrics(c.Get(), sensor.c_str(), list.data(),
                                static_cast<int>(list.size()));
    };
  };
  auto standard = [](auto* c) {
    DAXO_AddStandardMetricSchema(c, "x", "extra", DAXO_ValueUnit_SIWatt);
  };
  std::string t = ids["t"], i = ids["i"], b = ids["b"], s = ids["s"];
  struct Case {
    const char* what;
    std::function<DAXO_Error()> request;
    const char* reply;
    int code;
    std::string text;
  } cases[] = {
      {"push to an unknown metric", push(sensor, {{kUnknownMetric, Integer(1)}}),
       "pushMetricValues", DAXO_ApiError_UnknownMetricId, sensor},
      {"push to an unknown sensor", push(kUnknownSensor, {{i, Integer(1)}}), "pushMetricValues",
       DAXO_ApiError_UnknownSensorId, kUnknownSensor},
      {"a fitting value with a string for an integer",
       push(sensor, {{i, Integer(5)}, {i, String("5")}}), "pushMetricValues",
       DAXO_ApiError_ParameterIsNotAnInteger, sensor},
      {"a bool for a unit", push(sensor, {{t, Bool(1)}}), "pushMetricValues",
       DAXO_ApiError_ParameterIsNotANumber, sensor},
      {"a number for a bool", push(sensor, {{b, Integer(1)}}), "pushMetricValues",
       DAXO_ApiError_ParameterIsNotABool, sensor},
      {"a number for a string", push(sensor, {{s, Double(1.5)}}), "pushMetricValues",
       DAXO_ApiError_ParameterIsNotAString, sensor},
      {"metrics for an unknown sensor", schemas(kUnknownSensor, standard, false), "createMetrics",
       DAXO_ApiError_UnknownSensorId, "null"},
      {"one matching id twice",
       schemas(
           sensor,
           [&](auto* c) {
             standard(c);
             standard(c);
           },
           false),
       "createMetrics", DAXO_ApiError_CreateMetricsFailed, "null"},
      {"renaming an unknown metric",
       schemas(
           sensor, [](auto* c) { DAXO_AddMetricUpdateSchema(c, kUnknownMetric, "x", nullptr); },
           true),
       "updateMetrics", DAXO_ApiError_UnknownMetricId, sensor},
      {"annotating a standard metric",
       schemas(
           sensor, [&](auto* c) { DAXO_AddMetricUpdateSchema(c, t.c_str(), nullptr, "x"); }, true),
       "updateMetrics", DAXO_ApiError_ChangeMetricsFailed, sensor},
      {"deleting one metric twice", remove({i, i}), "deleteMetrics",
       DAXO_ApiError_DeleteMetricsFailed, sensor},
      {"deleting an unknown metric", remove({i, kUnknownMetric}), "deleteMetrics",
       DAXO_ApiError_UnknownMetricId, sensor},
  };
  for (const Case& r : cases) {
    SCOPED_TRACE(r.what);
    ASSERT_EQ(r.request(), DAXO_Error_Success);
    EXPECT_EQ(Reply(r.reply, r.code), r.text);
  }
  // A refused request changes nothing, not even the parts that would fit.
  EXPECT_EQ(Describe(i), i + "|starts|type 1 count||0");
  ASSERT_EQ(DAXO_ListSensors(c.Get()), DAXO_Error_Success);
  EXPECT_EQ(Reply("listSensors", DAXO_ApiError_NoError),
            "boiler|" + sensor + "|" + t + "|" + i + "|" + ids["d"] + "|" + b + "|" + s);
}

TEST_F(LibraryMetricsTest, ErrorReportsOfEveryLevelAreRecordedByTheAgent) {
  int64_t before = NowMillis();
  ASSERT_EQ(DAXO_ReportClientError(c.Get(), 3, "disk full"), DAXO_Error_Success);
  ASSERT_EQ(DAXO_ReportSensorError(c.Get(), sensor.c_str(), -7, "bus \"A\" silent"),
            DAXO_Error_Success);
  ASSERT_EQ(DAXO_ReportMetricError(c.Get(), sensor.c_str(), ids["t"].c_str(), 0, ""),
            DAXO_Error_Success);
  // Reports get no answer; the agent serves one client's messages in order,
  // so they are recorded once the connection check is answered.
  ASSERT_EQ(DAXO_CheckConnection(c.Get()), DAXO_Error_Success);
  ASSERT_EQ(c.Next("check"), DAXO_ApiError_NoError);

  Json dump = Parse(env.AgentControl("dump"));
  json_object* reports = nullptr;
  json_object* clients = json_object_object_get(dump.get(), "clients");
  for (std::size_t n = 0; n < json_object_array_length(clients); ++n) {
    json_object* client = json_object_array_get_idx(clients, n);
    if (Member(client, "id") == c.Id()) reports = json_object_object_get(client, "errorReports");
  }
  ASSERT_EQ(json_object_array_length(reports), 3u) << json_object_get_string(dump.get());
  std::string expected[] = {
      R"({"errorcode":3,"errorMessage":"disk full"})",
      R"({"sensorId":"{s}","errorcode":-7,"errorMessage":"bus \"A\" silent"})",
      R"({"sensorId":"{s}","metricId":"{t}","errorcode":0,"errorMessage":""})",
  };
  for (std::size_t n = 0; n < 3; ++n) {
    json_object* report = json_object_array_get_idx(reports, n);
    int64_t receivedAt = json_object_get_int64(json_object_object_get(report, "receivedAt"));
    EXPECT_GE(receivedAt, before);
    EXPECT_LE(receivedAt, NowMillis());
    json_object_object_del(report, "receivedAt");
    EXPECT_TRUE(SameJson(json_object_get_string(report),
                         Fill(expected[n], {{"s", sensor}, {"t", ids["t"]}})));
  }
}

}  // namespace
}  // namespace daxo_test
