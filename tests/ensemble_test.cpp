// A Connection on a 3-node ensemble: losing a member, the leader included,
// costs a reconnect to another member, not the session.
#include <gtest/gtest.h>

#include "korvel/connection_v2.h"
#include "korvel/utils.h"
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

class ExpiryCounter : public qx::korvel::ConnectionObserver {
 public:
  void OnSessionEvent(int, int state, std::string) override {
    if (state == ZOO_EXPIRED_SESSION_STATE) expiries++;
  }
  std::atomic<int> expiries{0};
};

TEST_F(EnsembleTest, SessionSurvivesTheLossOfAnyMember) {
  auto conn = Connect(ensemble->ConnectString(), 6000ms);
  auto counter = std::make_shared<ExpiryCounter>();
  conn->RegisterWeak(counter);
  const auto session = conn->ClientId().client_id;
  const std::string node = "/" + UniqueName("ensemble");
  ASSERT_EQ(ZOK, conn->Create(node, "0", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));

  // The leader first, then each other member in turn.
  std::vector<int> order{ensemble->Leader()};
  ASSERT_GE(order[0], 0);
  for (int i = 0; i < ensemble->Size(); ++i) {
    if (i != order[0]) order.push_back(i);
  }
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

}  // namespace
}  // namespace korvel::test
