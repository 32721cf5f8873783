#include "zklocal/zklocal.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "process/child_process.h"

namespace korvel::zklocal {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kProbeTimeout{1000};      // One four-letter-word exchange.
constexpr milliseconds kPollStep{50};            // Between probes while waiting.
constexpr milliseconds kStandaloneStart{30000};  // Until a standalone server serves.
constexpr milliseconds kStopGrace{10000};        // SIGTERM -> SIGKILL.
constexpr int kStartAttempts = 3;                // Fresh ports after a port was taken.
constexpr size_t kLogTailLines = 40;

std::string ErrnoText(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

// "standalone", "leader", "follower", ... from a `srvr` reply; "" when not serving.
std::string ModeOf(const std::string& srvr) {
  const std::string key = "Mode: ";
  size_t pos = srvr.find(key);
  if (pos == std::string::npos) return "";
  pos += key.size();
  return srvr.substr(pos, srvr.find('\n', pos) - pos);
}

constexpr char kDirPrefix[] = "korvel-zk-";
constexpr char kOwnerFile[] = "owner";  // the pid of the process that made the directory

std::string TempDir() {
  const char* tmp = getenv("TMPDIR");
  return tmp && *tmp ? tmp : "/tmp";
}

// Removes the directories of servers whose owner died without removing them
// (killed by a test timeout, say); its JVM died with it.
void RemoveDirectoriesOfDeadOwners() {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(TempDir(), error)) {
    if (entry.path().filename().string().rfind(kDirPrefix, 0) != 0) continue;
    pid_t owner = 0;
    if (!(std::ifstream(entry.path() / kOwnerFile) >> owner) || owner <= 0) continue;
    if (kill(owner, 0) != 0 && errno == ESRCH) fs::remove_all(entry.path(), error);
  }
}

// The JVM and the class path that run the server (see zklocal.h); throws std::runtime_error when
// the server is not there.
struct Installation {
  std::string java;
  std::string classPath;
};

Installation FindInstallation() {
  const char* javaHome = getenv("JAVA_HOME");
  Installation found{javaHome && *javaHome ? std::string(javaHome) + "/bin/java" : "/usr/bin/java",
                     ""};
  const char* home = getenv("KORVEL_ZOOKEEPER_HOME");
  if (home && *home) {
    if (!fs::is_directory(std::string(home) + "/lib")) {
      throw std::runtime_error(std::string("KORVEL_ZOOKEEPER_HOME=") + home +
                               " holds no lib/ directory of ZooKeeper's jars");
    }
    found.classPath = std::string(home) + "/conf:" + home + "/lib/*";
    return found;
  }
  const std::string jar = "/usr/share/java/zookeeper.jar";
  if (access(jar.c_str(), R_OK) != 0) {
    throw std::runtime_error("no ZooKeeper server: " + jar +
                             " is missing (install Debian's zookeeper package or set "
                             "KORVEL_ZOOKEEPER_HOME)");
  }
  found.classPath = "/etc/zookeeper/conf:" + jar;
  // The jar only brings the slf4j API; without a binding the server logs nothing at all. The
  // simple binding (same Debian package as the API) writes to stderr, i.e. to the log file.
  const std::string slf4jSimple = "/usr/share/java/slf4j-simple.jar";
  if (access(slf4jSimple.c_str(), R_OK) == 0) found.classPath += ":" + slf4jSimple;
  return found;
}

std::string ReadFile(const std::string& path, std::uintmax_t from = 0) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(from));
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

}  // namespace

ServerProcess::ServerProcess(int serverId, int tickTimeMs, Jit jit,
                             std::vector<std::string> jvmOptions)
    : m_serverId(serverId),
      m_tickTimeMs(tickTimeMs),
      m_jit(jit),
      m_jvmOptions(std::move(jvmOptions)) {
  if (tickTimeMs <= 0) throw std::invalid_argument("ZooKeeper tickTime must be positive");
  RemoveDirectoriesOfDeadOwners();
  std::string templ = TempDir() + "/" + kDirPrefix + "XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) throw std::runtime_error(ErrnoText("mkdtemp " + templ));
  m_dir = templ;
  std::ofstream(m_dir + "/" + kOwnerFile) << getpid() << "\n";
}

