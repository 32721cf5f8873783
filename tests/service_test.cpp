// Service registration, status publishing, child attributes and the cleanup
// of crashed instances, against a real standalone server.
#include "korvel/service.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "korvel/error.h"
#include "korvel/utils.h"
#include "stlext/uuid.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::KorvelError;
using qx::korvel::Service;
using qx::logging::QXLOG_ERROR;
using qx::logging::QXLOG_INFO;

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = Connect(SharedServer().ConnectString());
    type = UniqueName("svc");
  }
  void TearDown() override { conn->SetFaultInjector(nullptr); }

  std::string Read(const std::string& path) { return ReadNode(*conn, path); }
  bool Exists(const std::string& path) { return NodeExists(*conn, path); }
  int64_t Session() { return conn->ClientId().client_id; }
  std::vector<CapturedRecord> ServiceRecords(const LogCapture& capture) {
    return capture.FromSource("korvel.service");
  }
  // Registers an instance named by `id` that must fail with KorvelError
  // `message`; returns the service's records of the attempt.
  std::vector<CapturedRecord> RegisterExpectingError(const qx::korvel::ServiceId& id,
                                                     const char* message) {
    LogCapture capture;
    try {
      Service service(conn, type, id, "x");
      ADD_FAILURE() << "registered";
    } catch (const KorvelError& e) {
      EXPECT_STREQ(message, e.what());
    }
    return ServiceRecords(capture);
  }
  // Makes `op` on paths ending in `suffix` answer `rc` without asking the server.
  void Inject(Connection::Operation op, const std::string& suffix, int rc) {
    conn->SetFaultInjector([=](Connection::Operation o, const std::string& path) {
      const bool hit = o == op && path.size() >= suffix.size() &&
                       path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
      return hit ? std::optional<int>(rc) : std::nullopt;
    });
  }

  std::shared_ptr<Connection> conn;
  std::string type;
};

TEST_F(ServiceTest, StatusTexts) {
  EXPECT_STREQ("up", Service::StatusToString(Service::UP));
  EXPECT_STREQ("down", Service::StatusToString(Service::DOWN));
  EXPECT_STREQ("up_sending_disabled", Service::StatusToString(Service::UP_SENDING_DISABLED));
  EXPECT_STREQ("unknown", Service::StatusToString(static_cast<Service::Status>(3)));
  EXPECT_STREQ("unknown", Service::StatusToString(static_cast<Service::Status>(-1)));
}

