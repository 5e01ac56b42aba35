#include "registry_text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string_view>

namespace daxo_agent {
namespace {

std::string Member(json_object* object, const char* key) {
  json_object* member = nullptr;
  if (!json_object_object_get_ex(object, key, &member) || member == nullptr) return "";
  return json_object_get_string(member);
}

std::size_t Length(json_object* array) {
  return json_object_is_type(array, json_type_array) ? json_object_array_length(array) : 0;
}

std::string LocalTime(int64_t millis) {
  if (millis <= 0) return "never";
  std::time_t seconds = static_cast<std::time_t>(millis / 1000);
  std::tm tm{};
  char text[32];
  if (localtime_r(&seconds, &tm) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm) == 0)
    return "?";
  return text;
}

std::string MetricLine(json_object* metric, int nameWidth) {
  std::string type = Member(metric, "valueType"), unit = Member(metric, "valueUnit");
  if (unit.empty()) unit = Member(metric, "valueAnnotation");
  json_object* updated = nullptr;
  int64_t millis = json_object_object_get_ex(metric, "lastUpdated", &updated)
                       ? json_object_get_int64(updated)
                       : 0;
  std::string value = Member(metric, "value");
  value = millis <= 0 ? "-" : type == "string" ? "\"" + value + "\"" : RoundedValue(value);
  if (!unit.empty()) value += " (" + unit + ")";
  std::string name = Member(metric, "name");
  name.resize(std::max(name.size(), static_cast<std::size_t>(nameWidth)), ' ');
  value.resize(std::max(value.size(), std::size_t{32}), ' ');
  return "    " + name + "  " + value + " " + LocalTime(millis) + "\n";
}

}  // namespace

std::string RoundedValue(const std::string& text) {
  double value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  bool decimal = text.find_first_of(".eE") != std::string::npos;
  if (ec != std::errc() || end != text.data() + text.size() || !decimal) return text;
  char rounded[32];
  std::snprintf(rounded, sizeof rounded, "%.6g", value);
  return std::string_view(rounded) == "-0" ? "0" : rounded;
}

std::string RegistryText(json_object* registry) {
  json_object* clients = nullptr;
  json_object_object_get_ex(registry, "clients", &clients);
  if (Length(clients) == 0) return "no clients\n";
  std::string text;
  for (std::size_t c = 0; c < Length(clients); ++c) {
    json_object* client = json_object_array_get_idx(clients, c);
    text += "client " + Member(client, "id") + "\n";
    json_object* sensors = nullptr;
    json_object_object_get_ex(client, "sensors", &sensors);
    for (std::size_t s = 0; s < Length(sensors); ++s) {
      json_object* sensor = json_object_array_get_idx(sensors, s);
      json_object* metrics = nullptr;
      json_object_object_get_ex(sensor, "metrics", &metrics);
      std::size_t count = Length(metrics);
      text += "  sensor \"" + Member(sensor, "name") + "\" (" + Member(sensor, "sensorId") + ")" +
              (count == 0 ? ", no metrics\n" : "\n");
      int width = 0;
      for (std::size_t m = 0; m < count; ++m)
        width = std::max(
            width, static_cast<int>(Member(json_object_array_get_idx(metrics, m), "name").size()));
      for (std::size_t m = 0; m < count; ++m)
        text += MetricLine(json_object_array_get_idx(metrics, m), width);
    }
  }
  return text;
}

}  // namespace daxo_agent
