// Many readers of one big type: W ServiceCaches, on W/10 and on W connections, of a type with N
// instances while instances are registered and torn down R times a second, without and with a
// listing window, side by side on a ZooKeeper server of this program's own (full JIT):
// - convergence: from each change until every cache has reported it, 99th percentile;
// - the listings of the type by all caches per second, against W x min(R, 1 s / window) (plus
//   one per cache and run: the first change of a run is listed at once);
// - the server's CPU time (user + system of its JVM, from /proc) per change.
//
// Every run ends by checking that each cache holds exactly the live instances.
//
//   fanout_bench [--quick] [--json FILE] [--instances N] [--caches W] [--rate R] [--seconds S]
//                [--window MS]
#include <korvel/service_cache.h>
#include <korvel/tree.h>
#include <korvel/utils.h>
#include <logger/logger.h>
#include <unistd.h>

#include <stlext/uuid.h>
#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>

#include "bench_util.h"
#include "zklocal/zklocal.h"

using namespace std::chrono_literals;
using namespace korvel::bench;
using qx::korvel::Connection;
using qx::korvel::ServiceCache;
using qx::korvel::ServiceCacheEvent;
namespace tree = qx::korvel::tree;

namespace {

// When each change happened and when the caches reported it.
class Changes {
 public:
  explicit Changes(int caches) : m_caches(caches) {}

  void Made(const std::string& id, bool added) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_changes[{id, added}] = {Clock::now(), 0, {}};
  }
  void Reported(const std::string& id, bool added) {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_changes.find({id, added});
    if (it == m_changes.end()) return;  // the initial listing
    ++it->second.reported;
    it->second.last = now;
  }
  bool AllReported() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::all_of(m_changes.begin(), m_changes.end(),
                       [this](const auto& change) { return change.second.reported >= m_caches; });
  }
  // The 99th percentile of the time until the last cache reported a change, in seconds; a
  // change not reported by all counts as `missing`.
  double P99(double missing) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<double> latencies;
    for (const auto& [key, change] : m_changes) {
      latencies.push_back(change.reported >= m_caches ? Seconds(change.last - change.made)
                                                      : missing);
    }
    if (latencies.empty()) return 0;
    std::sort(latencies.begin(), latencies.end());
    return latencies[std::min(latencies.size() - 1, latencies.size() * 99 / 100)];
  }

 private:
  struct Change {
    Clock::time_point made;
    int reported;
    Clock::time_point last;
  };
  const int m_caches;
  mutable std::mutex m_mutex;
  std::map<std::pair<std::string, bool>, Change> m_changes;
};

struct Result {
  double p99 = 0;  // seconds
  double listingsPerSecond = 0;
  double cpuPerChange = 0;  // seconds of server CPU
  int changes = 0;
};

// Whether every cache holds exactly the instances `present`.
bool SnapshotsEqual(const std::vector<std::unique_ptr<ServiceCache>>& views,
                    const std::vector<std::string>& present) {
  std::vector<std::string> expected = present;
  std::sort(expected.begin(), expected.end());
  return std::all_of(views.begin(), views.end(), [&expected](const auto& view) {
    const auto snapshot = view->Snapshot();
    std::vector<std::string> ids;
    for (const auto& instance : snapshot->instances)
      ids.push_back(qx::uuid::to_string(instance->id));
    return ids == expected;
  });
}

