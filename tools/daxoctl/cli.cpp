#include "cli.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "commands.h"

namespace daxoctl {

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"provision", "", "Obtains the client's identity from the agent, once.", {}, 0, 0,
       Provision},
      {"id", "", "Prints the client identifier of the existing identity.", {}, 0, 0, Id},
      {"ping", "", "Asks the agent to confirm the connection.", {}, 0, 0, Ping},
      {"sensors list", "", "Lists the client's sensors and their metrics.", {}, 0, 0,
       SensorsList},
      {"sensors create", "NAME", "Creates a sensor; prints its id.", {}, 1, 1, SensorsCreate},
      {"sensors rename", "ID NAME", "Renames sensor ID.", {}, 2, 2, SensorsRename},
      {"sensors delete", "ID", "Deletes sensor ID.", {}, 1, 1, SensorsDelete},
      {"metrics define", "SENSOR DEFINITION...",
       "Defines metrics of SENSOR; prints each metric's id. A DEFINITION is\n"
       "  name:UNIT          a standard metric (SI.Temperature.CELSIUS or SICelsius)\n"
       "  name:TYPE:TEXT     a custom metric of TYPE integer, double, bool or string",
       {}, 2, SIZE_MAX, MetricsDefine},
      {"metrics update", "SENSOR METRIC [--name NAME] [--annotation TEXT]",
       "Renames a metric or changes its annotation.", {"name", "annotation"}, 2, 2,
       MetricsUpdate},
      {"metrics delete", "SENSOR METRIC...", "Deletes metrics of SENSOR.", {}, 2, SIZE_MAX,
       MetricsDelete},
      {"metrics describe", "SENSOR METRIC", "Prints a metric's definition and last value.", {},
       2, 2, MetricsDescribe},
      {"push", "SENSOR metric=value... | SENSOR - [--batch N] [--timestamp MS]",
       "Sends values: integers, doubles, true/false, anything else as text.\n"
       "With \"-\", reads metric=value lines from standard input and sends them\n"
       "every N lines (default 100) and at the end.",
       {"timestamp", "batch"}, 2, SIZE_MAX, Push},
      {"report-error", "[--sensor S [--metric M]] CODE MESSAGE",
       "Reports the application's own failure to the agent.", {"sensor", "metric"}, 2, 2,
       ReportError},
      {"deprovision", "", "Asks the agent to forget the client; removes its identity.", {}, 0,
       0, Deprovision},
      {"reset-identity", "",
       "Removes the client's key and certificate without asking the agent, so that a\n"
       "broken or expired identity can be provisioned anew.",
       {}, 0, 0, ResetIdentity},
      {"listen", "[--for SECONDS]",
       "Prints sensor jobs and replies as they arrive, until interrupted.", {"for"}, 0, 0,
       Listen},
  };
  return commands;
}

