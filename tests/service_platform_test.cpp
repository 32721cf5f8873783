// Service registration against a real standalone server, with the platform
// calls it makes (gethostname, time, readlink) replaced by this binary's own
// definitions of those libc symbols. korvel is linked statically, so its calls
// bind to the definitions below; they forward to the real functions unless the
// calling thread has set an override. Overrides are per thread so that the
// ZooKeeper client's own threads, which call gethostname and time too, always
// see the real functions.
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>

#include <gtest/gtest.h>

#include "korvel/error.h"
#include "korvel/service.h"
#include "korvel/utils.h"
#include "stlext/uuid.h"
#include "util/test_util.h"

namespace {

using GethostnameFn = int (*)(char*, size_t);
using ReadlinkFn = ssize_t (*)(const char*, char*, size_t);
using TimeFn = time_t (*)(time_t*);

// The calling thread's overrides; null or false: the real function.
thread_local GethostnameFn t_gethostname = nullptr;
thread_local bool t_timeSet = false;
thread_local time_t t_time = 0;
// Applies to readlink("/proc/self/exe") only; gets the buffer and its size.
thread_local ssize_t (*t_readlinkExe)(char*, size_t) = nullptr;

// Calls made by the calling thread, overridden or not.
thread_local int t_gethostnameCalls = 0;
thread_local int t_timeCalls = 0;
thread_local int t_readlinkExeCalls = 0;

template <typename Fn>
Fn Real(const char* name) {
  void* symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) std::abort();
  return reinterpret_cast<Fn>(symbol);
}

}  // namespace

extern "C" int gethostname(char* name, size_t len) noexcept {
  static const GethostnameFn real = Real<GethostnameFn>("gethostname");
  ++t_gethostnameCalls;
  return t_gethostname != nullptr ? t_gethostname(name, len) : real(name, len);
}

extern "C" time_t time(time_t* tloc) noexcept {
  static const TimeFn real = Real<TimeFn>("time");
  ++t_timeCalls;
  if (!t_timeSet) return real(tloc);
  if (tloc != nullptr) *tloc = t_time;
  return t_time;
}

extern "C" ssize_t readlink(const char* path, char* buf, size_t len) noexcept {
  static const ReadlinkFn real = Real<ReadlinkFn>("readlink");
  if (std::strcmp(path, "/proc/self/exe") != 0) return real(path, buf, len);
  ++t_readlinkExeCalls;
  return t_readlinkExe != nullptr ? t_readlinkExe(buf, len) : real(path, buf, len);
}

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::KorvelError;
using qx::korvel::Service;
using qx::korvel::ServiceId;
using qx::logging::QXLOG_ERROR;
using qx::logging::QXLOG_WARNING;

const char kRecipeVar[] = "CHEF_RECIPE_NAME";

// The executable path the readlink override reports.
std::string g_fakeExe;

ssize_t ReadFakeExe(char* buf, size_t len) {
  const size_t n = std::min(len, g_fakeExe.size());
  std::memcpy(buf, g_fakeExe.data(), n);  // no terminator, as readlink
  return static_cast<ssize_t>(n);
}

time_t Utc(int year, int month, int day, int hour, int minute, int second) {
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  return timegm(&tm);
}

std::vector<CapturedRecord> ErrorsOf(const LogCapture& capture, const std::string& source) {
  std::vector<CapturedRecord> errors;
  for (auto& record : capture.FromSource(source)) {
    if (record.level == QXLOG_ERROR) errors.push_back(record);
  }
  return errors;
}

std::vector<CapturedRecord> WarningsOrWorse(const LogCapture& capture) {
  std::vector<CapturedRecord> records;
  for (auto& record : capture.Records()) {
    if (record.level >= QXLOG_WARNING) records.push_back(record);
  }
  return records;
}

class ServicePlatformTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* value = std::getenv(kRecipeVar)) m_savedRecipe = value;
    m_conn = Connect(SharedServer().ConnectString());
    m_type = UniqueName("platform");
    m_id = qx::korvel::RandomServiceId();
    t_gethostnameCalls = t_timeCalls = t_readlinkExeCalls = 0;
  }

  void TearDown() override {
    t_gethostname = nullptr;
    t_timeSet = false;
    t_readlinkExe = nullptr;
    if (m_savedRecipe) {
      setenv(kRecipeVar, m_savedRecipe->c_str(), 1);
    } else {
      unsetenv(kRecipeVar);
    }
    qx::korvel::RecursiveDelete(*m_conn, tree::DataDir(m_type));
    qx::korvel::RecursiveDelete(*m_conn, tree::AliveDir(m_type));
  }

  std::string Root() const { return tree::DataPath(m_type, m_id); }
  std::string Alive() const { return tree::AlivePath(m_type, m_id); }
  int64_t Session() const { return m_conn->ClientId().client_id; }

  std::unique_ptr<Service> Register() {
    return std::make_unique<Service>(m_conn, m_type, m_id, "platform-test");
  }
  // Registers and drops the instance again; the error's text, "" on success.
  std::string RegisterError() {
    try {
      Register();
    } catch (const KorvelError& e) {
      return e.what();
    }
    return "";
  }

  // The attribute names below the data node.
  std::set<std::string> Attributes() const {
    std::vector<qx::String> children;
    EXPECT_EQ(m_conn->GetChildren(Root(), children), ZOK);
    return {children.begin(), children.end()};
  }
  std::string Attribute(const std::string& name) const {
    qx::String value;
    EXPECT_EQ(m_conn->Get(Root() + "/" + name, value, nullptr), ZOK) << name;
    return value;
  }
  // The data node is persistent, the liveness node and attributes belong to
  // this session.
  void ExpectNodeKinds() const {
    EXPECT_EQ(EphemeralOwner(*m_conn, Root()), 0);
    EXPECT_EQ(EphemeralOwner(*m_conn, Alive()), Session());
    for (const auto& name : Attributes()) {
      EXPECT_EQ(EphemeralOwner(*m_conn, Root() + "/" + name), Session()) << name;
    }
  }

  std::optional<std::string> m_savedRecipe;
  std::shared_ptr<Connection> m_conn;
  std::string m_type;
  ServiceId m_id;
};

TEST_F(ServicePlatformTest, InterpositionReachesTheLibrary) {
  const time_t before = Real<TimeFn>("time")(nullptr);
  auto service = Register();
  const time_t after = Real<TimeFn>("time")(nullptr);

  // The library called this binary's definitions...
  EXPECT_GE(t_gethostnameCalls, 1);
  EXPECT_GE(t_timeCalls, 1);
  EXPECT_EQ(t_readlinkExeCalls, 1);
  // ...which forwarded to the real functions.
  utsname names{};
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(Attribute("hostname"), boost::algorithm::trim_copy(std::string(names.nodename)));
  EXPECT_EQ(Attribute("pid"), std::to_string(getpid()));
  std::tm started{};
  ASSERT_NE(strptime(Attribute("start_time").c_str(), "%Y-%m-%d %H:%M:%S", &started), nullptr);
  EXPECT_GE(timegm(&started), before);
  EXPECT_LE(timegm(&started), after);
  char exe[4096];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(exe, n), std::filesystem::canonical("/proc/self/exe").string());
}

TEST_F(ServicePlatformTest, HostNameIsTrimmed) {
  t_gethostname = [](char* name, size_t len) {
    std::snprintf(name, len, "%s", " \t my host\t  ");
    return 0;
  };
  auto service = Register();
  EXPECT_EQ(Attribute("hostname"), "my host");
  ExpectNodeKinds();
}

TEST_F(ServicePlatformTest, HostNameFillingTheBufferKeepsAllItsBytes) {
  // 1023 non-NUL bytes and no terminator.
  t_gethostname = [](char* name, size_t len) {
    for (size_t i = 0; i < len; ++i) name[i] = static_cast<char>('a' + i % 26);
    return 0;
  };
  auto service = Register();
  std::string expected(1023, '\0');
  for (size_t i = 0; i < expected.size(); ++i) expected[i] = static_cast<char>('a' + i % 26);
  EXPECT_EQ(Attribute("hostname"), expected);
}

TEST_F(ServicePlatformTest, GethostnameFailureStopsTheRegistration) {
  t_gethostname = [](char*, size_t) {
    errno = EPERM;
    return -1;
  };
  LogCapture capture;
  EXPECT_EQ(RegisterError(), "gethostname error");

  const auto errors = ErrorsOf(capture, "korvel.service");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].message, "gethostname error: 1");
  // What came before the host name was written; nothing after it.
  EXPECT_EQ(Attributes(), (std::set<std::string>{"status", "service_name"}));
  EXPECT_EQ(Attribute("status"), "down");
  EXPECT_EQ(Attribute("service_name"), "platform-test");
}

