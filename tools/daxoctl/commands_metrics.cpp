// metrics define|update|delete|describe.
#include <memory>

#include "commands.h"
#include "session.h"
#include "vocabulary.h"

namespace daxoctl {
namespace {

struct SchemaFree {
  void operator()(DAXO_MetricSchemaContainer* c) const { DAXO_DestroyMetricSchemaContainer(c); }
};
using Schema = std::unique_ptr<DAXO_MetricSchemaContainer, SchemaFree>;

// Adds "name:UNIT" or "name:TYPE:annotation"; the message on failure. The
// metric's name is its matching id, so the reply pairs names with ids.
std::optional<std::string> AddDefinition(DAXO_MetricSchemaContainer* schema,
                                         const std::string& definition) {
  size_t first = definition.find(':');
  if (first == std::string::npos || first == 0)
    return "\"" + definition + "\" is neither name:UNIT nor name:TYPE:ANNOTATION";
  std::string name = definition.substr(0, first);
  size_t second = definition.find(':', first + 1);
  std::string kind = definition.substr(first + 1, second - first - 1);
  DAXO_Error err;
  if (second == std::string::npos) {
    std::optional<DAXO_ValueUnit> unit = ParseUnit(kind);
    if (!unit) return "unknown unit \"" + kind + "\" in \"" + definition + "\"";
    err = DAXO_AddStandardMetricSchema(schema, name.c_str(), name.c_str(), *unit);
  } else {
    std::optional<DAXO_ValueType> type = ParseType(kind);
    if (!type) return "unknown type \"" + kind + "\" (integer, double, bool or string)";
    std::string annotation = definition.substr(second + 1);
    err = DAXO_AddCustomMetricSchema(schema, name.c_str(), name.c_str(), *type, annotation.c_str());
  }
  if (err != DAXO_Error_Success) return "cannot add \"" + definition + "\": " + Describe(err);
  return std::nullopt;
}

JsonObject MetricJson(const Metric& metric) {
  JsonObject json;
  json.Add("id", metric.id).Add("name", metric.name);
  if (metric.unit != DAXO_ValueUnit_NoUnit) json.Add("unit", UnitName(metric.unit));
  if (metric.type != DAXO_ValueType_NoType) json.Add("type", TypeName(metric.type));
  if (metric.annotation) json.Add("annotation", *metric.annotation);
  json.Add("value", metric.value ? metric.value->c_str() : nullptr);
  return json.Add("lastUpdated", metric.lastUpdated);
}

std::string MetricText(const Metric& metric) {
  std::string text = "id\t" + metric.id + "\nname\t" + metric.name;
  if (metric.unit != DAXO_ValueUnit_NoUnit) text += "\nunit\t" + std::string(UnitName(metric.unit));
  if (metric.type != DAXO_ValueType_NoType) text += "\ntype\t" + std::string(TypeName(metric.type));
  if (metric.annotation) text += "\nannotation\t" + *metric.annotation;
  text += "\nvalue\t" + metric.value.value_or("(none)");
  return text + "\nlastUpdated\t" + std::to_string(metric.lastUpdated);
}

}  // namespace

int MetricsDefine(const Options& options) {
  Printer out(options);
  Schema schema(DAXO_CreateMetricSchemaContainer());
  if (!schema) return out.Failure(kFailed, "out of memory");
  for (size_t i = 1; i < options.args.size(); ++i)
    if (std::optional<std::string> error = AddDefinition(schema.get(), options.args[i]))
      return out.Failure(kUsage, *error);
  Session session(options);
  const std::string& sensor = options.args[0];
  auto [reply, exit] = Ask(session, "createMetrics", [&](DAXO_Client* client) {
    return DAXO_CreateMetrics(client, sensor.c_str(), schema.get());
  });
  if (!reply) return exit;
  for (const auto& [name, id] : reply->created)
    session.Out().Result(session.Success().Add("sensor", sensor).Add("name", name).Add("id", id),
                         name + "\t" + id);
  return kOk;
}

int MetricsUpdate(const Options& options) {
  Printer out(options);
  std::optional<std::string> name = options.Named("name");
  std::optional<std::string> annotation = options.Named("annotation");
  if (!name && !annotation) return out.Failure(kUsage, "give --name, --annotation or both");
  Schema schema(DAXO_CreateMetricSchemaContainer());
  if (!schema) return out.Failure(kFailed, "out of memory");
  const std::string& sensor = options.args[0];
  const std::string& metric = options.args[1];
  DAXO_Error added = DAXO_AddMetricUpdateSchema(schema.get(), metric.c_str(),
                                                name ? name->c_str() : nullptr,
                                                annotation ? annotation->c_str() : nullptr);
  if (added != DAXO_Error_Success)
    return out.Failure(kFailed, "cannot describe the change: " + Describe(added),
                       DAXO_ErrorName(added), added);
  Session session(options);
  auto [reply, exit] = Ask(session, "updateMetrics", [&](DAXO_Client* client) {
    return DAXO_UpdateMetrics(client, sensor.c_str(), schema.get());
  });
  if (!reply) return exit;
  session.Out().Result(session.Success().Add("sensor", sensor).Add("id", metric),
                       "updated " + metric);
  return kOk;
}

int MetricsDelete(const Options& options) {
  Session session(options);
  const std::string& sensor = options.args[0];
  std::vector<char*> ids;
  std::vector<std::string> names(options.args.begin() + 1, options.args.end());
  for (std::string& id : names) ids.push_back(id.data());
  auto [reply, exit] = Ask(session, "deleteMetrics", [&](DAXO_Client* client) {
    return DAXO_DeleteMetrics(client, sensor.c_str(), ids.data(), static_cast<int>(ids.size()));
  });
  if (!reply) return exit;
  session.Out().Result(session.Success().Add("sensor", sensor).Add("ids", names),
                       "deleted " + std::to_string(names.size()) + " metric(s)");
  return kOk;
}

int MetricsDescribe(const Options& options) {
  Session session(options);
  const std::string& sensor = options.args[0];
  const std::string& metric = options.args[1];
  auto [reply, exit] = Ask(session, "describeMetric", [&](DAXO_Client* client) {
    return DAXO_DescribeMetric(client, sensor.c_str(), metric.c_str());
  });
  if (!reply) return exit;
  if (!reply->metric) return session.Out().Failure(kFailed, "the agent's reply held no metric");
  session.Out().Result(session.Success().Add("sensor", sensor).Add("metric",
                                                                   MetricJson(*reply->metric)),
                       MetricText(*reply->metric));
  return kOk;
}

}  // namespace daxoctl
