// The client's identity and connection: provision, id, ping, deprovision,
// and the error reports that need nothing but a connection.
#include <climits>

#include "commands.h"
#include "session.h"

namespace daxoctl {

int Provision(const Options& options) {
  Session session(options);
  if (std::optional<int> exit = session.Create()) return *exit;
  DAXO_Error started = DAXO_ProvisionClient(session.Client());
  bool already = started == DAXO_Error_AlreadyProvisioned;
  if (!already) {
    if (std::optional<int> exit = session.Sent("provisioning", started)) return *exit;
    std::optional<Event> outcome = session.Wait("provision");
    if (!outcome) return session.Out().Failure(kTimeout, "no certificate from the agent in time");
    if (auto err = static_cast<DAXO_Error>(outcome->code); err != DAXO_Error_Success)
      return session.Out().Failure(kFailed, "provisioning failed: " + session.Reason(err),
                                   DAXO_ErrorName(err), err);
  }
  std::string id = session.ClientId();
  session.Out().Result(session.Success().Add("clientId", id).AddBool("alreadyProvisioned", already),
                       (already ? "already provisioned as " : "provisioned as ") + id);
  return kOk;
}

// Starting over without the agent: for an identity that is broken or has
// expired, which the agent cannot be asked to forget over a connection.
int ResetIdentity(const Options& options) {
  Session session(options);
  if (std::optional<int> exit = session.Create()) return *exit;
  if (auto exit = session.Sent("reset", DAXO_ResetIdentity(session.Client()))) return *exit;
  session.Out().Result(session.Success(),
                       "the key and certificate are removed; \"daxoctl provision\" makes new ones");
  return kOk;
}

int Id(const Options& options) {
  Session session(options);
  if (std::optional<int> exit = session.Load()) return *exit;
  session.Out().Result(session.Success().Add("clientId", session.ClientId()), session.ClientId());
  return kOk;
}

int Ping(const Options& options) {
  Session session(options);
  if (std::optional<int> exit = session.Open()) return *exit;
  if (auto exit = session.Sent("ping", DAXO_CheckConnection(session.Client()))) return *exit;
  if (auto [reply, exit] = session.Reply("ping"); !reply) return exit;
  session.Out().Result(session.Success().Add("clientId", session.ClientId()),
                       "the agent answered " + session.ClientId());
  return kOk;
}

int Deprovision(const Options& options) {
  Session session(options);
  if (std::optional<int> exit = session.Open()) return *exit;
  std::string id = session.ClientId();
  if (auto exit = session.Sent("deprovisioning", DAXO_DeprovisionClient(session.Client())))
    return *exit;
  if (!session.Wait("deprovision"))
    return session.Out().Failure(kTimeout, "the broker did not take the request in time");
  session.Out().Result(session.Success().Add("clientId", id), "deprovisioned " + id);
  return kOk;
}

int ReportError(const Options& options) {
  std::optional<long long> code = ParseInteger(options.args[0]);
  std::optional<std::string> sensor = options.Named("sensor");
  std::optional<std::string> metric = options.Named("metric");
  Printer out(options);
  if (!code || *code < INT_MIN || *code > INT_MAX)
    return out.Failure(kUsage, "CODE must be an integer, not \"" + options.args[0] + "\"");
  if (metric && !sensor) return out.Failure(kUsage, "--metric needs --sensor");
  Session session(options);
  if (std::optional<int> exit = session.Open()) return *exit;
  int number = static_cast<int>(*code);
  const char* message = options.args[1].c_str();
  DAXO_Error sent =
      metric   ? DAXO_ReportMetricError(session.Client(), sensor->c_str(), metric->c_str(), number,
                                        message)
      : sensor ? DAXO_ReportSensorError(session.Client(), sensor->c_str(), number, message)
               : DAXO_ReportClientError(session.Client(), number, message);
  if (auto exit = session.Sent("the report", sent)) return *exit;
  // A report has no answer. The broker keeps one client's messages in order,
  // so once a later ping is answered the report has reached the agent.
  if (auto exit = session.Sent("ping", DAXO_CheckConnection(session.Client()))) return *exit;
  if (auto [reply, exit] = session.Reply("ping"); !reply) return exit;
  session.Out().Result(session.Success().Add("code", number).Add("message", message),
                       "reported error " + std::to_string(number));
  return kOk;
}

}  // namespace daxoctl
