// The health monitor against a real server: status from the checks' results,
// the records, maintenance, expiry; the ready-made checks against local
// servers that the tests control.
#include "korvel/health.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "korvel/service.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::CheckResult;
using qx::korvel::HealthCheck;
using qx::korvel::HealthMonitor;
using qx::korvel::HealthOptions;
using qx::korvel::Service;

constexpr HealthOptions kFast{100ms, 100ms, 2, 3};

// A check whose result the test sets; it counts its runs and its results.
struct Switch {
  std::atomic<bool> healthy{false};
  std::atomic<int> runs{0};
  std::atomic<int> passes{0};
  std::atomic<int> failures{0};
  std::string output = "fine";

  HealthCheck Check(const std::string& name) {
    return {name, [this](std::chrono::milliseconds) {
              ++runs;
              const bool passed = healthy.load();
              ++(passed ? passes : failures);
              return CheckResult{passed, passed ? output : "broken"};
            }};
  }
};

// The value of a counter at the moment the monitor logged a verdict: the
// monitor notes a run's result (and logs) before the next run starts.
class VerdictLog {
 public:
  explicit VerdictLog(const std::atomic<int>& counter) : m_counter(counter) {
    m_handler = qx::logging::AddLogHandler([this](const qx::logging::LogRecord& record) {
      if (!record.source || record.source->Name() != "korvel.health") return;
      std::lock_guard<std::mutex> lock(m_mutex);
      m_seen.emplace_back(record.message, m_counter.load());
    });
  }
  ~VerdictLog() { qx::logging::RemoveLogHandler(m_handler); }

  // The counter when the first record containing `text` came, or -1.
  int CounterAt(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& [message, counter] : m_seen) {
      if (message.find(text) != std::string::npos) return counter;
    }
    return -1;
  }

 private:
  const std::atomic<int>& m_counter;
  int m_handler;
  std::mutex m_mutex;
  std::vector<std::pair<std::string, int>> m_seen;
};

class HealthTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = Connect(SharedServer().ConnectString());
    service = std::make_shared<Service>(conn, UniqueName("health"), "checked");
    service->RegisterForSessionEvent();
  }

  std::string Status() const { return ReadNode(*conn, service->GetRoot() + "/status"); }
  bool StatusBecomes(const std::string& status, std::chrono::milliseconds timeout = 5000ms) {
    return WaitUntil([&] { return Status() == status; }, timeout);
  }
  std::string Record(const std::string& check, const std::string& attribute) const {
    return ReadNode(*conn,
                    tree::Below(service->GetRoot(), tree::HealthRecord(check) + "/" + attribute));
  }

  std::shared_ptr<qx::korvel::Connection> conn;
  std::shared_ptr<Service> service;
};

TEST_F(HealthTest, UpAfterRisePassesAndDownAfterFallFailures) {
  service->SetStatus(Service::UP);  // the monitor starts from "down" whatever was published
  Switch check;
  check.healthy = true;
  VerdictLog passes(check.passes);
  VerdictLog failures(check.failures);
  const auto started = std::chrono::steady_clock::now();
  HealthMonitor monitor(service, {check.Check("switch")}, kFast);
  EXPECT_EQ("down", Status());
  ASSERT_TRUE(StatusBecomes("up"));
  EXPECT_EQ(kFast.rise, passes.CounterAt("the checks say up"));
  RecordProperty("ms_to_up", std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - started)
                                 .count());

  const int failuresBefore = check.failures;
  check.healthy = false;
  ASSERT_TRUE(StatusBecomes("down"));
  EXPECT_EQ(failuresBefore + kFast.fall, failures.CounterAt("the checks say down"));
  EXPECT_EQ(Service::DOWN, monitor.Verdict());
}

