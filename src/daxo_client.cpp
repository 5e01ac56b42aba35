// The exported functions: guard clauses, then one call into the code that
// does the work.
#include "daxo_client.h"

#include "daxo_internal.h"

namespace {

// Every request carries the client's identifier in its topic.
bool Provisioned(const DAXO_Client* client) noexcept {
  return client != nullptr && client->clientId != nullptr;
}

template <class Callback>
DAXO_Error SetCallback(DAXO_Client* client, Callback DAXO_Client::*field,
                       Callback callback) noexcept {
  if (client == nullptr) return DAXO_Error_InvalidArguments;
  // Network threads read callbacks while the application or a renewal sets them.
  __atomic_store_n(&(client->*field), callback, __ATOMIC_RELEASE);
  return DAXO_Error_Success;
}

}  // namespace

extern "C" {

DAXO_Error DAXO_LibInit(void) noexcept {
  MosquittoLibInit();
  return DAXO_Error_Success;
}

DAXO_Error DAXO_LibCleanup(void) noexcept {
  MosquittoLibCleanup();
  return DAXO_Error_Success;
}

DAXO_Client* DAXO_NewClient(const char* confFile, void* callbackParameter,
                            DAXO_Error* err) noexcept {
  return NewClientInternal(confFile, callbackParameter, err, CreateMosquittoClient,
                           DestroyMosquittoClient);
}

DAXO_Error DAXO_ExplainConfig(const char* confFile, char* buffer, size_t size) noexcept {
  if (confFile == nullptr || (buffer == nullptr && size != 0)) return DAXO_Error_InvalidArguments;
  return daxo::ExplainConfig(confFile, buffer, size);
}

DAXO_Error DAXO_DeleteClient(DAXO_Client* client) noexcept {
  // A library thread is one the deletion would have to join.
  if (client == nullptr || daxo::OnLibraryThread()) return DAXO_Error_InvalidArguments;
  daxo::DestroyClient(client);
  return DAXO_Error_Success;
}

const char* DAXO_GetClientId(DAXO_Client* client) noexcept {
  return client != nullptr ? client->clientId : nullptr;
}

DAXO_Error DAXO_Connect(DAXO_Client* client) noexcept { return ConnectInternal(client, nullptr); }

DAXO_Error DAXO_CheckConnection(DAXO_Client* client) noexcept {
  if (!Provisioned(client)) return DAXO_Error_InvalidArguments;
  return daxo::CheckConnection(client);
}

DAXO_Error DAXO_ProvisionClient(DAXO_Client* client) noexcept {
  return ProvisionClientInternal(client, nullptr);
}

DAXO_Error DAXO_DeprovisionClient(DAXO_Client* client) noexcept {
  if (!Provisioned(client)) return DAXO_Error_InvalidArguments;
  return daxo::Deprovision(client);
}

DAXO_Error DAXO_ResetIdentity(DAXO_Client* client) noexcept {
  if (client == nullptr || daxo::OnLibraryThread()) return DAXO_Error_InvalidArguments;
  return daxo::ResetClientIdentity(client);
}

DAXO_Error DAXO_CreateSensor(DAXO_Client* client, const char* name) noexcept {
  if (!Provisioned(client) || name == nullptr) return DAXO_Error_InvalidArguments;
  return daxo::CreateSensor(client, name);
}

DAXO_Error DAXO_UpdateSensor(DAXO_Client* client, const char* sensorId,
                             const char* sensorName) noexcept {
  if (!Provisioned(client) || sensorId == nullptr || sensorName == nullptr)
    return DAXO_Error_InvalidArguments;
  return daxo::UpdateSensor(client, sensorId, sensorName);
}

DAXO_Error DAXO_DeleteSensor(DAXO_Client* client, const char* sensorId) noexcept {
  if (!Provisioned(client) || sensorId == nullptr) return DAXO_Error_InvalidArguments;
  return daxo::DeleteSensor(client, sensorId);
}

DAXO_Error DAXO_ListSensors(DAXO_Client* client) noexcept {
  if (!Provisioned(client)) return DAXO_Error_InvalidArguments;
  return daxo::ListSensors(client);
}

DAXO_Error DAXO_DescribeMetric(DAXO_Client* client, const char* sensorId,
                               const char* metricId) noexcept {
  if (!Provisioned(client) || sensorId == nullptr || metricId == nullptr)
    return DAXO_Error_InvalidArguments;
  return daxo::DescribeMetric(client, sensorId, metricId);
}

DAXO_Error DAXO_CreateMetrics(DAXO_Client* client, const char* sensorId,
                              DAXO_MetricSchemaContainer* container) noexcept {
  if (!Provisioned(client) || sensorId == nullptr || container == nullptr ||
      container->mainJson == nullptr)
    return DAXO_Error_InvalidArguments;
  return daxo::SendMetricSchemas(client, sensorId, container, false);
}

DAXO_Error DAXO_UpdateMetrics(DAXO_Client* client, const char* sensorId,
                              DAXO_MetricSchemaContainer* container) noexcept {
  if (!Provisioned(client) || sensorId == nullptr || container == nullptr ||
      container->mainJson == nullptr)
    return DAXO_Error_InvalidArguments;
  return daxo::SendMetricSchemas(client, sensorId, container, true);
}

DAXO_Error DAXO_DeleteMetrics(DAXO_Client* client, const char* sensorId, char** metricIds,
                              int metricsCount) noexcept {
  if (!Provisioned(client) || sensorId == nullptr || metricIds == nullptr || metricsCount == 0)
    return DAXO_Error_InvalidArguments;
  for (int i = 0; i < metricsCount; ++i) {
    if (metricIds[i] == nullptr) return DAXO_Error_InvalidArguments;
  }
  return daxo::DeleteMetrics(client, sensorId, metricIds, metricsCount);
}

DAXO_Error DAXO_PushMetricValues(DAXO_Client* client, const char* sensorId,
                                 DAXO_MetricValueContainer* container) noexcept {
  if (!Provisioned(client) || sensorId == nullptr || container == nullptr ||
      container->metricsCount == 0)
    return DAXO_Error_InvalidArguments;
  return daxo::PushMetricValues(client, sensorId, container);
}

DAXO_Error DAXO_ReportClientError(DAXO_Client* client, int error,
                                  const char* errMessage) noexcept {
  if (!Provisioned(client) || errMessage == nullptr) return DAXO_Error_InvalidArguments;
  return daxo::ReportError(client, "errocode", error, errMessage, "error");
}

DAXO_Error DAXO_ReportSensorError(DAXO_Client* client, const char* sensorId, int error,
                                  const char* errMessage) noexcept {
  if (!Provisioned(client) || sensorId == nullptr || errMessage == nullptr)
    return DAXO_Error_InvalidArguments;
  return daxo::ReportError(client, "errorcode", error, errMessage, "sensor/%s/error", sensorId);
}

DAXO_Error DAXO_ReportMetricError(DAXO_Client* client, const char* sensorId, const char* metricId,
                                  int error, const char* errMessage) noexcept {
  if (!Provisioned(client) || sensorId == nullptr || metricId == nullptr || errMessage == nullptr)
    return DAXO_Error_InvalidArguments;
  return daxo::ReportError(client, "errorcode", error, errMessage, "sensor/%s/metric/%s/error",
                           sensorId, metricId);
}

DAXO_Error DAXO_Disconnect(DAXO_Client* client) noexcept {
  if (client == nullptr) return DAXO_Error_InvalidArguments;
  return daxo::RunOnOwner(client, OwnerDisconnect, nullptr);
}

DAXO_Error DAXO_ProvisionClientCallbackSet(DAXO_Client* client,
                                           DAXO_OnProvisionClient OnProvisionClient) noexcept {
  return SetCallback(client, &DAXO_Client::OnProvisionClient, OnProvisionClient);
}

DAXO_Error DAXO_ConnectCallbackSet(DAXO_Client* client, DAXO_OnConnect OnConnect) noexcept {
  return SetCallback(client, &DAXO_Client::OnConnect, OnConnect);
}

DAXO_Error DAXO_DisconnectCallbackSet(DAXO_Client* client,
                                      DAXO_OnDisconnect OnDisconnect) noexcept {
  return SetCallback(client, &DAXO_Client::OnDisconnect, OnDisconnect);
}

DAXO_Error DAXO_CreateSensorCallbackSet(DAXO_Client* client,
                                        DAXO_OnCreateSensor OnCreateSensor) noexcept {
  return SetCallback(client, &DAXO_Client::OnCreateSensor, OnCreateSensor);
}

DAXO_Error DAXO_UpdateSensorCallbackSet(DAXO_Client* client,
                                        DAXO_OnModifySensor OnModifySensor) noexcept {
  return SetCallback(client, &DAXO_Client::OnModifySensor, OnModifySensor);
}

DAXO_Error DAXO_DeleteSensorCallbackSet(DAXO_Client* client,
                                        DAXO_OnDeleteSensor OnDeleteSensor) noexcept {
  return SetCallback(client, &DAXO_Client::OnDeleteSensor, OnDeleteSensor);
}

DAXO_Error DAXO_DeleteMetricsCallbackSet(DAXO_Client* client,
                                         DAXO_OnDeleteMetrics OnDeleteMetrics) noexcept {
  return SetCallback(client, &DAXO_Client::OnDeleteMetrics, OnDeleteMetrics);
}

DAXO_Error DAXO_PushDroppedCallbackSet(DAXO_Client* client,
                                       DAXO_OnPushDropped OnPushDropped) noexcept {
  return SetCallback(client, &DAXO_Client::OnPushDropped, OnPushDropped);
}

DAXO_Error DAXO_GetWaitingPushCount(DAXO_Client* client, size_t* count) noexcept {
  if (client == nullptr || count == nullptr) return DAXO_Error_InvalidArguments;
  *count = daxo::StoredPushCount(client);
  return DAXO_Error_Success;
}

DAXO_Error DAXO_PushMetricValuesCallbackSet(DAXO_Client* client,
                                            DAXO_OnPushMetricValues OnPushMetricValues) noexcept {
  return SetCallback(client, &DAXO_Client::OnPushMetricValues, OnPushMetricValues);
}

DAXO_Error DAXO_CreateMetricsCallbackSet(DAXO_Client* client,
                                         DAXO_OnCreateMetrics OnCreateMetrics) noexcept {
  return SetCallback(client, &DAXO_Client::OnCreateMetrics, OnCreateMetrics);
}

DAXO_Error DAXO_UpdateMetricsCallbackSet(DAXO_Client* client,
                                         DAXO_OnUpdateMetrics OnUpdateMetrics) noexcept {
  return SetCallback(client, &DAXO_Client::OnUpdateMetrics, OnUpdateMetrics);
}

DAXO_Error DAXO_LogCallbackSet(DAXO_Client* client, DAXO_OnLog onLog) noexcept {
  return SetCallback(client, &DAXO_Client::OnLog, onLog);
}

DAXO_Error DAXO_ListSensorsCallbackSet(DAXO_Client* client,
                                       DAXO_OnListSensors OnListSensors) noexcept {
  return SetCallback(client, &DAXO_Client::OnListSensors, OnListSensors);
}

DAXO_Error DAXO_DescribeMetricCallbackSet(DAXO_Client* client,
                                          DAXO_OnDescribeMetric OnDescribeMetric) noexcept {
  return SetCallback(client, &DAXO_Client::OnDescribeMetric, OnDescribeMetric);
}

DAXO_Error DAXO_CheckConnectionCallbackSet(DAXO_Client* client,
                                           DAXO_OnCheckConnection OnCheckConnection) noexcept {
  return SetCallback(client, &DAXO_Client::OnCheckConnection, OnCheckConnection);
}

DAXO_Error DAXO_DeprovisionClientCallbackSet(
    DAXO_Client* client, DAXO_OnDeprovisionClient OnDeprovisionClient) noexcept {
  return SetCallback(client, &DAXO_Client::OnDeprovisionClient, OnDeprovisionClient);
}

DAXO_Error DAXO_CreateSensorJobCallbackSet(DAXO_Client* client,
                                           DAXO_OnCreateSensorJob OnCreateSensorJob) noexcept {
  return SetCallback(client, &DAXO_Client::OnCreateSensorJob, OnCreateSensorJob);
}

DAXO_Error DAXO_DeleteSensorJobCallbackSet(DAXO_Client* client,
                                           DAXO_OnDeleteSensorJob OnDeleteSensorJob) noexcept {
  return SetCallback(client, &DAXO_Client::OnDeleteSensorJob, OnDeleteSensorJob);
}

}  // extern "C"
