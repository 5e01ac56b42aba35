#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>

#include "alloc_failure.h"
#include "daxo_internal.h"

namespace {

const char kFailed[] = "<failed>";

std::string Str(const char* s) { return s != nullptr ? s : "-"; }

// An array whose count and pointer disagree is marked, since the
// destroyers trust the count.
template <class T>
std::string Consistency(const T* items, int count) {
  return (count == 0) == (items == nullptr) ? "" : "!";
}

const char* TypeName(DAXO_SensorType type) {
  switch (type) {
    case DAXO_SensorType_None:
      return "None";
    case DAXO_SensorType_Standard:
      return "Standard";
    case DAXO_SensorType_Plugin:
      return "Plugin";
  }
  return "?";
}

// Every field of the record in one line; optional fields appear only when
// set, so an unexpected one shows up as a difference.
std::string Summary(const DAXO_SensorMetadata& s) {
  std::ostringstream out;
  out << Str(s.name) << " " << Str(s.sensorId) << " f=" << s.frequency << " "
      << TypeName(s.sensorType);
  if (s.pluginName != nullptr || s.pluginDownloadUrl != nullptr)
    out << " plugin=" << Str(s.pluginName) << "@" << Str(s.pluginDownloadUrl);
  if (s.pluginParametersCount != 0 || s.pluginParameters != nullptr) {
    out << " params=" << Consistency(s.pluginParameters, s.pluginParametersCount) << "[";
    for (int i = 0; i < s.pluginParametersCount; ++i)
      out << (i ? " " : "") << Str(s.pluginParameters[i].parameterName) << "="
          << Str(s.pluginParameters[i].parameterValue);
    out << "]";
  }
  if (s.monitoringService != nullptr) out << " service=" << s.monitoringService;
  out << " metrics=" << Consistency(s.metrics, s.metricsCount) << "[";
  for (int i = 0; i < s.metricsCount; ++i) out << (i ? " " : "") << Str(s.metrics[i].metricId);
  return out.str() + "]";
}

std::string Summary(const DAXO_SensorMetadata* s) { return s ? Summary(*s) : kFailed; }

std::string Summary(const DAXO_SensorsInfo* list) {
  if (list == nullptr) return kFailed;
  std::string out = Consistency(list->sensors, list->sensorsCount);
  for (int i = 0; i < list->sensorsCount; ++i) out += (i ? "; " : "") + Summary(list->sensors[i]);
  return out;
}

std::string Summary(const DAXO_CreatedMetrics* c) {
  if (c == nullptr) return kFailed;
  std::string out = Str(c->sensorId) + ":" + Consistency(c->metrics, c->metricsCount);
  for (int i = 0; i < c->metricsCount; ++i)
    out += " " + Str(c->metrics[i].metricId) + "<-" + Str(c->metrics[i].matchingId);
  return out;
}

std::string Summary(const DAXO_MetricMetadata* m) {
  if (m == nullptr) return kFailed;
  std::ostringstream out;
  out << Str(m->id) << " unit=" << m->valueUnit << " type=" << m->valueType
      << " ann=" << Str(m->valueAnnotation) << " t=" << m->lastUpdated << " value=" << Str(m->value)
      << " name=" << Str(m->name);
  return out.str();
}

// The create-sensor reply as a record, so that it fits the loop below.
struct SensorIds {
  char* name;
  char* id;
};

SensorIds writtenOnFailure;  // what ParseIds returns if a failure wrote the outputs

// Allocates nothing before the parser, whose tokeniser must come first.
SensorIds* ParseIds(const char* message) noexcept {
  static char untouched;
  SensorIds found{&untouched, &untouched};
  if (ParseSensorId(message, &found.name, &found.id) == 0)
    return found.name == &untouched && found.id == &untouched ? nullptr : &writtenOnFailure;
  auto* ids = static_cast<SensorIds*>(malloc(sizeof(SensorIds)));
  if (ids == nullptr) {
    free(found.name);
    free(found.id);
    return nullptr;
  }
  *ids = found;
  return ids;
}

void DestroyIds(SensorIds* ids) noexcept {
  if (ids == nullptr || ids == &writtenOnFailure) return;
  free(ids->name);
  free(ids->id);
  free(ids);
}

std::string Summary(const SensorIds* ids) {
  if (ids == &writtenOnFailure) return "outputs written on failure";
  return ids != nullptr ? Str(ids->name) + " " + Str(ids->id) : kFailed;
}

DAXO_CreatedMetrics* CreateForS1(const char* message) noexcept {
  return CreateCreatedMetrics(message, "s1");
}

struct Case {
  const char* name;
  std::string payload;
  std::string expected;
};

template <class T, size_t N>
void ExpectParses(const Case (&cases)[N], T* (*parse)(const char*) noexcept,
                  void (*destroy)(T*) noexcept) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    T* record = parse(c.payload.c_str());
    EXPECT_EQ(Summary(record), c.expected);
    destroy(record);
  }
}

