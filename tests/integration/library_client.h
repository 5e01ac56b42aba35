// A library client inside the test environment, with every callback it
// receives recorded so that a test can wait for one, for a bounded time.
#ifndef DAXO_TEST_LIBRARY_CLIENT_H
#define DAXO_TEST_LIBRARY_CLIENT_H

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "daxo_client.h"
#include "environment.h"

namespace daxo_test {

class LibraryClient {
 public:
  // Creates the client from a configuration written into env; all
  // callbacks of this file are set before anything else happens.
  LibraryClient(TestEnvironment& env, ClientConfig config = {});
  ~LibraryClient();
  LibraryClient(const LibraryClient&) = delete;
  LibraryClient& operator=(const LibraryClient&) = delete;

  DAXO_Client* Get() const { return client_; }
  const std::string& CertFolder() const { return certFolder_; }
  std::string Id() const;

  // The code of the next not yet consumed callback of that name
  // ("provision", "connect", "disconnect", "check", "deprovision"), or
  // nothing when none arrives within timeout.
  std::optional<int> Next(const std::string& name,
                          std::chrono::seconds timeout = std::chrono::seconds(20));
  // The same with what the callback carried, summarised as text: the
  // sensor id, "name|id", or the records' contents: a described metric as
  // "sensorId|id|name|unit U" or "...|type T annotation", then
  // "|value|lastUpdated"; created metrics as "sensorId|matchingId=metricId|...".
  struct Event {
    int code;
    std::string text;
  };
  std::optional<Event> NextEvent(const std::string& name,
                                 std::chrono::seconds timeout = std::chrono::seconds(20));
  // Callbacks of that name not consumed yet.
  size_t Pending(const std::string& name);
  std::vector<std::string> Logs();
  // Waits until a log line containing text has arrived.
  bool WaitForLog(const std::string& text, std::chrono::seconds timeout = std::chrono::seconds(20));

  // Provisions and connects; true once both have reported success.
  bool ProvisionAndConnect();

  // Records an event as the callbacks do, for callbacks a test installs.
  void Record(const std::string& name, int code, std::string text = "");

 private:
  static LibraryClient& Self(void* p) { return *static_cast<LibraryClient*>(p); }
  void SetCallbacks();
  void SetReplyCallbacks();

  std::string certFolder_;
  DAXO_Client* client_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, std::vector<Event>> events_;
  std::map<std::string, size_t> consumed_;
  std::vector<std::string> logs_;
};

}  // namespace daxo_test

#endif
