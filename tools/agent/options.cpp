#include "options.h"

#include <charconv>
#include <string_view>

namespace daxo_agent {

bool ParseNumber(std::string_view text, int min, int max, int& out) {
  int value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < min || value > max)
    return false;
  out = value;
  return true;
}

namespace {

struct OptionSetter {
  std::string_view name;
  bool (*set)(Options&, const std::string&);
};

constexpr OptionSetter kOptions[] = {
    {"--host",
     [](Options& o, const std::string& v) {
       o.broker.host = v;
       return !v.empty();
     }},
    {"--port",
     [](Options& o, const std::string& v) { return ParseNumber(v, 1, 65535, o.broker.port); }},
    {"--cafile",
     [](Options& o, const std::string& v) {
       o.broker.caFile = v;
       return !v.empty();
     }},
    {"--cert",
     [](Options& o, const std::string& v) {
       o.broker.certFile = v;
       return !v.empty();
     }},
    {"--key",
     [](Options& o, const std::string& v) {
       o.broker.keyFile = v;
       return !v.empty();
     }},
    {"--keepalive",
     [](Options& o, const std::string& v) { return ParseNumber(v, 5, 65535, o.broker.keepAlive); }},
    {"--state",
     [](Options& o, const std::string& v) {
       o.stateDir = v;
       return !v.empty();
     }},
    {"--cert-days",
     [](Options& o, const std::string& v) { return ParseNumber(v, 1, kMaxCertDays, o.certDays); }},
    {"--renewal-days",
     [](Options& o, const std::string& v) {
       return ParseNumber(v, 1, kMaxCertDays, o.renewalDays);
     }},
    {"--control",
     [](Options& o, const std::string& v) {
       o.controlPath = v;
       return !v.empty();
     }},
    {"--push-log",
     [](Options& o, const std::string& v) {
       o.pushLog = v;
       return !v.empty();
     }},
    {"--broker-config",
     [](Options& o, const std::string& v) {
       o.brokerConfig = v;
       return !v.empty();
     }},
    {"--client-cafile",
     [](Options& o, const std::string& v) {
       o.clientCaFile = v;
       return !v.empty();
     }},
};

constexpr OptionSetter kInitOptions[] = {
    {"--port",
     [](Options& o, const std::string& v) { return ParseNumber(v, 1, 65535, o.init.mainPort); }},
    {"--provision-port",
     [](Options& o, const std::string& v) {
       return ParseNumber(v, 1, 65535, o.init.provisionPort);
     }},
};

template <std::size_t N>
const OptionSetter* FindOption(const OptionSetter (&table)[N], std::string_view name) {
  for (const OptionSetter& option : table)
    if (option.name == name) return &option;
  return nullptr;
}

ParseResult ParseInit(int argc, char** argv, Options& options, std::string& error) {
  if (argc < 3 || std::string_view(argv[2]).starts_with("-")) {
    error = "init needs the folder to write";
    return ParseResult::kError;
  }
  options.init.dir = argv[2];
  for (int i = 3; i < argc; ++i) {
    std::string_view name = argv[i];
    const OptionSetter* option = FindOption(kInitOptions, name);
    if (option == nullptr || i + 1 == argc || !option->set(options, argv[++i])) {
      error = "init: unknown option, or missing or invalid value for " + std::string(name);
      return ParseResult::kError;
    }
  }
  if (options.init.mainPort == options.init.provisionPort) {
    error = "init: --port and --provision-port must differ";
    return ParseResult::kError;
  }
  return ParseResult::kInit;
}

}  // namespace

ParseResult ParseOptions(int argc, char** argv, Options& options, std::string& error) {
  if (argc > 1 && std::string_view(argv[1]) == "init") {
    for (int i = 2; i < argc; ++i)
      if (std::string_view(argv[i]) == "--help") return ParseResult::kHelp;
    return ParseInit(argc, argv, options, error);
  }
  for (int i = 1; i < argc; ++i) {
    std::string_view name = argv[i];
    if (name == "--help" || name == "-h") return ParseResult::kHelp;
    if (!name.starts_with("-")) {
      options.command.assign(argv + i, argv + argc);
      return ParseResult::kControl;
    }
    const OptionSetter* option = FindOption(kOptions, name);
    if (option == nullptr) {
      error = "unknown option " + std::string(name);
      return ParseResult::kError;
    }
    if (i + 1 == argc || !option->set(options, argv[++i])) {
      error = "missing or invalid value for " + std::string(name);
      return ParseResult::kError;
    }
  }
  if (options.broker.caFile.empty() || options.broker.certFile.empty() ||
      options.broker.keyFile.empty()) {
    error = "--cafile, --cert and --key are required";
    return ParseResult::kError;
  }
  return ParseResult::kRun;
}

