// A Service across session events (expiry, re-registration), child removal
// and teardown, against real servers.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "korvel/error.h"
#include "korvel/service.h"
#include "korvel/utils.h"
#include "stlext/uuid.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::ConnectionObserver;
using qx::korvel::KorvelError;
using qx::korvel::Service;
using qx::logging::QXLOG_DEBUG;
using qx::logging::QXLOG_ERROR;
using qx::logging::QXLOG_INFO;
using qx::logging::QXLOG_WARNING;

const std::string kExpiredText = "Session expired. Flagging data for update on reconnect.";
const std::string kReconnectedText = "Reconnected. Updating service node data.";

int CountMessages(const LogCapture& capture, const std::string& prefix) {
  int count = 0;
  for (const auto& record : capture.FromSource("korvel.service")) {
    count += record.message.rfind(prefix, 0) == 0;
  }
  return count;
}

class ServiceSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = Connect(SharedServer().ConnectString());
    type = UniqueName("sess");
  }
  void TearDown() override { conn->SetFaultInjector(nullptr); }

  std::string Read(const std::string& path) { return ReadNode(*conn, path); }
  bool Exists(const std::string& path) { return NodeExists(*conn, path); }
  std::string AlivePath(const Service& service) { return tree::AlivePath(type, service.GetId()); }
  // Delivers a session event the way the connection does.
  static void Deliver(Service& service, int type, int state) {
    static_cast<ConnectionObserver&>(service).OnSessionEvent(type, state, "");
  }

  std::shared_ptr<Connection> conn;
  std::string type;
};

TEST_F(ServiceSessionTest, ConnectedWithoutExpiryDoesNothing) {
  auto service = std::make_shared<Service>(conn, type, "x");
  LogCapture capture;
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE);
  EXPECT_TRUE(capture.FromSource("korvel.service").empty());
}

TEST_F(ServiceSessionTest, TwoExpiriesOneRepublication) {
  auto service = std::make_shared<Service>(conn, type, "x");
  LogCapture capture;
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE);
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE);
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE);
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE);
  EXPECT_EQ(2, CountMessages(capture, kExpiredText));
  EXPECT_EQ(1, CountMessages(capture, kReconnectedText));
  EXPECT_EQ(1, CountMessages(capture, "Initializing Korvel Service: "));
  for (const auto& record : capture.FromSource("korvel.service")) {
    EXPECT_EQ(QXLOG_INFO, record.level);
  }
}

TEST_F(ServiceSessionTest, RegistersAgainWhileAnotherThreadPublishes) {
  auto service = std::make_shared<Service>(conn, type, "x");
  const std::string root = service->GetRoot();
  // Readers copy the path while it is being built again: its buffer must stay.
  const char* const buffer = service->GetRoot().data();
  LogCapture quiet;
  std::atomic<bool> stop{false};
  std::atomic<int> published{0};
  std::thread publisher([&] {
    while (!stop) {
      service->SetStatus(Service::UP);
      ++published;
    }
  });
  WaitUntil([&] { return published > 0; }, 5000ms);  // publishing before registering again
  for (int i = 0; i < 3; ++i) {
    Deliver(*service, ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE);
    Deliver(*service, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE);
  }
  stop = true;
  publisher.join();
  EXPECT_GT(published, 0);
  EXPECT_EQ(root, service->GetRoot());
  EXPECT_EQ(buffer, service->GetRoot().data());
  EXPECT_TRUE(Exists(AlivePath(*service)));
  service->SetStatus(Service::UP);
  EXPECT_EQ("up", Read(root + "/status"));
}

TEST_F(ServiceSessionTest, OtherEventsAndStatesAreIgnored) {
  auto service = std::make_shared<Service>(conn, type, "x");
  LogCapture capture;
  for (int event : {ZOO_CREATED_EVENT, ZOO_DELETED_EVENT, ZOO_CHANGED_EVENT, ZOO_CHILD_EVENT}) {
    Deliver(*service, event, ZOO_EXPIRED_SESSION_STATE);
    Deliver(*service, event, ZOO_CONNECTED_STATE);
  }
  for (int state : {ZOO_CONNECTING_STATE, ZOO_ASSOCIATING_STATE, ZOO_AUTH_FAILED_STATE,
                    ZOO_READONLY_STATE, ZOO_NOTCONNECTED_STATE}) {
    Deliver(*service, ZOO_SESSION_EVENT, state);
  }
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE);
  EXPECT_TRUE(capture.FromSource("korvel.service").empty());
}

TEST_F(ServiceSessionTest, FailedRepublicationIsNotRetriedUntilTheNextExpiry) {
  auto service = std::make_shared<Service>(conn, type, "x");
  conn->SetFaultInjector([](Connection::Operation op, const std::string& path) {
    const bool status = path.size() > 7 && path.compare(path.size() - 7, 7, "/status") == 0;
    return op == Connection::Operation::Create && status ? std::optional<int>(ZNOAUTH)
                                                         : std::nullopt;
  });
  LogCapture capture;
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE);
  EXPECT_THROW(Deliver(*service, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE), KorvelError);
  conn->SetFaultInjector(nullptr);
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE);
  EXPECT_EQ(1, CountMessages(capture, "Initializing Korvel Service: "));
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE);
  Deliver(*service, ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE);
  EXPECT_EQ(2, CountMessages(capture, "Initializing Korvel Service: "));
}

