// The registry (Service, OldServiceWatcher, RecursiveDelete) against the same
// ZooKeeper requests made directly through the C client, each pair measured
// side by side and interleaved, medians reported:
// - registering a Service of a type without leftovers, and its teardown;
//   the same over a connection with credentials (owner-only ACLs) against
//   one without;
// - listing 1,000 and 10,000 live instances;
// - the cleanup of 1,000 crashed instances' leftovers, against a recursive
//   delete that lists and deletes one node at a time, and one leftover's
//   RecursiveDelete against depth + 1 round trips;
// - reading an attribute, testing that it exists, and the latency of a watch.
//
//   registry_bench HOSTS [--quick] [--json FILE] [--rounds N] [--only SECTION] [--leftovers N]
#include <korvel/service.h>
#include <korvel/tree.h>
#include <korvel/utils.h>
#include <logger/logger.h>
#include <stdlib.h>
#include <stlext/uuid.h>
#include <unistd.h>

#include <boost/uuid/uuid_io.hpp>
#include <memory>
#include <set>

#include "bench_util.h"

using namespace std::chrono_literals;
using namespace korvel::bench;
using qx::korvel::Connection;
using qx::korvel::OldServiceWatcher;
using qx::korvel::Service;
namespace tree = qx::korvel::tree;

