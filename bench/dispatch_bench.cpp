// The cost of dispatching a reply (topic check, parse, record, callback,
// release) next to json-c parsing the same payload, in one run.
#include <benchmark/benchmark.h>
#include <json-c/json.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "daxo_internal.h"
#include "summary.h"

namespace {

std::string SensorList(int sensors) {
  std::string list = "[";
  for (int i = 0; i < sensors; ++i) {
    if (i > 0) list += ",";
    list += R"({"name":"sensor )" + std::to_string(i) + R"(","sensorId":"s-)" +
            std::to_string(100000 + i) +
            R"(","frequency":60,"monitoringService":"system","metrics":[{"metricId":"m-1"},)"
            R"({"metricId":"m-2"},{"metricId":"m-3"}]})";
  }
  return list + "]";
}

const std::string kSensorList = SensorList(50);
const std::string kCreateReply = R"({"name":"kitchen","sensorId":"s-4f2a9c01"})";

// A client with an identity and callbacks that release what they get,
// without any connection: the dispatcher needs none.
struct BenchClient {
  BenchClient() {
    client = static_cast<DAXO_Client*>(calloc(1, sizeof(DAXO_Client)));
    client->clientId = strdup("client-1");
    client->OnListSensors = [](DAXO_Client*, DAXO_SensorsInfo* list, void*, DAXO_ApiError) {
      benchmark::DoNotOptimize(list->sensorsCount);
      DAXO_DestroySensorsInfo(list);
    };
    client->OnCreateSensor = [](DAXO_Client*, void*, const char* name, const char* id,
                                DAXO_ApiError) {
      benchmark::DoNotOptimize(name);
      benchmark::DoNotOptimize(id);
    };
  }
  ~BenchClient() {
    free(client->clientId);
    free(client);
  }
  DAXO_Client* client;
};

void Dispatch(benchmark::State& state, const char* topic, const std::string& payload) {
  BenchClient c;
  for (auto _ : state) DispatchResponse(c.client, topic, payload.c_str());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(payload.size()));
}

void Parse(benchmark::State& state, const std::string& payload) {
  for (auto _ : state) {
    json_object* parsed = json_tokener_parse(payload.c_str());
    benchmark::DoNotOptimize(parsed);
    json_object_put(parsed);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(payload.size()));
}

void BM_DispatchSensorList(benchmark::State& s) {
  Dispatch(s, "/v1.0/client-1/inventory/inbox", kSensorList);
}
void BM_ParseSensorList(benchmark::State& s) { Parse(s, kSensorList); }
void BM_DispatchCreateSensorReply(benchmark::State& s) {
  Dispatch(s, "/v1.0/client-1/sensor/inbox", kCreateReply);
}
void BM_ParseCreateSensorReply(benchmark::State& s) { Parse(s, kCreateReply); }

BENCHMARK(BM_ParseSensorList)->Repetitions(10)->ReportAggregatesOnly(true);
BENCHMARK(BM_DispatchSensorList)->Repetitions(10)->ReportAggregatesOnly(true);
BENCHMARK(BM_ParseCreateSensorReply)->Repetitions(10)->ReportAggregatesOnly(true);
BENCHMARK(BM_DispatchCreateSensorReply)->Repetitions(10)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const struct {
    const char *measure, *dispatch, *parse;
  } pairs[] = {{"dispatch vs json-c parse: 50-sensor list", "BM_DispatchSensorList", "BM_ParseSensorList"},
               {"dispatch vs json-c parse: create-sensor reply", "BM_DispatchCreateSensorReply",
                "BM_ParseCreateSensorReply"}};
  for (const auto& p : pairs) {
    double dispatch = reporter.medianCpu[p.dispatch], parse = reporter.medianCpu[p.parse];
    if (dispatch > 0 && parse > 0)
      bench::PrintComparison(p.measure, bench::Figure("%.0f ns", dispatch),
                             bench::Figure("%.0f ns", parse), dispatch / parse, "<= 1.5");
  }
  benchmark::Shutdown();
  return 0;
}
