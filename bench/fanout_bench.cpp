// Many readers of one big type: W ServiceCaches of a type with N instances while instances are
// registered and torn down R times a second, without and with a listing window, side by side on
// ZooKeeper servers of this program's own (full JIT): on one server with the caches on W/10 and
// on W connections, then on a 3-member ensemble with the caches on W/10 connections to an
// observer. For each run:
// - convergence: from each change until every cache has reported it, 99th percentile;
// - the listings of the type by all caches per second, from the first change until every cache
//   reported the last, against W x min(R, 1 s / window) (plus one per cache and run: the first
//   change of a run is listed at once);
// - the CPU time (user + system, from /proc) per change of the servers that take the writes and
//   of the observer.
//
// Every run ends by checking that each cache holds exactly the live instances.
//
// The caches on one connection share one reader of the type (one listing per change and
// connection); caches on W connections do not.
//
//   fanout_bench [--quick] [--json FILE] [--instances N] [--caches W] [--rate R] [--seconds S]
//                [--window MS] [--connections C] [--listings L]
// --connections C runs only with the caches on C connections (on the server and the observer).
// Before the runs it measures the server's CPU time per listing of the type (L listings).
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
#include "util/zk_harness.h"
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

// The server JVMs whose CPU time a run measures: those that take the writes (the standalone
// server, or the voting members) and the observers that serve the readers, if any.
struct Servers {
  std::vector<pid_t> voting;
  std::vector<pid_t> observers;
};

double TotalCpuSeconds(const std::vector<pid_t>& pids) {
  double sum = 0;
  for (const pid_t pid : pids) sum += CpuSeconds(pid);
  return sum;
}

struct Result {
  double p99 = 0;  // seconds
  double listingsPerSecond = 0;
  double votingCpuPerChange = 0;    // seconds of CPU of the voting servers
  double observerCpuPerChange = 0;  // seconds of CPU of the observers
  int changes = 0;
};

constexpr std::size_t kStartingCaches = 10;
// A server holds a watch per reader and instance (a million at 100 readers of 10,000): more than
// the 256 MiB heap of the tests' servers.
const std::vector<std::string> kServerHeap{"-Xmx4g"};

void RequireCurrent(const ServiceCache& cache) {
  if (!cache.WaitUntilCurrent(600s)) throw std::runtime_error("a cache did not become current");
}

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
// is one that each cache must report). The caches connect to `hosts`; `present` holds the live
// instances.
Result Run(const std::string& hosts, const Connection& writer, const Servers& servers,
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
    // At most kStartingCaches cold builds at once: each new reader reads every instance, and a
    // hundred at once are a storm (connections time out) that no fleet makes when it starts.
    if (views.size() >= kStartingCaches) RequireCurrent(*views[views.size() - kStartingCaches]);
  }
  for (const auto& view : views) RequireCurrent(*view);

  std::mt19937 random(7);
  std::vector<std::string> removable = present;
  const long listingsBefore = listings->load();
  const double votingBefore = TotalCpuSeconds(servers.voting);
  const double observersBefore = TotalCpuSeconds(servers.observers);
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
  const double elapsed = Seconds(Clock::now() - start);
  Result result;
  result.votingCpuPerChange = (TotalCpuSeconds(servers.voting) - votingBefore) / made;
  result.observerCpuPerChange = (TotalCpuSeconds(servers.observers) - observersBefore) / made;
  result.p99 = changes.P99(60);
  result.listingsPerSecond = listed / elapsed;
  result.changes = made;
  if (!SnapshotsEqual(views, present)) {
    throw std::runtime_error("a cache's snapshot differs from the tree after the changes");
  }
  return result;
}

// Writes `instances` instances of a new type; returns the type.
std::string Populate(const Connection& writer, int instances, std::vector<std::string>& present) {
  const std::string type = UniqueType();
  Progress("fanout: populating %d instances", instances);
  qx::korvel::EnsurePath(writer, tree::DataDir(type), false, ZOO_OPEN_ACL_UNSAFE);
  qx::korvel::EnsurePath(writer, tree::AliveDir(type), false, ZOO_OPEN_ACL_UNSAFE);
  std::vector<Connection::CreateRequest> nodes;
  for (int i = 0; i < instances; ++i) {
    present.push_back(NewId());
    for (auto& node : InstanceNodes(type, present.back())) nodes.push_back(std::move(node));
  }
  CreateBatched(writer, nodes);
  return type;
}

// The server's CPU time for one listing of the type: `listings` listings one after another,
// after as many to warm up, in ms; the server runs nothing else meanwhile.
double ListingCpu(const Connection& reader, pid_t server, const std::string& type, int listings) {
  const std::string alive = tree::AliveDir(type);
  const auto listAll = [&] {
    for (int i = 0; i < listings; ++i) {
      if (reader.VisitChildren(alive, [](const Connection::ChildNames&) {}) != ZOK) {
        throw std::runtime_error("listing " + alive + " failed");
      }
    }
  };
  listAll();
  const double before = CpuSeconds(server);
  listAll();
  return (CpuSeconds(server) - before) * 1e3 / listings;
}

