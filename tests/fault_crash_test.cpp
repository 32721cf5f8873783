// Crash and restart cycles: an instance (registration_child, a process of its
// own) registers and is killed with SIGKILL, many times over, half of the
// times in the middle of its registration; a new instance starts after each.
// Once the session of a killed instance is over, the next registration of its
// type removes its leftover: none remains once the last one has run.
#include <signal.h>

#include <gtest/gtest.h>

#include <random>

#include "korvel/service.h"
#include "process/child_process.h"
#include "util/fault_util.h"

namespace korvel::test {
namespace {

using korvel::process::ChildProcess;
using qx::korvel::Service;

bool IsLine(const std::string& expected, const std::string& line) {
  return line == expected;
}

class FaultCrashTest : public LeakCheckedTest {};

TEST_F(FaultCrashTest, KilledInstancesLeaveNothingBehindTheNextRegistration) {
  const std::string program = SiblingProgram("registration_child");
  const std::string hosts = SharedServer().ConnectString();
  const std::string type = UniqueName("crash");
  const std::string markers = "/korvel-crash/" + type;  // one ephemeral node per child session
  auto conn = Connect(hosts);
  RegistryCheck check(conn, type);
  std::mt19937 random(std::random_device{}());

  const int rounds = FaultRounds(12);
  int midRegistration = 0, leftovers = 0;
  std::string previous;  // the id of the instance killed last
  const auto sessionOver = [&](const std::string& id) {
    return WaitUntil([&] { return !NodeExists(*conn, markers + "/" + id); }, 10000ms);
  };
  for (int round = 0; round < rounds; ++round) {
    const std::string id = RegistryCheck::Text(qx::korvel::RandomServiceId());
    ChildProcess child(program, {program, hosts, type, id, markers + "/" + id});
    ASSERT_TRUE(child.WaitForLine(
        ChildProcess::kStdout, [](const std::string& l) { return IsLine("ready", l); }, 10000ms));
    if (!previous.empty()) {
      ASSERT_TRUE(sessionOver(previous)) << "round " << round;
      leftovers += NodeExists(*conn, tree::DataDir(type) + "/" + previous);
    }
    ASSERT_TRUE(child.SendLine("g"));
    const bool killMidway = round % 2 == 1;
    if (killMidway) {
      ++midRegistration;
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    } else {
      ASSERT_TRUE(child.WaitForLine(
          ChildProcess::kStdout, [](const std::string& l) { return IsLine("registered", l); },
          10000ms))
          << "round " << round;
      // This registration ran after every earlier instance's session was
      // over: none of their leftovers remains.
      EXPECT_EQ(std::vector<std::string>{}, check.Leftovers()) << "round " << round;
    }
    child.Signal(SIGKILL);
    EXPECT_TRUE(child.Wait(5000ms).has_value());
    check.AddCrashed(id);
    previous = id;
  }
  ASSERT_TRUE(sessionOver(previous));
  leftovers += NodeExists(*conn, tree::DataDir(type) + "/" + previous);
  {
    Service last(conn, type, "last");
    EXPECT_EQ(std::vector<std::string>{}, check.Leftovers());
    EXPECT_EQ(std::vector<std::string>{RegistryCheck::Text(last.GetId())}, check.DataNodes());
  }
  EXPECT_EQ(std::vector<std::string>{}, check.DataNodes());
  ReportFigures("crash_restart", std::to_string(rounds) + " kills (" +
                                     std::to_string(midRegistration) + " in mid-registration), " +
                                     std::to_string(leftovers) +
                                     " leftovers found and removed, 0 remaining");
}

}  // namespace
}  // namespace korvel::test
