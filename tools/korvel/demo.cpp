// The demo: a tour of korvel against a ZooKeeper server of its own. Three instances register as
// separate `korvel register` processes; the demo drives them through their stdin, crashes one,
// expires the session of another, and prints what `korvel list` and `korvel show` would.
#include <signal.h>
#include <stlext/uuid.h>

#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

#include "commands.h"
#include "process/child_process.h"
#include "signals.h"
#include "zklocal/zklocal.h"

namespace korvel::cli {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using process::ChildProcess;

const char kType[] = "billing";
// Short, so that a crashed instance leaves the live list soon.
constexpr auto kInstanceSessionTimeout = 2000ms;
constexpr auto kAnswerTimeout = 15s;  // a registration, a stdin command, a re-registration
constexpr auto kLeaveTimeout = 15s;   // a crashed instance's session times out
constexpr auto kStopGrace = 5s;       // SIGTERM -> SIGKILL

// Thrown when SIGINT or SIGTERM arrives; unwinding stops the instances and the server.
struct Interrupted {
  int signal;
};

void CheckInterrupted() {
  if (const int signal = ReceivedStopSignal()) throw Interrupted{signal};
}

// Polls `done` until it is true (-> true) or `timeout` elapses (-> false); a stop signal
// interrupts the wait.
bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout,
             std::chrono::milliseconds step = 100ms) {
  return zklocal::WaitUntil(
      [&] {
        CheckInterrupted();
        return done();
      },
      timeout, step);
}

void Say(const std::string& text) {
  std::cout << text << std::endl;
}

