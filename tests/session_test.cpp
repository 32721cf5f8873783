// Session events of a Connection against a real standalone server: forced
// expiry and the new session, a server restart within the session timeout,
// and the observers that hear of both.
#include <gtest/gtest.h>

#include <condition_variable>

#include "korvel/connection_v2.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;

// Records the states of the session events it is given.
class StateRecorder : public qx::korvel::ConnectionObserver {
 public:
  void OnSessionEvent(int type, int state, std::string) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_types.push_back(type);
    m_states.push_back(state);
    m_cv.notify_all();
  }
  bool WaitForState(int state, std::chrono::milliseconds timeout = 10000ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, timeout, [&] {
      return std::find(m_states.begin(), m_states.end(), state) != m_states.end();
    });
  }
  // Waits for an expiry and the connection of the new session after it.
  bool WaitForNewSession(std::chrono::milliseconds timeout = 10000ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, timeout, [&] {
      auto expired = std::find(m_states.begin(), m_states.end(), ZOO_EXPIRED_SESSION_STATE);
      return std::find(expired, m_states.end(), ZOO_CONNECTED_STATE) != m_states.end();
    });
  }
  std::vector<int> States() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_states;
  }
  std::vector<int> Types() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_types;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::vector<int> m_types;
  std::vector<int> m_states;
};

class ThrowingObserver : public qx::korvel::ConnectionObserver {
 public:
  void OnSessionEvent(int, int, std::string) override { throw std::runtime_error("observer bug"); }
};

