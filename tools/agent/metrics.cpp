#include "metrics.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>
#include <string_view>

#include "sensors.h"

namespace daxo_agent {
namespace {

Metric* FindMetric(Sensor& sensor, const std::string& metricId) {
  auto metric = std::find_if(sensor.metrics.begin(), sensor.metrics.end(),
                             [&metricId](const Metric& known) { return known.id == metricId; });
  return metric == sensor.metrics.end() ? nullptr : &*metric;
}

// Hands every entry of the body's "metrics" array to read, which returns
// false with fault set; the fault then says which entry it was.
template <class Read>
bool ReadEntries(json_object* body, ApiFault& fault, Read read) {
  json_object* entries = ArrayMember(body, "metrics", fault);
  if (entries == nullptr) return false;
  for (std::size_t i = 0; i < json_object_array_length(entries); ++i) {
    json_object* entry = json_object_array_get_idx(entries, i);
    if (!json_object_is_type(entry, json_type_object))
      fault = {kJsonIsNotAnObject, "not a JSON object"};
    else if (read(entry, fault))
      continue;
    fault.message = "metrics[" + std::to_string(i) + "]: " + fault.message;
    return false;
  }
  return true;
}

struct Definition {
  std::string matchingId;
  Metric metric;
};

Answer Create(Store& store, const Message& m) {
  ApiFault fault;
  JsonPtr body = ParseObject(m.payload, fault);
  std::vector<Definition> definitions;
  std::set<std::string> matchingIds;
  bool read =
      body && ReadEntries(body.get(), fault, [&](json_object* entry, ApiFault& f) {
        std::optional<Metric> metric = ReadMetricDefinition(entry, f);
        std::optional<std::string> matchingId;
        if (metric) matchingId = StringMember(entry, "matchingId", f);
        if (!matchingId) return false;
        // The reply pairs matching ids with metric ids, so they must differ.
        if (!matchingIds.insert(*matchingId).second) {
          f = {kCreateMetricsFailed, "\"matchingId\" \"" + *matchingId + "\" is used twice"};
          return false;
        }
        definitions.push_back({*matchingId, std::move(*metric)});
        return true;
      });
  if (!read) return fault;
  JsonPtr reply(json_object_new_array());
  bool known = store.ChangeSensor(ClientOf(m), SensorOf(m), [&](Sensor& sensor) {
    for (Definition& definition : definitions) {
      definition.metric.id = NewMetricId(sensor);
      sensor.metrics.push_back(definition.metric);
      json_object* pair = json_object_new_object();
      json_object_object_add(pair, "metricId", NewJsonString(definition.metric.id));
      json_object_object_add(pair, "matchingId", NewJsonString(definition.matchingId));
      json_object_array_add(reply.get(), pair);
    }
  });
  if (!known) return UnknownSensor(m);
  return PlainText(reply.get());
}

struct Change {
  std::string metricId;
  std::optional<std::string> name;
  std::optional<std::string> annotation;
};

bool ReadChange(json_object* entry, std::vector<Change>& changes, ApiFault& fault) {
  Change change;
  std::optional<std::string> id = StringMember(entry, "metricId", fault);
  if (!id) return false;
  change.metricId = *id;
  for (const char* fixed : {"valueUnit", "valueType"}) {
    if (!HasMember(entry, fixed)) continue;
    fault = {kChangeMetricsFailed, std::string("a metric's \"") + fixed + "\" cannot change"};
    return false;
  }
  if (!OptionalStringMember(entry, "name", change.name, fault) ||
      !OptionalStringMember(entry, "valueAnnotation", change.annotation, fault))
    return false;
  if (!change.name && !change.annotation) {
    fault = {kMissingParameter, "missing parameter \"name\" or \"valueAnnotation\""};
    return false;
  }
  changes.push_back(std::move(change));
  return true;
}

// True when target changed.
bool Assign(std::string& target, const std::optional<std::string>& value) {
  if (!value || target == *value) return false;
  target = *value;
  return true;
}

Answer Update(Store& store, const Message& m) {
  ApiFault fault;
  JsonPtr body = ParseObject(m.payload, fault);
  std::vector<Change> changes;
  if (!body || !ReadEntries(body.get(), fault, [&changes](json_object* entry, ApiFault& f) {
        return ReadChange(entry, changes, f);
      }))
    return fault;
  std::optional<ApiFault> refused;
  bool changed = false;
  bool known = store.ChangeSensor(ClientOf(m), SensorOf(m), [&](Sensor& sensor) {
    std::vector<Metric*> targets;
    for (const Change& change : changes) {
      Metric* metric = FindMetric(sensor, change.metricId);
      if (metric == nullptr)
        refused = UnknownMetric(m, change.metricId);
      else if (change.annotation && !metric->valueUnit.empty())
        refused = {kChangeMetricsFailed,
                   "metric \"" + change.metricId + "\" has a value unit, not an annotation"};
      if (refused) return;
      targets.push_back(metric);
    }
    for (std::size_t i = 0; i < changes.size(); ++i) {
      changed |= Assign(targets[i]->name, changes[i].name);
      changed |= Assign(targets[i]->valueAnnotation, changes[i].annotation);
    }
  });
  if (!known) return UnknownSensor(m);
  if (refused) return *refused;
  if (!changed) return ApiFault{kNoMetricsUpdated, "the metrics already are as requested"};
  return "{}";
}

Answer Delete(Store& store, const Message& m) {
  ApiFault fault;
  JsonPtr body = ParseObject(m.payload, fault);
  std::vector<std::string> ids;
  bool read = body && ReadEntries(body.get(), fault, [&ids](json_object* entry, ApiFault& f) {
                std::optional<std::string> id = StringMember(entry, "metricId", f);
                if (!id) return false;
                // The second deletion of a metric could only fail.
                if (std::find(ids.begin(), ids.end(), *id) != ids.end()) {
                  f = {kDeleteMetricsFailed, "metric \"" + *id + "\" is named twice"};
                  return false;
                }
                ids.push_back(*id);
                return true;
              });
  if (!read) return fault;
  std::optional<ApiFault> refused;
  bool known = store.ChangeSensor(ClientOf(m), SensorOf(m), [&](Sensor& sensor) {
    for (const std::string& id : ids) {
      if (FindMetric(sensor, id) != nullptr) continue;
      refused = UnknownMetric(m, id);
      return;
    }
    std::erase_if(sensor.metrics, [&ids](const Metric& metric) {
      return std::find(ids.begin(), ids.end(), metric.id) != ids.end();
    });
  });
  if (!known) return UnknownSensor(m);
  if (refused) return *refused;
  return "{}";
}

bool IsNumber(json_type type) { return type == json_type_int || type == json_type_double; }

struct ValueRule {
  std::string_view valueType;  // empty: a standard metric, a quantity in its unit
  bool (*fits)(json_type type);
  int code;
  const char* wanted;
};

constexpr ValueRule kValueRules[] = {
    {"", IsNumber, kParameterIsNotANumber, "a number"},
    {"integer", [](json_type t) { return t == json_type_int; }, kParameterIsNotAnInteger,
     "a whole number"},
    {"double", IsNumber, kParameterIsNotANumber, "a number"},
    {"bool", [](json_type t) { return t == json_type_boolean; }, kParameterIsNotABool,
     "true or false"},
    {"string", [](json_type t) { return t == json_type_string; }, kParameterIsNotAString,
     "a string"},
};

std::optional<ApiFault> Misfit(const Metric& metric, json_object* value) {
  std::string_view type = metric.valueUnit.empty() ? std::string_view(metric.valueType) : "";
  const ValueRule* rule = std::find_if(std::begin(kValueRules), std::end(kValueRules),
                                       [type](const ValueRule& r) { return r.valueType == type; });
  if (rule == std::end(kValueRules))
    return ApiFault{kInternalError, "metric \"" + metric.id + "\" has no known type"};
  if (!rule->fits(json_object_get_type(value)))
    return ApiFault{rule->code, "metric \"" + metric.id + "\" takes " + rule->wanted};
  if (json_object_is_type(value, json_type_double) && !std::isfinite(json_object_get_double(value)))
    return ApiFault{kPushValuesFailed, "metric \"" + metric.id + "\" takes finite numbers only"};
  return std::nullopt;
}

struct PushedValue {
  std::string metricId;
  json_object* value;  // owned by the request body
};

// The push's "timestamp", or the arrival time when it has none.
std::optional<std::int64_t> PushTime(json_object* body, ApiFault& fault) {
  json_object* timestamp = nullptr;
  if (!json_object_object_get_ex(body, "timestamp", &timestamp)) return NowMillis();
  if (!json_object_is_type(timestamp, json_type_int)) {
    fault = {kParameterIsNotAnInteger, "parameter \"timestamp\" is not an integer"};
    return std::nullopt;
  }
  if (json_object_get_int64(timestamp) < 0) {
    fault = {kPushValuesFailed, "\"timestamp\" lies before the epoch"};
    return std::nullopt;
  }
  return json_object_get_int64(timestamp);
}

std::string ValueText(json_object* value) {
  if (json_object_is_type(value, json_type_string))
    return {json_object_get_string(value),
            static_cast<std::size_t>(json_object_get_string_len(value))};
  // A parsed double keeps the text it was sent as, so "21.50" stays so.
  return PlainText(value);
}

Answer Push(Store& store, const Message& m) {
  ApiFault fault;
  JsonPtr body = ParseObject(m.payload, fault);
  std::vector<PushedValue> values;
  bool read = body && ReadEntries(body.get(), fault, [&values](json_object* entry, ApiFault& f) {
                std::optional<std::string> id = StringMember(entry, "metricId", f);
                if (!id) return false;
                json_object* value = nullptr;  // stays null for JSON null, which fits no metric
                if (!RequiredMember(entry, "value", value, f)) return false;
                values.push_back({*id, value});
                return true;
              });
  std::optional<std::int64_t> time;
  if (read) time = PushTime(body.get(), fault);
  if (!time) return fault;
  std::optional<ApiFault> refused;
  bool known = store.ChangeSensor(ClientOf(m), SensorOf(m), [&](Sensor& sensor) {
    std::vector<Metric*> targets;
    for (const PushedValue& pushed : values) {
      Metric* metric = FindMetric(sensor, pushed.metricId);
      refused =
          metric == nullptr ? UnknownMetric(m, pushed.metricId) : Misfit(*metric, pushed.value);
      if (refused) return;
      targets.push_back(metric);
    }
    // In push order, so that the later of two values for one metric stays.
    for (std::size_t i = 0; i < values.size(); ++i) {
      targets[i]->lastValue = ValueText(values[i].value);
      targets[i]->lastUpdated = *time;
    }
  });
  if (!known) return UnknownSensor(m);
  if (refused) return *refused;
  return "{}";
}

struct MetricRequest {
  const char* filter;
  const char* successSuffix;  // below the request's topic, as is "/error/inbox"
  Answer (*serve)(Store&, const Message&);
};

constexpr MetricRequest kRequests[] = {
    {"/v1.0/+/sensor/+/metric", "/inbox", Create},
    {"/v1.0/+/sensor/+/metric/update", "/info/inbox", Update},
    {"/v1.0/+/sensor/+/metric/delete", "/info/inbox", Delete},
    {"/v1.0/+/sensor/+", "/info/inbox", Push},
};

}  // namespace

PushLog::PushLog(const std::string& path) : file_(std::fopen(path.c_str(), "a")) {
  if (file_ == nullptr) throw std::runtime_error("cannot open the push log " + path);
}

void PushLog::Record(const Message& push) {
  std::string body = push.payload;
  std::replace_if(
      body.begin(), body.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  std::fprintf(file_.get(), "%s %s %s\n", ClientOf(push).c_str(), SensorOf(push).c_str(),
               body.c_str());
  // Written before the answer goes out: a client that has its answer finds the line.
  std::fflush(file_.get());
}

std::vector<Route> MetricRoutes(Store& store, PushLog* pushLog) {
  std::vector<Route> routes;
  for (const MetricRequest& request : kRequests)
    routes.push_back({request.filter, [&request, &store, pushLog](const Message& m, Outbox& out) {
                        // The agent's own reply to a created sensor,
                        // /v1.0/<id>/sensor/inbox, comes back on the push filter.
                        if (request.serve == Push && SensorOf(m) == "inbox") return;
                        Answer answer = request.serve(store, m);
                        if (request.serve == Push && pushLog != nullptr &&
                            std::holds_alternative<std::string>(answer))
                          pushLog->Record(m);
                        out.PublishAnswer(m.topic, request.successSuffix, answer);
                      }});
  return routes;
}

}  // namespace daxo_agent
