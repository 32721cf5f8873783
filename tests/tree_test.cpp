#include "korvel/tree.h"

#include <gtest/gtest.h>

#include "korvel/error.h"
#include "korvel/service.h"
#include "stlext/uuid.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

namespace tree = qx::korvel::tree;
using qx::korvel::KorvelError;
using qx::korvel::ServiceId;

ServiceId Id(const std::string& text) {
  ServiceId id;
  EXPECT_TRUE(qx::uuid::from_string(text, id)) << text;
  return id;
}

const std::string kIdText = "0123abcd-4567-89ef-0123-456789abcdef";

// The layout that every other process of an installation relies on.
TEST(TreeTest, PathsHaveTheRegistryLayout) {
  const ServiceId id = Id(kIdText);
  EXPECT_EQ(tree::DataDir("billing"), "/srv/billing");
  EXPECT_EQ(tree::AliveDir("billing"), "/srv/alive/billing");
  EXPECT_EQ(tree::DataPath("billing", id), "/srv/billing/" + kIdText);
  EXPECT_EQ(tree::AlivePath("billing", id), "/srv/alive/billing/" + kIdText);
  EXPECT_EQ(tree::OwnAttributePath(tree::DataPath("billing", id), tree::kStatus),
            "/srv/billing/" + kIdText + "/status");
  EXPECT_EQ(tree::Below("/srv/billing/" + kIdText, "/worker-1//port/"),
            "/srv/billing/" + kIdText + "/worker-1/port");
}

TEST(TreeTest, TypesAreNormalisedAndMayHaveLevels) {
  const ServiceId id = Id(kIdText);
  EXPECT_EQ(tree::DataPath("/eu//billing/", id), "/srv/eu/billing/" + kIdText);
  EXPECT_EQ(tree::AliveDir("eu/billing/"), "/srv/alive/eu/billing");
  EXPECT_EQ(tree::RegistrableType("//eu/billing/"), "eu/billing");
}

TEST(TreeTest, TypesAtOrBelowTheLivenessRootAreRefused) {
  for (const std::string type : {"alive", "/alive/", "alive/x", "alive////b/"}) {
    EXPECT_THROW(tree::RegistrableType(type), KorvelError) << type;
  }
  for (const std::string type : {"alivex", "x/alive", "aliv"}) {
    EXPECT_NO_THROW(tree::RegistrableType(type)) << type;
  }
  try {
    tree::RegistrableType("alive");
  } catch (const KorvelError& e) {
    EXPECT_STREQ(e.what(), "application cannot be named 'alive'");
  }
}

TEST(TreeTest, OwnAttributesInTheOrderRegistrationWritesThem) {
  const std::vector<std::string> names(std::begin(tree::kOwnAttributeNames),
                                       std::end(tree::kOwnAttributeNames));
  EXPECT_EQ(names, (std::vector<std::string>{"status", "service_name", "hostname", "pid",
                                             "start_time", "chef_recipe_name", "version"}));
  for (std::size_t a = 0; a < tree::kOwnAttributeCount; ++a) {
    EXPECT_EQ(tree::OwnAttributeNamed(names[a]), static_cast<tree::OwnAttribute>(a));
  }
  EXPECT_EQ(tree::OwnAttributeNamed("port"), std::nullopt);
  EXPECT_TRUE(tree::AlwaysPublished(tree::kStatus));
  EXPECT_TRUE(tree::AlwaysPublished(tree::kStartTime));
  EXPECT_FALSE(tree::AlwaysPublished(tree::kServiceName));
  EXPECT_FALSE(tree::AlwaysPublished(tree::kVersion));
}

TEST(TreeTest, StartTimeEndsInTheIsoWeekday) {
  // 2026-11-22 was a Sunday (ISO weekday 7); 2026-11-23 a Monday (1).
  EXPECT_EQ(tree::StartTimeText(1795317045), "2026-11-22 03:10:45.7");
  EXPECT_EQ(tree::StartTimeText(1795392000), "2026-11-23 00:00:00.1");
  EXPECT_EQ(tree::ParseStartTime("2026-11-22 03:10:45.7"), std::time_t{1795317045});
  for (const std::string text :
       {"2026-11-22 03:10:45.1", "2026-11-22 03:10:45", "2026-13-22 03:10:45.7",
        "2026-11-22T03:10:45.7", "", "2026-11-22 03:10:45.70"}) {
    EXPECT_EQ(tree::ParseStartTime(text), std::nullopt) << text;
  }
}

