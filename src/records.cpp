// The records that the agent's sensor and metric replies are parsed into,
// their parsers and their destroyers. A parser either returns a complete
// record or fails with nothing left allocated.
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "c_handles.h"
#include "daxo_internal.h"
#include "string_utils.h"

namespace {

using SensorMetadataPtr =
    std::unique_ptr<DAXO_SensorMetadata, daxo::CFree<DAXO_DestroySensorMetadata>>;
using SensorsInfoPtr = std::unique_ptr<DAXO_SensorsInfo, daxo::CFree<DAXO_DestroySensorsInfo>>;
using CreatedMetricsPtr =
    std::unique_ptr<DAXO_CreatedMetrics, daxo::CFree<DAXO_DestroyCreatedMetrics>>;
using MetricMetadataPtr =
    std::unique_ptr<DAXO_MetricMetadata, daxo::CFree<DAXO_DestroyMetricMetadata>>;

template <class T>
T* NewZeroed() noexcept {
  return static_cast<T*>(calloc(1, sizeof(T)));
}

// Appends one zeroed element. On failure the array and its count are left
// as they were, so the record that holds them stays releasable.
template <class T>
T* AppendZeroed(T** items, int* count) noexcept {
  if (*count == INT_MAX) return nullptr;
  auto* grown = static_cast<T*>(realloc(*items, (static_cast<size_t>(*count) + 1) * sizeof(T)));
  if (grown == nullptr) return nullptr;
  *items = grown;
  memset(&grown[*count], 0, sizeof(T));
  return &grown[(*count)++];
}

// Fills one appended element per array entry, in order. Every element is
// counted before it is filled, so a failure leaves it for the destroyer.
template <class T>
bool ReadArray(json_object* array, T** items, int* count,
               int (*fill)(json_object*, T*) noexcept) noexcept {
  if (!json_object_is_type(array, json_type_array)) return false;
  size_t length = json_object_array_length(array);
  for (size_t i = 0; i < length; ++i) {
    json_object* element = json_object_array_get_idx(array, i);
    if (element == nullptr) return false;
    T* item = AppendZeroed(items, count);
    if (item == nullptr || !fill(element, item)) return false;
  }
  return true;
}

template <class T>
void DestroyArray(T* items, int count, void (*destroy)(T*) noexcept) noexcept {
  for (int i = 0; i < count; ++i) destroy(&items[i]);
  free(items);
}

// True when obj is an object that has the member, also when its value is
// JSON null (then *value is null).
bool Member(json_object* obj, const char* key, json_object** value) noexcept {
  *value = nullptr;
  return json_object_is_type(obj, json_type_object) && json_object_object_get_ex(obj, key, value);
}

bool HasMember(json_object* obj, const char* key) noexcept {
  json_object* value;
  return Member(obj, key, &value);
}

// A member of any kind but null reads as its JSON text. Rendering a number
// allocates inside json-c, so a null here may also mean no memory.
const char* MemberText(json_object* obj, const char* key) noexcept {
  json_object* value;
  return Member(obj, key, &value) ? json_object_get_string(value) : nullptr;
}

// Copies both texts or neither; a null text is a failure.
bool CopyPair(const char* first, const char* second, char** firstSlot, char** secondSlot) noexcept {
  daxo::CStr firstCopy(daxo::Dup(first));
  daxo::CStr secondCopy(daxo::Dup(second));
  if (!firstCopy || !secondCopy) return false;
  *firstSlot = firstCopy.release();
  *secondSlot = secondCopy.release();
  return true;
}

bool CopyMember(json_object* obj, const char* key, char** slot) noexcept {
  *slot = daxo::Dup(MemberText(obj, key));
  return *slot != nullptr;
}

// json-c reports a conversion error only through errno.
bool ReadFrequency(json_object* sensor, int* frequency) noexcept {
  json_object* value;
  if (!Member(sensor, "frequency", &value)) return true;
  errno = 0;
  *frequency = json_object_get_int(value);
  return errno == 0;
}

bool ReadLastUpdated(json_object* metric, uint64_t* lastUpdated) noexcept {
  json_object* value;
  if (!Member(metric, "lastUpdated", &value)) return false;
  errno = 0;
  *lastUpdated = static_cast<uint64_t>(json_object_get_int64(value));
  return errno == 0;
}

// Members without a name or with nothing to say are not parameters.
bool AddPluginParameter(DAXO_SensorMetadata* sensor, const char* name,
                        json_object* value) noexcept {
  if (name == nullptr || name[0] == '\0' || value == nullptr) return true;
  const char* text = json_object_get_string(value);
  if (text == nullptr) return false;
  if (text[0] == '\0') return true;
  DAXO_PluginParameter* parameter =
      AppendZeroed(&sensor->pluginParameters, &sensor->pluginParametersCount);
  return parameter != nullptr && InitializePluginParameter(parameter, name, text);
}

bool ReadPluginParameters(json_object* obj, DAXO_SensorMetadata* sensor) noexcept {
  json_object* params;
  if (!Member(obj, "pluginParams", &params)) return true;
  if (!json_object_is_type(params, json_type_object)) return false;
  json_object_iterator it = json_object_iter_begin(params);
  json_object_iterator end = json_object_iter_end(params);
  for (; !json_object_iter_equal(&it, &end); json_object_iter_next(&it)) {
    if (!AddPluginParameter(sensor, json_object_iter_peek_name(&it),
                            json_object_iter_peek_value(&it)))
      return false;
  }
  return true;
}

bool ReadSensorKind(json_object* obj, DAXO_SensorMetadata* sensor) noexcept {
  if (HasMember(obj, "pluginName")) {
    sensor->sensorType = DAXO_SensorType_Plugin;
    return CopyMember(obj, "pluginName", &sensor->pluginName) &&
           CopyMember(obj, "pluginDownloadUrl", &sensor->pluginDownloadUrl) &&
           ReadPluginParameters(obj, sensor);
  }
  if (HasMember(obj, "monitoringService")) {
    sensor->sensorType = DAXO_SensorType_Standard;
    return CopyMember(obj, "monitoringService", &sensor->monitoringService);
  }
  sensor->sensorType = DAXO_SensorType_None;
  return true;
}

bool FillSensor(json_object* obj, DAXO_SensorMetadata* sensor) noexcept {
  json_object* metrics;
  return CopyMember(obj, "name", &sensor->name) && CopyMember(obj, "sensorId", &sensor->sensorId) &&
         ReadFrequency(obj, &sensor->frequency) && ReadSensorKind(obj, sensor) &&
         Member(obj, "metrics", &metrics) &&
         ReadArray(metrics, &sensor->metrics, &sensor->metricsCount, CreateMetricInfo);
}

// A standard metric has a unit; a custom one a type and an annotation.
// The tables' "no unit" and "no type" words name neither kind.
bool ReadMetricKind(json_object* obj, DAXO_MetricMetadata* metric) noexcept {
  if (HasMember(obj, "valueUnit")) {
    metric->valueUnit = GetValueUnitFromStr(MemberText(obj, "valueUnit"));
    return metric->valueUnit != DAXO_ValueUnit_NoUnit;
  }
  metric->valueType = GetValueTypeFromStr(MemberText(obj, "valueType"));
  return metric->valueType != DAXO_ValueType_NoType &&
         CopyMember(obj, "valueAnnotation", &metric->valueAnnotation);
}

bool FillMetricMetadata(json_object* obj, DAXO_MetricMetadata* metric) noexcept {
  return CopyMember(obj, "metricId", &metric->id) && ReadMetricKind(obj, metric) &&
         ReadLastUpdated(obj, &metric->lastUpdated) && CopyMember(obj, "value", &metric->value) &&
         CopyMember(obj, "name", &metric->name);
}

}  // namespace

