#include "korvel/supervised_service.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>

#include "korvel/error.h"
#include "korvel/tree.h"
#include "korvel/utils.h"
#include "logger/logger.h"
#include "stlext/uuid.h"

namespace qx::korvel {
namespace {

const logging::ConstSourcePtr g_log = logging::MakeSource("korvel.supervised");

using Clock = std::chrono::steady_clock;
using logging::QXLOG_INFO;
using logging::QXLOG_WARNING;

// What the connection's event thread may touch: it only wakes the supervisor.
class Wakeup : public ConnectionObserver {
 public:
  void Wake() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_pending = true;
    }
    m_changed.notify_all();
  }
  void Stop() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopped = true;
    }
    m_changed.notify_all();
  }
  // Waits until woken, stopped or `deadline`; false once stopped.
  bool WaitUntil(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_until(lock, deadline, [this] { return m_pending || m_stopped; });
    m_pending = false;
    return !m_stopped;
  }

  void OnSessionEvent(int type, int, String) override {
    if (type == ZOO_SESSION_EVENT) Wake();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_pending = false;
  bool m_stopped = false;
};

}  // namespace

class SupervisedService::Impl {
 public:
  Impl(std::shared_ptr<Connection> conn, String stype, ServiceId id, String serviceName,
       SupervisionOptions options)
      : m_conn(std::move(conn)),
        m_type(NormalizePath(std::move(stype))),
        m_id(id),
        m_name(std::move(serviceName)),
        m_options(options),
        m_alive(tree::AlivePath(m_type, m_id)),
        m_service(std::make_shared<Service>(m_conn, m_type, m_id, m_name)),
        m_root(m_service->GetRoot()),
        m_wakeup(std::make_shared<Wakeup>()) {
    m_conn->RegisterWeak(std::weak_ptr<ConnectionObserver>(m_wakeup));
    m_thread = std::thread([this] { Supervise(); });
  }

  ~Impl() {
    m_wakeup->Stop();
    m_thread.join();
    m_conn->Unregister(m_wakeup.get());
    std::lock_guard<std::mutex> lock(m_mutex);
    m_service.reset();
  }

  ServiceId Id() const { return m_id; }
  const String& Root() const { return m_root; }
  const std::shared_ptr<Connection>& Conn() const { return m_conn; }
  std::uint64_t Registrations() const { return m_registrations.load(); }

