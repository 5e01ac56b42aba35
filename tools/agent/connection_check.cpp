#include "connection_check.h"

namespace daxo_agent {
namespace {

void CheckConnection(const Message& message, Outbox& out) {
  ApiFault fault;
  JsonPtr body = ParseObject(message.payload, fault);
  std::optional<std::string> request;
  if (body) request = StringMember(body.get(), "request", fault);
  if (request && *request != "CheckProvisioning") {
    fault = {kMissingParameter, "\"request\" must be \"CheckProvisioning\""};
    request.reset();
  }
  if (!request) {
    out.PublishError(message.topic + "/error/inbox", fault);
    return;
  }
  // The client drops empty payloads, so success carries an empty object.
  out.Publish(message.topic + "/info/inbox", "{}");
}

}  // namespace

std::vector<Route> ConnectionCheckRoutes() { return {{"/v1.0/+/ping", CheckConnection}}; }

}  // namespace daxo_agent
