#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>

#include "korvel/health.h"
#include "korvel/supervised_service.h"
#include "korvel/tree.h"
#include "logger/logger.h"

namespace qx::korvel {
namespace {

using logging::QXLOG_INFO;
using logging::QXLOG_WARNING;
using Clock = std::chrono::steady_clock;

// Never destroyed: a check's thread may log while the process exits.
const logging::ConstSourcePtr& g_log =
    *new logging::ConstSourcePtr(logging::MakeSource("korvel.health"));

constexpr std::size_t kMaxOutput = 1024;
// A write that failed is made again after this long, doubling up to the
// maximum; a reconnection makes it again at once.
constexpr auto kFirstRetry = std::chrono::milliseconds(250);
constexpr auto kMaxRetry = std::chrono::milliseconds(8000);

bool ValidCheckName(const String& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '.' || c == '_' || c == '-';
  });
}

// The last kMaxOutput bytes of `text`, starting at a whole UTF-8 character.
String Tail(String text) {
  if (text.size() <= kMaxOutput) return text;
  std::size_t start = text.size() - kMaxOutput;
  while (start < text.size() && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) ++start;
  return text.substr(start);
}

CheckResult RunOnce(const HealthCheck& check, std::chrono::milliseconds timeout) {
  const auto started = Clock::now();
  CheckResult result;
  try {
    result = check.run(timeout);
  } catch (const std::exception& e) {
    result = {false, e.what()};
  } catch (...) {
    result = {false, "the check threw"};
  }
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started);
  if (took > timeout) {
    result = {false, "took " + std::to_string(took.count()) + " ms, longer than the timeout of " +
                         std::to_string(timeout.count()) + " ms"};
  }
  result.output = Tail(std::move(result.output));
  return result;
}

// What the monitor publishes through: a Service, or a SupervisedService that keeps one.
class Publisher {
 public:
  virtual ~Publisher() = default;
  virtual void SetStatus(Service::Status status) = 0;
  virtual void SetChildAttribute(String childPath, String attribute, String value) = 0;
  virtual void RemoveChild(String childPath, bool ignoreNonExistent) = 0;
  virtual const std::shared_ptr<Connection>& GetConnection() const = 0;
  virtual const String& GetRoot() const = 0;
};

template <typename Target>
class PublisherOf : public Publisher {
 public:
  explicit PublisherOf(std::shared_ptr<Target> target) : m_target(std::move(target)) {
    if (!m_target) throw std::invalid_argument("a health monitor needs a service");
  }
  void SetStatus(Service::Status status) override { m_target->SetStatus(status); }
  void SetChildAttribute(String childPath, String attribute, String value) override {
    m_target->SetChildAttribute(std::move(childPath), std::move(attribute), std::move(value));
  }
  void RemoveChild(String childPath, bool ignoreNonExistent) override {
    m_target->RemoveChild(std::move(childPath), ignoreNonExistent);
  }
  const std::shared_ptr<Connection>& GetConnection() const override {
    return m_target->GetConnection();
  }
  const String& GetRoot() const override { return m_target->GetRoot(); }

 private:
  const std::shared_ptr<Target> m_target;
};

}  // namespace

class HealthMonitor::Impl : public ConnectionObserver, public std::enable_shared_from_this<Impl> {
 public:
  Impl(std::unique_ptr<Publisher> service, std::vector<HealthCheck> checks, HealthOptions options)
      : m_service(std::move(service)), m_options(options) {
    if (checks.empty()) throw std::invalid_argument("a health monitor needs at least one check");
    if (options.timeout.count() <= 0 || options.interval < options.timeout) {
      throw std::invalid_argument("the check interval must be at least the check timeout (" +
                                  std::to_string(options.timeout.count()) + " ms), above 0");
    }
    if (options.rise < 1 || options.fall < 1) {
      throw std::invalid_argument("rise and fall must be at least 1");
    }
    std::set<String> names;
    for (auto& check : checks) {
      if (!ValidCheckName(check.name)) {
        throw std::invalid_argument("bad check name '" + check.name +
                                    "': use letters, digits, '.', '_' and '-'");
      }
      if (!names.insert(check.name).second) {
        throw std::invalid_argument("two checks are named '" + check.name + "'");
      }
      if (!check.run) throw std::invalid_argument("check '" + check.name + "' has no function");
      m_checks.emplace_back(std::move(check));
    }
  }

