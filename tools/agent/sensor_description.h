// Sensors and metrics as the agent keeps them, and their JSON: the
// descriptions that clients receive, the fuller form of the registry dump,
// and the reading of definitions that arrive without the agent's ids.
#ifndef DAXO_AGENT_SENSOR_DESCRIPTION_H
#define DAXO_AGENT_SENSOR_DESCRIPTION_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "api.h"
#include "openssl_handles.h"

namespace daxo_agent {

// A standard metric has a value unit; a custom one a value type and an
// annotation instead.
struct Metric {
  std::string id;
  std::string name;
  std::string valueUnit;
  std::string valueType;
  std::string valueAnnotation;
  std::string lastValue;         // as text, whatever the value's type
  std::int64_t lastUpdated = 0;  // milliseconds since the epoch; 0 while no value came
};

struct Plugin {
  std::string name;
  std::string downloadUrl;
  std::string params;  // a JSON object as text; empty when there are none
};

// Either a plug-in or a monitoring service, or neither.
struct Sensor {
  std::string id;
  std::string name;
  std::optional<int> frequency;
  std::optional<std::string> monitoringService;
  std::optional<Plugin> plugin;
  std::vector<Metric> metrics;
};

enum class MetricDetail {
  kIds,   // what clients receive: {"metricId"} per metric
  kFull,  // each metric as DescribeMetric renders it
};

JsonPtr DescribeSensor(const Sensor& sensor, MetricDetail detail);
JsonPtr DescribeMetric(const Metric& metric);

// A metric definition: "name", and "valueUnit" or else "valueType" with
// "valueAnnotation"; other members are left to the caller. The id stays empty.
std::optional<Metric> ReadMetricDefinition(json_object* definition, ApiFault& fault);

// A sensor as it is given to the agent from outside: every member of a
// description except the ids, which are the agent's to assign; "metrics"
// holds metric definitions. Unknown members are refused, so that a
// misspelt one is not silently lost.
std::optional<Sensor> ReadSensorDefinition(json_object* definition, std::string& error);

}  // namespace daxo_agent

#endif
