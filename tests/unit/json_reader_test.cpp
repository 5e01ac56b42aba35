#include <gtest/gtest.h>

#include "daxo_internal.h"

namespace {

// The text a metric description gives for a value read from `text`; a
// metric's value is any JSON value, read back in json-c's rendering.
std::string Read(const std::string& text) {
  std::string message =
      R"({"metricId":"m","valueUnit":"SI.Length.METER","lastUpdated":1,"name":"n","value":)" +
      text + "}";
  DAXO_MetricMetadata* metric = CreateMetricMetadata(message.c_str());
  std::string read = metric != nullptr ? metric->value : "<refused>";
  DAXO_DestroyMetricMetadata(metric);
  return read;
}

TEST(JsonReader, ReadsOneJsonValueAndNothingElse) {
  const std::pair<const char*, const char*> cases[] = {
      {R"( {"a" : [1, -2, 2.50, 1e3, true, false, null, {}, []], "b":"x"} )",
       R"({ "a": [ 1, -2, 2.50, 1e3, true, false, null, { }, [ ] ], "b": "x" })"},
      {R"(["\"\\\/\b\f\n\r\t", "\u00e9\u20ac\ud83d\ude00", "\ud800x"])",
       "[ \"\\\"\\\\\\/\\b\\f\\n\\r\\t\", \"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\", \"\xEF\xBF\xBDx\" ]"},
      {R"({"k":1,"k":2})", R"({ "k": 2 })"},
      {R"("a\u0000b")", "a"},
      {"9223372036854775807", "9223372036854775807"},
      {"18446744073709551615", "18446744073709551615"},
      {"-99999999999999999999", "-9223372036854775808"},
      {"[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]]", "<refused>"},
      {"{} x", "<refused>"}, {"", "<refused>"}, {"1} x", "<refused>"}, {"[1,]", "<refused>"},
      {"{'a':1}", "<refused>"}, {R"({"a" 1})", "<refused>"}, {R"("\x")", "<refused>"},
      {R"("\u12")", "<refused>"}, {R"("open)", "<refused>"},
      {"1.", "<refused>"}, {"-", "<refused>"}, {"1e+", "<refused>"}, {"nul", "<refused>"},
      {"NaN", "<refused>"}, {"/* c */ {}", "<refused>"},
  };
  for (const auto& [text, read] : cases) EXPECT_EQ(Read(text), read) << text;
}

}  // namespace
