// The command line: options, the command table's shape, exit codes and the
// printer that writes results as text or JSON.
#ifndef DAXOCTL_CLI_H
#define DAXOCTL_CLI_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "json.h"

namespace daxoctl {

enum Exit : int { kOk = 0, kFailed = 1, kUsage = 2, kTimeout = 3 };

struct Options {
  std::string command;  // "sensors rename", for messages
  std::string config = "./daxo.conf";
  double timeout = 10;
  bool json = false;
  bool help = false;
  std::vector<std::string> args;             // after the command's words
  std::map<std::string, std::string> named;  // command options, by long name

  std::optional<std::string> Named(const std::string& name) const;
};

struct Command {
  std::string_view words;     // "metrics update"
  std::string_view synopsis;  // what follows the words
  std::string_view help;      // shown by --help
  std::vector<std::string_view> options;  // long names of the command's own options
  size_t minArgs;
  size_t maxArgs;  // SIZE_MAX: any number
  int (*run)(const Options&);
};

const std::vector<Command>& Commands();

// Parses argv into the command and its options; prints usage and returns
// the exit code when the line is not usable or --help was asked.
std::optional<int> Parse(int argc, char** argv, Options& options, const Command*& command);

class Printer {
 public:
  explicit Printer(const Options& options) : options_(options) {}
  // One result: the JSON object or the text, on standard output.
  void Result(const JsonObject& json, const std::string& text) const;
  // A failure on standard error (and as {"ok":false,...} with --json);
  // returns exit.
  int Failure(int exit, const std::string& message, const std::string& error = "",
              int code = 0) const;

 private:
  const Options& options_;
};

// Parses a whole decimal number; nullopt when text is not one.
std::optional<long long> ParseInteger(const std::string& text);
// Parses a number of seconds above 0 and at most a day; nullopt otherwise.
std::optional<double> ParseSeconds(const std::string& text);

}  // namespace daxoctl

#endif
