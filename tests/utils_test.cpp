// The path helpers against a real standalone server: NormalizePath,
// EnsurePath, RecursiveDelete, and the Connection's batch operations that
// they are built on.
#include "korvel/utils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "korvel/error.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::EnsurePath;
using qx::korvel::KorvelError;
using qx::korvel::NormalizePath;
using qx::korvel::RecursiveDelete;
using Op = Connection::Operation;

const ACL_vector& kAcl = ZOO_OPEN_ACL_UNSAFE;

// The message of the KorvelError that `func` throws, "" when it throws none.
template <typename Func>
std::string KorvelErrorOf(Func&& func) {
  try {
    func();
  } catch (const KorvelError& e) {
    return e.what();
  }
  return "";
}

// The ERROR records of the path helpers.
std::vector<CapturedRecord> UtilsErrors(const LogCapture& capture) {
  std::vector<CapturedRecord> errors;
  for (auto& record : capture.FromSource("korvel.utils")) {
    if (record.level == qx::logging::QXLOG_ERROR) errors.push_back(record);
  }
  return errors;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Lets every request through and counts those of kind `op`.
std::shared_ptr<std::atomic<int>> CountRequests(Connection& conn, Op op) {
  auto count = std::make_shared<std::atomic<int>>(0);
  conn.SetFaultInjector([count, op](Op seen, const qx::String&) -> std::optional<int> {
    if (seen == op) ++*count;
    return std::nullopt;
  });
  return count;
}

class UtilsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = Connect(SharedServer().ConnectString());
    base = "/" + UniqueName("utils");
    ASSERT_EQ(ZOK, conn->Create(base, "", kAcl, 0, nullptr));
  }

  int Exists(const std::string& path) const { return conn->Exists(path, nullptr); }

  std::shared_ptr<Connection> conn;
  std::string base;
};

// ---- NormalizePath ---------------------------------------------------------------

TEST(NormalizePathTest, StripsOuterAndCollapsesInnerSlashes) {
  EXPECT_EQ("", NormalizePath(""));
  EXPECT_EQ("", NormalizePath("/"));
  EXPECT_EQ("", NormalizePath("///"));
  EXPECT_EQ("a/b", NormalizePath("/a/b/"));
  EXPECT_EQ("a/b", NormalizePath("a//b"));
  EXPECT_EQ("a", NormalizePath("///a///"));
  EXPECT_EQ("a", NormalizePath("a"));
}

TEST(NormalizePathTest, KeepsComponentsAsTheyAre) {
  EXPECT_EQ("A b/./../x-y_z.1", NormalizePath("/A b//.//..///x-y_z.1/"));
  EXPECT_EQ("srv/alive/t1/x", NormalizePath("srv/alive/t1/x"));
}

// ---- EnsurePath --------------------------------------------------------------------

TEST_F(UtilsTest, EnsurePathCreatesMissingAncestorsPersistent) {
  const std::string path = base + "/a/b/c";
  EnsurePath(*conn, path, true, kAcl);
  EXPECT_EQ(0, EphemeralOwner(*conn, base + "/a"));
  EXPECT_EQ(0, EphemeralOwner(*conn, base + "/a/b"));
  EXPECT_EQ(conn->ClientId().client_id, EphemeralOwner(*conn, path));

  EnsurePath(*conn, base + "/p/q", false, kAcl);
  EXPECT_EQ(0, EphemeralOwner(*conn, base + "/p"));
  EXPECT_EQ(0, EphemeralOwner(*conn, base + "/p/q"));
}

TEST_F(UtilsTest, EnsurePathOfExistingNodeIsNoError) {
  EXPECT_NO_THROW(EnsurePath(*conn, base, false, kAcl));
  EnsurePath(*conn, base + "/e", true, kAcl);
  EXPECT_NO_THROW(EnsurePath(*conn, base + "/e", true, kAcl));
  EXPECT_EQ(conn->ClientId().client_id, EphemeralOwner(*conn, base + "/e"));
}

TEST_F(UtilsTest, EnsurePathOfRootIsANoOp) {
  const auto creates = CountRequests(*conn, Op::Create);
  EXPECT_NO_THROW(EnsurePath(*conn, "/", false, kAcl));
  EXPECT_NO_THROW(EnsurePath(*conn, "/", true, kAcl));
  EXPECT_EQ(0, *creates);
}

