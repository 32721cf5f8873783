// OldServiceWatcher against a real standalone server: listing the live
// instances of a type, reading their attributes, and the watch forms of both.
// The nodes of an instance are made here directly with the Connection.
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>
#include <condition_variable>

#include "korvel/service.h"
#include "korvel/utils.h"
#include "stlext/uuid.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::OldServiceWatcher;
using qx::korvel::ServiceId;
using qx::logging::LogLevel;

const ACL_vector& kAcl = ZOO_OPEN_ACL_UNSAFE;

// The records of korvel's own sources.
std::vector<CapturedRecord> KorvelRecords(const LogCapture& capture) {
  std::vector<CapturedRecord> records;
  for (auto& record : capture.Records()) {
    if (record.source.rfind("korvel.", 0) == 0) records.push_back(record);
  }
  return records;
}

std::string Text(const ServiceId& id) {
  return qx::uuid::to_string(id);
}

class WatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = Connect(SharedServer().ConnectString());
    type = UniqueName("type");
  }

  std::string AlivePath() const { return tree::AliveDir(type); }
  std::string DataPath(const ServiceId& id) const { return tree::DataPath(type, id); }

  // An ephemeral liveness node named `name`.
  void AddLiveness(const std::string& name) {
    ASSERT_EQ(ZOK, conn->Create(AlivePath() + "/" + name, "", kAcl, ZOO_EPHEMERAL, nullptr));
  }
  // The node `path` holding `value`; missing ancestors are made first.
  void Put(const std::string& path, const std::string& value) {
    qx::korvel::EnsurePath(*conn, path.substr(0, path.rfind('/')), false, kAcl);
    ASSERT_EQ(ZOK, conn->Create(path, value, kAcl, 0, nullptr));
  }

  std::shared_ptr<Connection> conn;
  std::string type;
};

// ---- Listing -------------------------------------------------------------------------

TEST_F(WatcherTest, ConstructionEnsuresTheLivenessDirectory) {
  ASSERT_EQ(ZNONODE, conn->Exists(AlivePath(), nullptr));
  OldServiceWatcher watcher(conn, type);
  EXPECT_EQ(0, EphemeralOwner(*conn, AlivePath()));
  const auto [rc, ids] = watcher.List();
  EXPECT_EQ(ZOK, rc);
  EXPECT_TRUE(ids.empty());
}

TEST_F(WatcherTest, TypeIsNormalised) {
  OldServiceWatcher watcher(conn, "/" + type + "//x/");
  const std::string alive = AlivePath() + "/x";
  EXPECT_EQ(ZOK, conn->Exists(alive, nullptr));
  const ServiceId id = qx::korvel::RandomServiceId();
  ASSERT_EQ(ZOK, conn->Create(alive + "/" + Text(id), "", kAcl, ZOO_EPHEMERAL, nullptr));
  const auto [rc, ids] = watcher.List();
  EXPECT_EQ(ZOK, rc);
  EXPECT_EQ(std::vector<ServiceId>{id}, ids);
}

TEST_F(WatcherTest, ListSkipsAnInvalidNameWithOneWarning) {
  OldServiceWatcher watcher(conn, type);
  const ServiceId a = qx::korvel::RandomServiceId();
  AddLiveness(Text(a));
  AddLiveness("junk");

  LogCapture capture;
  const auto [rc, ids] = watcher.List();
  EXPECT_EQ(ZOK, rc);
  EXPECT_EQ(std::vector<ServiceId>{a}, ids);
  const auto records = capture.FromSource("korvel.service");
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(qx::logging::QXLOG_WARNING, records[0].level);
  EXPECT_EQ(
      "Invalid child name at path '" + AlivePath() + "'. Could not convert 'junk' to ServiceId.",
      records[0].message);
}

