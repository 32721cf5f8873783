#include "util/test_util.h"

#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

#include "korvel/service_id.h"
#include "process/child_process.h"
#include "stlext/uuid.h"

namespace korvel::test {

ZooKeeperServer& SharedServer() {
  static ZooKeeperServer server;
  return server;
}

std::shared_ptr<qx::korvel::Connection> Connect(const std::string& hosts,
                                                std::chrono::milliseconds timeout) {
  return std::make_shared<qx::korvel::Connection>(hosts, timeout);
}

std::vector<int> MembersLeaderFirst(const ZooKeeperEnsemble& ensemble) {
  const int leader = ensemble.Leader();
  if (leader < 0) return {};
  std::vector<int> order{leader};
  for (int i = 0; i < ensemble.Size(); ++i) {
    if (i != leader) order.push_back(i);
  }
  return order;
}

std::string SiblingProgram(const std::string& name) {
  char exe[4096];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe);
  if (n <= 0) return name;
  const std::string self(exe, n);
  return self.substr(0, self.rfind('/') + 1) + name;
}

std::string UniqueName(const std::string& prefix) {
  return prefix + "-" + qx::uuid::to_string(qx::korvel::RandomServiceId()).substr(0, 8);
}

int64_t EphemeralOwner(const qx::korvel::Connection& conn, const std::string& path) {
  Stat stat{};
  return conn.Exists(path, &stat) == ZOK ? stat.ephemeralOwner : -1;
}

std::string ReadNode(const qx::korvel::Connection& conn, const std::string& path) {
  std::string value;
  return conn.Get(path, value, nullptr) == ZOK ? value : std::string();
}

bool NodeExists(const qx::korvel::Connection& conn, const std::string& path) {
  return conn.Exists(path, nullptr) == ZOK;
}

qx::korvel::WatchFunction EventLog::Callback() {
  return [this](int type, int state, std::string path) {
    std::lock_guard<std::mutex> lock(mutex);
    events.emplace_back(type, state, std::move(path));
    cv.notify_all();
  };
}

bool EventLog::WaitFor(std::size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex);
  return cv.wait_for(lock, timeout, [&] { return events.size() >= count; });
}

std::size_t EventLog::Count() {
  std::lock_guard<std::mutex> lock(mutex);
  return events.size();
}

std::tuple<int, int, std::string> EventLog::First() {
  std::lock_guard<std::mutex> lock(mutex);
  return events.at(0);
}

bool AwaitEarlierEvents(qx::korvel::Connection& conn) {
  const std::string control = "/" + UniqueName("control");
  EventLog log;
  auto [rc, handle] = conn.Exists(control, log.Callback(), nullptr);
  if (rc != ZNONODE ||
      conn.Create(control, "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr) != ZOK) {
    return false;
  }
  const bool delivered = log.WaitFor(1);
  conn.Delete(control, -1);
  return delivered;
}

LogCapture::LogCapture() {
  m_handlerId = qx::logging::AddLogHandler([this](const qx::logging::LogRecord& record) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.push_back({record.level, record.id, record.decodeType,
                         record.source ? record.source->Name() : std::string(),
                         record.filename ? record.filename : "", record.lineNumber, record.message,
                         record.handlerName});
  });
}

LogCapture::~LogCapture() {
  qx::logging::RemoveLogHandler(m_handlerId);
}

std::vector<CapturedRecord> LogCapture::Records() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_records;
}

std::vector<CapturedRecord> LogCapture::FromSource(const std::string& source) const {
  std::vector<CapturedRecord> result;
  for (auto& record : Records()) {
    if (record.source == source) result.push_back(record);
  }
  return result;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_records.clear();
}

std::string CliPath() {
  const char* path = std::getenv("KORVEL_CLI");
  return path ? path : "korvel-cli-path-not-set";
}

std::string Hosts() {
  return SharedServer().ConnectString();
}

std::vector<std::string> Concat(std::vector<std::string> head,
                                const std::vector<std::string>& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

std::vector<std::string> EnvironmentWith(const std::vector<std::string>& extra) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) entries.emplace_back(*entry);
  return Concat(std::move(entries), extra);
}

Result RunKorvel(const std::vector<std::string>& args,
                 const std::vector<std::string>& environment) {
  process::SpawnOptions options;
  if (!environment.empty()) options.environment = EnvironmentWith(environment);
  process::ChildProcess child(CliPath(), Concat({"korvel"}, args), options);
  child.CloseStdin();
  auto code = child.Wait(20s);
  if (!code) {
    ADD_FAILURE() << "korvel did not end in time";
    code = child.Kill();
  }
  return {code.value_or(-1), child.Output(process::ChildProcess::kStdout),
          child.Output(process::ChildProcess::kStderr)};
}

RegisterProcess::RegisterProcess(const std::string& hosts, const std::vector<std::string>& args,
                                 const std::vector<std::string>& globalArgs)
    : m_type(args.at(0)),
      m_process(CliPath(),
                Concat(Concat({"korvel", "--zk", hosts, "--session-timeout", "2000"}, globalArgs),
                       Concat({"register"}, args))) {
  m_id = WaitForLine([](const std::string&) { return true; });
  if (m_id == "<nothing>") m_id.clear();
}

std::string RegisterProcess::Stderr() const {
  return m_process.Output(process::ChildProcess::kStderr);
}

std::string RegisterProcess::Command(const std::string& command) {
  m_process.SendLine(command);
  return WaitForAnswer();
}

std::string RegisterProcess::WaitForAnswer() {
  return WaitForLine(
      [](const std::string& line) { return StartsWith(line, "ok") || StartsWith(line, "error"); });
}

std::string RegisterProcess::WaitForLine(const std::function<bool(const std::string&)>& match) {
  return m_process.WaitForLine(process::ChildProcess::kStdout, match, 20s).value_or("<nothing>");
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

}  // namespace korvel::test