TEST_F(UtilsTest, EnsurePathRefusesInvalidPaths) {
  const auto creates = CountRequests(*conn, Op::Create);
  for (const std::string path : {"a/b", "/a/", "/a//b", ""}) {
    LogCapture capture;
    EXPECT_EQ("Invalid path", KorvelErrorOf([&] { EnsurePath(*conn, path, false, kAcl); })) << path;
    EXPECT_EQ(1u, UtilsErrors(capture).size()) << path;
  }
  EXPECT_EQ(0, *creates);
}

TEST_F(UtilsTest, EnsurePathMakesOneCreateWhenTheParentExists) {
  const auto creates = CountRequests(*conn, Op::Create);
  EnsurePath(*conn, base + "/leaf", false, kAcl);
  EXPECT_EQ(1, *creates);
  EnsurePath(*conn, base + "/eph", true, kAcl);
  EXPECT_EQ(2, *creates);
  EXPECT_EQ(ZOK, Exists(base + "/leaf"));
  EXPECT_EQ(conn->ClientId().client_id, EphemeralOwner(*conn, base + "/eph"));
}

TEST_F(UtilsTest, InjectedCreateFailureThrows) {
  conn->SetFaultInjector([](Op op, const qx::String&) -> std::optional<int> {
    if (op == Op::Create) return ZNOAUTH;
    return std::nullopt;
  });
  LogCapture capture;
  EXPECT_EQ("Failed to ensure path",
            KorvelErrorOf([&] { EnsurePath(*conn, base + "/denied", true, kAcl); }));
  const auto errors = UtilsErrors(capture);
  ASSERT_EQ(1u, errors.size());
  EXPECT_TRUE(EndsWith(errors[0].message, zerror(ZNOAUTH))) << errors[0].message;
  EXPECT_EQ(ZNONODE, Exists(base + "/denied"));
}

TEST_F(UtilsTest, InjectedFailureOfAnAncestorThrows) {
  // Only the missing middle level is refused.
  const std::string refused = base + "/m";
  conn->SetFaultInjector([refused](Op op, const qx::String& path) -> std::optional<int> {
    if (op == Op::Create && path == refused) return ZNOAUTH;
    return std::nullopt;
  });
  LogCapture capture;
  EXPECT_EQ("Failed to ensure path",
            KorvelErrorOf([&] { EnsurePath(*conn, refused + "/n", false, kAcl); }));
  const auto errors = UtilsErrors(capture);
  ASSERT_EQ(1u, errors.size());
  EXPECT_TRUE(EndsWith(errors[0].message, zerror(ZNOAUTH))) << errors[0].message;
}

TEST_F(UtilsTest, EnsurePathWaitsForAnotherSessionsEphemeralThenFails) {
  const auto shortConn = Connect(SharedServer().ConnectString(), 1500ms);
  const auto other = Connect(SharedServer().ConnectString());
  const std::string path = base + "/owned";
  ASSERT_EQ(ZOK, other->Create(path, "", kAcl, ZOO_EPHEMERAL, nullptr));

  LogCapture capture;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("Failed to ensure path",
            KorvelErrorOf([&] { EnsurePath(*shortConn, path, true, kAcl); }));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, shortConn->SessionTimeout());
  EXPECT_LT(elapsed, shortConn->SessionTimeout() + 2s);
  EXPECT_EQ(1u, UtilsErrors(capture).size());
  EXPECT_EQ(other->ClientId().client_id, EphemeralOwner(*conn, path));
}

TEST_F(UtilsTest, EnsurePathTakesOverWhenTheOtherSessionCloses) {
  const auto shortConn = Connect(SharedServer().ConnectString(), 1500ms);
  auto other = Connect(SharedServer().ConnectString());
  const std::string path = base + "/handover";
  ASSERT_EQ(ZOK, other->Create(path, "", kAcl, ZOO_EPHEMERAL, nullptr));

  auto ensured = std::async(std::launch::async, [&] { EnsurePath(*shortConn, path, true, kAcl); });
  std::this_thread::sleep_for(300ms);
  other.reset();  // closes the session: its node vanishes at once
  ASSERT_EQ(std::future_status::ready, ensured.wait_for(5s));
  EXPECT_NO_THROW(ensured.get());
  EXPECT_EQ(shortConn->ClientId().client_id, EphemeralOwner(*conn, path));
}

// ---- From the event thread -----------------------------------------------------------

