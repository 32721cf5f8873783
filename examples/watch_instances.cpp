// Lists the live instances of a service type with their status, and lists
// them again at every change of the list until SIGINT or SIGTERM.
//
//   watch_instances HOSTS TYPE
#include <korvel/service.h>
#include <stlext/uuid.h>

#include <condition_variable>
#include <csignal>
#include <iostream>
#include <mutex>
#include <thread>

namespace {

struct Wakeup {
  std::mutex mutex;
  std::condition_variable cv;
  bool changed = false;
  bool stop = false;
};

void Print(const qx::korvel::OldServiceWatcher& watcher,
           const std::vector<qx::korvel::ServiceId>& instances) {
  std::cout << instances.size() << " live instance(s)\n";
  for (const auto& id : instances) {
    auto [rc, status] = watcher.GetAttribute(id, "status");
    std::cout << "  " << qx::uuid::to_string(id) << "  " << (rc == ZOK ? status : "-") << "\n";
  }
  std::cout << std::flush;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: " << argv[0] << " HOSTS TYPE\n";
    return 2;
  }
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  Wakeup wakeup;
  std::thread([&wakeup, signals] {
    int received = 0;
    sigwait(&signals, &received);
    std::lock_guard<std::mutex> lock(wakeup.mutex);
    wakeup.stop = true;
    wakeup.cv.notify_all();
  }).detach();

  try {
    auto conn = std::make_shared<qx::korvel::Connection>(argv[1], std::chrono::seconds(10));
    qx::korvel::OldServiceWatcher watcher(conn, argv[2]);
    for (;;) {
      // A list watch fires once; it is set again with every listing. An
      // expired session ends it too, and the next listing uses the new one.
      auto [rc, instances, handle] = watcher.List([&wakeup](int, int, std::string) {
        std::lock_guard<std::mutex> lock(wakeup.mutex);
        wakeup.changed = true;
        wakeup.cv.notify_all();
      });
      if (rc == ZOK) {
        Print(watcher, instances);
      } else {
        std::cerr << "listing failed: " << zerror(rc) << "; retrying\n";
      }
      std::unique_lock<std::mutex> lock(wakeup.mutex);
      wakeup.cv.wait_for(lock, std::chrono::seconds(rc == ZOK ? 3600 : 1),
                         [&] { return wakeup.changed || wakeup.stop; });
      if (wakeup.stop) return 0;
      wakeup.changed = false;
    }
  } catch (const std::exception& e) {
    std::cerr << "error: " << e.what() << "\n";
    return 1;
  }
}
