// The control socket: a Unix stream socket on which the agent takes one
// command line per connection and answers with one line, and the client side
// that sends such a line.
#ifndef DAXO_AGENT_CONTROL_SOCKET_H
#define DAXO_AGENT_CONTROL_SOCKET_H

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace daxo_agent {

class ControlSocket {
 public:
  // Called on the socket's own thread with the line, without its newline;
  // returns the answer, without one.
  using Executor = std::function<std::string(std::string_view line)>;

  // Creates the socket file with mode 0600, replacing a stale one that no
  // process answers on, and starts serving. Throws std::runtime_error.
  // Construct it before other threads start: it changes the umask briefly.
  ControlSocket(std::string path, Executor execute);
  // Stops the thread and removes the socket file.
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

 private:
  void Serve();
  void Answer(int connection);

  std::string path_;
  Executor execute_;
  int listener_ = -1;
  int wakeRead_ = -1;
  int wakeWrite_ = -1;
  std::thread thread_;
};

// Sends one command line and returns the answer line. Throws
// std::runtime_error when no agent answers on path within timeout.
std::string SendControlCommand(const std::string& path, std::string_view line,
                               std::chrono::milliseconds timeout);

}  // namespace daxo_agent

#endif
