// daxo-agent: the development agent that applications talk to through
// libdaxoclient while no device agent is at hand.
#include <mosquitto.h>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>

#include "agent.h"
#include "broker_trust.h"
#include "certificate_authority.h"
#include "certificates.h"
#include "connection_check.h"
#include "control.h"
#include "control_socket.h"
#include "dev_environment.h"
#include "error_reports.h"
#include "log.h"
#include "metrics.h"
#include "options.h"
#include "provisioning.h"
#include "registry_text.h"
#include "sensors.h"
#include "store.h"

namespace {

volatile std::sig_atomic_t gStop = 0;
volatile std::sig_atomic_t gDump = 0;

extern "C" void OnStopSignal(int) { gStop = 1; }
extern "C" void OnDumpSignal(int) { gDump = 1; }

void InstallSignalHandlers() {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a blocked network wait returns at once and sees the flag.
  action.sa_handler = OnStopSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  action.sa_handler = OnDumpSignal;
  sigaction(SIGUSR1, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

// Refuses, by throwing, to issue certificates that the broker would refuse.
void CheckBrokerTrust(const daxo_agent::Options& options,
                      const daxo_agent::CertificateAuthority& ca) {
  using namespace daxo_agent;
  std::string issuing =
      "issuing client certificates from \"" + ca.Subject() + "\" (" + ca.CertificatePath() + ")";
  if (!options.clientCaFile.empty()) RequireTrust(ca, options.clientCaFile, "--client-cafile");
  if (options.brokerConfig.empty()) {
    Log(issuing + (options.clientCaFile.empty()
                       ? "; the broker must verify client certificates with it "
                         "(--broker-config FILE checks that)"
                       : ", which " + options.clientCaFile + " holds"));
    return;
  }
  std::string caFile = ClientCaFileOf(options.brokerConfig, options.broker.port);
  if (caFile.empty()) {
    Log(issuing + "; " + options.brokerConfig + " trusts a capath, which the agent cannot check");
    return;
  }
  RequireTrust(ca, caFile, options.brokerConfig);
  Log(issuing + ", which the broker trusts (" + caFile + ")");
}

int Serve(const daxo_agent::Options& options) {
  using namespace daxo_agent;
  CertificateAuthority ca = CertificateAuthority::Open(options.stateDir);
  CheckBrokerTrust(options, ca);
  Store store;
  CertificateTerms terms{{options.certDays}, {options.renewalDays}};
  Provisioning provisioning(ca, store, terms);
  std::vector<Route> routes = provisioning.Routes();
  for (Route& route : CertificateRoutes(ca, store, terms)) routes.push_back(std::move(route));
  for (Route& route : ConnectionCheckRoutes()) routes.push_back(std::move(route));
  for (Route& route : SensorRoutes(store)) routes.push_back(std::move(route));
  std::optional<PushLog> pushLog;
  if (!options.pushLog.empty()) pushLog.emplace(options.pushLog);
  for (Route& route : MetricRoutes(store, pushLog ? &*pushLog : nullptr))
    routes.push_back(std::move(route));
  for (Route& route : ErrorReportRoutes(store)) routes.push_back(std::move(route));
  Agent agent(options.broker, std::move(routes));
  Control control(store, agent, ca, terms);
  ControlSocket socket(options.ControlPath(),
                       [&control](std::string_view line) { return control.Execute(line); });
  agent.Run([&store] {
    if (gDump != 0) {
      gDump = 0;
      Log("clients " + store.ToJson());
    }
    return gStop == 0;
  });
  Log("stopped");
  return 0;
}

// The client side of the control socket: one command, its answer on stdout.
// "values" is "dump" read for people.
int SendCommand(const daxo_agent::Options& options) {
  std::string line;
  for (const std::string& word : options.command) line += (line.empty() ? "" : " ") + word;
  // A definition pasted from a file spans lines; in JSON they are blanks.
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  bool values = line == "values";
  std::string answer;
  try {
    answer = daxo_agent::SendControlCommand(options.ControlPath(), values ? "dump" : line,
                                            std::chrono::seconds(30));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "daxo-agent: %s\n", e.what());
    return 1;
  }
  daxo_agent::JsonPtr parsed(json_tokener_parse(answer.c_str()));
  json_object* ok = nullptr;
  bool done = json_object_object_get_ex(parsed.get(), "ok", &ok) &&
              json_object_is_type(ok, json_type_boolean) && json_object_get_boolean(ok);
  if (values && done) {
    std::fputs(daxo_agent::RegistryText(parsed.get()).c_str(), stdout);
    return 0;
  }
  // People read the answer on a terminal; scripts read one line from a pipe.
  bool pretty = parsed && isatty(STDOUT_FILENO);
  std::puts(pretty ? json_object_to_json_string_ext(
                         parsed.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE)
                   : answer.c_str());
  return done ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  daxo_agent::Options options;
  std::string error;
  switch (daxo_agent::ParseOptions(argc, argv, options, error)) {
    case daxo_agent::ParseResult::kHelp:
      std::fputs(daxo_agent::Usage(), stdout);
      return 0;
    case daxo_agent::ParseResult::kError:
      std::fprintf(stderr, "daxo-agent: %s (see --help)\n", error.c_str());
      return 2;
    case daxo_agent::ParseResult::kControl:
      return SendCommand(options);
    case daxo_agent::ParseResult::kInit:
      try {
        daxo_agent::WriteDevEnvironment(options.init);
        return 0;
      } catch (const std::exception& e) {
        std::fprintf(stderr, "daxo-agent: init: %s\n", e.what());
        return 1;
      }
    case daxo_agent::ParseResult::kRun:
      break;
  }
  InstallSignalHandlers();
  mosquitto_lib_init();
  int status = 1;
  try {
    status = Serve(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "daxo-agent: %s\n", e.what());
  }
  mosquitto_lib_cleanup();
  return status;
}
