// The words of the command line for units, value types and values, and
// the names the library's result codes are printed with.
#ifndef DAXOCTL_VOCABULARY_H
#define DAXOCTL_VOCABULARY_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "daxo_client.h"

namespace daxoctl {

// Accepts the agent's unit names ("SI.Temperature.CELSIUS") and the short
// enumerator names ("SICelsius"), ignoring case.
std::optional<DAXO_ValueUnit> ParseUnit(std::string_view text);
std::string_view UnitName(DAXO_ValueUnit unit);  // the agent's name, "" for none
std::optional<DAXO_ValueType> ParseType(std::string_view text);
std::string_view TypeName(DAXO_ValueType type);

// A value as typed on the command line: an integer, a double, true/false,
// and anything else is a string.
using Value = std::variant<int64_t, double, bool, std::string>;
Value InferValue(const std::string& text);

// "DAXO_Error_NoMemory (5)".
std::string Describe(DAXO_Error err);
std::string Describe(DAXO_ApiError err);

}  // namespace daxoctl

#endif
