// What the agent knows about its clients and their sensors. Everything lives
// in memory: a restarted agent starts empty, while the certificates it issued
// stay valid. The MQTT thread and the control thread share the store, so
// every member function takes its lock and hands out copies.
#ifndef DAXO_AGENT_STORE_H
#define DAXO_AGENT_STORE_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "openssl_handles.h"
#include "sensor_description.h"

namespace daxo_agent {

struct ClientRecord {
  std::string id;  // the issued common name, also the client's topic level
  std::string requestedName;
  std::string organisation;
  std::string serial;  // hexadecimal
  std::time_t issuedAt = 0;
  std::time_t notAfter = 0;
};

// An error that a client reported about itself, one of its sensors or one
// of their metrics; the agent only records it.
struct ErrorReport {
  std::optional<std::string> sensorId;
  std::optional<std::string> metricId;
  int code = 0;  // the client's own number, meaningless to the agent
  std::string message;
  std::int64_t receivedAt = 0;  // milliseconds since the epoch
};

// An id that no metric of the sensor has yet.
std::string NewMetricId(const Sensor& sensor);

// t in UTC as the registry shows times: 2030-12-31T00:00:00Z.
std::string IsoTime(std::time_t t);

class Store {
 public:
  bool HasClient(const std::string& id) const;
  std::optional<ClientRecord> FindClient(const std::string& id) const;
  void AddClient(ClientRecord record);
  // False when the id was not known. The client's sensors go with it.
  bool RemoveClient(const std::string& id);

  // Sensors are kept for any client id: a client may hold a certificate
  // from an earlier run of the agent. They keep the order of creation.
  //
  // Assigns the sensor's id, and the ids of its metrics that have none;
  // returns the sensor as stored.
  Sensor AddSensor(const std::string& clientId, Sensor sensor);
  // Runs change on the stored sensor under the lock; false when the sensor
  // is not known.
  bool ChangeSensor(const std::string& clientId, const std::string& sensorId,
                    const std::function<void(Sensor&)>& change);
  bool RemoveSensor(const std::string& clientId, const std::string& sensorId);
  std::optional<Sensor> FindSensor(const std::string& clientId, const std::string& sensorId) const;
  std::vector<Sensor> Sensors(const std::string& clientId) const;

  // Keeps the latest kKeptErrorReports per client, so that a client stuck
  // in a failure loop cannot grow the agent without bound.
  static constexpr std::size_t kKeptErrorReports = 100;
  void AddErrorReport(const std::string& clientId, ErrorReport report);

  // The whole registry, {"clients": [...]}, each client with the details of
  // its certificate when this run issued it, its sensors and metrics with
  // their last values, and its error reports: for demos and debugging.
  JsonPtr Registry() const;
  std::string ToJson() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, ClientRecord> clients_;
  std::map<std::string, std::vector<Sensor>> sensors_;
  std::map<std::string, std::vector<ErrorReport>> errorReports_;
};

}  // namespace daxo_agent

#endif
