// The clients' sensor requests: create, rename, delete and list sensors, and
// describe one metric with its last value.
#ifndef DAXO_AGENT_SENSORS_H
#define DAXO_AGENT_SENSORS_H

#include <vector>

#include "agent.h"
#include "store.h"

namespace daxo_agent {

std::vector<Route> SensorRoutes(Store& store);

}  // namespace daxo_agent

#endif
