// The read commands: list, show, get.
#include <korvel/error.h>
#include <korvel/service_cache.h>
#include <korvel/utils.h>
#include <stlext/uuid.h>

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <thread>

#include "commands.h"
#include "signals.h"

namespace korvel::cli {
namespace {

using namespace std::chrono_literals;
using qx::korvel::Connection;
using qx::korvel::OldServiceWatcher;
using qx::korvel::ServiceId;

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
  // Service refuses this type; a watcher would make the node /srv/alive/alive.
  if (qx::korvel::NormalizePath(type) == "alive") {
    throw Failure("'alive' is not a service type: it is where liveness nodes live");
  }
}

// A watcher of the type, or none when the type has no liveness directory:
// a watcher would make it, and reading commands write nothing.
std::optional<OldServiceWatcher> WatchType(std::shared_ptr<Connection> conn,
                                           const std::string& type) {
  RequireServiceType(type);
  const int rc = conn->Exists("/srv/alive/" + qx::korvel::NormalizePath(type), nullptr);
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
  const int rc = conn.Exists("/srv/" + qx::korvel::NormalizePath(type) + "/" +
                                 qx::uuid::to_string(id) + "/" + qx::korvel::NormalizePath(path),
                             &stat);
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
    return std::make_tuple(a.Get("start_time"), a.Get("service_name"), a.id) <
           std::make_tuple(b.Get("start_time"), b.Get("service_name"), b.id);
  });
}

// The own attributes of each instance; an instance that is gone by now is skipped.
std::vector<InstanceFacts> ReadFacts(const OldServiceWatcher& watcher,
                                     const std::vector<ServiceId>& ids) {
  std::vector<InstanceFacts> instances;
  for (const ServiceId& id : ids) {
    const std::string idText = qx::uuid::to_string(id);
    auto [rc, names] = watcher.GetAttributes(id);
    if (rc == ZNONODE) continue;
    Check(rc, "cannot read instance " + idText);
    InstanceFacts facts{idText, {}};
    for (const std::string& attribute : kOwnAttributes) {
      if (std::find(names.begin(), names.end(), attribute) == names.end()) continue;
      auto [valueRc, value] = watcher.GetAttribute(id, attribute);
      if (valueRc == ZNONODE) continue;
      Check(valueRc, "cannot read " + attribute + " of instance " + idText);
      facts.attributes.emplace_back(attribute, value);
    }
    instances.push_back(std::move(facts));
  }
  SortInstances(instances);
  return instances;
}

std::vector<InstanceFacts> FactsOf(const qx::korvel::ServiceSnapshot& snapshot) {
  std::vector<InstanceFacts> instances;
  for (const auto& instance : snapshot.instances) {
    InstanceFacts facts{qx::uuid::to_string(instance->id), {}};
    for (const std::string& attribute : kOwnAttributes) {
      if (const std::string* value = instance->Attribute(attribute)) {
        facts.attributes.emplace_back(attribute, *value);
      }
    }
    instances.push_back(std::move(facts));
  }
  SortInstances(instances);
  return instances;
}

// The record at `path` below the instance's data node ("": the instance itself) with everything
// below it; nullopt when there is no such node.
std::optional<Record> ReadRecord(const OldServiceWatcher& watcher, const ServiceId& id,
                                 const std::string& path, const std::string& name) {
  auto [rc, names] = watcher.GetAttributes(id, path);
  if (rc == ZNONODE) return std::nullopt;
  Check(rc, "cannot read instance " + qx::uuid::to_string(id));
  std::sort(names.begin(), names.end());
  Record record{name, {}, {}};
  for (const std::string& node : names) {
    const std::string nodePath = path.empty() ? node : path + "/" + node;
    auto [childRc, grandchildren] = watcher.GetAttributes(id, nodePath);
    if (childRc == ZOK && !grandchildren.empty()) {
      if (auto child = ReadRecord(watcher, id, nodePath, node)) {
        record.children.push_back(std::move(*child));
      }
      continue;
    }
    auto [valueRc, value] = watcher.GetAttribute(id, node, path);
    if (valueRc == ZNONODE) continue;
    Check(valueRc, "cannot read " + nodePath + " of instance " + qx::uuid::to_string(id));
    record.attributes.emplace_back(node, value);
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
    const std::string text = FormatInstances(FactsOf(*snapshot), json);
    if (text != printed) std::cout << (printed.empty() ? "" : "\n") << text << std::flush;
    printed = text;
  }
  return 0;
}

}  // namespace

