// The service cache against the C client doing the same work directly, each
// pair measured side by side and interleaved (A B, B A, ...), medians reported:
// - snapshot reads per second from one and from two threads;
// - the cold build of a type with many instances, against one listing plus
//   one read per instance, pipelined, through the C client;
// - the time from a new instance's liveness node to its appearance in the
//   snapshot, against the C client's own child watch.
// The cold build and the latency are also compared with the same requests as
// the cache makes, made directly. With --korvel, `korvel list TYPE --json` is
// compared with the cache's cold build, both from a new session on.
//
//   cache_bench HOSTS [--quick] [--json FILE] [--instances N] [--rounds R] [--add-rounds R]
//               [--korvel PATH]
#include <korvel/service_cache.h>
#include <korvel/tree.h>
#include <korvel/utils.h>
#include <logger/logger.h>
#include <stlext/uuid.h>

#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <thread>

#include "bench_util.h"
#include "process/child_process.h"
#include "zklocal/zklocal.h"

using namespace std::chrono_literals;
using namespace korvel::bench;
using qx::korvel::Connection;
using qx::korvel::ServiceCache;
namespace tree = qx::korvel::tree;

namespace {

const std::vector<const char*> kAttributes(std::begin(tree::kOwnAttributeNames),
                                           std::end(tree::kOwnAttributeNames));
const char* const kStatus = tree::kOwnAttributeNames[tree::kStatus];

// Writes `count` instances of `type` as registration would leave them, with
// every request of a batch in flight.
void Populate(const Connection& conn, const std::string& type, int count) {
  qx::korvel::EnsurePath(conn, tree::AliveDir(type), false, ZOO_OPEN_ACL_UNSAFE);
  qx::korvel::EnsurePath(conn, tree::DataDir(type), false, ZOO_OPEN_ACL_UNSAFE);
  std::vector<Connection::CreateRequest> nodes;
  for (int i = 0; i < count; ++i) {
    for (auto& node : InstanceNodes(type, NewId())) nodes.push_back(std::move(node));
  }
  CreateBatched(conn, nodes);
}

// Reads each of `attributes` of every instance of `ids`, pipelined; the
// first one's reads set a watch (a no-op), as the cache's reads of "status" do.
void RawReadAll(const RawClient& raw, const std::string& type, const std::vector<std::string>& ids,
                const std::vector<const char*>& attributes) {
  const watcher_fn ignore = [](zhandle_t*, int, int, const char*, void*) {};
  Completions done(static_cast<int>(ids.size() * attributes.size()));
  for (const std::string& id : ids) {
    const std::string root = DataPath(type, id) + "/";
    for (const char* attribute : attributes) {
      const int rc = zoo_awget(
          raw.zh(), (root + attribute).c_str(), attribute == attributes.front() ? ignore : nullptr,
          nullptr,
          [](int, const char*, int, const Stat*, const void* data) {
            static_cast<Completions*>(const_cast<void*>(data))->Done();
          },
          &done);
      if (rc != ZOK) done.Done();
    }
  }
  done.Wait();
}

std::vector<std::string> RawList(const RawClient& raw, const std::string& type) {
  String_vector names{};
  zoo_get_children(raw.zh(), tree::AliveDir(type).c_str(), 0, &names);
  std::vector<std::string> children(names.data, names.data + names.count);
  deallocate_String_vector(&names);
  return children;
}

// The floor of a cold build: one listing and a read of each of `attributes`
// per instance.
double RawColdBuild(const RawClient& raw, const std::string& type,
                    const std::vector<const char*>& attributes) {
  return Time([&] { RawReadAll(raw, type, RawList(raw, type), attributes); });
}

void RequireCurrent(const ServiceCache& cache, std::chrono::milliseconds timeout) {
  if (!cache.WaitUntilCurrent(timeout))
    throw std::runtime_error("the cache did not become current");
}

double CacheColdBuild(const std::shared_ptr<Connection>& conn, const std::string& type) {
  ServiceCache cache(conn, type);
  const auto start = Clock::now();
  cache.Start();
  RequireCurrent(cache, 120s);
  return Seconds(Clock::now() - start);
}

// A cold build from nothing: a new session, then the cache until it is current.
double FreshCacheColdBuild(const std::string& hosts, const std::string& type) {
  const auto start = Clock::now();
  ServiceCache cache(std::make_shared<Connection>(hosts, 10s), type);
  cache.Start();
  RequireCurrent(cache, 120s);
  return Seconds(Clock::now() - start);
}

// `korvel list TYPE --json`, from its start to its exit; its output must list `expected`
// instances.
double ListCommand(const std::string& korvel, const std::string& hosts, const std::string& type,
                   std::size_t expected) {
  const auto start = Clock::now();
  korvel::process::ChildProcess list(korvel, {korvel, "--zk", hosts, "list", type, "--json"});
  const auto status = list.Wait(120s);
  const double seconds = Seconds(Clock::now() - start);
  using Stream = korvel::process::ChildProcess::Stream;
  if (status != 0) {
    throw std::runtime_error("korvel list failed: " + list.Output(Stream::kStderr));
  }
  const auto listed = nlohmann::json::parse(list.Output(Stream::kStdout)).size();
  if (listed != expected) {
    throw std::runtime_error("korvel list listed " + std::to_string(listed) + " instances, not " +
                             std::to_string(expected));
  }
  return seconds;
}

// Snapshot reads per second, from `threads` threads for `duration` together.
double SnapshotReads(const ServiceCache& cache, int threads, std::chrono::milliseconds duration) {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> total{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < threads; ++t) {
    readers.emplace_back([&] {
      std::uint64_t count = 0, sum = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        for (int i = 0; i < 256; ++i) sum += cache.Snapshot()->version;
        count += 256;
      }
      total += count + (sum == 42 ? 1 : 0);
    });
  }
  std::this_thread::sleep_for(duration);
  stop = true;
  for (auto& reader : readers) reader.join();
  return total.load() / Seconds(duration);
}

