#include "zklocal/zklocal.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace korvel::zklocal {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const char kJava[] = "/usr/bin/java";
const char kClassPath[] = "/etc/zookeeper/conf:/usr/share/java/zookeeper.jar";
// The server jar only brings the slf4j API; without a binding it logs nothing at all. The
// simple binding (same Debian package as the API) writes to stderr, i.e. to our log file.
const char kSlf4jSimpleJar[] = "/usr/share/java/slf4j-simple.jar";

constexpr milliseconds kProbeTimeout{1000};      // One four-letter-word exchange.
constexpr milliseconds kPollStep{50};            // Between probes while waiting.
constexpr milliseconds kStandaloneStart{30000};  // Until a standalone server serves.
constexpr milliseconds kMemberStart{60000};      // Until quorum members serve (JVMs share CPUs).
constexpr milliseconds kStopGrace{10000};        // SIGTERM -> SIGKILL.
constexpr milliseconds kReapTimeout{10000};      // SIGKILL -> reaped.
constexpr milliseconds kStopTimeout{5000};       // SIGSTOP -> every thread stopped.
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

std::string ReadFile(const std::string& path, std::streamoff from = 0) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(from);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

}  // namespace

// One ZooKeeper JVM with its own temporary directory holding zoo.cfg, data/ and server.log.
// server_id 0 runs ZooKeeperServerMain (standalone); otherwise QuorumPeerMain with that myid.
class ServerNode {
 public:
  enum class State { kStarting, kServing, kExited, kPortTaken };

  ServerNode(int server_id, int tick_ms, Jit jit = Jit::kQuickStart)
      : server_id_(server_id), tick_ms_(tick_ms), jit_(jit) {
    if (tick_ms <= 0) throw std::invalid_argument("ZooKeeper tickTime must be positive");
    RemoveDirectoriesOfDeadOwners();
    std::string templ = TempDir() + "/" + kDirPrefix + "XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) throw std::runtime_error(ErrnoText("mkdtemp " + templ));
    dir_ = templ;
    std::ofstream(dir_ + "/" + kOwnerFile) << getpid() << "\n";
  }