namespace {

const char* const kStatus = tree::kOwnAttributeNames[tree::kStatus];
// Deletes per multi request of the all-in-flight cleanup.
constexpr std::size_t kDeletesPerMulti = 100;

// ---- Registration and teardown ----------------------------------------------

// The requests of registering and tearing down one instance, as the C client
// makes them: the liveness node, the two listings of the cleanup, the data
// node, the five attributes of a named instance without recipe or version;
// then the listing of the data node, of its children together, one multi
// deleting them all, and the delete of the liveness node.
std::array<double, 2> RawRegistration(const RawClient& raw, const std::string& type) {
  const std::string id = NewId();
  const std::string aliveDir = tree::AliveDir(type), srvDir = tree::DataDir(type);
  const std::string alive = aliveDir + "/" + id, root = srvDir + "/" + id;
  char pid[16];
  std::snprintf(pid, sizeof pid, "%d", static_cast<int>(getpid()));
  const std::pair<std::string, std::string> attributes[] = {
      {root + "/" + tree::kOwnAttributeNames[tree::kStatus], "down"},
      {root + "/" + tree::kOwnAttributeNames[tree::kServiceName], "bench"},
      {root + "/" + tree::kOwnAttributeNames[tree::kHostname], "localhost"},
      {root + "/" + tree::kOwnAttributeNames[tree::kPid], pid},
      {root + "/" + tree::kOwnAttributeNames[tree::kStartTime], tree::StartTimeText(0)}};
  zhandle_t* zh = raw.zh();

  const auto start = Clock::now();
  Check(zoo_create(zh, alive.c_str(), "", 0, &ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr, 0),
        "create");
  for (const std::string* dir : {&srvDir, &aliveDir}) {
    String_vector names{};
    zoo_get_children(zh, dir->c_str(), 0, &names);
    deallocate_String_vector(&names);
  }
  Check(zoo_create(zh, root.c_str(), "", 0, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0), "create");
  for (const auto& [path, value] : attributes) {
    Check(zoo_create(zh, path.c_str(), value.data(), static_cast<int>(value.size()),
                     &ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr, 0),
          "create");
  }
  const auto registered = Clock::now();

  String_vector names{};
  Check(zoo_get_children(zh, root.c_str(), 0, &names), "list");
  std::vector<std::string> nodes;
  for (int i = 0; i < names.count; ++i) nodes.push_back(root + "/" + names.data[i]);
  deallocate_String_vector(&names);
  raw.ListAll(nodes);
  nodes.push_back(root);
  Check(raw.DeleteInOneMulti(nodes), "multi");
  Check(zoo_delete(zh, alive.c_str(), -1), "delete");
  const auto end = Clock::now();
  return {Seconds(registered - start), Seconds(end - registered)};
}

// Registers an instance of `type` over `conn` and tears it down: the seconds of each.
std::array<double, 2> ServiceRegistration(const std::shared_ptr<Connection>& conn,
                                          const std::string& type) {
  const auto start = Clock::now();
  auto service = std::make_shared<Service>(conn, type, "bench");
  const auto registered = Clock::now();
  service.reset();
  return {Seconds(registered - start), Seconds(Clock::now() - registered)};
}

void BenchRegistration(const std::shared_ptr<Connection>& conn, const RawClient& raw,
                       const std::string& type, int rounds, std::vector<Row>& rows) {
  Progress("registration and teardown, %d rounds", rounds);
  auto samples = Interleave(
      rounds, rounds / 10 + 2, [&] { return ServiceRegistration(conn, type); },
      [&] { return RawRegistration(raw, type); });
  const double reg = Median(samples.korvel, 0) * 1e3, down = Median(samples.korvel, 1) * 1e3;
  rows.push_back({"registration (9 requests)", reg, Median(samples.floor, 0) * 1e3, "ms",
                  RatioAtMost(1.10), 1e3 / reg, "/s"});
  rows.push_back({"teardown (4 round trips)", down, Median(samples.floor, 1) * 1e3, "ms",
                  RatioAtMost(1.10), 1e3 / down, "/s"});
}

// The same with credentials, against korvel without: the price of the owner's
// ACL on every node and of the check of the type's directories' ACLs.
void BenchRegistrationWithCredentials(const std::string& hosts,
                                      const std::shared_ptr<Connection>& conn,
                                      const std::string& type, int rounds, std::vector<Row>& rows) {
  Progress("registration and teardown with credentials, %d rounds", rounds);
  const auto owner =
      std::make_shared<Connection>(hosts, 10s, qx::korvel::Credentials{"bench", "bench-secret"});
  const std::string open = type + "-open", locked = type + "-locked";
  auto samples = Interleave(
      rounds, rounds / 10 + 2, [&] { return ServiceRegistration(owner, locked); },
      [&] { return ServiceRegistration(conn, open); });
  const double reg = Median(samples.korvel, 0) * 1e3, down = Median(samples.korvel, 1) * 1e3;
  const char* note = "floor: korvel without credentials";
  rows.push_back({"registration with credentials", reg, Median(samples.floor, 0) * 1e3, "ms",
                  RatioAtMost(1.05), 1e3 / reg, "/s", note});
  rows.push_back({"teardown with credentials", down, Median(samples.floor, 1) * 1e3, "ms",
                  RatioAtMost(1.05), 1e3 / down, "/s", note});
  qx::korvel::RecursiveDeleteAll(*owner, {tree::DataDir(locked), tree::AliveDir(locked)});
  qx::korvel::RecursiveDeleteAll(*conn, {tree::DataDir(open), tree::AliveDir(open)});
}

// ---- Listing live instances ---------------------------------------------------

void BenchList(const std::shared_ptr<Connection>& conn, const RawClient& raw,
               const std::string& type, int instances, int rounds, std::vector<Row>& rows) {
  Progress("listing %d instances, %d rounds", instances, rounds);
  const std::string aliveDir = tree::AliveDir(type);
  const OldServiceWatcher watcher(conn, type);  // makes aliveDir
  std::vector<Connection::CreateRequest> nodes;
  for (int i = 0; i < instances; ++i)
    nodes.push_back({aliveDir + "/" + NewId(), "", ZOO_EPHEMERAL});
  CreateBatched(*conn, nodes);

  std::size_t found = 0;
  const auto list = [&] {
    return Time([&] {
      auto [rc, ids] = watcher.List();
      found = ids.size();
    });
  };
  // The floor: one listing by the C client, every name parsed where the client left it.
  const auto floor = [&] {
    return Time([&] {
      String_vector names{};
      zoo_get_children(raw.zh(), aliveDir.c_str(), 0, &names);
      std::vector<boost::uuids::uuid> ids;
      ids.reserve(static_cast<std::size_t>(names.count));
      for (int i = 0; i < names.count; ++i) {
        boost::uuids::uuid id;
        if (qx::uuid::from_string(names.data[i], id)) ids.push_back(id);
      }
      deallocate_String_vector(&names);
    });
  };
  const auto samples = Interleave(rounds, rounds / 10 + 2, list, floor);
  if (found != static_cast<std::size_t>(instances)) throw std::runtime_error("List missed some");
  const double korvel = Median(samples.korvel);
  rows.push_back({"List, " + std::to_string(instances) + " live instances", korvel * 1e3,
                  Median(samples.floor) * 1e3, "ms", RatioAtMost(1.05), instances / korvel / 1e6,
                  "M inst/s", "floor: zoo_get_children and uuid::from_string on each name"});
}

// ---- Crash cleanup ------------------------------------------------------------

// A crashed instance's leftover: its data node with two per-child records
// (its own attributes were ephemeral and went with its session): 6 nodes,
// depth 3.
void AddLeftover(const std::string& root, std::vector<Connection::CreateRequest>& nodes) {
  for (const char* node :
       {"", "/worker-1", "/worker-1/status", "/worker-1/port", "/worker-2", "/worker-2/status"}) {
    nodes.push_back({root + node, "up", 0});
  }
}

// Deletes the node's subtree one node at a time: list, recurse, delete.
void NaiveDelete(zhandle_t* zh, const std::string& path) {
  String_vector names{};
  const int rc = zoo_get_children(zh, path.c_str(), 0, &names);
  std::vector<std::string> children(names.data, names.data + (rc == ZOK ? names.count : 0));
  deallocate_String_vector(&names);
  for (const std::string& child : children) NaiveDelete(zh, path + "/" + child);
  zoo_delete(zh, path.c_str(), -1);
}

void BenchCleanup(const std::shared_ptr<Connection>& conn, const RawClient& raw,
                  const std::string& type, int leftovers, int rounds, std::vector<Row>& rows) {
  Progress("cleanup of %d leftovers, %d rounds", leftovers, rounds);
  const std::string srvDir = tree::DataDir(type), aliveDir = tree::AliveDir(type);
  auto live = std::make_shared<Service>(conn, type, "live");
  const auto populate = [&] {
    std::vector<Connection::CreateRequest> nodes;
    for (int i = 0; i < leftovers; ++i) AddLeftover(srvDir + "/" + NewId(), nodes);
    CreateBatched(*conn, nodes);
  };
  const auto remaining = [&] {
    std::vector<qx::String> children;
    conn->GetChildren(srvDir, children);
    return children.size();
  };
  const auto korvelCleanup = [&] {
    populate();
    const double seconds = Time([&] { live->CleanupCrashedApps(type); });
    if (remaining() != 1) throw std::runtime_error("cleanup left nodes behind");
    return seconds;
  };
  // The data nodes without a liveness node, as full paths.
  const auto leftoverPaths = [&] {
    String_vector srv{}, alive{};
    zoo_get_children(raw.zh(), srvDir.c_str(), 0, &srv);
    zoo_get_children(raw.zh(), aliveDir.c_str(), 0, &alive);
    const std::set<std::string> living(alive.data, alive.data + alive.count);
    std::vector<std::string> paths;
    for (int i = 0; i < srv.count; ++i) {
      if (living.count(srv.data[i]) == 0) paths.push_back(srvDir + "/" + srv.data[i]);
    }
    deallocate_String_vector(&srv);
    deallocate_String_vector(&alive);
    return paths;
  };
  const auto naive = Interleave(rounds, 1, korvelCleanup, [&] {
    populate();
    return Time([&] {
      for (const std::string& path : leftoverPaths()) NaiveDelete(raw.zh(), path);
    });
  });
  // Every leftover's listings of a level in flight together, then every delete in multis of as
  // many deletes as korvel puts in one, all in flight together.
  const auto allInFlight = Interleave(rounds, 1, korvelCleanup, [&] {
    populate();
    return Time([&] {
      Check(raw.DeleteInMultis(raw.SubtreesDeepestFirst(leftoverPaths()), kDeletesPerMulti),
            "multi");
    });
  });
  const double korvel = Median(naive.korvel);
  const std::string what = "cleanup, " + std::to_string(leftovers) + " leftovers of 6 nodes";
  rows.push_back({what, korvel * 1e3, Median(naive.floor) * 1e3, "ms", FasterBy(3),
                  leftovers * 6 / korvel, "nodes/s",
                  "floor: a recursive delete listing and deleting one node at a time"});
  const double korvel2 = Median(allInFlight.korvel);
  rows.push_back({what + ", against all in flight", korvel2 * 1e3, Median(allInFlight.floor) * 1e3,
                  "ms", RatioAtMost(1.2), leftovers * 6 / korvel2, "nodes/s",
                  "floor: each level's listings of all leftovers in flight, then all deletes in "
                  "multis in flight"});
}

// One leftover's RecursiveDelete against its depth + 1 round trips made
// directly: the three levels listed (each level's listings in flight
// together) and one multi.
void BenchSubtreeDelete(const std::shared_ptr<Connection>& conn, const RawClient& raw,
                        const std::string& type, int rounds, std::vector<Row>& rows) {
  Progress("RecursiveDelete of one leftover, %d rounds", rounds);
  const std::string srvDir = tree::DataDir(type);
  qx::korvel::EnsurePath(*conn, srvDir, false, ZOO_OPEN_ACL_UNSAFE);
  const auto populate = [&] {
    std::vector<Connection::CreateRequest> nodes;
    const std::string root = srvDir + "/" + NewId();
    AddLeftover(root, nodes);
    CreateBatched(*conn, nodes);
    return root;
  };
  auto samples = Interleave(
      rounds, rounds / 10 + 2,
      [&] {
        const std::string root = populate();
        return Time([&] { qx::korvel::RecursiveDelete(*conn, root); });
      },
      [&] {
        const std::string root = populate();
        return Time(
            [&] { Check(raw.DeleteInOneMulti(raw.SubtreesDeepestFirst({root})), "multi"); });
      });
  const double korvel = Median(samples.korvel);
  rows.push_back({"RecursiveDelete, one leftover (depth 3)", korvel * 1e3,
                  Median(samples.floor) * 1e3, "ms", RatioAtMost(1.10), 1 / korvel, "/s",
                  "floor: depth + 1 = 4 round trips (3 listing levels, 1 multi)"});
}

// ---- Attributes and watches -----------------------------------------------------

void BenchAttributes(const std::string& hosts, const std::shared_ptr<Connection>& conn,
                     const RawClient& raw, const std::string& type, int rounds,
                     std::vector<Row>& rows) {
  Progress("attribute reads, existence tests, watches: %d rounds", rounds);
  auto service = std::make_shared<Service>(conn, type, "attributes");
  const OldServiceWatcher watcher(conn, type);
  const qx::korvel::ServiceId id = service->GetId();
  const std::string path = service->GetRoot() + "/status";

  auto reads = Interleave(
      rounds, rounds / 10,
      [&] {
        return Time([&] {
          auto [rc, value] = watcher.GetAttribute(id, kStatus);
          Check(rc, "GetAttribute");
        });
      },
      [&] {
        return Time([&] {
          char value[256];
          int length = sizeof value;
          Stat stat;
          Check(zoo_get(raw.zh(), path.c_str(), 0, value, &length, &stat), "zoo_get");
        });
      });
  double korvel = Median(reads.korvel);
  rows.push_back({"GetAttribute", korvel * 1e6, Median(reads.floor) * 1e6, "us", RatioAtMost(1.10),
                  1 / korvel, "/s"});

  auto exists = Interleave(
      rounds, rounds / 10,
      [&] { return Time([&] { Check(watcher.HasAttribute(id, kStatus), "HasAttribute"); }); },
      [&] {
        return Time([&] {
          Stat stat;
          Check(zoo_exists(raw.zh(), path.c_str(), 0, &stat), "zoo_exists");
        });
      });
  korvel = Median(exists.korvel);
  rows.push_back({"HasAttribute", korvel * 1e6, Median(exists.floor) * 1e6, "us", RatioAtMost(1.10),
                  1 / korvel, "/s"});

  // The change comes from a second connection; the latency runs from just
  // before its write to the start of the callback.
  const RawClient writer(hosts);
  Moment seen;
  const auto change = [&] {
    seen.Reset();
    const auto start = Clock::now();
    Check(zoo_set(writer.zh(), path.c_str(), "up", 2, -1), "zoo_set");
    return Seconds(seen.Wait() - start);
  };
  auto watches = Interleave(
      rounds / 4, rounds / 40,
      [&] {
        auto [rc, value, handle] =
            watcher.GetAttribute(id, kStatus, [&](int, int, std::string) { seen.Mark(); });
        Check(rc, "GetAttribute");
        return change();
      },
      [&] {
        char value[256];
        int length = sizeof value;
        Stat stat;
        Check(zoo_wget(
                  raw.zh(), path.c_str(),
                  [](zhandle_t*, int, int, const char*, void* moment) {
                    static_cast<Moment*>(moment)->Mark();
                  },
                  &seen, value, &length, &stat),
              "zoo_wget");
        return change();
      });
  korvel = Median(watches.korvel);
  rows.push_back({"watch latency, GetAttribute", korvel * 1e6, Median(watches.floor) * 1e6, "us",
                  RatioAtMost(1.20), 0, "", "from a write by a second connection to the callback"});
}

}  // namespace

