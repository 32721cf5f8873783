// Unit tests of the logging facade (QXLOG, Logger) and the logging service
// behind it (levels, handlers, the default stderr handler, sources).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iomanip>
#include <locale>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "logger/logger.h"
#include "process/child_process.h"
#include "util/test_util.h"

extern char** environ;

namespace {

using namespace qx::logging;
using korvel::test::CapturedRecord;
using korvel::test::LogCapture;

const ConstSourcePtr& Src() {
  static const ConstSourcePtr source = MakeSource("korvel.logger_test");
  return source;
}

// Every test starts at the minimum QXLOG_WARNING and restores the level it found.
class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_saved = GetMinimumLoggingLevel();
    SetMinimumLoggingLevel(QXLOG_WARNING);
  }
  void TearDown() override { SetMinimumLoggingLevel(m_saved); }

 private:
  LogLevel m_saved = QXLOG_INFO;
};

// A handler added for one scope.
class ScopedHandler {
 public:
  explicit ScopedHandler(LogHandler handler) : m_id(AddLogHandler(std::move(handler))) {}
  ~ScopedHandler() { RemoveLogHandler(m_id); }
  ScopedHandler(const ScopedHandler&) = delete;
  ScopedHandler& operator=(const ScopedHandler&) = delete;
  int Id() const { return m_id; }

 private:
  int m_id;
};

std::vector<std::string> Messages(const LogCapture& capture) {
  std::vector<std::string> result;
  for (const auto& record : capture.Records()) result.push_back(record.message);
  return result;
}

int Touch(int* counter) {
  return ++*counter;
}

// ------------------------------------------------------------------ levels