std::shared_ptr<Connection> Connect(const std::string& hosts,
                                    std::chrono::milliseconds sessionTimeout) {
  try {
    return std::make_shared<Connection>(hosts, sessionTimeout);
  } catch (const qx::korvel::KorvelError& e) {
    throw Failure("cannot connect to ZooKeeper at " + hosts + " (" + e.what() + ")");
  }
}

std::vector<InstanceFacts> ReadInstances(const OldServiceWatcher& watcher) {
  auto [rc, ids] = watcher.List();
  Check(rc, "cannot list the live instances");
  return ReadFacts(watcher, ids);
}

std::string FormatInstances(const std::vector<InstanceFacts>& instances, bool json) {
  if (json) return Dump(InstancesToJson(instances));
  return instances.empty() ? "no live instances\n" : FormatTable(instances);
}

std::string ShowInstance(const OldServiceWatcher& watcher, const std::string& type,
                         const ServiceId& id, const std::string& child, bool json) {
  const std::string idText = qx::uuid::to_string(id);
  const std::string path = qx::korvel::NormalizePath(child);
  const auto record = ReadRecord(watcher, id, path, path);
  if (!record) {
    if (path.empty() || std::get<0>(watcher.GetAttributes(id)) == ZNONODE) {
      throw Failure("no instance " + idText + " of type '" + type + "'");
    }
    throw Failure("instance " + idText + " has no child record '" + path + "'");
  }
  return json ? Dump(RecordToJson(*record)) : FormatRecord(*record);
}

std::optional<qx::korvel::Service::Status> ParseStatus(const std::string& text) {
  for (auto status : {qx::korvel::Service::UP, qx::korvel::Service::DOWN,
                      qx::korvel::Service::UP_SENDING_DISABLED}) {
    if (text == qx::korvel::Service::StatusToString(status)) return status;
  }
  return std::nullopt;
}

std::optional<ServiceId> ParseServiceId(const std::string& text) {
  try {
    const auto id = boost::lexical_cast<ServiceId>(text);
    // Only the canonical form, as it stands in node names.
    if (qx::uuid::to_string(id) == text) return id;
  } catch (const boost::bad_lexical_cast&) {
  }
  return std::nullopt;
}

int RunList(const Settings& settings, const std::string& type, bool json, bool watch) {
  if (watch) {
    WatchStopSignals();
    RequireServiceType(type);
    return WatchInstances(Connect(settings.hosts, settings.sessionTimeout), type, json);
  }
  const auto watcher = WatchType(Connect(settings.hosts, settings.sessionTimeout), type);
  std::cout << FormatInstances(watcher ? ReadInstances(*watcher) : std::vector<InstanceFacts>{},
                               json);
  return 0;
}

int RunShow(const Settings& settings, const std::string& type, const ServiceId& id,
            const std::string& child, bool json) {
  const auto conn = Connect(settings.hosts, settings.sessionTimeout);
  const auto watcher = WatchInstanceType(conn, type, id);
  const auto stat = child.empty() ? std::nullopt : NodeStat(*conn, type, id, child);
  if (stat && !IsChildRecord(*stat)) {
    throw Failure("'" + child + "' is an attribute of instance " + qx::uuid::to_string(id) +
                  ", not a child record: korvel get reads it");
  }
  std::cout << ShowInstance(watcher, type, id, child, json);
  return 0;
}

int RunGet(const Settings& settings, const std::string& type, const ServiceId& id,
           const std::string& attribute, const std::string& child) {
  const auto conn = Connect(settings.hosts, settings.sessionTimeout);
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
