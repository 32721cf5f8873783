// A SupervisedService against a real server: it registers again, with what was published through
// it, after others removed its nodes and after a session expiry, retries a failing registration,
// and stops at once when destroyed.
#include "korvel/supervised_service.h"

#include <gtest/gtest.h>

#include <atomic>

#include "korvel/error.h"
#include "korvel/utils.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::Service;
using qx::korvel::SupervisedService;
using qx::korvel::SupervisionOptions;

class SupervisedServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = Connect(Hosts());
    other = Connect(Hosts());
    type = UniqueName("supervised");
  }
  void TearDown() override { conn->SetFaultInjector(nullptr); }

  // Options under which only a session event or the liveness watch starts a check.
  static SupervisionOptions WatchOnly() {
    SupervisionOptions options;
    options.verifyInterval = 600s;
    return options;
  }

  std::string AlivePath(const SupervisedService& s) const {
    return tree::AlivePath(type, s.GetId());
  }
  // Removes the instance's nodes the way another process's cleanup or an operator would.
  void RemoveNodes(const SupervisedService& s) const {
    qx::korvel::RecursiveDelete(*other, s.GetRoot());
    ASSERT_EQ(ZOK, other->Delete(AlivePath(s), -1));
  }
  // True once the instance is registered in `conn`'s current session with status `status` and
  // worker-1's port 8080.
  bool RegisteredWithState(const SupervisedService& s, const std::string& status) const {
    return WaitUntil(
        [&] {
          return EphemeralOwner(*other, AlivePath(s)) == conn->ClientId().client_id &&
                 ReadNode(*other, s.GetRoot() + "/status") == status &&
                 ReadNode(*other, s.GetRoot() + "/worker-1/port") == "8080";
        },
        20s);
  }

  // Makes `conn`'s creates of `alive` fail with a connection loss while `refuse` holds, then
  // removes the instance's nodes and waits until the supervisor has logged a failed try.
  void FailRegistrationsAfterRemoval(const SupervisedService& s, const std::atomic<bool>& refuse) {
    const std::string alive = AlivePath(s);
    conn->SetFaultInjector([alive, &refuse](Connection::Operation op, const std::string& path) {
      std::optional<int> result;
      if (op == Connection::Operation::Create && path == alive && refuse) {
        result = ZCONNECTIONLOSS;
      }
      return result;
    });
    LogCapture capture;
    RemoveNodes(s);
    ASSERT_TRUE(WaitUntil(
        [&] {
          for (const auto& record : capture.FromSource("korvel.supervised")) {
            if (record.message.find("again failed") != std::string::npos) return true;
          }
          return false;
        },
        10s));
  }

  std::shared_ptr<Connection> conn, other;
  std::string type;
};

TEST_F(SupervisedServiceTest, RemovedNodesComeBackWithTheStatusAndTheRecordsHeld) {
  std::atomic<int> reregistered{0};
  SupervisionOptions options = WatchOnly();
  options.reregistered = [&] { ++reregistered; };
  SupervisedService s(conn, type, "x", options);
  s.SetStatus(Service::UP);
  s.SetChildAttribute("worker-1", "port", "8080");
  s.SetChildAttribute("worker-2", "port", "9090");
  s.RemoveChild("worker-2", false);
  EXPECT_EQ(1u, s.Registrations());

  RemoveNodes(s);
  ASSERT_TRUE(RegisteredWithState(s, "up"));
  EXPECT_TRUE(WaitUntil([&] { return reregistered.load() >= 1; }, 10s));
  EXPECT_GE(s.Registrations(), 2u);
  EXPECT_EQ("x", ReadNode(*other, s.GetRoot() + "/service_name"));
  // The record removed through the service stays removed.
  EXPECT_FALSE(NodeExists(*other, s.GetRoot() + "/worker-2"));
}

TEST_F(SupervisedServiceTest, AnExpiredSessionIsFollowedByARegistrationWithTheState) {
  SupervisedService s(conn, type, "x", WatchOnly());
  s.SetStatus(Service::UP_SENDING_DISABLED);
  s.SetChildAttribute("worker-1", "port", "8080");
  const int64_t before = EphemeralOwner(*other, AlivePath(s));

  ExpireSession(Hosts(), conn->ClientId());
  ASSERT_TRUE(RegisteredWithState(s, "up_sending_disabled"));
  EXPECT_NE(before, EphemeralOwner(*other, AlivePath(s)));
  EXPECT_EQ(2u, s.Registrations());
}