  ~ServerNode() {
    Stop();
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  int port() const { return port_; }
  pid_t pid() { return Alive() ? pid_ : -1; }
  bool paused() const { return paused_; }
  std::string data_dir() const { return dir_ + "/data"; }
  std::string log_path() const { return dir_ + "/server.log"; }

  // Writes zoo.cfg for `client_port` plus `quorum_lines`, starting from an empty data dir.
  void Configure(int client_port, const std::string& quorum_lines) {
    port_ = client_port;
    std::error_code ignored;
    fs::remove_all(data_dir(), ignored);
    fs::create_directories(data_dir());
    std::ofstream cfg(dir_ + "/zoo.cfg");
    cfg << "tickTime=" << tick_ms_ << "\n"
        << "dataDir=" << data_dir() << "\n"
        << "clientPort=" << client_port << "\n"
        << "clientPortAddress=127.0.0.1\n"
        << "admin.enableServer=false\n"
        << "4lw.commands.whitelist=*\n"
        << "maxSessionTimeout=60000\n"
        << "maxClientCnxns=0\n"   // Default 60 per IP, and every test client is 127.0.0.1.
        << "forceSync=no\n"       // Data still survives a process kill (page cache).
        << "preAllocSize=1024\n"  // KB; the default preallocates 64 MB txn logs.
        << quorum_lines;
    if (!cfg.flush()) throw std::runtime_error("cannot write " + dir_ + "/zoo.cfg");
    if (server_id_ != 0) std::ofstream(data_dir() + "/myid") << server_id_ << "\n";
  }

  // Forks and execs the JVM without waiting for it to serve.
  void Launch() {
    if (Alive())
      throw std::logic_error("ZooKeeper server already running on port " + std::to_string(port_));
    std::string class_path = kClassPath;
    if (access(kSlf4jSimpleJar, R_OK) == 0) class_path += std::string(":") + kSlf4jSimpleJar;
    std::vector<std::string> args = {
        kJava,
        "-Xmx256m",
        "-XX:+UseSerialGC",
        // Faster JVM start, plenty for a test server; benchmarks want every tier.
        jit_ == Jit::kQuickStart ? "-XX:TieredStopAtLevel=1" : "-XX:+TieredCompilation",
        "-XX:-UsePerfData",  // No /tmp/hsperfdata files left behind by SIGKILL.
        "-Djava.net.preferIPv4Stack=true",
        "-Dzookeeper.log.dir=" + dir_,
        "-Dlog4j.configuration=file:/etc/zookeeper/conf_example/log4j.properties",
        "-Dorg.slf4j.simpleLogger.showDateTime=true",
        "-Dorg.slf4j.simpleLogger.dateTimeFormat=HH:mm:ss.SSS",
        // Silences one INFO line per four-letter-word probe.
        "-Dorg.slf4j.simpleLogger.log.org.apache.zookeeper.server.NIOServerCnxn=warn",
        "-cp",
        class_path,
        server_id_ == 0 ? "org.apache.zookeeper.server.ZooKeeperServerMain"
                        : "org.apache.zookeeper.server.quorum.QuorumPeerMain",
        dir_ + "/zoo.cfg",
    };
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);

    // Everything the child needs is prepared here: after fork() it may only make
    // async-signal-safe calls.
    int log_fd = open(log_path().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log_fd < 0) throw std::runtime_error(ErrnoText("open " + log_path()));
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (null_fd < 0) {
      close(log_fd);
      throw std::runtime_error(ErrnoText("open /dev/null"));
    }
    log_offset_ = lseek(log_fd, 0, SEEK_END);
    const long max_fd = sysconf(_SC_OPEN_MAX);
    const pid_t parent = getpid();
    const char* dir = dir_.c_str();
    const std::string exec_error =
        "korvel zk harness: cannot chdir to " + dir_ + " or exec " + args[0] + "\n";

    pid_t pid = fork();
    if (pid == 0) {
      // Die with the starting thread, even if the parent was already gone before prctl.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(127);
      dup2(null_fd, STDIN_FILENO);
      dup2(log_fd, STDOUT_FILENO);
      dup2(log_fd, STDERR_FILENO);
#ifdef SYS_close_range
      if (syscall(SYS_close_range, 3U, ~0U, 0U) != 0)
#endif
        for (long fd = 3; fd < max_fd; ++fd) close(static_cast<int>(fd));
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      if (chdir(dir) == 0) execv(argv[0], argv.data());
      ssize_t ignored = write(STDERR_FILENO, exec_error.data(), exec_error.size());
      (void)ignored;
      _exit(127);
    }
    int fork_errno = errno;
    close(log_fd);
    close(null_fd);
    if (pid < 0) {
      errno = fork_errno;
      throw std::runtime_error(ErrnoText("fork"));
    }
    pid_ = pid;
    paused_ = false;
    exit_note_.clear();
  }

  // Reaps the child if it has exited; true while it runs.
  bool Alive() {
    if (pid_ < 0) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
    exit_note_ = WIFEXITED(status) ? "exited with code " + std::to_string(WEXITSTATUS(status))
                                   : "killed by signal " + std::to_string(WTERMSIG(status));
    pid_ = -1;
    paused_ = false;
    return false;
  }

  // The server's Mode ("leader", ...) or "" if it is not running, paused or not serving.
  std::string Mode() {
    if (!Alive() || paused_) return "";
    return ModeOf(FourLetterWord(port_, "srvr", kProbeTimeout));
  }