TEST_F(UtilsTest, HelpersWorkInsideAWatchCallback) {
  const std::string tree = base + "/tree";
  const std::vector<int> created = conn->CreateAll(
      {{tree, "", 0}, {tree + "/x", "", 0}, {tree + "/x/y", "", 0}, {tree + "/z", "", 0}}, kAcl);
  ASSERT_EQ(std::vector<int>(4, ZOK), created);
  const std::string made = base + "/made/a/b";

  // Carries the callback's outcome: "" on success, else the error.
  auto outcome = std::make_shared<std::promise<std::string>>();
  Connection* raw = conn.get();
  auto [rc, handle] = conn->Exists(
      base + "/trigger",
      [raw, made, tree, outcome](int, int, std::string) {
        try {
          EnsurePath(*raw, made, true, kAcl);
          RecursiveDelete(*raw, tree);
          outcome->set_value("");
        } catch (const std::exception& e) {
          outcome->set_value(e.what());
        }
      },
      nullptr);
  ASSERT_EQ(ZNONODE, rc);
  ASSERT_EQ(ZOK, conn->Create(base + "/trigger", "", kAcl, 0, nullptr));

  auto result = outcome->get_future();
  if (result.wait_for(10s) != std::future_status::ready) {
    // A stuck event thread would hang the Connection's destructor: leak it.
    new std::shared_ptr<Connection>(conn);
    FAIL() << "the watch callback did not finish";
  }
  EXPECT_EQ("", result.get());
  EXPECT_EQ(0, EphemeralOwner(*conn, base + "/made/a"));
  EXPECT_EQ(conn->ClientId().client_id, EphemeralOwner(*conn, made));
  EXPECT_EQ(ZNONODE, Exists(tree));
}

// ---- RecursiveDelete -----------------------------------------------------------------