ServerProcess::~ServerProcess() {
  Stop();
  m_process.reset();
  std::error_code ignored;
  fs::remove_all(m_dir, ignored);
}

pid_t ServerProcess::Pid() {
  return Running() ? m_process->Pid() : -1;
}

void ServerProcess::Configure(int clientPort, const std::string& extraLines) {
  m_port = clientPort;
  std::error_code ignored;
  fs::remove_all(DataDir(), ignored);
  fs::create_directories(DataDir());
  std::ofstream cfg(m_dir + "/zoo.cfg");
  cfg << "tickTime=" << m_tickTimeMs << "\n"
      << "dataDir=" << DataDir() << "\n"
      << "clientPort=" << clientPort << "\n"
      << "clientPortAddress=127.0.0.1\n"
      << "admin.enableServer=false\n"
      << "4lw.commands.whitelist=*\n"
      << "maxSessionTimeout=60000\n"
      << "maxClientCnxns=0\n"   // Default 60 per IP, and every local client is 127.0.0.1.
      << "forceSync=no\n"       // Data still survives a process kill (page cache).
      << "preAllocSize=1024\n"  // KB; the default preallocates 64 MB txn logs.
      << extraLines;
  if (!cfg.flush()) throw std::runtime_error("cannot write " + m_dir + "/zoo.cfg");
  if (m_serverId != 0) std::ofstream(DataDir() + "/myid") << m_serverId << "\n";
}

void ServerProcess::Launch() {
  if (Running()) {
    throw std::logic_error("ZooKeeper server already running on port " + std::to_string(m_port));
  }
  const Installation installation = FindInstallation();
  std::vector<std::string> args = {
      installation.java,
      "-Xmx256m",
      "-XX:+UseSerialGC",
      // Faster JVM start, plenty for a test server; benchmarks want every tier.
      m_jit == Jit::kQuickStart ? "-XX:TieredStopAtLevel=1" : "-XX:+TieredCompilation",
      "-XX:-UsePerfData",  // No /tmp/hsperfdata files left behind by SIGKILL.
      "-Djava.net.preferIPv4Stack=true",
      "-Dzookeeper.log.dir=" + m_dir,
      "-Dorg.slf4j.simpleLogger.showDateTime=true",
      "-Dorg.slf4j.simpleLogger.dateTimeFormat=HH:mm:ss.SSS",
      // Silences one INFO line per four-letter-word probe.
      "-Dorg.slf4j.simpleLogger.log.org.apache.zookeeper.server.NIOServerCnxn=warn",
  };
  args.insert(args.end(), m_jvmOptions.begin(), m_jvmOptions.end());
  args.insert(args.end(), {"-cp", installation.classPath,
                           m_serverId == 0 ? "org.apache.zookeeper.server.ZooKeeperServerMain"
                                           : "org.apache.zookeeper.server.quorum.QuorumPeerMain",
                           m_dir + "/zoo.cfg"});
  std::error_code noLog;
  m_logOffset = fs::file_size(LogPath(), noLog);
  if (noLog) m_logOffset = 0;
  process::SpawnOptions options;
  options.directory = m_dir;
  options.outputFile = LogPath();
  m_process = std::make_unique<process::ChildProcess>(args[0], args, options);
}

bool ServerProcess::Running() {
  return m_process && m_process->Running();
}

std::string ServerProcess::Mode() {
  if (!Running()) return "";
  return ModeOf(FourLetterWord(m_port, "srvr", kProbeTimeout));
}

ServerProcess::State ServerProcess::Probe() {
  if (!Running()) return State::kExited;
  if (ReadFile(LogPath(), m_logOffset).find("Address already in use") != std::string::npos) {
    return State::kPortTaken;
  }
  if (Mode().empty()) return Running() ? State::kStarting : State::kExited;
  // `conf` shows the data directory of the server that answers.
  const std::string conf = FourLetterWord(m_port, "conf", kProbeTimeout);
  if (conf.empty()) return State::kStarting;
  if (conf.find(DataDir()) == std::string::npos) return State::kPortTaken;
  return Running() ? State::kServing : State::kExited;
}

void ServerProcess::Signal(int signal) {
  if (m_process) m_process->Signal(signal);
}

void ServerProcess::Terminate() {
  Signal(SIGTERM);
  Signal(SIGCONT);
}

