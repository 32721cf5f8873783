// Child process of fault_storm_test: registers COUNT instances of TYPE one
// after another, keeping the last KEEP of them live and shutting down the
// older ones. Before each step it checks that every live instance of its own
// still has the data node it was registered with (same creation zxid) and its
// status: an instance that fails the check is counted as lost.
//
// Usage: fault_storm_child HOSTS TYPE COUNT KEEP
// Prints "ready", waits (bounded) for one byte on stdin, runs, then prints
// "done registered=N lost=M errors=E" and exits 0 (2 on bad usage).
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <string>

#include "korvel/error.h"
#include "korvel/service.h"
#include "logger/logger.h"

int main(int argc, char** argv) {
  using namespace std::chrono_literals;
  if (argc != 5) return 2;
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_ERROR);
  const std::string type = argv[2];
  const int count = std::atoi(argv[3]);
  const std::size_t keep = static_cast<std::size_t>(std::atoi(argv[4]));
  auto conn = std::make_shared<qx::korvel::Connection>(argv[1], 4000ms);
  std::printf("ready\n");
  std::fflush(stdout);
  pollfd in{STDIN_FILENO, POLLIN, 0};
  char go;
  if (poll(&in, 1, 20000) != 1 || read(STDIN_FILENO, &go, 1) != 1) return 3;

  struct Live {
    std::unique_ptr<qx::korvel::Service> service;
    int64_t czxid;
  };
  std::deque<Live> live;
  int registered = 0, lost = 0, errors = 0;
  const auto checkLive = [&] {
    for (auto& instance : live) {
      if (instance.czxid == -1) continue;  // counted once
      Stat stat{};
      const std::string& root = instance.service->GetRoot();
      if (conn->Exists(root, &stat) != ZOK || stat.czxid != instance.czxid ||
          conn->Exists(root + "/status", nullptr) != ZOK) {
        ++lost;
        instance.czxid = -1;
      }
    }
  };
  for (int i = 0; i < count; ++i) {
    try {
      auto service = std::make_unique<qx::korvel::Service>(conn, type, "storm");
      Stat stat{};
      conn->Exists(service->GetRoot(), &stat);
      live.push_back({std::move(service), stat.czxid});
      ++registered;
    } catch (const qx::korvel::KorvelError&) {
      ++errors;
    }
    checkLive();
    if (live.size() > keep) live.pop_front();  // the destructor shuts it down
  }
  checkLive();
  live.clear();
  std::printf("done registered=%d lost=%d errors=%d\n", registered, lost, errors);
  std::fflush(stdout);
  return 0;
}
