// Runs real Apache ZooKeeper servers (Debian's package; standalone or a quorum) on 127.0.0.1,
// for the tests, the benchmarks and the demo, and forces session expiries the standard way.
//
// Each server is a JVM child process with its own temporary directory (config, data, log). Every
// wait is bounded; every server is stopped by its owner's destructor, and the child is killed by
// the kernel if the thread that started it dies (PR_SET_PDEATHSIG), so nothing outlives its owner.
//
// Thread-safety: none. Create, control and destroy servers from the main thread only (the
// parent-death signal is tied to the thread that forked the server). The free functions
// FreeLoopbackPort, FourLetterWord, WaitUntil and ExpireSession may be called from any thread.
#ifndef KORVEL_TOOLS_ZKLOCAL_ZKLOCAL_H_
#define KORVEL_TOOLS_ZKLOCAL_ZKLOCAL_H_

#include <sys/types.h>
#include <zookeeper/zookeeper.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvel::zklocal {

// Returns a TCP port that was free on 127.0.0.1 a moment ago (bind to port 0, read, close).
int FreeLoopbackPort();

// A port of 127.0.0.1 that nothing serves: bound while this lives, without listening, so a
// connection to it is refused and no other process (a test server started meanwhile) can take it.
class RefusingLoopbackPort {
 public:
  RefusingLoopbackPort();  // throws std::runtime_error if no port can be bound
  ~RefusingLoopbackPort();
  RefusingLoopbackPort(const RefusingLoopbackPort&) = delete;
  RefusingLoopbackPort& operator=(const RefusingLoopbackPort&) = delete;

  int Port() const { return port_; }
  std::string ConnectString() const;

 private:
  int fd_;
  int port_;
};

// Sends a ZooKeeper four-letter word (e.g. "ruok", "srvr") to 127.0.0.1:port and returns the
// reply, or "" on any failure or when `timeout` elapses.
std::string FourLetterWord(int port, const std::string& word, std::chrono::milliseconds timeout);

// Polls `pred` every `step` until it returns true (-> true) or `timeout` elapses (-> false).
bool WaitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout,
               std::chrono::milliseconds step = std::chrono::milliseconds(10));

// Forces the server-side expiry of another client's session, the usual way: a second handle
// attaches to the same session id and password and closes it. The server hands the session back
// and forth between the two connections, so this repeats until a fresh handle is told that the
// session has expired (usually < 50 ms; rarely ~1 s in an ensemble). Throws std::runtime_error if
// the first handle does not connect or the session is not gone within `timeout`. The owner then
// sees ZOO_EXPIRED_SESSION_STATE when it reconnects, normally within milliseconds.
void ExpireSession(const std::string& hosts, const clientid_t& id,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

class ServerNode;  // One server process; defined in zk_harness.cpp.

// How the server's JVM compiles: kQuickStart stops at the first JIT tier (fast start, slower
// serving; the tests' choice), kFullJit lets it reach the optimising tier (for benchmarks).
enum class Jit { kQuickStart, kFullJit };

// A standalone server on a free loopback port with data in a fresh temporary directory.
class ZooKeeperServer {
 public:
  // Starts the server and waits (bounded) until it serves; throws std::runtime_error (with the
  // tail of the server log) on failure.
  explicit ZooKeeperServer(int tickTimeMs = 100, Jit jit = Jit::kQuickStart);
  ~ZooKeeperServer();  // Stops the server and removes its directory.
  ZooKeeperServer(const ZooKeeperServer&) = delete;
  ZooKeeperServer& operator=(const ZooKeeperServer&) = delete;

  std::string ConnectString() const;  // "127.0.0.1:PORT"
  int Port() const;
  pid_t Pid() const;  // -1 while stopped.

  void Stop();             // SIGTERM (bounded, then SIGKILL); data is kept.
  void Kill();             // SIGKILL; data is kept.
  void Start();            // Restarts on the same port and data; waits until serving.
  void Pause();            // SIGSTOP: connections hang instead of failing.
  void Resume();           // SIGCONT.
  bool IsServing() const;  // Running, not paused, and `srvr` reports a Mode.

 private:
  std::unique_ptr<ServerNode> node_;
};

// A quorum of `members` servers on loopback; member indexes are 0-based.
class ZooKeeperEnsemble {
 public:
  // Starts all members and waits (bounded) until every member serves; throws on failure.
  explicit ZooKeeperEnsemble(int members = 3, int tickTimeMs = 100);
  ~ZooKeeperEnsemble();  // Stops all members and removes their directories.
  ZooKeeperEnsemble(const ZooKeeperEnsemble&) = delete;
  ZooKeeperEnsemble& operator=(const ZooKeeperEnsemble&) = delete;

  std::string ConnectString() const;  // "127.0.0.1:P1,127.0.0.1:P2,..."
  int Size() const;
  int ClientPort(int i) const;

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
  std::vector<std::unique_ptr<ServerNode>> nodes_;
};

}  // namespace korvel::zklocal

#endif  // KORVEL_TOOLS_ZKLOCAL_ZKLOCAL_H_