  // Like Mode(), but also makes sure the reply comes from this process and not from another
  // server that holds the port (`conf` shows our data dir).
  State Probe() {
    if (!Alive()) return State::kExited;
    if (LogSinceLaunch().find("Address already in use") != std::string::npos) {
      return State::kPortTaken;
    }
    if (Mode().empty()) return Alive() ? State::kStarting : State::kExited;
    std::string conf = FourLetterWord(port_, "conf", kProbeTimeout);
    if (conf.empty()) return State::kStarting;
    if (conf.find(data_dir()) == std::string::npos) return State::kPortTaken;
    return Alive() ? State::kServing : State::kExited;
  }

  // SIGTERM, and SIGCONT so that a paused server sees it; no waiting.
  void Terminate() {
    if (!Alive()) return;
    kill(pid_, SIGTERM);
    if (paused_) kill(pid_, SIGCONT);
  }

  // Waits until the process is gone, sending SIGKILL at `kill_at`.
  void Reap(Clock::time_point kill_at) {
    while (Alive() && Clock::now() < kill_at) std::this_thread::sleep_for(milliseconds(10));
    if (!Alive()) return;
    kill(pid_, SIGKILL);
    if (!WaitUntil([this] { return !Alive(); }, kReapTimeout)) {
      std::fprintf(stderr, "korvel zk harness: pid %d survived SIGKILL\n", static_cast<int>(pid_));
      pid_ = -1;
    }
  }

  void Stop() {
    Terminate();
    Reap(Clock::now() + kStopGrace);
  }
  void Kill() {
    Reap(Clock::now());
  }

  void Pause() {
    if (!Alive()) throw std::logic_error("cannot pause a ZooKeeper server that is not running");
    kill(pid_, SIGSTOP);
    paused_ = true;
    // The signal stops the JVM's threads one by one: wait (bounded) until none
    // runs, so that the server answers nothing once Pause returns.
    WaitUntil([this] { return AllThreadsStopped(); }, kStopTimeout);
  }
  void Resume() {
    if (!Alive() || !paused_) return;
    kill(pid_, SIGCONT);
    paused_ = false;
  }

  std::string LogSinceLaunch() const {
    return ReadFile(log_path(), log_offset_);
  }

  // Human-readable state plus the last lines of the log, for error messages.
  std::string Describe() {
    std::string state = Alive()
                            ? (paused_ ? "paused" : "running, mode '" + Mode() + "'")
                            : "not running" + (exit_note_.empty() ? "" : " (" + exit_note_ + ")");
    std::istringstream log(ReadFile(log_path()));
    std::deque<std::string> tail;
    for (std::string line; std::getline(log, line);) {
      tail.push_back(line);
      if (tail.size() > kLogTailLines) tail.pop_front();
    }
    std::string out = "ZooKeeper server on port " + std::to_string(port_) + " (" + dir_ +
                      "): " + state + "; last lines of " + log_path() + ":\n";
    for (const std::string& line : tail) out += "  " + line + "\n";
    return out;
  }

