// The errors that clients report about themselves, a sensor or a metric.
// The agent records them for the control command `dump` and answers none:
// a report that cannot be read is logged and dropped.
#ifndef DAXO_AGENT_ERROR_REPORTS_H
#define DAXO_AGENT_ERROR_REPORTS_H

#include <vector>

#include "agent.h"
#include "store.h"

namespace daxo_agent {

std::vector<Route> ErrorReportRoutes(Store& store);

}  // namespace daxo_agent

#endif
