// The korvel command-line tool as installed (its path in KORVEL_CLI), run as a separate process
// against a real ZooKeeper server. Every wait is bounded; a process that hangs is killed.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <boost/algorithm/string/trim.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "korvel/utils.h"
#include "process/child_process.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using process::ChildProcess;
using Json = nlohmann::json;

constexpr auto kCommandTimeout = 20s;
constexpr auto kGrace = 10s;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool HasLine(const std::string& text, const std::string& line) {
  const auto lines = Lines(text);
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// The same against the shared server.
Result Korvel(const std::vector<std::string>& args) {
  return RunKorvel(Concat({"--zk", Hosts()}, args));
}

// `korvel register ARGS` against the shared server.
class Registered : public RegisterProcess {
 public:
  explicit Registered(const std::vector<std::string>& args,
                      const std::vector<std::string>& globalArgs = {})
      : RegisterProcess(Hosts(), args, globalArgs) {}
};

std::string HostName() {
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  return boost::algorithm::trim_copy(std::string(name));
}

TEST(CliTest, ListShowsTheInstancesWithTheirFacts) {
  const std::string type = UniqueName("cli");
  Registered instance({type, "--name", "alpha", "--status", "up"});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  const std::string pid = std::to_string(instance.Process().Pid());

  const Result table = Korvel({"list", type});
  ASSERT_EQ(0, table.code) << table.err;
  const auto lines = Lines(table.out);
  ASSERT_EQ(2u, lines.size()) << table.out;
  EXPECT_TRUE(StartsWith(lines[0], "ID ")) << lines[0];
  std::istringstream row(lines[1]);
  std::vector<std::string> cells;
  for (std::string cell; row >> cell;) cells.push_back(cell);
  // ID STATUS NAME HOST PID STARTED (date and time, UTC) VERSION
  ASSERT_EQ(8u, cells.size()) << lines[1];
  EXPECT_TRUE(
      std::regex_match(cells[5] + " " + cells[6], std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\dZ)")))
      << lines[1];
  EXPECT_EQ(instance.Id(), cells[0]);
  EXPECT_EQ("up", cells[1]);
  EXPECT_EQ("alpha", cells[2]);
  EXPECT_EQ(HostName(), cells[3]);
  EXPECT_EQ(pid, cells[4]);
  EXPECT_EQ("-", cells[7]);
  // The columns line up with the headings.
  EXPECT_EQ(lines[0].find("STATUS"), lines[1].find("up "));

  const Result json = Korvel({"list", type, "--json"});
  ASSERT_EQ(0, json.code) << json.err;
  const Json list = Json::parse(json.out);
  ASSERT_TRUE(list.is_array());
  ASSERT_EQ(1u, list.size()) << json.out;
  const Json& facts = list[0];
  EXPECT_EQ(instance.Id(), facts.at("id"));
  EXPECT_EQ("up", facts.at("status"));
  EXPECT_EQ("alpha", facts.at("service_name"));
  EXPECT_EQ(HostName(), facts.at("hostname"));
  EXPECT_EQ(pid, facts.at("pid"));
  // As stored: the ISO weekday after the dot.
  EXPECT_TRUE(std::regex_match(facts.at("start_time").get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.[1-7])")))
      << facts.at("start_time");
  for (const auto& [name, value] : facts.items()) EXPECT_TRUE(value.is_string()) << name;
}

TEST(CliTest, SigtermRemovesTheInstanceAndExitsZero) {
  const std::string type = UniqueName("cli");
  Registered instance({type});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  const auto conn = Connect(Hosts());
  const std::string data = instance.DataPath();
  const std::string alive = instance.AlivePath();
  ASSERT_EQ(ZOK, conn->Exists(data, nullptr));

  instance.Process().Signal(SIGTERM);
  EXPECT_EQ(0, instance.Process().Wait(kGrace)) << instance.Stderr();
  EXPECT_EQ(ZNONODE, conn->Exists(data, nullptr));
  EXPECT_EQ(ZNONODE, conn->Exists(alive, nullptr));
  EXPECT_EQ("[]", Json::parse(Korvel({"list", type, "--json"}).out).dump());
}

TEST(CliTest, SigkillLeavesALeftoverThatTheNextRegistrationRemoves) {
  const std::string type = UniqueName("cli");
  Registered crashed({type, "--child-attr", "worker-1:port=8080"});
  ASSERT_EQ(36u, crashed.Id().size()) << crashed.Stderr();
  crashed.Process().Signal(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, crashed.Process().Wait(kGrace));

  const auto conn = Connect(Hosts());
  const std::string data = crashed.DataPath();
  ASSERT_TRUE(WaitUntil([&] { return conn->Exists(crashed.AlivePath(), nullptr) == ZNONODE; }, 10s))
      << "the liveness node outlived the session";
  EXPECT_EQ(ZOK, conn->Exists(data + "/worker-1/port", nullptr));

  Registered next({type}, {"--log-level", "info"});
  ASSERT_EQ(36u, next.Id().size()) << next.Stderr();
  EXPECT_EQ(ZNONODE, conn->Exists(data, nullptr));
  EXPECT_TRUE(next.Process().WaitForLine(
      ChildProcess::kStderr,
      [](const std::string& line) {
        return line.find("Cleaning up application in zookeeper") != std::string::npos;
      },
      5s))
      << next.Stderr();
}

TEST(CliTest, ExpireSessionReRegistersWithTheStatusGiven) {
  const std::string type = UniqueName("cli");
  Registered instance(
      {type, "--status", "up_sending_disabled", "--child-attr", "worker-1:port=8080"});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  const auto conn = Connect(Hosts());
  const std::string alive = instance.AlivePath();
  const int64_t sessionBefore = EphemeralOwner(*conn, alive);

  EXPECT_EQ("ok session expired", instance.Command("expire-session"));
  EXPECT_EQ("re-registered " + instance.Id(), instance.WaitForLine([](const std::string& line) {
    return StartsWith(line, "re-registered") || StartsWith(line, "error");
  })) << instance.Stderr();
  const int64_t sessionAfter = EphemeralOwner(*conn, alive);
  EXPECT_GT(sessionAfter, 0);
  EXPECT_NE(sessionBefore, sessionAfter);
  EXPECT_EQ("up_sending_disabled\n", Korvel({"get", type, instance.Id(), "status"}).out);
  EXPECT_EQ("8080\n", Korvel({"get", type, instance.Id(), "port", "--child", "worker-1"}).out);
}

TEST(CliTest, AnInstanceWhoseNodesOthersDeletedIsListedAgainWithItsState) {
  const std::string type = UniqueName("cli");
  Registered instance({type});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  EXPECT_EQ("ok status up", instance.Command("status up"));
  EXPECT_EQ("ok attr worker-1:port=8080", instance.Command("attr worker-1:port=8080"));

  const auto conn = Connect(Hosts());
  qx::korvel::RecursiveDelete(*conn, instance.DataPath());
  ASSERT_EQ(ZOK, conn->Delete(instance.AlivePath(), -1));
  EXPECT_EQ("re-registered " + instance.Id(), instance.WaitForLine([](const std::string& line) {
    return StartsWith(line, "re-registered") || StartsWith(line, "error");
  })) << instance.Stderr();
  const Json listed = Json::parse(Korvel({"list", type, "--json"}).out);
  ASSERT_EQ(1u, listed.size()) << listed.dump();
  EXPECT_EQ(instance.Id(), listed[0]["id"]);
  EXPECT_EQ("up", listed[0]["status"]);
  EXPECT_EQ("8080\n", Korvel({"get", type, instance.Id(), "port", "--child", "worker-1"}).out);
}

TEST(CliTest, StdinCommandsChangeWhatTheInstancePublishes) {
  const std::string type = UniqueName("cli");
  Registered instance({type});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  const auto get = [&](const std::vector<std::string>& args) {
    return Korvel(Concat({"get", type, instance.Id()}, args));
  };

  EXPECT_EQ("down\n", get({"status"}).out);
  EXPECT_EQ("ok status up", instance.Command("status up"));
  EXPECT_EQ("up\n", get({"status"}).out);
  EXPECT_EQ("ok attr worker-1:port=8080", instance.Command("attr worker-1:port=8080"));
  EXPECT_EQ("8080\n", get({"port", "--child", "worker-1"}).out);
  EXPECT_EQ("ok removed worker-1", instance.Command("remove worker-1"));
  EXPECT_EQ(1, get({"port", "--child", "worker-1"}).code);
  EXPECT_TRUE(StartsWith(instance.Command("status sideways"), "error: "));
  EXPECT_TRUE(StartsWith(instance.Command("remove worker-1"), "error: "));
  EXPECT_TRUE(StartsWith(instance.Command("frobnicate"), "error: "));

  // The end of stdin does not end the instance; only a signal does. A last
  // command without its newline is answered once the end has been read.
  ASSERT_TRUE(instance.Process().Send("status up_sending_disabled"));
  instance.Process().CloseStdin();
  EXPECT_EQ("ok status up_sending_disabled", instance.WaitForAnswer());
  EXPECT_EQ("up_sending_disabled\n", get({"status"}).out);
  EXPECT_TRUE(instance.Process().Running());
}

TEST(CliTest, GetPrintsTheValueAndFailsForWhatIsMissing) {
  const std::string type = UniqueName("cli");
  Registered instance({type, "--name", "beta"});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();

  const Result name = Korvel({"get", type, instance.Id(), "service_name"});
  EXPECT_EQ(0, name.code) << name.err;
  EXPECT_EQ("beta\n", name.out);

  const Result attribute = Korvel({"get", type, instance.Id(), "no_such_attribute"});
  EXPECT_EQ(1, attribute.code);
  EXPECT_EQ("", attribute.out);
  EXPECT_TRUE(HasLine(
      attribute.err, "korvel: instance " + instance.Id() + " has no attribute 'no_such_attribute'"))
      << attribute.err;

  const std::string unknown = "00000000-0000-4000-8000-000000000000";
  const Result missing = Korvel({"get", type, unknown, "status"});
  EXPECT_EQ(1, missing.code);
  EXPECT_TRUE(HasLine(missing.err, "korvel: no instance " + unknown + " of type '" + type + "'"))
      << missing.err;
}

TEST(CliTest, ShowPrintsTheAttributesAndTheChildTree) {
  const std::string type = UniqueName("cli");
  Registered instance({type, "--name", "gamma", "--child-attr", "worker-1:port=8080",
                       "--child-attr", "worker-1:status=up", "--child-attr",
                       "worker-1/thread-0:state=busy"});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();

  const Result text = Korvel({"show", type, instance.Id()});
  ASSERT_EQ(0, text.code) << text.err;
  for (const char* line : {"service_name  gamma", "status        down", "worker-1/",
                           "  port    8080", "  status  up", "  thread-0/", "    state  busy"}) {
    EXPECT_TRUE(HasLine(text.out, line)) << "'" << line << "' missing in\n" << text.out;
  }

  const Result json = Korvel({"show", type, instance.Id(), "--json"});
  ASSERT_EQ(0, json.code) << json.err;
  const Json record = Json::parse(json.out);
  EXPECT_EQ("gamma", record.at("service_name"));
  EXPECT_EQ("8080", record.at("worker-1").at("port"));
  EXPECT_EQ("busy", record.at("worker-1").at("thread-0").at("state"));

  const Result child = Korvel({"show", type, instance.Id(), "--child", "worker-1"});
  ASSERT_EQ(0, child.code) << child.err;
  EXPECT_TRUE(HasLine(child.out, "port    8080")) << child.out;
  EXPECT_FALSE(HasLine(child.out, "service_name  gamma")) << child.out;

  EXPECT_EQ(1, Korvel({"show", type, instance.Id(), "--child", "worker-9"}).code);

  // An attribute is no child record, and a child record no attribute.
  const Result attribute = Korvel({"show", type, instance.Id(), "--child", "status"});
  EXPECT_EQ(1, attribute.code);
  EXPECT_TRUE(HasLine(attribute.err, "korvel: 'status' is an attribute of instance " +
                                         instance.Id() +
                                         ", not a child record: korvel get reads it"))
      << attribute.err;
  const Result notAnAttribute =
      Korvel({"get", type, instance.Id(), "thread-0", "--child", "worker-1"});
  EXPECT_EQ(1, notAnAttribute.code);
  EXPECT_EQ("", notAnAttribute.out);
  EXPECT_TRUE(HasLine(notAnAttribute.err,
                      "korvel: 'worker-1/thread-0' is a child record of instance " + instance.Id() +
                          ", not an attribute: korvel show --child shows it"))
      << notAnAttribute.err;
}

TEST(CliTest, ListWatchPrintsTheListAgainAtEveryChange) {
  const std::string type = UniqueName("cli");
  ChildProcess watch(CliPath(), {"korvel", "--zk", Hosts(), "list", type, "--watch"});
  const auto awaitLine = [&](const std::function<bool(const std::string&)>& match) {
    return watch.WaitForLine(ChildProcess::kStdout, match, kCommandTimeout).has_value();
  };
  const auto nothingListed = [](const std::string& line) { return line == "no live instances"; };
  ASSERT_TRUE(awaitLine(nothingListed)) << watch.Output(ChildProcess::kStderr);

  Registered instance({type});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  const auto listedWith = [&](const std::string& status) {
    return [&, status](const std::string& line) {
      return StartsWith(line, instance.Id() + "  " + status + " ");
    };
  };
  EXPECT_TRUE(awaitLine(listedWith("down"))) << watch.Output(ChildProcess::kStdout);
  EXPECT_EQ("ok status up", instance.Command("status up"));
  EXPECT_TRUE(awaitLine(listedWith("up"))) << watch.Output(ChildProcess::kStdout);
  instance.Process().Signal(SIGTERM);
  EXPECT_EQ(0, instance.Process().Wait(kGrace));
  EXPECT_TRUE(awaitLine(nothingListed)) << watch.Output(ChildProcess::kStdout);

  watch.Signal(SIGINT);
  EXPECT_EQ(0, watch.Wait(kGrace));
}

TEST(CliTest, UsageErrorsExitTwoWithTheUsage) {
  const std::vector<std::vector<std::string>> misuses = {
      {},
      {"frobnicate"},
      {"list"},
      {"list", "t", "--bogus"},
      {"register"},
      {"register", "t", "--status", "sideways"},
      {"register", "t", "--child-attr", "no-colon"},
      {"register", "t", "--id", "not-a-uuid"},
      {"show", "t", "not-a-uuid"},
      {"get", "t", "00000000-0000-4000-8000-000000000000"},
      {"--session-timeout", "soon", "list", "t"},
      {"--session-timeout", "500", "list", "t"},
      {"--log-level", "loud", "list", "t"},
  };
  for (const auto& args : misuses) {
    const Result result = RunKorvel(args);
    const std::string command = ::testing::PrintToString(args);
    EXPECT_EQ(2, result.code) << command << "\n" << result.err;
    EXPECT_EQ("", result.out) << command;
    EXPECT_NE(std::string::npos, result.err.find("Usage: korvel")) << command << "\n" << result.err;
  }
  for (const char* command : {"register", "list", "show", "get", "demo"}) {
    const Result help = RunKorvel({command, "--help"});
    EXPECT_EQ(0, help.code) << command;
    EXPECT_NE(std::string::npos, help.out.find(std::string("Usage: korvel ") + command))
        << help.out;
  }
  EXPECT_EQ(0, RunKorvel({"--help"}).code);
}

TEST(CliTest, AnUnreachableEnsembleFailsWithinTheSessionTimeout) {
  const RefusingLoopbackPort nothing;
  const std::string hosts = nothing.ConnectString();
  for (const char* command : {"list", "register"}) {
    const auto start = std::chrono::steady_clock::now();
    const Result result = RunKorvel({"--zk", hosts, "--session-timeout", "1500", command, "t"});
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(1, result.code) << command;
    EXPECT_LT(took, 1500ms + 3s) << command;
    const auto lines = Lines(result.err);
    ASSERT_FALSE(lines.empty()) << command;
    EXPECT_TRUE(StartsWith(lines.back(), "korvel: cannot connect to ZooKeeper at " + hosts))
        << lines.back();
  }
}

TEST(CliTest, RegisterRunsALastCommandWithoutItsNewline) {
  const std::string type = UniqueName("cli");
  Registered instance({type});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  instance.Process().Send("status up");
  instance.Process().CloseStdin();
  EXPECT_EQ("ok status up", instance.WaitForAnswer());
}

TEST(CliTest, AnEmptyOrUnknownLogLevelInTheEnvironmentMeansWarning) {
  for (const char* value : {"", "loud"}) {
    setenv("KORVEL_LOG_LEVEL", value, 1);
    const Result result = Korvel({"list", UniqueName("cli")});
    unsetenv("KORVEL_LOG_LEVEL");
    EXPECT_EQ(0, result.code) << result.err;
    EXPECT_EQ(std::string::npos, result.err.find(" INFO ")) << value << "\n" << result.err;
  }
}

TEST(CliTest, ReadingAnUnknownTypeWritesNothing) {
  const std::string type = UniqueName("cli-unknown");
  const Result list = Korvel({"list", type});
  EXPECT_EQ(0, list.code) << list.err;
  EXPECT_EQ("no live instances\n", list.out);
  const std::string id = "00000000-0000-4000-8000-000000000000";
  for (const Result& result : {Korvel({"show", type, id}), Korvel({"get", type, id, "status"})}) {
    EXPECT_EQ(1, result.code);
    EXPECT_TRUE(HasLine(result.err, "korvel: no instance " + id + " of type '" + type + "'"))
        << result.err;
  }
  const auto conn = Connect(Hosts());
  EXPECT_EQ(ZNONODE, conn->Exists(tree::AliveDir(type), nullptr));
  EXPECT_EQ(ZNONODE, conn->Exists(tree::DataDir(type), nullptr));
}

// ---- Health-checked registration ------------------------------------------------------

TEST(CliTest, ChecksDriveTheStatusUntilAManualStatusTakesOver) {
  const std::string type = UniqueName("cli");
  const auto flag = std::filesystem::temp_directory_path() / UniqueName("korvel-healthy");
  const auto removeFlag = [&] { std::filesystem::remove(flag); };
  const std::shared_ptr<void> cleanup(nullptr, [&](void*) { removeFlag(); });
  Registered instance({type, "--check-exec", "test -f " + flag.string(), "--check-interval", "100",
                       "--check-timeout", "100", "--rise", "1", "--fall", "1"});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  const auto conn = Connect(Hosts());
  const std::string status = instance.DataPath() + "/status";
  const std::string record = instance.DataPath() + "/health-exec-1";
  const auto becomes = [&](const std::string& path, const std::string& value) {
    return WaitUntil([&] { return ReadNode(*conn, path) == value; }, 10s);
  };
  EXPECT_EQ("down", ReadNode(*conn, status));
  ASSERT_TRUE(becomes(record + "/output", "exit status 1"));
  EXPECT_EQ("failing", ReadNode(*conn, record + "/result"));

  std::ofstream(flag).put('\n');
  ASSERT_TRUE(becomes(status, "up"));
  removeFlag();
  ASSERT_TRUE(becomes(status, "down"));
  const Result shown = Korvel({"show", type, instance.Id(), "--json"});
  ASSERT_EQ(0, shown.code) << shown.err;
  const Json health = Json::parse(shown.out).at("health-exec-1");
  EXPECT_EQ("failing", health.at("result"));
  EXPECT_EQ("exit status 1", health.at("output"));
  EXPECT_TRUE(std::regex_match(health.at("since").get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")))
      << health.at("since");

  // A manual status holds against the checks: with --rise 1, the run that
  // turns the record to passing would have published "up" before it.
  EXPECT_EQ("ok status down", instance.Command("status down"));
  std::ofstream(flag).put('\n');
  ASSERT_TRUE(becomes(record + "/result", "passing"));
  EXPECT_EQ("down", ReadNode(*conn, status));
  EXPECT_EQ("ok status auto", instance.Command("status auto"));
  ASSERT_TRUE(becomes(status, "up"));

  instance.Process().Signal(SIGTERM);
  EXPECT_EQ(0, instance.Process().Wait(kGrace)) << instance.Stderr();
  EXPECT_FALSE(NodeExists(*conn, instance.DataPath()));
}

TEST(CliTest, StatusAutoWithoutChecksIsAnError) {
  Registered instance({UniqueName("cli")});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  EXPECT_EQ("error: no health checks to hand the status to", instance.Command("status auto"));
}

TEST(CliTest, TheRegistrationEndsWithTheProcessGivenByPid) {
  const std::string type = UniqueName("cli");
  ChildProcess watched("/bin/sleep", {"sleep", "60"});
  Registered instance({type, "--pid", std::to_string(watched.Pid())});
  ASSERT_EQ(36u, instance.Id().size()) << instance.Stderr();
  watched.Kill();
  EXPECT_EQ(0, instance.Process().Wait(kGrace)) << instance.Stderr();
  EXPECT_TRUE(HasLine(instance.Stderr(), "korvel: process " + std::to_string(watched.Pid()) +
                                             " exited; unregistering"))
      << instance.Stderr();
  EXPECT_EQ("[]", Json::parse(Korvel({"list", type, "--json"}).out).dump());

  const Result gone = Korvel({"register", type, "--pid", std::to_string(watched.Pid())});
  EXPECT_EQ(1, gone.code);
  EXPECT_TRUE(StartsWith(Lines(gone.err).back(),
                         "korvel: cannot watch process " + std::to_string(watched.Pid())))
      << gone.err;
}

TEST(CliTest, BadCheckSettingsAreUsageErrors) {
  const std::string type = UniqueName("cli");
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--check-exec", " "}, "a check command must not be empty"},
      {{"--check-http", "localhost:80/health"}, "bad URL 'localhost:80/health'"},
      {{"--check-tcp", "localhost"}, "bad address 'localhost'"},
      {{"--check-tcp", "localhost:70000"}, "bad address 'localhost:70000'"},
      {{"--check-exec", "true", "--check-interval", "100", "--check-timeout", "200"},
       "--check-interval (100 ms) must be at least --check-timeout (200 ms)"},
      {{"--check-exec", "true", "--rise", "0"}, "--rise"},
      {{"--check-exec", "true", "--fall", "0"}, "--fall"},
      {{"--pid", "0"}, "--pid"},
  };
  for (const auto& [args, message] : cases) {
    const Result result = Korvel(Concat({"register", type}, args));
    EXPECT_EQ(2, result.code) << args[1];
    EXPECT_NE(std::string::npos, result.err.find(message)) << result.err;
  }
  const auto conn = Connect(Hosts());
  EXPECT_EQ(ZNONODE, conn->Exists(tree::AliveDir(type), nullptr));
}

TEST(CliTest, AliveIsNotAServiceType) {
  for (const char* command : {"register", "list"}) {
    const Result result = Korvel({command, "alive"});
    EXPECT_EQ(1, result.code) << command;
    const auto lines = Lines(result.err);
    ASSERT_FALSE(lines.empty()) << command;
    EXPECT_NE(std::string::npos, lines.back().find("'alive'")) << lines.back();
  }
  const auto conn = Connect(Hosts());
  EXPECT_EQ(ZNONODE, conn->Exists(tree::Below(tree::kAliveRoot, "alive"), nullptr));
  const Result below = Korvel({"list", "alive/x"});
  EXPECT_EQ(1, below.code);
  EXPECT_EQ(ZNONODE, conn->Exists(tree::Below(tree::kAliveRoot, "alive"), nullptr));
}

TEST(CliTest, IdsInUpperCaseNameTheCanonicalInstance) {
  const std::string type = UniqueName("cli-case");
  const std::string upper = "7E27601D-AC9F-4B00-A5E0-2EBC7DF60293";
  const std::string canonical = "7e27601d-ac9f-4b00-a5e0-2ebc7df60293";
  Registered instance({type, "--id", upper, "--name", "cased"});
  ASSERT_EQ(canonical, instance.Id()) << instance.Stderr();

  const Result get = Korvel({"get", type, upper, "service_name"});
  EXPECT_EQ(0, get.code) << get.err;
  EXPECT_EQ("cased\n", get.out);
  const Result show = Korvel({"show", type, "7e27601D-Ac9f-4B00-a5E0-2ebc7DF60293", "--json"});
  ASSERT_EQ(0, show.code) << show.err;
  EXPECT_EQ("cased", Json::parse(show.out).at("service_name"));
  const Result list = Korvel({"list", type, "--json"});
  ASSERT_EQ(0, list.code) << list.err;
  EXPECT_EQ(canonical, Json::parse(list.out).at(0).at("id"));

  const std::string unknown = "ABCDEF00-0000-4000-8000-000000000000";
  const Result missing = Korvel({"get", type, unknown, "status"});
  EXPECT_EQ(1, missing.code);
  EXPECT_TRUE(HasLine(missing.err,
                      "korvel: no instance abcdef00-0000-4000-8000-000000000000 of "
                      "type '" +
                          type + "'"))
      << missing.err;
}

}  // namespace
}  // namespace korvel::test
