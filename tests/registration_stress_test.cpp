// Registration of one service type under concurrency, against a real
// standalone server: threads register and shut down instances while child
// processes (registration_child, beside this executable) register and are
// killed with SIGKILL. Live instances must keep their nodes; what a crashed
// instance left must be gone once a later registration has cleaned up.
// Also counts the requests the cleanup makes.
#include <signal.h>
#include <unistd.h>

#include <deque>
#include <future>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "korvel/service.h"
#include "korvel/utils.h"
#include "process/child_process.h"
#include "stlext/uuid.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::Service;
using qx::logging::LogLevel;

const ACL_vector& kAcl = ZOO_OPEN_ACL_UNSAFE;

constexpr int kRounds = 20;
constexpr int kThreads = 4;
constexpr int kPerThreadAndRound = 3;      // registrations
constexpr std::size_t kKeptPerThread = 2;  // older instances of a thread are shut down
constexpr auto kTimeBudget = 40s;          // no new round starts after this

// A running registration_child, killed with SIGKILL and reaped at the latest
// when the object goes (and by the kernel if this thread dies first).
class Child {
 public:
  explicit Child(const std::vector<std::string>& args) : m_process(args.at(0), args) {}

  // The next line it prints, without the newline; "" on end of file or timeout.
  std::string ReadLine(std::chrono::milliseconds timeout) {
    return m_process
        .WaitForLine(
            korvel::process::ChildProcess::kStdout, [](const std::string&) { return true; },
            timeout)
        .value_or("");
  }
  // Lets it register.
  void Go() { EXPECT_TRUE(m_process.Send("g")); }
  void Kill() { m_process.Kill(); }

 private:
  korvel::process::ChildProcess m_process;
};

// A fault injector that injects no fault, only a pause of up to 10 ms before
// each listing: a registration's listings then see others' progress at
// varied points.
std::optional<int> RandomDelay(Connection::Operation op, const qx::String&) {
  thread_local std::mt19937 random(std::random_device{}());
  if (op == Connection::Operation::GetChildren) {
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 10000));
  }
  return std::nullopt;
}

std::string Text(const qx::korvel::ServiceId& id) {
  return qx::uuid::to_string(id);
}

TEST(RegistrationStressTest, LiveInstancesStayAndCrashedOnesAreCleanedUp) {
  const std::string program = SiblingProgram("registration_child");
  ASSERT_EQ(access(program.c_str(), X_OK), 0) << "missing " << program;
  signal(SIGPIPE, SIG_IGN);  // a child may be gone when it is written to
  LogLevelScope quiet(qx::logging::QXLOG_WARNING);

  const std::string hosts = SharedServer().ConnectString();
  const std::string type = UniqueName("stress");
  const std::string srv = tree::DataDir(type);
  const std::string alive = tree::AliveDir(type);
  // Children's session markers: one ephemeral node each.
  const std::string markers = "/korvel-stress/" + type;
  auto checker = Connect(hosts);
  const auto exists = [&](const std::string& path) {
    return checker->Exists(path, nullptr) == ZOK;
  };
  std::vector<std::shared_ptr<Connection>> conns;
  for (int i = 0; i < kThreads; ++i) conns.push_back(Connect(hosts));
  // Half of the threads pause before their listings, so that registrations
  // interleave in many ways. (With an injector set, deletes go one by one;
  // the other threads still delete in batches.)
  for (int i = 0; i < kThreads / 2; ++i) conns[i]->SetFaultInjector(RandomDelay);

  std::vector<std::deque<std::shared_ptr<Service>>> live(kThreads);
  // Ids of the instances shut down, per thread.
  std::vector<std::vector<std::string>> shutDown(kThreads);
  // Killed children of the last round; those whose sessions are over.
  std::vector<std::string> crashed;
  std::vector<std::string> expired;
  int leftovers = 0;  // data nodes that crashed children left
  std::mt19937 random(std::random_device{}());
  const auto start = std::chrono::steady_clock::now();

  // Waits until the sessions of the crashed children are over: from then on
  // their data nodes are leftovers for the next registration to remove.
  const auto awaitCrashedSessions = [&] {
    for (const auto& id : crashed) {
      EXPECT_TRUE(WaitUntil([&] { return !exists(markers + "/" + id); }, 10s)) << id;
      EXPECT_FALSE(exists(alive + "/" + id)) << id;
      if (exists(srv + "/" + id)) ++leftovers;
    }
    expired = std::move(crashed);
    crashed.clear();
  };

  int rounds = 0;
  while (rounds < kRounds && std::chrono::steady_clock::now() - start < kTimeBudget &&
         !::testing::Test::HasFailure()) {
    ++rounds;
    // This round's children connect while the last round's sessions expire.
    std::vector<std::unique_ptr<Child>> children;
    std::vector<std::string> childIds;
    for (int c = 0; c < 2; ++c) {
      childIds.push_back(Text(qx::korvel::RandomServiceId()));
      children.push_back(std::make_unique<Child>(std::vector<std::string>{
          program, hosts, type, childIds.back(), markers + "/" + childIds.back()}));
    }
    for (auto& child : children) ASSERT_EQ(child->ReadLine(10s), "ready");
    awaitCrashedSessions();

    // All at once: each thread registers instances one after another and
    // shuts down its oldest ones; both children register. One child is killed at a random
    // moment (maybe halfway through), the other once it has registered.
    std::promise<void> gate;
    const std::shared_future<void> opened = gate.get_future().share();
    std::vector<std::string> errors(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      const auto offset = std::chrono::microseconds(random() % 5000);
      threads.emplace_back([&, i, offset] {
        opened.wait_for(10s);
        std::this_thread::sleep_for(offset);
        try {
          for (int k = 0; k < kPerThreadAndRound; ++k) {
            live[i].push_back(std::make_shared<Service>(conns[i], type, "stress"));
            if (live[i].size() > kKeptPerThread) {
              shutDown[i].push_back(Text(live[i].front()->GetId()));
              live[i].pop_front();  // the destructor runs here
            }
          }
        } catch (const std::exception& e) {
          errors[i] = e.what();
        }
      });
    }
    gate.set_value();
    for (auto& child : children) child->Go();
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));
    children[0]->Kill();
    EXPECT_EQ(children[1]->ReadLine(10s), "registered");
    children[1]->Kill();
    for (auto& thread : threads) thread.join();
    crashed = childIds;

    for (int i = 0; i < kThreads; ++i) {
      EXPECT_EQ(errors[i], "") << "thread " << i << ", round " << rounds;
      for (const auto& service : live[i]) {
        const std::string id = Text(service->GetId());
        EXPECT_TRUE(exists(service->GetRoot())) << id << ", round " << rounds;
        EXPECT_EQ(EphemeralOwner(*checker, alive + "/" + id), conns[i]->ClientId().client_id)
            << id << ", round " << rounds;
      }
      for (const auto& id : shutDown[i]) {
        EXPECT_FALSE(exists(srv + "/" + id)) << id << ", round " << rounds;
        EXPECT_FALSE(exists(alive + "/" + id)) << id << ", round " << rounds;
      }
    }
    for (const auto& id : expired) {
      EXPECT_FALSE(exists(srv + "/" + id)) << "crashed " << id << ", round " << rounds;
    }
  }

  // The last round's crashed instances: one more registration cleans up.
  awaitCrashedSessions();
  auto last = std::make_shared<Service>(conns[0], type, "last");
  for (const auto& id : expired) EXPECT_FALSE(exists(srv + "/" + id)) << "crashed " << id;
  // Every round's registered child left a data node behind.
  EXPECT_GE(leftovers, rounds);

  // Shut down the rest: nothing of the type remains.
  last.reset();
  for (auto& services : live) services.clear();
  std::vector<qx::String> remaining;
  EXPECT_EQ(checker->GetChildren(srv, remaining), ZOK);
  EXPECT_EQ(checker->GetChildren(alive, remaining), ZOK);
  EXPECT_TRUE(remaining.empty()) << remaining.size() << " nodes left";

  const auto elapsed = std::chrono::steady_clock::now() - start;
  std::cout << rounds << " rounds, " << leftovers << " leftovers cleaned up, "
            << std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count() << " ms\n";
  if (!::testing::Test::HasFailure()) {
    EXPECT_GE(rounds, 5);
  }
  qx::korvel::RecursiveDelete(*checker, srv);
  qx::korvel::RecursiveDelete(*checker, alive);
  qx::korvel::RecursiveDelete(*checker, markers);
}

