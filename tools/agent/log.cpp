#include "log.h"

#include <algorithm>
#include <cstdio>

namespace daxo_agent {

void Log(std::string_view line) {
  std::printf("daxo-agent: %.*s\n", static_cast<int>(line.size()), line.data());
  // Harnesses read stdout through a pipe and wait on these lines.
  std::fflush(stdout);
}

std::string DescribePayload(std::string_view payload) {
  constexpr std::size_t kMaxShown = 120;
  if (payload.empty()) return "(empty)";
  bool printable = std::all_of(payload.begin(), payload.end(),
                               [](unsigned char c) { return c >= 0x20 && c != 0x7f; });
  if (printable && payload.size() <= kMaxShown) return std::string(payload);
  return "(" + std::to_string(payload.size()) + " bytes)";
}

}  // namespace daxo_agent
