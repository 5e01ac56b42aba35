#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "daxo_internal.h"
#include "record_summary.h"

namespace {

const char kFailed[] = "<failed>";

// A parser and destroyer, as the summary of the record returned.
using Parser = std::string (*)(const char* message);

template <class T, T* (*Parse)(const char*) noexcept, void (*Destroy)(T*) noexcept>
std::string Parsed(const char* message) {
  T* record = Parse(message);
  std::string out = record != nullptr ? Sum(*record) : kFailed;
  Destroy(record);
  return out;
}
DAXO_CreatedMetrics* CreatedForS1(const char* message) noexcept {
  return CreateCreatedMetrics(message, "s1");
}

const Parser sensor =
    Parsed<DAXO_SensorMetadata, CreateSensorMetadataEx, DAXO_DestroySensorMetadata>;
const Parser list = Parsed<DAXO_SensorsInfo, CreateSensorsInfo, DAXO_DestroySensorsInfo>;
const Parser created = Parsed<DAXO_CreatedMetrics, CreatedForS1, DAXO_DestroyCreatedMetrics>;
const Parser metric = Parsed<DAXO_MetricMetadata, CreateMetricMetadata, DAXO_DestroyMetricMetadata>;

struct Case {
  Parser run;
  std::string payload, expected;
};

const std::string head = R"({"name":"n","sensorId":"s",)";
const std::string plugin = head + R"("pluginName":"p","pluginDownloadUrl":"u",)";
const std::string noMetrics = R"("metrics":[]})";
const std::string id = R"({"metricId":"m",)";
const std::string custom = id + R"("valueType":"double","valueAnnotation":"dC",)";
const std::string tail = R"("lastUpdated":17,"value":"21","name":"temp"})";
const Case kCases[] = {
    {sensor, head + noMetrics, "n s f0 t0 -@- - {} []"},
    {sensor, head + R"("frequency":30,"monitoringService":"cpu","x":[1],
       "metrics":[{"metricId":"m1"},{"metricId":"m2"}]})",
     "n s f30 t1 -@- cpu {} [m1;m2;]"},
    // Unnamed, empty and null parameters are skipped; a plug-in has no service.
    {sensor,
     plugin + R"("pluginParams":{"a":"1","":"2","b":"","c":null,"d":5,"e":true},
       "monitoringService":"cpu",)" +
         noMetrics,
     "n s f0 t2 p@u - {a=1;d=5;e=true;} []"},
    {sensor, R"({"name":7,"sensorId":8.5,"metrics":[{"metricId":9}]})",
     "7 8.5 f0 t0 -@- - {} [9;]"},
    {sensor, head + R"("frequency":null,)" + noMetrics, "n s f0 t0 -@- - {} []"},
    {sensor, head + R"("frequency":"99999999999999999999",)" + noMetrics, kFailed},
    {sensor, R"({"name":null,"sensorId":"s","metrics":[]})", kFailed},
    {sensor, head + R"("monitoringService":"cpu"})", kFailed},
    {sensor, head + R"("metrics":["m1"]})", kFailed},
    {sensor, head + R"("metrics":[{"metricId":"m1"},{"id":"m2"}]})", kFailed},
    {sensor, head + R"("pluginName":"p",)" + noMetrics, kFailed},
    {sensor, plugin + R"("pluginParams":[{"a":"1"}],)" + noMetrics, kFailed},
    {sensor, plugin + R"("pluginParams":null,)" + noMetrics, kFailed},
    {sensor, "[" + head + noMetrics + "]", kFailed},
    {sensor, head, kFailed},
    {list, "[]", ""},
    {list,
     "[" + head + noMetrics + "," + plugin +
         R"("pluginParams":{"k":"v"},"metrics":[{"metricId":"m"}]}])",
     "(n s f0 t0 -@- - {} [])(n s f0 t2 p@u - {k=v;} [m;])"},
    {list, "[" + head + noMetrics + "," + plugin + R"("metrics":[{"metricId":"m"},{}]}])", kFailed},
    {list, "[" + head + noMetrics + ",null]", kFailed},
    {list, head + noMetrics, kFailed},
    {sensor, head + R"("metrics":{"metricId":"m"}})", kFailed},
    {created, "[]", "s1:"},
    {created, R"([{"metricId":"m1","matchingId":"a"},{"matchingId":2,"metricId":1}])",
     "s1: m1<-a 1<-2"},
    {created, R"([{"metricId":"m1","matchingId":"a"},{"metricId":"m2"}])", kFailed},
    {created, R"([{"metricId":"m1","matchingId":"a"},null])", kFailed},
    {metric, id + R"("valueUnit":"SI.Temperature.CELSIUS",)" + tail, "m u4 t0 - @17 21 temp"},
    {metric, id + R"("valueUnit":"SI.Force.NEWTON","valueType":"double",)" + tail,
     "m u13 t0 - @17 21 temp"},
    {metric, custom + tail, "m u0 t2 dC @17 21 temp"},
    {metric, custom + R"("lastUpdated":9007199254740993,"value":21.5,"name":"n"})",
     "m u0 t2 dC @9007199254740993 21.5 n"},
    {metric, custom + R"("lastUpdated":null,"value":"1","name":"n"})", "m u0 t2 dC @0 1 n"},
    {metric, id + R"("valueUnit":"No_Unit","valueType":"double","valueAnnotation":"x",)" + tail,
     kFailed},
    {metric, id + R"("valueUnit":"SI.Area.SQUARE_METER",)" + tail, kFailed},
    {metric, id + R"("valueType":"bool",)" + tail, kFailed},
    {metric, custom + R"("value":"1","name":"n"})", kFailed},
    {metric, custom + R"("lastUpdated":"99999999999999999999","value":"1","name":"n"})", kFailed},
};

