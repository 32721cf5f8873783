// A Connection on a 3-node ensemble: losing a member, the leader included,
// costs a reconnect to another member, not the session.
#include <gtest/gtest.h>

#include "korvel/connection_v2.h"
#include "korvel/error.h"
#include "korvel/service.h"
#include "korvel/service_cache.h"
#include "korvel/utils.h"
#include "stlext/uuid.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

class EnsembleTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ensemble = new ZooKeeperEnsemble(3); }
  static void TearDownTestSuite() {
    delete ensemble;
    ensemble = nullptr;
  }
  void SetUp() override { ensemble->WaitForQuorum(30000ms); }

  static ZooKeeperEnsemble* ensemble;
  LogCapture capture;  // the client's reconnect chatter stays off stderr
};

ZooKeeperEnsemble* EnsembleTest::ensemble = nullptr;

TEST_F(EnsembleTest, SessionSurvivesTheLossOfAnyMember) {
  auto conn = Connect(ensemble->ConnectString(), 6000ms);
  auto counter = std::make_shared<ExpiryCounter>();
  conn->RegisterWeak(counter);
  const auto session = conn->ClientId().client_id;
  const std::string node = "/" + UniqueName("ensemble");
  ASSERT_EQ(ZOK, conn->Create(node, "0", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));

  // The leader first, then each other member in turn.
  const std::vector<int> order = MembersLeaderFirst(*ensemble);
  ASSERT_FALSE(order.empty()) << "no leader";
  int round = 0;
  for (int member : order) {
    ensemble->Stop(member);
    const std::string value = std::to_string(++round);
    EXPECT_TRUE(WaitUntil([&] { return conn->Set(node, value, -1) == ZOK; }, 20000ms))
        << "member " << member;
    std::string read;
    EXPECT_EQ(ZOK, conn->Get(node, read, nullptr));
    EXPECT_EQ(value, read);
    ensemble->Start(member);
    ensemble->WaitForQuorum(30000ms);
  }
  EXPECT_EQ(0, counter->expiries.load());
  EXPECT_EQ(session, conn->ClientId().client_id);
  EXPECT_EQ(session, EphemeralOwner(*conn, node));
}

TEST_F(EnsembleTest, ForcedExpiryOnTheEnsembleGivesAWorkingNewSession) {
  auto conn = Connect(ensemble->ConnectString(), 4000ms);
  const std::string alive = "/" + UniqueName("ens-alive") + "/a/b";
  qx::korvel::EnsurePath(*conn, alive, true, ZOO_OPEN_ACL_UNSAFE);
  const auto old = conn->ClientId();
  ExpireSession(ensemble->ConnectString(), old);
  ASSERT_TRUE(WaitUntil(
      [&] {
        return conn->ClientId().client_id != old.client_id && conn->State() == ZOO_CONNECTED_STATE;
      },
      20000ms));
  // The old session's node may still be visible on the member we talk to:
  // ensuring it again must leave it owned by the new session.
  qx::korvel::EnsurePath(*conn, alive, true, ZOO_OPEN_ACL_UNSAFE);
  EXPECT_EQ(conn->ClientId().client_id, EphemeralOwner(*conn, alive));
}

TEST_F(EnsembleTest, RegistrationAndCleanupOnTheEnsemble) {
  auto conn = Connect(ensemble->ConnectString(), 4000ms);
  const std::string type = UniqueName("ens-svc");
  const std::string leftover = tree::DataPath(type, qx::korvel::RandomServiceId());
  qx::korvel::EnsurePath(*conn, leftover + "/app/port", false, ZOO_OPEN_ACL_UNSAFE);

  auto service = std::make_shared<qx::korvel::Service>(conn, type, "on-ensemble");
  EXPECT_EQ(ZNONODE, conn->Exists(leftover, nullptr));
  EXPECT_EQ(conn->ClientId().client_id,
            EphemeralOwner(*conn, tree::AlivePath(type, service->GetId())));
  auto reader = Connect(ensemble->ConnectString(), 4000ms);
  qx::korvel::OldServiceWatcher watcher(reader, type);
  auto [rc, instances] = watcher.List();
  ASSERT_EQ(ZOK, rc);
  EXPECT_EQ(std::vector<qx::korvel::ServiceId>{service->GetId()}, instances);
}

// The writer and the reader keep working while any one member is down.
TEST_F(EnsembleTest, ServiceStaysListedThroughTheLossOfAnyMember) {
  auto conn = Connect(ensemble->ConnectString(), 6000ms);
  auto reader = Connect(ensemble->ConnectString(), 6000ms);
  const std::string type = UniqueName("failover");
  auto service = std::make_shared<qx::korvel::Service>(conn, type, "steady");
  service->RegisterForSessionEvent();
  qx::korvel::OldServiceWatcher watcher(reader, type);
  const auto session = conn->ClientId().client_id;

  const std::vector<int> order = MembersLeaderFirst(*ensemble);
  ASSERT_FALSE(order.empty()) << "no leader";
  for (int member : order) {
    ensemble->Stop(member);
    const auto status =
        member % 2 ? qx::korvel::Service::UP : qx::korvel::Service::UP_SENDING_DISABLED;
    EXPECT_TRUE(WaitUntil(
        [&] {
          try {
            service->SetStatus(status);
            return true;
          } catch (const qx::korvel::KorvelError&) {
            return false;  // the client is still moving to another member
          }
        },
        20000ms))
        << "member " << member;
    EXPECT_TRUE(WaitUntil(
        [&] {
          auto [rc, instances] = watcher.List();
          if (rc != ZOK || instances != std::vector<qx::korvel::ServiceId>{service->GetId()}) {
            return false;
          }
          auto [readRc, value] = watcher.GetAttribute(service->GetId(), "status");
          return readRc == ZOK && value == qx::korvel::Service::StatusToString(status);
        },
        20000ms))
        << "member " << member;
    ensemble->Start(member);
    ensemble->WaitForQuorum(30000ms);
  }
  EXPECT_EQ(session, conn->ClientId().client_id);
}