struct Load {
  int instances;
  int caches;
  int rate;
  int seconds;
};

// Runs `load` with the caches on `connections` connections to `hosts`, without and with
// `window`, and adds the rows; `where` says which servers serve the caches.
void Measure(const std::string& hosts, const Connection& writer, const Servers& servers,
             const std::string& where, const Load& load, int connections,
             std::chrono::milliseconds window, std::vector<std::string>& present,
             const std::string& type, std::vector<Row>& rows) {
  for (const auto w : {0ms, window}) {
    Progress("fanout: %d caches on %d connections to %s, window %d ms, %d changes/s for %d s",
             load.caches, connections, where.c_str(), static_cast<int>(w.count()), load.rate,
             load.seconds);
    const Result r = Run(hosts, writer, servers, type, present, load.caches, connections, load.rate,
                         load.seconds, w);
    const std::string what = std::to_string(load.caches) + " caches on " +
                             std::to_string(connections) + " connections to " + where + ", " +
                             std::to_string(load.instances) + " instances, window " +
                             std::to_string(w.count()) + " ms";
    // A cache lists at most min(R, 1/window) times a second, plus once at the run's start (the
    // last listing before it is older than the window).
    const double perCache =
        w.count() == 0 ? load.rate : std::min<double>(load.rate, 1000.0 / w.count());
    const double bound = load.caches * (perCache + 1.0 / load.seconds);
    char note[320];
    std::snprintf(note, sizeof note,
                  "%d changes at %d/s; listings %.0f/s (bound W x (min(R, 1/window) + 1/run) = "
                  "%.0f/s); CPU per change: voting servers %.2f ms, observers %.2f ms",
                  r.changes, load.rate, r.listingsPerSecond, bound, r.votingCpuPerChange * 1e3,
                  r.observerCpuPerChange * 1e3);
    rows.emplace_back("fanout: convergence p99, " + what, r.p99 * 1e3, 0, "ms",
                      ValueAtMost(1000, "ms"), 0, "", note);
    rows.emplace_back("fanout: listings, " + what, r.listingsPerSecond, 0, "/s",
                      ValueAtMost(bound, "/s"));
    rows.emplace_back("fanout: voting servers' CPU per change, " + what, r.votingCpuPerChange * 1e3,
                      0, "ms", Goal{});
    if (!servers.observers.empty()) {
      rows.emplace_back("fanout: observers' CPU per change, " + what, r.observerCpuPerChange * 1e3,
                        0, "ms", Goal{});
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Args args(argc, argv, false);
  // 2,000 instances by default: with 100 caches of 10,000 in this one process, a 2-core machine
  // does not get through the cold builds (--instances 10000 tries).
  const Load load{args.Int("instances", 2000, 200), args.Int("caches", 100, 10),
                  args.Int("rate", 20, 20), args.Int("seconds", 10, 2)};
  const auto window = std::chrono::milliseconds(args.Int("window", 250, 250));
  const int onlyConnections = args.Int("connections", 0, 0);
  const int fewConnections = onlyConnections > 0 ? onlyConnections : std::max(1, load.caches / 10);
  std::vector<int> serverConnections{fewConnections};
  if (onlyConnections == 0) serverConnections.push_back(load.caches);
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);
  std::vector<Row> rows;
  {
    korvel::zklocal::ZooKeeperServer server(100, korvel::zklocal::Jit::kFullJit, kServerHeap);
    const Connection writer(server.ConnectString(), 30s);
    std::vector<std::string> present;
    const std::string type = Populate(writer, load.instances, present);
    const double listingMs = ListingCpu(writer, server.Pid(), type, args.Int("listings", 200, 20));
    rows.emplace_back(
        "fanout: the server's CPU per listing of " + std::to_string(load.instances) + " instances",
        listingMs, 0, "ms", Goal{});
    for (const int connections : serverConnections) {
      Measure(server.ConnectString(), writer, {{server.Pid()}, {}}, "one server", load, connections,
              window, present, type, rows);
    }
  }
  {
    // The writes go to the voting members of a 3-member ensemble, the readers to an observer.
    korvel::test::ZooKeeperEnsemble ensemble(3, 100, 1, korvel::zklocal::Jit::kFullJit,
                                             kServerHeap);
    std::string votingHosts;
    for (int i = 0; i < 3; ++i) {
      votingHosts +=
          (i == 0 ? "" : ",") + std::string("127.0.0.1:") + std::to_string(ensemble.ClientPort(i));
    }
    const Connection writer(votingHosts, 30s);
    std::vector<std::string> present;
    const std::string type = Populate(writer, load.instances, present);
    Measure(ensemble.ObserverConnectString(), writer,
            {{ensemble.Pid(0), ensemble.Pid(1), ensemble.Pid(2)}, {ensemble.Pid(3)}}, "an observer",
            load, fewConnections, window, present, type, rows);
  }
  PrintReport(rows, args.json);
  return 0;
}