TEST_F(HealthTest, OneFailureAmongPassesKeepsTheStatusUp) {
  Switch check;
  check.healthy = true;
  HealthMonitor monitor(service, {check.Check("switch")}, {100ms, 100ms, 1, 2});
  ASSERT_TRUE(StatusBecomes("up"));
  check.healthy = false;
  const int runs = check.runs;
  ASSERT_TRUE(WaitUntil([&] { return check.runs >= runs + 1; }, 5000ms));
  check.healthy = true;
  const int passes = check.passes;
  ASSERT_TRUE(WaitUntil([&] { return check.passes >= passes + 2; }, 5000ms));
  // The failing run's record came and went; the status never left "up".
  EXPECT_EQ("up", Status());
  EXPECT_EQ(Service::UP, monitor.Verdict());
}

TEST_F(HealthTest, RecordsHoldResultSinceAndTheLastOutput) {
  Switch check;
  check.healthy = true;
  check.output = std::string(300, 'x') + "\n" + std::string(2000, 'y') + "\nlast line";
  const std::time_t before = std::time(nullptr);
  auto monitor = std::make_unique<HealthMonitor>(service, std::vector{check.Check("web")}, kFast);
  // The record's output is written last: its last KiB.
  const std::string lastKiB = check.output.substr(check.output.size() - 1024);
  ASSERT_TRUE(WaitUntil([&] { return Record("web", "output") == lastKiB; }, 5000ms));
  EXPECT_EQ("passing", Record("web", "result"));
  const std::string since = Record("web", "since");
  std::tm utc{};
  ASSERT_NE(nullptr, strptime(since.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc)) << since;
  EXPECT_GE(timegm(&utc), before);

  check.healthy = false;
  ASSERT_TRUE(WaitUntil([&] { return Record("web", "output") == "broken"; }, 5000ms));
  EXPECT_EQ("failing", Record("web", "result"));

  monitor.reset();
  EXPECT_FALSE(NodeExists(*conn, tree::Below(service->GetRoot(), tree::HealthRecord("web"))));
  EXPECT_TRUE(NodeExists(*conn, service->GetRoot() + "/status"));
}

TEST_F(HealthTest, AManualStatusHoldsUntilTheChecksGetItBack) {
  Switch check;
  check.healthy = true;
  VerdictLog failures(check.failures);
  HealthMonitor monitor(service, {check.Check("switch")}, kFast);
  ASSERT_TRUE(StatusBecomes("up"));

  monitor.SetManualStatus(Service::UP_SENDING_DISABLED);
  ASSERT_TRUE(StatusBecomes("up_sending_disabled"));
  check.healthy = false;
  ASSERT_TRUE(WaitUntil([&] { return failures.CounterAt("the checks say down") > 0; }, 5000ms));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ("up_sending_disabled", Status());
  EXPECT_EQ(Service::DOWN, monitor.Verdict());

  monitor.ResumeChecks();
  ASSERT_TRUE(StatusBecomes("down"));
  EXPECT_EQ(std::nullopt, monitor.ManualStatus());

  monitor.SetManualStatus(Service::UP);
  ASSERT_TRUE(StatusBecomes("up"));
  EXPECT_EQ(Service::UP, monitor.ManualStatus());
}

TEST_F(HealthTest, AfterAnExpiryTheVerdictIsPublishedAgainAtOnce) {
  Switch check;
  check.healthy = true;
  // One minute between runs: only the republication can bring "up" back soon.
  HealthMonitor monitor(service, {check.Check("switch")}, {60000ms, 1000ms, 1, 1});
  ASSERT_TRUE(StatusBecomes("up"));
  const int runs = check.runs;
  const auto old = conn->ClientId();
  ExpireSession(SharedServer().ConnectString(), old);
  ASSERT_TRUE(WaitUntil(
      [&] {
        return conn->ClientId().client_id != old.client_id &&
               EphemeralOwner(*conn, service->GetRoot() + "/status") ==
                   conn->ClientId().client_id &&
               Status() == "up";
      },
      15000ms));
  EXPECT_EQ(runs, check.runs);
  EXPECT_EQ("passing", Record("switch", "result"));
}