TEST(RegistrationCleanupTest, TwoListingsAndOneRecursiveDeletePerLeftover) {
  const std::string hosts = SharedServer().ConnectString();
  const std::string type = UniqueName("cleanup");
  const std::string srv = tree::DataDir(type);
  const std::string alive = tree::AliveDir(type);

  // A live instance of another session, registered first: its own
  // registration would clean up the leftovers.
  auto other = Connect(hosts);
  auto liveService = std::make_shared<Service>(other, type, "live");
  // Leftovers: data nodes with a subtree and no liveness node.
  auto conn = Connect(hosts);
  std::vector<std::string> leftovers;
  for (int i = 0; i < 3; ++i) {
    leftovers.push_back(srv + "/" + Text(qx::korvel::RandomServiceId()));
    qx::korvel::EnsurePath(*conn, leftovers.back() + "/child/grandchild", false, kAcl);
    ASSERT_EQ(conn->Create(leftovers.back() + "/status", "up", kAcl, 0, nullptr), ZOK);
  }

  std::mutex mutex;
  std::map<std::string, int> listings;
  std::map<std::string, int> deletes;
  conn->SetFaultInjector([&](Connection::Operation op, const qx::String& path) {
    std::lock_guard<std::mutex> lock(mutex);
    if (op == Connection::Operation::GetChildren) ++listings[path];
    if (op == Connection::Operation::Delete) ++deletes[path];
    return std::optional<int>();
  });
  auto service = std::make_shared<Service>(conn, type, "counted");
  conn->SetFaultInjector(nullptr);

  EXPECT_EQ(listings[srv], 1);
  EXPECT_EQ(listings[alive], 1);
  for (const auto& leftover : leftovers) {
    // RecursiveDelete lists the leftover itself once and deletes it once.
    EXPECT_EQ(listings[leftover], 1) << leftover;
    EXPECT_EQ(deletes[leftover], 1) << leftover;
    EXPECT_EQ(conn->Exists(leftover, nullptr), ZNONODE) << leftover;
  }
  // The live instance is untouched.
  EXPECT_EQ(listings[liveService->GetRoot()], 0);
  EXPECT_EQ(deletes[liveService->GetRoot()], 0);
  std::vector<qx::String> attributes;
  EXPECT_EQ(conn->GetChildren(liveService->GetRoot(), attributes), ZOK);
  EXPECT_FALSE(attributes.empty());
  EXPECT_EQ(conn->Exists(service->GetRoot(), nullptr), ZOK);

  service.reset();
  liveService.reset();
  qx::korvel::RecursiveDelete(*conn, srv);
  qx::korvel::RecursiveDelete(*conn, alive);
}

}  // namespace
}  // namespace korvel::test
