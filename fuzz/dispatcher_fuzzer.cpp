// The whole inbound path: a message delivered by the transport to a
// connected client with every callback set. The input is "levels\npayload";
// levels starting with '/' are the whole topic, any others are placed below
// the client's own tree, where the handlers are.
#include <cstdint>
#include <string>

#include "fuzz_support.h"

namespace {

using fuzz::Touch;
using Id = const char*;

// Each callback reads what it is handed and releases the records it owns.
void SetEveryCallback(DAXO_Client* client) {
  DAXO_LogCallbackSet(client, [](DAXO_Client*, Id line, void*) { Touch(line); });
  DAXO_CheckConnectionCallbackSet(client, [](DAXO_Client*, void*, DAXO_ApiError) {});
  DAXO_CreateSensorCallbackSet(client, [](DAXO_Client*, void*, Id name, Id id, DAXO_ApiError) {
    Touch(name);
    Touch(id);
  });
  auto sensorReply = [](DAXO_Client*, void*, Id id, DAXO_ApiError) { Touch(id); };
  DAXO_UpdateSensorCallbackSet(client, sensorReply);
  DAXO_DeleteSensorCallbackSet(client, sensorReply);
  DAXO_PushMetricValuesCallbackSet(client, sensorReply);
  DAXO_UpdateMetricsCallbackSet(client, sensorReply);
  DAXO_DeleteMetricsCallbackSet(client, sensorReply);
  DAXO_DeleteSensorJobCallbackSet(client, [](DAXO_Client*, Id id, void*) { Touch(id); });
  DAXO_CreateSensorJobCallbackSet(client, [](DAXO_Client*, DAXO_SensorMetadata* s, void*) {
    Touch(*s);
    DAXO_DestroySensorMetadata(s);
  });
  DAXO_ListSensorsCallbackSet(client, [](DAXO_Client*, DAXO_SensorsInfo* l, void*, DAXO_ApiError) {
    if (l != nullptr) Touch(*l);
    DAXO_DestroySensorsInfo(l);
  });
  DAXO_DescribeMetricCallbackSet(
      client, [](DAXO_Client*, Id id, DAXO_MetricMetadata* m, void*, DAXO_ApiError) {
        Touch(id);
        if (m != nullptr) Touch(*m);
        DAXO_DestroyMetricMetadata(m);
      });
  DAXO_CreateMetricsCallbackSet(
      client, [](DAXO_Client*, void*, DAXO_CreatedMetrics* m, DAXO_ApiError) {
        if (m != nullptr) Touch(*m);
        DAXO_DestroyCreatedMetrics(m);
      });
  client->OnCertificateRenew = [](DAXO_Client*, void*, DAXO_Error) {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static DAXO_Client* const client = [] {
    DAXO_Client* c = fuzz::NewClient();
    fuzz::StandInForWatchThread(c);
    SetEveryCallback(c);
    return c;
  }();
  static FakeMqtt& fake = fuzz::Connect(client, "client-1");
  auto [levels, payload] = fuzz::SplitAtNewline(data, size);
  std::string topic = levels.rfind('/', 0) == 0 ? levels : "/v1.0/client-1/" + levels;
  fuzz::PendingRenewal(client);
  fake.Deliver(topic, payload);
  fuzz::TakeRenewalTask(client);
  fake.publishes.clear();
  return 0;
}
