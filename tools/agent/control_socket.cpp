#include "control_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "log.h"

namespace daxo_agent {
namespace {

using Clock = std::chrono::steady_clock;

// A connection that stalls must not keep other commands waiting for long.
constexpr auto kConnectionTimeout = std::chrono::seconds(5);
constexpr std::size_t kMaxLine = 1 << 20;

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

std::runtime_error SystemError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    throw std::runtime_error("the control socket path \"" + path + "\" is empty or longer than " +
                             std::to_string(sizeof address.sun_path - 1) + " bytes");
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

bool Connect(int fd, const sockaddr_un& address) {
  int rc;
  do {
    rc = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

// Waits for events on fd until deadline; false when time ran out.
bool WaitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd entry{fd, events, 0};
    int rc = poll(&entry, 1, static_cast<int>(left.count()));
    if (rc > 0) return true;
    if (rc < 0 && errno != EINTR) return false;
  }
}

// Reads up to the first newline or the end of the stream; false on timeout,
// error or an overlong line.
bool ReadLine(int fd, std::string& line, Clock::time_point deadline) {
  line.clear();
  char buffer[4096];
  for (;;) {
    if (!WaitFor(fd, POLLIN, deadline)) return false;
    ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    line.append(buffer, static_cast<std::size_t>(got));
    if (std::size_t newline = line.find('\n'); newline != std::string::npos) {
      line.erase(newline);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      return true;
    }
    if (line.size() > kMaxLine) return false;
  }
}

bool WriteAll(int fd, std::string_view data, Clock::time_point deadline) {
  while (!data.empty()) {
    if (!WaitFor(fd, POLLOUT, deadline)) return false;
    ssize_t sent = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return false;
    data.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

// A socket file left by an agent that did not stop cleanly is replaced; one
// that still answers belongs to a running agent, and other files are not ours.
void RemoveStaleSocket(const std::string& path, const sockaddr_un& address) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return;
  if (!S_ISSOCK(info.st_mode))
    throw std::runtime_error(path + " exists and is not a socket; choose another --control path");
  Fd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (probe.get() >= 0 && Connect(probe.get(), address))
    throw std::runtime_error("another agent answers on " + path);
  unlink(path.c_str());
}

int Listen(const std::string& path) {
  sockaddr_un address = AddressOf(path);
  RemoveStaleSocket(path, address);
  Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (listener.get() < 0) throw SystemError("cannot create the control socket");
  // The umask makes the file 0600 from the start, so nobody else can connect
  // before a chmod could narrow it.
  mode_t previous = umask(0177);
  int rc = bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  umask(previous);
  if (rc != 0) throw SystemError("cannot create the control socket " + path);
  if (listen(listener.get(), 8) != 0) {
    std::runtime_error error = SystemError("cannot listen on " + path);
    unlink(path.c_str());
    throw error;
  }
  return listener.release();
}

}  // namespace

ControlSocket::ControlSocket(std::string path, Executor execute)
    : path_(std::move(path)), execute_(std::move(execute)) {
  Fd listener(Listen(path_));
  int wake[2];
  if (pipe2(wake, O_CLOEXEC) != 0) {
    std::runtime_error error = SystemError("cannot create a pipe");
    unlink(path_.c_str());
    throw error;
  }
  listener_ = listener.release();
  wakeRead_ = wake[0];
  wakeWrite_ = wake[1];
  // Stop and dump signals belong to the MQTT thread, whose loop they cut
  // short; the new thread inherits this mask.
  sigset_t blocked, previous;
  sigemptyset(&blocked);
  for (int signal : {SIGINT, SIGTERM, SIGUSR1}) sigaddset(&blocked, signal);
  pthread_sigmask(SIG_BLOCK, &blocked, &previous);
  thread_ = std::thread([this] { Serve(); });
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  Log("control socket " + path_);
}

ControlSocket::~ControlSocket() {
  char byte = 0;
  while (write(wakeWrite_, &byte, 1) < 0 && errno == EINTR) {
  }
  thread_.join();
  close(listener_);
  close(wakeRead_);
  close(wakeWrite_);
  unlink(path_.c_str());
}

void ControlSocket::Serve() {
  for (;;) {
    pollfd entries[2] = {{listener_, POLLIN, 0}, {wakeRead_, POLLIN, 0}};
    if (poll(entries, 2, -1) < 0) {
      if (errno == EINTR) continue;
      Log(std::string("control socket: poll failed: ") + std::strerror(errno));
      return;
    }
    if (entries[1].revents != 0) return;
    Fd connection(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
    if (connection.get() >= 0) Answer(connection.get());
  }
}

void ControlSocket::Answer(int connection) {
  auto deadline = Clock::now() + kConnectionTimeout;
  std::string line;
  if (!ReadLine(connection, line, deadline)) {
    Log("control socket: no complete command line within the time or size limit");
    return;
  }
  std::string answer = execute_(line) + "\n";
  if (!WriteAll(connection, answer, deadline)) Log("control socket: the answer was not taken");
}

std::string SendControlCommand(const std::string& path, std::string_view line,
                               std::chrono::milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  sockaddr_un address = AddressOf(path);
  Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) throw SystemError("cannot create a socket");
  if (!Connect(fd.get(), address)) throw SystemError("no agent answers on " + path);
  std::string request(line);
  request += '\n';
  std::string answer;
  if (!WriteAll(fd.get(), request, deadline) || !ReadLine(fd.get(), answer, deadline) ||
      answer.empty())
    throw std::runtime_error("the agent on " + path + " did not answer in time");
  return answer;
}

}  // namespace daxo_agent