TEST_F(HealthTest, AHangingCheckDelaysNoOther) {
  std::mutex mutex;
  std::condition_variable changed;
  int calls = 0;
  int opened = 0;  // how many runs of the hanging check may end
  HealthCheck hanging{"hanging", [&](std::chrono::milliseconds) {
                        std::unique_lock<std::mutex> lock(mutex);
                        const int call = ++calls;
                        changed.wait(lock, [&] { return opened >= call; });
                        return CheckResult{true, ""};
                      }};
  const auto open = [&](int runs) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      opened = runs;
    }
    changed.notify_all();
  };
  Switch quick;
  HealthMonitor monitor(service, {std::move(hanging), quick.Check("quick")}, kFast);
  // Before the monitor goes, every run may end.
  const std::shared_ptr<void> openAll(nullptr, [&](void*) { open(1 << 30); });

  ASSERT_TRUE(WaitUntil([&] { return quick.runs >= 5; }, 5000ms));
  ASSERT_TRUE(WaitUntil([&] { return Record("quick", "result") == "failing"; }, 5000ms));
  // The first run ends late, and so counts as failing; the second hangs.
  open(1);
  ASSERT_TRUE(WaitUntil(
      [&] {
        return Record("hanging", "output").find("longer than the timeout of 100 ms") !=
               std::string::npos;
      },
      5000ms));
  EXPECT_EQ("failing", Record("hanging", "result"));
}

TEST_F(HealthTest, BadSettingsAreRefused) {
  Switch check;
  const auto refused = [&](std::vector<HealthCheck> checks, HealthOptions options) {
    try {
      HealthMonitor monitor(service, std::move(checks), options);
    } catch (const std::invalid_argument& e) {
      return std::string(e.what());
    }
    return std::string("accepted");
  };
  EXPECT_EQ("a health monitor needs at least one check", refused({}, kFast));
  EXPECT_EQ("rise and fall must be at least 1", refused({check.Check("a")}, {1s, 1s, 0, 1}));
  EXPECT_EQ("rise and fall must be at least 1", refused({check.Check("a")}, {1s, 1s, 1, 0}));
  EXPECT_NE(std::string::npos,
            refused({check.Check("a")}, {1s, 2s, 1, 1}).find("interval must be at least"));
  EXPECT_NE(std::string::npos, refused({check.Check("a b")}, kFast).find("bad check name 'a b'"));
  EXPECT_EQ("two checks are named 'a'", refused({check.Check("a"), check.Check("a")}, kFast));
  EXPECT_EQ(0, check.runs);
  EXPECT_THROW(qx::korvel::HttpCheck("h", "ftp://x/"), std::invalid_argument);
  EXPECT_THROW(qx::korvel::HttpCheck("h", "http://"), std::invalid_argument);
  EXPECT_THROW(qx::korvel::TcpCheck("t", "localhost"), std::invalid_argument);
  EXPECT_THROW(qx::korvel::TcpCheck("t", "localhost:0"), std::invalid_argument);
  EXPECT_THROW(qx::korvel::TcpCheck("t", "localhost:65536"), std::invalid_argument);
}

// ---- The ready-made checks -------------------------------------------------------------

// An HTTP server on a loopback port that answers /ok, /fail and /hang.
class LocalHttpServer {
 public:
  LocalHttpServer() {
    m_server.Get("/ok", [](const httplib::Request&, httplib::Response& res) {
      res.set_content("fine", "text/plain");
    });
    m_server.Get("/fail",
                 [](const httplib::Request&, httplib::Response& res) { res.status = 500; });
    m_server.Get("/hang", [this](const httplib::Request&, httplib::Response& res) {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_released.wait_for(lock, 10s, [this] { return m_stopping; });
      res.set_content("late", "text/plain");
    });
    m_port = m_server.bind_to_any_port("127.0.0.1");
    m_thread = std::thread([this] { m_server.listen_after_bind(); });
    // Until it runs, stop() would not end listen_after_bind().
    WaitUntil([this] { return m_server.is_running(); }, 5000ms);
  }
  ~LocalHttpServer() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopping = true;
    }
    m_released.notify_all();
    m_server.stop();
    m_thread.join();
  }
  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(m_port) + path;
  }
  int Port() const { return m_port; }

 private:
  httplib::Server m_server;
  int m_port = -1;
  std::mutex m_mutex;
  std::condition_variable m_released;
  bool m_stopping = false;
  std::thread m_thread;
};

