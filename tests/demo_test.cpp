// `korvel demo` as installed (its path in KORVEL_CLI): it runs to its end by itself, exits 0 and
// shows every section of its tour. Its output is printed, so that `ctest -V` shows the tour.
#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <regex>

#include "process/child_process.h"

namespace {

using korvel::process::ChildProcess;
using namespace std::chrono_literals;

std::string CliPath() {
  const char* path = std::getenv("KORVEL_CLI");
  return path ? path : "korvel-cli-path-not-set";
}

TEST(DemoTest, RunsToTheEndAndShowsEverySection) {
  ChildProcess demo(CliPath(), {"korvel", "demo"});
  demo.CloseStdin();
  const auto code = demo.Wait(100s);  // it aims at about 20 s
  const std::string out = demo.Output(ChildProcess::kStdout);
  std::cout << out;
  ASSERT_TRUE(code) << "the demo did not end within 100 s";
  EXPECT_EQ(0, *code) << demo.Output(ChildProcess::kStderr);
  for (const char* section : {
           "Starting a ZooKeeper server of its own",
           "Registering three instances of the type 'billing'",
           "Listing the live instances",
           "Raising alpha to up",
           "Publishing a child record on beta",
           "Killing beta hard (SIGKILL)",
           "A new registration removes beta's leftover",
           "Expiring gamma's session",
           "Shutting down",
       }) {
    EXPECT_NE(std::string::npos, out.find(std::string("\n== ") + section + "\n")) << section;
  }
}

// SIGINT in the middle: the demo stops its instances and its server and exits with 128 + 2.
TEST(DemoTest, AStopSignalEndsItAndItsProcesses) {
  ChildProcess demo(CliPath(), {"korvel", "demo"});
  demo.CloseStdin();
  ASSERT_TRUE(demo.WaitForLine(
      ChildProcess::kStdout,
      [](const std::string& line) { return line == "== Raising alpha to up"; }, 60s))
      << demo.Output(ChildProcess::kStdout) << demo.Output(ChildProcess::kStderr);
  demo.Signal(SIGINT);
  EXPECT_EQ(128 + SIGINT, demo.Wait(30s));

  // The server and every instance printed their pids; none of them runs any more.
  const std::string out = demo.Output(ChildProcess::kStdout);
  const std::regex pidPattern("pid ([0-9]+)");
  int pids = 0;
  for (auto it = std::sregex_iterator(out.begin(), out.end(), pidPattern);
       it != std::sregex_iterator(); ++it, ++pids) {
    const pid_t pid = std::stoi((*it)[1]);
    EXPECT_TRUE(kill(pid, 0) != 0 && errno == ESRCH) << "pid " << pid << " still runs";
  }
  EXPECT_EQ(4, pids) << out;  // the server and three instances
}

}  // namespace