TEST_F(LoggerTest, EnabledLevelLoggedDisabledLevelNotEvaluated) {
  LogCapture capture;
  int evaluated = 0;
  QXLOG(Src(), QXLOG_WARNING) << "warn " << Touch(&evaluated);
  EXPECT_EQ(evaluated, 1);
  QXLOG(Src(), QXLOG_DEBUG) << "debug " << Touch(&evaluated);
  QXLOG(Src(), QXLOG_INFO) << "info " << Touch(&evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(Messages(capture), std::vector<std::string>{"warn 1"});
}

TEST_F(LoggerTest, LevelEqualToMinimumIsLogged) {
  SetMinimumLoggingLevel(QXLOG_ERROR);
  LogCapture capture;
  QXLOG(Src(), QXLOG_WARNING) << "below";
  QXLOG(Src(), QXLOG_ERROR) << "equal";
  QXLOG(Src(), QXLOG_CRITICAL) << "above";
  EXPECT_EQ(Messages(capture), (std::vector<std::string>{"equal", "above"}));
  EXPECT_FALSE(IsLogged(QXLOG_WARNING));
  EXPECT_TRUE(IsLogged(QXLOG_ERROR));
}

TEST_F(LoggerTest, MinimumLevelRoundTrip) {
  for (LogLevel level : {QXLOG_DEBUG, QXLOG_INFO, QXLOG_INFO_LOCAL, QXLOG_INFO_SEARCH,
                         QXLOG_WARNING, QXLOG_ERROR, QXLOG_CRITICAL, QXLOG_WALL}) {
    SetMinimumLoggingLevel(level);
    EXPECT_EQ(GetMinimumLoggingLevel(), level);
    EXPECT_EQ(g_minLogLevel.load(), level);
  }
}

TEST(LevelNameTest, Values) {
  EXPECT_STREQ(LevelName(QXLOG_DEBUG), "DEBUG");
  EXPECT_STREQ(LevelName(QXLOG_INFO), "INFO");
  EXPECT_STREQ(LevelName(QXLOG_INFO_LOCAL), "INFO_LOCAL");
  EXPECT_STREQ(LevelName(QXLOG_INFO_SEARCH), "INFO_SEARCH");
  EXPECT_STREQ(LevelName(QXLOG_WARNING), "WARNING");
  EXPECT_STREQ(LevelName(QXLOG_ERROR), "ERROR");
  EXPECT_STREQ(LevelName(QXLOG_CRITICAL), "CRITICAL");
  EXPECT_STREQ(LevelName(QXLOG_WALL), "WALL");
  EXPECT_STREQ(LevelName(static_cast<LogLevel>(5)), "UNKNOWN");
}

TEST(LevelNamedTest, NamesInAnyCaseAndNothingElse) {
  EXPECT_EQ(QXLOG_DEBUG, LevelNamed("debug"));
  EXPECT_EQ(QXLOG_INFO, LevelNamed("Info"));
  EXPECT_EQ(QXLOG_WARNING, LevelNamed("WARNING"));
  EXPECT_EQ(QXLOG_ERROR, LevelNamed("error"));
  EXPECT_EQ(QXLOG_CRITICAL, LevelNamed("critical"));
  EXPECT_EQ(std::nullopt, LevelNamed(""));
  EXPECT_EQ(std::nullopt, LevelNamed("loud"));
  EXPECT_EQ(std::nullopt, LevelNamed("warn"));
}

// -------------------------------------------------- the per-thread stream

TEST_F(LoggerTest, ConsecutiveRecordsDoNotShareText) {
  LogCapture capture;
  QXLOG(Src(), QXLOG_WARNING) << "first-record";
  QXLOG(Src(), QXLOG_WARNING) << "second";
  EXPECT_EQ(Messages(capture), (std::vector<std::string>{"first-record", "second"}));
}

TEST_F(LoggerTest, FormatFlagsDoNotLeakIntoNextRecord) {
  LogCapture capture;
  QXLOG(Src(), QXLOG_WARNING) << std::hex << 255;
  QXLOG(Src(), QXLOG_WARNING) << 255;
  QXLOG(Src(), QXLOG_WARNING) << std::setprecision(2) << 3.14159;
  QXLOG(Src(), QXLOG_WARNING) << 3.14159;
  QXLOG(Src(), QXLOG_WARNING) << std::showpos << 1 << ' ' << std::boolalpha << true << ' '
                              << std::uppercase << std::hex << 255;
  QXLOG(Src(), QXLOG_WARNING) << 1 << ' ' << true << ' ' << 255;
  QXLOG(Src(), QXLOG_WARNING) << "w" << std::setw(10);  // width left pending
  QXLOG(Src(), QXLOG_WARNING) << 7;
  EXPECT_EQ(Messages(capture), (std::vector<std::string>{"ff", "255", "3.1", "3.14159",
                                                         "+1 true FF", "1 1 255", "w", "7"}));
}

TEST_F(LoggerTest, FillCharacterDoesNotLeakIntoNextRecord) {
  LogCapture capture;
  QXLOG(Src(), QXLOG_WARNING) << std::setfill('*') << std::setw(3) << 1;
  QXLOG(Src(), QXLOG_WARNING) << std::setw(3) << 2;
  EXPECT_EQ(Messages(capture), (std::vector<std::string>{"**1", "  2"}));
}

std::ostream& FailStream(std::ostream& os) {
  os.setstate(std::ios::failbit);
  return os;
}

TEST_F(LoggerTest, StreamErrorDoesNotLeakIntoNextRecord) {
  LogCapture capture;
  QXLOG(Src(), QXLOG_WARNING) << "kept" << FailStream << "dropped";
  QXLOG(Src(), QXLOG_WARNING) << "next";
  EXPECT_EQ(Messages(capture), (std::vector<std::string>{"kept", "next"}));
}

// Groups thousands with ','.
struct Thousands : std::numpunct<char> {
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

std::ostream& Grouped(std::ostream& os) {
  os.imbue(std::locale(os.getloc(), new Thousands));
  return os;
}

// Logs a record of its own in the default locale, between the outer record's
// operands.
std::string LogsUngrouped() {
  QXLOG(Src(), QXLOG_WARNING) << 2000;
  return " ";
}

TEST_F(LoggerTest, LocaleDoesNotLeakIntoNextRecord) {
  LogCapture capture;
  QXLOG(Src(), QXLOG_WARNING) << Grouped << 1234567 << LogsUngrouped() << 1000;
  QXLOG(Src(), QXLOG_WARNING) << 1234567;
  QXLOG(Src(), QXLOG_WARNING) << Grouped << 1000;
  QXLOG(Src(), QXLOG_WARNING) << 1000;
  EXPECT_EQ(Messages(capture),
            (std::vector<std::string>{"2000", "1,234,567 1,000", "1234567", "1,000", "1000"}));
}

TEST_F(LoggerTest, RecordsFromTwoThreadsKeepTheirOwnText) {
  constexpr int kRecords = 1000;
  LogCapture capture;
  auto run = [](const char* name) {
    for (int i = 0; i < kRecords; ++i) {
      QXLOG(Src(), QXLOG_WARNING) << name << ':' << i << ':' << name;
    }
  };
  std::thread a(run, "alpha");
  std::thread b(run, "beta");
  a.join();
  b.join();

  int next[2] = {0, 0};
  const char* names[2] = {"alpha", "beta"};
  for (const auto& message : Messages(capture)) {
    const int who = message.rfind("alpha", 0) == 0 ? 0 : 1;
    const std::string name = names[who];
    ASSERT_EQ(message, name + ":" + std::to_string(next[who]) + ":" + name);
    ++next[who];
  }
  EXPECT_EQ(next[0], kRecords);
  EXPECT_EQ(next[1], kRecords);
}

// Logs a record of its own while the caller is still formatting a record.
std::string LogsWhileFormatted() {
  QXLOG(Src(), QXLOG_WARNING) << "inner";
  return "tail";
}

TEST_F(LoggerTest, RecordMadeWhileFormattingAnotherKeepsBothTexts) {
  LogCapture capture;
  QXLOG(Src(), QXLOG_WARNING) << "outer-head " << LogsWhileFormatted();
  EXPECT_EQ(Messages(capture), (std::vector<std::string>{"inner", "outer-head tail"}));
}

// ------------------------------------------------------------ record fields

TEST_F(LoggerTest, RecordCarriesStatementFields) {
  const ConstSourcePtr source = MakeSource("korvel.logger_test.fields");
  LogCapture capture;
  // clang-format off
  const int line = __LINE__; QXLOG(source, QXLOG_ERROR) << "fields";
  // clang-format on
  const auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  const CapturedRecord& r = records[0];
  EXPECT_EQ(r.level, QXLOG_ERROR);
  EXPECT_EQ(r.id, 0u);
  EXPECT_EQ(r.decodeType, QXLOG_DECODE_AS_KV);
  EXPECT_EQ(r.source, "korvel.logger_test.fields");
  EXPECT_EQ(r.filename, __FILE__);
  EXPECT_EQ(r.lineNumber, line);
  EXPECT_EQ(r.message, "fields");
  EXPECT_EQ(r.handlerName, "");
}

TEST_F(LoggerTest, HandlerSeesSourceObject) {
  const ConstSourcePtr source = MakeSource("korvel.logger_test.object");
  const Source* seen = nullptr;
  ScopedHandler handler([&](const LogRecord& record) { seen = record.source.get(); });
  QXLOG(source, QXLOG_WARNING) << "x";
  EXPECT_EQ(seen, source.get());
}

// ----------------------------------------------------------------- handlers

TEST_F(LoggerTest, EveryHandlerGetsTheRecordUntilRemoved) {
  std::vector<std::string> first, second;
  auto one = std::make_unique<ScopedHandler>(
      [&](const LogRecord& record) { first.push_back(record.message); });
  ScopedHandler two([&](const LogRecord& record) { second.push_back(record.message); });
  QXLOG(Src(), QXLOG_WARNING) << "both";
  one.reset();  // removes the first handler
  QXLOG(Src(), QXLOG_WARNING) << "second only";
  EXPECT_EQ(first, std::vector<std::string>{"both"});
  EXPECT_EQ(second, (std::vector<std::string>{"both", "second only"}));
}

TEST_F(LoggerTest, RemovingUnknownHandlerIsIgnored) {
  std::vector<std::string> seen;
  ScopedHandler handler([&](const LogRecord& record) { seen.push_back(record.message); });
  RemoveLogHandler(-12345);
  RemoveLogHandler(handler.Id() + 1000);
  QXLOG(Src(), QXLOG_WARNING) << "still here";
  EXPECT_EQ(seen, std::vector<std::string>{"still here"});
}

TEST_F(LoggerTest, ThrowingHandlerDoesNotStopOthers) {
  int thrown = 0;
  auto thrower = [&](const LogRecord&) {
    ++thrown;
    throw std::runtime_error("handler failure");
  };
  ScopedHandler before(thrower);
  LogCapture capture;
  ScopedHandler after(thrower);
  QXLOG(Src(), QXLOG_WARNING) << "one";
  QXLOG(Src(), QXLOG_WARNING) << "two";
  EXPECT_EQ(thrown, 4);
  EXPECT_EQ(Messages(capture), (std::vector<std::string>{"one", "two"}));
}

TEST_F(LoggerTest, RecordLoggedFromHandlerDoesNotCorruptOuterRecord) {
  std::vector<std::string> seenByLogger;
  ScopedHandler logger([&](const LogRecord& record) {
    if (record.message == "outer") QXLOG(Src(), QXLOG_ERROR) << std::hex << "from-handler";
    seenByLogger.push_back(record.message);  // read after the nested record
  });
  LogCapture capture;  // called after the handler above
  QXLOG(Src(), QXLOG_WARNING) << "outer";
  QXLOG(Src(), QXLOG_WARNING) << "after " << 10;

  ASSERT_FALSE(seenByLogger.empty());
  EXPECT_EQ(seenByLogger.front(), "outer");
  const auto messages = Messages(capture);
  ASSERT_GE(messages.size(), 2u);
  EXPECT_EQ(messages.back(), "after 10");
  int outer = 0;
  for (const auto& m : messages) {
    if (m == "outer") ++outer;
    EXPECT_TRUE(m == "outer" || m == "from-handler" || m == "after 10") << m;
  }
  EXPECT_EQ(outer, 1);
}

TEST_F(LoggerTest, DefaultHandlerWritesOneLineToStderr) {
  const ConstSourcePtr source = MakeSource("korvel.logger_test.stderr");
  testing::internal::CaptureStderr();
  // clang-format off
  const int line = __LINE__; QXLOG(source, QXLOG_WARNING) << "to stderr " << 42;
  // clang-format on
  const std::string out = testing::internal::GetCapturedStderr();

  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out.find('\n'), out.size() - 1) << out;  // exactly one line
  EXPECT_NE(out.find("WARNING"), std::string::npos) << out;
  EXPECT_NE(out.find(" korvel.logger_test.stderr "), std::string::npos) << out;
  EXPECT_NE(out.find(std::string(__FILE__) + ":" + std::to_string(line)), std::string::npos) << out;
  EXPECT_NE(out.find("to stderr 42"), std::string::npos) << out;
}

TEST_F(LoggerTest, NoStderrOutputWhileAHandlerIsAdded) {
  int calls = 0;
  ScopedHandler handler([&](const LogRecord&) { ++calls; });
  testing::internal::CaptureStderr();
  QXLOG(Src(), QXLOG_WARNING) << "handled";
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(out, "");
}

// ------------------------------------------------------------------ sources

TEST(SourceTest, NamesParentsAndReverse) {
  const SourcePtr root = MakeSource("root");
  EXPECT_EQ(root->Name(), "root");
  EXPECT_EQ(root->Parent(), nullptr);

  const auto child = std::make_shared<const Source>("child", root);
  const auto leaf = std::make_shared<const Source>(qx::IPString("leaf"), child);
  EXPECT_EQ(leaf->Name(), "leaf");
  EXPECT_EQ(leaf->Parent(), child);
  EXPECT_EQ(child->Parent(), root);

  const ConstSourcePtr reversed = leaf->Reverse();
  ASSERT_NE(reversed, nullptr);
  EXPECT_EQ(reversed->Name(), "root.child.leaf");
  EXPECT_EQ(reversed->Parent(), nullptr);
  EXPECT_EQ(root->Reverse()->Name(), "root");
  EXPECT_EQ(leaf->Name(), "leaf");  // unchanged
}

// ------------------------------------------------- KORVEL_LOG_LEVEL at start

constexpr char kChildEnv[] = "KORVEL_LOGGER_TEST_CHILD";
constexpr char kChildMarker[] = "child-minimum-level=";

// Runs only inside the child started below: reports the level read at start.
TEST(LoggerChild, PrintMinimumLevel) {
  if (std::getenv(kChildEnv) == nullptr) GTEST_SKIP() << "helper of LoggerEnvTest";
  std::printf("%s%d\n", kChildMarker, static_cast<int>(GetMinimumLoggingLevel()));
  std::fflush(stdout);
}

struct ChildResult {
  bool exited = false;
  int status = -1;
  std::string out;
  std::string err;
};

// Runs this test binary again with KORVEL_LOG_LEVEL set to `level` (unset if
// null) and waits at most 30 s for it.
ChildResult RunChild(const char* level) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    if (entry.rfind("KORVEL_", 0) == 0 || entry.rfind("GTEST_", 0) == 0) continue;
    env.push_back(entry);
  }
  env.push_back(std::string(kChildEnv) + "=1");
  if (level != nullptr) env.push_back(std::string("KORVEL_LOG_LEVEL=") + level);
  korvel::process::SpawnOptions options;
  options.environment = env;
  const std::string self = "/proc/self/exe";
  korvel::process::ChildProcess child(self, {self, "--gtest_filter=LoggerChild.PrintMinimumLevel"},
                                      options);
  ChildResult result;
  const std::optional<int> status = child.Wait(std::chrono::seconds(30));
  result.exited = status && *status < 128;
  result.status = status.value_or(-1);
  result.out = child.Output(korvel::process::ChildProcess::kStdout);
  result.err = child.Output(korvel::process::ChildProcess::kStderr);
  return result;
}