// ---- Sensor records ----

extern "C" int InitializePluginParameter(DAXO_PluginParameter* pluginParameter, const char* name,
                                         const char* value) noexcept {
  if (pluginParameter == nullptr) return 0;
  return CopyPair(name, value, &pluginParameter->parameterName, &pluginParameter->parameterValue);
}

extern "C" int CreateMetricInfo(json_object* objMetric, DAXO_MetricInfo* metric) noexcept {
  if (metric == nullptr) return 0;
  return CopyMember(objMetric, "metricId", &metric->metricId) ? 1 : 0;
}

extern "C" int CreateSensorMetadata(json_object* objSensor,
                                    DAXO_SensorMetadata* sensorMetadata) noexcept {
  if (objSensor == nullptr || sensorMetadata == nullptr) return 0;
  memset(sensorMetadata, 0, sizeof *sensorMetadata);
  if (FillSensor(objSensor, sensorMetadata)) return 1;
  DestroySensorMetadata(sensorMetadata);
  return 0;
}

extern "C" DAXO_SensorMetadata* CreateSensorMetadataEx(const char* message) noexcept {
  daxo::JsonPtr doc = daxo::ParseJson(message);
  if (!doc) return nullptr;
  SensorMetadataPtr sensor(NewZeroed<DAXO_SensorMetadata>());
  if (!sensor || !CreateSensorMetadata(doc.get(), sensor.get())) return nullptr;
  return sensor.release();
}

