// Tests of the local ZooKeeper servers (tools/zklocal, korvel-zk-local) and of the tests' harness
// built on them, against real servers.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zookeeper/zookeeper.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "process/child_process.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using namespace std::chrono_literals;

// A C-client handle that records its session state.
class Client {
 public:
  explicit Client(const std::string& hosts, int session_timeout_ms = 10000) {
    zh_ = zookeeper_init2(hosts.c_str(), &Client::Watcher, session_timeout_ms, nullptr, this, 0,
                          [](const char*) {});
  }
  ~Client() {
    if (zh_ != nullptr) zookeeper_close(zh_);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  zhandle_t* get() const { return zh_; }

  bool WaitForState(int state, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, [&] { return state_ == state; });
  }

  // Synchronous helpers; return the ZooKeeper error code.
  int Create(const std::string& path, const std::string& value) {
    return zoo_create(zh_, path.c_str(), value.data(), static_cast<int>(value.size()),
                      &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
  }
  int Get(const std::string& path, std::string* value) {
    char buf[256];
    int len = sizeof(buf);
    int rc = zoo_get(zh_, path.c_str(), 0, buf, &len, nullptr);
    if (rc == ZOK) value->assign(buf, len > 0 ? len : 0);
    return rc;
  }

 private:
  static void Watcher(zhandle_t*, int type, int state, const char*, void* context) {
    if (type != ZOO_SESSION_EVENT) return;
    auto* self = static_cast<Client*>(context);
    {
      std::lock_guard<std::mutex> lock(self->mu_);
      self->state_ = state;
    }
    self->cv_.notify_all();
  }

  std::mutex mu_;
  std::condition_variable cv_;
  int state_ = 0;
  zhandle_t* zh_ = nullptr;
};

std::string ReadValue(const std::string& hosts, const std::string& path) {
  Client client(hosts);
  EXPECT_TRUE(client.WaitForState(ZOO_CONNECTED_STATE, 10s));
  std::string value;
  EXPECT_EQ(client.Get(path, &value), ZOK);
  return value;
}

std::string ModeOf(int port) {
  std::string srvr = FourLetterWord(port, "srvr", 2s);
  size_t pos = srvr.find("Mode: ");
  return pos == std::string::npos ? "" : srvr.substr(pos + 6, srvr.find('\n', pos) - pos - 6);
}

TEST(HarnessTest, FreePortAndFourLetterWordFailFastOnClosedPort) {
  EXPECT_GT(FreeLoopbackPort(), 0);
  const RefusingLoopbackPort closed;
  EXPECT_GT(closed.Port(), 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(FourLetterWord(closed.Port(), "ruok", 2s), "");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_FALSE(WaitUntil([] { return false; }, 30ms));
  EXPECT_TRUE(WaitUntil([] { return true; }, 0ms));
}

TEST(ZooKeeperServerTest, StartsServesAndCleansUp) {
  pid_t pid = -1;
  std::filesystem::path dir;
  {
    ZooKeeperServer zk;
    EXPECT_TRUE(zk.IsServing());
    EXPECT_EQ(zk.ConnectString(), "127.0.0.1:" + std::to_string(zk.Port()));
    EXPECT_EQ(FourLetterWord(zk.Port(), "ruok", 2s), "imok");
    EXPECT_EQ(ModeOf(zk.Port()), "standalone");
    pid = zk.Pid();
    ASSERT_GT(pid, 0);
    dir = std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd");
    EXPECT_TRUE(std::filesystem::exists(dir / "zoo.cfg"));
  }
  EXPECT_EQ(kill(pid, 0), -1);  // Gone and reaped.
  EXPECT_EQ(errno, ESRCH);
  EXPECT_FALSE(std::filesystem::exists(dir));
}

TEST(ZooKeeperServerTest, StartingRemovesTheDirectoriesOfDeadOwners) {
  // The directory a killed owner left, and one of a live owner.
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_GT(dead, 0);
  ASSERT_EQ(dead, waitpid(dead, nullptr, 0));
  const char* tmp = getenv("TMPDIR");
  const std::filesystem::path temp = tmp && *tmp ? tmp : "/tmp";
  const auto leftover = temp / ("korvel-zk-dead" + std::to_string(dead));
  const auto live = temp / ("korvel-zk-live" + std::to_string(getpid()));
  for (const auto& [dir, owner] : {std::pair(leftover, dead), std::pair(live, getpid())}) {
    std::filesystem::create_directories(dir / "data");
    std::ofstream(dir / "owner") << owner << "\n";
  }
  { ZooKeeperServer zk; }
  EXPECT_FALSE(std::filesystem::exists(leftover));
  EXPECT_TRUE(std::filesystem::exists(live));
  std::filesystem::remove_all(live);
}

TEST(ZooKeeperServerTest, StopAndKillKeepData) {
  ZooKeeperServer zk;
  const int port = zk.Port();
  {
    Client client(zk.ConnectString());
    ASSERT_TRUE(client.WaitForState(ZOO_CONNECTED_STATE, 10s));
    ASSERT_EQ(client.Create("/harness", "kept"), ZOK);
  }

  zk.Stop();
  EXPECT_FALSE(zk.IsServing());
  EXPECT_EQ(zk.Pid(), -1);
  EXPECT_EQ(FourLetterWord(port, "ruok", 1s), "");
  zk.Start();
  EXPECT_TRUE(zk.IsServing());
  EXPECT_EQ(zk.Port(), port);
  EXPECT_EQ(ReadValue(zk.ConnectString(), "/harness"), "kept");

  zk.Kill();
  EXPECT_FALSE(zk.IsServing());
  zk.Start();
  EXPECT_EQ(ReadValue(zk.ConnectString(), "/harness"), "kept");
}

TEST(ZooKeeperServerTest, PauseAndResume) {
  ZooKeeperServer zk;
  Client client(zk.ConnectString());
  ASSERT_TRUE(client.WaitForState(ZOO_CONNECTED_STATE, 10s));

  zk.Pause();
  EXPECT_FALSE(zk.IsServing());
  EXPECT_EQ(FourLetterWord(zk.Port(), "ruok", 300ms), "");  // Accepted by the kernel, no reply.
  zk.Resume();
  EXPECT_TRUE(WaitUntil([&] { return zk.IsServing(); }, 5s));
  EXPECT_EQ(zoo_exists(client.get(), "/", 0, nullptr), ZOK);
}

TEST(ZooKeeperServerTest, ExpireSessionExpiresAnotherClientsSession) {
  ZooKeeperServer zk;
  Client client(zk.ConnectString());
  ASSERT_TRUE(client.WaitForState(ZOO_CONNECTED_STATE, 10s));

  ExpireSession(zk.ConnectString(), *zoo_client_id(client.get()));
  EXPECT_TRUE(client.WaitForState(ZOO_EXPIRED_SESSION_STATE, 10s));

  clientid_t unknown{};
  unknown.client_id = 0x1234;
  EXPECT_THROW(ExpireSession(zk.ConnectString(), unknown, 3s), std::runtime_error);
}

TEST(ZooKeeperEnsembleTest, ElectsLeaderAndSurvivesLosingIt) {
  ZooKeeperEnsemble zk(3);
  ASSERT_EQ(zk.Size(), 3);
  int leaders = 0;
  for (int i = 0; i < zk.Size(); ++i) {
    EXPECT_TRUE(zk.IsServing(i)) << i;
    std::string mode = ModeOf(zk.ClientPort(i));
    EXPECT_TRUE(mode == "leader" || mode == "follower") << mode;
    leaders += mode == "leader";
  }
  EXPECT_EQ(leaders, 1);
  const int leader = zk.Leader();
  ASSERT_GE(leader, 0);
  {
    Client client(zk.ConnectString());
    ASSERT_TRUE(client.WaitForState(ZOO_CONNECTED_STATE, 10s));
    ASSERT_EQ(client.Create("/quorum", "kept"), ZOK);
  }

  zk.Stop(leader);
  EXPECT_FALSE(zk.IsServing(leader));
  zk.WaitForQuorum(20s);
  const int next = zk.Leader();
  EXPECT_GE(next, 0);
  EXPECT_NE(next, leader);
  EXPECT_EQ(ReadValue(zk.ConnectString(), "/quorum"), "kept");

  zk.Start(leader);
  EXPECT_TRUE(zk.IsServing(leader));
  EXPECT_EQ(ModeOf(zk.ClientPort(leader)), "follower");
  zk.WaitForQuorum(20s);

  // A paused leader is replaced once the others miss it for syncLimit; after Resume it briefly
  // still claims leadership, then rejoins as a follower.
  const int paused = zk.Leader();
  ASSERT_GE(paused, 0);
  zk.Pause(paused);
  EXPECT_FALSE(zk.IsServing(paused));
  zk.WaitForQuorum(20s);
  EXPECT_NE(zk.Leader(), paused);
  zk.Resume(paused);
  zk.WaitForQuorum(20s);
  EXPECT_TRUE(WaitUntil([&] { return ModeOf(zk.ClientPort(paused)) == "follower"; }, 10s));
}

// korvel-zk-local, as scripts/zk-local.sh and bench/run.sh run it (its path in KORVEL_ZK_LOCAL).
class ZkLocalToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* path = std::getenv("KORVEL_ZK_LOCAL");
    ASSERT_NE(path, nullptr) << "KORVEL_ZK_LOCAL names the korvel-zk-local to test";
    m_tool = path;
  }
  std::string m_tool;
};