void Heading(const std::string& text) {
  Say("\n== " + text);
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

// One instance: a `korvel register` child process, driven through its stdin.
class Instance {
 public:
  Instance(const std::string& name, const std::string& hosts, const std::string& logLevel)
      : m_name(name),
        m_process("/proc/self/exe", {"korvel", "--zk", hosts, "--session-timeout",
                                     std::to_string(kInstanceSessionTimeout.count()), "--log-level",
                                     logLevel, "register", kType, "--name", name}) {
    const std::string idLine = AwaitLine(
        ChildProcess::kStdout, [](const std::string&) { return true; }, "id");
    const auto id = ParseServiceId(idLine);
    if (!id) throw std::runtime_error(m_name + " printed '" + idLine + "' instead of its id");
    m_id = *id;
  }

  const std::string& Name() const { return m_name; }
  const qx::korvel::ServiceId& Id() const { return m_id; }
  std::string IdText() const { return qx::uuid::to_string(m_id); }
  pid_t Pid() const { return m_process.Pid(); }

  // Sends one stdin command and prints it with its answer; throws when the answer is an error.
  void Command(const std::string& command) {
    Say(m_name + "> " + command);
    m_process.SendLine(command);
    const std::string answer = AwaitLine(
        ChildProcess::kStdout,
        [](const std::string& line) { return StartsWith(line, "ok") || StartsWith(line, "error"); },
        "answer to '" + command + "'");
    Say(answer);
    if (!StartsWith(answer, "ok")) throw std::runtime_error(m_name + ": " + answer);
  }

  // The first line on `stream` that `match` accepts; throws when none comes in time.
  std::string AwaitLine(ChildProcess::Stream stream,
                        const std::function<bool(const std::string&)>& match,
                        const std::string& what) {
    std::optional<std::string> line;
    WaitFor(
        [&] {
          line = m_process.WaitForLine(stream, match, 100ms);
          return line || !m_process.Running();
        },
        kAnswerTimeout, 0ms);
    if (!line) {
      throw std::runtime_error(m_name + " printed no " + what + "; its stderr:\n" +
                               m_process.Output(ChildProcess::kStderr));
    }
    return *line;
  }

  void Kill() {
    m_process.Signal(SIGKILL);
    m_process.Wait(kStopGrace);
  }
  int Stop() { return m_process.Stop(kStopGrace); }

 private:
  std::string m_name;
  ChildProcess m_process;
  qx::korvel::ServiceId m_id{};
};

bool IsListed(const qx::korvel::OldServiceWatcher& watcher, const qx::korvel::ServiceId& id) {
  const auto [rc, ids] = watcher.List();
  return rc != ZOK || std::find(ids.begin(), ids.end(), id) != ids.end();
}

// The tour against the server at `hosts`; stops its instances on the way out.
void Tour(const Settings& settings, const std::string& hosts) {
  Settings local = settings;
  local.hosts = hosts;
  const auto conn = Connect(local);
  const qx::korvel::OldServiceWatcher watcher(conn, kType);
  const auto list = [&] {
    Say(std::string("$ korvel list ") + kType);
    std::cout << FormatInstances(ReadInstances(*conn, kType), false) << std::flush;
  };
  const auto show = [&](const Instance& instance) {
    Say(std::string("$ korvel show ") + kType + " " + instance.IdText());
    try {
      std::cout << ShowInstance(*conn, kType, instance.Id(), "", false) << std::flush;
    } catch (const Failure& e) {
      Say(std::string("korvel: ") + e.what());
    }
  };
  std::vector<std::unique_ptr<Instance>> instances;
  const auto start = [&](const std::string& name, const std::string& logLevel) -> Instance& {
    Say("$ korvel --session-timeout " + std::to_string(kInstanceSessionTimeout.count()) +
        (logLevel == "warning" ? "" : " --log-level " + logLevel) + " register " + kType +
        " --name " + name + " &");
    auto& instance = *instances.emplace_back(std::make_unique<Instance>(name, hosts, logLevel));
    Say(name + ": instance " + instance.IdText() + ", pid " + std::to_string(instance.Pid()));
    return instance;
  };

  Heading("Registering three instances of the type 'billing'");
  Say("Each is a process of its own; it prints its id, then takes commands on stdin.");
  Instance& alpha = start("alpha", "warning");
  Instance& beta = start("beta", "warning");
  Instance& gamma = start("gamma", "warning");

  Heading("Listing the live instances");
  list();

  Heading("Raising alpha to up");
  alpha.Command("status up");
  list();

  Heading("Publishing a child record on beta");
  beta.Command("attr worker-1:port=8080");
  beta.Command("attr worker-1:status=up");
  show(beta);

  Heading("Killing beta hard (SIGKILL)");
  beta.Kill();
  Say("Its liveness node goes when the server expires its session. Waiting:");
  const auto killedAt = Clock::now();
  int secondsShown = 0;
  const bool left = WaitFor(
      [&] {
        const auto waited = Clock::now() - killedAt;
        for (; secondsShown < waited / 1s; ++secondsShown) {
          std::cout << "  " << secondsShown + 1 << "s" << std::flush;
        }
        return !IsListed(watcher, beta.Id());
      },
      kLeaveTimeout);
  if (secondsShown > 0) std::cout << "\n";
  if (!left) throw std::runtime_error("beta is still listed after its session timeout");
  std::ostringstream after;
  after << std::fixed << std::setprecision(1)
        << std::chrono::duration<double>(Clock::now() - killedAt).count();
  Say("beta has left the live list after " + after.str() + " s.");
  list();
  Say("Its data node, with the child record, stays behind:");
  show(beta);

  Heading("A new registration removes beta's leftover");
  Instance& delta = start("delta", "info");
  const std::string cleanup = delta.AwaitLine(
      ChildProcess::kStderr,
      [](const std::string& line) {
        return line.find("Cleaning up application in zookeeper") != std::string::npos;
      },
      "log record about the cleanup");
  Say("delta's log (--log-level info) says:");
  Say("  " + cleanup);
  show(beta);

  Heading("Expiring gamma's session");
  Say("A fault drill: its session is expired on the server; it registers again by itself.");
  gamma.Command("expire-session");
  Say(gamma.AwaitLine(
      ChildProcess::kStdout,
      [](const std::string& line) { return StartsWith(line, "re-registered"); },
      "re-registration"));
  list();

  Heading("Shutting down");
  for (auto& instance : instances) {
    if (instance.get() == &beta) continue;  // killed already
    Say(instance->Name() + ": SIGTERM, exit code " + std::to_string(instance->Stop()));
  }
  list();
}

}  // namespace

int RunDemo(const Settings& settings) {
  WatchStopSignals();
  try {
    Heading("Starting a ZooKeeper server of its own");
    zklocal::ZooKeeperServer server;  // on a free loopback port, data in a temporary directory
    Say("ZooKeeper serves at " + server.ConnectString() + " (pid " + std::to_string(server.Pid()) +
        ").");
    CheckInterrupted();
    Tour(settings, server.ConnectString());
    Say("\nStopping the ZooKeeper server.");
    server.Stop();
    return 0;
  } catch (const Interrupted& interrupted) {
    std::cout << std::endl;
    std::cerr << "korvel: demo interrupted; its processes are stopped\n";
    return 128 + interrupted.signal;
  } catch (const std::exception& e) {
    throw Failure(std::string("demo failed: ") + e.what());
  }
}

}  // namespace korvel::cli
