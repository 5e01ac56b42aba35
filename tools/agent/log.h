// One line per event on stdout, prefixed so that harnesses can tell the
// agent's lines from anything else they capture.
#ifndef DAXO_AGENT_LOG_H
#define DAXO_AGENT_LOG_H

#include <string>
#include <string_view>

namespace daxo_agent {

void Log(std::string_view line);

// A payload as it should appear in a log line: short single-line text
// verbatim, anything else as its size.
std::string DescribePayload(std::string_view payload);

}  // namespace daxo_agent

#endif
