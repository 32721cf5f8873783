#include "signals.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace korvel::cli {
namespace {

std::atomic<int> g_received{0};

}  // namespace

void WatchStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // Detached: it waits until the process ends.
  std::thread([signals] {
    int received = 0;
    if (sigwait(&signals, &received) != 0) return;
    g_received = received;
    // A second one ends the process at once, should the orderly stop hang.
    if (sigwait(&signals, &received) == 0) _exit(128 + received);
  }).detach();
}

int ReceivedStopSignal() {
  return g_received;
}

}  // namespace korvel::cli
