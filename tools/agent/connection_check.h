// The connection check: a client's "ping" is answered on its own tree so
// that the client learns that the whole round trip works.
#ifndef DAXO_AGENT_CONNECTION_CHECK_H
#define DAXO_AGENT_CONNECTION_CHECK_H

#include <vector>

#include "agent.h"

namespace daxo_agent {

std::vector<Route> ConnectionCheckRoutes();

}  // namespace daxo_agent

#endif
