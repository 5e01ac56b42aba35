#include "vocabulary.h"

#include <strings.h>

#include <array>
#include <cerrno>
#include <cstdlib>

namespace daxoctl {
namespace {

struct UnitRow {
  std::string_view name;
  std::string_view shortName;
  DAXO_ValueUnit unit;
};

constexpr std::array<UnitRow, 22> kUnits{{
    {"SI.ElectricCurrent.AMPERE", "SIAmpere", DAXO_ValueUnit_SIAmpere},
    {"SI.DataAmount.BIT", "SIBit", DAXO_ValueUnit_SIBit},
    {"SI.LuminousIntensity.CANDELA", "SICandela", DAXO_ValueUnit_SICandela},
    {"SI.Temperature.CELSIUS", "SICelsius", DAXO_ValueUnit_SICelsius},
    {"SI.ElectricCapacitance.FARAD", "SIFarad", DAXO_ValueUnit_SIFarad},
    {"SI.Mass.KILOGRAM", "SIKilogram", DAXO_ValueUnit_SIKilogram},
    {"SI.Frequency.HERTZ", "SIHertz", DAXO_ValueUnit_SIHertz},
    {"SI.Energy.JOULE", "SIJoule", DAXO_ValueUnit_SIJoule},
    {"SI.Length.METER", "SIMeter", DAXO_ValueUnit_SIMeter},
    {"SI.Velocity.METERS_PER_SECOND", "SIMetersPerSecond", DAXO_ValueUnit_SIMetersPerSecond},
    {"SI.Acceleration.METERS_PER_SQUARE_SECOND", "SIMetersPerSquareSecond",
     DAXO_ValueUnit_SIMetersPerSquareSecond},
    {"SI.AmountOfSubstance.MOLE", "SIMole", DAXO_ValueUnit_SIMole},
    {"SI.Force.NEWTON", "SINewtone", DAXO_ValueUnit_SINewtone},
    {"SI.ElectricResistance.OHM", "SIOhm", DAXO_ValueUnit_SIOhm},
    {"SI.Pressure.PASCAL", "SIPascal", DAXO_ValueUnit_SIPascal},
    {"SI.Angle.RADIAN", "SIRadian", DAXO_ValueUnit_SIRadian},
    {"SI.Duration.SECOND", "SISecond", DAXO_ValueUnit_SISecond},
    {"SI.Area.SQUARE_METRE", "SISquareMeter", DAXO_ValueUnit_SISquareMeter},
    {"SI.ElectricPotential.VOLT", "SIVolt", DAXO_ValueUnit_SIVolt},
    {"SI.Power.WATT", "SIWatt", DAXO_ValueUnit_SIWatt},
    {"NoSI.Dimensionless.DECIBEL", "NoSIDecibel", DAXO_ValueUnit_NoSIDecibel},
    {"NoSI.Dimensionless.PERCENT", "NoSIPercent", DAXO_ValueUnit_NoSIPercent},
}};

struct TypeRow {
  std::string_view name;
  DAXO_ValueType type;
};

constexpr std::array<TypeRow, 4> kTypes{{
    {"integer", DAXO_ValueType_Integer},
    {"double", DAXO_ValueType_Double},
    {"bool", DAXO_ValueType_Bool},
    {"string", DAXO_ValueType_String},
}};

bool SameWord(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

std::optional<DAXO_ValueUnit> ParseUnit(std::string_view text) {
  for (const UnitRow& row : kUnits)
    if (SameWord(text, row.name) || SameWord(text, row.shortName)) return row.unit;
  return std::nullopt;
}

std::string_view UnitName(DAXO_ValueUnit unit) {
  for (const UnitRow& row : kUnits)
    if (row.unit == unit) return row.name;
  return "";
}

std::optional<DAXO_ValueType> ParseType(std::string_view text) {
  for (const TypeRow& row : kTypes)
    if (SameWord(text, row.name)) return row.type;
  return std::nullopt;
}

std::string_view TypeName(DAXO_ValueType type) {
  for (const TypeRow& row : kTypes)
    if (row.type == type) return row.name;
  return "";
}

Value InferValue(const std::string& text) {
  if (text == "true") return true;
  if (text == "false") return false;
  if (text.empty()) return text;
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  long long integer = std::strtoll(begin, &end, 10);
  if (*end == '\0' && errno == 0) return int64_t{integer};
  errno = 0;
  double real = std::strtod(begin, &end);
  // strtod also reads "nan", "inf" and hex: only decimal notation is a number here.
  bool decimal = text.find_first_not_of("0123456789+-.eE") == std::string::npos;
  if (*end == '\0' && errno == 0 && decimal) return real;
  return text;
}

std::string Describe(DAXO_Error err) {
  std::string text = std::string(DAXO_ErrorName(err)) + " (" + std::to_string(err) + ")";
  constexpr const char* kStartOver =
      ": \"daxoctl reset-identity\" and then \"daxoctl provision\" give the client a new one";
  if (err == DAXO_Error_WrongCertificateFile)
    text += std::string("; the stored key and certificate cannot be used") + kStartOver;
  if (err == DAXO_Error_ClientCertificateExpired)
    text += std::string("; the client certificate has expired") + kStartOver;
  return text;
}

std::string Describe(DAXO_ApiError err) {
  return std::string(DAXO_ApiErrorName(err)) + " (" + std::to_string(err) + ")";
}

}  // namespace daxoctl
