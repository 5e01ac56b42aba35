#include "child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

namespace daxo_test {
namespace {

// Runs between fork and exec, so only async-signal-safe calls are allowed.
[[noreturn]] void ExecChild(char* const* argv, int output, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(127);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (input < 0 || dup2(input, 0) < 0 || dup2(output, 1) < 0 || dup2(output, 2) < 0) _exit(127);
  // Sockets of the test's own MQTT clients must not outlive them in a broker.
  close_range(3, ~0U, 0);
  execv(argv[0], argv);
  _exit(127);
}

}  // namespace

std::string ExitStatus::Describe() const {
  return exited ? "exit code " + std::to_string(code) : "signal " + std::to_string(code);
}

void ChildProcess::Start(const std::vector<std::string>& argv, const std::string& logFile) {
  if (pid_ > 0) throw std::runtime_error(argv.at(0) + " is already running");
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  log_.open(logFile, std::ios::app | std::ios::binary);
  {
    std::lock_guard lock(mutex_);
    lines_.clear();
    partial_.clear();
    outputEnded_ = false;
  }
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) ExecChild(args.data(), fds[1], parent);
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    log_.close();
    throw std::runtime_error("fork failed for " + argv[0]);
  }
  pid_ = pid;
  ended_.reset();
  reader_ = std::thread(&ChildProcess::ReadOutput, this, fds[0]);
}

void ChildProcess::ReadOutput(int fd) {
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    log_.write(buffer, n).flush();
    std::lock_guard lock(mutex_);
    partial_.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t end; (end = partial_.find('\n')) != std::string::npos;) {
      lines_.push_back(partial_.substr(0, end));
      partial_.erase(0, end + 1);
    }
    changed_.notify_all();
  }
  close(fd);
  std::lock_guard lock(mutex_);
  if (!partial_.empty()) lines_.push_back(partial_);
  outputEnded_ = true;
  changed_.notify_all();
}

std::optional<ExitStatus> ChildProcess::Reap(bool block) {
  int status = 0;
  pid_t done;
  do {
    done = waitpid(pid_, &status, block ? 0 : WNOHANG);
  } while (done < 0 && errno == EINTR);
  if (done != pid_) return std::nullopt;
  pid_ = -1;
  // The output ends with the process: the pipe has no other writer.
  reader_.join();
  log_.close();
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

std::optional<ExitStatus> ChildProcess::Stop(std::chrono::milliseconds grace) {
  if (pid_ <= 0) return ended_;
  kill(pid_, SIGTERM);
  if (std::optional<ExitStatus> status = WaitForExit(grace)) return status;
  kill(pid_, SIGKILL);
  return Reap(true);
}

bool ChildProcess::Running() { return pid_ > 0 && !Reap(false); }

bool ChildProcess::WaitForOutput(const std::function<bool(const std::vector<std::string>&)>& done,
                                 std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, timeout, [&] { return done(lines_) || outputEnded_; });
  return done(lines_);
}

std::vector<std::string> ChildProcess::Lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

ExitStatus RunCommand(const std::vector<std::string>& argv, const std::string& logFile,
                      std::chrono::milliseconds timeout) {
  ChildProcess process;
  process.Start(argv, logFile);
  if (std::optional<ExitStatus> status = process.WaitForExit(timeout)) return *status;
  return process.Stop().value_or(ExitStatus{});
}

}  // namespace daxo_test
