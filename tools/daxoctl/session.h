// One client of the library for one command: every callback records an
// Event into a queue that the command's thread waits on, for a bounded
// time.
#ifndef DAXOCTL_SESSION_H
#define DAXOCTL_SESSION_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli.h"
#include "daxo_client.h"

namespace daxoctl {

struct Sensor {
  std::string name;
  std::string id;
  std::vector<std::string> metrics;
};

// {"id", "name", "metrics": [metric ids]}.
JsonObject SensorJson(const Sensor& sensor);

struct Metric {
  std::string id;
  std::string name;
  DAXO_ValueUnit unit = DAXO_ValueUnit_NoUnit;
  DAXO_ValueType type = DAXO_ValueType_NoType;
  std::optional<std::string> annotation;
  std::optional<std::string> value;
  uint64_t lastUpdated = 0;
};

// What a callback delivered, copied out of the library's strings and
// records. kind is the callback's name ("createSensor", "connect", ...);
// code a DAXO_Error for connection and provisioning callbacks, else a
// DAXO_ApiError.
struct Event {
  std::string kind{};
  int code = 0;
  std::string sensorId{};
  std::string name{};
  std::vector<Sensor> sensors{};
  std::vector<std::pair<std::string, std::string>> created{};  // matching id, metric id
  std::optional<Metric> metric{};
};

class Session {
 public:
  explicit Session(const Options& options) : options_(options) {}
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Creates the client with every callback set. Returns the exit code on
  // failure, after printing why.
  std::optional<int> Create();
  // Create and load the existing identity: never a new one.
  std::optional<int> Load();
  // Load and connect.
  std::optional<int> Open();

  DAXO_Client* Client() const { return client_; }
  std::string ClientId() const;
  const Printer& Out() const { return printer_; }

  // The next event of kind, skipping others, within the --timeout.
  std::optional<Event> Wait(std::string_view kind);
  // Forgets the events of kind received so far.
  void Discard(std::string_view kind);
  // The next event of any kind, until deadline.
  std::optional<Event> Next(std::chrono::steady_clock::time_point deadline);

  // Hands a request's result over: on failure prints it and returns exit 1.
  std::optional<int> Sent(std::string_view what, DAXO_Error err) const;
  // Waits for the reply of kind to a request; prints a timeout or the
  // agent's refusal and returns the exit code, or returns the event.
  std::pair<std::optional<Event>, int> Reply(std::string_view kind);

  // The library's line naming the last connection failure, or err's name.
  std::string Reason(DAXO_Error err);
  void Noted(const char* line);

  std::chrono::steady_clock::time_point Deadline() const;
  // {"command": ..., "ok": true}, to which a result adds its fields.
  JsonObject Success() const;
  void Record(Event event);

 private:
  std::optional<std::string> CertFolder() const;

  const Options& options_;
  Printer printer_{options_};
  DAXO_Client* client_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> events_;
  std::string failure_;  // the last "Connection to ... failed" line
};

// Opens the session, sends one request and waits for its reply: the reply,
// or nothing and the exit code.
template <class Request>
std::pair<std::optional<Event>, int> Ask(Session& session, std::string_view kind,
                                         Request request) {
  if (std::optional<int> exit = session.Open()) return {std::nullopt, *exit};
  if (auto exit = session.Sent(kind, request(session.Client()))) return {std::nullopt, *exit};
  return session.Reply(kind);
}

}  // namespace daxoctl

#endif