TEST_F(WatcherTest, NoWarningIsFormedAboveTheWarningLevel) {
  OldServiceWatcher watcher(conn, type);
  const ServiceId a = qx::korvel::RandomServiceId();
  AddLiveness(Text(a));
  AddLiveness("junk");

  LogCapture capture;
  LogLevelScope level(qx::logging::QXLOG_ERROR);
  const auto [rc, ids] = watcher.List();
  EXPECT_EQ(ZOK, rc);
  EXPECT_EQ(std::vector<ServiceId>{a}, ids);
  EXPECT_TRUE(capture.FromSource("korvel.service").empty());
}

TEST_F(WatcherTest, UpperCaseHexParses) {
  OldServiceWatcher watcher(conn, type);
  const ServiceId id = qx::korvel::RandomServiceId();
  std::string upper = Text(id);
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  ASSERT_NE(Text(id), upper);
  AddLiveness(upper);

  LogCapture capture;
  const auto [rc, ids] = watcher.List();
  EXPECT_EQ(ZOK, rc);
  EXPECT_EQ(std::vector<ServiceId>{id}, ids);
  EXPECT_TRUE(capture.FromSource("korvel.service").empty());
}

TEST_F(WatcherTest, MalformedIdsAreSkipped) {
  OldServiceWatcher watcher(conn, type);
  const ServiceId good = qx::korvel::RandomServiceId();
  const std::string text = Text(qx::korvel::RandomServiceId());
  AddLiveness(Text(good));
  AddLiveness("{" + text + "}");                    // braces
  AddLiveness(text.substr(0, 8) + text.substr(9));  // a hyphen missing
  AddLiveness(text + "0");                          // extra characters
  AddLiveness("x" + text);

  LogCapture capture;
  const auto [rc, ids] = watcher.List();
  EXPECT_EQ(ZOK, rc);
  EXPECT_EQ(std::vector<ServiceId>{good}, ids);
  EXPECT_EQ(4u, capture.FromSource("korvel.service").size());
}

TEST_F(WatcherTest, DeletedLivenessDirectoryListsNoNode) {
  OldServiceWatcher watcher(conn, type);
  ASSERT_EQ(ZOK, conn->Delete(AlivePath(), -1));

  LogCapture capture;
  const auto [rc, ids] = watcher.List();
  EXPECT_EQ(ZNONODE, rc);
  EXPECT_TRUE(ids.empty());
  EventLog log;
  auto [watchRc, watchIds, handle] = watcher.List(log.Callback());
  EXPECT_EQ(ZNONODE, watchRc);
  EXPECT_TRUE(watchIds.empty());
  EXPECT_FALSE(handle.Empty());
  EXPECT_TRUE(KorvelRecords(capture).empty());
}

TEST_F(WatcherTest, ListWatchFiresOnceWhenAnInstanceAppears) {
  OldServiceWatcher watcher(conn, type);
  EventLog log;
  auto [rc, ids, handle] = watcher.List(log.Callback());
  ASSERT_EQ(ZOK, rc);
  EXPECT_TRUE(ids.empty());

  AddLiveness(Text(qx::korvel::RandomServiceId()));
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(std::make_tuple(ZOO_CHILD_EVENT, ZOO_CONNECTED_STATE, AlivePath()), log.First());
  AddLiveness(Text(qx::korvel::RandomServiceId()));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(1u, log.Count());
}

TEST_F(WatcherTest, ListWatchDoesNotFireAfterItsHandleIsGone) {
  OldServiceWatcher watcher(conn, type);
  EventLog dropped;
  {
    auto [rc, ids, handle] = watcher.List(dropped.Callback());
    ASSERT_EQ(ZOK, rc);
  }
  EventLog control;
  auto [rc, ids, handle] = watcher.List(control.Callback());
  AddLiveness(Text(qx::korvel::RandomServiceId()));
  ASSERT_TRUE(control.WaitFor(1));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(0u, dropped.Count());
}

// ---- Attributes ----------------------------------------------------------------------

