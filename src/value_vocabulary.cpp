// The agent's words for value units and value types, and the lookups
// between them and the public enumerations.
#include <cstddef>
#include <cstring>

#include "daxo_internal.h"

extern "C" {

const ValueUnitPair valueUnits[24] = {
    {"No_Unit", DAXO_ValueUnit_NoUnit},
    {"SI.ElectricCurrent.AMPERE", DAXO_ValueUnit_SIAmpere},
    {"SI.DataAmount.BIT", DAXO_ValueUnit_SIBit},
    {"SI.LuminousIntensity.CANDELA", DAXO_ValueUnit_SICandela},
    {"SI.Temperature.CELSIUS", DAXO_ValueUnit_SICelsius},
    {"SI.ElectricCapacitance.FARAD", DAXO_ValueUnit_SIFarad},
    {"SI.Mass.KILOGRAM", DAXO_ValueUnit_SIKilogram},
    {"SI.Frequency.HERTZ", DAXO_ValueUnit_SIHertz},
    {"SI.Energy.JOULE", DAXO_ValueUnit_SIJoule},
    {"SI.Length.METER", DAXO_ValueUnit_SIMeter},
    {"SI.Velocity.METERS_PER_SECOND", DAXO_ValueUnit_SIMetersPerSecond},
    {"SI.Acceleration.METERS_PER_SQUARE_SECOND", DAXO_ValueUnit_SIMetersPerSquareSecond},
    {"SI.AmountOfSubstance.MOLE", DAXO_ValueUnit_SIMole},
    {"SI.Force.NEWTON", DAXO_ValueUnit_SINewtone},
    {"SI.ElectricResistance.OHM", DAXO_ValueUnit_SIOhm},
    {"SI.Pressure.PASCAL", DAXO_ValueUnit_SIPascal},
    {"SI.Angle.RADIAN", DAXO_ValueUnit_SIRadian},
    {"SI.Duration.SECOND", DAXO_ValueUnit_SISecond},
    {"SI.Area.SQUARE_METRE", DAXO_ValueUnit_SISquareMeter},
    {"SI.ElectricPotential.VOLT", DAXO_ValueUnit_SIVolt},
    {"SI.Power.WATT", DAXO_ValueUnit_SIWatt},
    {"NoSI.Dimensionless.DECIBEL", DAXO_ValueUnit_NoSIDecibel},
    {"NoSI.Dimensionless.PERCENT", DAXO_ValueUnit_NoSIPercent},
    {nullptr, DAXO_ValueUnit_NoUnit},
};

const ValueTypePair valueTypes[6] = {
    {"Non", DAXO_ValueType_NoType},    {"integer", DAXO_ValueType_Integer},
    {"double", DAXO_ValueType_Double}, {"bool", DAXO_ValueType_Bool},
    {"string", DAXO_ValueType_String}, {nullptr, DAXO_ValueType_NoType},
};

}  // extern "C"

namespace {

template <class Row>
const Row* FindText(const Row* table, const char* text) noexcept {
  if (text == nullptr) return nullptr;
  for (const Row* row = table; row->strType != nullptr; ++row) {
    if (strcmp(row->strType, text) == 0) return row;
  }
  return nullptr;
}

// C callers may pass any int as an enumerator; only the rows before the
// terminator are answers.
template <class Row, size_t N>
const char* TextAt(const Row (&table)[N], int number) noexcept {
  if (number < 0 || static_cast<size_t>(number) >= N - 1) return nullptr;
  return table[number].strType;
}

}  // namespace

extern "C" DAXO_ValueUnit GetValueUnitFromStr(const char* valueUnit) noexcept {
  const ValueUnitPair* row = FindText(valueUnits, valueUnit);
  return row != nullptr ? row->numericUnit : DAXO_ValueUnit_NoUnit;
}

extern "C" DAXO_ValueType GetValueTypeFromStr(const char* valueType) noexcept {
  const ValueTypePair* row = FindText(valueTypes, valueType);
  return row != nullptr ? row->numericType : DAXO_ValueType_NoType;
}

extern "C" const char* GetValueUnitStr(DAXO_ValueUnit valueUnit) noexcept {
  return TextAt(valueUnits, valueUnit);
}

extern "C" const char* GetValueTypeStr(DAXO_ValueType valueType) noexcept {
  return TextAt(valueTypes, valueType);
}
