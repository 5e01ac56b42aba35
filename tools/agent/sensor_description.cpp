#include "sensor_description.h"

#include <algorithm>
#include <climits>
#include <string_view>

namespace daxo_agent {
namespace {

// The vocabulary the client library translates its enumerations into; its
// "No_Unit" and "Non" entries mean that nothing was chosen, so they are absent.
constexpr std::string_view kValueUnits[] = {
    "SI.ElectricCurrent.AMPERE",
    "SI.DataAmount.BIT",
    "SI.LuminousIntensity.CANDELA",
    "SI.Temperature.CELSIUS",
    "SI.ElectricCapacitance.FARAD",
    "SI.Mass.KILOGRAM",
    "SI.Frequency.HERTZ",
    "SI.Energy.JOULE",
    "SI.Length.METER",
    "SI.Velocity.METERS_PER_SECOND",
    "SI.Acceleration.METERS_PER_SQUARE_SECOND",
    "SI.AmountOfSubstance.MOLE",
    "SI.Force.NEWTON",
    "SI.ElectricResistance.OHM",
    "SI.Pressure.PASCAL",
    "SI.Angle.RADIAN",
    "SI.Duration.SECOND",
    "SI.Area.SQUARE_METRE",
    "SI.ElectricPotential.VOLT",
    "SI.Power.WATT",
    "NoSI.Dimensionless.DECIBEL",
    "NoSI.Dimensionless.PERCENT",
};
constexpr std::string_view kValueTypes[] = {"integer", "double", "bool", "string"};

constexpr std::string_view kSensorMembers[] = {
    "name",         "frequency", "monitoringService", "pluginName", "pluginDownloadUrl",
    "pluginParams", "metrics",
};

template <std::size_t N>
bool Contains(const std::string_view (&words)[N], std::string_view word) {
  return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

// Leaves out absent; false, with error set, when the member is not a string.
bool ReadOptionalString(json_object* object, const char* key, std::optional<std::string>& out,
                        std::string& error) {
  ApiFault fault;
  if (OptionalStringMember(object, key, out, fault)) return true;
  error = fault.message;
  return false;
}

bool ReadFrequency(json_object* definition, Sensor& sensor, std::string& error) {
  json_object* member = nullptr;
  if (!json_object_object_get_ex(definition, "frequency", &member)) return true;
  std::int64_t value = json_object_get_int64(member);
  // Clients read it as a 32-bit number, and 0 there means "not given".
  if (!json_object_is_type(member, json_type_int) || value < 1 || value > INT_MAX) {
    error = "\"frequency\" must be a whole number from 1 to " + std::to_string(INT_MAX);
    return false;
  }
  sensor.frequency = static_cast<int>(value);
  return true;
}

// Parameters are name/value pairs; clients skip empty names and read values
// as text, so nested values and null would not survive the trip.
bool ReadPluginParams(json_object* params, Plugin& plugin, std::string& error) {
  if (!json_object_is_type(params, json_type_object)) {
    error = "\"pluginParams\" must be a JSON object";
    return false;
  }
  json_object_object_foreach(params, key, value) {
    json_type type = json_object_get_type(value);
    bool scalar = type == json_type_string || type == json_type_int || type == json_type_double ||
                  type == json_type_boolean;
    if (*key == '\0' || !scalar) {
      error = "plug-in parameter \"" + std::string(key) +
              "\" needs a name and a string, number or boolean value";
      return false;
    }
  }
  if (json_object_object_length(params) > 0) plugin.params = PlainText(params);
  return true;
}

bool ReadPlugin(json_object* definition, Sensor& sensor, std::string& error) {
  std::optional<std::string> name, url;
  if (!ReadOptionalString(definition, "pluginName", name, error) ||
      !ReadOptionalString(definition, "pluginDownloadUrl", url, error))
    return false;
  json_object* params = nullptr;
  bool hasParams = json_object_object_get_ex(definition, "pluginParams", &params);
  if (!name) {
    if (url || hasParams) error = "\"pluginDownloadUrl\" and \"pluginParams\" need \"pluginName\"";
    return !url && !hasParams;
  }
  if (!url) {
    error = "a plug-in sensor needs \"pluginDownloadUrl\"";
    return false;
  }
  if (sensor.monitoringService) {
    error = "a sensor has either \"pluginName\" or \"monitoringService\", not both";
    return false;
  }
  Plugin plugin{*name, *url, {}};
  if (hasParams && !ReadPluginParams(params, plugin, error)) return false;
  sensor.plugin = std::move(plugin);
  return true;
}

bool ReadMetricDefinitions(json_object* definition, Sensor& sensor, std::string& error) {
  json_object* metrics = nullptr;
  if (!json_object_object_get_ex(definition, "metrics", &metrics) ||
      !json_object_is_type(metrics, json_type_array)) {
    error = "\"metrics\" must be an array of metric definitions (it may be empty)";
    return false;
  }
  for (std::size_t i = 0; i < json_object_array_length(metrics); ++i) {
    ApiFault fault;
    std::optional<Metric> metric =
        ReadMetricDefinition(json_object_array_get_idx(metrics, i), fault);
    if (!metric) {
      error = "metric " + std::to_string(i) + ": " + fault.message;
      return false;
    }
    sensor.metrics.push_back(std::move(*metric));
  }
  return true;
}

bool CheckMembers(json_object* definition, std::string& error) {
  json_object_object_foreach(definition, key, value) {
    (void)value;
    if (Contains(kSensorMembers, key)) continue;
    error = "unknown member \"" + std::string(key) + "\"";
    if (std::string_view(key) == "sensorId") error += ": the agent assigns sensor ids";
    return false;
  }
  return true;
}

}  // namespace

JsonPtr DescribeMetric(const Metric& metric) {
  JsonPtr object(json_object_new_object());
  AddString(object.get(), "metricId", metric.id);
  if (!metric.valueUnit.empty()) {
    AddString(object.get(), "valueUnit", metric.valueUnit);
  } else {
    AddString(object.get(), "valueType", metric.valueType);
    AddString(object.get(), "valueAnnotation", metric.valueAnnotation);
  }
  json_object_object_add(object.get(), "lastUpdated", json_object_new_int64(metric.lastUpdated));
  AddString(object.get(), "value", metric.lastValue);
  AddString(object.get(), "name", metric.name);
  return object;
}

JsonPtr DescribeSensor(const Sensor& sensor, MetricDetail detail) {
  JsonPtr object(json_object_new_object());
  AddString(object.get(), "name", sensor.name);
  AddString(object.get(), "sensorId", sensor.id);
  if (sensor.frequency)
    json_object_object_add(object.get(), "frequency", json_object_new_int(*sensor.frequency));
  if (sensor.plugin) {
    AddString(object.get(), "pluginName", sensor.plugin->name);
    AddString(object.get(), "pluginDownloadUrl", sensor.plugin->downloadUrl);
    if (!sensor.plugin->params.empty())
      json_object_object_add(object.get(), "pluginParams",
                             json_tokener_parse(sensor.plugin->params.c_str()));
  } else if (sensor.monitoringService) {
    AddString(object.get(), "monitoringService", *sensor.monitoringService);
  }
  json_object* metrics = json_object_new_array();
  for (const Metric& metric : sensor.metrics) {
    JsonPtr entry;
    if (detail == MetricDetail::kFull) {
      entry = DescribeMetric(metric);
    } else {
      entry.reset(json_object_new_object());
      AddString(entry.get(), "metricId", metric.id);
    }
    json_object_array_add(metrics, entry.release());
  }
  json_object_object_add(object.get(), "metrics", metrics);
  return object;
}

std::optional<Metric> ReadMetricDefinition(json_object* definition, ApiFault& fault) {
  if (!json_object_is_type(definition, json_type_object)) {
    fault = {kJsonIsNotAnObject, "a metric definition must be a JSON object"};
    return std::nullopt;
  }
  Metric metric;
  std::optional<std::string> name = StringMember(definition, "name", fault);
  if (!name) return std::nullopt;
  metric.name = *name;
  if (HasMember(definition, "valueUnit") == HasMember(definition, "valueType")) {
    fault = {kValueUnitOrValueTypeHasToBeProvided,
             "a metric has either \"valueUnit\" or \"valueType\""};
    return std::nullopt;
  }
  if (HasMember(definition, "valueUnit")) {
    std::optional<std::string> unit = StringMember(definition, "valueUnit", fault);
    if (!unit) return std::nullopt;
    if (!Contains(kValueUnits, *unit)) {
      fault = {kUnknownValueUnit, "unknown value unit \"" + *unit + "\""};
      return std::nullopt;
    }
    metric.valueUnit = *unit;
    return metric;
  }
  std::optional<std::string> type = StringMember(definition, "valueType", fault);
  if (!type) return std::nullopt;
  if (!Contains(kValueTypes, *type)) {
    fault = {kUnknownMetricType, "unknown value type \"" + *type + "\""};
    return std::nullopt;
  }
  std::optional<std::string> annotation = StringMember(definition, "valueAnnotation", fault);
  if (!annotation) return std::nullopt;
  metric.valueType = *type;
  metric.valueAnnotation = *annotation;
  return metric;
}

std::optional<Sensor> ReadSensorDefinition(json_object* definition, std::string& error) {
  if (!json_object_is_type(definition, json_type_object)) {
    error = "a sensor definition must be a JSON object";
    return std::nullopt;
  }
  if (!CheckMembers(definition, error)) return std::nullopt;
  Sensor sensor;
  ApiFault fault;
  std::optional<std::string> name = StringMember(definition, "name", fault);
  if (!name) {
    error = fault.message;
    return std::nullopt;
  }
  sensor.name = *name;
  if (!ReadFrequency(definition, sensor, error) ||
      !ReadOptionalString(definition, "monitoringService", sensor.monitoringService, error) ||
      !ReadPlugin(definition, sensor, error) || !ReadMetricDefinitions(definition, sensor, error))
    return std::nullopt;
  return sensor;
}

}  // namespace daxo_agent