TEST(TreeTest, ParseNamesWhatThePathBuildersMake) {
  const ServiceId id = Id(kIdText);
  auto data = tree::Parse(tree::DataPath("eu/billing", id));
  ASSERT_TRUE(data);
  EXPECT_FALSE(data->alive);
  EXPECT_EQ(data->type, "eu/billing");
  EXPECT_EQ(data->id, id);
  EXPECT_EQ(data->below, "");

  auto alive = tree::Parse(tree::AlivePath("billing", id));
  ASSERT_TRUE(alive);
  EXPECT_TRUE(alive->alive);
  EXPECT_EQ(alive->type, "billing");
  EXPECT_EQ(alive->id, id);

  auto record = tree::Parse(tree::Below(tree::DataPath("billing", id), "worker-1/port"));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->below, "worker-1/port");

  auto dir = tree::Parse(tree::AliveDir("billing"));
  ASSERT_TRUE(dir);
  EXPECT_TRUE(dir->alive);
  EXPECT_EQ(dir->id, std::nullopt);

  // Upper-case ids name the same instance.
  auto upper = tree::Parse("/srv/billing/0123ABCD-4567-89EF-0123-456789ABCDEF");
  ASSERT_TRUE(upper);
  EXPECT_EQ(upper->id, id);
}

TEST(TreeTest, ParseRefusesWhatIsNoPathOfTheTree) {
  for (const std::string& path : std::vector<std::string>{
           "", "/", "/srv", "/srv/", "/srv/alive", "/srv/alive/", "/other/billing", "/srvx/billing",
           "srv/billing", "/srv/billing/", "/srv//billing", "/srv/alive/alive/x",
           "/srv/alive/billing/" + kIdText + "/status", "/srv/" + kIdText}) {
    EXPECT_EQ(tree::Parse(path), std::nullopt) << path;
  }
}

class TreeServerTest : public ::testing::Test {
 protected:
  std::shared_ptr<qx::korvel::Connection> conn = Connect(SharedServer().ConnectString());
  const std::string type = UniqueName("tree");
};

TEST_F(TreeServerTest, ReadOwnAttributesReadsWhatRegistrationWrote) {
  auto service = std::make_shared<qx::korvel::Service>(conn, type, "tree-reader");
  service->SetStatus(qx::korvel::Service::UP);
  const ServiceId gone = qx::korvel::RandomServiceId();

  std::vector<tree::OwnAttributes> read;
  ASSERT_EQ(tree::ReadOwnAttributes(*conn, type, {service->GetId(), gone}, read), ZOK);
  ASSERT_EQ(read.size(), 2u);
  EXPECT_EQ(read[0].id, service->GetId());
  EXPECT_EQ(read[0][tree::kStatus], "up");
  EXPECT_EQ(read[0][tree::kServiceName], "tree-reader");
  EXPECT_EQ(read[0][tree::kPid], std::to_string(getpid()));
  EXPECT_TRUE(tree::ParseStartTime(*read[0][tree::kStartTime]));
  EXPECT_TRUE(read[0].Any());
  EXPECT_TRUE(read[0].statusWatch.Empty());
  EXPECT_EQ(read[1].id, gone);
  EXPECT_FALSE(read[1].Any());
}

TEST_F(TreeServerTest, ReadOwnAttributesWatchesEachStatus) {
  auto service = std::make_shared<qx::korvel::Service>(conn, type, "watched");
  EventLog events;
  std::vector<tree::OwnAttributes> read;
  ASSERT_EQ(tree::ReadOwnAttributes(*conn, type, {service->GetId()}, read, events.Callback()), ZOK);
  ASSERT_EQ(read.size(), 1u);
  EXPECT_FALSE(read[0].statusWatch.Empty());
  service->SetStatus(qx::korvel::Service::UP);
  ASSERT_TRUE(events.WaitFor(1));
  EXPECT_EQ(std::get<2>(events.First()),
            tree::OwnAttributePath(tree::DataPath(type, service->GetId()), tree::kStatus));
}

TEST_F(TreeServerTest, ReadOwnAttributesReportsAFailure) {
  std::vector<tree::OwnAttributes> read(1);
  conn->SetFaultInjector([](qx::korvel::Connection::Operation, const std::string&) {
    return std::optional<int>(ZCONNECTIONLOSS);
  });
  EXPECT_EQ(tree::ReadOwnAttributes(*conn, type, {qx::korvel::RandomServiceId()}, read),
            ZCONNECTIONLOSS);
  EXPECT_TRUE(read.empty());
  conn->SetFaultInjector(nullptr);
}

}  // namespace
}  // namespace korvel::test
