// Local Apache ZooKeeper servers on 127.0.0.1 for the demo, the tests, the benchmarks and
// scripts/zk-local.sh (through korvel-zk-local): the one config writer and the one way to start,
// probe and stop a server, plus the client-side helpers they need.
//
// The server comes from $KORVEL_ZOOKEEPER_HOME, an installation laid out as Apache's release is
// (conf/, lib/*.jar), or, when that is unset, from Debian's zookeeper package (/etc/zookeeper/conf,
// /usr/share/java/zookeeper.jar). The JVM is $JAVA_HOME/bin/java, else /usr/bin/java.
//
// Each server is a JVM child process with its own temporary directory (config, data, log). Every
// wait is bounded; every server is stopped by its owner's destructor, and the child is killed by
// the kernel if the thread that started it dies, so nothing outlives its owner. Ensembles and
// faults (pausing, killing and restarting servers) belong to the tests: tests/util/zk_harness.h
// builds them on ServerProcess.
//
// Thread-safety: none. Create, control and destroy servers from the main thread only (the
// parent-death signal is tied to the thread that started the server). The free functions
// FreeLoopbackPort, BindLoopback, FourLetterWord, WaitUntil and ExpireSession may be called from
// any thread.
#ifndef KORVEL_TOOLS_ZKLOCAL_ZKLOCAL_H_
#define KORVEL_TOOLS_ZKLOCAL_ZKLOCAL_H_

#include <sys/types.h>
#include <zookeeper/zookeeper.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvel::process {
class ChildProcess;
}

namespace korvel::zklocal {

// Returns a TCP port that was free on 127.0.0.1 a moment ago (bind to port 0, read, close).
int FreeLoopbackPort();

// Binds a new TCP socket (close-on-exec, not listening) to 127.0.0.1 on a port the kernel picks;
// returns the socket and sets `port`. Throws std::runtime_error on failure.
int BindLoopback(int& port);

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

// How the server's JVM compiles: kQuickStart stops at the first JIT tier (fast start, slower
// serving; the tests' choice), kFullJit lets it reach the optimising tier (for benchmarks).
enum class Jit { kQuickStart, kFullJit };

// One server JVM with its own temporary directory: `owner` (the pid of the process that made
// it), zoo.cfg, data/ and server.log. Server id 0 runs a standalone server, any other id a
// quorum member with that myid.
class ServerProcess {
 public:
  enum class State { kStarting, kServing, kExited, kPortTaken };

  // Makes the directory (and removes those whose owner has died); launches nothing.
  // `jvmOptions` are added to the JVM's command line (for example
  // "-Dzookeeper.DigestAuthenticationProvider.superDigest=USER:HASH" for a superuser).
  ServerProcess(int serverId, int tickTimeMs, Jit jit, std::vector<std::string> jvmOptions = {});
  ~ServerProcess();  // Stops the server and removes its directory.
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  int Port() const { return m_port; }
  const std::string& Directory() const { return m_dir; }
  pid_t Pid();  // -1 while not running.

  // Writes zoo.cfg for `clientPort` plus `extraLines`, starting from an empty data directory.
  void Configure(int clientPort, const std::string& extraLines);
  // Starts the JVM without waiting for it to serve.
  void Launch();
  bool Running();
  // The server's Mode ("standalone", "leader", ...), or "" if it does not run or serve.
  std::string Mode();
  // Like Mode(), but also makes sure that the reply comes from this server and not from another
  // one that holds the port.
  State Probe();
  void Signal(int signal);
  void Terminate();  // SIGTERM (with SIGCONT, for a stopped JVM); no waiting.
  void Reap(std::chrono::steady_clock::time_point killAt);  // Waits, SIGKILL at `killAt`.
  void Stop();                                              // SIGTERM, bounded, then SIGKILL.
  void Kill();                                              // SIGKILL.
  // Its state and the last lines of its log, for error messages.
  std::string Describe();

 private:
  std::string DataDir() const { return m_dir + "/data"; }
  std::string LogPath() const { return m_dir + "/server.log"; }

  const int m_serverId;
  const int m_tickTimeMs;
  const Jit m_jit;
  const std::vector<std::string> m_jvmOptions;
  std::string m_dir;
  int m_port = 0;
  std::unique_ptr<process::ChildProcess> m_process;
  std::uintmax_t m_logOffset = 0;  // where the log of the last launch starts
};

// Configures `servers` through `configure` (which gives them fresh ports), launches them and
// waits up to `timeout` until every one serves; again with new ports if a port was taken
// meanwhile. A `configure` that does nothing relaunches servers on their ports and data. Throws
// std::runtime_error, with the state and log of the server that failed, leaving none running.
void StartServing(const std::vector<ServerProcess*>& servers, std::chrono::milliseconds timeout,
                  const std::function<void()>& configure);

// A standalone server on a free loopback port with data in a fresh temporary directory.
class ZooKeeperServer {
 public:
  // Starts the server and waits (bounded) until it serves; throws std::runtime_error (with the
  // tail of the server log) on failure.
  explicit ZooKeeperServer(int tickTimeMs = 100, Jit jit = Jit::kQuickStart,
                           std::vector<std::string> jvmOptions = {});
  ~ZooKeeperServer();  // Stops the server and removes its directory.
  ZooKeeperServer(const ZooKeeperServer&) = delete;
  ZooKeeperServer& operator=(const ZooKeeperServer&) = delete;

  std::string ConnectString() const;  // "127.0.0.1:PORT"
  int Port() const;
  pid_t Pid() const;  // -1 while stopped.
  const std::string& Directory() const;
  void Stop();  // SIGTERM (bounded, then SIGKILL); data is kept.

 protected:
  ServerProcess& Process() const { return *m_server; }

 private:
  std::unique_ptr<ServerProcess> m_server;
};

}  // namespace korvel::zklocal

#endif  // KORVEL_TOOLS_ZKLOCAL_ZKLOCAL_H_