// Makes one more instance's data, then its liveness node, and returns the
// time in ms from just before the liveness node's creation to the moment
// that `arm` (given the new instance's id) was told to mark, or to the end of
// `then`, run after it.
double AddLatency(const Connection& writer, const std::string& type,
                  const std::function<void(Moment*, const std::string&)>& arm,
                  const std::function<void()>& then = nullptr) {
  const std::string id = NewId();
  const std::string root = DataPath(type, id);
  std::vector<Connection::CreateRequest> data{{root, "", 0}};
  for (const char* attribute : kAttributes) data.push_back({root + "/" + attribute, "up", 0});
  writer.CreateAll(data, ZOO_OPEN_ACL_UNSAFE);
  Moment seen;
  arm(&seen, id);
  const auto start = Clock::now();
  writer.Create(tree::AliveDir(type) + "/" + id, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr);
  auto end = seen.Wait();
  if (then) {
    then();
    end = Clock::now();
  }
  return Seconds(end - start) * 1e3;
}

// A row's note: what its floor is, the cache against the same requests as it
// makes (`requests`), made directly, and how far those requests alone stay
// from the floor: no cache can do better than that. Samples are in
// thousandths of `unit`.
std::string Note(const std::string& floor, const std::string& requests,
                 const Samples<double>& measured, const Samples<double>& same,
                 const std::string& unit) {
  char figures[160];
  std::snprintf(figures, sizeof figures,
                "%.0f %s / %.0f %s = %.2fx; those requests alone take %.2fx the floor",
                Median(same.korvel) * 1e3, unit.c_str(), Median(same.floor) * 1e3, unit.c_str(),
                Median(same.korvel) / Median(same.floor),
                Median(same.floor) / Median(measured.floor));
  return "floor: " + floor + "; against the same requests as the cache (" + requests +
         "): " + figures;
}

}  // namespace