struct RegistersInItsConstructor : Service {
  RegistersInItsConstructor(std::shared_ptr<Connection> conn, std::string type)
      : Service(std::move(conn), std::move(type), "x") {
    RegisterForSessionEvent();
  }
};

TEST_F(ServiceSessionTest, RegisteringWithoutASharedOwnerThrows) {
  Service onStack(conn, type, "x");
  EXPECT_THROW(onStack.RegisterForSessionEvent(), std::bad_weak_ptr);
  EXPECT_THROW(std::make_shared<RegistersInItsConstructor>(conn, type), std::bad_weak_ptr);
}

// The real thing: the server expires the session, the connection opens a new
// one, and the service registers again by itself.
TEST_F(ServiceSessionTest, ExpiryRegistersTheServiceAgainUnderTheNewSession) {
  auto service = std::make_shared<Service>(conn, type, "x");
  service->RegisterForSessionEvent();
  service->RegisterForSessionEvent();  // twice: every expiry is logged twice
  service->SetStatus(Service::UP);
  service->SetChildAttribute("app", "port", "8080");
  const std::string root = service->GetRoot();
  Stat childBefore{};
  ASSERT_EQ(ZOK, conn->Exists(root + "/app/port", &childBefore));
  const std::string startedBefore = Read(root + "/start_time");
  std::this_thread::sleep_for(1100ms);  // the start time has a resolution of seconds

  LogCapture capture;
  const auto old = conn->ClientId().client_id;
  ExpireSession(SharedServer().ConnectString(), conn->ClientId());
  ASSERT_TRUE(WaitUntil(
      [&] { return CountMessages(capture, "Initializing Korvel Service: ") == 1; }, 15000ms));
  ASSERT_TRUE(
      WaitUntil([&] { return Exists(root + "/version") || Exists(root + "/start_time"); }, 5000ms));
  const auto fresh = conn->ClientId().client_id;
  ASSERT_NE(old, fresh);
  EXPECT_EQ(2, CountMessages(capture, kExpiredText));
  EXPECT_EQ(1, CountMessages(capture, kReconnectedText));

  EXPECT_EQ(fresh, EphemeralOwner(*conn, AlivePath(*service)));
  ASSERT_TRUE(
      WaitUntil([&] { return EphemeralOwner(*conn, root + "/start_time") == fresh; }, 5000ms));
  for (const char* attribute : {"/status", "/service_name", "/hostname", "/pid"}) {
    EXPECT_EQ(fresh, EphemeralOwner(*conn, root + attribute)) << attribute;
  }
  EXPECT_EQ("down", Read(root + "/status"));
  EXPECT_NE(startedBefore, Read(root + "/start_time"));
  Stat childAfter{};
  ASSERT_EQ(ZOK, conn->Exists(root + "/app/port", &childAfter));
  EXPECT_EQ(childBefore.czxid, childAfter.czxid);
  EXPECT_EQ(childBefore.mzxid, childAfter.mzxid);
  EXPECT_EQ("8080", Read(root + "/app/port"));
}

TEST_F(ServiceSessionTest, RemoveChildDeletesDepthFirst) {
  auto service = std::make_shared<Service>(conn, type, "x");
  const std::string root = service->GetRoot();
  service->SetChildAttribute("app/one", "port", "1");
  service->SetChildAttribute("app/two", "port", "2");
  service->SetChildStatus(Service::UP, "app");
  std::vector<std::string> deleted;
  conn->SetFaultInjector([&](Connection::Operation op, const std::string& path) {
    if (op == Connection::Operation::Delete) deleted.push_back(path);
    return std::optional<int>();
  });
  LogLevelScope level(QXLOG_DEBUG);
  LogCapture capture;
  service->RemoveChild("app", false);
  conn->SetFaultInjector(nullptr);

  EXPECT_FALSE(Exists(root + "/app"));
  EXPECT_TRUE(Exists(root + "/status"));
  // Every node after all of its descendants.
  ASSERT_EQ(6u, deleted.size());
  for (std::size_t i = 0; i < deleted.size(); ++i) {
    for (std::size_t j = i + 1; j < deleted.size(); ++j) {
      EXPECT_NE(0u, deleted[j].find(deleted[i] + "/")) << deleted[i] << " before " << deleted[j];
    }
  }
  EXPECT_EQ(root + "/app", deleted.back());
  // One DEBUG record per node, a node's before its descendants'.
  std::vector<std::string> logged;
  for (const auto& record : capture.FromSource("korvel.service")) {
    EXPECT_EQ(QXLOG_DEBUG, record.level);
    const std::string prefix = "Removing zookeeper node: ";
    ASSERT_EQ(0u, record.message.rfind(prefix, 0));
    logged.push_back(record.message.substr(prefix.size()));
  }
  ASSERT_EQ(6u, logged.size());
  EXPECT_EQ(root + "/app", logged.front());
  for (std::size_t i = 0; i < logged.size(); ++i) {
    for (std::size_t j = i + 1; j < logged.size(); ++j) {
      EXPECT_NE(0u, logged[i].find(logged[j] + "/")) << logged[j] << " after " << logged[i];
    }
  }
}