void ServerProcess::Reap(Clock::time_point killAt) {
  if (!m_process) return;
  const auto left = std::chrono::duration_cast<milliseconds>(killAt - Clock::now());
  if (!m_process->Wait(std::max(left, milliseconds(0)))) m_process->Kill();
}

void ServerProcess::Stop() {
  Terminate();
  Reap(Clock::now() + kStopGrace);
}

void ServerProcess::Kill() {
  Reap(Clock::now());
}

std::string ServerProcess::Describe() {
  std::string state = "not running";
  if (Running()) {
    state = "running, mode '" + Mode() + "'";
  } else if (const auto status = m_process ? m_process->ExitStatus() : std::nullopt) {
    state += " (exit status " + std::to_string(*status) + ")";
  }
  std::istringstream log(ReadFile(LogPath()));
  std::deque<std::string> tail;
  for (std::string line; std::getline(log, line);) {
    tail.push_back(line);
    if (tail.size() > kLogTailLines) tail.pop_front();
  }
  std::string out = "ZooKeeper server on port " + std::to_string(m_port) + " (" + m_dir +
                    "): " + state + "; last lines of " + LogPath() + ":\n";
  for (const std::string& line : tail) out += "  " + line + "\n";
  return out;
}

namespace {

enum class StartResult { kServing, kPortTaken, kFailed };

// Waits until every server serves. On failure `error` describes the first server that did not.
StartResult WaitServing(const std::vector<ServerProcess*>& servers, milliseconds timeout,
                        std::string* error) {
  const auto deadline = Clock::now() + timeout;
  std::vector<bool> serving(servers.size(), false);
  while (true) {
    bool all = true;
    for (size_t i = 0; i < servers.size(); ++i) {
      if (serving[i]) continue;
      ServerProcess::State state = servers[i]->Probe();
      if (state == ServerProcess::State::kServing) {
        serving[i] = true;
        continue;
      }
      if (state != ServerProcess::State::kStarting) {
        *error = (state == ServerProcess::State::kPortTaken ? "port taken: " : "server died: ") +
                 servers[i]->Describe();
        return state == ServerProcess::State::kPortTaken ? StartResult::kPortTaken
                                                         : StartResult::kFailed;
      }
      all = false;
    }
    if (all) return StartResult::kServing;
    if (Clock::now() >= deadline) break;
    std::this_thread::sleep_for(kPollStep);
  }
  for (size_t i = 0; i < servers.size(); ++i) {
    if (!serving[i]) {
      *error =
          "not serving after " + std::to_string(timeout.count()) + " ms: " + servers[i]->Describe();
      break;
    }
  }
  return StartResult::kFailed;
}

}  // namespace

int BindLoopback(int& port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error(ErrnoText("socket"));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof(addr);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    std::string error = ErrnoText("bind 127.0.0.1:0");
    close(fd);
    throw std::runtime_error(error);
  }
  port = ntohs(addr.sin_port);
  return fd;
}

int FreeLoopbackPort() {
  int port = 0;
  close(BindLoopback(port));
  return port;
}

void StartServing(const std::vector<ServerProcess*>& servers, milliseconds timeout,
                  const std::function<void()>& configure) {
  std::string error;
  for (int attempt = 1; attempt <= kStartAttempts; ++attempt) {
    configure();
    for (ServerProcess* server : servers) server->Launch();
    StartResult result = WaitServing(servers, timeout, &error);
    if (result == StartResult::kServing) return;
    for (ServerProcess* server : servers) server->Kill();
    if (result != StartResult::kPortTaken) break;
  }
  throw std::runtime_error("cannot start ZooKeeper: " + error);
}

std::string FourLetterWord(int port, const std::string& word, milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  auto remaining_ms = [&] {
    auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::max<long long>(left, 0));
  };
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return "";
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  std::string reply;
  bool ok = false;
  do {
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
      if (errno != EINPROGRESS) break;
      pollfd pfd{fd, POLLOUT, 0};
      if (poll(&pfd, 1, remaining_ms()) != 1) break;
      int err = 0;
      socklen_t len = sizeof(err);
      if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) break;
    }
    if (send(fd, word.data(), word.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(word.size())) {
      break;
    }
    while (true) {  // The server closes the connection after its reply.
      pollfd pfd{fd, POLLIN, 0};
      if (poll(&pfd, 1, remaining_ms()) != 1) break;
      char buf[4096];
      ssize_t n = recv(fd, buf, sizeof(buf), 0);
      if (n == 0) ok = true;
      if (n <= 0) break;
      reply.append(buf, static_cast<size_t>(n));
    }
  } while (false);
  close(fd);
  return ok ? reply : "";
}

