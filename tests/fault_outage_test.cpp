// The whole (standalone) server away for longer than the session timeout,
// then back: stopped and started again, and paused (SIGSTOP) and resumed.
// Services on two connections, two of them of one type on one connection,
// are registered for session events. Afterwards every service is listed with
// its data node and status, registered under its connection's current
// session (a new one when the server expired the old), and no watch callback
// runs after its handle is gone.
//
// Documented, not asserted: a stopped server restores its sessions when it
// starts, so clients that reconnect within the timeout keep them; a paused one
// usually expires them when it resumes (a race with the reconnection). When
// sessions expire, the first of two instances of a type on one connection to
// register again sees the other's data node without its liveness node and
// deletes it as a leftover; the other then makes it again, without the
// persistent child records it had. The figures count both.
#include <gtest/gtest.h>

#include <thread>

#include "korvel/service.h"
#include "util/fault_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::OldServiceWatcher;
using qx::korvel::Service;

constexpr auto kSessionTimeout = 2000ms;
constexpr auto kAway = 3 * kSessionTimeout;
// How long a connection may take to be in service again once the server is
// back. The client gives up a connection attempt that gets no answer within
// 2/3 of the session timeout (failing the requests queued on it with
// ZOPERATIONTIMEOUT) and makes the next; one attempt finds the session
// expired, the next opens a new one, and the services register on it. A
// loaded machine may need several attempts for each step.
constexpr auto kRecovery = 15 * kSessionTimeout;

struct Registered {
  std::shared_ptr<Service> service;
  std::string type;
  int64_t czxid = 0;
};

class FaultOutageTest : public LeakCheckedTest {
 protected:
  // Whether `entry` is registered under its connection's current session.
  static bool UnderCurrentSession(const Registered& entry) {
    const auto& conn = entry.service->GetConnection();
    return conn->State() == ZOO_CONNECTED_STATE &&
           OwnedByCurrentSession(*entry.service, entry.type) &&
           NodeExists(*conn, entry.service->GetRoot() + "/status");
  }
};

// The warnings and errors the services logged, one per line.
std::string ServiceProblems(const LogCapture& capture) {
  std::string text;
  for (const auto& record : capture.FromSource("korvel.service")) {
    if (record.level >= qx::logging::QXLOG_WARNING) text += record.message + "\n";
  }
  return text;
}

TEST_F(FaultOutageTest, EveryServiceIsRegisteredAgainAfterTheServerWasAway) {
  ZooKeeperServer server;
  LogCapture capture;  // the client's reconnect chatter stays off stderr
  std::vector<std::shared_ptr<Connection>> conns = {
      Connect(server.ConnectString(), kSessionTimeout),
      Connect(server.ConnectString(), kSessionTimeout)};
  const std::string shared = UniqueName("outage"), other = UniqueName("outage");
  std::vector<Registered> services;
  // Two instances of a type on each connection. Not one type on both: after
  // a pause both sessions expire, and a registration racing another
  // connection's registration of its type can lose its data node to that
  // one's cleanup and fail, deliberately not retried until the next expiry.
  for (auto [conn, type] : {std::pair{conns[0], shared}, std::pair{conns[0], shared},
                            std::pair{conns[1], other}, std::pair{conns[1], other}}) {
    auto service = std::make_shared<Service>(conn, type, "outage");
    service->RegisterForSessionEvent();
    services.push_back({service, type});
  }
  auto reader = Connect(server.ConnectString(), kSessionTimeout);
  const std::vector<std::shared_ptr<Connection>> everyConn = {conns[0], conns[1], reader};
  OldServiceWatcher watcher(reader, shared);
  LateCallbackProbe probe;

  int outages = 0, renewed = 0, recreated = 0, recordsLost = 0;
  for (int round = 0; round < FaultRounds(1); ++round) {
    for (const bool pause : {false, true}) {
      for (auto& entry : services) {
        entry.service->SetStatus(Service::UP);
        entry.service->SetChildAttribute("app", "port", "80");
        Stat stat{};
        ASSERT_EQ(ZOK, reader->Exists(entry.service->GetRoot(), &stat));
        entry.czxid = stat.czxid;
      }
      const std::vector<int64_t> sessions = {conns[0]->ClientId().client_id,
                                             conns[1]->ClientId().client_id};
      auto watch = probe.Make();
      auto [rc, ids, handle] = watcher.List(watch.callback);
      ASSERT_EQ(ZOK, rc);
      ASSERT_EQ(2u, ids.size());

      if (pause) {
        server.Pause();
      } else {
        server.Stop();
      }
      std::this_thread::sleep_for(kAway / 2);
      watch.Drop(handle);  // dropped while the server is away
      std::this_thread::sleep_for(kAway / 2);
      if (pause) {
        server.Resume();
      } else {
        server.Start();
      }
      ++outages;
      const auto allRegistered = [&] {
        for (const auto& entry : services) {
          if (!UnderCurrentSession(entry)) return false;
        }
        return true;
      };
      const char* what = pause ? "pause" : "stop";
      // The reader was cut off too and reconnects on its own. Once every
      // connection, the reader's included, has answered requests and
      // delivered a control watch after the events before it, an expiry
      // still under way has shown and the reader is in service again.
      const auto caughtUp = [&] {
        if (!allRegistered()) return false;
        for (const auto& conn : everyConn) {
          if (!AwaitEarlierEvents(*conn)) return false;
        }
        return allRegistered();
      };
      ASSERT_TRUE(WaitUntil(caughtUp, kRecovery)) << what << "\n" << ServiceProblems(capture);

      auto [listRc, listed] = watcher.List();
      EXPECT_EQ(ZOK, listRc) << what;
      EXPECT_EQ(2u, listed.size()) << what;
      for (std::size_t c = 0; c < conns.size(); ++c) {
        const bool fresh = conns[c]->ClientId().client_id != sessions[c];
        renewed += fresh;
        for (const auto& entry : services) {
          if (entry.service->GetConnection() != conns[c]) continue;
          // Registered again after an expiry: status "down" until set.
          EXPECT_EQ(fresh ? "down" : "up", ReadNode(*reader, entry.service->GetRoot() + "/status"))
              << what;
          Stat stat{};
          ASSERT_EQ(ZOK, reader->Exists(entry.service->GetRoot(), &stat)) << what;
          recreated += stat.czxid != entry.czxid;
          recordsLost += !NodeExists(*reader, entry.service->GetRoot() + "/app/port");
          EXPECT_TRUE(fresh || stat.czxid == entry.czxid) << "data node deleted in a live session";
        }
      }
    }
  }
  EXPECT_EQ(0, probe.Late()) << "watch callbacks after their handle was gone";
  for (auto& entry : services) entry.service.reset();
  for (const std::string& type : {shared, other}) {
    EXPECT_EQ(std::vector<std::string>{}, RegistryCheck(reader, type).DataNodes());
  }
  ReportFigures("server_away", std::to_string(outages) + " outages of " +
                                   std::to_string(kAway.count()) + " ms (stop and pause), " +
                                   std::to_string(renewed) + " of " + std::to_string(outages * 2) +
                                   " sessions renewed, " + std::to_string(recreated) +
                                   " data nodes made again, " + std::to_string(recordsLost) +
                                   " child records lost");
}

}  // namespace
}  // namespace korvel::test
