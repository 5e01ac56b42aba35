// The agent's command line.
#ifndef DAXO_AGENT_OPTIONS_H
#define DAXO_AGENT_OPTIONS_H

#include <string>

#include "agent.h"

namespace daxo_agent {

struct Options {
  BrokerSettings broker{"localhost", 8883, {}, {}, {}, 30};
  std::string stateDir = "daxo-agent-state";
  int certDays = 365;
};

enum class ParseResult { kRun, kHelp, kError };

// On kError, error says what is wrong.
ParseResult ParseOptions(int argc, char** argv, Options& options, std::string& error);

const char* Usage();

}  // namespace daxo_agent

#endif
