// Bad input at every public entry point: empty, slash-only, "alive", ".",
// "..", longer than 1 MiB, non-UTF-8, NUL-containing and control-character
// names and values. Each call ends in a clear error (a result code or
// KorvelError) or, where the input is legitimate, does just what it says; the
// session stays the same and usable, and nothing in /srv changes but what the
// call may write.
#include <gtest/gtest.h>

#include <functional>

#include "korvel/error.h"
#include "korvel/service.h"
#include "korvel/service_cache.h"
#include "korvel/utils.h"
#include "util/fault_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::KorvelError;
using qx::korvel::NormalizePath;
using qx::korvel::OldServiceWatcher;
using qx::korvel::Service;

struct BadInput {
  const char* label;
  std::string text;
};

// Names that no type, child or attribute can have (or, for "alive", no type).
const std::vector<BadInput>& BadNames() {
  static const std::vector<BadInput> names = {
      {"empty", ""},
      {"slash", "/"},
      {"slashes", "///"},
      {"dot", "."},
      {"dotdot", ".."},
      {"inner dot", "a/./b"},
      {"inner dotdot", "a/../b"},
      {"over 1 MiB", std::string(1536 * 1024, 'n')},
      {"non-UTF-8", "bad\xff\xfe"},
      {"NUL", std::string("a\0b", 3)},
      {"control", "c\x01"},
  };
  return names;
}

// Values that are legitimate (stored as they are) except the long one.
const std::vector<BadInput>& OddValues() {
  static const std::vector<BadInput> values = {
      {"empty", ""},
      {"non-UTF-8", "bad\xff\xfe"},
      {"NUL", std::string("a\0b", 3)},
      {"slashes", "///"},
  };
  return values;
}

struct Outcome {
  bool ok = false;  // returned ZOK or did not throw
  std::string error;
};

class FaultInputTest : public LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    conn = Connect(SharedServer().ConnectString());
    session = conn->ClientId().client_id;
    type = UniqueName("input");
    service = std::make_shared<Service>(conn, type, "input");
    watcher = std::make_unique<OldServiceWatcher>(conn, type);
    // A path cut short at a NUL once sent a registration's cleanup into an
    // endless listing (memory without bound): stop here if it is not refused.
    ASSERT_EQ(ZBADARGUMENTS, conn->Exists(std::string("/srv/a\0b", 8), nullptr));
    // Decoys: the nodes that a name cut short at its NUL ("a\0b") would hit.
    for (const std::string& decoy : {std::string("/srv/a/decoy"), std::string("/srv/alive/a"),
                                     tree::DataDir(type) + "/a", Root() + "/a"}) {
      qx::korvel::EnsurePath(*conn, decoy, false, ZOO_OPEN_ACL_UNSAFE);
    }
  }
  void TearDown() override {
    ReportFigures("bad_input",
                  std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) +
                      ": " + std::to_string(calls) + " calls");
    watcher.reset();
    service.reset();
    conn.reset();
    LeakCheckedTest::TearDown();
  }

  // Runs `call`, then expects the same session to answer and /srv to have
  // changed only at or below `allowed`.
  Outcome Run(const std::string& what, const std::function<int()>& call,
              const std::vector<std::string>& allowed = {}) {
    const TreeSnapshot before = SnapshotTree(*conn, tree::kDataRoot);
    Outcome outcome;
    try {
      const int rc = call();
      outcome.ok = rc == ZOK;
      if (rc != ZOK) outcome.error = zerror(rc);
    } catch (const KorvelError& e) {
      outcome.error = e.what();
    }
    // A request too large for the server costs the connection, not the session.
    EXPECT_TRUE(WaitUntil([&] { return conn->Exists(tree::kDataRoot, nullptr) == ZOK; }, 10000ms))
        << what;
    EXPECT_EQ(session, conn->ClientId().client_id) << what;
    for (const auto& path : ChangedOutside(before, SnapshotTree(*conn, tree::kDataRoot), allowed)) {
      ADD_FAILURE() << what << " changed " << path.substr(0, 200);
    }
    ++calls;
    return outcome;
  }
  void ExpectError(const std::string& what, const std::function<int()>& call,
                   const std::vector<std::string>& allowed = {}) {
    const Outcome outcome = Run(what, call, allowed);
    EXPECT_FALSE(outcome.ok) << what;
    EXPECT_FALSE(outcome.error.empty()) << what;
  }
  std::string Root() const { return service->GetRoot(); }

  std::shared_ptr<Connection> conn;
  int64_t session = 0;
  std::string type;
  std::shared_ptr<Service> service;
  std::unique_ptr<OldServiceWatcher> watcher;
  LogCapture capture;  // expected error records stay off stderr
  int calls = 0;
};

