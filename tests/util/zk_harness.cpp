#include "util/zk_harness.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace korvel::test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kStandaloneStart = 30s;  // Until a standalone server serves.
constexpr std::chrono::milliseconds kMemberStart = 60s;  // Until members serve (JVMs share CPUs).
constexpr std::chrono::milliseconds kStopGrace = 10s;    // SIGTERM -> SIGKILL.
constexpr std::chrono::milliseconds kStopTimeout = 5s;   // SIGSTOP -> every thread stopped.

// Whether every thread of process `pid` is stopped.
bool AllThreadsStopped(pid_t pid) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
    std::ifstream stat(task.path() / "stat");
    std::string line;
    std::getline(stat, line);
    // "pid (comm) STATE ...": the state follows the last ')'.
    const auto close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size()) continue;
    const char state = line[close + 2];
    if (state != 'T' && state != 't') return false;
  }
  return !error;
}

// SIGSTOP reaches the JVM's threads one by one: waits (bounded) until none runs, so that the
// server answers nothing once this returns.
void Pause(zklocal::ServerProcess& server) {
  const pid_t pid = server.Pid();
  if (pid < 0) throw std::logic_error("cannot pause a ZooKeeper server that is not running");
  server.Signal(SIGSTOP);
  WaitUntil([pid] { return AllThreadsStopped(pid); }, kStopTimeout);
}

// Restarts a stopped server on its old port and data.
void Restart(zklocal::ServerProcess& server, std::chrono::milliseconds timeout) {
  zklocal::StartServing({&server}, timeout, [] {});
}

}  // namespace

RefusingLoopbackPort::RefusingLoopbackPort() : m_fd(zklocal::BindLoopback(m_port)) {}

RefusingLoopbackPort::~RefusingLoopbackPort() {
  close(m_fd);
}

std::string RefusingLoopbackPort::ConnectString() const {
  return "127.0.0.1:" + std::to_string(m_port);
}

// ---- ZooKeeperServer ----

void ZooKeeperServer::Stop() {
  m_paused = false;
  zklocal::ZooKeeperServer::Stop();
}
void ZooKeeperServer::Kill() {
  m_paused = false;
  Process().Kill();
}
void ZooKeeperServer::Start() {
  Restart(Process(), kStandaloneStart);
}
void ZooKeeperServer::Pause() {
  test::Pause(Process());
  m_paused = true;
}
void ZooKeeperServer::Resume() {
  Process().Signal(SIGCONT);
  m_paused = false;
}
bool ZooKeeperServer::IsServing() const {
  return !m_paused && !Process().Mode().empty();
}

// ---- ZooKeeperEnsemble ----

ZooKeeperEnsemble::ZooKeeperEnsemble(int members, int tickTimeMs, int observers, zklocal::Jit jit,
                                     const std::vector<std::string>& jvmOptions) {
  if (members < 1) throw std::invalid_argument("ZooKeeperEnsemble needs at least one member");
  std::vector<zklocal::ServerProcess*> servers;
  for (int i = 0; i < members + observers; ++i) {
    m_members.push_back(
        {std::make_unique<zklocal::ServerProcess>(i + 1, tickTimeMs, jit, jvmOptions), false,
         i >= members});
    servers.push_back(m_members.back().server.get());
  }
  // Limits in ticks: ~10 s for a follower's initial sync, ~2 s of silence before a peer is
  // considered gone.
  const int initLimit = std::max(10, (10000 + tickTimeMs - 1) / tickTimeMs);
  const int syncLimit = std::max(5, (2000 + tickTimeMs - 1) / tickTimeMs);
  auto configure = [&] {
    std::set<int> ports;  // Client, peer and election port of every member, all distinct.
    while (ports.size() < 3 * servers.size()) ports.insert(FreeLoopbackPort());
    auto next = ports.begin();
    std::vector<int> clientPorts;
    std::ostringstream quorum;
    quorum << "initLimit=" << initLimit << "\n"
           << "syncLimit=" << syncLimit << "\n"
           << "standaloneEnabled=false\n";  // A one-member ensemble still elects a leader.
    for (size_t i = 0; i < servers.size(); ++i) {
      clientPorts.push_back(*next++);
      const int peer = *next++;
      const int election = *next++;
      quorum << "server." << i + 1 << "=127.0.0.1:" << peer << ":" << election
             << (m_members[i].observer ? ":observer" : "") << "\n";
    }
    for (size_t i = 0; i < servers.size(); ++i) {
      servers[i]->Configure(clientPorts[i],
                            quorum.str() + (m_members[i].observer ? "peerType=observer\n" : ""));
    }
  };
  zklocal::StartServing(servers, kMemberStart, configure);
}

