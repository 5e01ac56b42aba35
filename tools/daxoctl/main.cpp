// daxoctl: the library's requests from the command line, for scripts and
// operators. Every command is one client, one request and a bounded wait.
#include <csignal>

#include "cli.h"
#include "daxo_client.h"

int main(int argc, char** argv) {
  // A reader that goes away must end the tool with an error, not a signal.
  std::signal(SIGPIPE, SIG_IGN);
  daxoctl::Options options;
  const daxoctl::Command* command = nullptr;
  if (std::optional<int> exit = daxoctl::Parse(argc, argv, options, command)) return *exit;
  DAXO_LibInit();
  int exit = command->run(options);
  DAXO_LibCleanup();
  return exit;
}