 private:
  // Whether every thread of the JVM is stopped (SIGSTOP reaches them one by one).
  bool AllThreadsStopped() const {
    const std::string tasks = "/proc/" + std::to_string(pid_) + "/task";
    std::error_code error;
    for (const auto& task : fs::directory_iterator(tasks, error)) {
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

  const int server_id_;
  const int tick_ms_;
  const Jit jit_;
  std::string dir_;
  int port_ = 0;
  pid_t pid_ = -1;
  bool paused_ = false;
  std::streamoff log_offset_ = 0;
  std::string exit_note_;
};

namespace {

enum class StartResult { kServing, kPortTaken, kFailed };

// Waits until every node serves. On failure `error` describes the first node that did not.
StartResult WaitServing(const std::vector<ServerNode*>& nodes, milliseconds timeout,
                        std::string* error) {
  const auto deadline = Clock::now() + timeout;
  std::vector<bool> serving(nodes.size(), false);
  while (true) {
    bool all = true;
    for (size_t i = 0; i < nodes.size(); ++i) {
      if (serving[i]) continue;
      ServerNode::State state = nodes[i]->Probe();
      if (state == ServerNode::State::kServing) {
        serving[i] = true;
        continue;
      }
      if (state != ServerNode::State::kStarting) {
        *error = (state == ServerNode::State::kPortTaken ? "port taken: " : "server died: ") +
                 nodes[i]->Describe();
        return state == ServerNode::State::kPortTaken ? StartResult::kPortTaken
                                                      : StartResult::kFailed;
      }
      all = false;
    }
    if (all) return StartResult::kServing;
    if (Clock::now() >= deadline) break;
    std::this_thread::sleep_for(kPollStep);
  }
  for (size_t i = 0; i < nodes.size(); ++i) {
    if (!serving[i]) {
      *error =
          "not serving after " + std::to_string(timeout.count()) + " ms: " + nodes[i]->Describe();
      break;
    }
  }
  return StartResult::kFailed;
}

// Configures and launches `nodes` via `configure` (which assigns fresh ports), then waits until
// all serve. Retries with new ports if one was taken; throws std::runtime_error otherwise.
void StartFresh(const std::vector<ServerNode*>& nodes, milliseconds timeout,
                const std::function<void()>& configure) {
  std::string error;
  for (int attempt = 1; attempt <= kStartAttempts; ++attempt) {
    configure();
    for (ServerNode* node : nodes) node->Launch();
    StartResult result = WaitServing(nodes, timeout, &error);
    if (result == StartResult::kServing) return;
    for (ServerNode* node : nodes) node->Kill();
    if (result != StartResult::kPortTaken) break;
  }
  throw std::runtime_error("cannot start ZooKeeper: " + error);
}

// Restarts a stopped node on its old port and data; throws if it does not serve in time.
void Restart(ServerNode& node, milliseconds timeout) {
  node.Launch();
  std::string error;
  if (WaitServing({&node}, timeout, &error) != StartResult::kServing) {
    node.Kill();
    throw std::runtime_error("cannot restart ZooKeeper: " + error);
  }
}

// Binds a new socket to 127.0.0.1 on a port the kernel picks; returns the socket and sets `port`.
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

}  // namespace

int FreeLoopbackPort() {
  int port = 0;
  close(BindLoopback(port));
  return port;
}

RefusingLoopbackPort::RefusingLoopbackPort() : fd_(-1), port_(0) {
  fd_ = BindLoopback(port_);
}

RefusingLoopbackPort::~RefusingLoopbackPort() {
  close(fd_);
}

std::string RefusingLoopbackPort::ConnectString() const {
  return "127.0.0.1:" + std::to_string(port_);
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

ZooKeeperServer::ZooKeeperServer(int tickTimeMs, Jit jit)
    : node_(std::make_unique<ServerNode>(0, tickTimeMs, jit)) {
  StartFresh({node_.get()}, kStandaloneStart, [this] { node_->Configure(FreeLoopbackPort(), ""); });
}

ZooKeeperServer::~ZooKeeperServer() = default;

std::string ZooKeeperServer::ConnectString() const {
  return "127.0.0.1:" + std::to_string(node_->port());
}
int ZooKeeperServer::Port() const {
  return node_->port();
}
pid_t ZooKeeperServer::Pid() const {
  return node_->pid();
}
void ZooKeeperServer::Stop() {
  node_->Stop();
}
void ZooKeeperServer::Kill() {
  node_->Kill();
}
void ZooKeeperServer::Start() {
  Restart(*node_, kStandaloneStart);
}
void ZooKeeperServer::Pause() {
  node_->Pause();
}
void ZooKeeperServer::Resume() {
  node_->Resume();
}
bool ZooKeeperServer::IsServing() const {
  return !node_->Mode().empty();
}

// ---- ZooKeeperEnsemble ----

ZooKeeperEnsemble::ZooKeeperEnsemble(int members, int tickTimeMs) {
  if (members < 1) throw std::invalid_argument("ZooKeeperEnsemble needs at least one member");
  std::vector<ServerNode*> nodes;
  for (int i = 0; i < members; ++i) {
    nodes_.push_back(std::make_unique<ServerNode>(i + 1, tickTimeMs));
    nodes.push_back(nodes_.back().get());
  }
  // Limits in ticks: ~10 s for a follower's initial sync, ~2 s of silence before a peer is
  // considered gone.
  const int init_limit = std::max(10, (10000 + tickTimeMs - 1) / tickTimeMs);
  const int sync_limit = std::max(5, (2000 + tickTimeMs - 1) / tickTimeMs);
  auto configure = [&] {
    std::set<int> ports;  // Client, peer and election port of every member, all distinct.
    while (ports.size() < 3 * nodes.size()) ports.insert(FreeLoopbackPort());
    auto next = ports.begin();
    std::vector<int> client_ports;
    std::ostringstream quorum;
    quorum << "initLimit=" << init_limit << "\n"
           << "syncLimit=" << sync_limit << "\n"
           << "standaloneEnabled=false\n";  // A one-member ensemble still elects a leader.
    for (size_t i = 0; i < nodes.size(); ++i) {
      client_ports.push_back(*next++);
      int peer = *next++;
      int election = *next++;
      quorum << "server." << i + 1 << "=127.0.0.1:" << peer << ":" << election << "\n";
    }
    for (size_t i = 0; i < nodes.size(); ++i) nodes[i]->Configure(client_ports[i], quorum.str());
  };
  StartFresh(nodes, kMemberStart, configure);
}

ZooKeeperEnsemble::~ZooKeeperEnsemble() {
  // Signal all members first so that they shut down in parallel.
  for (auto& node : nodes_) node->Terminate();
  const auto kill_at = Clock::now() + kStopGrace;
  for (auto& node : nodes_) node->Reap(kill_at);
}

std::string ZooKeeperEnsemble::ConnectString() const {
  std::string hosts;
  for (const auto& node : nodes_) {
    hosts += (hosts.empty() ? "" : ",") + std::string("127.0.0.1:") + std::to_string(node->port());
  }
  return hosts;
}

int ZooKeeperEnsemble::Size() const {
  return static_cast<int>(nodes_.size());
}
int ZooKeeperEnsemble::ClientPort(int i) const {
  return nodes_.at(i)->port();
}
void ZooKeeperEnsemble::Stop(int i) {
  nodes_.at(i)->Stop();
}
void ZooKeeperEnsemble::Kill(int i) {
  nodes_.at(i)->Kill();
}
void ZooKeeperEnsemble::Start(int i) {
  Restart(*nodes_.at(i), kMemberStart);
}
void ZooKeeperEnsemble::Pause(int i) {
  nodes_.at(i)->Pause();
}
void ZooKeeperEnsemble::Resume(int i) {
  nodes_.at(i)->Resume();
}
bool ZooKeeperEnsemble::IsServing(int i) const {
  return !nodes_.at(i)->Mode().empty();
}

int ZooKeeperEnsemble::Leader() const {
  // A resumed (SIGCONT) old leader still says "leader" for ~100 ms before it steps down.
  int leader = -1;
  for (size_t i = 0; i < nodes_.size(); ++i) {
    if (nodes_[i]->Mode() != "leader") continue;
    if (leader >= 0) return -1;
    leader = static_cast<int>(i);
  }
  return leader;
}

void ZooKeeperEnsemble::WaitForQuorum(milliseconds timeout) {
  auto ready = [this] {
    if (Leader() < 0) return false;
    for (auto& node : nodes_) {
      if (node->Alive() && !node->paused() && node->Mode().empty()) return false;
    }
    return true;
  };
  if (WaitUntil(ready, timeout, kPollStep)) return;
  std::string error = "ZooKeeper quorum not ready after " + std::to_string(timeout.count()) +
                      " ms (leader index " + std::to_string(Leader()) + "):\n";
  for (auto& node : nodes_) error += node->Describe();
  throw std::runtime_error(error);
}

}  // namespace korvel::zklocal
