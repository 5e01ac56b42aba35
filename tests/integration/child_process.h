// A child process logging to a file, stopped by PID with a bounded wait.
#ifndef DAXO_TEST_CHILD_PROCESS_H
#define DAXO_TEST_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace daxo_test {

struct ExitStatus {
  bool exited = false;  // false: ended by a signal
  int code = -1;        // exit code, or the signal number
  bool Clean() const { return exited && code == 0; }
  std::string Describe() const {
    return (exited ? "exit code " : "signal ") + std::to_string(code);
  }
};

class ChildProcess {
 public:
  ~ChildProcess() { Stop(); }

  // Runs argv[0] (a path) with stdout and stderr appended to logFile. The
  // child gets SIGTERM when the thread that started it ends, so a crashed
  // test leaves no process behind.
  void Start(const std::vector<std::string>& argv, const std::string& logFile);
  // SIGTERM, a bounded wait, then SIGKILL. How the process ended, also when
  // it had ended before; nullopt when none was started.
  std::optional<ExitStatus> Stop();
  // nullopt when the process still runs after timeout.
  std::optional<ExitStatus> WaitForExit(std::chrono::milliseconds timeout);
  bool Running() { return pid_ > 0 && !Reap(false); }
  // SIGKILL at once, as a power cut or the out-of-memory killer would.
  std::optional<ExitStatus> Kill();
  // Waits until done(lines) holds or the process has ended; returns done(lines).
  bool WaitForOutput(const std::function<bool(const std::vector<std::string>&)>& done,
                     std::chrono::milliseconds timeout);
  std::vector<std::string> Lines() const;

 private:
  std::optional<ExitStatus> Reap(bool block);

  pid_t pid_ = -1;
  std::string logFile_;
  long logStart_ = 0;
  std::optional<ExitStatus> ended_;
};

// Runs a command to completion, bounded, with its output in logFile.
ExitStatus RunCommand(const std::vector<std::string>& argv, const std::string& logFile,
                      std::chrono::milliseconds timeout = std::chrono::seconds(60));

}  // namespace daxo_test

#endif