class AttributeTest : public WatcherTest {
 protected:
  void SetUp() override {
    WatcherTest::SetUp();
    watcher = std::make_unique<OldServiceWatcher>(conn, type);
    id = qx::korvel::RandomServiceId();
    Put(DataPath(id) + "/status", "running");
    Put(DataPath(id) + "/hostname", "host-1");
    Put(DataPath(id) + "/child1/status", "child-up");
  }

  std::unique_ptr<OldServiceWatcher> watcher;
  ServiceId id;
};

TEST_F(AttributeTest, GetAttributeReadsTheInstanceOrItsChild) {
  EXPECT_EQ(std::make_tuple(ZOK, qx::String("running")), watcher->GetAttribute(id, "status"));
  EXPECT_EQ(std::make_tuple(ZOK, qx::String("child-up")),
            watcher->GetAttribute(id, "status", "child1"));
  EXPECT_EQ(std::make_tuple(ZOK, qx::String("child-up")),
            watcher->GetAttribute(id, "status", "/child1/"));
  for (const char* path : {"/", "//"}) {
    EXPECT_EQ(std::make_tuple(ZOK, qx::String("running")),
              watcher->GetAttribute(id, "status", path))
        << path;
    EXPECT_EQ(ZOK, watcher->HasAttribute(id, "hostname", path)) << path;
  }
}

TEST_F(AttributeTest, LongAndEmptyValuesComeBackWhole) {
  std::string big(300 * 1024, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 23);
  const std::string medium = big.substr(7, 10 * 1024);
  Put(DataPath(id) + "/medium", medium);
  Put(DataPath(id) + "/big", big);
  Put(DataPath(id) + "/empty", "");

  EXPECT_EQ(std::make_tuple(ZOK, medium), watcher->GetAttribute(id, "medium"));
  EXPECT_EQ(std::make_tuple(ZOK, big), watcher->GetAttribute(id, "big"));
  EXPECT_EQ(std::make_tuple(ZOK, qx::String()), watcher->GetAttribute(id, "empty"));
  EventLog log;
  auto [rc, value, handle] = watcher->GetAttribute(id, "big", log.Callback());
  EXPECT_EQ(ZOK, rc);
  EXPECT_EQ(big, value);
}

TEST_F(AttributeTest, UnknownInstanceGivesNoNode) {
  const ServiceId unknown = qx::korvel::RandomServiceId();
  EXPECT_EQ(ZNONODE, std::get<0>(watcher->GetAttribute(unknown, "status")));
  EXPECT_EQ(ZNONODE, watcher->HasAttribute(unknown, "status"));
  const auto [rc, names] = watcher->GetAttributes(unknown);
  EXPECT_EQ(ZNONODE, rc);
  EXPECT_TRUE(names.empty());
  EXPECT_EQ(ZNONODE, std::get<0>(watcher->GetAttribute(id, "version")));
}

TEST_F(AttributeTest, NameWithALeadingSlashIsRefused) {
  LogCapture capture;
  EventLog log;
  EXPECT_EQ(ZBADARGUMENTS, std::get<0>(watcher->GetAttribute(id, "/status")));
  EXPECT_EQ(ZBADARGUMENTS, watcher->HasAttribute(id, "/status"));
  auto [getRc, value, getHandle] = watcher->GetAttribute(id, "/status", log.Callback());
  EXPECT_EQ(ZBADARGUMENTS, getRc);
  auto [hasRc, hasHandle] = watcher->HasAttribute(id, "/version", log.Callback());
  EXPECT_EQ(ZBADARGUMENTS, hasRc);

  // Neither watch was set: changing the nodes fires nothing.
  EventLog control;
  auto [controlRc, controlHandle] = watcher->HasAttribute(id, "version", control.Callback());
  ASSERT_EQ(ZOK, conn->Set(DataPath(id) + "/status", "changed", -1));
  Put(DataPath(id) + "/version", "1.0");
  ASSERT_TRUE(control.WaitFor(1));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(0u, log.Count());
  EXPECT_TRUE(KorvelRecords(capture).empty());
}

