// The metric value container and the push of its values.
#include <cstdlib>
#include <cstring>

#include "c_handles.h"
#include "daxo_internal.h"
#include "string_utils.h"

namespace {

using daxo::JsonPtr;

// Appends one value for metricId; the container's values change only when
// every copy has been made.
DAXO_Error Append(DAXO_MetricValueContainer* container, const char* metricId,
                  MetricValue value) noexcept {
  size_t count = static_cast<size_t>(container->metricsCount);
  auto* grown =
      static_cast<MetricValue*>(realloc(container->metrics, (count + 1) * sizeof(MetricValue)));
  if (grown == nullptr) return DAXO_Error_NoMemory;
  container->metrics = grown;
  value.metricId = daxo::Dup(metricId);
  if (value.metricId == nullptr) return DAXO_Error_NoMemory;
  grown[count] = value;
  container->metricsCount++;
  return DAXO_Error_Success;
}

template <class Set>
DAXO_Error AddValue(DAXO_MetricValueContainer* container, const char* metricId,
                    DAXO_ValueType type, Set set) noexcept {
  if (container == nullptr || metricId == nullptr) return DAXO_Error_InvalidArguments;
  MetricValue v{};
  v.type = type;
  set(v);
  return Append(container, metricId, v);
}

json_object* JsonValue(const MetricValue& v) noexcept {
  switch (v.type) {
    case DAXO_ValueType_Integer:
      return json_object_new_int64(v.intValue);
    case DAXO_ValueType_Double:
      return json_object_new_double(v.doubleValue);
    case DAXO_ValueType_Bool:
      return json_object_new_boolean(v.boolValue != 0);
    case DAXO_ValueType_String:
      return json_object_new_string(v.stringValue);
    default:
      return nullptr;
  }
}

// {"metricId": ..., "value": ...} for one collected value.
DAXO_Error AppendElement(json_object* array, const MetricValue& v) noexcept {
  DAXO_Error err;
  JsonPtr element = daxo::NewObject(&err);
  if (!element) return err;
  if ((err = daxo::AddMember(element.get(), "metricId", json_object_new_string(v.metricId))) !=
          DAXO_Error_Success ||
      (err = daxo::AddMember(element.get(), "value", JsonValue(v))) != DAXO_Error_Success)
    return err;
  if (json_object_array_add(array, element.get()) != 0) return DAXO_Error_ComposeJson;
  element.release();
  return DAXO_Error_Success;
}

}  // namespace

extern "C" {

DAXO_MetricValueContainer* DAXO_CreateMetricValueContainer(void) noexcept {
  return static_cast<DAXO_MetricValueContainer*>(calloc(1, sizeof(DAXO_MetricValueContainer)));
}

DAXO_Error DAXO_DestroyMetricValueContainer(DAXO_MetricValueContainer* container) noexcept {
  if (container == nullptr) return DAXO_Error_InvalidArguments;
  for (int i = 0; i < container->metricsCount; ++i) {
    MetricValue& v = container->metrics[i];
    free(v.metricId);
    if (v.type == DAXO_ValueType_String) free(v.stringValue);
  }
  free(container->metrics);
  free(container);
  return DAXO_Error_Success;
}

DAXO_Error DAXO_AddIntegerMetricValue(DAXO_MetricValueContainer* container, int64_t value,
                                      const char* metricId) noexcept {
  return AddValue(container, metricId, DAXO_ValueType_Integer,
                  [value](MetricValue& v) { v.intValue = value; });
}

DAXO_Error DAXO_AddDoubleMetricValue(DAXO_MetricValueContainer* container, double value,
                                     const char* metricId) noexcept {
  return AddValue(container, metricId, DAXO_ValueType_Double,
                  [value](MetricValue& v) { v.doubleValue = value; });
}

DAXO_Error DAXO_AddBoolMetricValue(DAXO_MetricValueContainer* container, int value,
                                   const char* metricId) noexcept {
  return AddValue(container, metricId, DAXO_ValueType_Bool,
                  [value](MetricValue& v) { v.boolValue = value; });
}

DAXO_Error DAXO_AddStringMetricValue(DAXO_MetricValueContainer* container, const char* value,
                                     const char* metricId) noexcept {
  if (container == nullptr || metricId == nullptr || value == nullptr)
    return DAXO_Error_InvalidArguments;
  daxo::CStr copy(daxo::Dup(value));
  if (!copy) return DAXO_Error_NoMemory;
  MetricValue v{};
  v.type = DAXO_ValueType_String;
  v.stringValue = copy.get();
  DAXO_Error err = Append(container, metricId, v);
  if (err == DAXO_Error_Success) copy.release();
  return err;
}

DAXO_Error DAXO_AddEpochTimeStamp(DAXO_MetricValueContainer* container,
                                  uint64_t epochTimestamp) noexcept {
  if (container == nullptr) return DAXO_Error_InvalidArguments;
  container->timestamp = epochTimestamp;
  container->customTimestampIsSet = 1;
  return DAXO_Error_Success;
}

}  // extern "C"

namespace daxo {

DAXO_Error PushMetricValues(DAXO_Client* client, const char* sensorId,
                            const DAXO_MetricValueContainer* container) noexcept {
  DAXO_Error err;
  json_object* array;
  JsonPtr body = MetricsBody(&array, &err);
  if (!body) return err;
  for (int i = 0; i < container->metricsCount; ++i) {
    if ((err = AppendElement(array, container->metrics[i])) != DAXO_Error_Success) return err;
  }
  if (container->customTimestampIsSet &&
      (err = AddMember(body.get(), "timestamp",
                       json_object_new_int64(static_cast<int64_t>(container->timestamp)))) !=
          DAXO_Error_Success)
    return err;
  if (client->pushStorePath == nullptr) return Request(client, body.get(), "sensor/%s", sensorId);
  const char* clientId = client->clientId;
  if (clientId == nullptr) return DAXO_Error_InvalidArguments;
  CStr topic = Format("/%s/%s/sensor/%s", kApiVersion, clientId, sensorId);
  if (!topic) return DAXO_Error_NoMemory;
  const char* text = Render(body.get(), &err);
  if (text == nullptr) return err;
  return StorePush(client, sensorId, topic.get(), text);
}

}  // namespace daxo
