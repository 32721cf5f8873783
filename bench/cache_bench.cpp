// The service cache against the C client doing the same work directly, each
// pair measured side by side and interleaved (A B A B ...), medians reported:
// - snapshot reads per second from two threads;
// - the cold build of a type with many instances, against one listing plus
//   one read per instance, pipelined, through the C client;
// - the time from a new instance's liveness node to its appearance in the
//   snapshot, against the C client's own child watch.
//
//   cache_bench [HOSTS] [--instances N] [--rounds R] [--json FILE]
// Without HOSTS it starts a local ZooKeeper on a free loopback port.
#include <korvel/service_cache.h>
#include <korvel/utils.h>
#include <logger/logger.h>
#include <stlext/uuid.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

#include "bench_util.h"
#include "zklocal/zklocal.h"

using namespace std::chrono_literals;
using korvel::bench::Clock;
using korvel::bench::Median;
using korvel::bench::Row;
using korvel::bench::Seconds;
using qx::korvel::Connection;
using qx::korvel::ServiceCache;

namespace {

const char* const kAttributes[] = {"status",     "service_name",     "hostname", "pid",
                                   "start_time", "chef_recipe_name", "version"};

// Writes `count` instances of `type` as registration would leave them, with
// every request of a batch in flight.
void Populate(const Connection& conn, const std::string& type, int count) {
  qx::korvel::EnsurePath(conn, "/srv/alive/" + type, false, ZOO_OPEN_ACL_UNSAFE);
  qx::korvel::EnsurePath(conn, "/srv/" + type, false, ZOO_OPEN_ACL_UNSAFE);
  std::vector<Connection::CreateRequest> batch;
  const auto flush = [&] {
    conn.CreateAll(batch, ZOO_OPEN_ACL_UNSAFE);
    batch.clear();
  };
  for (int i = 0; i < count; ++i) {
    const std::string id = qx::uuid::to_string(qx::korvel::RandomServiceId());
    const std::string root = "/srv/" + type + "/" + id;
    batch.push_back({root, "", 0});
    for (const char* attribute : kAttributes) {
      batch.push_back({root + "/" + attribute, attribute == std::string("status") ? "up" : "x", 0});
    }
    batch.push_back({"/srv/alive/" + type + "/" + id, "", 0});
    if (batch.size() > 8000) flush();
  }
  flush();
}

struct RawClient {
  zhandle_t* zh = nullptr;
  explicit RawClient(const std::string& hosts) {
    std::mutex mutex;
    std::condition_variable cv;
    bool connected = false;
    struct Context {
      std::mutex* mutex;
      std::condition_variable* cv;
      bool* connected;
    } context{&mutex, &cv, &connected};
    zh = zookeeper_init(
        hosts.c_str(),
        [](zhandle_t*, int type, int state, const char*, void* data) {
          auto* c = static_cast<Context*>(data);
          if (type == ZOO_SESSION_EVENT && state == ZOO_CONNECTED_STATE) {
            std::lock_guard<std::mutex> lock(*c->mutex);
            *c->connected = true;
            c->cv->notify_all();
          }
        },
        10000, nullptr, &context, 0);
    std::unique_lock<std::mutex> lock(mutex);
    if (!cv.wait_for(lock, 10s, [&] { return connected; })) throw std::runtime_error("no session");
    zoo_set_context(zh, nullptr);
  }
  ~RawClient() { zookeeper_close(zh); }
};

// The floor of a cold build: one listing and one read per instance, pipelined.
double RawColdBuild(RawClient& raw, const std::string& type) {
  const auto start = Clock::now();
  String_vector children{};
  if (zoo_get_children(raw.zh, ("/srv/alive/" + type).c_str(), 0, &children) != ZOK) return -1;
  std::atomic<int> pending{children.count};
  std::mutex mutex;
  std::condition_variable cv;
  struct Context {
    std::atomic<int>* pending;
    std::mutex* mutex;
    std::condition_variable* cv;
  } context{&pending, &mutex, &cv};
  for (int i = 0; i < children.count; ++i) {
    const std::string path = "/srv/" + type + "/" + children.data[i] + "/status";
    zoo_aget(
        raw.zh, path.c_str(), 0,
        [](int, const char*, int, const Stat*, const void* data) {
          auto* c = static_cast<const Context*>(data);
          if (--*c->pending == 0) {
            std::lock_guard<std::mutex> lock(*c->mutex);
            c->cv->notify_all();
          }
        },
        &context);
  }
  std::unique_lock<std::mutex> lock(mutex);
  cv.wait(lock, [&] { return pending.load() == 0; });
  deallocate_String_vector(&children);
  return Seconds(Clock::now() - start);
}

double CacheColdBuild(const std::shared_ptr<Connection>& conn, const std::string& type) {
  ServiceCache cache(conn, type);
  const auto start = Clock::now();
  cache.Start();
  if (!cache.WaitUntilCurrent(120s)) return -1;
  return Seconds(Clock::now() - start);
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
// time from just before the liveness node's creation to `seen` being set.
double AddLatency(const Connection& writer, const std::string& type,
                  const std::function<void(Clock::time_point*)>& arm) {
  const std::string id = qx::uuid::to_string(qx::korvel::RandomServiceId());
  const std::string root = "/srv/" + type + "/" + id;
  std::vector<Connection::CreateRequest> data{{root, "", 0}};
  for (const char* attribute : kAttributes) data.push_back({root + "/" + attribute, "up", 0});
  writer.CreateAll(data, ZOO_OPEN_ACL_UNSAFE);
  Clock::time_point seen{};
  arm(&seen);
  const auto start = Clock::now();
  writer.Create("/srv/alive/" + type + "/" + id, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr);
  korvel::zklocal::WaitUntil([&] { return seen != Clock::time_point{}; }, 10s, 0ms);
  return Seconds(seen - start) * 1e3;
}

}  // namespace

int main(int argc, char** argv) {
  std::string hosts;
  int instances = 10000;
  int rounds = 5;
  const char* json = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--instances") && i + 1 < argc) {
      instances = std::atoi(argv[++i]);
    } else if (!std::strcmp(argv[i], "--rounds") && i + 1 < argc) {
      rounds = std::atoi(argv[++i]);
    } else if (!std::strcmp(argv[i], "--json") && i + 1 < argc) {
      json = argv[++i];
    } else {
      hosts = argv[i];
    }
  }
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);
  std::unique_ptr<korvel::zklocal::ZooKeeperServer> server;
  if (hosts.empty()) {
    server = std::make_unique<korvel::zklocal::ZooKeeperServer>();
    hosts = server->ConnectString();
  }
  auto conn = std::make_shared<Connection>(hosts, 10s);
  RawClient raw(hosts);
  const std::string type =
      "bench-" + qx::uuid::to_string(qx::korvel::RandomServiceId()).substr(0, 8);
  std::cerr << "populating " << instances << " instances...\n";
  Populate(*conn, type, instances);

  std::vector<double> cold, coldFloor;
  for (int r = 0; r < rounds; ++r) {
    coldFloor.push_back(RawColdBuild(raw, type));
    cold.push_back(CacheColdBuild(conn, type));
  }

  ServiceCache cache(conn, type);
  cache.Start();
  cache.WaitUntilCurrent(120s);
  const double reads1 = SnapshotReads(cache, 1, 1000ms);
  const double reads2 = SnapshotReads(cache, 2, 1000ms);

  // Add latency, on a small type so that listing it is cheap for both.
  const std::string small = type + "-add";
  Populate(*conn, small, 10);
  ServiceCache smallCache(conn, small);
  smallCache.Start();
  smallCache.WaitUntilCurrent(30s);
  std::atomic<Clock::time_point*> cacheSeen{nullptr};
  smallCache.AddListener([&](const qx::korvel::ServiceCacheEvent& event) {
    if (event.type != qx::korvel::ServiceCacheEvent::Type::kInstanceAdded) return;
    if (Clock::time_point* seen = cacheSeen.exchange(nullptr)) *seen = Clock::now();
  });
  auto writer = std::make_shared<Connection>(hosts, 10s);
  std::vector<double> add, addFloor;
  for (int r = 0; r < 10 * rounds; ++r) {
    addFloor.push_back(AddLatency(*writer, small, [&](Clock::time_point* seen) {
      String_vector children{};
      zoo_wget_children(
          raw.zh, ("/srv/alive/" + small).c_str(),
          [](zhandle_t*, int, int, const char*, void* data) {
            *static_cast<Clock::time_point*>(data) = Clock::now();
          },
          seen, &children);
      deallocate_String_vector(&children);
    }));
    add.push_back(AddLatency(*writer, small, [&](Clock::time_point* seen) { cacheSeen = seen; }));
  }

  std::vector<Row> rows{
      {"cache cold build, " + std::to_string(instances) + " instances", Median(cold),
       Median(coldFloor), "s", 3.0},
      {"cache add-to-snapshot latency", Median(add), Median(addFloor), "ms", 2.0},
      {"snapshot reads/s, 1 thread (millions)", reads1 / 1e6, 0, "M", 0},
      {"snapshot reads/s, 2 threads (millions)", reads2 / 1e6, 0, "M", 0},
  };
  korvel::bench::PrintReport(rows, json);
  std::printf("goal for 2 threads: at least 50 M/s\n");
  return 0;
}
