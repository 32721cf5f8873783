#include "util/fault_util.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <thread>

#include "stlext/uuid.h"

namespace korvel::test {
namespace {

int CountEntries(const char* dir) {
  DIR* d = opendir(dir);
  if (d == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = readdir(d)) count += entry->d_name[0] != '.';
  closedir(d);
  return count;
}

}  // namespace

int FaultRounds(int base) {
  const char* text = std::getenv("KORVEL_FAULT_ROUNDS");
  const int multiplier = text != nullptr ? std::atoi(text) : 1;
  return base * (multiplier > 0 ? multiplier : 1);
}

void ReportFigures(const std::string& scenario, const std::string& text) {
  std::cout << "FIGURES " << scenario << ": " << text << std::endl;
}

ResourceCount CountResources() {
  return {CountEntries("/proc/self/task"), CountEntries("/proc/self/fd")};
}

void ExpectNoResourceLeak(const ResourceCount& baseline, std::chrono::milliseconds settle) {
  ResourceCount now;
  WaitUntil(
      [&] {
        now = CountResources();
        return now.threads <= baseline.threads && now.fds <= baseline.fds;
      },
      settle, 50ms);
  EXPECT_LE(now.threads, baseline.threads) << "threads leaked";
  EXPECT_LE(now.fds, baseline.fds) << "file descriptors leaked";
}

void LeakCheckedTest::SetUp() {
  // ThreadSanitizer starts a thread of its own with the process's first
  // thread: let that happen before the count.
  std::thread([] {}).join();
  m_baseline = CountResources();
}

void LeakCheckedTest::TearDown() {
  ExpectNoResourceLeak(m_baseline);
}

TreeSnapshot SnapshotTree(const qx::korvel::Connection& conn, const std::string& root) {
  TreeSnapshot snapshot;
  std::vector<std::string> pending{root};
  while (!pending.empty()) {
    const std::string path = pending.back();
    pending.pop_back();
    NodeState state;
    Stat stat{};
    if (conn.Get(path, state.value, &stat) != ZOK) continue;
    state.owner = stat.ephemeralOwner;
    snapshot.emplace(path, std::move(state));
    std::vector<std::string> children;
    conn.GetChildren(path, children);
    for (const auto& child : children) pending.push_back((path == "/" ? "" : path) + "/" + child);
  }
  return snapshot;
}

std::vector<std::string> ChangedOutside(const TreeSnapshot& before, const TreeSnapshot& after,
                                        const std::vector<std::string>& allowed) {
  const auto isAllowed = [&](const std::string& path) {
    for (const auto& prefix : allowed) {
      if (path == prefix || path.rfind(prefix + "/", 0) == 0) return true;
    }
    return false;
  };
  std::vector<std::string> changed;
  for (const auto& [path, state] : before) {
    const auto it = after.find(path);
    if ((it == after.end() || !(it->second == state)) && !isAllowed(path)) changed.push_back(path);
  }
  for (const auto& [path, state] : after) {
    if (before.count(path) == 0 && !isAllowed(path)) changed.push_back(path);
  }
  return changed;
}

RegistryCheck::RegistryCheck(std::shared_ptr<qx::korvel::Connection> conn, std::string type)
    : m_conn(std::move(conn)), m_type(std::move(type)) {}

std::string RegistryCheck::Text(const qx::korvel::ServiceId& id) {
  return qx::uuid::to_string(id);
}

void RegistryCheck::AddLive(const qx::korvel::Service& service) {
  Stat stat{};
  const int rc = m_conn->Exists(service.GetRoot(), &stat);
  EXPECT_EQ(ZOK, rc) << "data node of a new instance: " << service.GetRoot();
  m_live[Text(service.GetId())] = rc == ZOK ? stat.czxid : -1;
}

void RegistryCheck::RemoveLive(const qx::korvel::ServiceId& id) {
  m_live.erase(Text(id));
}

std::vector<std::string> RegistryCheck::LiveProblems() const {
  std::vector<std::string> problems;
  const std::vector<std::string> listed = LivenessNodes();
  const std::set<std::string> listedSet(listed.begin(), listed.end());
  for (const auto& [id, czxid] : m_live) {
    const std::string root = tree::Below(tree::DataDir(m_type), id);
    Stat stat{};
    if (listedSet.count(id) == 0) problems.push_back(id + " not listed");
    if (m_conn->Exists(root, &stat) != ZOK) {
      problems.push_back(id + " has no data node");
    } else if (stat.czxid != czxid) {
      problems.push_back(id + " data node was deleted and made again");
    } else if (m_conn->Exists(root + "/status", nullptr) != ZOK) {
      problems.push_back(id + " has no status");
    }
  }
  return problems;
}

std::vector<std::string> RegistryCheck::Leftovers() const {
  std::vector<std::string> leftovers;
  for (const auto& id : m_crashed) {
    if (m_conn->Exists(tree::Below(tree::DataDir(m_type), id), nullptr) != ZNONODE)
      leftovers.push_back(id);
  }
  return leftovers;
}

std::vector<std::string> RegistryCheck::DataNodes() const {
  return Children(tree::DataDir(m_type));
}

std::vector<std::string> RegistryCheck::LivenessNodes() const {
  return Children(tree::AliveDir(m_type));
}

std::vector<std::string> RegistryCheck::Children(const std::string& path) const {
  std::vector<std::string> children;
  const int rc = m_conn->GetChildren(path, children);
  if (rc != ZOK && rc != ZNONODE) return {std::string("listing failed: ") + zerror(rc)};
  return children;
}

LateCallbackProbe::Watch LateCallbackProbe::Make() {
  auto gone = std::make_shared<std::atomic<bool>>(false);
  return {[gone, late = m_late](int, int, std::string) {
            if (gone->load()) ++*late;
          },
          gone};
}

qx::korvel::Connection::FaultInjector ExpireAtRequest(
    std::shared_ptr<qx::korvel::Connection> conn, std::string hosts, int nth,
    std::shared_ptr<std::atomic<bool>> fired, std::optional<qx::korvel::Connection::Operation> op,
    std::string suffix) {
  auto seen = std::make_shared<std::atomic<int>>(0);
  // The connection holds the injector: a weak reference avoids a cycle.
  std::weak_ptr<qx::korvel::Connection> weak = conn;
  return [=](qx::korvel::Connection::Operation o, const std::string& path) -> std::optional<int> {
    const bool matches = (!op || o == *op) && path.size() >= suffix.size() &&
                         path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
    if (!matches || ++*seen != nth) return std::nullopt;
    if (auto target = weak.lock()) {
      ExpireSession(hosts, target->ClientId());
      fired->store(true);
    }
    return std::nullopt;
  };
}

bool OwnedByCurrentSession(const qx::korvel::Service& service, const std::string& type) {
  const auto& conn = service.GetConnection();
  const int64_t session = conn->ClientId().client_id;
  return EphemeralOwner(*conn, tree::AlivePath(type, service.GetId())) == session &&
         EphemeralOwner(*conn, service.GetRoot() + "/start_time") == session;
}

bool WaitForNewSession(const qx::korvel::Connection& conn, int64_t old,
                       std::chrono::milliseconds timeout) {
  return WaitUntil(
      [&] { return conn.ClientId().client_id != old && conn.State() == ZOO_CONNECTED_STATE; },
      timeout, 20ms);
}

}  // namespace korvel::test