bool WaitUntil(const std::function<bool()>& pred, milliseconds timeout, milliseconds step) {
  const auto deadline = Clock::now() + timeout;
  while (true) {
    if (pred()) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(step);
  }
}

namespace {

struct SessionWatch {
  std::mutex mu;
  std::condition_variable cv;
  bool connected = false;  // Sticky: the state may move on before the waiter looks.
  bool expired = false;
  int state = 0;
};

void SessionWatcher(zhandle_t*, int type, int state, const char*, void* context) {
  if (type != ZOO_SESSION_EVENT) return;
  auto* watch = static_cast<SessionWatch*>(context);
  {
    std::lock_guard<std::mutex> lock(watch->mu);
    watch->state = state;
    watch->connected |= state == ZOO_CONNECTED_STATE;
    watch->expired |= state == ZOO_EXPIRED_SESSION_STATE;
  }
  watch->cv.notify_all();
}

void DiscardLog(const char*) {}

// A duplicate's session timeout only bounds how long its client waits for an unanswered connect
// (2/3 of it) before trying the next server; ZooKeeper 3.8 followers can leave a connect
// unanswered when two clients revalidate the same session at once.
constexpr int kDuplicateSessionMs = 1500;

}  // namespace

// The server kicks the older connection when a second one attaches to a session, and the owner
// reconnects within milliseconds, kicking the duplicate in turn. So the duplicate may already be
// disconnected when it is closed, and then its close never reaches the server. Hence: repeat with
// fresh duplicates until one of them is told that the session has expired.
void ExpireSession(const std::string& hosts, const clientid_t& id, milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (int round = 0;; ++round) {
    SessionWatch watch;
    // zookeeper_init2's per-handle log callback keeps this handle's chatter off stderr without
    // touching the client library's global log settings.
    zhandle_t* zh = zookeeper_init2(hosts.c_str(), SessionWatcher, kDuplicateSessionMs, &id, &watch,
                                    0, DiscardLog);
    if (zh == nullptr) throw std::runtime_error(ErrnoText("ExpireSession: zookeeper_init2"));
    bool connected = false;
    bool expired = false;
    int state = 0;
    {
      std::unique_lock<std::mutex> lock(watch.mu);
      watch.cv.wait_until(lock, deadline, [&] {
        return watch.connected || watch.expired || watch.state == ZOO_AUTH_FAILED_STATE;
      });
      connected = watch.connected;
      expired = watch.expired;
      state = watch.state;
    }
    zookeeper_close(zh);  // Ends the session on the server if this handle is still attached.
    if (expired && (connected || round > 0)) return;
    if (connected) continue;  // Attached; its close may or may not have ended the session.
    std::ostringstream msg;
    msg << "ExpireSession: session 0x" << std::hex << id.client_id << std::dec << " on " << hosts
        << (round == 0 ? ": second handle did not connect" : ": not expired") << " within "
        << timeout.count() << " ms (round " << round << ", last state " << state << ")";
    throw std::runtime_error(msg.str());
  }
}

// ---- ZooKeeperServer ----

ZooKeeperServer::ZooKeeperServer(int tickTimeMs, Jit jit, std::vector<std::string> jvmOptions)
    : m_server(std::make_unique<ServerProcess>(0, tickTimeMs, jit, std::move(jvmOptions))) {
  StartServing({m_server.get()}, kStandaloneStart,
               [this] { m_server->Configure(FreeLoopbackPort(), ""); });
}

ZooKeeperServer::~ZooKeeperServer() = default;

std::string ZooKeeperServer::ConnectString() const {
  return "127.0.0.1:" + std::to_string(m_server->Port());
}
int ZooKeeperServer::Port() const {
  return m_server->Port();
}
pid_t ZooKeeperServer::Pid() const {
  return m_server->Pid();
}
const std::string& ZooKeeperServer::Directory() const {
  return m_server->Directory();
}
void ZooKeeperServer::Stop() {
  m_server->Stop();
}

}  // namespace korvel::zklocal
