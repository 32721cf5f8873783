// Session expiries at chosen requests: at each request of a registration (in
// Init), during SetChildAttribute, during RemoveChild and during a Service's
// destruction. The Connection's fault injector expires the session just
// before the request goes. Afterwards a registration that returned is listed
// with its data node under the connection's session, one that threw leaves
// nothing that the next registration of its type does not remove, a service
// registered for session events is registered again, a destroyed one is not,
// and no thread or descriptor is left.
#include <gtest/gtest.h>

#include <algorithm>

#include "korvel/error.h"
#include "korvel/service.h"
#include "util/fault_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::KorvelError;
using qx::korvel::Service;
using qx::korvel::ServiceId;
using Op = Connection::Operation;

class FaultExpiryTest : public LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    hosts = SharedServer().ConnectString();
    type = UniqueName("expiry");
  }

  // Sets an injector that expires the session of `conn` at the nth request
  // matching `op` and `suffix`; returns the flag that tells it did.
  std::shared_ptr<std::atomic<bool>> ExpireAt(const std::shared_ptr<Connection>& conn, int nth,
                                              std::optional<Op> op = std::nullopt,
                                              const std::string& suffix = "") {
    auto fired = std::make_shared<std::atomic<bool>>(false);
    conn->SetFaultInjector(ExpireAtRequest(conn, hosts, nth, fired, op, suffix));
    return fired;
  }
  // Waits until `service` is registered under the current session of its
  // connection: liveness node and start time owned by it.
  bool RegisteredUnderCurrentSession(const Service& service) {
    return WaitUntil([&] { return OwnedByCurrentSession(service, type); }, 20000ms);
  }

  std::string hosts;
  std::string type;
  LogCapture capture;  // the expected failures' records stay off stderr
};

// The requests of one registration, as the injector sees them.
std::vector<std::pair<Op, std::string>> RequestsOfARegistration(
    const std::shared_ptr<Connection>& conn, const std::string& type) {
  auto requests = std::make_shared<std::vector<std::pair<Op, std::string>>>();
  conn->SetFaultInjector([requests](Op op, const std::string& path) {
    requests->emplace_back(op, path);
    return std::optional<int>();
  });
  Service counted(conn, type, "counted");
  conn->SetFaultInjector(nullptr);
  return *requests;
}

TEST_F(FaultExpiryTest, ExpiryAtEachRequestOfARegistration) {
  auto checker = Connect(hosts);
  RegistryCheck check(checker, type);
  RequestsOfARegistration(checker, type);  // the first one also makes the type's directories
  const auto requests = RequestsOfARegistration(checker, type);
  ASSERT_GT(requests.size(), 5u);
  const auto listing = std::find(requests.begin(), requests.end(),
                                 std::pair<Op, std::string>(Op::GetChildren, tree::AliveDir(type)));
  ASSERT_NE(requests.end(), listing);
  const int livenessListing = static_cast<int>(listing - requests.begin()) + 1;
  std::shared_ptr<Service> bystander;  // a live instance of the type in another session
  int returned = 0, threw = 0, bystandersLost = 0;
  for (int round = 0; round < FaultRounds(1); ++round) {
    for (int k = 1; k <= static_cast<int>(requests.size()); ++k) {
      if (!bystander) {
        bystander = std::make_shared<Service>(checker, type, "bystander");
        check.AddLive(*bystander);
      }
      auto conn = Connect(hosts);
      const int64_t old = conn->ClientId().client_id;
      const auto fired = ExpireAt(conn, k);
      const ServiceId id = qx::korvel::RandomServiceId();
      std::shared_ptr<Service> service;
      try {
        service = std::make_shared<Service>(conn, type, id, "expiry");
      } catch (const KorvelError&) {
        check.AddCrashed(id);  // a failed registration leaves what a crash leaves
      }
      conn->SetFaultInjector(nullptr);
      if (!fired->load()) continue;  // this registration made fewer requests
      ASSERT_TRUE(WaitForNewSession(*conn, old)) << "request " << k;
      if (service) {
        ++returned;
        // A registration that returned is registered, under the new session.
        EXPECT_TRUE(RegisteredUnderCurrentSession(*service)) << "request " << k;
        check.AddLive(*service);
      } else {
        ++threw;
      }
      // The next registration of the type removes what a failed one left.
      Service next(conn, type, "next");
      EXPECT_EQ(std::vector<std::string>{}, check.Leftovers()) << "request " << k;
      const auto problems = check.LiveProblems();
      const std::string lost = RegistryCheck::Text(bystander->GetId()) + " has no data node";
      if (k == livenessListing && problems == std::vector<std::string>{lost}) {
        // Deliberate: the cleanup ignores the codes of its listings, so a
        // liveness listing that failed after a good data listing takes every
        // data node of the type for a leftover, the bystander's too.
        ++bystandersLost;
        check.RemoveLive(bystander->GetId());
        bystander.reset();
      } else {
        EXPECT_EQ(std::vector<std::string>{}, problems) << "request " << k;
      }
      if (service) check.RemoveLive(id);
    }
  }
  EXPECT_GT(returned + threw, 0) << "no expiry was injected";
  bystander.reset();
  EXPECT_EQ(std::vector<std::string>{}, check.DataNodes());
  EXPECT_EQ(std::vector<std::string>{}, check.LivenessNodes());
  ReportFigures("expiry_in_registration",
                std::to_string(returned + threw) + " expiries, at each of the " +
                    std::to_string(requests.size()) + " requests of a registration: " +
                    std::to_string(returned) + " registrations returned, " + std::to_string(threw) +
                    " threw; " + std::to_string(bystandersLost) +
                    " bystander data nodes deleted after a failed liveness listing (deliberate)");
}