ZooKeeperEnsemble::~ZooKeeperEnsemble() {
  // Signal all members first so that they shut down in parallel.
  for (auto& member : m_members) member.server->Terminate();
  const auto killAt = Clock::now() + kStopGrace;
  for (auto& member : m_members) member.server->Reap(killAt);
}

std::string ZooKeeperEnsemble::ConnectString() const {
  return Hosts(false);
}

std::string ZooKeeperEnsemble::ObserverConnectString() const {
  return Hosts(true);
}

std::string ZooKeeperEnsemble::Hosts(bool observersOnly) const {
  std::string hosts;
  for (const auto& member : m_members) {
    if (observersOnly && !member.observer) continue;
    hosts += (hosts.empty() ? "" : ",") + std::string("127.0.0.1:") +
             std::to_string(member.server->Port());
  }
  return hosts;
}

int ZooKeeperEnsemble::Size() const {
  return static_cast<int>(m_members.size());
}
int ZooKeeperEnsemble::ClientPort(int i) const {
  return m_members.at(i).server->Port();
}
pid_t ZooKeeperEnsemble::Pid(int i) const {
  return m_members.at(i).server->Pid();
}
void ZooKeeperEnsemble::Stop(int i) {
  m_members.at(i).paused = false;
  m_members.at(i).server->Stop();
}
void ZooKeeperEnsemble::Kill(int i) {
  m_members.at(i).paused = false;
  m_members.at(i).server->Kill();
}
void ZooKeeperEnsemble::Start(int i) {
  Restart(*m_members.at(i).server, kMemberStart);
}
void ZooKeeperEnsemble::Pause(int i) {
  test::Pause(*m_members.at(i).server);
  m_members.at(i).paused = true;
}
void ZooKeeperEnsemble::Resume(int i) {
  m_members.at(i).server->Signal(SIGCONT);
  m_members.at(i).paused = false;
}
bool ZooKeeperEnsemble::IsServing(int i) const {
  return !m_members.at(i).Mode().empty();
}

int ZooKeeperEnsemble::Leader() const {
  // A resumed (SIGCONT) old leader still says "leader" for ~100 ms before it steps down.
  int leader = -1;
  for (size_t i = 0; i < m_members.size(); ++i) {
    if (m_members[i].Mode() != "leader") continue;
    if (leader >= 0) return -1;
    leader = static_cast<int>(i);
  }
  return leader;
}

void ZooKeeperEnsemble::WaitForQuorum(std::chrono::milliseconds timeout) {
  auto ready = [this] {
    if (Leader() < 0) return false;
    for (const auto& member : m_members) {
      if (!member.paused && member.server->Running() && member.Mode().empty()) return false;
    }
    return true;
  };
  if (WaitUntil(ready, timeout, 50ms)) return;
  std::string error = "ZooKeeper quorum not ready after " + std::to_string(timeout.count()) +
                      " ms (leader index " + std::to_string(Leader()) + "):\n";
  for (auto& member : m_members) {
    error += (member.paused ? "(paused) " : "") + member.server->Describe();
  }
  throw std::runtime_error(error);
}

}  // namespace korvel::test