TEST_F(AttributeTest, GetAttributesListsBareNames) {
  auto [rc, names] = watcher->GetAttributes(id);
  EXPECT_EQ(ZOK, rc);
  std::sort(names.begin(), names.end());
  EXPECT_EQ((std::vector<qx::String>{"child1", "hostname", "status"}), names);
  const auto [childRc, childNames] = watcher->GetAttributes(id, "child1");
  EXPECT_EQ(ZOK, childRc);
  EXPECT_EQ(std::vector<qx::String>{"status"}, childNames);
}

TEST_F(AttributeTest, HasAttributeTellsWhetherItExists) {
  EXPECT_EQ(ZOK, watcher->HasAttribute(id, "status"));
  EXPECT_EQ(ZOK, watcher->HasAttribute(id, "status", "child1"));
  EXPECT_EQ(ZNONODE, watcher->HasAttribute(id, "version"));
  EXPECT_EQ(ZNONODE, watcher->HasAttribute(id, "hostname", "child1"));
}

// ---- Attribute watches -----------------------------------------------------------------

TEST_F(AttributeTest, GetAttributeWatchFiresOnceOnAChange) {
  EventLog log;
  auto [rc, value, handle] = watcher->GetAttribute(id, "status", log.Callback());
  ASSERT_EQ(ZOK, rc);
  EXPECT_EQ("running", value);

  ASSERT_EQ(ZOK, conn->Set(DataPath(id) + "/status", "stopping", -1));
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(std::make_tuple(ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, DataPath(id) + "/status"),
            log.First());
  ASSERT_EQ(ZOK, conn->Set(DataPath(id) + "/status", "stopped", -1));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(1u, log.Count());
}

TEST_F(AttributeTest, HasAttributeWatchFiresWhenTheAttributeIsCreated) {
  EventLog log;
  auto [rc, handle] = watcher->HasAttribute(id, "version", log.Callback());
  EXPECT_EQ(ZNONODE, rc);
  EXPECT_FALSE(handle.Empty());

  Put(DataPath(id) + "/version", "1.0");
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(std::make_tuple(ZOO_CREATED_EVENT, ZOO_CONNECTED_STATE, DataPath(id) + "/version"),
            log.First());
}

TEST_F(AttributeTest, GetAttributesWatchFiresOnANewChild) {
  EventLog log;
  auto [rc, names, handle] = watcher->GetAttributes(id, log.Callback());
  ASSERT_EQ(ZOK, rc);
  EXPECT_EQ(3u, names.size());

  Put(DataPath(id) + "/pid", "42");
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(std::make_tuple(ZOO_CHILD_EVENT, ZOO_CONNECTED_STATE, DataPath(id)), log.First());
}

TEST_F(AttributeTest, NoAttributeWatchFiresAfterItsHandleIsGone) {
  EventLog dropped;
  {
    auto [getRc, value, getHandle] = watcher->GetAttribute(id, "status", dropped.Callback());
    ASSERT_EQ(ZOK, getRc);
    auto [hasRc, hasHandle] = watcher->HasAttribute(id, "version", dropped.Callback());
    ASSERT_EQ(ZNONODE, hasRc);
    auto [listRc, names, listHandle] = watcher->GetAttributes(id, dropped.Callback());
    ASSERT_EQ(ZOK, listRc);
  }
  // Watches set afterwards show when the changes have been delivered.
  EventLog control;
  auto [getRc, value, getHandle] = watcher->GetAttribute(id, "status", control.Callback());
  auto [hasRc, hasHandle] = watcher->HasAttribute(id, "version", control.Callback());
  auto [listRc, names, listHandle] = watcher->GetAttributes(id, control.Callback());

  ASSERT_EQ(ZOK, conn->Set(DataPath(id) + "/status", "changed", -1));
  Put(DataPath(id) + "/version", "1.0");
  ASSERT_TRUE(control.WaitFor(3));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(0u, dropped.Count());
}

}  // namespace
}  // namespace korvel::test
