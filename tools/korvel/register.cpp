// The register command: one instance that stays registered until SIGINT or SIGTERM (or until a
// watched process exits), kept registered (also after a session expiry or the removal of its nodes
// by others), takes commands from stdin, and with health checks keeps its status in step with them.
#include <korvel/error.h>
#include <korvel/supervised_service.h>
#include <korvel/utils.h>
#include <poll.h>
#include <stlext/uuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <mutex>

#include "commands.h"
#include "signals.h"
#include "zklocal/zklocal.h"

namespace korvel::cli {
namespace {

using qx::korvel::Connection;
using qx::korvel::HealthMonitor;
using qx::korvel::Service;
using qx::korvel::SupervisedService;

// Writes one whole line to stdout and flushes it: the main thread and the supervisor's thread
// both print, and whoever reads the other end of a pipe waits for whole lines.
void PrintLine(const std::string& line) {
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  std::cout << line << std::endl;
}

// The instance, kept registered with what was published through it, and its health checks,
// whose status a manual one overrides.
class Registration {
 public:
  explicit Registration(std::shared_ptr<SupervisedService> service)
      : m_service(std::move(service)) {}

  // Hands the status to health checks; throws what HealthMonitor throws.
  void Monitor(std::vector<qx::korvel::HealthCheck> checks, qx::korvel::HealthOptions options) {
    m_monitor = std::make_unique<HealthMonitor>(m_service, std::move(checks), options);
  }

  // Publishes at once (throwing KorvelError on failure). With health checks it is a manual
  // status that the checks do not override.
  void SetStatus(Service::Status status) {
    if (m_monitor) return m_monitor->SetManualStatus(status);
    m_service->SetStatus(status);
  }
  // Hands the status back to the health checks; false when there are none.
  bool ResumeChecks() {
    if (!m_monitor) return false;
    m_monitor->ResumeChecks();
    return true;
  }
  void SetChildAttribute(const ChildAttribute& attribute) {
    m_service->SetChildAttribute(attribute.child, attribute.attribute, attribute.value);
  }
  // Deletes the child record `child` (normalised) with everything below it, and forgets it also
  // when it is not there now. False when it did not exist or could not be deleted.
  bool RemoveChild(const std::string& child) {
    const std::string node = m_service->GetRoot() + "/" + child;
    const Connection& conn = *m_service->GetConnection();
    const bool existed = conn.Exists(node, nullptr) == ZOK;
    m_service->RemoveChild(child, true);
    return existed && conn.Exists(node, nullptr) == ZNONODE;
  }

  // Stops the health checks (removing their records), then unregisters the instance.
  void Close() {
    m_monitor.reset();
    m_service.reset();
  }

 private:
  std::shared_ptr<SupervisedService> m_service;
  std::unique_ptr<HealthMonitor> m_monitor;  // set once, before any command
};

// Runs one stdin command and returns its answer line.
std::string Execute(const std::string& line, Registration& registration, const std::string& hosts,
                    const Connection& conn) {
  const std::string trimmed = boost::algorithm::trim_copy(line);
  const auto space = trimmed.find(' ');
  const std::string command = trimmed.substr(0, space);
  const std::string argument =
      space == std::string::npos ? "" : boost::algorithm::trim_copy(trimmed.substr(space));
  try {
    if (command == "status" && argument == "auto") {
      if (!registration.ResumeChecks()) return "error: no health checks to hand the status to";
      return "ok status auto";
    }
    if (command == "status") {
      const auto status = ParseStatus(argument);
      if (!status) return "error: unknown status '" + argument + "'";
      registration.SetStatus(*status);
      return "ok status " + argument;
    }
    if (command == "attr") {
      const auto attribute = ChildAttribute::Parse(argument);
      if (!attribute) return "error: expected attr CHILD:ATTR=VALUE";
      registration.SetChildAttribute(*attribute);
      return "ok attr " + attribute->ToString();
    }
    if (command == "remove") {
      const std::string child = qx::korvel::NormalizePath(argument);
      if (child.empty()) return "error: expected remove CHILD";
      if (!registration.RemoveChild(child))
        return "error: cannot remove child record '" + child + "'";
      return "ok removed " + child;
    }
    if (command == "expire-session" && argument.empty()) {
      zklocal::ExpireSession(hosts, conn.ClientId());
      return "ok session expired";
    }
  } catch (const std::exception& e) {
    return std::string("error: ") + e.what();
  }
  return "error: unknown command '" + trimmed +
         "' (status STATUS|auto, attr CHILD:ATTR=VALUE, remove CHILD, expire-session)";
}

// A descriptor that becomes readable when process `pid` exits; -1 when there is no such process.
class ProcessExit {
 public:
  explicit ProcessExit(std::optional<int> pid)
      : m_fd(pid ? static_cast<int>(syscall(SYS_pidfd_open, *pid, 0)) : -1) {}
  ~ProcessExit() {
    if (m_fd >= 0) close(m_fd);
  }
  ProcessExit(const ProcessExit&) = delete;
  ProcessExit& operator=(const ProcessExit&) = delete;
  int Fd() const { return m_fd; }

