// korvel-zk-local: runs one local ZooKeeper server (zklocal.h) for scripts and benchmarks. It
// prints the server's connect string and its directory, one per line, then serves until SIGINT,
// SIGTERM or SIGHUP arrives or its lifetime is over, and then stops the server and removes the
// directory. Exit code 0 then; 1 when the server does not start (the reason on stderr); 2 for a
// usage error.
//
//   korvel-zk-local [--full-jit] [--lifetime SECONDS]
//
//   --full-jit          the JVM compiles with every JIT tier (for benchmarks); by default it
//                       stops at the first one, which starts faster and serves slower
//   --lifetime SECONDS  stop by itself after this long (default 600)
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "zklocal/zklocal.h"

namespace {

int Usage() {
  std::fprintf(stderr, "usage: korvel-zk-local [--full-jit] [--lifetime SECONDS]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  using korvel::zklocal::Jit;
  Jit jit = Jit::kQuickStart;
  long lifetime = 600;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--full-jit") == 0) {
      jit = Jit::kFullJit;
    } else if (std::strcmp(argv[i], "--lifetime") == 0 && i + 1 < argc) {
      char* end = nullptr;
      lifetime = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || lifetime <= 0) return Usage();
    } else {
      return Usage();
    }
  }
  // Blocked from the start, so that a signal during the server's start is taken afterwards by
  // sigtimedwait below; the server's JVM starts with none blocked.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stopSignals, signal);
  sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
  try {
    korvel::zklocal::ZooKeeperServer server(100, jit);
    std::printf("%s\n%s\n", server.ConnectString().c_str(), server.Directory().c_str());
    std::fflush(stdout);
    const timespec timeout{lifetime, 0};
    while (sigtimedwait(&stopSignals, nullptr, &timeout) < 0 && errno == EINTR) {
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "korvel-zk-local: %s\n", e.what());
    return 1;
  }
  return 0;
}