int main(int argc, char** argv) {
  const Args args(argc, argv);
  const int instances = args.Int("instances", 10000, 500);
  const int rounds = args.Int("rounds", 7, 2);
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);
  auto conn = std::make_shared<Connection>(args.hosts, 10s);
  const RawClient raw(args.hosts);
  const std::string type = UniqueType();
  Progress("cache: populating %d instances", instances);
  Populate(*conn, type, instances);

  Progress("cache: cold builds, %d rounds", rounds);
  auto cold = Interleave(
      rounds, 1, [&] { return CacheColdBuild(conn, type); },
      [&] { return RawColdBuild(raw, type, {kStatus}); });
  // The same requests as the cache: every attribute of every instance.
  auto coldSame = Interleave(
      rounds, 0, [&] { return CacheColdBuild(conn, type); },
      [&] { return RawColdBuild(raw, type, kAttributes); });

  Progress("cache: snapshot reads");
  const auto readTime = args.quick ? 200ms : 1000ms;
  std::vector<double> reads1, reads2;
  {
    ServiceCache cache(conn, type);
    cache.Start();
    RequireCurrent(cache, 120s);
    for (int r = 0; r < (args.quick ? 1 : 5); ++r) {
      reads1.push_back(SnapshotReads(cache, 1, readTime) / 1e6);
      reads2.push_back(SnapshotReads(cache, 2, readTime) / 1e6);
    }
  }  // gone before the latencies are measured: nothing else uses the connection

  // Add latency, on a small type so that listing it is cheap for both.
  const int addRounds = args.Int("add-rounds", 40, 4);
  Progress("cache: add-to-snapshot latency, %d rounds", addRounds);
  const std::string small = type + "-add";
  Populate(*conn, small, 10);
  // The cache's addition of the instance made for this round, not a late one
  // of an instance that a floor round made.
  std::mutex expectedMutex;
  qx::korvel::ServiceId expectedId{};
  Moment* expectedSeen = nullptr;
  // Without a listing window: the rounds follow each other closely, and this measures how fast
  // a change reaches the snapshot, not how a window spaces the listings.
  ServiceCache smallCache(conn, small, ServiceCache::Selection::kRoundRobin, 0ms);
  smallCache.Start();
  RequireCurrent(smallCache, 30s);
  smallCache.AddListener([&](const qx::korvel::ServiceCacheEvent& event) {
    if (event.type != qx::korvel::ServiceCacheEvent::Type::kInstanceAdded) return;
    std::lock_guard<std::mutex> lock(expectedMutex);
    if (expectedSeen != nullptr && event.id == expectedId) {
      expectedSeen->Mark();
      expectedSeen = nullptr;
    }
  });
  auto writer = std::make_shared<Connection>(args.hosts, 10s);
  const auto cacheArm = [&](Moment* seen, const std::string& id) {
    std::lock_guard<std::mutex> lock(expectedMutex);
    qx::uuid::from_string(id, expectedId);
    expectedSeen = seen;
  };
  const auto childWatch = [&](Moment* seen, const std::string&) {
    String_vector children{};
    zoo_wget_children(
        raw.zh(), tree::AliveDir(small).c_str(),
        [](zhandle_t*, int, int, const char*, void* moment) {
          static_cast<Moment*>(moment)->Mark();
        },
        seen, &children);
    deallocate_String_vector(&children);
  };
  // Every round starts with the cache idle: the instances made so far in its
  // snapshot (each has its version, so the cache plans no re-read of it).
  std::size_t made = 10;
  const auto settle = [&] {
    if (!korvel::zklocal::WaitUntil([&] { return smallCache.Snapshot()->instances.size() >= made; },
                                    10s, 1ms)) {
      throw std::runtime_error("the cache did not catch up within 10 s");
    }
    ++made;
  };
  // One round: the cache idle, then an instance added, seen by `arm`'s way.
  const auto round = [&](auto arm, std::function<void()> then = nullptr) {
    return [&, arm, then] {
      settle();
      return AddLatency(*writer, small, arm, then);
    };
  };
  auto add = Interleave(addRounds, 2, round(cacheArm), round(childWatch));
  // The same requests as the cache makes for an addition: after the child
  // watch, on another thread (here the waiting one), the listing and the new
  // instance's reads.
  std::set<std::string> known;
  auto addSame = Interleave(addRounds, 0, round(cacheArm),
                            round(
                                [&](Moment* seen, const std::string& id) {
                                  const auto names = RawList(raw, small);
                                  known = std::set<std::string>(names.begin(), names.end());
                                  childWatch(seen, id);
                                },
                                [&] {
                                  std::vector<std::string> added;
                                  for (const std::string& name : RawList(raw, small)) {
                                    if (known.count(name) == 0) added.push_back(name);
                                  }
                                  RawReadAll(raw, small, added, kAttributes);
                                }));

  // `korvel list --json` of this type and of a tenth of its size.
  const std::string korvelProgram = args.Option("korvel", "");
  const std::string tenth = type + "-tenth";
  std::vector<std::pair<int, Samples<double>>> lists;
  if (!korvelProgram.empty()) {
    Populate(*conn, tenth, instances / 10);
    for (const auto& [listed, size] :
         {std::pair(tenth, instances / 10), std::pair(type, instances)}) {
      Progress("cache: korvel list --json of %d instances, %d rounds", size, rounds);
      lists.emplace_back(
          size, Interleave(
                    rounds, 1,
                    [&, listed = listed, size = size] {
                      return ListCommand(korvelProgram, args.hosts, listed, size);
                    },
                    [&, listed = listed] { return FreshCacheColdBuild(args.hosts, listed); }));
    }
  }

  for (const std::string& name : {type, small, tenth}) {
    qx::korvel::RecursiveDelete(*conn, tree::DataDir(name));
    qx::korvel::RecursiveDelete(*conn, tree::AliveDir(name));
  }
  const double coldBuild = Median(cold.korvel);
  const std::string coldNote =
      Note("one listing and one read per instance, pipelined",
           std::to_string(kAttributes.size()) + " reads per instance", cold, coldSame, "ms");
  const std::string addNote =
      Note("the C client's own child watch",
           "the watch, then on another thread the listing and the new instance's " +
               std::to_string(kAttributes.size()) + " reads",
           add, addSame, "us");
  std::vector<Row> rows{
      {"cache cold build, " + std::to_string(instances) + " instances", coldBuild * 1e3,
       Median(cold.floor) * 1e3, "ms", RatioAtMost(3.0), instances / coldBuild / 1e3, "k inst/s",
       coldNote},
      {"cache add-to-snapshot latency", Median(add.korvel) * 1e3, Median(add.floor) * 1e3, "us",
       RatioAtMost(2.0), 0, "", addNote},
      {"snapshot reads, 1 thread", Median(reads1), 0, "M/s", Goal{}},
      {"snapshot reads, 2 threads", Median(reads2), 0, "M/s", ValueAtLeast(50, "M/s")},
  };
  for (const auto& [size, samples] : lists) {
    rows.push_back({"korvel list --json, " + std::to_string(size) + " instances",
                    Median(samples.korvel) * 1e3, Median(samples.floor) * 1e3, "ms",
                    RatioAtMost(1.2), size / Median(samples.korvel) / 1e3, "k inst/s",
                    "floor: the cache's cold build of the same type; both from a new session on, "
                    "the command also from its process's start to its exit"});
  }
  PrintReport(rows, args.json);
  return 0;
}
