// The metric schema container and the metric definition requests.
#include <cstdlib>
#include <initializer_list>
#include <utility>

#include "c_handles.h"
#include "daxo_internal.h"

namespace {

using daxo::JsonPtr;

using Member = std::pair<const char*, const char*>;  // name, text (null: left out)

// Appends an entry with the given string members, in order; the array
// changes only once the whole entry is built.
DAXO_Error AddEntry(json_object* array, std::initializer_list<Member> members) noexcept {
  DAXO_Error err;
  JsonPtr entry = daxo::NewObject(&err);
  if (!entry) return err;
  for (const Member& m : members) {
    if (m.second == nullptr) continue;
    err = daxo::AddMember(entry.get(), m.first, json_object_new_string(m.second));
    if (err != DAXO_Error_Success) return err;
  }
  if (json_object_array_add(array, entry.get()) != 0) return DAXO_Error_ComposeJson;
  entry.release();
  return DAXO_Error_Success;
}

}  // namespace

extern "C" {

DAXO_MetricSchemaContainer* DAXO_CreateMetricSchemaContainer(void) noexcept {
  DAXO_Error err;
  json_object* array;
  JsonPtr body = daxo::MetricsBody(&array, &err);
  if (!body) return nullptr;
  auto* container =
      static_cast<DAXO_MetricSchemaContainer*>(calloc(1, sizeof(DAXO_MetricSchemaContainer)));
  if (container == nullptr) return nullptr;
  container->metricsArray = array;
  container->mainJson = body.release();
  return container;
}

DAXO_Error DAXO_DestroyMetricSchemaContainer(DAXO_MetricSchemaContainer* container) noexcept {
  if (container == nullptr) return DAXO_Error_InvalidArguments;
  json_object_put(container->mainJson);
  free(container);
  return DAXO_Error_Success;
}

DAXO_Error DAXO_AddStandardMetricSchema(DAXO_MetricSchemaContainer* container,
                                        const char* matchingId, const char* name,
                                        DAXO_ValueUnit value_unit) noexcept {
  const char* unit = value_unit != DAXO_ValueUnit_NoUnit ? GetValueUnitStr(value_unit) : nullptr;
  if (container == nullptr || matchingId == nullptr || name == nullptr || unit == nullptr)
    return DAXO_Error_InvalidArguments;
  return AddEntry(container->metricsArray,
                  {{"valueUnit", unit}, {"matchingId", matchingId}, {"name", name}});
}

DAXO_Error DAXO_AddCustomMetricSchema(DAXO_MetricSchemaContainer* container,
                                      const char* matchingId, const char* name,
                                      DAXO_ValueType valueType,
                                      const char* valueAnnotation) noexcept {
  const char* type = valueType != DAXO_ValueType_NoType ? GetValueTypeStr(valueType) : nullptr;
  if (container == nullptr || matchingId == nullptr || name == nullptr ||
      valueAnnotation == nullptr || type == nullptr)
    return DAXO_Error_InvalidArguments;
  return AddEntry(container->metricsArray, {{"valueType", type},
                                            {"valueAnnotation", valueAnnotation},
                                            {"matchingId", matchingId},
                                            {"name", name}});
}

DAXO_Error DAXO_AddMetricUpdateSchema(DAXO_MetricSchemaContainer* container, const char* metricId,
                                      const char* name, const char* valueAnnotation) noexcept {
  if (container == nullptr || metricId == nullptr ||
      (name == nullptr && valueAnnotation == nullptr))
    return DAXO_Error_InvalidArguments;
  return AddEntry(container->metricsArray,
                  {{"metricId", metricId}, {"name", name}, {"valueAnnotation", valueAnnotation}});
}

}  // extern "C"

namespace daxo {

DAXO_Error SendMetricSchemas(DAXO_Client* client, const char* sensorId,
                             const DAXO_MetricSchemaContainer* container, bool update) noexcept {
  return Request(client, container->mainJson, update ? "sensor/%s/metric/update" : "sensor/%s/metric",
                 sensorId);
}

DAXO_Error DeleteMetrics(DAXO_Client* client, const char* sensorId, char** metricIds,
                         int metricsCount) noexcept {
  DAXO_Error err;
  json_object* array;
  JsonPtr body = MetricsBody(&array, &err);
  if (!body) return err;
  for (int i = 0; i < metricsCount; ++i) {
    if ((err = AddEntry(array, {{"metricId", metricIds[i]}})) != DAXO_Error_Success) return err;
  }
  return Request(client, body.get(), "sensor/%s/metric/delete", sensorId);
}

}  // namespace daxo
