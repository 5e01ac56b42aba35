#include "child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace daxo_test {

void ChildProcess::Start(const std::vector<std::string>& argv, const std::string& logFile) {
  if (pid_ > 0) throw std::runtime_error(argv.at(0) + " is already running");
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  int output = open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (output < 0) throw std::runtime_error("cannot open " + logFile);
  logFile_ = logFile;
  logStart_ = lseek(output, 0, SEEK_END);
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {  // only async-signal-safe calls until exec
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (input < 0 || dup2(input, 0) < 0 || dup2(output, 1) < 0 || dup2(output, 2) < 0) _exit(127);
    // Sockets of the test's own MQTT clients must not outlive them in a broker.
    close_range(3, ~0U, 0);
    execv(args[0], args.data());
    _exit(127);
  }
  close(output);
  if (pid < 0) throw std::runtime_error("fork failed for " + argv[0]);
  pid_ = pid;
  ended_.reset();
}

std::optional<ExitStatus> ChildProcess::Reap(bool block) {
  int status = 0;
  pid_t done;
  while ((done = waitpid(pid_, &status, block ? 0 : WNOHANG)) < 0 && errno == EINTR) {
  }
  if (done != pid_) return std::nullopt;
  pid_ = -1;
  ended_ = WIFEXITED(status) ? ExitStatus{true, WEXITSTATUS(status)}
                             : ExitStatus{false, WTERMSIG(status)};
  return ended_;
}

std::optional<ExitStatus> ChildProcess::WaitForExit(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (pid_ > 0) {
    if (std::optional<ExitStatus> status = Reap(false)) return status;
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return ended_;
}

std::optional<ExitStatus> ChildProcess::Stop() {
  if (pid_ <= 0) return ended_;
  kill(pid_, SIGTERM);
  if (std::optional<ExitStatus> status = WaitForExit(std::chrono::seconds(10))) return status;
  kill(pid_, SIGKILL);
  return Reap(true);
}

std::optional<ExitStatus> ChildProcess::Kill() {
  if (pid_ <= 0) return ended_;
  kill(pid_, SIGKILL);
  return Reap(true);
}

bool ChildProcess::WaitForOutput(const std::function<bool(const std::vector<std::string>&)>& done,
                                 std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done(Lines()) && Running() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return done(Lines());
}

std::vector<std::string> ChildProcess::Lines() const {
  std::vector<std::string> lines;
  std::ifstream log(logFile_, std::ios::binary);
  log.seekg(logStart_);
  for (std::string line; std::getline(log, line);) lines.push_back(line);
  return lines;
}

ExitStatus RunCommand(const std::vector<std::string>& argv, const std::string& logFile,
                      std::chrono::milliseconds timeout) {
  ChildProcess process;
  process.Start(argv, logFile);
  if (std::optional<ExitStatus> status = process.WaitForExit(timeout)) return *status;
  return process.Stop().value_or(ExitStatus{});
}

}  // namespace daxo_test
