// Runs one local ZooKeeper server (tools/zklocal, as the tests do) for
// bench/run.sh: prints its connect string, serves until standard input
// closes or SIGINT/SIGTERM arrives, then stops it and removes its data.
//
//   zk_serve [--quick-start]
// The server's JVM compiles with every JIT tier unless --quick-start asks
// for the tests' faster start (and slower serving).
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>

#include "zklocal/zklocal.h"

int main(int argc, char** argv) {
  const bool quickStart = argc > 1 && std::strcmp(argv[1], "--quick-start") == 0;
  // Without SA_RESTART a signal ends the read below, and the server is stopped.
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  try {
    korvel::zklocal::ZooKeeperServer server(
        100, quickStart ? korvel::zklocal::Jit::kQuickStart : korvel::zklocal::Jit::kFullJit);
    std::printf("%s\n", server.ConnectString().c_str());
    std::fflush(stdout);
    char buffer[256];
    while (read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zk_serve: %s\n", e.what());
    return 1;
  }
  return 0;
}
