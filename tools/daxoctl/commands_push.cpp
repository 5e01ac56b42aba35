// push: metric values from the arguments, or from standard input in batches.
#include <iostream>
#include <memory>

#include "commands.h"
#include "session.h"
#include "vocabulary.h"

namespace daxoctl {
namespace {

struct ValuesFree {
  void operator()(DAXO_MetricValueContainer* c) const { DAXO_DestroyMetricValueContainer(c); }
};
using Values = std::unique_ptr<DAXO_MetricValueContainer, ValuesFree>;

struct Assignment {
  std::string metric;
  std::string value;
};

std::optional<Assignment> Split(const std::string& text) {
  size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0) return std::nullopt;
  return Assignment{text.substr(0, eq), text.substr(eq + 1)};
}

DAXO_Error Add(DAXO_MetricValueContainer* values, const Assignment& a) {
  const char* id = a.metric.c_str();
  Value value = InferValue(a.value);
  if (auto* i = std::get_if<int64_t>(&value)) return DAXO_AddIntegerMetricValue(values, *i, id);
  if (auto* d = std::get_if<double>(&value)) return DAXO_AddDoubleMetricValue(values, *d, id);
  if (auto* b = std::get_if<bool>(&value)) return DAXO_AddBoolMetricValue(values, *b, id);
  return DAXO_AddStringMetricValue(values, std::get<std::string>(value).c_str(), id);
}

struct PushSettings {
  std::string sensor;
  std::optional<uint64_t> timestamp;
  size_t batch = 100;
};

// Sends one batch and waits for the agent's verdict; the exit code.
int Send(Session& session, const PushSettings& settings, const std::vector<Assignment>& batch) {
  Values values(DAXO_CreateMetricValueContainer());
  if (!values) return session.Out().Failure(kFailed, "out of memory");
  for (const Assignment& a : batch)
    if (auto exit = session.Sent("adding " + a.metric, Add(values.get(), a))) return *exit;
  if (settings.timestamp) {
    if (auto exit = session.Sent("the timestamp",
                                 DAXO_AddEpochTimeStamp(values.get(), *settings.timestamp)))
      return *exit;
  }
  // With a push store the answers come in the order the pushes were kept:
  // the first ones belong to what earlier runs left.
  session.Discard("pushMetricValues");
  size_t ahead = 0;
  DAXO_GetWaitingPushCount(session.Client(), &ahead);
  DAXO_Error sent = DAXO_PushMetricValues(session.Client(), settings.sensor.c_str(), values.get());
  if (auto exit = session.Sent("push", sent)) return *exit;
  for (size_t i = 0; i < ahead && session.Wait("pushMetricValues"); ++i) {
  }
  if (auto [reply, exit] = session.Reply("pushMetricValues"); !reply) return exit;
  // With a push store, what earlier runs or batches left for the agent.
  size_t waiting = 0;
  DAXO_GetWaitingPushCount(session.Client(), &waiting);
  session.Out().Result(
      session.Success()
          .Add("sensor", settings.sensor)
          .Add("values", static_cast<int64_t>(batch.size()))
          .Add("waiting", static_cast<int64_t>(waiting)),
      "pushed " + std::to_string(batch.size()) + " value(s) to " + settings.sensor +
          (waiting > 0 ? "; " + std::to_string(waiting) + " push(es) waiting" : std::string()));
  return kOk;
}

int PushStandardInput(Session& session, const PushSettings& settings) {
  std::vector<Assignment> batch;
  std::string line;
  for (size_t number = 1; std::getline(std::cin, line); ++number) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    std::optional<Assignment> a = Split(line);
    if (!a)
      return session.Out().Failure(kUsage, "line " + std::to_string(number) +
                                               " is not metric=value: \"" + line + "\"");
    batch.push_back(std::move(*a));
    if (batch.size() < settings.batch) continue;
    if (int exit = Send(session, settings, batch); exit != kOk) return exit;
    batch.clear();
  }
  if (batch.empty()) return kOk;
  return Send(session, settings, batch);
}

}  // namespace

int Push(const Options& options) {
  Printer out(options);
  PushSettings settings{options.args[0], std::nullopt, 100};
  if (std::optional<std::string> text = options.Named("timestamp")) {
    std::optional<long long> ms = ParseInteger(*text);
    if (!ms || *ms < 0) return out.Failure(kUsage, "--timestamp needs milliseconds since 1970");
    settings.timestamp = static_cast<uint64_t>(*ms);
  }
  bool fromInput = options.args.size() == 2 && options.args[1] == "-";
  if (std::optional<std::string> text = options.Named("batch")) {
    std::optional<long long> n = ParseInteger(*text);
    if (!fromInput || !n || *n < 1)
      return out.Failure(kUsage, "--batch needs a count of lines above 0, and \"-\"");
    settings.batch = static_cast<size_t>(*n);
  }
  std::vector<Assignment> values;
  for (size_t i = 1; !fromInput && i < options.args.size(); ++i) {
    std::optional<Assignment> a = Split(options.args[i]);
    if (!a) return out.Failure(kUsage, "\"" + options.args[i] + "\" is not metric=value");
    values.push_back(std::move(*a));
  }
  Session session(options);
  if (std::optional<int> exit = session.Open()) return *exit;
  return fromInput ? PushStandardInput(session, settings) : Send(session, settings, values);
}

}  // namespace daxoctl
