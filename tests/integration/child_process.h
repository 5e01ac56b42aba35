// A child process for the integration environment: started with its output
// captured, stopped by PID with a bounded wait.
#ifndef DAXO_TEST_CHILD_PROCESS_H
#define DAXO_TEST_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace daxo_test {

struct ExitStatus {
  bool exited = false;  // false: ended by a signal
  int code = -1;        // exit code, or the signal number
  bool Clean() const { return exited && code == 0; }
  std::string Describe() const;
};

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess() { Stop(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Runs argv[0] (a path) with stdout and stderr appended to logFile and kept
  // as lines for WaitForOutput. The child gets SIGTERM if the thread that
  // started it ends, so a crashed test leaves no process behind. Throws
  // std::runtime_error when the process cannot be started.
  void Start(const std::vector<std::string>& argv, const std::string& logFile);

  // SIGTERM, a bounded wait, then SIGKILL. Returns how the process ended,
  // also when it ended before; nullopt when none was started.
  std::optional<ExitStatus> Stop(std::chrono::milliseconds grace = std::chrono::seconds(10));

  // How the process ended; nullopt when it still runs after timeout.
  std::optional<ExitStatus> WaitForExit(std::chrono::milliseconds timeout);

  bool Running();
  pid_t Pid() const { return pid_; }

  // Waits until done(lines) holds or the output ends; returns done(lines).
  bool WaitForOutput(const std::function<bool(const std::vector<std::string>&)>& done,
                     std::chrono::milliseconds timeout);
  std::vector<std::string> Lines() const;

 private:
  void ReadOutput(int fd);
  std::optional<ExitStatus> Reap(bool block);

  pid_t pid_ = -1;
  std::thread reader_;
  std::ofstream log_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  std::string partial_;
  bool outputEnded_ = false;
  std::optional<ExitStatus> ended_;
};

// Runs a command to completion (bounded) and returns its exit status; its
// output goes to logFile.
ExitStatus RunCommand(const std::vector<std::string>& argv, const std::string& logFile,
                      std::chrono::milliseconds timeout = std::chrono::seconds(60));

}  // namespace daxo_test

#endif
