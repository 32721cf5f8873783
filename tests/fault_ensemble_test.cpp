// A 3-member ensemble under a steady stream of status and attribute writes
// (a writer thread) and of listings and reads with watches whose handles are
// dropped at once (a reader thread). Each member in turn, the leader first, is
// killed with SIGKILL and started again; then one member is paused (SIGSTOP)
// and resumed. After each fault both streams make progress again, every
// service is listed with the data node it was registered with, no session
// expires, and no watch callback runs after its handle is gone.
#include <gtest/gtest.h>

#include <thread>

#include "korvel/error.h"
#include "korvel/service.h"
#include "util/fault_util.h"

namespace korvel::test {
namespace {

using qx::korvel::KorvelError;
using qx::korvel::OldServiceWatcher;
using qx::korvel::Service;

constexpr auto kSessionTimeout = 8000ms;
constexpr int kServices = 3;
constexpr auto kPause = 3000ms;

// Successful and failed operations of one stream.
struct Stream {
  std::atomic<long> ok{0};
  std::atomic<long> failed{0};
};

class FaultEnsembleTest : public LeakCheckedTest {
 protected:
  static void SetUpTestSuite() { ensemble = new ZooKeeperEnsemble(3); }
  static void TearDownTestSuite() {
    delete ensemble;
    ensemble = nullptr;
  }
  void SetUp() override {
    LeakCheckedTest::SetUp();
    ensemble->WaitForQuorum(30000ms);
  }
  // Waits until both streams have succeeded a few more times.
  static bool Progress(const Stream& writes, const Stream& reads) {
    const long w = writes.ok.load(), r = reads.ok.load();
    return WaitUntil([&] { return writes.ok.load() >= w + 3 && reads.ok.load() >= r + 3; },
                     60000ms);
  }

  static ZooKeeperEnsemble* ensemble;
  LogCapture capture;  // failover chatter and failed writes stay off stderr
};

ZooKeeperEnsemble* FaultEnsembleTest::ensemble = nullptr;

TEST_F(FaultEnsembleTest, StreamsAndRegistrationsSurviveKilledAndPausedMembers) {
  const std::string hosts = ensemble->ConnectString();
  const std::string type = UniqueName("ensemble");
  auto writerConn = Connect(hosts, kSessionTimeout);
  auto readerConn = Connect(hosts, kSessionTimeout);
  auto expiries = std::make_shared<ExpiryCounter>();
  writerConn->RegisterWeak(expiries);
  readerConn->RegisterWeak(expiries);
  RegistryCheck check(Connect(hosts, kSessionTimeout), type);
  std::vector<std::shared_ptr<Service>> services;
  for (int i = 0; i < kServices; ++i) {
    services.push_back(std::make_shared<Service>(writerConn, type, "ensemble"));
    services.back()->RegisterForSessionEvent();
    check.AddLive(*services.back());
  }

  std::atomic<bool> stop{false};
  Stream writes, reads;
  LateCallbackProbe probe;
  std::thread writer([&] {
    for (long n = 0; !stop.load(); ++n) {
      for (const auto& service : services) {
        try {
          service->SetStatus(n % 2 ? Service::UP : Service::UP_SENDING_DISABLED);
          service->SetChildAttribute("worker", "seq", std::to_string(n));
          ++writes.ok;
        } catch (const KorvelError&) {
          ++writes.failed;
        }
      }
    }
  });
  OldServiceWatcher watcher(readerConn, type);
  std::thread reader([&] {
    while (!stop.load()) {
      auto watch = probe.Make();
      auto [rc, ids, handle] = watcher.List(watch.callback);
      watch.Drop(handle);
      bool ok = rc == ZOK && ids.size() == kServices;
      for (const auto& id : ids) ok = ok && std::get<0>(watcher.GetAttribute(id, "status")) == ZOK;
      ++(ok ? reads.ok : reads.failed);
    }
  });
  StopAndJoin joiner(stop, {&writer, &reader});

  const auto invariants = [&](const std::string& when) {
    EXPECT_TRUE(Progress(writes, reads)) << when;
    std::vector<std::string> problems;
    EXPECT_TRUE(WaitUntil([&] { return (problems = check.LiveProblems()).empty(); }, 20000ms))
        << when << ": " << (problems.empty() ? "" : problems[0]);
  };
  int kills = 0, pauses = 0;
  for (int round = 0; round < FaultRounds(2) && !HasFailure(); ++round) {
    const std::vector<int> order = MembersLeaderFirst(*ensemble);
    ASSERT_FALSE(order.empty()) << "no leader";
    for (int member : order) {
      const std::string when = "round " + std::to_string(round) + ", member " +
                               std::to_string(member) + (member == order[0] ? " (leader)" : "");
      ensemble->Kill(member);
      ++kills;
      EXPECT_TRUE(Progress(writes, reads)) << when << " down";
      ensemble->Start(member);
      ensemble->WaitForQuorum(60000ms);
      invariants(when + " back");
    }
    const int paused = round % ensemble->Size();
    ensemble->Pause(paused);
    ++pauses;
    std::this_thread::sleep_for(kPause);
    ensemble->Resume(paused);
    ensemble->WaitForQuorum(60000ms);
    invariants("round " + std::to_string(round) + ", member " + std::to_string(paused) +
               " resumed");
  }
  joiner.Join();

  EXPECT_EQ(0, expiries->expiries.load()) << "sessions expired";
  EXPECT_EQ(0, probe.Late()) << "watch callbacks after their handle was gone";
  services.clear();
  // The checker may talk to a member that is a little behind.
  EXPECT_TRUE(WaitUntil([&] { return check.DataNodes().empty(); }, 10000ms));
  ReportFigures("ensemble", std::to_string(kills) + " members killed (leader first), " +
                                std::to_string(pauses) + " paused for " +
                                std::to_string(kPause.count()) + " ms; writes " +
                                std::to_string(writes.ok.load()) + " ok, " +
                                std::to_string(writes.failed.load()) + " failed; reads " +
                                std::to_string(reads.ok.load()) + " ok, " +
                                std::to_string(reads.failed.load()) + " failed; " +
                                std::to_string(expiries->expiries.load()) + " expiries");
}

}  // namespace
}  // namespace korvel::test
