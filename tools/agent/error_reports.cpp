#include "error_reports.h"

#include <climits>

#include "log.h"

namespace daxo_agent {
namespace {

struct ReportLevel {
  const char* filter;
  const char* codeMember;
  bool aboutSensor;  // the sensor id is level 4
  bool aboutMetric;  // the metric id is level 6
};

constexpr ReportLevel kLevels[] = {
    // Clients spell the client-level member so; the agent takes it as sent.
    {"/v1.0/+/error", "errocode", false, false},
    {"/v1.0/+/sensor/+/error", "errorcode", true, false},
    {"/v1.0/+/sensor/+/metric/+/error", "errorcode", true, true},
};

std::optional<int> IntMember(json_object* object, const char* key, ApiFault& fault) {
  json_object* member = nullptr;
  if (!RequiredMember(object, key, member, fault)) return std::nullopt;
  std::int64_t value = json_object_get_int64(member);
  if (!json_object_is_type(member, json_type_int) || value < INT_MIN || value > INT_MAX) {
    fault = {kParameterIsNotAnInteger,
             std::string("parameter \"") + key + "\" is not a 32-bit integer"};
    return std::nullopt;
  }
  return static_cast<int>(value);
}

void Record(Store& store, const ReportLevel& level, const Message& m) {
  ApiFault fault;
  JsonPtr body = ParseObject(m.payload, fault);
  std::optional<int> code;
  std::optional<std::string> message;
  if (body) code = IntMember(body.get(), level.codeMember, fault);
  if (code) message = StringMember(body.get(), "errorMessage", fault);
  if (!message) {
    Log("dropped the error report on " + m.topic + ": " + fault.message);
    return;
  }
  ErrorReport report;
  if (level.aboutSensor) report.sensorId = m.levels.at(4);
  if (level.aboutMetric) report.metricId = m.levels.at(6);
  report.code = *code;
  report.message = std::move(*message);
  report.receivedAt = NowMillis();
  store.AddErrorReport(m.levels.at(2), std::move(report));
}

}  // namespace

std::vector<Route> ErrorReportRoutes(Store& store) {
  std::vector<Route> routes;
  for (const ReportLevel& level : kLevels)
    routes.push_back(
        {level.filter, [&level, &store](const Message& m, Outbox&) { Record(store, level, m); }});
  return routes;
}

}  // namespace daxo_agent
