// Helpers of the fault suite (ctest label `faults`): the rounds multiplier,
// figures for docs/reliability.md, leak counts, tree snapshots, the registry
// invariants and session expiries at chosen requests. Main thread only,
// except where a comment says otherwise.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "korvel/connection_v2.h"
#include "korvel/service.h"
#include "util/test_util.h"

namespace korvel::test {

// The rounds multiplier of the fault suite: KORVEL_FAULT_ROUNDS (a positive
// integer), 1 when unset. A scenario runs `base` times this many rounds.
int FaultRounds(int base);

// Prints one line "FIGURES <scenario>: <text>" for scripts/reliability.sh.
void ReportFigures(const std::string& scenario, const std::string& text);

// The process's threads (/proc/self/task) and open file descriptors
// (/proc/self/fd).
struct ResourceCount {
  int threads = 0;
  int fds = 0;
};
ResourceCount CountResources();
// Expects (waiting up to `settle` for closing threads and sockets) that no
// more threads and descriptors are open than in `baseline`.
void ExpectNoResourceLeak(const ResourceCount& baseline,
                          std::chrono::milliseconds settle = 10000ms);

// A test that checks, after its body and fixture are gone, that no thread or
// descriptor is left that was not open when it began. (The servers of
// zklocal hold neither in this process.)
class LeakCheckedTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  ResourceCount m_baseline;
};

// Every node below `root` (itself included) with its value and ephemeral
// owner. Nodes that vanish while it is read are left out.
struct NodeState {
  std::string value;
  int64_t owner = 0;
  bool operator==(const NodeState& other) const {
    return value == other.value && owner == other.owner;
  }
};
using TreeSnapshot = std::map<std::string, NodeState>;
TreeSnapshot SnapshotTree(const qx::korvel::Connection& conn, const std::string& root);
// The paths that differ between the snapshots (added, removed or changed),
// except those equal to or below one of `allowed`.
std::vector<std::string> ChangedOutside(const TreeSnapshot& before, const TreeSnapshot& after,
                                        const std::vector<std::string>& allowed);

// The registry invariants of one service type, read through `conn`.
class RegistryCheck {
 public:
  RegistryCheck(std::shared_ptr<qx::korvel::Connection> conn, std::string type);

  // Records a live instance and the creation of its data node.
  void AddLive(const qx::korvel::Service& service);
  void RemoveLive(const qx::korvel::ServiceId& id);
  // An instance that crashed, or whose registration or teardown failed: its
  // data node is a leftover once its session is over.
  void AddCrashed(const qx::korvel::ServiceId& id) { AddCrashed(Text(id)); }
  void AddCrashed(const std::string& id) { m_crashed.insert(id); }

  // Problems with the live instances: not listed, data node or status
  // missing, data node made again since AddLive (so deleted meanwhile).
  std::vector<std::string> LiveProblems() const;
  // The crashed instances whose data node is still there.
  std::vector<std::string> Leftovers() const;
  // The data nodes and liveness nodes of the type; a failed listing gives
  // one entry that says so, never an empty list.
  std::vector<std::string> DataNodes() const;
  std::vector<std::string> LivenessNodes() const;

  static std::string Text(const qx::korvel::ServiceId& id);

 private:
  std::vector<std::string> Children(const std::string& path) const;

  std::shared_ptr<qx::korvel::Connection> m_conn;
  std::string m_type;
  std::map<std::string, int64_t> m_live;  // id -> czxid of its data node
  std::set<std::string> m_crashed;
};

// Sets `stop` and joins the threads, at the latest when it goes: also when an
// assertion or exception ends the test early (a joinable thread destroyed
// would end the process instead of reporting the failure).
class StopAndJoin {
 public:
  StopAndJoin(std::atomic<bool>& stop, std::vector<std::thread*> threads)
      : m_stop(stop), m_threads(std::move(threads)) {}
  ~StopAndJoin() { Join(); }
  StopAndJoin(const StopAndJoin&) = delete;
  StopAndJoin& operator=(const StopAndJoin&) = delete;

  void Join() {
    m_stop = true;
    for (std::thread* thread : m_threads) {
      if (thread->joinable()) thread->join();
    }
  }

 private:
  std::atomic<bool>& m_stop;
  std::vector<std::thread*> m_threads;
};

// Counts the calls of watch callbacks that start after their handle is gone.
// Any thread.
class LateCallbackProbe {
 public:
  // A watch callback, and the flag set once its handle is gone.
  struct Watch {
    qx::korvel::WatchFunction callback;
    std::shared_ptr<std::atomic<bool>> gone;

    // Cancels the watch of `handle`. A call that starts afterwards is late; a
    // call running at this moment is not (cancelling does not wait for it).
    void Drop(qx::korvel::Connection::WatchHandle& handle) const {
      if (!handle.Cancel(nullptr)) gone->store(true);
    }
  };
  Watch Make();
  int Late() const { return m_late->load(); }

 private:
  std::shared_ptr<std::atomic<int>> m_late = std::make_shared<std::atomic<int>>(0);
};

// A fault injector that, at the `nth` request (1-based) of `conn` matching
// `op` (any operation when null) and ending in `suffix`, expires the session
// (ExpireSession against `hosts`) before letting the request go. `fired`
// tells whether it did.
qx::korvel::Connection::FaultInjector ExpireAtRequest(
    std::shared_ptr<qx::korvel::Connection> conn, std::string hosts, int nth,
    std::shared_ptr<std::atomic<bool>> fired,
    std::optional<qx::korvel::Connection::Operation> op = std::nullopt, std::string suffix = "");

// Whether the liveness node and the start time of `service` (of `type`)
// belong to its connection's current session.
bool OwnedByCurrentSession(const qx::korvel::Service& service, const std::string& type);

// Waits until `conn` has a session other than `old` and is connected.
bool WaitForNewSession(const qx::korvel::Connection& conn, int64_t old,
                       std::chrono::milliseconds timeout = 20000ms);

}  // namespace korvel::test