TEST_F(ServicePlatformTest, StartTimeEndsWithTheIsoWeekday) {
  t_timeSet = true;
  t_time = Utc(2026, 11, 16, 0, 14, 27);  // a Monday
  {
    auto service = Register();
    EXPECT_EQ(Attribute("start_time"), "2026-11-16 00:14:27.1");
  }
  t_time = Utc(2026, 11, 22, 23, 59, 59);  // a Sunday
  auto service = Register();
  const std::string sunday = Attribute("start_time");
  EXPECT_EQ(sunday, "2026-11-22 23:59:59.7");
  EXPECT_EQ(sunday.size(), 21u);
}

TEST_F(ServicePlatformTest, ReadlinkFailureStopsTheRegistration) {
  setenv(kRecipeVar, "from-env", 1);
  t_readlinkExe = [](char*, size_t) -> ssize_t {
    errno = EACCES;
    return -1;
  };
  LogCapture capture;
  EXPECT_EQ(RegisterError(), "failed to read link");

  const auto errors = ErrorsOf(capture, "korvel.service");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].message, "failed to read link, linkName=/proc/self/exe, errno=13, " +
                                   std::string(std::strerror(13)));
  // Neither the recipe name (even from the environment) nor the version.
  EXPECT_EQ(Attributes(),
            (std::set<std::string>{"status", "service_name", "hostname", "pid", "start_time"}));
}

// The executable seems to be D/bin/prog, so that D/CHEF_RECIPE_NAME and
// D/CHEF_VERSION are the files read.
class FakeExecutableTest : public ServicePlatformTest {
 protected:
  void SetUp() override {
    ServicePlatformTest::SetUp();
    char dir[] = "/tmp/korvel-platform-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
    ASSERT_EQ(mkdir((m_dir + "/bin").c_str(), 0700), 0);
    g_fakeExe = m_dir + "/bin/prog";
    t_readlinkExe = ReadFakeExe;
    unsetenv(kRecipeVar);
  }
  void TearDown() override {
    ServicePlatformTest::TearDown();
    std::filesystem::remove_all(m_dir);
  }

  void WriteFile(const std::string& name, const std::string& content) {
    std::ofstream(m_dir + "/" + name, std::ios::binary) << content;
  }

  std::string m_dir;
};

TEST_F(FakeExecutableTest, RecipeAndVersionFromFirstLinesOfFiles) {
  WriteFile("CHEF_RECIPE_NAME", "recipe\r\nsecond line\n");
  WriteFile("CHEF_VERSION", "1.2.3\nx");
  auto service = Register();
  EXPECT_EQ(t_readlinkExeCalls, 1);
  EXPECT_EQ(Attribute("chef_recipe_name"), "recipe\r");
  EXPECT_EQ(Attribute("version"), "1.2.3");
  EXPECT_EQ(Attributes(), (std::set<std::string>{"status", "service_name", "hostname", "pid",
                                                 "start_time", "chef_recipe_name", "version"}));
  ExpectNodeKinds();
}

TEST_F(FakeExecutableTest, NoFilesNoRecipeNoVersionNoLog) {
  LogCapture capture;
  auto service = Register();
  EXPECT_EQ(Attributes(),
            (std::set<std::string>{"status", "service_name", "hostname", "pid", "start_time"}));
  EXPECT_TRUE(WarningsOrWorse(capture).empty());
  for (const auto& record : capture.FromSource("korvel.service")) {
    EXPECT_EQ(record.message.rfind("Initializing Korvel Service", 0), 0u) << record.message;
  }
  ExpectNodeKinds();
}

TEST_F(FakeExecutableTest, EmptyRecipeFromEnvironmentWinsOverFile) {
  setenv(kRecipeVar, "", 1);
  WriteFile("CHEF_RECIPE_NAME", "recipe\n");
  auto service = Register();
  EXPECT_EQ(Attribute("chef_recipe_name"), "");
  ExpectNodeKinds();
}

TEST_F(FakeExecutableTest, VersionWithEmptyFirstLineIsNotWritten) {
  WriteFile("CHEF_VERSION", "\n1.2.3\n");
  auto service = Register();
  EXPECT_EQ(Attributes(),
            (std::set<std::string>{"status", "service_name", "hostname", "pid", "start_time"}));
  ExpectNodeKinds();
}

}  // namespace
}  // namespace korvel::test