const char* Usage() {
  return R"(Usage: daxo-agent init DIR [--port PORT] [--provision-port PORT]
       daxo-agent --cafile FILE --cert FILE --key FILE [options]
       daxo-agent [--control PATH | --state DIR] COMMAND...

A development stand-in for the device's IoT agent. It issues client
certificates from its own certificate authority and answers the requests
that clients publish on the agent's MQTT broker.

  --host HOST         broker host (default localhost)
  --port PORT         broker port that requires client certificates (default 8883)
  --cafile FILE       CA certificate that the broker's certificate chains to
  --cert FILE         the agent's client certificate (its CN is its broker user)
  --key FILE          the agent's private key
  --keepalive SECONDS MQTT keep-alive (default 30)
  --state DIR         folder of the agent's certificate authority, ca.crt and
                      ca.key; both are created, in a folder of mode 0700, when
                      absent (default ./daxo-agent-state)
  --cert-days N       validity in days of the client certificates issued on
                      provisioning (default 365); below 30, clients renew
                      theirs at their first daily check
  --renewal-days N    validity in days of renewed client certificates
                      (default 365)
  --control PATH      the agent's control socket, a Unix socket of mode 0600
                      (default DIR/control.sock in the --state folder)
  --push-log FILE     appends every push the agent stores to FILE, one line
                      each: CLIENT_ID SENSOR_ID BODY
  --broker-config FILE
                      the broker's mosquitto configuration: the agent refuses
                      to start when the cafile of its listener on --port does
                      not hold the agent's authority (DIR/ca.crt in --state)
  --client-cafile FILE
                      the same check against the file with which the broker
                      verifies client certificates
  --help              this text

daxo-agent init DIR writes a development environment into DIR: the agent's
authority (in DIR/agent-state; an existing one is kept, so that clients
provisioned before stay valid), the broker's and the agent's certificates
issued from it, a mosquitto configuration with both listeners on 127.0.0.1
(main: --port, default 8883; provisioning: --provision-port, default 8884)
and their access rules, and DIR/client.conf for applications. It then prints
the two commands that start the broker and the agent. Running it again
rewrites everything but the authority.

The agent logs one line per event on stdout. On a first start it says that
it created a certificate authority; then it names the authority it issues
from and, with --broker-config or --client-cafile, that the broker trusts
it; it prints "daxo-agent: ready" once it serves. SIGINT and SIGTERM stop
it; SIGUSR1 prints its registry of clients as JSON.

Given a COMMAND, daxo-agent sends it to the agent that runs with the same
control socket, prints the one-line JSON answer and exits with 0 when the
answer's "ok" is true, 1 otherwise. The words of the command are joined by
spaces, and line breaks become spaces too. Commands:

  job-create CLIENT_ID DEFINITION
      creates a sensor for the client and sends it the sensor job; the
      DEFINITION is JSON: "name", "metrics" (an array, possibly empty, of
      {"name", "valueUnit"} or {"name", "valueType", "valueAnnotation"}),
      and optionally "frequency", and "monitoringService" or "pluginName"
      with "pluginDownloadUrl" and "pluginParams". The answer holds the
      sensor with the ids the agent assigned.
  job-delete CLIENT_ID SENSOR_ID
      removes the sensor and sends the client the sensor deletion job.
  offer-new-ca
      replaces the certificate in DIR/ca.crt by one with the same key and
      subject and a fresh validity, keeping the old one as ca.crt.previous;
      clients that check the old one are offered the new one. Brokers and
      clients that trust either verify what the agent issued with both.
  cert-days N
      like --cert-days, for the certificates issued from now on.
  values
      the last value of every client's metrics, rounded, with its local
      date and time: the registry of dump, for people.
  dump
      the registry: clients, their sensors, metrics and last values, and
      the latest 100 error reports of each client; and the authority's
      subject and expiry with the validity of what it issues.

Pushed values must fit their metric, or the whole push is refused: a
standard metric (with a value unit) and a "double" take a number (else
error 8), an "integer" a whole number (11), a "bool" true or false (9), a
"string" a string (7); NaN, Infinity and a "timestamp" before the epoch
give 27. Time stamps are milliseconds since the epoch; a push without one
is stamped with its arrival time.

Example:
  daxo-agent --state DIR job-create kitchen-1a2b3c \
    '{"name":"oven","metrics":[{"name":"t","valueUnit":"SI.Temperature.CELSIUS"}]}'
)";
}

}  // namespace daxo_agent