TEST(SensorRecordParse, ReadsOneDescription) {
  const std::string n = R"({"name":"n","sensorId":"s",)";
  const std::string p = n + R"("pluginName":"p","pluginDownloadUrl":"u",)";
  const std::string none = R"("metrics":[]})";
  const Case cases[] = {
      {"minimal", n + none, "n s f=0 None metrics=[]"},
      {"standard", n + R"("frequency":30,"monitoringService":"cpu","other":[1],
        "metrics":[{"metricId":"m1"},{"metricId":"m2"}]})",
       "n s f=30 Standard service=cpu metrics=[m1 m2]"},
      {"plug-in", p + none, "n s f=0 Plugin plugin=p@u metrics=[]"},
      {"parameters in order, unnamed, empty and null ones skipped",
       p + R"("pluginParams":{"a":"1","":"2","b":"","c":null,"d":5,"e":true},)" + none,
       "n s f=0 Plugin plugin=p@u params=[a=1 d=5 e=true] metrics=[]"},
      {"plug-in ignores a service", p + R"("monitoringService":"cpu",)" + none,
       "n s f=0 Plugin plugin=p@u metrics=[]"},
      {"plug-in does not read a service", p + R"("monitoringService":null,)" + none,
       "n s f=0 Plugin plugin=p@u metrics=[]"},
      {"texts given as numbers", R"({"name":7,"sensorId":8.5,"metrics":[{"metricId":9}]})",
       "7 8.5 f=0 None metrics=[9]"},
      {"frequency null", n + R"("frequency":null,)" + none, "n s f=0 None metrics=[]"},
      {"frequency out of range", n + R"("frequency":"99999999999999999999",)" + none, kFailed},
      {"null name", R"({"name":null,"sensorId":"s","metrics":[]})", kFailed},
      {"no sensor id", R"({"name":"n","metrics":[]})", kFailed},
      {"no metrics", n + R"("monitoringService":"cpu"})", kFailed},
      {"metrics an object", n + R"("metrics":{"metricId":"m"}})", kFailed},
      {"metrics a text", n + R"("metrics":"m1"})", kFailed},
      {"metric not an object", n + R"("metrics":["m1"]})", kFailed},
      {"second metric without id", n + R"("metrics":[{"metricId":"m1"},{"id":"m2"}]})", kFailed},
      {"plug-in name null", n + R"("pluginName":null,"pluginDownloadUrl":"u",)" + none, kFailed},
      {"plug-in without url", n + R"("pluginName":"p",)" + none, kFailed},
      {"parameters an array", p + R"("pluginParams":[{"a":"1"}],)" + none, kFailed},
      {"parameters null", p + R"("pluginParams":null,)" + none, kFailed},
      {"service null", n + R"("monitoringService":null,)" + none, kFailed},
      {"an array", "[" + n + none + "]", kFailed},
      {"not JSON", n, kFailed},
  };
  ExpectParses(cases, CreateSensorMetadataEx, DAXO_DestroySensorMetadata);
}

// A list releases the record that failed as well as the ones before it.
TEST(SensorRecordParse, FailureLeavesTheCallersRecordEmpty) {
  json_object* bad = json_tokener_parse(
      R"({"name":"n","sensorId":"s","pluginName":"p","pluginDownloadUrl":"u",
          "pluginParams":{"a":"1"},"metrics":[{"metricId":"m1"},{}]})");
  ASSERT_NE(bad, nullptr);
  DAXO_SensorMetadata record;
  memset(&record, 0xA5, sizeof record);
  EXPECT_EQ(CreateSensorMetadata(bad, &record), 0);
  const DAXO_SensorMetadata zero{};
  EXPECT_EQ(memcmp(&record, &zero, sizeof record), 0);
  json_object_put(bad);
}

TEST(SensorRecordParse, ReadsAListWhole) {
  const std::string a = R"({"name":"a","sensorId":"1","metrics":[]})";
  const std::string b = R"({"name":"b","sensorId":"2","pluginName":"p","pluginDownloadUrl":"u",
                            "pluginParams":{"k":"v"},"metrics":[{"metricId":"m"}]})";
  const std::string bad = R"({"name":"c","metrics":[]})";
  const Case cases[] = {
      {"empty", "[]", ""},
      {"two in order", "[" + a + "," + b + "]",
       "a 1 f=0 None metrics=[]; b 2 f=0 Plugin plugin=p@u params=[k=v] metrics=[m]"},
      {"third invalid", "[" + a + "," + b + "," + bad + "]", kFailed},
      {"null element", "[" + a + ",null]", kFailed},
      {"an object", a, kFailed},
  };
  ExpectParses(cases, CreateSensorsInfo, DAXO_DestroySensorsInfo);
}