TEST_F(UtilsTest, RecursiveDeleteRemovesALargeSubtreeOnly) {
  const std::string tree = base + "/tree";
  std::vector<Connection::CreateRequest> requests{{tree, "", 0}};
  for (int a = 0; a < 8; ++a) {
    const std::string pa = tree + "/a" + std::to_string(a);
    requests.push_back({pa, "", 0});
    for (int b = 0; b < 8; ++b) {
      const std::string pb = pa + "/b" + std::to_string(b);
      requests.push_back({pb, "", 0});
      for (int c = 0; c < 5; ++c) requests.push_back({pb + "/c" + std::to_string(c), "v", 0});
    }
  }
  ASSERT_EQ(393u, requests.size());
  ASSERT_EQ(std::vector<int>(requests.size(), ZOK), conn->CreateAll(requests, kAcl));
  // Siblings, one of them sharing the subtree's name as a prefix.
  ASSERT_EQ(ZOK, conn->Create(tree + "x", "", kAcl, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(tree + "x/kept", "", kAcl, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(base + "/other", "", kAcl, 0, nullptr));

  RecursiveDelete(*conn, tree);
  EXPECT_EQ(ZNONODE, Exists(tree));
  EXPECT_EQ(ZOK, Exists(tree + "x/kept"));
  EXPECT_EQ(ZOK, Exists(base + "/other"));
}

TEST_F(UtilsTest, RecursiveDeleteOfAMissingNodeIsNoError) {
  EXPECT_NO_THROW(RecursiveDelete(*conn, base + "/missing"));
  EXPECT_NO_THROW(RecursiveDelete(*conn, base + "/missing/deeper"));
  EXPECT_EQ(ZOK, Exists(base));
}

TEST_F(UtilsTest, RecursiveDeleteRefusesRootAndInvalidPaths) {
  const auto listings = CountRequests(*conn, Op::GetChildren);
  for (const std::string path : {"/", "a/b", "/a/", "/a//b", ""}) {
    LogCapture capture;
    EXPECT_EQ("Invalid path", KorvelErrorOf([&] { RecursiveDelete(*conn, path); })) << path;
    EXPECT_EQ(1u, UtilsErrors(capture).size()) << path;
  }
  EXPECT_EQ(0, *listings);
  EXPECT_EQ(ZOK, Exists(base));
}

TEST_F(UtilsTest, InjectedListingFailureThrows) {
  ASSERT_EQ(ZOK, conn->Create(base + "/t", "", kAcl, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(base + "/t/c", "", kAcl, 0, nullptr));
  conn->SetFaultInjector([](Op op, const qx::String&) -> std::optional<int> {
    if (op == Op::GetChildren) return ZNOAUTH;
    return std::nullopt;
  });
  LogCapture capture;
  EXPECT_EQ("Failed to delete node", KorvelErrorOf([&] { RecursiveDelete(*conn, base + "/t"); }));
  const auto errors = UtilsErrors(capture);
  ASSERT_EQ(1u, errors.size());
  EXPECT_TRUE(EndsWith(errors[0].message, zerror(ZNOAUTH))) << errors[0].message;
  EXPECT_EQ(ZOK, Exists(base + "/t/c"));  // nothing was deleted
}

TEST_F(UtilsTest, RecursiveDeleteRemovesAnotherSessionsEphemerals) {
  const auto other = Connect(SharedServer().ConnectString());
  const std::string tree = base + "/tree";
  ASSERT_EQ(ZOK, conn->Create(tree, "", kAcl, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(tree + "/dir", "", kAcl, 0, nullptr));
  ASSERT_EQ(ZOK, other->Create(tree + "/e1", "", kAcl, ZOO_EPHEMERAL, nullptr));
  ASSERT_EQ(ZOK, other->Create(tree + "/dir/e2", "", kAcl, ZOO_EPHEMERAL, nullptr));

  RecursiveDelete(*conn, tree);
  EXPECT_EQ(ZNONODE, Exists(tree));
}

TEST_F(UtilsTest, RecursiveDeleteAllListsEachSubtreeOnceWithTheOthers) {
  std::vector<qx::String> roots;
  for (int t = 0; t < 20; ++t) {
    roots.push_back(base + "/t" + std::to_string(t));
    ASSERT_EQ(std::vector<int>(4, ZOK), conn->CreateAll({{roots.back(), "", 0},
                                                         {roots.back() + "/a", "", 0},
                                                         {roots.back() + "/a/b", "", 0},
                                                         {roots.back() + "/c", "", 0}},
                                                        kAcl));
  }
  roots.push_back(base + "/missing");
  ASSERT_EQ(ZOK, conn->Create(base + "/kept", "", kAcl, 0, nullptr));
  std::map<std::string, int> listings;
  std::mutex mutex;
  conn->SetFaultInjector([&](Op op, const qx::String& path) -> std::optional<int> {
    std::lock_guard<std::mutex> lock(mutex);
    if (op == Op::GetChildren) ++listings[path];
    return std::nullopt;
  });
  qx::korvel::RecursiveDeleteAll(*conn, roots);
  conn->SetFaultInjector(nullptr);
  for (const auto& root : roots) {
    EXPECT_EQ(ZNONODE, Exists(root)) << root;
    EXPECT_EQ(1, listings[root]) << root;
  }
  EXPECT_EQ(ZOK, Exists(base + "/kept"));
}

TEST_F(UtilsTest, RecursiveDeleteAllFallsBackToOneSubtreeAtATime) {
  for (const char* name : {"/x", "/x/c", "/y", "/y/c"}) {
    ASSERT_EQ(ZOK, conn->Create(base + name, "", kAcl, 0, nullptr));
  }
  // The first listing of /x fails: the batch gives up and each subtree is
  // deleted on its own.
  std::atomic<int> failures{0};
  conn->SetFaultInjector([&](Op op, const qx::String& path) -> std::optional<int> {
    if (op == Op::GetChildren && path == base + "/x" && failures++ == 0) return ZCONNECTIONLOSS;
    return std::nullopt;
  });
  qx::korvel::RecursiveDeleteAll(*conn, {base + "/x", base + "/y"});
  conn->SetFaultInjector(nullptr);
  EXPECT_EQ(2, failures.load());  // failed in the batch, then listed again on its own
  EXPECT_EQ(ZNONODE, Exists(base + "/x"));
  EXPECT_EQ(ZNONODE, Exists(base + "/y"));
}

TEST_F(UtilsTest, RecursiveDeleteAllRefusesAnInvalidPathBeforeAnyRequest) {
  ASSERT_EQ(ZOK, conn->Create(base + "/x", "", kAcl, 0, nullptr));
  const auto listings = CountRequests(*conn, Op::GetChildren);
  EXPECT_EQ("Invalid path", KorvelErrorOf([&] {
              qx::korvel::RecursiveDeleteAll(*conn, {base + "/x", "/"});
            }));
  EXPECT_EQ(0, *listings);
  EXPECT_EQ(ZOK, Exists(base + "/x"));
}

// ---- Batch operations ----------------------------------------------------------------

TEST_F(UtilsTest, CreateAllReturnsOneCodePerRequestInOrder) {
  const std::vector<int> codes = conn->CreateAll({{base + "/n1", "v1", 0},
                                                  {base, "", 0},
                                                  {base + "/missing/child", "", 0},
                                                  {base + "/n1/eph", "", ZOO_EPHEMERAL}},
                                                 kAcl);
  EXPECT_EQ((std::vector<int>{ZOK, ZNODEEXISTS, ZNONODE, ZOK}), codes);
  std::string value;
  EXPECT_EQ(ZOK, conn->Get(base + "/n1", value, nullptr));
  EXPECT_EQ("v1", value);
  EXPECT_EQ(conn->ClientId().client_id, EphemeralOwner(*conn, base + "/n1/eph"));
}

TEST_F(UtilsTest, GetChildrenAllReturnsOneCodeAndListPerPath) {
  ASSERT_EQ(std::vector<int>(4, ZOK), conn->CreateAll({{base + "/p", "", 0},
                                                       {base + "/p/c1", "", 0},
                                                       {base + "/p/c2", "", 0},
                                                       {base + "/empty", "", 0}},
                                                      kAcl));
  std::vector<std::vector<qx::String>> children{{"stale"}};
  const std::vector<int> codes =
      conn->GetChildrenAll({base + "/p", base + "/missing", base + "/empty"}, children);
  EXPECT_EQ((std::vector<int>{ZOK, ZNONODE, ZOK}), codes);
  ASSERT_EQ(3u, children.size());
  std::sort(children[0].begin(), children[0].end());
  EXPECT_EQ((std::vector<qx::String>{"c1", "c2"}), children[0]);
  EXPECT_TRUE(children[1].empty());
  EXPECT_TRUE(children[2].empty());
}

TEST_F(UtilsTest, DeleteAllOfManyNodesRedoesOnlyTheMultisThatFailed) {
  // 250 children and their parent go in three multis sent together. The first fails (a node of
  // it is gone), so the third, which holds the parent, fails too (not empty); both are redone
  // one node at a time, in order.
  const std::string d = base + "/many";
  std::vector<Connection::CreateRequest> nodes{{d, "", 0}};
  std::vector<std::string> paths;
  for (int i = 0; i < 250; ++i) {
    nodes.push_back({d + "/c" + std::to_string(i), "", 0});
    paths.push_back(nodes.back().path);
  }
  ASSERT_EQ(std::vector<int>(nodes.size(), ZOK), conn->CreateAll(nodes, kAcl));
  paths.insert(paths.begin() + 1, d + "/gone");
  paths.push_back(d);
  EXPECT_EQ(ZOK, conn->DeleteAll(paths));
  EXPECT_EQ(ZNONODE, Exists(d));
}

TEST_F(UtilsTest, DeleteAllDeletesChildrenFirstAndSkipsMissingNodes) {
  const std::string d = base + "/d";
  ASSERT_EQ(std::vector<int>(3, ZOK),
            conn->CreateAll({{d, "", 0}, {d + "/c1", "", 0}, {d + "/c2", "", 0}}, kAcl));
  EXPECT_EQ(ZOK, conn->DeleteAll({d + "/c1", d + "/gone", d + "/c2", d}));
  EXPECT_EQ(ZNONODE, Exists(d));

  // With an injector set the nodes go one by one, with the same outcome.
  ASSERT_EQ(std::vector<int>(2, ZOK), conn->CreateAll({{d, "", 0}, {d + "/c1", "", 0}}, kAcl));
  const auto deletes = CountRequests(*conn, Op::Delete);
  EXPECT_EQ(ZOK, conn->DeleteAll({d + "/c1", d + "/gone", d}));
  EXPECT_EQ(3, *deletes);
  EXPECT_EQ(ZNONODE, Exists(d));
}

TEST_F(UtilsTest, DeleteAllReturnsTheFirstFailure) {
  const std::string d = base + "/d";
  ASSERT_EQ(std::vector<int>(2, ZOK), conn->CreateAll({{d, "", 0}, {d + "/c", "", 0}}, kAcl));
  EXPECT_EQ(ZNOTEMPTY, conn->DeleteAll({d}));
  EXPECT_EQ(ZOK, Exists(d + "/c"));
}

}  // namespace
}  // namespace korvel::test