TEST_F(SupervisedServiceTest, AFailingRegistrationIsTriedAgainUntilItSucceeds) {
  SupervisionOptions options = WatchOnly();
  options.initialBackoff = 20ms;
  options.maxBackoff = 80ms;
  SupervisedService s(conn, type, "x", options);
  s.SetStatus(Service::UP);
  s.SetChildAttribute("worker-1", "port", "8080");
  const std::string alive = AlivePath(s);
  std::atomic<int> refusals{4};
  conn->SetFaultInjector([&](Connection::Operation op, const std::string& path) {
    std::optional<int> result;
    if (op == Connection::Operation::Create && path == alive && refusals.fetch_sub(1) > 0) {
      result = ZCONNECTIONLOSS;
    }
    return result;
  });
  LogCapture capture;

  RemoveNodes(s);
  ASSERT_TRUE(RegisteredWithState(s, "up"));
  EXPECT_LE(refusals.load(), 0);
  int tries = 0, failures = 0;
  for (const auto& record : capture.FromSource("korvel.supervised")) {
    tries += record.message.find("registering it again (try ") != std::string::npos;
    failures += record.message.find("again failed") != std::string::npos;
  }
  EXPECT_EQ(4, failures);
  EXPECT_EQ(5, tries);
}

TEST_F(SupervisedServiceTest, PublishingWhileUnregisteredIsRememberedAndPublishedLater) {
  SupervisionOptions options = WatchOnly();
  options.initialBackoff = options.maxBackoff = 300ms;
  SupervisedService s(conn, type, "x", options);
  s.SetChildAttribute("worker-1", "port", "1");
  std::atomic<bool> refuse{true};
  ASSERT_NO_FATAL_FAILURE(FailRegistrationsAfterRemoval(s, refuse));

  EXPECT_THROW(s.SetStatus(Service::UP), qx::korvel::KorvelError);
  EXPECT_THROW(s.SetChildAttribute("worker-1", "port", "8080"), qx::korvel::KorvelError);
  refuse = false;
  EXPECT_TRUE(RegisteredWithState(s, "up"));
}

TEST_F(SupervisedServiceTest, DestructionCutsABackoffShortAndUnregisters) {
  SupervisionOptions options = WatchOnly();
  options.initialBackoff = options.maxBackoff = 600s;
  auto s = std::make_unique<SupervisedService>(conn, type, "x", options);
  const std::string alive = AlivePath(*s), root = s->GetRoot();
  const std::atomic<bool> refuse{true};
  ASSERT_NO_FATAL_FAILURE(FailRegistrationsAfterRemoval(*s, refuse));

  const auto start = std::chrono::steady_clock::now();
  s.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  conn->SetFaultInjector(nullptr);
  EXPECT_FALSE(NodeExists(*other, root));
  EXPECT_FALSE(NodeExists(*other, alive));
}

TEST_F(SupervisedServiceTest, DestructionUnregistersAndBadOptionsAreRefused) {
  std::string alive, root;
  {
    SupervisedService s(conn, type, "x");
    alive = AlivePath(s);
    root = s.GetRoot();
    EXPECT_EQ(conn->ClientId().client_id, EphemeralOwner(*other, alive));
  }
  EXPECT_FALSE(NodeExists(*other, alive));
  EXPECT_FALSE(NodeExists(*other, root));

  SupervisionOptions zero;
  zero.verifyInterval = 0ms;
  EXPECT_THROW(SupervisedService(conn, type, "x", zero), std::invalid_argument);
  SupervisionOptions inverted;
  inverted.initialBackoff = 2s;
  inverted.maxBackoff = 1s;
  EXPECT_THROW(SupervisedService(conn, type, "x", inverted), std::invalid_argument);
  EXPECT_THROW(SupervisedService(conn, "alive/x", "x"), qx::korvel::KorvelError);
}

}  // namespace
}  // namespace korvel::test
