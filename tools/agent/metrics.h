// The clients' metric requests: define, change and delete a sensor's
// metrics, and take the values pushed for them.
//
// Every request is carried out whole or not at all: the first fault found
// in any entry refuses it, and nothing is stored.
//
// A pushed value must fit its metric, or the push is refused with the code
// that names what the value should have been:
//   standard metric (it has a value unit)   a number        else 8
//   custom "integer"                        a whole number  else 11
//   custom "double"                         a number        else 8
//   custom "bool"                           true or false   else 9
//   custom "string"                         a string        else 7
// A number that is not finite (json-c reads NaN and Infinity) and a
// "timestamp" before the epoch are refused with 27. The metric keeps the
// value as text (a string as itself, anything else as its JSON text) and the
// time of the push: its "timestamp" in milliseconds since the epoch, else
// the time the push arrived.
#ifndef DAXO_AGENT_METRICS_H
#define DAXO_AGENT_METRICS_H

#include <string>
#include <vector>

#include "agent.h"
#include "openssl_handles.h"
#include "store.h"

namespace daxo_agent {

// Every push the agent stores, one line each, as it arrived:
// "CLIENT_ID SENSOR_ID BODY". The dump keeps only the last value of each
// metric; this record shows whether a value came once, twice or never.
class PushLog {
 public:
  // Appends to path; throws std::runtime_error when it cannot be opened.
  explicit PushLog(const std::string& path);
  void Record(const Message& push);

 private:
  FilePtr file_;
};

// Must follow the sensor routes: the push filter, /v1.0/+/sensor/+, would
// also take the sensor creation request. pushLog may be null.
std::vector<Route> MetricRoutes(Store& store, PushLog* pushLog);

}  // namespace daxo_agent

#endif