TEST(SensorRecordParse, ReadsTheCreateSensorReply) {
  const Case cases[] = {
      {"texts", R"({"name":"kitchen","sensorId":"s-1","extra":1})", "kitchen s-1"},
      {"numbers", R"({"name":7,"sensorId":8})", "7 8"},
      {"null sensor id", R"({"name":"kitchen","sensorId":null})", kFailed},
      {"an array", R"(["kitchen","s-1"])", kFailed},
      {"not JSON", "kitchen", kFailed},
  };
  ExpectParses(cases, ParseIds, DestroyIds);
}

TEST(MetricRecordParse, ReadsTheCreateMetricsReply) {
  const Case cases[] = {
      {"empty", "[]", "s1:"},
      {"in order", R"([{"metricId":"m1","matchingId":"a"},{"matchingId":2,"metricId":1}])",
       "s1: m1<-a 1<-2"},
      {"second without matching id", R"([{"metricId":"m1","matchingId":"a"},{"metricId":"m2"}])",
       kFailed},
      {"null element", R"([{"metricId":"m1","matchingId":"a"},null])", kFailed},
      {"an object", R"({"metricId":"m1","matchingId":"a"})", kFailed},
  };
  ExpectParses(cases, CreateForS1, DAXO_DestroyCreatedMetrics);
}

TEST(MetricRecordParse, ReadsTheDescribeMetricReply) {
  const std::string id = R"({"metricId":"m",)";
  const std::string typed = R"("valueType":"double","valueAnnotation":"dC",)";
  const std::string custom = id + typed;
  const std::string tail = R"("lastUpdated":17,"value":"21","name":"temp"})";
  const Case cases[] = {
      {"standard", id + R"("valueUnit":"SI.Temperature.CELSIUS",)" + tail,
       "m unit=4 type=0 ann=- t=17 value=21 name=temp"},
      {"unit decides over a type", id + R"("valueUnit":"SI.Force.NEWTON",)" + typed + tail,
       "m unit=13 type=0 ann=- t=17 value=21 name=temp"},
      {"custom", custom + tail, "m unit=0 type=2 ann=dC t=17 value=21 name=temp"},
      {"no-unit word", id + R"("valueUnit":"No_Unit",)" + typed + tail, kFailed},
      {"unknown unit", id + R"("valueUnit":"SI.Area.SQUARE_METER",)" + tail, kFailed},
      {"null unit", id + R"("valueUnit":null,)" + typed + tail, kFailed},
      {"no-type word", id + R"("valueType":"Non","valueAnnotation":"x",)" + tail, kFailed},
      {"type without annotation", id + R"("valueType":"bool",)" + tail, kFailed},
      {"timestamp beyond 2^53",
       custom + R"("lastUpdated":9007199254740993,"value":"1","name":"n"})",
       "m unit=0 type=2 ann=dC t=9007199254740993 value=1 name=n"},
      {"null timestamp", custom + R"("lastUpdated":null,"value":"1","name":"n"})",
       "m unit=0 type=2 ann=dC t=0 value=1 name=n"},
      {"no timestamp", custom + R"("value":"1","name":"n"})", kFailed},
      {"timestamp out of range",
       custom + R"("lastUpdated":"99999999999999999999","value":"1","name":"n"})", kFailed},
      {"value as a number", custom + R"("lastUpdated":5,"value":21.5,"name":"n"})",
       "m unit=0 type=2 ann=dC t=5 value=21.5 name=n"},
      {"null name", custom + R"("lastUpdated":5,"value":"1","name":null})", kFailed},
      {"an array", "[" + custom + tail + "]", kFailed},
  };
  ExpectParses(cases, CreateMetricMetadata, DAXO_DestroyMetricMetadata);
}

TEST(RecordParse, RefusesNullArgumentsAndDestroyersAcceptNull) {
  char* out = nullptr;
  DAXO_SensorMetadata record{};
  EXPECT_EQ(CreateSensorMetadataEx(nullptr), nullptr);
  EXPECT_EQ(CreateSensorsInfo(nullptr), nullptr);
  EXPECT_EQ(ParseSensorId(R"({"name":"n","sensorId":"s"})", nullptr, &out), 0);
  EXPECT_EQ(CreateSensorMetadata(nullptr, &record), 0);
  EXPECT_EQ(CreateCreatedMetrics("[]", nullptr), nullptr);
  EXPECT_EQ(CreateMetricMetadata(nullptr), nullptr);
  DAXO_DestroySensorMetadata(nullptr);
  DAXO_DestroySensorsInfo(nullptr);
  DAXO_DestroyCreatedMetrics(nullptr);
  DAXO_DestroyMetricMetadata(nullptr);
  DestroySensorMetadata(nullptr);
}