 private:
  int m_fd;
};

// Answers the commands on stdin until SIGINT or SIGTERM, or until the watched process exits (the
// readable `exited`, when not -1); after the end of stdin it only waits.
void ServeCommands(Registration& registration, const std::string& hosts, const Connection& conn,
                   int exited) {
  std::string pending;
  pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {exited, POLLIN, 0}};  // poll skips a negative fd
  while (!ReceivedStopSignal()) {
    if (poll(fds, 2, 100) <= 0) continue;  // short steps, so that a stop signal is seen promptly
    if (fds[1].revents != 0) return;
    if (fds[0].revents == 0) continue;
    char buffer[4096];
    const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      fds[0].fd = -1;
      pending += '\n';  // a last line without its newline is still a command
    } else {
      pending.append(buffer, static_cast<std::size_t>(n));
    }
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (boost::algorithm::trim_copy(line).empty()) continue;
      PrintLine(Execute(line, registration, hosts, conn));
    }
  }
}

}  // namespace

std::optional<ChildAttribute> ChildAttribute::Parse(const std::string& text) {
  const auto colon = text.find(':');
  const auto equals = text.find('=', colon);
  if (colon == std::string::npos || equals == std::string::npos) return std::nullopt;
  ChildAttribute parsed{qx::korvel::NormalizePath(text.substr(0, colon)),
                        qx::korvel::NormalizePath(text.substr(colon + 1, equals - colon - 1)),
                        text.substr(equals + 1)};
  if (parsed.child.empty() || parsed.attribute.empty()) return std::nullopt;
  return parsed;
}

std::string ChildAttribute::ToString() const {
  return child + ":" + attribute + "=" + value;
}

std::vector<qx::korvel::HealthCheck> CheckOptions::Build() const {
  std::vector<qx::korvel::HealthCheck> checks;
  const auto add = [&checks](const std::vector<std::string>& arguments, const std::string& kind,
                             auto make) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      checks.push_back(make(kind + "-" + std::to_string(i + 1), arguments[i]));
    }
  };
  add(commands, "exec", qx::korvel::CommandCheck);
  add(urls, "http", qx::korvel::HttpCheck);
  add(addresses, "tcp", qx::korvel::TcpCheck);
  return checks;
}

int RunRegister(const Settings& settings, const RegisterOptions& options) {
  WatchStopSignals();
  const ProcessExit watched(options.watchedPid);
  if (options.watchedPid && watched.Fd() < 0) {
    throw Failure("cannot watch process " + std::to_string(*options.watchedPid) + ": " +
                  std::strerror(errno));
  }
  auto conn = Connect(settings);
  const qx::korvel::ServiceId uuid = options.id ? *options.id : qx::korvel::RandomServiceId();
  const std::string id = qx::uuid::to_string(uuid);
  qx::korvel::SupervisionOptions supervision;
  supervision.reregistered = [id] { PrintLine("re-registered " + id); };
  std::shared_ptr<SupervisedService> service;
  try {
    service =
        std::make_shared<SupervisedService>(conn, options.type, uuid, options.name, supervision);
  } catch (const qx::korvel::KorvelError& e) {
    throw Failure("cannot register an instance of type '" + options.type + "': " + e.what());
  }
  auto registration = std::make_unique<Registration>(std::move(service));
  try {
    if (options.checks.Any()) {
      registration->Monitor(options.checks.Build(), options.checks.health);
    }
    if (!options.checks.Any() || options.statusGiven) registration->SetStatus(options.status);
    for (const ChildAttribute& attribute : options.childAttributes) {
      registration->SetChildAttribute(attribute);
    }
  } catch (const std::exception& e) {
    throw Failure("cannot publish the state of instance " + id + ": " + e.what());
  }
  PrintLine(id);

  ServeCommands(*registration, settings.hosts, *conn, watched.Fd());
  if (!ReceivedStopSignal()) {
    std::cerr << "korvel: process " << *options.watchedPid << " exited; unregistering\n";
  }
  registration->Close();  // the service goes first, then the connection
  return 0;
}

}  // namespace korvel::cli