TEST_F(ServiceSessionTest, RemoveChildOfAMissingChild) {
  auto service = std::make_shared<Service>(conn, type, "x");
  LogLevelScope level(QXLOG_DEBUG);
  int deletes = 0;
  conn->SetFaultInjector([&](Connection::Operation op, const std::string&) {
    deletes += op == Connection::Operation::Delete;
    return std::optional<int>();
  });
  {
    LogCapture capture;
    service->RemoveChild("nothing", true);
    const auto records = capture.FromSource("korvel.service");
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(QXLOG_DEBUG, records[0].level);
    EXPECT_EQ("Removing zookeeper node: " + service->GetRoot() + "/nothing", records[0].message);
    EXPECT_EQ(0, deletes);
  }
  {
    LogCapture capture;
    service->RemoveChild("nothing", false);
    const auto records = capture.FromSource("korvel.service");
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(QXLOG_ERROR, records[1].level);
    EXPECT_EQ("Failed to delete node (result = -101)", records[1].message);
  }
}

TEST_F(ServiceSessionTest, RemoveChildNormalisesThePath) {
  auto service = std::make_shared<Service>(conn, type, "x");
  service->SetChildAttribute("app", "port", "1");
  LogCapture capture;
  service->RemoveChild("//app/", false);
  EXPECT_FALSE(Exists(service->GetRoot() + "/app"));
  EXPECT_TRUE(capture.FromSource("korvel.service").empty());  // DEBUG is below the level
}

TEST_F(ServiceSessionTest, DestroyingAServiceWhoseTreeIsGone) {
  auto service = std::make_shared<Service>(conn, type, "x");
  const std::string alive = AlivePath(*service);
  qx::korvel::RecursiveDelete(*conn, service->GetRoot());
  LogCapture capture;
  service.reset();
  EXPECT_FALSE(Exists(alive));
  EXPECT_TRUE(capture.FromSource("korvel.service").empty());
}

TEST_F(ServiceSessionTest, FailedTreeRemovalIsAWarningAndTheLivenessNodeStillGoes) {
  auto service = std::make_shared<Service>(conn, type, "x");
  const std::string alive = AlivePath(*service);
  const std::string root = service->GetRoot();
  conn->SetFaultInjector([root](Connection::Operation op, const std::string& path) {
    return op == Connection::Operation::GetChildren && path == root ? std::optional<int>(ZNOAUTH)
                                                                    : std::nullopt;
  });
  LogCapture capture;
  service.reset();
  conn->SetFaultInjector(nullptr);
  const auto records = capture.FromSource("korvel.service");
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(QXLOG_WARNING, records[0].level);
  EXPECT_EQ("Failed to remove service tree", records[0].message);
  EXPECT_FALSE(Exists(alive));
  EXPECT_TRUE(Exists(root));
}

// A server paused for longer than the session timeout. When it resumes, it
// either expires the session first (the service then registers again under a
// new one) or takes the client's reconnection first (the session lives on):
// which one wins is the server's race. Either way the service ends up
// registered under the session the connection holds, once, with no leftover.
TEST(ServicePauseTest, PausedServerLeavesTheServiceRegistered) {
  ZooKeeperServer server;
  auto conn = Connect(server.ConnectString(), 2000ms);
  const std::string type = UniqueName("pause");
  auto service = std::make_shared<Service>(conn, type, "x");
  service->RegisterForSessionEvent();
  service->SetStatus(Service::UP);
  const auto old = conn->ClientId().client_id;
  const std::string alive = tree::AlivePath(type, service->GetId());

  LogCapture capture;
  server.Pause();
  std::this_thread::sleep_for(3500ms);
  server.Resume();
  const auto registeredUnderCurrentSession = [&] {
    const auto session = conn->ClientId().client_id;
    return conn->State() == ZOO_CONNECTED_STATE && EphemeralOwner(*conn, alive) == session &&
           EphemeralOwner(*conn, service->GetRoot() + "/start_time") == session;
  };
  // Once the connection has answered requests and delivered a control watch
  // after the events before it, an expiry still under way has shown.
  ASSERT_TRUE(WaitUntil(
      [&] {
        return registeredUnderCurrentSession() && AwaitEarlierEvents(*conn) &&
               registeredUnderCurrentSession();
      },
      20000ms));
  const bool newSession = conn->ClientId().client_id != old;
  RecordProperty("new_session", newSession ? "yes" : "no");
  std::vector<std::string> instances;
  ASSERT_EQ(ZOK, conn->GetChildren(tree::AliveDir(type), instances));
  EXPECT_EQ(1u, instances.size());
  std::string status;
  ASSERT_EQ(ZOK, conn->Get(service->GetRoot() + "/status", status, nullptr));
  EXPECT_EQ(newSession ? "down" : "up", status);
}

}  // namespace
}  // namespace korvel::test