TEST_F(FaultExpiryTest, ExpiryDuringSetChildAttributeAndRemoveChild) {
  struct Point {
    const char* what;
    Op op;
    const char* suffix;
    bool remove;  // RemoveChild rather than SetChildAttribute
  };
  const Point points[] = {
      {"update of the attribute", Op::Set, "/app/port", false},
      {"creation of the child", Op::Create, "/app", false},
      {"creation of the attribute", Op::Create, "/app/port", false},
      {"listing of the child", Op::GetChildren, "/app", true},
      {"delete of an attribute", Op::Delete, "/app/port", true},
      {"delete of the child", Op::Delete, "/app", true},
  };
  auto conn = Connect(hosts);
  RegistryCheck check(Connect(hosts), type);
  auto service = std::make_shared<Service>(conn, type, "attributes");
  service->RegisterForSessionEvent();
  check.AddLive(*service);
  int expiries = 0, failed = 0;
  for (int round = 0; round < FaultRounds(1); ++round) {
    for (const Point& point : points) {
      if (point.remove) service->SetChildAttribute("app", "port", "80");
      const int64_t old = conn->ClientId().client_id;
      const auto fired = ExpireAt(conn, 1, point.op, point.suffix);
      try {
        if (point.remove) {
          service->RemoveChild("app", false);  // logs, never throws
        } else {
          service->SetChildAttribute("app", "port", std::to_string(round));
        }
      } catch (const KorvelError&) {
        ++failed;
      }
      conn->SetFaultInjector(nullptr);
      ASSERT_TRUE(fired->load()) << point.what;
      ++expiries;
      ASSERT_TRUE(WaitForNewSession(*conn, old)) << point.what;
      // Registered again by itself; its data node was never deleted.
      EXPECT_TRUE(RegisteredUnderCurrentSession(*service)) << point.what;
      EXPECT_EQ(std::vector<std::string>{}, check.LiveProblems()) << point.what;
      // The operation works again on the new session.
      if (point.remove) {
        service->RemoveChild("app", true);
        EXPECT_FALSE(NodeExists(*conn, service->GetRoot() + "/app")) << point.what;
      } else {
        service->SetChildAttribute("app", "port", "8080");
        EXPECT_EQ("8080", ReadNode(*conn, service->GetRoot() + "/app/port")) << point.what;
        service->RemoveChild("app", true);
      }
    }
  }
  service.reset();
  EXPECT_EQ(std::vector<std::string>{}, check.DataNodes());
  ReportFigures("expiry_in_attributes",
                std::to_string(expiries) + " expiries, " + std::to_string(failed) + " calls threw");
}

TEST_F(FaultExpiryTest, ExpiryDuringDestruction) {
  struct Point {
    const char* what;
    Op op;
    std::string suffix;
  };
  auto conn = Connect(hosts);
  RegistryCheck check(Connect(hosts), type);
  int expiries = 0;
  for (int round = 0; round < FaultRounds(1); ++round) {
    for (const Point& point : {Point{"listing of the data node", Op::GetChildren, ""},
                               Point{"delete of an attribute", Op::Delete, "/status"},
                               Point{"delete of the liveness node", Op::Delete, "alive"}}) {
      auto service = std::make_shared<Service>(conn, type, "destroyed");
      service->RegisterForSessionEvent();
      const ServiceId id = service->GetId();
      service->SetChildAttribute("app", "port", "80");
      const std::string suffix = point.suffix == "alive" ? tree::AlivePath(type, id)
                                 : point.suffix.empty()  ? service->GetRoot()
                                                         : point.suffix;
      const int64_t old = conn->ClientId().client_id;
      const auto fired = ExpireAt(conn, 1, point.op, suffix);
      service.reset();  // never throws
      conn->SetFaultInjector(nullptr);
      ASSERT_TRUE(fired->load()) << point.what;
      ++expiries;
      ASSERT_TRUE(WaitForNewSession(*conn, old)) << point.what;
      check.AddCrashed(id);
      // The destroyed service does not register again; the next registration
      // removes what its teardown left. A re-registration would have run on
      // the event thread before the control watch.
      ASSERT_TRUE(AwaitEarlierEvents(*conn)) << point.what;
      EXPECT_FALSE(NodeExists(*conn, tree::AlivePath(type, id)));
      Service next(conn, type, "next");
      EXPECT_EQ(std::vector<std::string>{}, check.Leftovers()) << point.what;
    }
  }
  EXPECT_EQ(std::vector<std::string>{}, check.DataNodes());
  ReportFigures("expiry_in_destruction", std::to_string(expiries) + " expiries");
}

}  // namespace
}  // namespace korvel::test
