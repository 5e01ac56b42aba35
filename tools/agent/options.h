// The agent's command line.
#ifndef DAXO_AGENT_OPTIONS_H
#define DAXO_AGENT_OPTIONS_H

#include <string>
#include <string_view>
#include <vector>

#include "agent.h"
#include "certificate_authority.h"
#include "dev_environment.h"

namespace daxo_agent {

struct Options {
  BrokerSettings broker{"localhost", 8883, {}, {}, {}, 30};
  std::string stateDir = "daxo-agent-state";
  int certDays = 365;       // provisioning
  int renewalDays = 365;    // renewal of a connected client's certificate
  std::string controlPath;  // empty: control.sock in stateDir
  std::string pushLog;      // empty: none
  // Where to read which authority the broker trusts for clients; empty: unknown.
  std::string brokerConfig;
  std::string clientCaFile;
  DevEnvironment init;  // for kInit
  // The words of a control command to send to a running agent.
  std::vector<std::string> command;

  std::string ControlPath() const {
    return controlPath.empty() ? stateDir + "/control.sock" : controlPath;
  }
};

// kControl: options.command holds a command for a running agent; kInit:
// options.init says what to write.
enum class ParseResult { kRun, kControl, kInit, kHelp, kError };

// On kError, error says what is wrong.
ParseResult ParseOptions(int argc, char** argv, Options& options, std::string& error);

const char* Usage();

// A whole decimal number from min to max, the whole of text.
bool ParseNumber(std::string_view text, int min, int max, int& out);

}  // namespace daxo_agent

#endif
