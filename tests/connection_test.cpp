// The Connection against a real standalone server: node operations, whole
// reads, oversized values, watches and their cancellation, closing.
#include "korvel/connection_v2.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <sstream>
#include <thread>

#include "korvel/error.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::KorvelError;

class ConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = Connect(SharedServer().ConnectString());
    base = "/" + UniqueName("conn");
    ASSERT_EQ(ZOK, conn->Create(base, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  }

  std::shared_ptr<Connection> conn;
  std::string base;
};

TEST_F(ConnectionTest, ConnectsWithASession) {
  EXPECT_NE(0, conn->ClientId().client_id);
  EXPECT_EQ(ZOO_CONNECTED_STATE, conn->State());
  EXPECT_EQ(4000ms, conn->SessionTimeout());
}

TEST_F(ConnectionTest, TheSessionIsLoggedBeforeConnectReturns) {
  for (int round = 0; round < 20; ++round) {
    LogCapture capture;
    auto fresh = Connect(SharedServer().ConnectString());
    const auto records = capture.FromSource("korvel.connection");
    ASSERT_EQ(1u, records.size()) << "round " << round;
    std::ostringstream expected;
    expected << "ZooKeeper session 0x" << std::hex << fresh->ClientId().client_id << " connected";
    EXPECT_EQ(expected.str(), records[0].message);
  }
}