namespace {

constexpr std::string_view kGlobalHelp =
    "Options of every command:\n"
    "  -c, --config FILE   the library's configuration (default ./daxo.conf)\n"
    "  --timeout SECONDS   how long to wait for the agent (default 10)\n"
    "  --json              one JSON object per result\n"
    "  -h, --help          this help\n"
    "Exit codes: 0 success, 1 a library or agent error, 2 usage, 3 no answer in time.\n";

void PrintToolHelp(std::FILE* to) {
  std::fprintf(to, "Usage: daxoctl [OPTIONS] COMMAND [ARGUMENTS]\n\nCommands:\n");
  for (const Command& command : Commands()) {
    std::string line = std::string(command.words) + " " + std::string(command.synopsis);
    std::string summary(command.help.substr(0, command.help.find('\n')));
    if (line.size() >= 30) line += "\n" + std::string(32, ' ');
    std::fprintf(to, "  %-30s%s\n", line.c_str(), summary.c_str());
  }
  std::fprintf(to, "\n%.*s", static_cast<int>(kGlobalHelp.size()), kGlobalHelp.data());
}

void PrintCommandHelp(const Command& command) {
  std::printf("Usage: daxoctl [OPTIONS] %.*s %.*s\n\n%.*s\n\n%.*s",
              static_cast<int>(command.words.size()), command.words.data(),
              static_cast<int>(command.synopsis.size()), command.synopsis.data(),
              static_cast<int>(command.help.size()), command.help.data(),
              static_cast<int>(kGlobalHelp.size()), kGlobalHelp.data());
}

int UsageError(const std::string& message, const Command* command) {
  std::fprintf(stderr, "daxoctl: %s\n", message.c_str());
  if (command != nullptr) {
    std::fprintf(stderr, "usage: daxoctl %.*s %.*s\n", static_cast<int>(command->words.size()),
                 command->words.data(), static_cast<int>(command->synopsis.size()),
                 command->synopsis.data());
  } else {
    std::fprintf(stderr, "run \"daxoctl --help\" for the commands\n");
  }
  return kUsage;
}

bool TakesValue(const std::string& name) {
  if (name == "config" || name == "timeout") return true;
  for (const Command& command : Commands())
    for (std::string_view option : command.options)
      if (option == name) return true;
  return false;
}

bool IsOption(const std::string& token) {
  if (token.size() < 2 || token[0] != '-') return false;
  // Negative numbers are arguments: error codes and values may be below zero.
  return !(token[1] >= '0' && token[1] <= '9');
}

const Command* FindCommand(std::vector<std::string>& words) {
  for (size_t take : {size_t{2}, size_t{1}}) {
    if (words.size() < take) continue;
    std::string key = take == 2 ? words[0] + " " + words[1] : words[0];
    for (const Command& command : Commands()) {
      if (command.words != key) continue;
      words.erase(words.begin(), words.begin() + static_cast<long>(take));
      return &command;
    }
  }
  return nullptr;
}

// Splits argv into options and positional words.
std::optional<std::string> Tokenise(int argc, char** argv, Options& options,
                                    std::vector<std::string>& words) {
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string token = argv[i];
    if (optionsEnded || !IsOption(token)) {
      words.push_back(token);
      continue;
    }
    if (token == "--") {
      optionsEnded = true;
      continue;
    }
    std::string name = token == "-c" ? "config" : token == "-h" ? "help" : token.substr(2);
    if (token.rfind("--", 0) != 0 && name != "config" && name != "help")
      return "unknown option " + token;
    std::optional<std::string> value;
    if (size_t eq = name.find('='); eq != std::string::npos) {
      value = name.substr(eq + 1);
      name.resize(eq);
    }
    if (name == "json" || name == "help") {
      if (value) return "option --" + name + " takes no value";
      (name == "json" ? options.json : options.help) = true;
      continue;
    }
    if (!TakesValue(name)) return "unknown option " + token;
    if (!value) {
      if (i + 1 >= argc) return "option --" + name + " needs a value";
      value = argv[++i];
    }
    if (name == "config") {
      options.config = *value;
    } else if (name == "timeout") {
      std::optional<double> seconds = ParseSeconds(*value);
      if (!seconds) return "--timeout needs a number of seconds above 0, at most 86400";
      options.timeout = *seconds;
    } else {
      options.named[name] = *value;
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<int> Parse(int argc, char** argv, Options& options, const Command*& command) {
  std::vector<std::string> words;
  command = nullptr;
  std::optional<std::string> error = Tokenise(argc, argv, options, words);
  if (!error) command = FindCommand(words);
  if (error) return UsageError(*error, nullptr);
  if (command == nullptr) {
    if (options.help && words.empty()) {
      PrintToolHelp(stdout);
      return kOk;
    }
    return UsageError(words.empty() ? "no command given" : "unknown command \"" + words[0] + "\"",
                      nullptr);
  }
  if (options.help) {
    PrintCommandHelp(*command);
    return kOk;
  }
  for (const auto& [name, value] : options.named) {
    bool allowed = false;
    for (std::string_view option : command->options) allowed = allowed || option == name;
    if (!allowed) return UsageError("option --" + name + " does not apply here", command);
  }
  if (words.size() < command->minArgs) return UsageError("missing arguments", command);
  if (words.size() > command->maxArgs) return UsageError("too many arguments", command);
  options.command = command->words;
  options.args = std::move(words);
  return std::nullopt;
}

std::optional<std::string> Options::Named(const std::string& name) const {
  auto it = named.find(name);
  if (it == named.end()) return std::nullopt;
  return it->second;
}

void Printer::Result(const JsonObject& json, const std::string& text) const {
  std::cout << (options_.json ? json.Text() : text) << std::endl;
}

int Printer::Failure(int exit, const std::string& message, const std::string& error,
                     int code) const {
  std::cerr << "daxoctl " << options_.command << ": " << message << std::endl;
  if (options_.json) {
    JsonObject json;
    json.Add("command", options_.command).AddBool("ok", false).Add("message", message);
    if (!error.empty()) json.Add("error", error).Add("code", code);
    if (exit == kTimeout) json.AddBool("timeout", true);
    std::cout << json.Text() << std::endl;
  }
  return exit;
}

std::optional<long long> ParseInteger(const std::string& text) {
  if (text.empty()) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  long long value = std::strtoll(text.c_str(), &end, 10);
  if (*end != '\0' || errno != 0) return std::nullopt;
  return value;
}

std::optional<double> ParseSeconds(const std::string& text) {
  char* end = nullptr;
  double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value > 0) || value > 86400) return std::nullopt;
  return value;
}

}  // namespace daxoctl
