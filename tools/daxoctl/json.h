// A flat JSON object written field by field, for the --json output: one
// object per result, one line each.
#ifndef DAXOCTL_JSON_H
#define DAXOCTL_JSON_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace daxoctl {

std::string JsonString(std::string_view text);

class JsonObject {
 public:
  JsonObject& Add(std::string_view key, std::string_view value);
  JsonObject& Add(std::string_view key, const char* value);  // null becomes JSON null
  JsonObject& Add(std::string_view key, int64_t value);
  JsonObject& Add(std::string_view key, int value) { return Add(key, int64_t{value}); }
  JsonObject& Add(std::string_view key, uint64_t value);
  JsonObject& AddBool(std::string_view key, bool value);
  JsonObject& Add(std::string_view key, const JsonObject& value);
  JsonObject& Add(std::string_view key, const std::vector<JsonObject>& values);
  JsonObject& Add(std::string_view key, const std::vector<std::string>& values);
  std::string Text() const { return "{" + body_ + "}"; }

 private:
  JsonObject& Raw(std::string_view key, std::string_view json);
  std::string body_;
};

}  // namespace daxoctl

#endif
