// The clients' sensor requests: create, rename, delete and list sensors, and
// describe one metric with its last value.
#ifndef DAXO_AGENT_SENSORS_H
#define DAXO_AGENT_SENSORS_H

#include <vector>

#include "agent.h"
#include "store.h"

namespace daxo_agent {

std::vector<Route> SensorRoutes(Store& store);

// The levels of a request below a client's tree, shared with the metric
// requests: "", "v1.0", client id, "sensor", sensor id, "metric", metric id.
const std::string& ClientOf(const Message& m);
const std::string& SensorOf(const Message& m);
ApiFault UnknownSensor(const Message& m);
ApiFault UnknownMetric(const Message& m, const std::string& metricId);

}  // namespace daxo_agent

#endif
