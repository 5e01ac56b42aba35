// The registry that "dump" answers with, for people: each client's sensors
// and the last value of each metric, rounded, with its local date and time.
#ifndef DAXO_AGENT_REGISTRY_TEXT_H
#define DAXO_AGENT_REGISTRY_TEXT_H

#include <json-c/json.h>

#include <string>

namespace daxo_agent {

// Lines ending in '\n'; the registry's "clients" member is read, the rest ignored.
std::string RegistryText(json_object* registry);

// A decimal value to six significant digits (5.5099999999999998 is 5.51,
// 0.004 stays 0.004); any other text as it is.
std::string RoundedValue(const std::string& text);

}  // namespace daxo_agent

#endif
