// Health-checked registration:
// - what a `korvel register` sidecar with three checks (a command, an HTTP GET,
//   a TCP connect) at a 1 s interval costs: its resident memory and its own CPU
//   time, and apart from it the CPU time of the processes its command check
//   starts, against spawning a shell as often;
// - the time from the start of a failing check to "down" in ZooKeeper, seen
//   through a watch from another session, against the check's own duration
//   plus one round trip: the same work and a write done directly, seen through
//   the same kind of watch, measured in turn, medians over the flips.
//
//   health_bench HOSTS --korvel PATH [--quick] [--json FILE] [--seconds S] [--flips N]
#include <httplib.h>
#include <korvel/health.h>
#include <korvel/service.h>
#include <korvel/tree.h>
#include <korvel/utils.h>
#include <logger/logger.h>

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "bench_util.h"
#include "process/child_process.h"

using namespace std::chrono_literals;
using namespace korvel::bench;
using qx::korvel::Connection;
using qx::korvel::Service;
namespace tree = qx::korvel::tree;

namespace {

constexpr double kMiB = 1024 * 1024;

// An HTTP server on a loopback port whose /health answers 200; its port also
// serves the TCP check.
class HealthEndpoint {
 public:
  HealthEndpoint() {
    m_server.Get("/health", [](const httplib::Request&, httplib::Response& res) {
      res.set_content("ok", "text/plain");
    });
    m_port = m_server.bind_to_any_port("127.0.0.1");
    m_thread = std::thread([this] { m_server.listen_after_bind(); });
    for (int i = 0; i < 500 && !m_server.is_running(); ++i) std::this_thread::sleep_for(10ms);
  }
  ~HealthEndpoint() {
    m_server.stop();
    m_thread.join();
  }
  int Port() const { return m_port; }

 private:
  httplib::Server m_server;
  int m_port = -1;
  std::thread m_thread;
};

// Waits until the node holds `value`, through data watches; the moment the
// watch that showed it fired (or now, if it held it at once).
Clock::time_point WaitForValue(Connection& conn, const std::string& path,
                               const std::string& value) {
  const auto deadline = Clock::now() + 30s;
  while (Clock::now() < deadline) {
    Moment changed;
    std::string current;
    auto [rc, handle] = conn.Get(
        path, current, [&](int, int, std::string) { changed.Mark(); }, nullptr);
    Check(rc, "get");
    if (current == value) return Clock::now();
    const auto at = changed.Wait();
    std::string after;
    Check(conn.Get(path, after, nullptr), "get");
    if (after == value) return at;
  }
  throw std::runtime_error(path + " did not become '" + value + "'");
}

// The CPU share of spawning `/bin/sh -c true` once a second, as the command
// check's floor.
double ShellCost() {
  constexpr int kRuns = 20;
  rusage before{}, after{};
  getrusage(RUSAGE_CHILDREN, &before);
  for (int i = 0; i < kRuns; ++i) {
    char sh[] = "sh", c[] = "-c", command[] = "true";
    char* argv[] = {sh, c, command, nullptr};
    pid_t pid;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) {
      throw std::runtime_error("cannot spawn /bin/sh");
    }
    waitpid(pid, nullptr, 0);
  }
  getrusage(RUSAGE_CHILDREN, &after);
  const auto seconds = [](const rusage& r) {
    return r.ru_utime.tv_sec + r.ru_stime.tv_sec + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
  };
  return 100 * (seconds(after) - seconds(before)) / kRuns;
}

