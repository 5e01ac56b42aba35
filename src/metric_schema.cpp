// The metric schema container and the metric definition requests.
#include <cstdlib>
#include <initializer_list>
#include <utility>

#include "c_handles.h"
#include "daxo_internal.h"

namespace {

using daxo::JsonPtr;

using Member = std::pair<const char*, const char*>;  // name, text (null: left out)

// Appends an entry with the given string members, in order; the container
// changes only once the whole entry is built.
DAXO_Error AddEntry(DAXO_MetricSchemaContainer* container,
                    std::initializer_list<Member> members) noexcept {
  DAXO_Error err;
  JsonPtr entry = daxo::NewObject(&err);
  if (!entry) return err;
  for (const Member& m : members) {
    if (m.second == nullptr) continue;
    err = daxo::AddMember(entry.get(), m.first, json_object_new_string(m.second));
    if (err != DAXO_Error_Success) return err;
  }
  if (json_object_array_add(container->metricsArray, entry.get()) != 0)
    return DAXO_Error_ComposeJson;
  entry.release();
  return DAXO_Error_Success;
}

bool Usable(const DAXO_MetricSchemaContainer* container) noexcept {
  return container != nullptr && container->mainJson != nullptr &&
         container->metricsArray != nullptr;
}

}  // namespace

extern "C" {

DAXO_MetricSchemaContainer* DAXO_CreateMetricSchemaContainer(void) noexcept {
  auto* container =
      static_cast<DAXO_MetricSchemaContainer*>(calloc(1, sizeof(DAXO_MetricSchemaContainer)));
  if (container == nullptr) return nullptr;
  DAXO_Error err;
  JsonPtr body = daxo::NewObject(&err);
  json_object* array = body ? json_object_new_array() : nullptr;
  if (!body || daxo::AddMember(body.get(), "metrics", array) != DAXO_Error_Success) {
    free(container);
    return nullptr;
  }
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
  if (!Usable(container) || matchingId == nullptr || name == nullptr || unit == nullptr)
    return DAXO_Error_InvalidArguments;
  return AddEntry(container, {{"valueUnit", unit}, {"matchingId", matchingId}, {"name", name}});
}

DAXO_Error DAXO_AddCustomMetricSchema(DAXO_MetricSchemaContainer* container,
                                      const char* matchingId, const char* name,
                                      DAXO_ValueType valueType,
                                      const char* valueAnnotation) noexcept {
  const char* type = valueType != DAXO_ValueType_NoType ? GetValueTypeStr(valueType) : nullptr;
  if (!Usable(container) || matchingId == nullptr || name == nullptr ||
      valueAnnotation == nullptr || type == nullptr)
    return DAXO_Error_InvalidArguments;
  return AddEntry(container, {{"valueType", type},
                              {"valueAnnotation", valueAnnotation},
                              {"matchingId", matchingId},
                              {"name", name}});
}

DAXO_Error DAXO_AddMetricUpdateSchema(DAXO_MetricSchemaContainer* container, const char* metricId,
                                      const char* name, const char* valueAnnotation) noexcept {
  if (!Usable(container) || metricId == nullptr || (name == nullptr && valueAnnotation == nullptr))
    return DAXO_Error_InvalidArguments;
  return AddEntry(container,
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
  JsonPtr body = NewObject(&err);
  if (!body) return err;
  json_object* array = json_object_new_array();
  if (AddMember(body.get(), "metrics", array) != DAXO_Error_Success) return DAXO_Error_NoMemory;
  for (int i = 0; i < metricsCount; ++i) {
    JsonPtr element = NewObject(&err);
    if (!element) return err;
    if (AddMember(element.get(), "metricId", json_object_new_string(metricIds[i])) !=
        DAXO_Error_Success)
      return DAXO_Error_NoMemory;
    if (json_object_array_add(array, element.get()) != 0) return DAXO_Error_ComposeJson;
    element.release();
  }
  return Request(client, body.get(), "sensor/%s/metric/delete", sensorId);
}

}  // namespace daxo