TEST_F(ServiceTest, RegistrationWritesTheTree) {
  LogCapture capture;
  auto service = std::make_shared<Service>(conn, type, "billing-7");
  const std::string id = qx::uuid::to_string(service->GetId());
  const std::string root = tree::DataDir(type) + "/" + id;
  const std::string alive = tree::AliveDir(type) + "/" + id;
  EXPECT_EQ(root, service->GetRoot());
  EXPECT_EQ(conn, service->GetConnection());

  EXPECT_EQ(Session(), EphemeralOwner(*conn, alive));
  EXPECT_EQ(0, EphemeralOwner(*conn, root));
  for (const char* dir : {tree::kDataRoot, tree::kAliveRoot})
    EXPECT_EQ(0, EphemeralOwner(*conn, dir));
  EXPECT_EQ(0, EphemeralOwner(*conn, tree::DataDir(type)));
  EXPECT_EQ(0, EphemeralOwner(*conn, tree::AliveDir(type)));

  for (const char* attribute : {"status", "service_name", "hostname", "pid", "start_time"}) {
    EXPECT_EQ(Session(), EphemeralOwner(*conn, root + "/" + attribute)) << attribute;
  }
  EXPECT_EQ("down", Read(root + "/status"));
  EXPECT_EQ("billing-7", Read(root + "/service_name"));
  char host[1024] = {};
  gethostname(host, sizeof host - 1);
  EXPECT_EQ(host, Read(root + "/hostname"));
  EXPECT_EQ(std::to_string(getpid()), Read(root + "/pid"));
  const std::string started = Read(root + "/start_time");
  EXPECT_TRUE(std::regex_match(started, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.[1-7])")))
      << started;

  const auto records = ServiceRecords(capture);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(QXLOG_INFO, records[0].level);
  EXPECT_EQ("Initializing Korvel Service: " + id, records[0].message);
  EXPECT_EQ(0u, records[0].id);
  EXPECT_EQ(qx::logging::QXLOG_DECODE_AS_KV, records[0].decodeType);
  EXPECT_EQ("", records[0].handlerName);
  EXPECT_NE(std::string::npos, records[0].filename.find("source/service.cpp"));
}

TEST_F(ServiceTest, EmptyNameWritesNoNameNode) {
  auto service = std::make_shared<Service>(conn, type, "");
  EXPECT_FALSE(Exists(service->GetRoot() + "/service_name"));
  EXPECT_TRUE(Exists(service->GetRoot() + "/hostname"));
}

TEST_F(ServiceTest, EachServiceGetsItsOwnIdentity) {
  auto first = std::make_shared<Service>(conn, type, "same");
  auto second = std::make_shared<Service>(conn, type, "same");
  EXPECT_NE(first->GetId(), second->GetId());
  EXPECT_NE(first->GetRoot(), second->GetRoot());
  EXPECT_TRUE(Exists(first->GetRoot()));
  EXPECT_TRUE(Exists(second->GetRoot()));
}

TEST_F(ServiceTest, GivenIdentityNamesTheNodes) {
  const auto id = qx::korvel::RandomServiceId();
  auto service = std::make_shared<Service>(conn, type, id, "fixed");
  EXPECT_EQ(id, service->GetId());
  EXPECT_EQ(tree::DataPath(type, id), service->GetRoot());
}

TEST_F(ServiceTest, TypeIsNormalised) {
  auto service = std::make_shared<Service>(conn, "//" + type + "///sub/", "n");
  const std::string id = qx::uuid::to_string(service->GetId());
  EXPECT_EQ(tree::DataDir(type) + "/sub/" + id, service->GetRoot());
  EXPECT_TRUE(Exists(tree::AliveDir(type) + "/sub/" + id));
}

TEST_F(ServiceTest, TheTypeAliveIsRefused) {
  for (const std::string stype : {"alive", "/alive", "alive/", "//alive//"}) {
    LogCapture capture;
    try {
      Service service(conn, stype, "x");
      FAIL() << stype;
    } catch (const KorvelError& e) {
      EXPECT_STREQ("application cannot be named 'alive'", e.what());
    }
    EXPECT_TRUE(capture.FromSource("korvel.service").empty()) << stype;
  }
  EXPECT_FALSE(Exists(tree::AliveDir("alive")));
  // Only the exact text is refused.
  auto upper = std::make_shared<Service>(conn, "Alive-" + type, "x");
  EXPECT_TRUE(Exists(upper->GetRoot()));
}

TEST_F(ServiceTest, CreateOrSetWhoseNodeVanishesBetweenCreateAndSet) {
  conn->SetFaultInjector([](Connection::Operation op, const std::string& path) {
    if (path.size() < 7 || path.compare(path.size() - 7, 7, "/status") != 0)
      return std::optional<int>();
    if (op == Connection::Operation::Create) return std::optional<int>(ZNODEEXISTS);
    if (op == Connection::Operation::Set) return std::optional<int>(ZNONODE);
    return std::optional<int>();
  });
  const auto id = qx::korvel::RandomServiceId();
  const std::string status = tree::DataPath(type, id) + "/status";
  const auto records =
      RegisterExpectingError(id, "Failed to set node data: Node was deleted by other process");
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(QXLOG_ERROR, records[1].level);
  EXPECT_EQ("Failed to set node data on '" + status + "': Node was deleted by other process",
            records[1].message);
}

TEST_F(ServiceTest, CreateOrSetWithoutParentFailsInCreate) {
  Inject(Connection::Operation::Create, "/status", ZNONODE);
  const auto id = qx::korvel::RandomServiceId();
  const std::string status = tree::DataPath(type, id) + "/status";
  const auto records = RegisterExpectingError(id, "Failed to create node");
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("Failed to create node '" + status + "': " + zerror(ZNONODE), records[1].message);
}

TEST_F(ServiceTest, CreateOrSetWhoseSetFailsOtherwiseSaysCreate) {
  conn->SetFaultInjector([](Connection::Operation op, const std::string& path) {
    if (path.find("/pid") == std::string::npos) return std::optional<int>();
    if (op == Connection::Operation::Create) return std::optional<int>(ZNODEEXISTS);
    if (op == Connection::Operation::Set) return std::optional<int>(ZCONNECTIONLOSS);
    return std::optional<int>();
  });
  LogCapture capture;
  EXPECT_THROW(Service(conn, type, "x"), KorvelError);
  const auto records = ServiceRecords(capture);
  ASSERT_FALSE(records.empty());
  EXPECT_NE(std::string::npos,
            records.back().message.find(std::string("': ") + zerror(ZCONNECTIONLOSS)));
  EXPECT_EQ(0u, records.back().message.rfind("Failed to create node '", 0));
}

TEST_F(ServiceTest, FailureAtPidLeavesTheEarlierNodesOnly) {
  Inject(Connection::Operation::Create, "/pid", ZNOAUTH);
  const auto id = qx::korvel::RandomServiceId();
  const std::string root = tree::DataPath(type, id);
  {
    LogCapture capture;
    EXPECT_THROW(Service(conn, type, id, "named"), KorvelError);
  }
  conn->SetFaultInjector(nullptr);
  for (const char* node : {"/status", "/service_name", "/hostname"})
    EXPECT_TRUE(Exists(root + node));
  for (const char* node : {"/pid", "/start_time", "/chef_recipe_name", "/version"}) {
    EXPECT_FALSE(Exists(root + node)) << node;
  }
  // Nothing was rolled back.
  EXPECT_TRUE(Exists(tree::AlivePath(type, id)));
}

TEST_F(ServiceTest, ExistingNodesAreOverwrittenAndKeepTheirKind) {
  const auto id = qx::korvel::RandomServiceId();
  const std::string root = tree::DataPath(type, id);
  qx::korvel::EnsurePath(*conn, root, false, ZOO_OPEN_ACL_UNSAFE);
  ASSERT_EQ(ZOK, conn->Create(root + "/status", "old", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(ZOK, conn->Set(root + "/status", "older", -1));
  auto service = std::make_shared<Service>(conn, type, id, "x");
  EXPECT_EQ("down", Read(root + "/status"));
  EXPECT_EQ(0, EphemeralOwner(*conn, root + "/status"));
}

TEST_F(ServiceTest, SetStatusUpdatesTheStatusNode) {
  auto service = std::make_shared<Service>(conn, type, "x");
  const std::string status = service->GetRoot() + "/status";
  Stat before{}, after{};
  ASSERT_EQ(ZOK, conn->Exists(status, &before));
  service->SetStatus(Service::UP);
  EXPECT_EQ("up", Read(status));
  service->SetStatus(Service::UP);  // written again, not compared
  ASSERT_EQ(ZOK, conn->Exists(status, &after));
  EXPECT_EQ(before.version + 2, after.version);
  service->SetStatus(Service::UP_SENDING_DISABLED);
  EXPECT_EQ("up_sending_disabled", Read(status));
  service->SetStatus(static_cast<Service::Status>(42));
  EXPECT_EQ("unknown", Read(status));
  EXPECT_EQ(Session(), EphemeralOwner(*conn, status));
}

TEST_F(ServiceTest, SetStatusNeverCreatesTheNodeButSetChildStatusDoes) {
  auto service = std::make_shared<Service>(conn, type, "x");
  const std::string status = service->GetRoot() + "/status";
  ASSERT_EQ(ZOK, conn->Delete(status, -1));
  for (int attempt = 0; attempt < 2; ++attempt) {
    LogCapture capture;
    try {
      service->SetStatus(Service::UP);
      FAIL();
    } catch (const KorvelError& e) {
      EXPECT_STREQ("Failed to create status node", e.what());
    }
    const auto records = ServiceRecords(capture);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(QXLOG_ERROR, records[0].level);
    EXPECT_EQ(std::string("Failed to create status node: ") + zerror(ZNONODE), records[0].message);
  }
  EXPECT_FALSE(Exists(status));
  service->SetChildStatus(Service::UP, "/");
  EXPECT_EQ("up", Read(status));
  EXPECT_EQ(0, EphemeralOwner(*conn, status));  // re-created persistent
}

TEST_F(ServiceTest, SetStatusReportsOtherFailures) {
  auto service = std::make_shared<Service>(conn, type, "x");
  Inject(Connection::Operation::Set, "/status", ZCONNECTIONLOSS);
  LogCapture capture;
  EXPECT_THROW(service->SetStatus(Service::UP), KorvelError);
  const auto records = ServiceRecords(capture);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(std::string("Failed to create status node: ") + zerror(ZCONNECTIONLOSS),
            records[0].message);
}

TEST_F(ServiceTest, SetChildStatusCreatesNestedChildren) {
  auto service = std::make_shared<Service>(conn, type, "x");
  service->SetChildStatus(Service::UP_SENDING_DISABLED, "app/instance-1");
  const std::string root = service->GetRoot();
  EXPECT_EQ("up_sending_disabled", Read(root + "/app/instance-1/status"));
  for (const std::string node : {"/app", "/app/instance-1", "/app/instance-1/status"}) {
    EXPECT_EQ(0, EphemeralOwner(*conn, root + node)) << node;
  }
}

TEST_F(ServiceTest, ChildAttributeUnderTheServiceItself) {
  auto service = std::make_shared<Service>(conn, type, "x");
  int creates = 0, sets = 0;
  conn->SetFaultInjector([&](Connection::Operation op, const std::string&) {
    creates += op == Connection::Operation::Create;
    sets += op == Connection::Operation::Set;
    return std::optional<int>();
  });
  service->SetChildAttribute("/", "weight", "10");
  EXPECT_EQ(1, sets);
  EXPECT_EQ(1, creates);  // no path creation for "/"
  EXPECT_EQ("10", Read(service->GetRoot() + "/weight"));
  EXPECT_EQ(0, EphemeralOwner(*conn, service->GetRoot() + "/weight"));
}

TEST_F(ServiceTest, ChildAttributeCreatesTheChildOnceThenUpdates) {
  auto service = std::make_shared<Service>(conn, type, "x");
  const std::string root = service->GetRoot();
  service->SetChildAttribute("a/b", "port", "8080");
  EXPECT_EQ("8080", Read(root + "/a/b/port"));
  for (const std::string node : {"/a", "/a/b", "/a/b/port"}) {
    EXPECT_EQ(0, EphemeralOwner(*conn, root + node)) << node;
  }
  int requests = 0;
  conn->SetFaultInjector([&](Connection::Operation, const std::string&) {
    ++requests;
    return std::optional<int>();
  });
  service->SetChildAttribute("/a/b/", "port", "9090");  // the same child
  EXPECT_EQ(1, requests);
  conn->SetFaultInjector(nullptr);
  EXPECT_EQ("9090", Read(root + "/a/b/port"));
  service->SetChildAttribute("a/b", "empty", "");
  EXPECT_EQ("", Read(root + "/a/b/empty"));
  service->SetChildAttribute("alive", "status", "fine");  // names are not checked
  EXPECT_EQ("fine", Read(root + "/alive/status"));
}

TEST_F(ServiceTest, ChildAttributeFailures) {
  auto service = std::make_shared<Service>(conn, type, "x");
  const auto expectFailure = [&](const std::string& child, const std::string& attribute, int code) {
    LogCapture capture;
    try {
      service->SetChildAttribute(child, attribute, "v");
      ADD_FAILURE() << child << " " << attribute;
    } catch (const KorvelError& e) {
      EXPECT_STREQ("Failed to create node", e.what());
    }
    const auto records = ServiceRecords(capture);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(QXLOG_ERROR, records[0].level);
    EXPECT_EQ(std::string("Failed to create node: ") + zerror(code), records[0].message);
  };
  expectFailure("app", "x/y", ZNONODE);      // path creation covers the child only
  expectFailure("", "attr", ZBADARGUMENTS);  // an empty child is no child

  Inject(Connection::Operation::Set, "/lost", ZCONNECTIONLOSS);
  expectFailure("app", "lost", ZCONNECTIONLOSS);
  EXPECT_FALSE(Exists(service->GetRoot() + "/app/lost"));  // no creation attempted

  // Another writer creates the node between the update and the creation.
  service->SetChildAttribute("app", "raced", "first");
  Inject(Connection::Operation::Set, "/raced", ZNONODE);
  expectFailure("app", "raced", ZNODEEXISTS);
}

TEST_F(ServiceTest, CleanupRemovesLeftoversOnly) {
  auto service = std::make_shared<Service>(conn, type, "x");
  const std::string own = qx::uuid::to_string(service->GetId());
  const std::string srv = tree::DataDir(type);
  const std::string alive = tree::AliveDir(type);
  // A stands alive, B crashed with a record below it, C is alive without data.
  ASSERT_EQ(ZOK, conn->Create(srv + "/A", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(alive + "/A", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
  qx::korvel::EnsurePath(*conn, srv + "/B/app/status", false, ZOO_OPEN_ACL_UNSAFE);
  ASSERT_EQ(ZOK, conn->Create(alive + "/C", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
  ASSERT_EQ(ZOK, conn->Create(srv + "/a", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));  // case differs

  int listings = 0;
  conn->SetFaultInjector([&](Connection::Operation op, const std::string& path) {
    listings += op == Connection::Operation::GetChildren && (path == srv || path == alive);
    return std::optional<int>();
  });
  LogCapture capture;
  service->CleanupCrashedApps(type);
  conn->SetFaultInjector(nullptr);
  EXPECT_EQ(2, listings);

  EXPECT_TRUE(Exists(srv + "/A"));
  EXPECT_TRUE(Exists(srv + "/" + own));
  EXPECT_FALSE(Exists(srv + "/B"));
  EXPECT_FALSE(Exists(srv + "/a"));
  EXPECT_FALSE(Exists(srv + "/C"));
  const auto records = ServiceRecords(capture);
  ASSERT_EQ(2u, records.size());
  std::set<std::string> texts;
  for (const auto& record : records) {
    EXPECT_EQ(QXLOG_INFO, record.level);
    texts.insert(record.message);
  }
  for (const std::string name : {"B", "a"}) {
    EXPECT_EQ(1u, texts.count("Cleaning up application in zookeeper. Found '" + srv + "/" + name +
                              "', but did not find '" + alive + "/" + name +
                              "', recursively deleting '" + srv + "/" + name + "'."))
        << name;
  }

  // Nothing left to clean: no record.
  LogCapture quiet;
  service->CleanupCrashedApps(type);
  EXPECT_TRUE(ServiceRecords(quiet).empty());
}

TEST_F(ServiceTest, CleanupOfATypeThatNeverRegisteredDoesNothing) {
  auto service = std::make_shared<Service>(conn, type, "x");
  LogCapture capture;
  EXPECT_NO_THROW(service->CleanupCrashedApps(UniqueName("never")));
  EXPECT_TRUE(ServiceRecords(capture).empty());
}

TEST_F(ServiceTest, CleanupDeletesAlsoWhenItsRecordIsFilteredOut) {
  auto service = std::make_shared<Service>(conn, type, "x");
  ASSERT_EQ(ZOK,
            conn->Create(tree::DataDir(type) + "/crashed", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  LogLevelScope level(qx::logging::QXLOG_WARNING);
  LogCapture capture;
  service->CleanupCrashedApps(type);
  EXPECT_FALSE(Exists(tree::DataDir(type) + "/crashed"));
  EXPECT_TRUE(ServiceRecords(capture).empty());
}

TEST_F(ServiceTest, RegistrationRemovesACrashedInstancesLeftover) {
  // A crashed instance: its session ended without teardown.
  std::string crashedRoot;
  std::unique_ptr<Service> crashed;  // destroyed only after the checks
  {
    auto crashedConn = Connect(SharedServer().ConnectString());
    crashed = std::make_unique<Service>(crashedConn, type, "crashed");
    crashed->SetChildAttribute("app", "port", "1");
    crashedRoot = crashed->GetRoot();
    ExpireSession(SharedServer().ConnectString(), crashedConn->ClientId());
    ASSERT_TRUE(WaitUntil(
        [&] { return conn->Exists(tree::AlivePath(type, crashed->GetId()), nullptr) == ZNONODE; },
        10000ms));
  }
  ASSERT_TRUE(Exists(crashedRoot + "/app/port"));
  LogCapture capture;
  auto fresh = std::make_shared<Service>(conn, type, "fresh");
  EXPECT_FALSE(Exists(crashedRoot));
  EXPECT_TRUE(Exists(fresh->GetRoot()));
  bool reported = false;
  for (const auto& record : ServiceRecords(capture)) {
    reported |=
        record.message.find("recursively deleting '" + crashedRoot + "'") != std::string::npos;
  }
  EXPECT_TRUE(reported);
}

TEST_F(ServiceTest, RestartWithTheSameIdentityKeepsItsOwnDataNode) {
  const auto id = qx::korvel::RandomServiceId();
  const std::string root = tree::DataPath(type, id);
  qx::korvel::EnsurePath(*conn, root + "/app/port", false, ZOO_OPEN_ACL_UNSAFE);
  auto service = std::make_shared<Service>(conn, type, id, "again");
  EXPECT_TRUE(Exists(root + "/app/port"));
}

TEST_F(ServiceTest, DestructionRemovesTheTreeAndTheLivenessNode) {
  auto service = std::make_shared<Service>(conn, type, "x");
  service->SetChildAttribute("app/one", "port", "1");
  const std::string root = service->GetRoot();
  const std::string alive = tree::AlivePath(type, service->GetId());
  LogCapture capture;
  service.reset();
  EXPECT_FALSE(Exists(root));
  EXPECT_FALSE(Exists(alive));
  EXPECT_TRUE(ServiceRecords(capture).empty());
}

}  // namespace
}  // namespace korvel::test
