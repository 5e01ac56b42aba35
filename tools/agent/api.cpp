#include "api.h"

#include <chrono>

namespace daxo_agent {

std::string ErrorBody(const ApiFault& fault) {
  JsonPtr body(json_object_new_object());
  json_object_object_add(body.get(), "errorcode", json_object_new_int(fault.code));
  json_object_object_add(body.get(), "errorMessage", NewJsonString(fault.message));
  return PlainText(body.get());
}

JsonPtr ParseObject(std::string_view payload, ApiFault& fault) {
  // The copy supplies the NUL that lets json-c finish a bare number at the end.
  std::string text(payload);
  std::unique_ptr<json_tokener, CFree<json_tokener_free>> tokener(json_tokener_new());
  JsonPtr value(
      json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size()) + 1));
  std::size_t end = json_tokener_get_parse_end(tokener.get());
  bool complete = value != nullptr && text.find_first_not_of(" \t\r\n", end) == std::string::npos;
  if (!complete) {
    fault = {kInvalidJson, "payload is not valid JSON"};
    return nullptr;
  }
  if (!json_object_is_type(value.get(), json_type_object)) {
    fault = {kJsonIsNotAnObject, "payload is not a JSON object"};
    return nullptr;
  }
  return value;
}

bool HasMember(json_object* object, const char* key) {
  return json_object_object_get_ex(object, key, nullptr);
}

bool RequiredMember(json_object* object, const char* key, json_object*& member, ApiFault& fault) {
  if (json_object_object_get_ex(object, key, &member)) return true;
  fault = {kMissingParameter, std::string("missing parameter \"") + key + "\""};
  return false;
}

std::optional<std::string> StringMember(json_object* object, const char* key, ApiFault& fault) {
  json_object* member = nullptr;
  if (!RequiredMember(object, key, member, fault)) return std::nullopt;
  if (!json_object_is_type(member, json_type_string)) {
    fault = {kParameterIsNotAString, std::string("parameter \"") + key + "\" is not a string"};
    return std::nullopt;
  }
  return std::string(json_object_get_string(member),
                     static_cast<std::size_t>(json_object_get_string_len(member)));
}

bool OptionalStringMember(json_object* object, const char* key, std::optional<std::string>& out,
                          ApiFault& fault) {
  if (!HasMember(object, key)) return true;
  out = StringMember(object, key, fault);
  return out.has_value();
}

json_object* ArrayMember(json_object* object, const char* key, ApiFault& fault) {
  json_object* member = nullptr;
  if (!RequiredMember(object, key, member, fault)) return nullptr;
  if (!json_object_is_type(member, json_type_array)) {
    fault = {kParameterIsNotAnArray, std::string("parameter \"") + key + "\" is not an array"};
    return nullptr;
  }
  return member;
}

std::int64_t NowMillis() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

json_object* NewJsonString(std::string_view text) {
  return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

void AddString(json_object* object, const char* key, std::string_view value) {
  json_object_object_add(object, key, NewJsonString(value));
}

std::string PlainText(json_object* value) {
  return json_object_to_json_string_ext(value,
                                        JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

}  // namespace daxo_agent