TEST(HealthCheckTest, HttpPassesOnlyOnA2xxAnswerInTime) {
  LocalHttpServer server;
  const auto run = [](const std::string& url) {
    return qx::korvel::HttpCheck("h", url).run(500ms);
  };
  const CheckResult ok = run(server.Url("/ok"));
  EXPECT_TRUE(ok.passed);
  EXPECT_EQ("HTTP 200 OK", ok.output);
  const CheckResult failed = run(server.Url("/fail"));
  EXPECT_FALSE(failed.passed);
  EXPECT_EQ("HTTP 500 Internal Server Error", failed.output);
  const CheckResult missing = run(server.Url("/nothing-here"));
  EXPECT_FALSE(missing.passed);
  EXPECT_EQ("HTTP 404 Not Found", missing.output);

  const auto start = std::chrono::steady_clock::now();
  const CheckResult hung = run(server.Url("/hang"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_FALSE(hung.passed);
  EXPECT_NE(std::string::npos, hung.output.find("GET ")) << hung.output;

  const RefusingLoopbackPort nothing;
  const CheckResult refused = run("http://127.0.0.1:" + std::to_string(nothing.Port()) + "/");
  EXPECT_FALSE(refused.passed);
  EXPECT_NE(std::string::npos, refused.output.find("Connection")) << refused.output;
}

// The processes whose command name is `name`, zombies included.
int ProcessesNamed(const std::string& name) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    if (std::getline(stat, line) && line.find("(" + name + ")") != std::string::npos) ++count;
  }
  return count;
}

TEST(HealthCheckTest, ACommandPassesOnExitZeroOnly) {
  const auto run = [](const std::string& command) {
    return qx::korvel::CommandCheck("c", command).run(5000ms);
  };
  const CheckResult passed = run("echo hello");
  EXPECT_TRUE(passed.passed);
  EXPECT_EQ("hello\n", passed.output);
  const CheckResult failed = run("echo out; echo err >&2; exit 3");
  EXPECT_FALSE(failed.passed);
  EXPECT_EQ("out\nerr\nexit status 3", failed.output);
  const CheckResult killed = run("kill -KILL $$");
  EXPECT_FALSE(killed.passed);
  EXPECT_EQ("exit status 137", killed.output);
  EXPECT_FALSE(run("/nonexistent/program").passed);
}

TEST(HealthCheckTest, ACommandPastItsTimeoutIsKilledWithItsWholeGroup) {
  // A copy of sleep under a name of its own, to find its processes by.
  const std::string name = UniqueName("hang").substr(0, 13);
  const auto dir = std::filesystem::temp_directory_path() / UniqueName("korvel-health");
  std::filesystem::create_directories(dir);
  std::filesystem::copy_file("/bin/sleep", dir / name);
  const std::string program = (dir / name).string();
  const auto start = std::chrono::steady_clock::now();
  const CheckResult result =
      qx::korvel::CommandCheck("c", "echo started; " + program + " 30 & " + program + " 30; true")
          .run(300ms);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_FALSE(result.passed);
  EXPECT_EQ("started\ntimed out after 300 ms; killed", result.output);
  EXPECT_LT(took, 10s);
  EXPECT_EQ(0, ProcessesNamed(name));
  std::filesystem::remove_all(dir);
}

TEST(HealthCheckTest, TcpPassesWhenSomethingListens) {
  LocalHttpServer server;
  const CheckResult listening =
      qx::korvel::TcpCheck("t", "127.0.0.1:" + std::to_string(server.Port())).run(500ms);
  EXPECT_TRUE(listening.passed) << listening.output;
  const RefusingLoopbackPort nothing;
  const CheckResult refused =
      qx::korvel::TcpCheck("t", "127.0.0.1:" + std::to_string(nothing.Port())).run(500ms);
  EXPECT_FALSE(refused.passed);
  EXPECT_NE(std::string::npos, refused.output.find("Connection refused")) << refused.output;
}

}  // namespace
}  // namespace korvel::test