TEST(SessionTest, ForcedExpiryOpensANewSessionByItself) {
  ZooKeeperServer& server = SharedServer();
  auto conn = Connect(server.ConnectString(), 3000ms);
  auto recorder = std::make_shared<StateRecorder>();
  conn->RegisterWeak(recorder);
  const std::string node = "/" + UniqueName("expiry");
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(node + "/eph", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));

  // Pending watches of the old session learn once that they will never fire.
  std::mutex mutex;
  std::vector<std::tuple<int, int, std::string>> watchEvents;
  auto record = [&](int type, int state, std::string path) {
    std::lock_guard<std::mutex> lock(mutex);
    watchEvents.emplace_back(type, state, path);
  };
  std::string value;
  auto [getRc, getHandle] = conn->Get(node, value, record, nullptr);
  ASSERT_EQ(ZOK, getRc);
  auto [existsRc, existsHandle] = conn->Exists(node + "/not-yet", record, nullptr);
  ASSERT_EQ(ZNONODE, existsRc);

  LogCapture capture;
  const clientid_t old = conn->ClientId();
  ExpireSession(server.ConnectString(), old);
  ASSERT_TRUE(recorder->WaitForNewSession());
  for (int type : recorder->Types()) EXPECT_EQ(ZOO_SESSION_EVENT, type);

  // The new session serves requests and owns what it creates.
  const auto fresh = conn->ClientId().client_id;
  EXPECT_NE(old.client_id, fresh);
  EXPECT_EQ(ZOO_CONNECTED_STATE, conn->State());
  EXPECT_EQ(ZNONODE, conn->Exists(node + "/eph", nullptr));
  ASSERT_EQ(ZOK, conn->Create(node + "/eph", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
  EXPECT_EQ(fresh, EphemeralOwner(*conn, node + "/eph"));

  // Each pending watch got the expiry once, and nothing more after changes.
  ASSERT_EQ(ZOK, conn->Set(node, "changed", -1));
  ASSERT_EQ(ZOK, conn->Create(node + "/not-yet", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  {
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(2u, watchEvents.size());
    EXPECT_EQ(std::make_tuple(ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE, node), watchEvents[0]);
    EXPECT_EQ(std::make_tuple(ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE, node + "/not-yet"),
              watchEvents[1]);
  }
  bool loggedExpiry = false;
  for (const auto& r : capture.FromSource("korvel.connection")) {
    loggedExpiry |= r.message.find("expired") != std::string::npos;
  }
  EXPECT_TRUE(loggedExpiry);
}

TEST(SessionTest, ObserversAreIsolatedFromEachOther) {
  ZooKeeperServer& server = SharedServer();
  auto conn = Connect(server.ConnectString(), 3000ms);
  auto thrower = std::make_shared<ThrowingObserver>();
  auto recorder = std::make_shared<StateRecorder>();
  auto twice = std::make_shared<StateRecorder>();
  {
    auto gone = std::make_shared<StateRecorder>();
    conn->RegisterWeak(gone);  // destroyed without unregistering
  }
  conn->RegisterWeak(thrower);
  conn->RegisterWeak(recorder);
  conn->RegisterWeak(twice);
  conn->RegisterWeak(twice);
  conn->RegisterWeak(std::weak_ptr<StateRecorder>());

  LogCapture capture;
  ExpireSession(server.ConnectString(), conn->ClientId());
  ASSERT_TRUE(twice->WaitForNewSession());  // notified last, so all others were too
  // Registered twice, notified twice.
  EXPECT_TRUE(
      WaitUntil([&] { return twice->States().size() == 2 * recorder->States().size(); }, 2000ms));
  int observerErrors = 0;
  for (const auto& r : capture.FromSource("korvel.connection")) {
    if (r.level == qx::logging::QXLOG_ERROR &&
        r.message == "Session observer failed: observer bug") {
      ++observerErrors;
    }
  }
  EXPECT_EQ(static_cast<int>(recorder->States().size()), observerErrors);
}

TEST(SessionTest, UnregisteredObserversHearNothing) {
  ZooKeeperServer& server = SharedServer();
  auto conn = Connect(server.ConnectString(), 3000ms);
  auto recorder = std::make_shared<StateRecorder>();
  auto removed = std::make_shared<StateRecorder>();
  conn->RegisterWeak(recorder);
  conn->RegisterWeak(removed);
  conn->Unregister(removed.get());
  ExpireSession(server.ConnectString(), conn->ClientId());
  ASSERT_TRUE(recorder->WaitForNewSession());
  EXPECT_TRUE(removed->States().empty());
}

// A server that is away for less than the session timeout costs a reconnect,
// not the session: no expiry, the same session, ephemeral nodes and watches kept.
TEST(SessionTest, ServerRestartWithinTheSessionTimeoutKeepsTheSession) {
  ZooKeeperServer server;
  auto conn = Connect(server.ConnectString(), 10000ms);
  auto recorder = std::make_shared<StateRecorder>();
  conn->RegisterWeak(recorder);
  const std::string node = "/" + UniqueName("restart");
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
  std::atomic<int> fired{0};
  std::string value;
  auto [rc, handle] = conn->Get(
      node, value, [&](int, int, std::string) { fired++; }, nullptr);
  ASSERT_EQ(ZOK, rc);
  const auto session = conn->ClientId().client_id;

  LogCapture capture;  // keeps the client's reconnect attempts off stderr
  server.Stop();
  ASSERT_TRUE(recorder->WaitForState(ZOO_CONNECTING_STATE));
  server.Start();
  ASSERT_TRUE(WaitUntil([&] { return conn->State() == ZOO_CONNECTED_STATE; }, 10000ms));
  ASSERT_TRUE(recorder->WaitForState(ZOO_CONNECTED_STATE));

  const auto states = recorder->States();
  EXPECT_EQ(states.end(), std::find(states.begin(), states.end(), ZOO_EXPIRED_SESSION_STATE));
  EXPECT_EQ(session, conn->ClientId().client_id);
  EXPECT_EQ(session, EphemeralOwner(*conn, node));
  EXPECT_EQ(0, fired.load());  // a reconnect does not use a watch up
  ASSERT_EQ(ZOK, conn->Set(node, "after restart", -1));
  EXPECT_TRUE(WaitUntil([&] { return fired.load() == 1; }, 5000ms));
}

}  // namespace
}  // namespace korvel::test