extern "C" DAXO_SensorsInfo* CreateSensorsInfo(const char* message) noexcept {
  daxo::JsonPtr doc = daxo::ParseJson(message);
  if (!doc) return nullptr;
  SensorsInfoPtr list(NewZeroed<DAXO_SensorsInfo>());
  if (!list || !ReadArray(doc.get(), &list->sensors, &list->sensorsCount, CreateSensorMetadata))
    return nullptr;
  return list.release();
}

extern "C" int ParseSensorId(const char* message, char** name, char** sensorId) noexcept {
  if (name == nullptr || sensorId == nullptr) return 0;
  daxo::JsonPtr doc = daxo::ParseJson(message);
  if (!doc) return 0;
  return CopyPair(MemberText(doc.get(), "name"), MemberText(doc.get(), "sensorId"), name, sensorId);
}

extern "C" void DestroyPluginParameter(DAXO_PluginParameter* pluginParameter) noexcept {
  if (pluginParameter == nullptr) return;
  daxo::Reset(&pluginParameter->parameterName, nullptr);
  daxo::Reset(&pluginParameter->parameterValue, nullptr);
}

extern "C" void DestroyMetricInfo(DAXO_MetricInfo* metric) noexcept {
  if (metric != nullptr) daxo::Reset(&metric->metricId, nullptr);
}

// Leaves the record zeroed, so that releasing it again frees nothing twice.
extern "C" void DestroySensorMetadata(DAXO_SensorMetadata* sensor) noexcept {
  if (sensor == nullptr) return;
  free(sensor->name);
  free(sensor->sensorId);
  free(sensor->pluginName);
  DestroyArray(sensor->pluginParameters, sensor->pluginParametersCount, DestroyPluginParameter);
  free(sensor->pluginDownloadUrl);
  free(sensor->monitoringService);
  DestroyArray(sensor->metrics, sensor->metricsCount, DestroyMetricInfo);
  memset(sensor, 0, sizeof *sensor);
}

extern "C" void DAXO_DestroySensorMetadata(DAXO_SensorMetadata* sensorMetadata) noexcept {
  DestroySensorMetadata(sensorMetadata);
  free(sensorMetadata);
}

extern "C" void DAXO_DestroySensorsInfo(DAXO_SensorsInfo* sensorsInfo) noexcept {
  if (sensorsInfo == nullptr) return;
  DestroyArray(sensorsInfo->sensors, sensorsInfo->sensorsCount, DestroySensorMetadata);
  free(sensorsInfo);
}

// ---- Metric records ----

extern "C" int FillCreatedMetric(json_object* objMetric, DAXO_CreatedMetric* metric) noexcept {
  if (metric == nullptr) return 0;
  return CopyPair(MemberText(objMetric, "metricId"), MemberText(objMetric, "matchingId"),
                  &metric->metricId, &metric->matchingId);
}

extern "C" DAXO_CreatedMetrics* CreateCreatedMetrics(const char* message,
                                                     const char* sensorId) noexcept {
  daxo::JsonPtr doc = daxo::ParseJson(message);
  if (!doc) return nullptr;
  CreatedMetricsPtr created(NewZeroed<DAXO_CreatedMetrics>());
  if (!created) return nullptr;
  created->sensorId = daxo::Dup(sensorId);
  if (created->sensorId == nullptr ||
      !ReadArray(doc.get(), &created->metrics, &created->metricsCount, FillCreatedMetric))
    return nullptr;
  return created.release();
}

extern "C" DAXO_MetricMetadata* CreateMetricMetadata(const char* message) noexcept {
  daxo::JsonPtr doc = daxo::ParseJson(message);
  if (!doc) return nullptr;
  MetricMetadataPtr metric(NewZeroed<DAXO_MetricMetadata>());
  if (!metric || !FillMetricMetadata(doc.get(), metric.get())) return nullptr;
  return metric.release();
}

extern "C" void DestroyCreatedMetric(DAXO_CreatedMetric* metric) noexcept {
  if (metric == nullptr) return;
  daxo::Reset(&metric->matchingId, nullptr);
  daxo::Reset(&metric->metricId, nullptr);
}

extern "C" void DAXO_DestroyCreatedMetrics(DAXO_CreatedMetrics* createdMetrics) noexcept {
  if (createdMetrics == nullptr) return;
  DestroyArray(createdMetrics->metrics, createdMetrics->metricsCount, DestroyCreatedMetric);
  free(createdMetrics->sensorId);
  free(createdMetrics);
}

extern "C" void DAXO_DestroyMetricMetadata(DAXO_MetricMetadata* metricMetadata) noexcept {
  if (metricMetadata == nullptr) return;
  free(metricMetadata->name);
  free(metricMetadata->id);
  free(metricMetadata->value);
  free(metricMetadata->valueAnnotation);
  free(metricMetadata);
}
