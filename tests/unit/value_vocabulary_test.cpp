#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "daxo_internal.h"

namespace {

TEST(ValueVocabulary, EveryNumberRoundTripsThroughItsText) {
  for (int u = DAXO_ValueUnit_NoUnit; u <= DAXO_ValueUnit_NoSIPercent; ++u) {
    SCOPED_TRACE("unit " + std::to_string(u));
    const char* text = GetValueUnitStr(static_cast<DAXO_ValueUnit>(u));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(GetValueUnitFromStr(text), u);
  }
  EXPECT_EQ(valueUnits[DAXO_ValueUnit_NoSIPercent + 1].strType, nullptr);
  for (int t = DAXO_ValueType_NoType; t <= DAXO_ValueType_String; ++t) {
    SCOPED_TRACE("type " + std::to_string(t));
    const char* text = GetValueTypeStr(static_cast<DAXO_ValueType>(t));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(GetValueTypeFromStr(text), t);
  }
  EXPECT_EQ(valueTypes[DAXO_ValueType_String + 1].strType, nullptr);
}

// The words where the agent's spelling departs from the enumerators' names.
TEST(ValueVocabulary, KeepsTheAgentsSpelling) {
  EXPECT_STREQ(GetValueUnitStr(DAXO_ValueUnit_NoUnit), "No_Unit");
  EXPECT_STREQ(GetValueUnitStr(DAXO_ValueUnit_SINewtone), "SI.Force.NEWTON");
  EXPECT_STREQ(GetValueUnitStr(DAXO_ValueUnit_SISquareMeter), "SI.Area.SQUARE_METRE");
  EXPECT_STREQ(GetValueUnitStr(DAXO_ValueUnit_SIMeter), "SI.Length.METER");
  EXPECT_STREQ(GetValueUnitStr(DAXO_ValueUnit_SIMetersPerSquareSecond),
               "SI.Acceleration.METERS_PER_SQUARE_SECOND");
  EXPECT_STREQ(GetValueUnitStr(DAXO_ValueUnit_NoSIPercent), "NoSI.Dimensionless.PERCENT");
  EXPECT_STREQ(GetValueTypeStr(DAXO_ValueType_NoType), "Non");
  EXPECT_STREQ(GetValueTypeStr(DAXO_ValueType_Integer), "integer");
}

TEST(ValueVocabulary, TextsMatchOnlyExactly) {
  for (const char* text :
       {"", "si.force.newton", " SI.Force.NEWTON", "SI.Force.NEWTON ", "SI.Force",
        "SI.Area.SQUARE_METER", "No_Unit", static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(text != nullptr ? "'" + std::string(text) + "'" : "null");
    EXPECT_EQ(GetValueUnitFromStr(text), DAXO_ValueUnit_NoUnit);
  }
  for (const char* text :
       {"", "Integer", "int", "None", "integer ", "Non", static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(text != nullptr ? "'" + std::string(text) + "'" : "null");
    EXPECT_EQ(GetValueTypeFromStr(text), DAXO_ValueType_NoType);
  }
}

TEST(ValueVocabulary, NumbersOutsideTheEnumerationsHaveNoText) {
  for (int n : {-1, 23, 99, INT_MAX, INT_MIN}) {
    SCOPED_TRACE(n);
    EXPECT_EQ(GetValueUnitStr(static_cast<DAXO_ValueUnit>(n)), nullptr);
  }
  for (int n : {-1, 5, 99, INT_MAX, INT_MIN}) {
    SCOPED_TRACE(n);
    EXPECT_EQ(GetValueTypeStr(static_cast<DAXO_ValueType>(n)), nullptr);
  }
}

}  // namespace