// The level the child reported, -1 if none.
int ReportedLevel(const ChildResult& child) {
  const auto pos = child.out.find(kChildMarker);
  if (pos == std::string::npos) return -1;
  return std::atoi(child.out.c_str() + pos + sizeof kChildMarker - 1);
}

TEST(LoggerEnvTest, LevelIsReadFromEnvironmentAtStart) {
  struct Case {
    const char* value;
    LogLevel expected;
  };
  for (const Case& c : {Case{nullptr, QXLOG_INFO}, Case{"", QXLOG_INFO}, Case{"error", QXLOG_ERROR},
                        Case{"Warning", QXLOG_WARNING}, Case{"DEBUG", QXLOG_DEBUG},
                        Case{"critical", QXLOG_CRITICAL}}) {
    SCOPED_TRACE(c.value != nullptr ? c.value : "(unset)");
    const ChildResult child = RunChild(c.value);
    ASSERT_TRUE(child.exited) << child.err;
    EXPECT_EQ(child.status, 0) << child.out << child.err;
    EXPECT_EQ(ReportedLevel(child), static_cast<int>(c.expected)) << child.out;
    EXPECT_EQ(child.err.find("KORVEL_LOG_LEVEL"), std::string::npos) << child.err;
  }
}

TEST(LoggerEnvTest, UnknownLevelFallsBackToInfoWithWarning) {
  const ChildResult child = RunChild("bogus");
  ASSERT_TRUE(child.exited) << child.err;
  EXPECT_EQ(child.status, 0) << child.out << child.err;
  EXPECT_EQ(ReportedLevel(child), static_cast<int>(QXLOG_INFO)) << child.out;
  EXPECT_NE(child.err.find("KORVEL_LOG_LEVEL"), std::string::npos) << child.err;
  EXPECT_NE(child.err.find("bogus"), std::string::npos) << child.err;
}

}  // namespace