  void SetStatus(Service::Status status) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_status = status;
    Publish([status](Service& service) { service.SetStatus(status); });
  }

  void SetChildAttribute(String childPath, String attribute, String value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const String child = NormalizePath(std::move(childPath));
    m_attributes[{child, attribute}] = value;
    Publish([&](Service& service) { service.SetChildAttribute(child, attribute, value); });
  }

  void RemoveChild(String childPath, bool ignoreNonExistent) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const String child = NormalizePath(std::move(childPath));
    for (auto it = m_attributes.begin(); it != m_attributes.end();) {
      const String& known = it->first.first;
      const bool below = known == child || known.rfind(child + "/", 0) == 0;
      it = below ? m_attributes.erase(it) : std::next(it);
    }
    if (m_service) m_service->RemoveChild(child, ignoreNonExistent);
  }

 private:
  enum class Check { kRegistered, kMissing, kUnknown };

  // Under m_mutex: writes through the current registration, or asks for a new one.
  template <typename Write>
  void Publish(Write write) {
    if (!m_service) {
      m_wakeup->Wake();
      throw KorvelError("The instance is not registered now; it is published when it is again");
    }
    try {
      write(*m_service);
    } catch (const KorvelError&) {
      m_wakeup->Wake();
      throw;
    }
  }

  void Supervise() {
    Connection::WatchHandle watch;
    int failures = 0;
    auto next = Clock::now();
    while (m_wakeup->WaitUntil(next)) {
      Check check = Verify(watch);
      if (check == Check::kMissing) {
        if (Reregister(failures + 1)) {
          failures = 0;
          next = Clock::now();  // check the new registration and watch its liveness node
          continue;
        }
        check = Check::kUnknown;
      }
      if (check == Check::kRegistered) {
        failures = 0;
        next = Clock::now() + m_options.verifyInterval;
      } else {
        next = Clock::now() + Backoff(failures++);
      }
    }
  }

  // Whether the instance is registered in the current session; sets a watch on the liveness
  // node that wakes the supervisor when it goes.
  Check Verify(Connection::WatchHandle& watch) const {
    Stat stat{};
    const std::weak_ptr<Wakeup> wakeup = m_wakeup;
    auto [rc, handle] = m_conn->Exists(
        m_alive,
        [wakeup](int, int, const std::string&) {
          if (const auto w = wakeup.lock()) w->Wake();
        },
        &stat);
    watch = std::move(handle);
    if (rc == ZNONODE) return Check::kMissing;
    if (rc != ZOK) return Check::kUnknown;
    if (stat.ephemeralOwner != m_conn->ClientId().client_id) return Check::kMissing;
    std::vector<String> children;
    rc = m_conn->GetChildren(m_root, children);
    if (rc == ZNONODE) return Check::kMissing;
    if (rc != ZOK) return Check::kUnknown;
    for (std::size_t a = 0; a < tree::kOwnAttributeCount; ++a) {
      const auto attribute = static_cast<tree::OwnAttribute>(a);
      if (tree::AlwaysPublished(attribute) &&
          std::find(children.begin(), children.end(), tree::kOwnAttributeNames[a]) ==
              children.end()) {
        return Check::kMissing;
      }
    }
    return Check::kRegistered;
  }

  // Replaces the registration by a new one with the same id and publishes the remembered state
  // again; false (logged) when that failed.
  bool Reregister(int attempt) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const String id = uuid::to_string(m_id);
    QXLOG(g_log, QXLOG_INFO) << "Instance " << id << " of type " << m_type
                             << " is not registered; registering it again (try " << attempt << ")";
    m_service.reset();  // removes what is left of the old registration
    try {
      auto service = std::make_shared<Service>(m_conn, m_type, m_id, m_name);
      if (m_status != Service::DOWN) service->SetStatus(m_status);
      RestoreAttributes(*service);
      m_service = std::move(service);
    } catch (const std::exception& e) {
      QXLOG(g_log, QXLOG_WARNING) << "Registering instance " << id << " of type " << m_type
                                  << " again failed: " << e.what();
      return false;
    }
    ++m_registrations;
    QXLOG(g_log, QXLOG_INFO) << "Instance " << id << " of type " << m_type
                             << " is registered again";
    if (m_options.reregistered) m_options.reregistered();
    return true;
  }

  // Under m_mutex: writes the remembered child attributes that are missing or hold another
  // value. Throws KorvelError when a read or write fails.
  void RestoreAttributes(Service& service) const {
    std::vector<Connection::ReadRequest> reads;
    for (const auto& [key, value] : m_attributes) {
      reads.push_back({tree::Below(m_root, key.first + "/" + key.second)});
    }
    std::vector<String> values;
    const std::vector<int> codes = m_conn->GetAll(reads, values);
    std::size_t i = 0;
    for (const auto& [key, value] : m_attributes) {
      const int rc = codes[i];
      const bool same = rc == ZOK && values[i] == value;
      ++i;
      if (same) continue;
      if (rc != ZOK && rc != ZNONODE) throw KorvelError("Failed to read a child record");
      service.SetChildAttribute(key.first, key.second, value);
    }
  }

  std::chrono::milliseconds Backoff(int failures) {
    const auto initial = m_options.initialBackoff.count();
    const auto cap = m_options.maxBackoff.count();
    const auto base = std::min<long long>(cap, initial << std::min(failures, 30));
    std::uniform_int_distribution<long long> jitter(-base / 5, base / 5);
    return std::chrono::milliseconds(std::max<long long>(1, base + jitter(m_random)));
  }

  const std::shared_ptr<Connection> m_conn;
  const String m_type;
  const ServiceId m_id;
  const String m_name;
  const SupervisionOptions m_options;
  const String m_alive;

  // What the application published, and the registration that carries it. Held across the
  // requests that publish, so that a re-registration and a publication never interleave.
  std::mutex m_mutex;
  std::shared_ptr<Service> m_service;  // null after a failed re-registration until the next
  const String m_root;
  Service::Status m_status = Service::DOWN;
  std::map<std::pair<String, String>, String> m_attributes;  // (child, attribute) -> value

  std::atomic<std::uint64_t> m_registrations{1};
  std::mt19937_64 m_random{std::random_device{}()};  // the supervisor's own
  const std::shared_ptr<Wakeup> m_wakeup;
  std::thread m_thread;  // last: it starts once the rest is there
};

namespace {

SupervisionOptions Checked(SupervisionOptions options) {
  using std::chrono::milliseconds;
  if (options.verifyInterval <= milliseconds::zero() ||
      options.initialBackoff <= milliseconds::zero() ||
      options.maxBackoff < options.initialBackoff) {
    throw std::invalid_argument(
        "supervision needs a positive verify interval and initial backoff, and a maximum "
        "backoff not below the initial one");
  }
  return options;
}

}  // namespace

SupervisedService::SupervisedService(std::shared_ptr<Connection> conn, String stype, ServiceId id,
                                     String serviceName, SupervisionOptions options)
    : m_impl(std::make_unique<Impl>(std::move(conn), std::move(stype), id, std::move(serviceName),
                                    Checked(options))) {}

SupervisedService::SupervisedService(std::shared_ptr<Connection> conn, String stype,
                                     String serviceName, SupervisionOptions options)
    : SupervisedService(std::move(conn), std::move(stype), RandomServiceId(),
                        std::move(serviceName), options) {}

SupervisedService::~SupervisedService() = default;

ServiceId SupervisedService::GetId() const {
  return m_impl->Id();
}
const String& SupervisedService::GetRoot() const {
  return m_impl->Root();
}
const std::shared_ptr<Connection>& SupervisedService::GetConnection() const {
  return m_impl->Conn();
}
std::uint64_t SupervisedService::Registrations() const {
  return m_impl->Registrations();
}

void SupervisedService::SetStatus(Service::Status status) {
  m_impl->SetStatus(status);
}
void SupervisedService::SetChildAttribute(String childPath, String attribute, String value) {
  m_impl->SetChildAttribute(std::move(childPath), std::move(attribute), std::move(value));
}
void SupervisedService::RemoveChild(String childPath, bool ignoreNonExistent) {
  m_impl->RemoveChild(std::move(childPath), ignoreNonExistent);
}

}  // namespace qx::korvel