// The leak check sees what a failed parse leaves behind.
TEST(RecordParse, ReadsWellFormedRepliesAndRefusesTheRest) {
  for (const Case& c : kCases) EXPECT_EQ(c.run(c.payload.c_str()), c.expected) << c.payload;
  for (Parser run : {sensor, list, created, metric}) EXPECT_EQ(run(nullptr), kFailed);
}

TEST(ValueVocabulary, EveryNumberRoundTripsThroughItsTextAndNothingElseDoes) {
  for (int u = DAXO_ValueUnit_NoUnit; u <= DAXO_ValueUnit_NoSIPercent; ++u)
    EXPECT_EQ(GetValueUnitFromStr(GetValueUnitStr(DAXO_ValueUnit(u))), u) << u;
  for (int t = DAXO_ValueType_NoType; t <= DAXO_ValueType_String; ++t)
    EXPECT_EQ(GetValueTypeFromStr(GetValueTypeStr(DAXO_ValueType(t))), t) << t;
  for (int n : {-1, 23, INT_MAX, INT_MIN}) EXPECT_EQ(GetValueUnitStr(DAXO_ValueUnit(n)), nullptr);
  for (int n : {-1, 5, INT_MAX, INT_MIN}) EXPECT_EQ(GetValueTypeStr(DAXO_ValueType(n)), nullptr);
  // Where the agent's spelling departs from the enumerators' names.
  EXPECT_STREQ(GetValueUnitStr(DAXO_ValueUnit_SINewtone), "SI.Force.NEWTON");
  EXPECT_STREQ(GetValueUnitStr(DAXO_ValueUnit_SISquareMeter), "SI.Area.SQUARE_METRE");
  EXPECT_STREQ(GetValueTypeStr(DAXO_ValueType_NoType), "Non");
  // Texts match exactly, and the no-unit and no-type words name nothing.
  for (const char* text : {"", "si.force.newton", "SI.Force.NEWTON ", "SI.Force", "Integer",
                           "integer ", "No_Unit", "Non", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(GetValueUnitFromStr(text), DAXO_ValueUnit_NoUnit);
    EXPECT_EQ(GetValueTypeFromStr(text), DAXO_ValueType_NoType);
  }
}

}  // namespace
