// ZooKeeper servers as the tests need them, built on the local servers of tools/zklocal: a
// standalone server and quorums of several that a test can stop, kill, pause and restart, and a
// loopback port that refuses connections. Same rules as zklocal.h: every wait is bounded, and
// servers are made, controlled and destroyed on the main thread only.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "zklocal/zklocal.h"

namespace korvel::test {

using zklocal::ExpireSession;
using zklocal::FourLetterWord;
using zklocal::FreeLoopbackPort;
using zklocal::WaitUntil;

// A port of 127.0.0.1 that nothing serves: bound while this lives, without listening, so a
// connection to it is refused and no other process (a test server started meanwhile) can take it.
class RefusingLoopbackPort {
 public:
  RefusingLoopbackPort();  // throws std::runtime_error if no port can be bound
  ~RefusingLoopbackPort();
  RefusingLoopbackPort(const RefusingLoopbackPort&) = delete;
  RefusingLoopbackPort& operator=(const RefusingLoopbackPort&) = delete;

  int Port() const { return m_port; }
  std::string ConnectString() const;

 private:
  int m_port = 0;
  int m_fd;
};

// A standalone server (zklocal::ZooKeeperServer) that a test can also take down and bring back.
class ZooKeeperServer : public zklocal::ZooKeeperServer {
 public:
  using zklocal::ZooKeeperServer::ZooKeeperServer;

  void Stop();             // SIGTERM (bounded, then SIGKILL); data is kept.
  void Kill();             // SIGKILL; data is kept.
  void Start();            // Restarts on the same port and data; waits until serving.
  void Pause();            // SIGSTOP: connections hang instead of failing.
  void Resume();           // SIGCONT.
  bool IsServing() const;  // Running, not paused, and `srvr` reports a Mode.

 private:
  bool m_paused = false;
};

// A quorum of `members` servers on loopback; member indexes are 0-based.
class ZooKeeperEnsemble {
 public:
  // Starts all members and waits (bounded) until every member serves; throws on failure.
  // `observers` more members follow the quorum without voting (read replicas); their indexes
  // come after those of the voting members.
  // `jit` and `jvmOptions` (added after the defaults, so that e.g. -Xmx4g wins): for benchmarks.
  explicit ZooKeeperEnsemble(int members = 3, int tickTimeMs = 100, int observers = 0,
                             zklocal::Jit jit = zklocal::Jit::kQuickStart,
                             const std::vector<std::string>& jvmOptions = {});
  ~ZooKeeperEnsemble();  // Stops all members and removes their directories.
  ZooKeeperEnsemble(const ZooKeeperEnsemble&) = delete;
  ZooKeeperEnsemble& operator=(const ZooKeeperEnsemble&) = delete;

  std::string ConnectString() const;          // "127.0.0.1:P1,127.0.0.1:P2,..."
  std::string ObserverConnectString() const;  // the observers only
  int Size() const;
  int ClientPort(int i) const;
  pid_t Pid(int i) const;  // -1 while member i is stopped

  void Stop(int i);
  void Kill(int i);
  void Start(int i);  // Waits until member i serves (as leader or follower).
  void Pause(int i);
  void Resume(int i);
  bool IsServing(int i) const;

  // Index of the member whose `srvr` says "Mode: leader"; -1 if none does, or (briefly, e.g.
  // right after a paused leader resumes) more than one.
  int Leader() const;
  // Waits until exactly one member leads and every running, unpaused member serves; throws
  // std::runtime_error on timeout.
  void WaitForQuorum(std::chrono::milliseconds timeout);

 private:
  std::string Hosts(bool observersOnly) const;

  struct Member {
    std::unique_ptr<zklocal::ServerProcess> server;
    bool paused = false;
    bool observer = false;
    std::string Mode() const { return paused ? "" : server->Mode(); }
  };
  std::vector<Member> m_members;
};

}  // namespace korvel::test
