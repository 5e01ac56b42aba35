#include "store.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <stdexcept>

namespace daxo_agent {
namespace {

// Short enough to type in a control command, long enough never to repeat
// among one client's sensors in practice; callers still check.
std::string RandomId(const char* prefix) {
  unsigned char bytes[4];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw std::runtime_error("no random bytes");
  char text[16];
  std::snprintf(text, sizeof text, "%s%02x%02x%02x%02x", prefix, bytes[0], bytes[1], bytes[2],
                bytes[3]);
  return text;
}

template <class Taken>
std::string UniqueId(const char* prefix, Taken taken) {
  for (;;) {
    std::string id = RandomId(prefix);
    if (!taken(id)) return id;
  }
}

void AddCertificate(json_object* client, const ClientRecord& record) {
  AddString(client, "requestedName", record.requestedName);
  AddString(client, "organisation", record.organisation);
  AddString(client, "serial", record.serial);
  AddString(client, "issuedAt", IsoTime(record.issuedAt));
  AddString(client, "notAfter", IsoTime(record.notAfter));
}

json_object* DescribeErrorReport(const ErrorReport& report) {
  json_object* object = json_object_new_object();
  if (report.sensorId) AddString(object, "sensorId", *report.sensorId);
  if (report.metricId) AddString(object, "metricId", *report.metricId);
  json_object_object_add(object, "errorcode", json_object_new_int(report.code));
  AddString(object, "errorMessage", report.message);
  json_object_object_add(object, "receivedAt", json_object_new_int64(report.receivedAt));
  return object;
}

// Works on the map and on a const map alike.
template <class SensorMap>
auto FindIn(SensorMap& sensors, const std::string& clientId, const std::string& sensorId)
    -> decltype(&sensors.begin()->second.front()) {
  auto client = sensors.find(clientId);
  if (client == sensors.end()) return nullptr;
  auto sensor = std::find_if(client->second.begin(), client->second.end(),
                             [&sensorId](const Sensor& s) { return s.id == sensorId; });
  return sensor == client->second.end() ? nullptr : &*sensor;
}

}  // namespace

std::string IsoTime(std::time_t t) {
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

std::string NewMetricId(const Sensor& sensor) {
  return UniqueId("m-", [&sensor](const std::string& id) {
    return std::any_of(sensor.metrics.begin(), sensor.metrics.end(),
                       [&id](const Metric& metric) { return metric.id == id; });
  });
}

bool Store::HasClient(const std::string& id) const {
  std::lock_guard lock(mutex_);
  return clients_.count(id) != 0;
}

std::optional<ClientRecord> Store::FindClient(const std::string& id) const {
  std::lock_guard lock(mutex_);
  auto record = clients_.find(id);
  if (record == clients_.end()) return std::nullopt;
  return record->second;
}

void Store::AddClient(ClientRecord record) {
  std::lock_guard lock(mutex_);
  std::string id = record.id;
  clients_.insert_or_assign(std::move(id), std::move(record));
}

bool Store::RemoveClient(const std::string& id) {
  std::lock_guard lock(mutex_);
  sensors_.erase(id);
  errorReports_.erase(id);
  return clients_.erase(id) != 0;
}

Sensor Store::AddSensor(const std::string& clientId, Sensor sensor) {
  std::lock_guard lock(mutex_);
  std::vector<Sensor>& sensors = sensors_[clientId];
  sensor.id = UniqueId("s-", [&sensors](const std::string& id) {
    return std::any_of(sensors.begin(), sensors.end(),
                       [&id](const Sensor& known) { return known.id == id; });
  });
  for (Metric& metric : sensor.metrics)
    if (metric.id.empty()) metric.id = NewMetricId(sensor);
  sensors.push_back(sensor);
  return sensor;
}

bool Store::ChangeSensor(const std::string& clientId, const std::string& sensorId,
                         const std::function<void(Sensor&)>& change) {
  std::lock_guard lock(mutex_);
  Sensor* sensor = FindIn(sensors_, clientId, sensorId);
  if (sensor != nullptr) change(*sensor);
  return sensor != nullptr;
}

bool Store::RemoveSensor(const std::string& clientId, const std::string& sensorId) {
  std::lock_guard lock(mutex_);
  auto client = sensors_.find(clientId);
  if (client == sensors_.end()) return false;
  std::size_t removed = std::erase_if(
      client->second, [&sensorId](const Sensor& sensor) { return sensor.id == sensorId; });
  return removed != 0;
}

std::optional<Sensor> Store::FindSensor(const std::string& clientId,
                                        const std::string& sensorId) const {
  std::lock_guard lock(mutex_);
  const Sensor* sensor = FindIn(sensors_, clientId, sensorId);
  if (sensor == nullptr) return std::nullopt;
  return *sensor;
}

std::vector<Sensor> Store::Sensors(const std::string& clientId) const {
  std::lock_guard lock(mutex_);
  auto client = sensors_.find(clientId);
  return client == sensors_.end() ? std::vector<Sensor>{} : client->second;
}

void Store::AddErrorReport(const std::string& clientId, ErrorReport report) {
  std::lock_guard lock(mutex_);
  std::vector<ErrorReport>& reports = errorReports_[clientId];
  if (reports.size() == kKeptErrorReports) reports.erase(reports.begin());
  reports.push_back(std::move(report));
}

JsonPtr Store::Registry() const {
  std::lock_guard lock(mutex_);
  std::set<std::string> ids;
  for (const auto& [id, record] : clients_) ids.insert(id);
  for (const auto& [id, sensors] : sensors_) ids.insert(id);
  for (const auto& [id, reports] : errorReports_) ids.insert(id);
  json_object* clients = json_object_new_array();
  for (const std::string& id : ids) {
    json_object* client = json_object_new_object();
    AddString(client, "id", id);
    if (auto record = clients_.find(id); record != clients_.end())
      AddCertificate(client, record->second);
    json_object* sensors = json_object_new_array();
    if (auto known = sensors_.find(id); known != sensors_.end())
      for (const Sensor& sensor : known->second)
        json_object_array_add(sensors, DescribeSensor(sensor, MetricDetail::kFull).release());
    json_object_object_add(client, "sensors", sensors);
    json_object* reports = json_object_new_array();
    if (auto known = errorReports_.find(id); known != errorReports_.end())
      for (const ErrorReport& report : known->second)
        json_object_array_add(reports, DescribeErrorReport(report));
    json_object_object_add(client, "errorReports", reports);
    json_object_array_add(clients, client);
  }
  JsonPtr root(json_object_new_object());
  json_object_object_add(root.get(), "clients", clients);
  return root;
}

std::string Store::ToJson() const { return PlainText(Registry().get()); }

}  // namespace daxo_agent