// json-c's tokeniser does not survive allocation failures: it crashes when
// a member name cannot be copied and drops members without reporting an
// error. Failures are therefore injected from the first allocation after
// the payload is tokenised. The tokeniser's allocations are counted in
// child processes, where a crash costs nothing: failing allocation n fires
// exactly when the tokeniser makes more than n allocations.
long TokeniserAllocations(const char* message) {
  auto fires = [message](long n) {
    pid_t pid = fork();
    if (pid == 0) {
      alloc_failure::Scope scope(n);
      json_tokener_parse(message);
      _exit(scope.Fired() ? 1 : 0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return !WIFEXITED(status) || WEXITSTATUS(status) != 0;
  };
  long low = 0, high = 1;
  while (fires(high)) high *= 2;
  while (low < high) {
    long mid = (low + high) / 2;
    if (fires(mid))
      low = mid + 1;
    else
      high = mid;
  }
  return low;
}

// Each failure of the library's own allocations, and of json-c's in reading
// the document, must fail the parse; the sanitizer's leak check at exit
// sees anything left behind. Assertions run only once the scope is gone.
template <class T>
void ExpectCleanFailures(const char* message, T* (*parse)(const char*) noexcept,
                         void (*destroy)(T*) noexcept, const std::string& complete) {
  SCOPED_TRACE(message);
  const long first = TokeniserAllocations(message);
  for (long n = first;; ++n) {
    bool fired = false;
    T* result = [&] {
      alloc_failure::Scope scope(n);
      T* r = parse(message);
      fired = scope.Fired();
      return r;
    }();
    SCOPED_TRACE("allocation " + std::to_string(n) + ", the first after the tokeniser's " +
                 std::to_string(first));
    EXPECT_EQ(Summary(result), fired ? kFailed : complete);
    destroy(result);
    if (!fired) {
      EXPECT_GT(n, first);  // the library allocated, so failures were injected
      return;
    }
  }
}

TEST(RecordParseAllocationFailure, EveryParserFailsCleanly) {
  ExpectCleanFailures(R"([{"name":"a","sensorId":1,"frequency":30,"monitoringService":"cpu",
                           "metrics":[{"metricId":"m1"},{"metricId":2}]},
                          {"name":"b","sensorId":"2","pluginName":"p","pluginDownloadUrl":"u",
                           "pluginParams":{"x":"1","y":2,"z":"3"},"metrics":[{"metricId":"m3"}]},
                          {"name":"c","sensorId":"3","metrics":[]}])",
                      CreateSensorsInfo, DAXO_DestroySensorsInfo,
                      "a 1 f=30 Standard service=cpu metrics=[m1 2]; "
                      "b 2 f=0 Plugin plugin=p@u params=[x=1 y=2 z=3] metrics=[m3]; "
                      "c 3 f=0 None metrics=[]");
  ExpectCleanFailures(R"({"name":"b","sensorId":"2","pluginName":"p","pluginDownloadUrl":"u",
                          "pluginParams":{"x":"1","y":2},
                          "metrics":[{"metricId":"m3"},{"metricId":"m4"}]})",
                      CreateSensorMetadataEx, DAXO_DestroySensorMetadata,
                      "b 2 f=0 Plugin plugin=p@u params=[x=1 y=2] metrics=[m3 m4]");
  ExpectCleanFailures(R"({"name":"kitchen","sensorId":42})", ParseIds, DestroyIds, "kitchen 42");
  ExpectCleanFailures(R"([{"metricId":"m1","matchingId":"a"},{"metricId":2,"matchingId":"b"}])",
                      CreateForS1, DAXO_DestroyCreatedMetrics, "s1: m1<-a 2<-b");
  ExpectCleanFailures(R"({"metricId":"m","valueType":"double","valueAnnotation":"dC",
                          "lastUpdated":7,"value":21.5,"name":"temp"})",
                      CreateMetricMetadata, DAXO_DestroyMetricMetadata,
                      "m unit=0 type=2 ann=dC t=7 value=21.5 name=temp");
  ExpectCleanFailures(R"({"metricId":"m","valueUnit":"SI.Power.WATT","lastUpdated":7,
                          "value":"3","name":"temp"})",
                      CreateMetricMetadata, DAXO_DestroyMetricMetadata,
                      "m unit=20 type=0 ann=- t=7 value=3 name=temp");
}

}  // namespace
