// The agent's side of the request vocabulary: the error numbers it puts in
// "errorcode", and the reading of JSON request bodies.
#ifndef DAXO_AGENT_API_H
#define DAXO_AGENT_API_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "openssl_handles.h"

namespace daxo_agent {

// The numbers are part of the protocol: clients compare them.
enum ApiError : int {
  kInternalError = 3,
  kInvalidJson = 4,
  kJsonIsNotAnObject = 5,
  kMissingParameter = 6,
  kParameterIsNotAString = 7,
  kParameterIsNotANumber = 8,
  kParameterIsNotABool = 9,
  kParameterIsNotAnArray = 10,
  kParameterIsNotAnInteger = 11,
  kUnknownValueUnit = 12,
  kUnknownMetricType = 13,
  kValueUnitOrValueTypeHasToBeProvided = 14,
  kUnknownSensorId = 15,
  kUnknownMetricId = 16,
  kNoMetricsUpdated = 17,
  kCertificateFormatError = 20,
  kCertificateIsEmpty = 21,
  kCertificateWithoutCommonName = 22,
  kDeleteMetricsFailed = 23,
  kChangeMetricsFailed = 24,
  kInvalidClientName = 25,
  kCreateMetricsFailed = 26,
  kPushValuesFailed = 27,
};

struct ApiFault {
  int code;
  std::string message;
};

// The body of an error reply: {"errorcode": N, "errorMessage": "..."}.
std::string ErrorBody(const ApiFault& fault);

// Parses a request body, which arrives without a terminating NUL, into a
// JSON object; trailing bytes after the value make it invalid.
JsonPtr ParseObject(std::string_view payload, ApiFault& fault);

bool HasMember(json_object* object, const char* key);
// A required member of any type, owned by object; member is null for JSON null.
bool RequiredMember(json_object* object, const char* key, json_object*& member, ApiFault& fault);
// The text of a required string member.
std::optional<std::string> StringMember(json_object* object, const char* key, ApiFault& fault);
// Leaves out untouched when the member is absent; false, with fault set,
// when it is present and not a string.
bool OptionalStringMember(json_object* object, const char* key, std::optional<std::string>& out,
                          ApiFault& fault);
// A required array member, owned by object.
json_object* ArrayMember(json_object* object, const char* key, ApiFault& fault);

// Milliseconds since the epoch: the unit of every time stamp that clients
// send or receive.
std::int64_t NowMillis();

// A JSON string that may hold NUL bytes; the caller owns it.
json_object* NewJsonString(std::string_view text);
void AddString(json_object* object, const char* key, std::string_view value);

// The one-line text of a value, as every reply carries it.
std::string PlainText(json_object* value);

}  // namespace daxo_agent

#endif