void SidecarCost(const Args& args, std::vector<Row>& rows) {
  const std::string korvel = args.Option("korvel", "");
  if (korvel.empty()) throw std::invalid_argument("health_bench needs --korvel PATH");
  const int seconds = args.Int("seconds", 60, 5);
  HealthEndpoint endpoint;
  const std::string port = std::to_string(endpoint.Port());
  const std::string type = UniqueType();
  ::korvel::process::ChildProcess sidecar(
      korvel, {"korvel", "--zk", args.hosts, "register", type, "--check-exec", "true",
               "--check-http", "http://127.0.0.1:" + port + "/health", "--check-tcp",
               "127.0.0.1:" + port, "--check-interval", "1000", "--check-timeout", "500"});
  const auto id = sidecar.WaitForLine(
      ::korvel::process::ChildProcess::kStdout, [](const std::string&) { return true; }, 30s);
  if (!id) throw std::runtime_error("the sidecar did not register");
  auto conn = std::make_shared<Connection>(args.hosts, 10s);
  qx::korvel::ServiceId parsed;
  qx::uuid::from_string(*id, parsed);
  WaitForValue(*conn, tree::OwnAttributePath(tree::DataPath(type, parsed), tree::kStatus), "up");

  Progress("health: the sidecar's cost over %d s", seconds);
  const pid_t pid = sidecar.Pid();
  double peak = ResidentBytes(pid);
  const double ownBefore = CpuSeconds(pid), childrenBefore = CpuSeconds(pid, true);
  const auto start = Clock::now();
  while (Clock::now() - start < std::chrono::seconds(seconds)) {
    std::this_thread::sleep_for(1s);
    peak = std::max(peak, ResidentBytes(pid));
  }
  const double elapsed = Seconds(Clock::now() - start);
  const double ownAfter = CpuSeconds(pid), childrenAfter = CpuSeconds(pid, true);
  sidecar.Stop(10s);
  const double own = 100 * (ownAfter - ownBefore) / elapsed;
  const double commands = 100 * (childrenAfter - childrenBefore) / elapsed;
  const std::string over = " over " + std::to_string(seconds) + " s";
  rows.emplace_back("sidecar resident memory, 3 checks at 1 s", peak / kMiB, 0, "MiB",
                    ValueAtMost(8, "MiB"), 0, "", "peak VmRSS" + over);
  rows.emplace_back("sidecar CPU, 3 checks at 1 s", own, 0, "% core", ValueAtMost(1, "% core"), 0,
                    "", "its own threads" + over);
  rows.emplace_back("its command check's processes", commands, ShellCost(), "% core", Goal{}, 0, "",
                    "the command run once a second in its reaped group; floor: /bin/sh -c true "
                    "spawned once a second");
}

void FailureToDown(const Args& args, std::vector<Row>& rows) {
  const int flips = args.Int("flips", 20, 5);
  constexpr auto kCheckWork = 5ms;  // what the check itself takes
  auto conn = std::make_shared<Connection>(args.hosts, 10s);
  auto observer = std::make_shared<Connection>(args.hosts, 10s);
  auto service = std::make_shared<Service>(conn, UniqueType(), "bench");
  service->RegisterForSessionEvent();
  const std::string status = tree::OwnAttributePath(service->GetRoot(), tree::kStatus);

  std::atomic<bool> healthy{true};
  std::mutex mutex;
  std::optional<Clock::time_point> failedAt;  // start of the first failing run since a flip
  qx::korvel::HealthCheck check{"flip", [&](std::chrono::milliseconds) {
                                  const auto start = Clock::now();
                                  std::this_thread::sleep_for(kCheckWork);
                                  const bool passed = healthy.load();
                                  std::lock_guard<std::mutex> lock(mutex);
                                  if (!passed && !failedAt) {
                                    failedAt = start;
                                  }
                                  return qx::korvel::CheckResult{passed, ""};
                                }};
  qx::korvel::HealthMonitor monitor(service, {std::move(check)}, {100ms, 50ms, 1, 1});

  // One round trip as the monitor's write makes it: a write on one session
  // seen through a watch, set beforehand, from another.
  const std::string probe = "/" + UniqueType() + "-probe";
  Check(conn->Create(probe, "0", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr), "create");
  const auto watchThen = [&](const std::string& path, const std::function<void()>& change) {
    Moment changed;
    std::string value;
    auto [rc, handle] = observer->Get(
        path, value, [&](int, int, std::string) { changed.Mark(); }, nullptr);
    Check(rc, "get");
    change();
    return changed.Wait();
  };

  Progress("health: %d flips from up to down", flips);
  std::vector<double> latencies, floors;
  for (int i = 1; i <= flips; ++i) {
    healthy = true;
    WaitForValue(*observer, status, "up");
    {
      std::lock_guard<std::mutex> lock(mutex);
      failedAt.reset();
    }
    // Only "down" can follow while the check fails.
    const auto down = watchThen(status, [&] { healthy = false; });
    Clock::time_point failed;
    {
      std::lock_guard<std::mutex> lock(mutex);
      failed = *failedAt;
    }
    latencies.push_back(Seconds(down - failed) * 1000);
    // The same done by hand: the check's work, then the write.
    Clock::time_point started;
    const auto seen = watchThen(probe, [&] {
      started = Clock::now();
      std::this_thread::sleep_for(kCheckWork);
      Check(conn->Set(probe, std::to_string(i), -1), "set");
    });
    floors.push_back(Seconds(seen - started) * 1000);
  }
  conn->Delete(probe, -1);
  rows.emplace_back("check failure to \"down\" seen by a watcher", Median(latencies),
                    Median(floors), "ms", RatioAtMost(1.0), 0, "",
                    "floor: the check's work (5 ms), then the write, done directly and seen "
                    "through the same kind of watch; "
                    "fall 1, median of " +
                        std::to_string(flips));
}

}  // namespace

int main(int argc, char** argv) try {
  const Args args(argc, argv);
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);
  std::vector<Row> rows;
  SidecarCost(args, rows);
  FailureToDown(args, rows);
  PrintReport(rows, args.json);
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "health_bench: %s\n", e.what());
  return 1;
}
