#include "json.h"

#include <cstdio>

namespace daxoctl {

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

JsonObject& JsonObject::Raw(std::string_view key, std::string_view json) {
  if (!body_.empty()) body_ += ",";
  body_ += JsonString(key);
  body_ += ":";
  body_ += json;
  return *this;
}

JsonObject& JsonObject::Add(std::string_view key, std::string_view value) {
  return Raw(key, JsonString(value));
}

JsonObject& JsonObject::Add(std::string_view key, const char* value) {
  return value != nullptr ? Add(key, std::string_view(value)) : Raw(key, "null");
}

JsonObject& JsonObject::Add(std::string_view key, int64_t value) {
  return Raw(key, std::to_string(value));
}

JsonObject& JsonObject::Add(std::string_view key, uint64_t value) {
  return Raw(key, std::to_string(value));
}

JsonObject& JsonObject::AddBool(std::string_view key, bool value) {
  return Raw(key, value ? "true" : "false");
}

JsonObject& JsonObject::Add(std::string_view key, const JsonObject& value) {
  return Raw(key, value.Text());
}

JsonObject& JsonObject::Add(std::string_view key, const std::vector<JsonObject>& values) {
  std::string list = "[";
  for (const JsonObject& value : values) list += (list.size() > 1 ? "," : "") + value.Text();
  return Raw(key, list + "]");
}

JsonObject& JsonObject::Add(std::string_view key, const std::vector<std::string>& values) {
  std::string list = "[";
  for (const std::string& value : values) list += (list.size() > 1 ? "," : "") + JsonString(value);
  return Raw(key, list + "]");
}

}  // namespace daxoctl