TEST_F(ZkLocalToolTest, ServesUntilSigtermOrItsLifetimeEnds) {
  for (const bool bySignal : {true, false}) {
    SCOPED_TRACE(bySignal ? "SIGTERM" : "lifetime");
    process::ChildProcess tool(m_tool, {m_tool, "--lifetime", bySignal ? "600" : "2"});
    const auto anyLine = [](const std::string&) { return true; };
    const auto hosts = tool.WaitForLine(process::ChildProcess::kStdout, anyLine, 60s);
    const auto dir = tool.WaitForLine(process::ChildProcess::kStdout, anyLine, 1s);
    ASSERT_TRUE(hosts && dir) << tool.Output(process::ChildProcess::kStderr);
    const std::string prefix = "127.0.0.1:";
    ASSERT_EQ(hosts->rfind(prefix, 0), 0u) << *hosts;
    EXPECT_EQ(FourLetterWord(std::stoi(hosts->substr(prefix.size())), "ruok", 2s), "imok");
    EXPECT_TRUE(std::filesystem::exists(*dir + "/zoo.cfg")) << *dir;
    if (bySignal) tool.Signal(SIGTERM);
    EXPECT_EQ(tool.Wait(30s), std::optional<int>(0)) << tool.Output(process::ChildProcess::kStderr);
    EXPECT_FALSE(std::filesystem::exists(*dir)) << *dir;
  }
}

TEST_F(ZkLocalToolTest, FailsClearlyWithoutAServer) {
  std::vector<std::string> env = {"KORVEL_ZOOKEEPER_HOME=/nonexistent"};
  process::SpawnOptions options;
  options.environment = env;
  process::ChildProcess tool(m_tool, {m_tool}, options);
  EXPECT_EQ(tool.Wait(30s), std::optional<int>(1));
  EXPECT_NE(tool.Output(process::ChildProcess::kStderr).find("KORVEL_ZOOKEEPER_HOME=/nonexistent"),
            std::string::npos)
      << tool.Output(process::ChildProcess::kStderr);

  process::ChildProcess usage(m_tool, {m_tool, "--lifetime", "soon"});
  EXPECT_EQ(usage.Wait(10s), std::optional<int>(2));
}

}  // namespace
}  // namespace korvel::test
