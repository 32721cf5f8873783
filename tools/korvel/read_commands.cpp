// The read commands: list, show, get.
#include <korvel/error.h>
#include <korvel/service_cache.h>
#include <korvel/tree.h>
#include <korvel/utils.h>
#include <stlext/uuid.h>

#include <algorithm>
#include <condition_variable>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "commands.h"
#include "signals.h"

namespace korvel::cli {
namespace {

using namespace std::chrono_literals;
using qx::korvel::Connection;
using qx::korvel::OldServiceWatcher;
using qx::korvel::ServiceId;
namespace tree = qx::korvel::tree;

// After a change the listing waits this long, so that a registration's facts, published one
// after another, are read together.
constexpr auto kSettleTime = 100ms;

void Check(int rc, const std::string& what) {
  if (rc != ZOK) throw Failure(what + ": " + zerror(rc));
}

std::string Dump(const Json& json) {
  // Values are bytes; invalid UTF-8 is replaced rather than refused.
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

void RequireServiceType(const std::string& type) {
  // Service refuses these types; a watcher would make a directory among the liveness nodes.
  if (tree::IsLivenessType(qx::korvel::NormalizePath(type))) {
    throw Failure("'alive' is not a service type: it is where liveness nodes live");
  }
}

// A watcher of the type, or none when the type has no liveness directory:
// a watcher would make it, and reading commands write nothing.
std::optional<OldServiceWatcher> WatchType(std::shared_ptr<Connection> conn,
                                           const std::string& type) {
  RequireServiceType(type);
  const int rc = conn->Exists(tree::AliveDir(type), nullptr);
  if (rc == ZNONODE) return std::nullopt;
  Check(rc, "cannot read the service type '" + type + "'");
  try {
    return OldServiceWatcher(std::move(conn), type);
  } catch (const qx::korvel::KorvelError& e) {
    throw Failure("cannot watch the service type '" + type + "': " + e.what());
  }
}

// The watcher of the type of instance `id`; throws when the type has none.
OldServiceWatcher WatchInstanceType(std::shared_ptr<Connection> conn, const std::string& type,
                                    const ServiceId& id) {
  auto watcher = WatchType(std::move(conn), type);
  if (!watcher) {
    throw Failure("no instance " + qx::uuid::to_string(id) + " of type '" + type + "'");
  }
  return std::move(*watcher);
}

// What the node at `path` below the instance's data node holds, if it exists.
std::optional<Stat> NodeStat(const Connection& conn, const std::string& type, const ServiceId& id,
                             const std::string& path) {
  Stat stat{};
  const int rc = conn.Exists(tree::Below(tree::DataPath(type, id), path), &stat);
  return rc == ZOK ? std::optional<Stat>(stat) : std::nullopt;
}

// A child record has attributes below it, or none and no value (all of its
// attributes removed); an attribute has nothing below it and is an
// instance's own (ephemeral) or holds a value.
bool IsChildRecord(const Stat& stat) {
  return stat.numChildren > 0 || (stat.ephemeralOwner == 0 && stat.dataLength == 0);
}

void SortInstances(std::vector<InstanceFacts>& instances) {
  std::sort(instances.begin(), instances.end(), [](const auto& a, const auto& b) {
    const auto key = [](const InstanceFacts& i) {
      return std::make_tuple(i.Get(tree::kOwnAttributeNames[tree::kStartTime]),
                             i.Get(tree::kOwnAttributeNames[tree::kServiceName]), i.id);
    };
    return key(a) < key(b);
  });
}

InstanceFacts Facts(const ServiceId& id,
                    const std::function<const std::string*(tree::OwnAttribute)>& get) {
  InstanceFacts facts{qx::uuid::to_string(id), {}};
  for (std::size_t a = 0; a < tree::kOwnAttributeCount; ++a) {
    if (const std::string* value = get(static_cast<tree::OwnAttribute>(a))) {
      facts.attributes.emplace_back(tree::kOwnAttributeNames[a], *value);
    }
  }
  return facts;
}

std::vector<InstanceFacts> SnapshotFacts(const qx::korvel::ServiceSnapshot& snapshot) {
  std::vector<InstanceFacts> instances;
  for (const auto& instance : snapshot.instances) instances.push_back(FactsOf(*instance));
  SortInstances(instances);
  return instances;
}

// Reads the nodes below `roots` a level at a time, each level's listings and then its values in
// flight together: `listed` receives the sorted child names of every root that exists and of
// every node below one that has children, `values` the value of every other node below a root.
void ReadSubtrees(const Connection& conn, const std::vector<std::string>& roots,
                  std::map<std::string, std::vector<std::string>>& listed,
                  std::map<std::string, std::string>& values) {
  const std::set<std::string> isRoot(roots.begin(), roots.end());
  std::vector<std::string> level = roots;
  while (!level.empty()) {
    std::vector<std::vector<std::string>> children;
    const std::vector<int> codes = conn.GetChildrenAll(level, children);
    std::vector<std::string> next;
    std::vector<Connection::ReadRequest> leaves;
    for (std::size_t i = 0; i < level.size(); ++i) {
      if (codes[i] == ZNONODE) continue;  // missing, or removed meanwhile
      Check(codes[i], "cannot list " + level[i]);
      if (children[i].empty() && isRoot.count(level[i]) == 0) {
        leaves.push_back({level[i]});
        continue;
      }
      std::sort(children[i].begin(), children[i].end());
      for (const std::string& child : children[i]) next.push_back(level[i] + "/" + child);
      listed[level[i]] = std::move(children[i]);
    }
    std::vector<std::string> read;
    const std::vector<int> readCodes = conn.GetAll(leaves, read);
    for (std::size_t i = 0; i < leaves.size(); ++i) {
      if (readCodes[i] == ZNONODE) continue;
      Check(readCodes[i], "cannot read " + leaves[i].path);
      values[leaves[i].path] = std::move(read[i]);
    }
    level = std::move(next);
  }
}

// The record `name` at `node` from what ReadSubtrees read.
Record BuildRecord(const std::string& node, const std::string& name,
                   const std::map<std::string, std::vector<std::string>>& listed,
                   const std::map<std::string, std::string>& values) {
  Record record{name, {}, {}};
  for (const std::string& child : listed.at(node)) {
    const std::string path = node + "/" + child;
    if (listed.count(path) != 0) {
      record.children.push_back(BuildRecord(path, child, listed, values));
    } else if (auto value = values.find(path); value != values.end()) {
      record.attributes.emplace_back(child, value->second);
    }
  }
  return record;
}

// Set by watch callbacks on the event thread, waited for by the main thread.
class ChangeFlag {
 public:
  void Set() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_changed = true;
    m_cv.notify_all();
  }
  // True when set within `timeout`; clears it.
  bool WaitAndClear(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait_for(lock, timeout, [this] { return m_changed; });
    return std::exchange(m_changed, false);
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_changed = false;
};

// Prints the list at every change until SIGINT or SIGTERM. The cache keeps it current: it
// watches the instances and their statuses, and lists and reads everything again after a new
// session. A change is printed once it has settled, so that a registration's facts, published
// one after another, show together.
int WatchInstances(std::shared_ptr<Connection> conn, const std::string& type, bool json) {
  qx::korvel::ServiceCache cache(std::move(conn), type);
  ChangeFlag changed;
  cache.AddListener([&changed](const qx::korvel::ServiceCacheEvent&) { changed.Set(); });
  cache.Start();
  std::string printed;
  bool current = false;
  while (!ReceivedStopSignal()) {
    if (!changed.WaitAndClear(100ms)) continue;
    std::this_thread::sleep_for(kSettleTime);
    changed.WaitAndClear(0ms);  // the snapshot below shows what changed meanwhile
    const auto snapshot = cache.Snapshot();
    if (snapshot->current != current && !printed.empty()) {
      std::cerr << "korvel: "
                << (snapshot->current ? "the list is current again"
                                      : "the list may be stale: no connection")
                << "\n";
    }
    current = snapshot->current;
    if (!current) continue;
    const std::string text = FormatInstances(SnapshotFacts(*snapshot), json);
    if (text != printed) std::cout << (printed.empty() ? "" : "\n") << text << std::flush;
    printed = text;
  }
  return 0;
}

}  // namespace

std::shared_ptr<Connection> Connect(const Settings& settings) {
  try {
    if (settings.credentials) {
      return std::make_shared<Connection>(settings.hosts, settings.sessionTimeout,
                                          *settings.credentials);
    }
    return std::make_shared<Connection>(settings.hosts, settings.sessionTimeout);
  } catch (const qx::korvel::KorvelError& e) {
    throw Failure("cannot connect to ZooKeeper at " + settings.hosts + " (" + e.what() + ")");
  }
}

std::vector<InstanceFacts> ReadInstances(const Connection& conn, const std::string& type) {
  std::vector<std::string> names;
  const int rc = conn.GetChildren(tree::AliveDir(type), names);
  if (rc == ZNONODE) return {};
  Check(rc, "cannot list the live instances");
  std::vector<ServiceId> ids;
  for (const std::string& name : names) {
    ServiceId id;
    if (qx::uuid::from_string(name, id)) ids.push_back(id);
  }
  std::vector<tree::OwnAttributes> read;
  Check(tree::ReadOwnAttributes(conn, type, ids, read), "cannot read the live instances");
  std::vector<InstanceFacts> instances;
  instances.reserve(read.size());
  for (const auto& instance : read) {
    // Gone by now, or not written yet.
    if (!instance.Any()) continue;
    instances.push_back(Facts(
        instance.id, [&](tree::OwnAttribute a) { return instance[a] ? &*instance[a] : nullptr; }));
  }
  SortInstances(instances);
  return instances;
}

std::string FormatInstances(const std::vector<InstanceFacts>& instances, bool json) {
  if (json) return Dump(InstancesToJson(instances));
  return instances.empty() ? "no live instances\n" : FormatTable(instances);
}

std::string ShowInstance(const Connection& conn, const std::string& type, const ServiceId& id,
                         const std::string& child, bool json) {
  const std::string idText = qx::uuid::to_string(id);
  const std::string path = qx::korvel::NormalizePath(child);
  const std::string dataPath = tree::DataPath(type, id);
  const std::string node = path.empty() ? dataPath : tree::Below(dataPath, path);
  auto records = ReadRecords(conn, {node});
  if (records.empty()) {
    if (path.empty() || conn.Exists(dataPath, nullptr) == ZNONODE) {
      throw Failure("no instance " + idText + " of type '" + type + "'");
    }
    throw Failure("instance " + idText + " has no child record '" + path + "'");
  }
  Record& record = records.begin()->second;
  record.name = path;
  return json ? Dump(RecordToJson(record)) : FormatRecord(record);
}

std::map<std::string, Record> ReadRecords(const Connection& conn,
                                          const std::vector<std::string>& nodes) {
  std::map<std::string, std::vector<std::string>> listed;
  std::map<std::string, std::string> values;
  ReadSubtrees(conn, nodes, listed, values);
  std::map<std::string, Record> records;
  for (const std::string& node : nodes) {
    if (listed.count(node) != 0) records.emplace(node, BuildRecord(node, "", listed, values));
  }
  return records;
}

InstanceFacts FactsOf(const qx::korvel::CachedInstance& instance) {
  return Facts(instance.id, [&](tree::OwnAttribute a) {
    return instance.Attribute(tree::kOwnAttributeNames[a]);
  });
}

std::optional<qx::korvel::Service::Status> ParseStatus(const std::string& text) {
  for (auto status : {qx::korvel::Service::UP, qx::korvel::Service::DOWN,
                      qx::korvel::Service::UP_SENDING_DISABLED}) {
    if (text == qx::korvel::Service::StatusToString(status)) return status;
  }
  return std::nullopt;
}

std::optional<ServiceId> ParseServiceId(const std::string& text) {
  ServiceId id;
  if (qx::uuid::from_string(text, id)) return id;
  return std::nullopt;
}

int RunList(const Settings& settings, const std::string& type, bool json, bool watch) {
  if (watch) {
    WatchStopSignals();
    RequireServiceType(type);
    return WatchInstances(Connect(settings), type, json);
  }
  RequireServiceType(type);
  const auto conn = Connect(settings);
  std::cout << FormatInstances(ReadInstances(*conn, type), json);
  return 0;
}

int RunShow(const Settings& settings, const std::string& type, const ServiceId& id,
            const std::string& child, bool json) {
  const auto conn = Connect(settings);
  const auto watcher = WatchInstanceType(conn, type, id);
  const auto stat = child.empty() ? std::nullopt : NodeStat(*conn, type, id, child);
  if (stat && !IsChildRecord(*stat)) {
    throw Failure("'" + child + "' is an attribute of instance " + qx::uuid::to_string(id) +
                  ", not a child record: korvel get reads it");
  }
  std::cout << ShowInstance(*conn, type, id, child, json);
  return 0;
}

int RunGet(const Settings& settings, const std::string& type, const ServiceId& id,
           const std::string& attribute, const std::string& child) {
  const auto conn = Connect(settings);
  const auto watcher = WatchInstanceType(conn, type, id);
  const std::string idText = qx::uuid::to_string(id);
  auto [rc, value] = watcher.GetAttribute(id, attribute, child);
  if (rc == ZOK) {
    const std::string path = child.empty() ? attribute : child + "/" + attribute;
    const auto stat = NodeStat(*conn, type, id, path);
    if (stat && stat->numChildren > 0) {
      throw Failure("'" + path + "' is a child record of instance " + idText +
                    ", not an attribute: korvel show --child shows it");
    }
    std::cout << value << "\n";
    return 0;
  }
  if (rc != ZNONODE)
    throw Failure("cannot read " + attribute + " of instance " + idText + ": " + zerror(rc));
  if (std::get<0>(watcher.GetAttributes(id)) == ZNONODE) {
    throw Failure("no instance " + idText + " of type '" + type + "'");
  }
  throw Failure("instance " + idText + " has no attribute '" + attribute + "'" +
                (child.empty() ? "" : " in child record '" + child + "'"));
}

}  // namespace korvel::cli