TEST_F(FaultInputTest, BadTypesAreRefused) {
  for (const auto& bad : BadNames()) {
    const std::string what = std::string("type ") + bad.label;
    ExpectError("Service: " + what, [&] {
      Service refused(conn, bad.text, "x");
      return ZOK;
    });
    ExpectError("OldServiceWatcher: " + what, [&] {
      OldServiceWatcher refused(conn, bad.text);
      return ZOK;
    });
    // Lists nothing and deletes nothing (its listings' codes are ignored).
    Run("CleanupCrashedApps: " + what, [&] {
      service->CleanupCrashedApps(bad.text);
      return ZOK;
    });
    // Never current, or current with no instance: either way it writes nothing.
    Run("ServiceCache: " + what, [&] {
      qx::korvel::ServiceCache cache(conn, bad.text);
      cache.Start();
      if (cache.WaitUntilCurrent(300ms)) {
        EXPECT_TRUE(cache.Snapshot()->instances.empty()) << what;
      }
      return ZOK;
    });
  }
  // "alive" and the types below it would mix data nodes with liveness nodes.
  for (const std::string alive : {"alive", "/alive/", "alive/x", "alive//x/"}) {
    ExpectError("Service: type " + alive, [&] {
      Service refused(conn, alive, "x");
      return ZOK;
    });
    ExpectError("CleanupCrashedApps: type " + alive, [&] {
      service->CleanupCrashedApps(NormalizePath(alive));
      return ZOK;
    });
  }
  // A watcher of "alive" may make its (harmless) directory.
  EXPECT_TRUE(Run("OldServiceWatcher: type alive",
                  [&] {
                    OldServiceWatcher odd(conn, "alive");
                    return ZOK;
                  },
                  {tree::AliveDir("alive")})
                  .ok);
  EXPECT_EQ(ZOK, std::get<0>(watcher->List()));  // the fixture's watcher is unharmed
  EXPECT_EQ(std::vector<std::string>{RegistryCheck::Text(service->GetId())},
            RegistryCheck(conn, type).LivenessNodes());
}