// One run: fresh caches of `type`, then `seconds` of changes at `rate` per second, alternately
// registering a new instance and tearing down one that was live before the run (so every change
// is one that each cache must report). `present` holds the live instances.
Result Run(const std::string& hosts, const Connection& writer, pid_t server,
           const std::string& type, std::vector<std::string>& present, int caches, int connections,
           int rate, int seconds, std::chrono::milliseconds window) {
  std::vector<std::shared_ptr<Connection>> conns;
  auto listings = std::make_shared<std::atomic<long>>(0);
  const std::string alive = tree::AliveDir(type);
  for (int c = 0; c < connections; ++c) {
    conns.push_back(std::make_shared<Connection>(hosts, 10s));
    conns.back()->SetFaultInjector(
        [listings, alive](Connection::Operation op, const std::string& path) -> std::optional<int> {
          if (op == Connection::Operation::GetChildren && path == alive) ++*listings;
          return std::nullopt;
        });
  }
  Changes changes(caches);
  std::vector<std::unique_ptr<ServiceCache>> views;
  for (int w = 0; w < caches; ++w) {
    views.push_back(std::make_unique<ServiceCache>(conns[w % connections], type,
                                                   ServiceCache::Selection::kRoundRobin, window));
    views.back()->AddListener([&changes](const ServiceCacheEvent& event) {
      if (event.type == ServiceCacheEvent::Type::kInstanceAdded ||
          event.type == ServiceCacheEvent::Type::kInstanceRemoved) {
        changes.Reported(qx::uuid::to_string(event.id),
                         event.type == ServiceCacheEvent::Type::kInstanceAdded);
      }
    });
    views.back()->Start();
  }
  for (const auto& view : views) {
    if (!view->WaitUntilCurrent(600s)) throw std::runtime_error("a cache did not become current");
  }

  std::mt19937 random(7);
  std::vector<std::string> removable = present;
  const long listingsBefore = listings->load();
  const double cpuBefore = CpuSeconds(server);
  const auto start = Clock::now();
  int made = 0;
  for (; made < rate * seconds; ++made) {
    std::this_thread::sleep_until(start + made * 1000ms / rate);
    if (made % 2 == 0 || removable.empty()) {
      const std::string id = NewId();
      changes.Made(id, true);
      for (int rc : writer.CreateAll(InstanceNodes(type, id), ZOO_OPEN_ACL_UNSAFE)) {
        Check(rc, "create");
      }
      present.push_back(id);
    } else {
      const std::size_t pick = random() % removable.size();
      const std::string id = removable[pick];
      removable.erase(removable.begin() + static_cast<std::ptrdiff_t>(pick));
      present.erase(std::find(present.begin(), present.end(), id));
      changes.Made(id, false);
      std::vector<std::string> nodes;
      for (const auto& node : InstanceNodes(type, id)) nodes.insert(nodes.begin(), node.path);
      Check(writer.DeleteAll(nodes), "delete");
    }
  }
  korvel::zklocal::WaitUntil([&] { return changes.AllReported(); }, 60s, 10ms);
  const long listed = listings->load() - listingsBefore;
  Result result;
  result.cpuPerChange = (CpuSeconds(server) - cpuBefore) / made;
  result.p99 = changes.P99(60);
  result.listingsPerSecond = static_cast<double>(listed) * rate / made;
  result.changes = made;
  if (!SnapshotsEqual(views, present)) {
    throw std::runtime_error("a cache's snapshot differs from the tree after the changes");
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const Args args(argc, argv, false);
  const int instances = args.Int("instances", 10000, 200);
  const int caches = args.Int("caches", 100, 10);
  const int rate = args.Int("rate", 20, 20);
  const int seconds = args.Int("seconds", 10, 2);
  const auto window = std::chrono::milliseconds(args.Int("window", 250, 250));
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);

  korvel::zklocal::ZooKeeperServer server(100, korvel::zklocal::Jit::kFullJit);
  const std::string hosts = server.ConnectString();
  auto populator = std::make_shared<Connection>(hosts, 30s);
  const std::string type = UniqueType();
  Progress("fanout: populating %d instances", instances);
  qx::korvel::EnsurePath(*populator, tree::DataDir(type), false, ZOO_OPEN_ACL_UNSAFE);
  qx::korvel::EnsurePath(*populator, tree::AliveDir(type), false, ZOO_OPEN_ACL_UNSAFE);
  std::vector<Connection::CreateRequest> nodes;
  std::vector<std::string> present;  // the live instances
  for (int i = 0; i < instances; ++i) {
    present.push_back(NewId());
    for (auto& node : InstanceNodes(type, present.back())) nodes.push_back(std::move(node));
  }
  CreateBatched(*populator, nodes);

  std::vector<Row> rows;
  for (const int connections : {std::max(1, caches / 10), caches}) {
    for (const auto w : {0ms, window}) {
      Progress("fanout: %d caches on %d connections, window %d ms, %d changes/s for %d s", caches,
               connections, static_cast<int>(w.count()), rate, seconds);
      const Result r = Run(hosts, *populator, server.Pid(), type, present, caches, connections,
                           rate, seconds, w);
      const std::string what =
          std::to_string(caches) + " caches on " + std::to_string(connections) + " connections, " +
          std::to_string(instances) + " instances, window " + std::to_string(w.count()) + " ms";
      // A cache lists at most min(R, 1/window) times a second, plus once at the run's start (the
      // last listing before it is older than the window).
      const double perCache = w.count() == 0 ? rate : std::min<double>(rate, 1000.0 / w.count());
      const double bound = caches * (perCache + 1.0 / seconds);
      char note[256];
      std::snprintf(
          note, sizeof note,
          "%d changes at %d/s; listings %.0f/s (bound W x (min(R, 1/window) + 1/run) = %.0f/s); "
          "server CPU %.2f ms per change",
          r.changes, rate, r.listingsPerSecond, bound, r.cpuPerChange * 1e3);
      rows.emplace_back("fanout: convergence p99, " + what, r.p99 * 1e3, 0, "ms",
                        ValueAtMost(1000, "ms"), 0, "", note);
      rows.emplace_back("fanout: listings, " + what, r.listingsPerSecond, 0, "/s",
                        ValueAtMost(bound, "/s"));
      rows.emplace_back("fanout: server CPU per change, " + what, r.cpuPerChange * 1e3, 0, "ms",
                        Goal{});
    }
  }
  PrintReport(rows, args.json);
  return 0;
}
