// dashboard_fixture: what the dashboard's browser test (dashboard_test.py) needs beyond the korvel
// command line: a ZooKeeper server that it can stop and start again on the same port and data,
// and many instances registered at once. It prints the server's connect string, then answers
// each command on stdin with one line, "ok ..." or "error: ...":
//
//   stop                      stops the server; its data is kept
//   start                     starts it again on the same port and data, and waits until it serves
//   seed TYPE COUNT           registers COUNT instances of TYPE (status "up", every own attribute)
//                             in this process's session, the way a registration lays them out
//   churn TYPE RATE SECONDS   changes the status of seeded instances of TYPE, RATE times a second
//                             for SECONDS, each one to "down" and back in turn
//
// At the end of stdin it closes its session (the seeded instances leave) and stops the server.
#include <korvel/connection_v2.h>
#include <korvel/tree.h>
#include <korvel/utils.h>
#include <stlext/uuid.h>

#include <chrono>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "util/zk_harness.h"

namespace {

using namespace std::chrono_literals;
using qx::korvel::Connection;
using qx::korvel::ServiceId;
namespace tree = qx::korvel::tree;

struct Seeded {
  std::vector<ServiceId> ids;
  std::vector<bool> down;  // the status each one has now, as churn set it
};

class Fixture {
 public:
  Fixture() { std::cout << m_server.ConnectString() << std::endl; }

  std::string Execute(const std::string& line) {
    std::istringstream in(line);
    std::string command;
    in >> command;
    if (command == "stop") {
      m_server.Stop();
      return "ok stopped";
    }
    if (command == "start") {
      m_server.Start();
      return "ok started";
    }
    if (command == "seed") {
      std::string type;
      int count = 0;
      if (!(in >> type >> count) || count <= 0) return "error: seed TYPE COUNT";
      return Seed(type, count);
    }
    if (command == "churn") {
      std::string type;
      int rate = 0, seconds = 0;
      if (!(in >> type >> rate >> seconds) || rate <= 0 || seconds <= 0) {
        return "error: churn TYPE RATE SECONDS";
      }
      return Churn(type, rate, seconds);
    }
    return "error: unknown command '" + command + "'";
  }

 private:
  Connection& Conn() {
    if (!m_conn) m_conn = std::make_shared<Connection>(m_server.ConnectString(), 10s);
    return *m_conn;
  }

  // Liveness node, data node and own attributes of each instance, as a registration writes them
  // (the status first, the version last), each batch of requests in flight together.
  std::string Seed(const std::string& type, int count) {
    const auto started = std::chrono::steady_clock::now();
    const std::string normalised = tree::RegistrableType(type);
    qx::korvel::EnsurePath(Conn(), tree::AliveDir(normalised), false, ZOO_OPEN_ACL_UNSAFE);
    qx::korvel::EnsurePath(Conn(), tree::DataDir(normalised), false, ZOO_OPEN_ACL_UNSAFE);
    Seeded& seeded = m_seeded[normalised];
    const std::time_t now = std::time(nullptr);
    constexpr int kBatch = 100;  // instances per batch
    for (int first = 0; first < count; first += kBatch) {
      std::vector<Connection::CreateRequest> requests;
      for (int i = first; i < std::min(count, first + kBatch); ++i) {
        const ServiceId id = qx::korvel::RandomServiceId();
        const std::string data = tree::DataPath(normalised, id);
        const std::string number = std::to_string(seeded.ids.size() + 1);
        requests.push_back({tree::AlivePath(normalised, id), "", ZOO_EPHEMERAL});
        requests.push_back({data, "", 0});
        const std::string values[tree::kOwnAttributeCount] = {
            "up",
            normalised + "-" + number,
            "seed-host-" + std::to_string(i % 40),
            std::to_string(10000 + i),
            tree::StartTimeText(now - i * 37),
            "korvel::seeded",
            "1." + std::to_string(i % 7) + "." + std::to_string(i % 13)};
        for (std::size_t a = 0; a < tree::kOwnAttributeCount; ++a) {
          requests.push_back({tree::OwnAttributePath(data, static_cast<tree::OwnAttribute>(a)),
                              values[a], ZOO_EPHEMERAL});
        }
        seeded.ids.push_back(id);
        seeded.down.push_back(false);
      }
      for (const int rc : Conn().CreateAll(requests, ZOO_OPEN_ACL_UNSAFE)) {
        if (rc != ZOK) return std::string("error: seeding failed: ") + zerror(rc);
      }
    }
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - started);
    return "ok seeded " + std::to_string(count) + " in " + std::to_string(took.count()) + " ms";
  }

  std::string Churn(const std::string& type, int rate, int seconds) {
    const auto it = m_seeded.find(tree::RegistrableType(type));
    if (it == m_seeded.end() || it->second.ids.empty()) return "error: nothing seeded of " + type;
    Seeded& seeded = it->second;
    const auto step = std::chrono::nanoseconds(1000000000LL / rate);
    auto next = std::chrono::steady_clock::now();
    const long total = static_cast<long>(rate) * seconds;
    long failed = 0;
    for (long n = 0; n < total; ++n) {
      const std::size_t i = static_cast<std::size_t>(n) % seeded.ids.size();
      seeded.down[i] = !seeded.down[i];
      const std::string status =
          tree::OwnAttributePath(tree::DataPath(it->first, seeded.ids[i]), tree::kStatus);
      if (Conn().Set(status, seeded.down[i] ? "down" : "up", -1) != ZOK) ++failed;
      next += step;
      std::this_thread::sleep_until(next);
    }
    return "ok churned " + std::to_string(total - failed) + " changes";
  }

  korvel::test::ZooKeeperServer m_server;
  std::shared_ptr<Connection> m_conn;
  std::map<std::string, Seeded> m_seeded;
};

}  // namespace

int main() {
  try {
    Fixture fixture;
    std::string line;
    while (std::getline(std::cin, line)) {
      if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
      std::string answer;
      try {
        answer = fixture.Execute(line);
      } catch (const std::exception& e) {
        answer = std::string("error: ") + e.what();
      }
      std::cout << answer << std::endl;
    }
  } catch (const std::exception& e) {
    std::cerr << "dashboard_fixture: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
