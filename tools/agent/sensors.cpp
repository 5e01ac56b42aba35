#include "sensors.h"

namespace daxo_agent {

const std::string& ClientOf(const Message& m) { return m.levels.at(2); }
const std::string& SensorOf(const Message& m) { return m.levels.at(4); }

ApiFault UnknownSensor(const Message& m) {
  return {kUnknownSensorId, "unknown sensor \"" + SensorOf(m) + "\""};
}

ApiFault UnknownMetric(const Message& m, const std::string& metricId) {
  return {kUnknownMetricId, "sensor \"" + SensorOf(m) + "\" has no metric \"" + metricId + "\""};
}

namespace {

const std::string& MetricOf(const Message& m) { return m.levels.at(6); }

// Requests without parameters carry "{}"; a payload that is no JSON object
// comes from a broken client, which should learn so.
std::optional<ApiFault> CheckObject(const Message& m) {
  ApiFault fault;
  if (!ParseObject(m.payload, fault)) return fault;
  return std::nullopt;
}

std::optional<std::string> NameOf(const Message& m, ApiFault& fault) {
  JsonPtr body = ParseObject(m.payload, fault);
  if (!body) return std::nullopt;
  return StringMember(body.get(), "name", fault);
}

Answer Create(Store& store, const Message& m) {
  ApiFault fault;
  std::optional<std::string> name = NameOf(m, fault);
  if (!name) return fault;
  Sensor sensor;
  sensor.name = *name;
  sensor = store.AddSensor(ClientOf(m), std::move(sensor));
  JsonPtr body(json_object_new_object());
  json_object_object_add(body.get(), "name", NewJsonString(sensor.name));
  json_object_object_add(body.get(), "sensorId", NewJsonString(sensor.id));
  return PlainText(body.get());
}

Answer Rename(Store& store, const Message& m) {
  ApiFault fault;
  std::optional<std::string> name = NameOf(m, fault);
  if (!name) return fault;
  if (!store.ChangeSensor(ClientOf(m), SensorOf(m), [&name](Sensor& s) { s.name = *name; }))
    return UnknownSensor(m);
  return "{}";
}

Answer Delete(Store& store, const Message& m) {
  if (std::optional<ApiFault> fault = CheckObject(m)) return *fault;
  if (!store.RemoveSensor(ClientOf(m), SensorOf(m))) return UnknownSensor(m);
  return "{}";
}

Answer List(Store& store, const Message& m) {
  if (std::optional<ApiFault> fault = CheckObject(m)) return *fault;
  JsonPtr list(json_object_new_array());
  for (const Sensor& sensor : store.Sensors(ClientOf(m)))
    json_object_array_add(list.get(), DescribeSensor(sensor, MetricDetail::kIds).release());
  return PlainText(list.get());
}

Answer DescribeMetricRequest(Store& store, const Message& m) {
  if (std::optional<ApiFault> fault = CheckObject(m)) return *fault;
  std::optional<Sensor> sensor = store.FindSensor(ClientOf(m), SensorOf(m));
  if (!sensor) return UnknownSensor(m);
  for (const Metric& metric : sensor->metrics)
    if (metric.id == MetricOf(m)) return PlainText(DescribeMetric(metric).get());
  return UnknownMetric(m, MetricOf(m));
}

// Replies hang below the request's topic, except that a created sensor is
// announced on the sensor area itself, next to "create".
enum class ReplyBase { kRequest, kParent };

struct SensorRequest {
  const char* filter;
  ReplyBase base;
  const char* successSuffix;  // the error reply's is always "/error/inbox"
  Answer (*serve)(Store&, const Message&);
};

constexpr SensorRequest kRequests[] = {
    {"/v1.0/+/sensor/create", ReplyBase::kParent, "/inbox", Create},
    {"/v1.0/+/sensor/+/update", ReplyBase::kRequest, "/info/inbox", Rename},
    {"/v1.0/+/sensor/+/delete", ReplyBase::kRequest, "/info/inbox", Delete},
    {"/v1.0/+/inventory", ReplyBase::kRequest, "/inbox", List},
    {"/v1.0/+/sensor/+/metric/+/inventory", ReplyBase::kRequest, "/inbox", DescribeMetricRequest},
};

void Serve(const SensorRequest& request, Store& store, const Message& m, Outbox& out) {
  std::string base = m.topic;
  if (request.base == ReplyBase::kParent) base.erase(base.rfind('/'));
  out.PublishAnswer(base, request.successSuffix, request.serve(store, m));
}

}  // namespace

std::vector<Route> SensorRoutes(Store& store) {
  std::vector<Route> routes;
  for (const SensorRequest& request : kRequests)
    routes.push_back({request.filter, [&request, &store](const Message& m, Outbox& out) {
                        Serve(request, store, m, out);
                      }});
  return routes;
}

}  // namespace daxo_agent