  void Start() {
    m_service->SetStatus(Service::DOWN);
    m_service->GetConnection()->RegisterWeak(shared_from_this());
    m_publisher = std::thread([this] { Publish(); });
    for (std::size_t i = 0; i < m_checks.size(); ++i) {
      m_checks[i].thread = std::thread([this, i] { RunCheck(i); });
    }
  }

  void Stop() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopping = true;
    }
    m_wake.notify_all();
    m_work.notify_all();
    for (auto& check : m_checks) {
      if (check.thread.joinable()) check.thread.join();
    }
    if (m_publisher.joinable()) m_publisher.join();
    m_service->GetConnection()->Unregister(this);
    for (const auto& check : m_checks) {
      m_service->RemoveChild(tree::HealthRecord(check.check.name), true);
    }
  }

  void SetManual(std::optional<Service::Status> status) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_manual = status;
    }
    m_work.notify_one();
  }

  std::optional<Service::Status> Manual() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_manual;
  }

  Service::Status Verdict() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_verdict;
  }

  // Event thread: never waits for anything but the lock, which no one holds
  // while talking to ZooKeeper.
  void OnSessionEvent(int type, int state, String) override {
    if (type != ZOO_SESSION_EVENT) return;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (state == ZOO_EXPIRED_SESSION_STATE) m_expired = true;
      if (state != ZOO_CONNECTED_STATE) return;
      if (m_expired) {
        m_expired = false;
        m_republish = true;
      }
      m_retryAt.reset();
    }
    m_work.notify_one();
  }

 private:
  struct Check {
    explicit Check(HealthCheck c) : check(std::move(c)) {}

    HealthCheck check;
    int passes = 0;  // in a row
    int failures = 0;
    std::optional<bool> passing;  // unset until the first run
    std::time_t since = 0;
    String output;
    bool unpublished = false;  // the record differs from what ZooKeeper holds
    std::thread thread;
  };
  struct Record {
    String name;
    bool passing;
    std::time_t since;
    String output;
  };

  void RunCheck(std::size_t index) {
    std::mt19937 random(std::random_device{}());
    std::uniform_real_distribution<double> spread(0.9, 1.1);
    const auto interval = std::chrono::duration<double, std::milli>(m_options.interval);
    const HealthCheck& check = m_checks[index].check;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
      lock.unlock();
      const auto started = Clock::now();
      CheckResult result = RunOnce(check, m_options.timeout);
      lock.lock();
      const std::optional<VerdictChange> change = Note(m_checks[index], std::move(result));
      lock.unlock();
      m_work.notify_one();  // the publisher first, the log line after
      if (change) QXLOG(g_log, change->level) << change->text;
      const auto next =
          started + std::chrono::duration_cast<Clock::duration>(interval * spread(random));
      lock.lock();
      m_wake.wait_until(lock, next, [this] { return m_stopping; });
    }
  }

  struct VerdictChange {
    logging::LogLevel level;
    String text;
  };

  // With the lock held. What changed in the checks' verdict, if anything.
  std::optional<VerdictChange> Note(Check& check, CheckResult result) {
    if (result.passed) {
      ++check.passes;
      check.failures = 0;
    } else {
      ++check.failures;
      check.passes = 0;
    }
    if (check.passing != result.passed) {
      check.passing = result.passed;
      check.since = std::time(nullptr);
      check.unpublished = true;
    }
    if (check.output != result.output) {
      check.output = std::move(result.output);
      check.unpublished = true;
    }
    const auto risen = [this](const Check& c) { return c.passes >= m_options.rise; };
    if (m_verdict == Service::DOWN && std::all_of(m_checks.begin(), m_checks.end(), risen)) {
      m_verdict = Service::UP;
      return VerdictChange{QXLOG_INFO, "Every check passed " + std::to_string(m_options.rise) +
                                           " times in a row: the checks say up"};
    }
    if (m_verdict == Service::UP && check.failures >= m_options.fall) {
      m_verdict = Service::DOWN;
      return VerdictChange{QXLOG_WARNING, "Check '" + check.check.name + "' failed " +
                                              std::to_string(m_options.fall) +
                                              " times in a row: the checks say down (" +
                                              check.output + ")"};
    }
    return std::nullopt;
  }

  Service::Status Wanted() const { return m_manual.value_or(m_verdict); }

  bool HasWork() const {
    if (m_retryAt && Clock::now() < *m_retryAt) return false;
    return m_republish || Wanted() != m_published ||
           std::any_of(m_checks.begin(), m_checks.end(),
                       [](const Check& c) { return c.unpublished; });
  }

  // The monitor's thread: publishes the status, then the records that changed.
  void Publish() {
    auto retry = kFirstRetry;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (true) {
      if (m_retryAt) {
        m_work.wait_until(lock, *m_retryAt, [this] { return m_stopping || HasWork(); });
      } else {
        m_work.wait(lock, [this] { return m_stopping || HasWork(); });
      }
      if (m_stopping) return;
      if (!HasWork()) continue;
      m_retryAt.reset();
      const bool republish = std::exchange(m_republish, false);
      const Service::Status status = Wanted();
      const bool writeStatus = republish || status != m_published;
      std::vector<Record> records;
      for (auto& check : m_checks) {
        if (!check.passing || !(republish || check.unpublished)) continue;
        check.unpublished = false;
        records.push_back({check.check.name, *check.passing, check.since, check.output});
      }
      lock.unlock();
      const bool statusDone =
          (!republish || RegisteredInThisSession()) && (!writeStatus || Write(status));
      std::vector<String> failed;
      for (const auto& record : records) {
        if (!statusDone || !Write(record)) failed.push_back(record.name);
      }
      lock.lock();
      if (statusDone) m_published = status;
      if (statusDone && failed.empty()) {
        retry = kFirstRetry;
        continue;
      }
      m_republish |= republish && !statusDone;
      if (!statusDone) m_published.reset();
      for (auto& check : m_checks) {
        if (std::count(failed.begin(), failed.end(), check.check.name) != 0) {
          check.unpublished = true;
        }
      }
      m_retryAt = Clock::now() + retry;
      retry = std::min(retry * 2, kMaxRetry);
    }
  }

  // After an expiry: whether the service has registered again in the current
  // session (registration writes the status first).
  bool RegisteredInThisSession() const {
    const auto& conn = m_service->GetConnection();
    Stat stat{};
    return conn->Exists(tree::OwnAttributePath(m_service->GetRoot(), tree::kStatus), &stat) ==
               ZOK &&
           stat.ephemeralOwner == conn->ClientId().client_id;
  }

  bool Write(Service::Status status) {
    try {
      m_service->SetStatus(status);
      return true;
    } catch (const std::exception&) {
      return false;  // the service logged why
    }
  }

  bool Write(const Record& record) {
    const String child = tree::HealthRecord(record.name);
    try {
      m_service->SetChildAttribute(child, tree::kHealthResult,
                                   record.passing ? tree::kPassing : tree::kFailing);
      m_service->SetChildAttribute(child, tree::kHealthSince, tree::UtcText(record.since));
      m_service->SetChildAttribute(child, tree::kHealthOutput, record.output);
      return true;
    } catch (const std::exception&) {
      return false;  // the service logged why
    }
  }

  const std::unique_ptr<Publisher> m_service;
  const HealthOptions m_options;
  std::vector<Check> m_checks;  // fixed after construction; fields under the lock
  mutable std::mutex m_mutex;
  std::condition_variable m_work;  // wakes the publisher
  std::condition_variable m_wake;  // wakes the checks' threads to stop
  bool m_stopping = false;
  Service::Status m_verdict = Service::DOWN;
  std::optional<Service::Status> m_manual;
  std::optional<Service::Status> m_published = Service::DOWN;  // unset: unknown
  bool m_expired = false;
  bool m_republish = false;
  std::optional<Clock::time_point> m_retryAt;
  std::thread m_publisher;
};

HealthMonitor::HealthMonitor(std::shared_ptr<Service> service, std::vector<HealthCheck> checks,
                             HealthOptions options)
    : m_impl(std::make_shared<Impl>(std::make_unique<PublisherOf<Service>>(std::move(service)),
                                    std::move(checks), options)) {
  m_impl->Start();
}

HealthMonitor::HealthMonitor(std::shared_ptr<SupervisedService> service,
                             std::vector<HealthCheck> checks, HealthOptions options)
    : m_impl(std::make_shared<Impl>(
          std::make_unique<PublisherOf<SupervisedService>>(std::move(service)), std::move(checks),
          options)) {
  m_impl->Start();
}

HealthMonitor::~HealthMonitor() {
  m_impl->Stop();
}

void HealthMonitor::SetManualStatus(Service::Status status) {
  m_impl->SetManual(status);
}

void HealthMonitor::ResumeChecks() {
  m_impl->SetManual(std::nullopt);
}

std::optional<Service::Status> HealthMonitor::ManualStatus() const {
  return m_impl->Manual();
}

Service::Status HealthMonitor::Verdict() const {
  return m_impl->Verdict();
}

}  // namespace qx::korvel
