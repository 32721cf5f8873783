// A chaos run on a 3-member ensemble. Client processes (`korvel register`, each a supervised
// registration of one of two shared types) publish statuses and child records, while a driver
// injects one fault per round at random: a client's session expired, a member killed (the leader
// as likely as any other) and restarted, a member or a client paused with SIGSTOP for longer
// than the session timeout, a client crashed with SIGKILL and a new one started in its place.
//
// An independent reader checks after each fault has healed that, within kHealBound, every live
// client's instance is listed, its status is the last one set, every child record it holds has
// its last value, a record it removed is gone, and no data node of a crashed client remains once
// its successor has registered. Another thread lists the liveness nodes every 20 ms and measures
// how long each live instance was not listed.
//
// KORVEL_FAULT_ROUNDS multiplies the rounds (a long form: KORVEL_FAULT_ROUNDS=60, about 30 min).
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "korvel/connection_v2.h"
#include "util/fault_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;

constexpr int kClients = 4;
constexpr auto kClientSession = 2000ms;  // RegisterProcess's session timeout
constexpr auto kBackoffCap = 5000ms;     // the supervised registration's default
constexpr auto kPause = 4000ms;          // twice the clients' session timeout
// From the end of a fault until every invariant holds again: the session timeout for the server
// to end the old session, the supervisor's longest wait, and room for the client to reconnect
// and for elections on a loaded machine.
constexpr auto kHealBound = kClientSession + kBackoffCap + 15000ms;
const std::vector<std::string> kStatuses = {"up", "down", "up_sending_disabled"};

// One `korvel register` process and what was published through it.
struct Client {
  std::string type;
  std::unique_ptr<RegisterProcess> process;
  std::string status;
  std::map<std::string, std::string> records;  // child -> value of its attribute "port"
  std::set<std::string> removed;               // children removed and not set again
};

// Lists the liveness directories every 20 ms and measures, for each instance expected to be
// live, how long it was missing from successful listings.
class VisibilityTracker {
 public:
  VisibilityTracker(std::shared_ptr<Connection> reader, std::vector<std::string> types)
      : m_reader(std::move(reader)), m_types(std::move(types)), m_thread([this] { Run(); }) {}
  ~VisibilityTracker() {
    m_stop = true;
    m_thread.join();
  }

  void Expect(const std::string& id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_expected.emplace(id, std::nullopt);
  }
  // Stops expecting `id` (it is about to crash); a gap under way is not counted.
  void Forget(const std::string& id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_expected.erase(id);
  }
  std::chrono::milliseconds Longest() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_longest;
  }
  long Listings() const { return m_listings.load(); }

 private:
  using Clock = std::chrono::steady_clock;

  void Run() {
    while (!m_stop) {
      std::set<std::string> listed;
      bool ok = true;
      for (const std::string& type : m_types) {
        std::vector<std::string> children;
        ok = ok && m_reader->GetChildren(tree::AliveDir(type), children) == ZOK;
        listed.insert(children.begin(), children.end());
      }
      if (ok) {
        ++m_listings;
        const auto now = Clock::now();
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& [id, missingSince] : m_expected) {
          if (listed.count(id) == 0) {
            if (!missingSince) missingSince = now;
          } else if (missingSince) {
            m_longest = std::max(m_longest, std::chrono::duration_cast<std::chrono::milliseconds>(
                                                now - *missingSince));
            missingSince.reset();
          }
        }
      }
      std::this_thread::sleep_for(20ms);
    }
  }

  const std::shared_ptr<Connection> m_reader;
  const std::vector<std::string> m_types;
  mutable std::mutex m_mutex;
  std::map<std::string, std::optional<Clock::time_point>> m_expected;
  std::chrono::milliseconds m_longest{0};
  std::atomic<long> m_listings{0};
  std::atomic<bool> m_stop{false};
  std::thread m_thread;  // last: it starts once the rest is there
};

class FaultChaosTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ensemble = std::make_unique<ZooKeeperEnsemble>(3);
    hosts = ensemble->ConnectString();
    reader = Connect(hosts, 8000ms);
    for (int t = 0; t < 2; ++t) types.push_back(UniqueName("chaos"));
    tracker = std::make_unique<VisibilityTracker>(reader, types);
  }
  void TearDown() override {
    tracker.reset();
    for (Client& client : clients) {
      if (client.process) client.process->Process().Signal(SIGTERM);
    }
    clients.clear();
  }

  // Starts a client of `type` with status "up" and one record.
  Client Start(const std::string& type) {
    Client client{type, nullptr, "up", {{"worker-0", "1"}}, {}};
    client.process = std::make_unique<RegisterProcess>(
        hosts, std::vector<std::string>{type, "--status", "up", "--child-attr", "worker-0:port=1"});
    EXPECT_EQ(36u, client.process->Id().size()) << client.process->Stderr();
    tracker->Expect(client.process->Id());
    return client;
  }

  // A change of a client's published state: a status, a record set, or a record removed.
  void Mutate(Client& client) {
    const int action = std::uniform_int_distribution<int>(0, 2)(random);
    const std::string child = "worker-" + std::to_string(random() % 3);
    if (action == 0) {
      client.status = kStatuses[random() % kStatuses.size()];
      client.process->Command("status " + client.status);
    } else if (action == 1) {
      const std::string value = std::to_string(random() % 100000);
      client.records[child] = value;
      client.removed.erase(child);
      client.process->Command("attr " + child + ":port=" + value);
    } else {
      client.records.erase(child);
      client.removed.insert(child);
      client.process->Command("remove " + child);
    }
    // Whatever the answer ("error" while the instance is being registered again), the
    // supervised registration remembers the change and publishes it.
    ++mutations;
  }

  // What is wrong with the registry now; empty when every invariant holds.
  std::string Violation() const {
    for (const Client& client : clients) {
      const std::string& id = client.process->Id();
      const std::string data = client.process->DataPath();
      if (EphemeralOwner(*reader, client.process->AlivePath()) <= 0) return id + " not listed";
      const std::string status = ReadNode(*reader, data + "/status");
      if (status != client.status) return id + " has status '" + status + "', not " + client.status;
      for (const auto& [child, value] : client.records) {
        const std::string read = ReadNode(*reader, data + "/" + child + "/port");
        if (read != value) return id + " has " + child + " port '" + read + "', not " + value;
      }
      for (const std::string& child : client.removed) {
        if (NodeExists(*reader, data + "/" + child)) return id + " still has removed " + child;
      }
    }
    for (const std::string& leftover : crashedData) {
      if (NodeExists(*reader, leftover)) return "leftover " + leftover;
    }
    return "";
  }

  // Checks the invariants until they hold; a violation when they do not within kHealBound.
  void ExpectHealed(const std::string& fault) {
    std::string last;
    const auto start = std::chrono::steady_clock::now();
    const bool healed = WaitUntil(
        [&] {
          ++checks;
          last = Violation();
          return last.empty();
        },
        std::chrono::duration_cast<std::chrono::milliseconds>(kHealBound), 50ms);
    longestHeal = std::max(longestHeal, std::chrono::duration_cast<std::chrono::milliseconds>(
                                            std::chrono::steady_clock::now() - start));
    if (!healed) {
      ++violations;
      ADD_FAILURE() << "after " << fault << ": " << last;
    }
  }

  int AnyMember() { return static_cast<int>(random() % 3); }

  std::unique_ptr<ZooKeeperEnsemble> ensemble;
  std::string hosts;
  std::shared_ptr<Connection> reader;
  std::vector<std::string> types;
  std::unique_ptr<VisibilityTracker> tracker;
  std::vector<Client> clients;
  std::vector<std::string> crashedData;
  std::mt19937 random{std::random_device{}()};
  long checks = 0, mutations = 0;
  int violations = 0;
  std::chrono::milliseconds longestHeal{0};
  LogCapture capture;  // the reader's failover chatter stays off stderr
};

TEST_F(FaultChaosTest, SupervisedInstancesStayListedWithTheirStateThroughRandomFaults) {
  const unsigned seed = std::random_device{}();
  random.seed(seed);
  for (int i = 0; i < kClients; ++i) clients.push_back(Start(types[i % types.size()]));
  ASSERT_FALSE(HasFailure());
  ExpectHealed("start");

  std::map<std::string, int> faults;
  const int rounds = FaultRounds(8);
  const auto began = std::chrono::steady_clock::now();
  for (int round = 0; round < rounds && violations == 0; ++round) {
    for (int m = 0; m < 3; ++m) Mutate(clients[random() % clients.size()]);
    Client& client = clients[random() % clients.size()];
    std::string fault;
    switch (random() % 5) {
      case 0:
        fault = "client session expired";
        EXPECT_EQ("ok session expired", client.process->Command("expire-session"));
        break;
      case 1: {
        const int leader = ensemble->Leader();
        const int member = random() % 2 == 0 && leader >= 0 ? leader : AnyMember();
        fault = member == leader ? "leader killed" : "member killed";
        ensemble->Kill(member);
        std::this_thread::sleep_for(1000ms);  // the outage
        ensemble->Start(member);
        break;
      }
      case 2: {
        const int member = AnyMember();
        fault = member == ensemble->Leader() ? "leader paused" : "member paused";
        ensemble->Pause(member);
        std::this_thread::sleep_for(kPause);
        ensemble->Resume(member);
        break;
      }
      case 3:
        fault = "client paused";
        client.process->Process().Signal(SIGSTOP);
        std::this_thread::sleep_for(kPause);
        client.process->Process().Signal(SIGCONT);
        break;
      default: {
        fault = "client crashed";
        tracker->Forget(client.process->Id());
        const std::string alive = client.process->AlivePath();
        client.process->Process().Signal(SIGKILL);
        client.process->Process().Wait(10s);
        // Its successor's registration removes the leftover once the liveness node is gone.
        ASSERT_TRUE(WaitUntil([&] { return !NodeExists(*reader, alive); }, 30s));
        crashedData.push_back(client.process->DataPath());
        client = Start(client.type);
        break;
      }
    }
    ++faults[fault];
    ensemble->WaitForQuorum(60s);
    ExpectHealed(fault);
  }
  const auto minutes =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count() / 60;

  std::ostringstream figures;
  figures << rounds << " rounds in " << minutes << " min (seed " << seed << "):";
  for (const auto& [fault, count] : faults) figures << " " << fault << " " << count << ";";
  figures << " " << mutations << " changes of status or records; " << checks
          << " invariant checks, " << violations << " violations; longest wait for the invariants "
          << longestHeal.count() << " ms; " << tracker->Listings()
          << " listings, longest time a live instance was not listed " << tracker->Longest().count()
          << " ms";
  ReportFigures("chaos", figures.str());
  EXPECT_EQ(0, violations);
}

}  // namespace
}  // namespace korvel::test
