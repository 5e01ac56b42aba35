#include "control.h"

#include <algorithm>
#include <stdexcept>

#include "log.h"
#include "options.h"

namespace daxo_agent {
namespace {

struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The words do not fit the command: the answer repeats its usage.
struct UsageError : CommandError {
  using CommandError::CommandError;
};

constexpr std::string_view kBlanks = " \t";

std::string_view NextWord(std::string_view& rest) {
  std::size_t start = std::min(rest.find_first_not_of(kBlanks), rest.size());
  std::size_t end = std::min(rest.find_first_of(kBlanks, start), rest.size());
  std::string_view word = rest.substr(start, end - start);
  rest.remove_prefix(end);
  return word;
}

bool Blank(std::string_view text) { return text.find_first_not_of(kBlanks) == text.npos; }

std::string TopicLevel(std::string_view word, const char* what) {
  if (word.empty() || !UsableTopicLevel(word))
    throw UsageError(std::string("missing or unusable ") + what);
  return std::string(word);
}

JsonPtr Ok() {
  JsonPtr answer(json_object_new_object());
  json_object_object_add(answer.get(), "ok", json_object_new_boolean(1));
  return answer;
}

std::string Failure(const std::string& error) {
  JsonPtr answer(json_object_new_object());
  json_object_object_add(answer.get(), "ok", json_object_new_boolean(0));
  json_object_object_add(answer.get(), "error", NewJsonString(error));
  return PlainText(answer.get());
}

}  // namespace

struct Control::Command {
  std::string_view verb;
  std::string_view usage;
  JsonPtr (Control::*run)(std::string_view arguments);
};

const Control::Command Control::kCommands[] = {
    {"job-create", "job-create CLIENT_ID DEFINITION", &Control::JobCreate},
    {"job-delete", "job-delete CLIENT_ID SENSOR_ID", &Control::JobDelete},
    {"offer-new-ca", "offer-new-ca", &Control::OfferNewCa},
    {"cert-days", "cert-days N", &Control::CertDays},
    {"dump", "dump", &Control::Dump},
};

std::string Control::Execute(std::string_view line) {
  std::string_view rest = line;
  std::string_view verb = NextWord(rest);
  auto command = std::find_if(std::begin(kCommands), std::end(kCommands),
                              [verb](const Command& c) { return c.verb == verb; });
  if (command == std::end(kCommands)) {
    std::string known;
    for (const Command& c : kCommands) {
      if (!known.empty()) known += ", ";
      known += c.usage;
    }
    Log("control: refused an unknown command");
    return Failure("unknown command \"" + std::string(verb) + "\"; commands: " + known);
  }
  try {
    std::string answer = PlainText((this->*command->run)(rest).get());
    Log("control: " + std::string(verb) + " done");
    return answer;
  } catch (const UsageError& e) {
    Log("control: " + std::string(verb) + " failed: " + e.what());
    return Failure(e.what() + std::string("; usage: ") + std::string(command->usage));
  } catch (const std::exception& e) {
    Log("control: " + std::string(verb) + " failed: " + e.what());
    return Failure(e.what());
  }
}

JsonPtr Control::JobCreate(std::string_view arguments) {
  std::string clientId = TopicLevel(NextWord(arguments), "CLIENT_ID");
  if (Blank(arguments)) throw UsageError("missing DEFINITION");
  ApiFault fault;
  JsonPtr definition = ParseObject(arguments, fault);
  if (!definition)
    throw CommandError(fault.code == kInvalidJson ? "DEFINITION is not valid JSON"
                                                  : "DEFINITION is not a JSON object");
  std::string error;
  std::optional<Sensor> sensor = ReadSensorDefinition(definition.get(), error);
  if (!sensor) throw CommandError("DEFINITION: " + error);
  Sensor stored = store_.AddSensor(clientId, std::move(*sensor));
  JsonPtr description = DescribeSensor(stored, MetricDetail::kIds);
  if (!out_.Publish("/v1.0/" + clientId + "/sensor/job/create", PlainText(description.get()))) {
    store_.RemoveSensor(clientId, stored.id);
    throw CommandError("the broker connection did not take the job");
  }
  JsonPtr answer = Ok();
  json_object_object_add(answer.get(), "sensor",
                         DescribeSensor(stored, MetricDetail::kFull).release());
  return answer;
}

JsonPtr Control::JobDelete(std::string_view arguments) {
  std::string clientId = TopicLevel(NextWord(arguments), "CLIENT_ID");
  std::string sensorId = TopicLevel(NextWord(arguments), "SENSOR_ID");
  if (!Blank(arguments)) throw UsageError("unexpected text after SENSOR_ID");
  if (!store_.FindSensor(clientId, sensorId))
    throw CommandError("client \"" + clientId + "\" has no sensor \"" + sensorId + "\"");
  // The client drops empty payloads, so the command carries an empty object.
  if (!out_.Publish("/v1.0/" + clientId + "/sensor/" + sensorId + "/job/delete", "{}"))
    throw CommandError("the broker connection did not take the job");
  store_.RemoveSensor(clientId, sensorId);
  return Ok();
}

JsonPtr Control::OfferNewCa(std::string_view arguments) {
  if (!Blank(arguments)) throw UsageError("offer-new-ca takes no arguments");
  IssuedCertificate replacement = ca_.Replace();
  Log("replaced the certificate authority's certificate; it now expires " +
      IsoTime(replacement.notAfter));
  return WithAuthority(Ok());
}

JsonPtr Control::CertDays(std::string_view arguments) {
  int days = 0;
  if (!ParseNumber(NextWord(arguments), 1, kMaxCertDays, days) || !Blank(arguments))
    throw UsageError("N must be a number of days from 1 to " + std::to_string(kMaxCertDays));
  terms_.provisioningDays = days;
  return WithAuthority(Ok());
}

JsonPtr Control::Dump(std::string_view arguments) {
  if (!Blank(arguments)) throw UsageError("dump takes no arguments");
  JsonPtr registry = store_.Registry();
  JsonPtr answer = Ok();
  json_object_object_foreach(registry.get(), key, value)
      json_object_object_add(answer.get(), key, json_object_get(value));
  return WithAuthority(std::move(answer));
}

JsonPtr Control::WithAuthority(JsonPtr answer) const {
  json_object* authority = json_object_new_object();
  json_object_object_add(authority, "subject", NewJsonString(ca_.Subject()));
  json_object_object_add(authority, "notAfter", NewJsonString(IsoTime(ca_.NotAfter())));
  json_object_object_add(authority, "certDays", json_object_new_int(terms_.provisioningDays));
  json_object_object_add(authority, "renewalDays", json_object_new_int(terms_.renewalDays));
  json_object_object_add(answer.get(), "authority", authority);
  return answer;
}

}  // namespace daxo_agent