TEST_F(ConnectionTest, NoServerFailsWithinTheTimeout) {
  const RefusingLoopbackPort nothing;
  const std::string hosts = nothing.ConnectString();
  LogCapture capture;
  const auto start = std::chrono::steady_clock::now();
  try {
    Connection unreachable(hosts, 800ms);
    FAIL() << "connected to nothing";
  } catch (const KorvelError& e) {
    EXPECT_STREQ("Failed to connect to ZooKeeper", e.what());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
}

TEST_F(ConnectionTest, EmptyConnectStringIsRefused) {
  LogCapture capture;
  EXPECT_THROW(Connection("", 1000ms), KorvelError);
}

TEST_F(ConnectionTest, NodeOperationsReturnTheServersCodes) {
  const std::string node = base + "/n";
  EXPECT_EQ(ZNONODE, conn->Exists(node, nullptr));
  EXPECT_EQ(ZOK, conn->Create(node, "v1", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_EQ(ZNODEEXISTS, conn->Create(node, "v1", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_EQ(ZNONODE, conn->Create(base + "/missing/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_EQ(ZOK, conn->Exists(node, nullptr));

  std::string value;
  EXPECT_EQ(ZOK, conn->Get(node, value, nullptr));
  EXPECT_EQ("v1", value);
  EXPECT_EQ(ZOK, conn->Set(node, "value two", -1));
  Stat stat{};
  EXPECT_EQ(ZOK, conn->Get(node, value, &stat));
  EXPECT_EQ("value two", value);
  EXPECT_EQ(1, stat.version);
  EXPECT_EQ(ZBADVERSION, conn->Set(node, "x", 7));
  EXPECT_EQ(ZNONODE, conn->Set(base + "/missing", "x", -1));

  std::vector<std::string> children;
  EXPECT_EQ(ZOK, conn->GetChildren(base, children));
  EXPECT_EQ(std::vector<std::string>{"n"}, children);
  EXPECT_EQ(ZNONODE, conn->GetChildren(base + "/missing", children));

  EXPECT_EQ(ZNOTEMPTY, conn->Delete(base, -1));
  EXPECT_EQ(ZOK, conn->Delete(node, -1));
  EXPECT_EQ(ZNONODE, conn->Delete(node, -1));
  EXPECT_EQ(ZBADARGUMENTS, conn->Exists(base + "//x", nullptr));
}

TEST_F(ConnectionTest, CreateReportsTheCreatedName) {
  std::string created;
  ASSERT_EQ(ZOK, conn->Create(base + "/seq-", "", ZOO_OPEN_ACL_UNSAFE, ZOO_SEQUENCE, &created));
  EXPECT_EQ(base + "/seq-0000000000", created);
}

TEST_F(ConnectionTest, EphemeralNodesBelongToTheSession) {
  const std::string node = base + "/e";
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
  EXPECT_EQ(conn->ClientId().client_id, EphemeralOwner(*conn, node));
}

TEST_F(ConnectionTest, GetReturnsTheWholeValueWhateverTheBufferSize) {
  const std::string node = base + "/big";
  std::string big(300 * 1024, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
  ASSERT_EQ(ZOK, conn->Create(node, big, ZOO_OPEN_ACL_UNSAFE, 0, nullptr));

  for (std::size_t entrySize : {0, 22, 4096, 400 * 1024}) {
    std::string value(entrySize, 'x');
    Stat stat{};
    ASSERT_EQ(ZOK, conn->Get(node, value, &stat)) << entrySize;
    EXPECT_EQ(big.size(), value.size()) << entrySize;
    EXPECT_TRUE(value == big) << entrySize;
    EXPECT_EQ(static_cast<int>(big.size()), stat.dataLength);
  }

  EventLog log;
  std::string value(22, '\0');
  auto [rc, handle] = conn->Get(node, value, log.Callback(), nullptr);
  ASSERT_EQ(ZOK, rc);
  EXPECT_TRUE(value == big);
  ASSERT_EQ(ZOK, conn->Set(node, "small", -1));
  ASSERT_TRUE(log.WaitFor(1));
}

TEST_F(ConnectionTest, EmptyValuesReadBackEmpty) {
  const std::string node = base + "/empty";
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  std::string value = "left over";
  ASSERT_EQ(ZOK, conn->Get(node, value, nullptr));
  EXPECT_EQ("", value);
}

TEST_F(ConnectionTest, FailedGetKeepsTheSizeOnEntry) {
  std::string value(22, '\0');
  EXPECT_EQ(ZNONODE, conn->Get(base + "/missing", value, nullptr));
  EXPECT_EQ(22u, value.size());
}

TEST_F(ConnectionTest, OversizedValuesAreRefusedAndTheConnectionStaysUsable) {
  const std::string node = base + "/huge";
  const std::string huge(2 * 1024 * 1024, 'h');
  const auto session = conn->ClientId().client_id;
  EXPECT_EQ(ZBADARGUMENTS, conn->Create(node, huge, ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_EQ(ZNONODE, conn->Exists(node, nullptr));
  ASSERT_EQ(ZOK, conn->Create(node, "ok", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_EQ(ZBADARGUMENTS, conn->Set(node, huge, -1));
  EXPECT_EQ(ZBADARGUMENTS, conn->Set(node, std::string(Connection::kMaxDataSize + 1, 'h'), -1));

  std::string value;
  EXPECT_EQ(ZOK, conn->Get(node, value, nullptr));
  EXPECT_EQ("ok", value);
  EXPECT_EQ(session, conn->ClientId().client_id);
  EXPECT_EQ(ZOO_CONNECTED_STATE, conn->State());

  // The largest value accepted goes through and reads back whole.
  const std::string largest(Connection::kMaxDataSize, 'l');
  ASSERT_EQ(ZOK, conn->Set(node, largest, -1));
  ASSERT_EQ(ZOK, conn->Get(node, value, nullptr));
  EXPECT_TRUE(value == largest);
}

TEST_F(ConnectionTest, DataWatchFiresOnceForAChange) {
  const std::string node = base + "/w";
  ASSERT_EQ(ZOK, conn->Create(node, "1", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EventLog log;
  std::string value;
  auto [rc, handle] = conn->Get(node, value, log.Callback(), nullptr);
  ASSERT_EQ(ZOK, rc);
  EXPECT_FALSE(handle.Empty());
  ASSERT_EQ(ZOK, conn->Set(node, "2", -1));
  ASSERT_TRUE(log.WaitFor(1));
  ASSERT_EQ(ZOK, conn->Set(node, "3", -1));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  ASSERT_EQ(1u, log.Count());
  EXPECT_EQ(std::make_tuple(ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, node), log.events[0]);
}

TEST_F(ConnectionTest, ExistsWatchOnAMissingNodeFiresWhenItIsCreated) {
  const std::string node = base + "/later";
  EventLog log;
  auto [rc, handle] = conn->Exists(node, log.Callback(), nullptr);
  EXPECT_EQ(ZNONODE, rc);
  EXPECT_FALSE(handle.Empty());
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(ZOO_CREATED_EVENT, std::get<0>(log.events[0]));
}

TEST_F(ConnectionTest, ChildWatchFiresForANewChild) {
  EventLog log;
  std::vector<std::string> children;
  auto [rc, handle] = conn->GetChildren(base, children, log.Callback());
  ASSERT_EQ(ZOK, rc);
  EXPECT_TRUE(children.empty());
  ASSERT_EQ(ZOK, conn->Create(base + "/c", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(std::make_tuple(ZOO_CHILD_EVENT, ZOO_CONNECTED_STATE, base), log.events[0]);
}

TEST_F(ConnectionTest, FailedWatchFormsStillReturnAHandle) {
  EventLog log;
  std::string value;
  auto [getRc, getHandle] = conn->Get(base + "/missing", value, log.Callback(), nullptr);
  EXPECT_EQ(ZNONODE, getRc);
  EXPECT_FALSE(getHandle.Empty());
  std::vector<std::string> children;
  auto [listRc, listHandle] = conn->GetChildren(base + "/missing", children, log.Callback());
  EXPECT_EQ(ZNONODE, listRc);
  EXPECT_FALSE(listHandle.Empty());
  // Neither set a watch: creating the node calls nothing.
  ASSERT_EQ(ZOK, conn->Create(base + "/missing", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(0u, log.Count());
}

TEST_F(ConnectionTest, NoCallbackAfterTheHandleIsGone) {
  const std::string node = base + "/gone";
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EventLog log;
  std::string value;
  {
    auto [rc, handle] = conn->Get(node, value, log.Callback(), nullptr);
    ASSERT_EQ(ZOK, rc);
  }
  auto [rc, cancelled] = conn->Exists(node, log.Callback(), nullptr);
  ASSERT_EQ(ZOK, rc);
  EXPECT_FALSE(cancelled.Cancel(nullptr));  // not running: nothing deferred
  EXPECT_TRUE(cancelled.Empty());
  ASSERT_EQ(ZOK, conn->Set(node, "changed", -1));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(0u, log.Count());
}

TEST_F(ConnectionTest, EmptyAndMovedFromHandlesDoNothing) {
  { Connection::WatchHandle empty; }
  const std::string node = base + "/moved";
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EventLog log;
  std::string value;
  auto [rc, handle] = conn->Get(node, value, log.Callback(), nullptr);
  ASSERT_EQ(ZOK, rc);
  Connection::WatchHandle kept(std::move(handle));
  { Connection::WatchHandle destroyed(std::move(handle)); }  // moved-from twice: empty
  EXPECT_TRUE(handle.Empty());
  ASSERT_EQ(ZOK, conn->Set(node, "x", -1));
  EXPECT_TRUE(log.WaitFor(1));
}

TEST_F(ConnectionTest, MoveAssignmentCancelsTheOverwrittenWatch) {
  const std::string first = base + "/first";
  const std::string second = base + "/second";
  ASSERT_EQ(ZOK, conn->Create(first, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(second, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EventLog firstLog, secondLog;
  std::string value;
  auto [rc1, handle] = conn->Get(first, value, firstLog.Callback(), nullptr);
  auto [rc2, other] = conn->Get(second, value, secondLog.Callback(), nullptr);
  handle = std::move(other);
  ASSERT_EQ(ZOK, conn->Set(first, "x", -1));
  ASSERT_EQ(ZOK, conn->Set(second, "x", -1));
  EXPECT_TRUE(secondLog.WaitFor(1));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(0u, firstLog.Count());
}

// A callback that is running when its handle is destroyed finishes; no
// completion runs, and the callback is not started again.
TEST_F(ConnectionTest, DestroyingTheHandleDuringTheCallbackLetsItFinish) {
  const std::string node = base + "/running";
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  std::promise<void> entered, release;
  auto releaseFuture = release.get_future().share();
  std::atomic<int> finished{0};
  std::string value;
  auto [rc, handle] = conn->Get(
      node, value,
      [&](int, int, std::string) {
        entered.set_value();
        releaseFuture.wait_for(5s);
        finished++;
      },
      nullptr);
  ASSERT_EQ(ZOK, rc);
  ASSERT_EQ(ZOK, conn->Set(node, "1", -1));
  ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(5s));
  { Connection::WatchHandle destroyed(std::move(handle)); }
  EXPECT_EQ(0, finished.load());
  release.set_value();
  EXPECT_TRUE(WaitUntil([&] { return finished.load() == 1; }, 5000ms));
}

TEST_F(ConnectionTest, CancelDuringTheCallbackDefersTheCompletion) {
  const std::string node = base + "/deferred";
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  std::promise<void> entered, release;
  auto releaseFuture = release.get_future().share();
  std::atomic<bool> callbackDone{false};
  std::atomic<bool> completionSawCallbackDone{false};
  std::atomic<int> completions{0};
  std::string value;
  auto [rc, handle] = conn->Get(
      node, value,
      [&](int, int, std::string) {
        entered.set_value();
        releaseFuture.wait_for(5s);
        callbackDone = true;
      },
      nullptr);
  ASSERT_EQ(ZOK, rc);
  ASSERT_EQ(ZOK, conn->Set(node, "1", -1));
  ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(5s));
  EXPECT_TRUE(handle.Cancel([&] {
    completionSawCallbackDone = callbackDone.load();
    completions++;
  }));
  EXPECT_EQ(0, completions.load());
  release.set_value();
  ASSERT_TRUE(WaitUntil([&] { return completions.load() == 1; }, 5000ms));
  EXPECT_TRUE(completionSawCallbackDone.load());
}

// Cancelling races the firing: whatever wins, a callback that was not running
// when Cancel returned is never started afterwards.
TEST_F(ConnectionTest, CancellationRacingTheCallbackNeverRunsItLate) {
  const std::string node = base + "/race";
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  auto writer = Connect(SharedServer().ConnectString());
  std::atomic<int> late{0};
  std::atomic<int> ran{0};
  int cancelledWhileRunning = 0;
  for (int round = 0; round < 200; ++round) {
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    std::string value;
    auto [rc, handle] = conn->Get(
        node, value,
        [cancelled, &late, &ran](int, int, std::string) {
          if (cancelled->load()) late++;
          ran++;
        },
        nullptr);
    ASSERT_EQ(ZOK, rc);
    std::thread change([&] { writer->Set(node, std::to_string(round), -1); });
    std::this_thread::sleep_for(std::chrono::microseconds(round * 5));
    if (handle.Cancel(nullptr)) {
      ++cancelledWhileRunning;  // it was running: it may finish, it was not started late
    } else {
      cancelled->store(true);
    }
    change.join();
  }
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(0, late.load());
  RecordProperty("callbacks_that_ran", ran.load());
  RecordProperty("cancelled_while_running", cancelledWhileRunning);
}

TEST_F(ConnectionTest, ThrowingCallbackIsLoggedAndContained) {
  const std::string node = base + "/throws";
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  LogCapture capture;
  std::string value;
  auto [rc, handle] = conn->Get(
      node, value, [](int, int, std::string) { throw std::runtime_error("boom"); }, nullptr);
  ASSERT_EQ(ZOK, rc);
  ASSERT_EQ(ZOK, conn->Set(node, "1", -1));
  ASSERT_TRUE(WaitUntil([&] { return !capture.FromSource("korvel.connection").empty(); }, 5000ms));
  const auto records = capture.FromSource("korvel.connection");
  EXPECT_EQ(qx::logging::QXLOG_ERROR, records[0].level);
  EXPECT_EQ("Watch callback for '" + node + "' threw: boom", records[0].message);
  EXPECT_EQ(ZOK, conn->Exists(node, nullptr));
}

TEST_F(ConnectionTest, ClosingRemovesEphemeralNodesAndDropsPendingWatches) {
  const std::string node = base + "/eph";
  std::atomic<int> calls{0};
  {
    auto closing = Connect(SharedServer().ConnectString());
    ASSERT_EQ(ZOK, closing->Create(node, "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
    std::string value;
    auto [rc, handle] = closing->Get(
        base, value, [&](int, int, std::string) { calls++; }, nullptr);
    ASSERT_EQ(ZOK, rc);
    closing.reset();  // the handle outlives its connection
    // Its ephemeral node is gone: the server ended the session, so no
    // notification can reach it any more.
    EXPECT_EQ(ZNONODE, conn->Exists(node, nullptr));
    ASSERT_EQ(ZOK, conn->Set(base, "changed", -1));
  }
  EXPECT_EQ(0, calls.load());
}

// The last owner may let go inside a callback; the session then closes from
// a thread of its own instead of joining the thread it runs on.
TEST_F(ConnectionTest, LastReferenceDroppedInACallback) {
  const std::string node = base + "/last";
  ASSERT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  auto holder =
      std::make_shared<std::shared_ptr<Connection>>(Connect(SharedServer().ConnectString()));
  ASSERT_EQ(ZOK, (*holder)->Create(node + "-eph", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr));
  std::promise<void> done;
  std::string value;
  auto [rc, handle] = (*holder)->Get(
      node, value,
      [holder, &done](int, int, std::string) {
        holder->reset();  // the only owner left
        done.set_value();
      },
      nullptr);
  ASSERT_EQ(ZOK, rc);
  ASSERT_EQ(ZOK, conn->Set(node, "1", -1));
  ASSERT_EQ(std::future_status::ready, done.get_future().wait_for(5s));
  EXPECT_TRUE(WaitUntil([&] { return conn->Exists(node + "-eph", nullptr) == ZNONODE; }, 5000ms));
}

TEST_F(ConnectionTest, GetAllReadsEveryValueWhole) {
  const std::string big(300 * 1024, 'b');
  ASSERT_EQ(ZOK, conn->Create(base + "/a", "alpha", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(base + "/big", big, ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(base + "/empty", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  std::vector<std::string> values{"stale"};
  const auto codes = conn->GetAll(
      {{base + "/a"}, {base + "/missing"}, {base + "/big"}, {base + "/empty"}}, values);
  EXPECT_EQ((std::vector<int>{ZOK, ZNONODE, ZOK, ZOK}), codes);
  ASSERT_EQ(4u, values.size());
  EXPECT_EQ("alpha", values[0]);
  EXPECT_EQ("", values[1]);
  EXPECT_TRUE(values[2] == big);
  EXPECT_EQ("", values[3]);
}

// A batch bigger than the requests a connection keeps in flight is sent in
// parts as answers come, each answer in its place.
TEST_F(ConnectionTest, GetAllOfMoreRequestsThanAreInFlightAtOnce) {
  constexpr int kNodes = 3;
  constexpr std::size_t kReads = 25000;
  for (int n = 0; n < kNodes; ++n) {
    ASSERT_EQ(ZOK, conn->Create(base + "/" + std::to_string(n), "value " + std::to_string(n),
                                ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  }
  std::vector<Connection::ReadRequest> requests;
  for (std::size_t i = 0; i < kReads; ++i) {
    requests.push_back({base + "/" + std::to_string(i % (kNodes + 1))});  // every 4th is missing
  }
  std::vector<std::string> values;
  const auto codes = conn->GetAll(requests, values);
  ASSERT_EQ(kReads, codes.size());
  ASSERT_EQ(kReads, values.size());
  for (std::size_t i = 0; i < kReads; ++i) {
    const bool exists = static_cast<int>(i % (kNodes + 1)) < kNodes;
    ASSERT_EQ(exists ? ZOK : ZNONODE, codes[i]) << i;
    ASSERT_EQ(exists ? "value " + std::to_string(i % (kNodes + 1)) : "", values[i]) << i;
  }
}

TEST_F(ConnectionTest, ANodeWithoutDataReadsAsEmpty) {
  // Other clients can make a node with a null value, which the C client
  // reports with a length of -1.
  const std::string node = base + "/null";
  zhandle_t* raw =
      zookeeper_init(SharedServer().ConnectString().c_str(), nullptr, 4000, nullptr, nullptr, 0);
  ASSERT_NE(nullptr, raw);
  const bool connected = WaitUntil([&] { return zoo_state(raw) == ZOO_CONNECTED_STATE; }, 5000ms);
  const int created =
      connected ? zoo_create(raw, node.c_str(), nullptr, -1, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0)
                : ZCONNECTIONLOSS;
  zookeeper_close(raw);  // before any assertion can return
  ASSERT_TRUE(connected);
  ASSERT_EQ(ZOK, created);

  std::string value = "stale";
  Stat stat{};
  EXPECT_EQ(ZOK, conn->Get(node, value, &stat));
  EXPECT_EQ("", value);
  EXPECT_EQ(0, stat.dataLength);
  EventLog log;
  value = "stale";
  auto [rc, handle] = conn->Get(node, value, log.Callback(), nullptr);
  EXPECT_EQ(ZOK, rc);
  EXPECT_EQ("", value);
  std::vector<std::string> values;
  EXPECT_EQ(std::vector<int>{ZOK}, conn->GetAll({{node}}, values));
  EXPECT_EQ(std::vector<std::string>{""}, values);
}

TEST_F(ConnectionTest, GetAllSetsAWatchOnEachExistingNode) {
  ASSERT_EQ(ZOK, conn->Create(base + "/x", "1", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Create(base + "/y", "1", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EventLog log;
  std::vector<std::string> values;
  std::vector<Connection::WatchHandle> handles;
  const auto codes = conn->GetAll(
      {{base + "/x", true}, {base + "/y", true}, {base + "/none", true}, {base + "/x"}}, values,
      log.Callback(), &handles);
  EXPECT_EQ((std::vector<int>{ZOK, ZOK, ZNONODE, ZOK}), codes);
  ASSERT_EQ(4u, handles.size());
  EXPECT_FALSE(handles[2].Empty());  // returned, but it never fires
  EXPECT_TRUE(handles[3].Empty());   // not asked for
  ASSERT_EQ(ZOK, conn->Set(base + "/y", "2", -1));
  ASSERT_EQ(ZOK, conn->Create(base + "/none", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_EQ(ZOK, conn->Set(base + "/x", "2", -1));
  ASSERT_TRUE(log.WaitFor(2));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  ASSERT_EQ(2u, log.Count());
  EXPECT_EQ(std::make_tuple(ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, base + "/y"), log.events[0]);
  EXPECT_EQ(std::make_tuple(ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, base + "/x"), log.events[1]);
}

// The server's count of data watches, from its "wchs" report.
int ServerWatchCount() {
  const std::string report = FourLetterWord(SharedServer().Port(), "wchs", 2000ms);
  const auto at = report.find("Total watches:");
  return at == std::string::npos ? -1 : std::stoi(report.substr(at + 14));
}

TEST_F(ConnectionTest, RemoveWatchesRemovesThemFromTheServer) {
  EventLog log;
  std::vector<std::string> paths;
  std::vector<Connection::ReadRequest> reads;
  for (int i = 0; i < 3; ++i) {
    paths.push_back(base + "/r" + std::to_string(i));
    reads.push_back({paths.back(), true});
    ASSERT_EQ(ZOK, conn->Create(paths.back(), "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  }
  const int before = ServerWatchCount();
  ASSERT_GE(before, 0);
  std::vector<std::string> values;
  std::vector<Connection::WatchHandle> handles;
  conn->GetAll(reads, values, log.Callback(), &handles);
  std::vector<std::string> children;
  auto [rc, childHandle] = conn->GetChildren(base, children, log.Callback());
  ASSERT_EQ(ZOK, rc);
  handles.push_back(std::move(childHandle));
  EXPECT_TRUE(WaitUntil([&] { return ServerWatchCount() == before + 3; }, 2000ms));

  EXPECT_EQ(ZOK, conn->RemoveWatches(handles));
  for (const auto& handle : handles) EXPECT_TRUE(handle.Empty());
  EXPECT_TRUE(WaitUntil([&] { return ServerWatchCount() == before; }, 2000ms));
  for (const auto& path : paths) ASSERT_EQ(ZOK, conn->Set(path, "changed", -1));
  ASSERT_EQ(ZOK, conn->Create(base + "/new", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  ASSERT_TRUE(AwaitEarlierEvents(*conn));
  EXPECT_EQ(0u, log.Count());
}

// A callback may hold the last reference to something that uses the
// connection when it is destroyed; it goes when its watch is forgotten, or
// with the connection, which it must not use then.
struct WatchesOnDestruction {
  WatchesOnDestruction(Connection& conn, std::string path, std::shared_ptr<std::atomic<int>> count)
      : conn(conn), path(std::move(path)), destroyed(std::move(count)) {}
  ~WatchesOnDestruction() {
    if (*destroyed < 0) return;  // the connection is going
    auto [rc, handle] = conn.Exists(
        path, [](int, int, std::string) {}, nullptr);
    EXPECT_EQ(ZNONODE, rc);
    ++*destroyed;
  }
  Connection& conn;
  const std::string path;
  const std::shared_ptr<std::atomic<int>> destroyed;
};

TEST_F(ConnectionTest, ACallbackWhoseCapturesUseTheConnectionCanBeForgotten) {
  const std::string missing = base + "/never";
  const auto destroyed = std::make_shared<std::atomic<int>>(0);
  const auto watchWithCapture = [&] {
    auto capture = std::make_shared<WatchesOnDestruction>(*conn, missing + "-other", destroyed);
    auto [rc, handle] = conn->Exists(
        missing, [capture](int, int, std::string) {}, nullptr);
    EXPECT_EQ(ZNONODE, rc);
    return std::move(handle);
  };
  // Forgotten by RemoveWatches.
  std::vector<Connection::WatchHandle> handles;
  handles.push_back(watchWithCapture());
  EXPECT_EQ(ZOK, conn->RemoveWatches(handles));
  EXPECT_EQ(1, *destroyed);
  // Forgotten when the registry is pruned of cancelled watches.
  for (int i = 0; i < 200; ++i) watchWithCapture();
  EXPECT_GT(*destroyed, 1);
  *destroyed = -1;
}

TEST_F(ConnectionTest, AnInjectorThatThrowsMidBatchLeavesTheBatchWhole) {
  std::vector<Connection::ReadRequest> reads;
  for (int i = 0; i < 6; ++i) {
    reads.push_back({base + "/t" + std::to_string(i), i % 2 == 0});
    ASSERT_EQ(ZOK, conn->Create(reads.back().path, "v", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  }
  conn->SetFaultInjector([&](Connection::Operation, const std::string& path) -> std::optional<int> {
    if (path == reads[3].path) throw std::runtime_error("injector failed");
    return std::nullopt;
  });
  std::vector<std::string> values;
  std::vector<Connection::WatchHandle> handles;
  EXPECT_THROW(conn->GetAll(
                   reads, values, [](int, int, std::string) {}, &handles),
               std::runtime_error);
  conn->SetFaultInjector(nullptr);
  EXPECT_EQ(std::vector<int>(6, ZOK), conn->GetAll(reads, values));
  EXPECT_EQ(std::vector<std::string>(6, "v"), values);
}

TEST_F(ConnectionTest, FaultInjectorReplacesTheResult) {
  const std::string node = base + "/injected";
  conn->SetFaultInjector([&](Connection::Operation op, const std::string& path) {
    return op == Connection::Operation::Create && path == node ? std::optional<int>(ZCONNECTIONLOSS)
                                                               : std::nullopt;
  });
  EXPECT_EQ(ZCONNECTIONLOSS, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_EQ(ZNONODE, conn->Exists(node, nullptr));
  conn->SetFaultInjector(nullptr);
  EXPECT_EQ(ZOK, conn->Create(node, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
}

TEST_F(ConnectionTest, ClientLogLinesAreRoutedIntoLogging) {
  LogLevelScope level(qx::logging::QXLOG_DEBUG);
  LogCapture capture;
  testing::internal::CaptureStderr();
  { auto another = Connect(SharedServer().ConnectString()); }
  const std::string stderrText = testing::internal::GetCapturedStderr();

  const auto client = capture.FromSource("zookeeper.client");
  ASSERT_FALSE(client.empty());
  bool initiating = false;
  for (const auto& record : client) {
    if (record.message.find("Initiating client connection") != std::string::npos) {
      initiating = true;
      EXPECT_EQ(qx::logging::QXLOG_INFO, record.level);
    }
  }
  EXPECT_TRUE(initiating);
  EXPECT_EQ("", stderrText);
  EXPECT_FALSE(capture.FromSource("korvel.connection").empty());
}

// Found by ThreadSanitizer: pruning the registry of cancelled watches dropped
// the last reference to a watch's context while its mutex was still locked.
TEST_F(ConnectionTest, PruningCancelledWatchesKeepsEachContextUntilItsLockIsReleased) {
  const std::string missing = base + "/never";
  for (int i = 0; i < 200; ++i) {
    auto [rc, handle] = conn->Exists(
        missing, [](int, int, std::string) {}, nullptr);
    EXPECT_EQ(ZNONODE, rc);
  }  // each handle is gone: the registry holds the last reference
  EventLog events;
  auto [rc, handle] = conn->Exists(missing, events.Callback(), nullptr);
  ASSERT_EQ(ZNONODE, rc);
  ASSERT_EQ(ZOK, conn->Create(missing, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_TRUE(events.WaitFor(1));
  EXPECT_EQ(1u, events.Count());
}

}  // namespace
}  // namespace korvel::test
