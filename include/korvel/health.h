// Health-checked registration: a HealthMonitor drives one Service's status
// from a set of checks, so that an instance is "up" only while it serves.
//
// Each check runs on a thread of its own, first at once, then every interval
// (with up to a tenth of it added or taken at random, so that many instances
// do not check in lockstep), and is given the timeout to keep. The status
// becomes "up" once every check has passed `rise` times in a row and "down"
// as soon as one has failed `fall` times in a row; it starts "down". A manual
// status (maintenance, a drain) overrides the checks until they are handed
// the status back.
//
// What each check saw is published below the instance's data node as the
// child record "health-<check name>" (korvel/tree.h): its result, since when,
// and its last output (at most 1 KiB).
//
// Writes go to ZooKeeper from the monitor's own thread, never from a check's
// or the connection's event thread: a slow or hanging check delays nothing
// else, and a write that fails (connection loss) is made again until it
// lands. After a session expiry, once the service has registered again
// (status "down"), the monitor publishes the current status and records again
// at once.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "korvel/service.h"
#include "korvel/supervised_service.h"
#include "stlext/string.h"

namespace qx::korvel {

// What one run of a check found: passed or not, and why (the command's last
// output lines, the HTTP status line, the error).
struct CheckResult {
  bool passed = false;
  String output;
};

// Runs the check once and keeps to `timeout`. May be called from any thread;
// never from two at once. An exception counts as a failure with its message.
using CheckFunction = std::function<CheckResult(std::chrono::milliseconds timeout)>;

struct HealthCheck {
  String name;  // letters, digits, '.', '_' or '-'; unique within a monitor
  CheckFunction run;
};

// Ready-made checks. Each throws std::invalid_argument with a message fit for
// a user when its argument is unusable.

// Runs `command` with /bin/sh -c in a process group of its own. Passes when
// it exits 0; fails on any other exit, on a signal, and when it runs past the
// timeout, when its whole group is killed and reaped. Output: its last lines
// of stdout and stderr.
HealthCheck CommandCheck(String name, String command);
// GET of `url` ("http://host[:port][/path]"). Passes on a 2xx answer within
// the timeout; fails on any other answer, a refused connection or a timeout.
HealthCheck HttpCheck(String name, String url);
// Connects to `address` ("host:port", "[v6]:port"). Passes when the
// connection is made within the timeout.
HealthCheck TcpCheck(String name, String address);

struct HealthOptions {
  std::chrono::milliseconds interval{5000};
  std::chrono::milliseconds timeout{2000};  // at most the interval
  int rise = 2;                             // at least 1
  int fall = 3;                             // at least 1
};

class HealthMonitor {
 public:
  // Publishes status "down" and starts the checks. `service` must be
  // subscribed to its session events (Service::RegisterForSessionEvent) for
  // the monitor to republish after an expiry. Throws std::invalid_argument
  // for no checks, a bad or repeated check name, or bad options, and
  // KorvelError when "down" cannot be published.
  HealthMonitor(std::shared_ptr<Service> service, std::vector<HealthCheck> checks,
                HealthOptions options = {});
  // The same over a supervised registration, which also publishes the
  // monitor's status and records again after it registered anew.
  HealthMonitor(std::shared_ptr<SupervisedService> service, std::vector<HealthCheck> checks,
                HealthOptions options = {});
  // Stops the checks (waiting for those running, at most their timeout),
  // then removes the health records. Not on the connection's event thread.
  ~HealthMonitor();
  HealthMonitor(const HealthMonitor&) = delete;
  HealthMonitor& operator=(const HealthMonitor&) = delete;

  // Maintenance: publishes `status` and keeps it, whatever the checks find.
  void SetManualStatus(Service::Status status);
  // Hands the status back to the checks: their verdict is published at once.
  void ResumeChecks();
  // The manual status, if one is set.
  std::optional<Service::Status> ManualStatus() const;
  // What the checks say now (UP or DOWN), manual status or not.
  Service::Status Verdict() const;

  // All methods may be called from any thread.

 private:
  class Impl;
  std::shared_ptr<Impl> m_impl;
};

}  // namespace qx::korvel