TEST_F(EnsembleTest, ExpiryOnTheEnsembleRegistersTheServiceAgain) {
  auto conn = Connect(ensemble->ConnectString(), 4000ms);
  const std::string type = UniqueName("ens-expiry");
  auto service = std::make_shared<qx::korvel::Service>(conn, type, "x");
  service->RegisterForSessionEvent();
  service->SetStatus(qx::korvel::Service::UP);
  const std::string alive = tree::AlivePath(type, service->GetId());
  const auto old = conn->ClientId().client_id;
  ExpireSession(ensemble->ConnectString(), conn->ClientId());
  ASSERT_TRUE(WaitUntil(
      [&] {
        const auto fresh = conn->ClientId().client_id;
        return fresh != old && EphemeralOwner(*conn, service->GetRoot() + "/start_time") == fresh;
      },
      20000ms));
  EXPECT_EQ(conn->ClientId().client_id, EphemeralOwner(*conn, alive));
  std::string status;
  ASSERT_EQ(ZOK, conn->Get(service->GetRoot() + "/status", status, nullptr));
  EXPECT_EQ("down", status);
}

// The cache keeps following the tree while any one member is down.
TEST_F(EnsembleTest, CacheFollowsChangesThroughFailover) {
  auto conn = Connect(ensemble->ConnectString(), 6000ms);
  auto reader = Connect(ensemble->ConnectString(), 6000ms);
  const std::string type = UniqueName("ens-cache");
  auto first = std::make_shared<qx::korvel::Service>(conn, type, "first");
  qx::korvel::ServiceCache cache(reader, type);
  cache.Start();
  ASSERT_TRUE(cache.WaitUntilCurrent(20000ms));

  const std::vector<int> order = MembersLeaderFirst(*ensemble);
  ASSERT_FALSE(order.empty()) << "no leader";
  std::vector<std::shared_ptr<qx::korvel::Service>> added;
  for (int member : order) {
    ensemble->Stop(member);
    std::shared_ptr<qx::korvel::Service> service;
    ASSERT_TRUE(WaitUntil(
        [&] {
          try {
            service = std::make_shared<qx::korvel::Service>(conn, type, "during");
            return true;
          } catch (const qx::korvel::KorvelError&) {
            return false;  // the client is still moving to another member
          }
        },
        20000ms));
    added.push_back(service);
    EXPECT_TRUE(WaitUntil(
        [&] {
          const auto snapshot = cache.Snapshot();
          return snapshot->current && snapshot->Find(service->GetId()) != nullptr &&
                 snapshot->instances.size() == added.size() + 1;
        },
        20000ms))
        << "member " << member;
    ensemble->Start(member);
    ensemble->WaitForQuorum(30000ms);
  }
  first->SetStatus(qx::korvel::Service::UP);
  EXPECT_TRUE(
      WaitUntil([&] { return cache.Pick() && cache.Pick()->id == first->GetId(); }, 20000ms));
}

// Read replicas: caches connected only to observers see every change, also while the leader
// is gone and after it is back.
TEST(EnsembleObserverTest, CachesOnObserversFollowEveryChangeThroughTheLossOfTheLeader) {
  ZooKeeperEnsemble ensemble(3, 100, 1);
  LogCapture capture;
  ASSERT_NE(std::string::npos,
            FourLetterWord(ensemble.ClientPort(3), "srvr", 5000ms).find("Mode: observer"));
  auto writer = Connect(ensemble.ConnectString(), 6000ms);
  auto reader = Connect(ensemble.ObserverConnectString(), 6000ms);
  const std::string type = UniqueName("observed");
  std::vector<std::shared_ptr<qx::korvel::Service>> services;
  std::unique_ptr<qx::korvel::ServiceCache> cache;
  const auto registerOne = [&] {
    return WaitUntil(
        [&] {
          try {
            services.push_back(std::make_shared<qx::korvel::Service>(writer, type, "observed"));
            return true;
          } catch (const qx::korvel::KorvelError&) {
            return false;  // no leader yet
          }
        },
        30000ms);
  };
  // The cache's snapshot holds exactly the registered services, each with status `status`.
  const auto follows = [&](const std::string& status) {
    return WaitUntil(
        [&] {
          const auto snapshot = cache->Snapshot();
          if (!snapshot->current || snapshot->instances.size() != services.size()) return false;
          for (const auto& service : services) {
            const auto found = snapshot->Find(service->GetId());
            if (!found || !found->Attribute("status") || *found->Attribute("status") != status) {
              return false;
            }
          }
          return true;
        },
        30000ms);
  };
  ASSERT_TRUE(registerOne());
  cache = std::make_unique<qx::korvel::ServiceCache>(reader, type);
  cache->Start();
  ASSERT_TRUE(follows("down"));

  const int leader = ensemble.Leader();
  ASSERT_GE(leader, 0);
  ensemble.Kill(leader);
  ASSERT_TRUE(registerOne());  // once the two left have elected a leader
  services.erase(services.begin());
  ASSERT_TRUE(follows("down")) << "while the old leader is gone";
  ensemble.Start(leader);
  ensemble.WaitForQuorum(30000ms);
  ASSERT_TRUE(registerOne());
  for (const auto& service : services) service->SetStatus(qx::korvel::Service::UP);
  EXPECT_TRUE(follows("up")) << "after the old leader is back";
}

}  // namespace
}  // namespace korvel::test
