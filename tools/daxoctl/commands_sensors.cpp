// sensors list|create|rename|delete.
#include "commands.h"
#include "session.h"

namespace daxoctl {
int SensorsList(const Options& options) {
  Session session(options);
  auto [reply, exit] = Ask(session, "listSensors", DAXO_ListSensors);
  if (!reply) return exit;
  std::vector<JsonObject> sensors;
  std::string text;
  for (const Sensor& sensor : reply->sensors) {
    sensors.push_back(SensorJson(sensor));
    text += (text.empty() ? "" : "\n") + sensor.id + "\t" + sensor.name;
    for (const std::string& metric : sensor.metrics) text += "\t" + metric;
  }
  if (text.empty()) text = "no sensors";
  session.Out().Result(session.Success().Add("sensors", sensors), text);
  return kOk;
}

int SensorsCreate(const Options& options) {
  Session session(options);
  const std::string& name = options.args[0];
  auto [reply, exit] = Ask(session, "createSensor", [&](DAXO_Client* client) {
    return DAXO_CreateSensor(client, name.c_str());
  });
  if (!reply) return exit;
  session.Out().Result(session.Success().Add("id", reply->sensorId).Add("name", reply->name),
                       reply->sensorId);
  return kOk;
}

int SensorsRename(const Options& options) {
  Session session(options);
  const std::string& id = options.args[0];
  const std::string& name = options.args[1];
  auto [reply, exit] = Ask(session, "updateSensor", [&](DAXO_Client* client) {
    return DAXO_UpdateSensor(client, id.c_str(), name.c_str());
  });
  if (!reply) return exit;
  session.Out().Result(session.Success().Add("id", id).Add("name", name),
                       "renamed " + id + " to " + name);
  return kOk;
}

int SensorsDelete(const Options& options) {
  Session session(options);
  const std::string& id = options.args[0];
  auto [reply, exit] = Ask(session, "deleteSensor", [&](DAXO_Client* client) {
    return DAXO_DeleteSensor(client, id.c_str());
  });
  if (!reply) return exit;
  session.Out().Result(session.Success().Add("id", id), "deleted " + id);
  return kOk;
}

}  // namespace daxoctl