TEST_F(FaultInputTest, BadChildAndAttributeNamesAreRefused) {
  const qx::korvel::ServiceId id = service->GetId();
  for (const auto& bad : BadNames()) {
    const std::string what = std::string(bad.label);
    // A child "/" is the service itself (documented); every other child fails.
    if (bad.text != "/") {
      ExpectError("SetChildAttribute child " + what, [&] {
        service->SetChildAttribute(bad.text, "attr", "v");
        return ZOK;
      });
      ExpectError("SetChildStatus child " + what, [&] {
        service->SetChildStatus(Service::UP, bad.text);
        return ZOK;
      });
    }
    ExpectError("SetChildAttribute attribute " + what,
                [&] {
                  service->SetChildAttribute("app", bad.text, "v");
                  return ZOK;
                },
                {Root() + "/app"});
    // RemoveChild only logs a failure (deliberately): it must delete nothing.
    capture.Clear();
    Run("RemoveChild " + what, [&] {
      service->RemoveChild(bad.text, false);
      return ZOK;
    });
    if (bad.text.find_first_not_of('/') != std::string::npos) {
      EXPECT_FALSE(capture.FromSource("korvel.service").empty()) << "RemoveChild " << what;
    }
    ExpectError("GetAttribute name " + what,
                [&] { return std::get<0>(watcher->GetAttribute(id, bad.text)); });
    ExpectError("HasAttribute name " + what, [&] { return watcher->HasAttribute(id, bad.text); });
    // An empty or slash-only path addresses the instance itself.
    if (NormalizePath(bad.text).empty()) continue;
    ExpectError("GetAttribute path " + what,
                [&] { return std::get<0>(watcher->GetAttribute(id, "status", bad.text)); });
    ExpectError("GetAttributes path " + what,
                [&] { return std::get<0>(watcher->GetAttributes(id, bad.text)); });
  }
  // A child named "alive" is an ordinary child.
  EXPECT_TRUE(Run("SetChildAttribute child alive",
                  [&] {
                    service->SetChildAttribute("alive", "port", "1");
                    return ZOK;
                  },
                  {Root() + "/alive"})
                  .ok);
}

TEST_F(FaultInputTest, ValuesAreStoredAsTheyAreOrRefusedWhenTooLong) {
  for (const auto& odd : OddValues()) {
    const std::string what = std::string("value ") + odd.label;
    EXPECT_TRUE(Run("SetChildAttribute " + what,
                    [&] {
                      service->SetChildAttribute("app", "odd", odd.text);
                      return ZOK;
                    },
                    {Root() + "/app"})
                    .ok)
        << what;
    EXPECT_EQ(odd.text, std::get<1>(watcher->GetAttribute(service->GetId(), "odd", "app")));
    EXPECT_TRUE(Run("Service name " + what,
                    [&] {
                      Service named(conn, type, odd.text);
                      EXPECT_EQ(odd.text, ReadNode(*conn, named.GetRoot() + "/service_name"));
                      return ZOK;
                    },
                    {tree::DataDir(type), tree::AliveDir(type)})
                    .ok)
        << what;
  }
  const std::string huge(Connection::kMaxDataSize + 1, 'v');
  ExpectError("SetChildAttribute value over the limit",
              [&] {
                service->SetChildAttribute("app", "huge", huge);
                return ZOK;
              },
              {Root() + "/app"});
  // The constructor keeps what it made before the failure (documented).
  ExpectError("Service name over the limit",
              [&] {
                Service named(conn, type, huge);
                return ZOK;
              },
              {tree::DataDir(type), tree::AliveDir(type)});
  // An out-of-range status publishes "unknown".
  service->SetStatus(static_cast<Service::Status>(7));
  EXPECT_EQ("unknown", ReadNode(*conn, Root() + "/status"));
}

TEST_F(FaultInputTest, BadPathsAndConnectStringsAreRefused) {
  for (const auto& bad : BadNames()) {
    const std::string what = std::string(bad.label);
    const std::string absolute = tree::DataDir(type) + "/" + bad.text;
    ExpectError("EnsurePath " + what, [&] {
      qx::korvel::EnsurePath(*conn, absolute, false, ZOO_OPEN_ACL_UNSAFE);
      return ZOK;
    });
    ExpectError("Create " + what,
                [&] { return conn->Create(absolute, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr); });
    // Deleting a node that cannot exist may succeed, but must delete nothing.
    Run("RecursiveDelete " + what, [&] {
      qx::korvel::RecursiveDelete(*conn, absolute);
      return ZOK;
    });
    Run("Delete " + what, [&] { return conn->Delete(absolute, -1); });
  }
  const RefusingLoopbackPort nothing;
  for (const std::string& hosts : {std::string(), std::string(","), nothing.ConnectString()}) {
    EXPECT_THROW({ Connection refused(hosts, 500ms); }, KorvelError) << hosts;
  }
}

}  // namespace
}  // namespace korvel::test
