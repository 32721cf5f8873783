// Storm: several processes (fault_storm_child) register and shut down many
// instances of one type at once, while reader threads here list the type,
// read the status of every listed instance, and set list watches whose
// handles they drop at once. No live instance loses its data node, no
// registration fails, no watch callback starts after its handle is gone, and
// once everything is shut down nothing of the type is left.
#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

#include "korvel/service.h"
#include "process/child_process.h"
#include "util/fault_util.h"

namespace korvel::test {
namespace {

using korvel::process::ChildProcess;
using qx::korvel::OldServiceWatcher;

constexpr int kProcesses = 4;
constexpr int kReaders = 2;
constexpr int kKeptPerProcess = 3;

class FaultStormTest : public LeakCheckedTest {};

TEST_F(FaultStormTest, NoLiveInstanceLosesItsDataNode) {
  const std::string program = SiblingProgram("fault_storm_child");
  const std::string hosts = SharedServer().ConnectString();
  const std::string type = UniqueName("storm");
  const int perProcess = FaultRounds(100);
  LogCapture capture;  // the readers' client chatter stays off stderr

  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int i = 0; i < kProcesses; ++i) {
    children.push_back(std::make_unique<ChildProcess>(
        program, std::vector<std::string>{program, hosts, type, std::to_string(perProcess),
                                          std::to_string(kKeptPerProcess)}));
  }
  for (auto& child : children) {
    ASSERT_TRUE(child->WaitForLine(
        ChildProcess::kStdout, [](const std::string& line) { return line == "ready"; }, 10000ms));
  }

  std::atomic<bool> stop{false};
  std::atomic<long> listings{0}, reads{0}, unreadable{0};
  LateCallbackProbe probe;
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&] {
      auto conn = Connect(hosts);
      OldServiceWatcher watcher(conn, type);
      while (!stop.load()) {
        auto watch = probe.Make();
        auto [rc, ids, handle] = watcher.List(watch.callback);
        watch.Drop(handle);
        if (rc != ZOK) continue;
        ++listings;
        for (const auto& id : ids) {
          ++reads;
          // Listed while its data node is made or removed: not yet, or no
          // longer, readable. Counted, not an error.
          unreadable += std::get<0>(watcher.GetAttribute(id, "status")) != ZOK;
        }
      }
    });
  }
  std::vector<std::thread*> readerThreads;
  for (auto& reader : readers) readerThreads.push_back(&reader);
  StopAndJoin joiner(stop, readerThreads);
  const auto start = std::chrono::steady_clock::now();
  for (auto& child : children) ASSERT_TRUE(child->SendLine("g"));
  int registered = 0, lost = 0, errors = 0;
  for (auto& child : children) {
    const auto done = child->WaitForLine(
        ChildProcess::kStdout, [](const std::string& line) { return line.rfind("done", 0) == 0; },
        240000ms);
    ASSERT_TRUE(done.has_value()) << child->Output(ChildProcess::kStderr);
    int r = 0, l = 0, e = 0;
    ASSERT_EQ(3, std::sscanf(done->c_str(), "done registered=%d lost=%d errors=%d", &r, &l, &e));
    registered += r, lost += l, errors += e;
    EXPECT_EQ(0, child->Wait(10000ms));
  }
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
  joiner.Join();

  EXPECT_EQ(0, lost) << "live data nodes lost";
  EXPECT_EQ(0, errors) << "registrations that failed";
  EXPECT_EQ(kProcesses * perProcess, registered);
  EXPECT_EQ(0, probe.Late()) << "watch callbacks after their handle was gone";
  auto conn = Connect(hosts);
  RegistryCheck check(conn, type);
  { qx::korvel::Service last(conn, type, "last"); }
  EXPECT_EQ(std::vector<std::string>{}, check.DataNodes());
  EXPECT_EQ(std::vector<std::string>{}, check.LivenessNodes());
  ReportFigures("storm", std::to_string(registered) + " registrations and shutdowns by " +
                             std::to_string(kProcesses) + " processes in " +
                             std::to_string(seconds.count()) + " s, " + std::to_string(lost) +
                             " live data nodes lost, " + std::to_string(listings.load()) +
                             " listings and " + std::to_string(reads.load()) + " reads (" +
                             std::to_string(unreadable.load()) + " not readable yet or any more)");
}

}  // namespace
}  // namespace korvel::test