int main(int argc, char** argv) {
  const Args args(argc, argv);
  const int rounds = args.Int("rounds", 400, 20);
  // No recipe name: registration makes exactly the five attribute requests.
  unsetenv("CHEF_RECIPE_NAME");
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);

  auto conn = std::make_shared<Connection>(args.hosts, 10s);
  const RawClient raw(args.hosts);
  const std::string base = UniqueType();
  // --only SECTION runs one section (registration, credentials, list, cleanup,
  // subtree, attributes), for profiling.
  const std::string only = args.Option("only", "");
  const auto wanted = [&](const char* section) { return only.empty() || only == section; };
  std::vector<Row> rows;
  if (wanted("registration")) BenchRegistration(conn, raw, base + "-reg", rounds, rows);
  if (wanted("credentials")) {
    BenchRegistrationWithCredentials(args.hosts, conn, base + "-cred", rounds, rows);
  }
  if (wanted("list")) {
    BenchList(conn, raw, base + "-list1k", args.quick ? 100 : 1000, rounds / 4, rows);
    BenchList(conn, raw, base + "-list10k", args.quick ? 1000 : 10000, rounds / 10, rows);
    // --big-list N: one more type of N instances (e.g. 100,000), 5 rounds.
    if (const int big = args.Int("big-list", 0, 0); big > 0) {
      BenchList(conn, raw, base + "-listbig", big, 5, rows);
    }
  }
  if (wanted("cleanup")) {
    BenchCleanup(conn, raw, base + "-clean", args.Int("leftovers", 1000, 50),
                 args.Int("cleanup-rounds", 7, 1), rows);
  }
  if (wanted("subtree")) BenchSubtreeDelete(conn, raw, base + "-subtree", rounds, rows);
  if (wanted("attributes"))
    BenchAttributes(args.hosts, conn, raw, base + "-attr", rounds * 5, rows);

  std::vector<std::string> made;  // a missing one is no error
  for (const char* suffix : {"-reg", "-list1k", "-list10k", "-clean", "-subtree", "-attr"}) {
    made.push_back(tree::DataDir(base + suffix));
    made.push_back(tree::AliveDir(base + suffix));
  }
  qx::korvel::RecursiveDeleteAll(*conn, made);
  PrintReport(rows, args.json);
  return 0;
}
