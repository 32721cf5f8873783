// Shared helpers of the test suite. Single-threaded use from a test's main
// thread, except LogCapture, which records from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "korvel/connection_v2.h"
#include "korvel/tree.h"
#include "logger/logger.h"
#include "process/child_process.h"
#include "util/zk_harness.h"

namespace korvel::test {

using namespace std::chrono_literals;
namespace tree = qx::korvel::tree;

// The standalone server shared by all tests of one test binary: started on
// first use, stopped when the binary exits.
ZooKeeperServer& SharedServer();

// A connection to `hosts` with a session timeout short enough for tests.
std::shared_ptr<qx::korvel::Connection> Connect(const std::string& hosts,
                                                std::chrono::milliseconds timeout = 4000ms);

// The members of `ensemble`, its leader first; empty when it has no leader.
std::vector<int> MembersLeaderFirst(const ZooKeeperEnsemble& ensemble);

// Counts the session expiries of the connection it observes (any thread).
class ExpiryCounter : public qx::korvel::ConnectionObserver {
 public:
  void OnSessionEvent(int, int state, std::string) override {
    expiries += state == ZOO_EXPIRED_SESSION_STATE;
  }
  std::atomic<int> expiries{0};
};

// The path of the executable `name` beside this test binary.
std::string SiblingProgram(const std::string& name);

// The installed korvel tool that the CLI tests run (KORVEL_CLI).
std::string CliPath();
// The connect string of SharedServer().
std::string Hosts();
// `head` followed by `tail`: a command line from its parts.
std::vector<std::string> Concat(std::vector<std::string> head,
                                const std::vector<std::string>& tail);

// How a korvel command ended.
struct Result {
  int code;
  std::string out;
  std::string err;
};
// Runs `korvel ARGS` (CliPath) with stdin closed until it ends, its environment this process's
// plus the "NAME=value" entries of `environment`; a command still running after 20 s is a test
// failure and is killed.
Result RunKorvel(const std::vector<std::string>& args,
                 const std::vector<std::string>& environment = {});
// `korvel register ARGS` (CliPath) against `hosts` in the background, with a session timeout of
// 2 s; it waits (bounded) for the first line, the instance id.
class RegisterProcess {
 public:
  RegisterProcess(const std::string& hosts, const std::vector<std::string>& args,
                  const std::vector<std::string>& globalArgs = {});

  // The instance id it printed first; empty if it printed none.
  const std::string& Id() const { return m_id; }
  // Its data and liveness nodes.
  std::string DataPath() const { return tree::Below(tree::DataDir(m_type), m_id); }
  std::string AlivePath() const { return tree::Below(tree::AliveDir(m_type), m_id); }
  process::ChildProcess& Process() { return m_process; }
  std::string Stderr() const;

  // Sends a stdin command and returns its answer line.
  std::string Command(const std::string& command);
  // The next line that answers a command.
  std::string WaitForAnswer();
  // The next line on stdout that `match` accepts; "<nothing>" after 20 s.
  std::string WaitForLine(const std::function<bool(const std::string&)>& match);

 private:
  std::string m_type;
  process::ChildProcess m_process;
  std::string m_id;
};

bool StartsWith(const std::string& text, const std::string& prefix);

// This process's environment plus the "NAME=value" entries of `extra`.
std::vector<std::string> EnvironmentWith(const std::vector<std::string>& extra);

// `prefix` followed by a random suffix, for node names no other test uses.
std::string UniqueName(const std::string& prefix);

// The ephemeral owner of the node (0 for a persistent node), -1 if it is missing.
int64_t EphemeralOwner(const qx::korvel::Connection& conn, const std::string& path);

// The node's value ("" when it cannot be read).
std::string ReadNode(const qx::korvel::Connection& conn, const std::string& path);
bool NodeExists(const qx::korvel::Connection& conn, const std::string& path);

// Records watch events and lets a test wait for them.
struct EventLog {
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<std::tuple<int, int, std::string>> events;

  qx::korvel::WatchFunction Callback();
  bool WaitFor(std::size_t count, std::chrono::milliseconds timeout = 5000ms);
  std::size_t Count();
  std::tuple<int, int, std::string> First();
};

// Returns once `conn` has delivered every watch and session event that the
// server sent it before this call: it watches a control node, creates it, and
// waits for that watch, which the server notifies after all earlier events and
// the connection delivers in order. A test that checks that something did not
// happen calls it first. False if the control watch did not fire in time.
bool AwaitEarlierEvents(qx::korvel::Connection& conn);

// Sets the minimum log level for its lifetime.
class LogLevelScope {
 public:
  explicit LogLevelScope(qx::logging::LogLevel level)
      : m_previous(qx::logging::GetMinimumLoggingLevel()) {
    qx::logging::SetMinimumLoggingLevel(level);
  }
  ~LogLevelScope() { qx::logging::SetMinimumLoggingLevel(m_previous); }
  LogLevelScope(const LogLevelScope&) = delete;
  LogLevelScope& operator=(const LogLevelScope&) = delete;

 private:
  qx::logging::LogLevel m_previous;
};

struct CapturedRecord {
  qx::logging::LogLevel level;
  unsigned int id;
  qx::logging::DecodeType decodeType;
  std::string source;
  std::string filename;
  int lineNumber;
  std::string message;
  std::string handlerName;
};

// Records every log record while it lives (and so keeps them off stderr).
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<CapturedRecord> Records() const;
  // The records of one source.
  std::vector<CapturedRecord> FromSource(const std::string& source) const;
  void Clear();

 private:
  int m_handlerId;
  mutable std::mutex m_mutex;
  std::vector<CapturedRecord> m_records;
};

}  // namespace korvel::test
