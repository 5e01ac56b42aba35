// listen: what arrives from the agent unasked, and replies, as it comes.
#include <algorithm>
#include <csignal>
#include <iostream>

#include "commands.h"
#include "session.h"
#include "vocabulary.h"

namespace daxoctl {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void OnSignal(int) { interrupted = 1; }

// Connection and provisioning callbacks carry a DAXO_Error, replies a
// DAXO_ApiError.
bool CarriesLibraryError(const Event& event) {
  return event.kind == "connect" || event.kind == "disconnect" || event.kind == "provision";
}

void Print(const Session& session, const Event& event) {
  JsonObject json;
  json.Add("event", event.kind);
  std::string text = event.kind;
  if (event.kind != "createSensorJob" && event.kind != "deleteSensorJob" &&
      event.kind != "deprovision") {
    std::string name = CarriesLibraryError(event)
                           ? DAXO_ErrorName(static_cast<DAXO_Error>(event.code))
                           : DAXO_ApiErrorName(static_cast<DAXO_ApiError>(event.code));
    json.Add("result", name);
    text += " " + name;
  }
  if (!event.sensorId.empty()) {
    json.Add("sensorId", event.sensorId);
    text += " sensor " + event.sensorId;
  }
  std::vector<JsonObject> sensors;
  for (const Sensor& sensor : event.sensors) {
    sensors.push_back(SensorJson(sensor));
    text += " sensor " + sensor.id + " \"" + sensor.name + "\"";
  }
  if (!sensors.empty()) json.Add("sensors", sensors);
  session.Out().Result(json, text);
}

}  // namespace

int Listen(const Options& options) {
  Printer out(options);
  std::optional<double> seconds;
  if (std::optional<std::string> text = options.Named("for")) {
    seconds = ParseSeconds(*text);
    if (!seconds)
      return out.Failure(kUsage, "--for needs a number of seconds above 0, at most 86400");
  }
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  Session session(options);
  if (std::optional<int> exit = session.Open()) return *exit;
  std::cerr << "listening as " << session.ClientId() << std::endl;
  using Clock = std::chrono::steady_clock;
  auto end = seconds ? Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(*seconds))
                     : Clock::time_point::max();
  // Short slices, so that a signal is noticed soon without waking the queue.
  while (!interrupted && Clock::now() < end) {
    auto slice = std::min(end, Clock::now() + std::chrono::milliseconds(100));
    if (std::optional<Event> event = session.Next(slice)) Print(session, *event);
  }
  return kOk;
}

}  // namespace daxoctl
