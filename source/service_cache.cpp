#include "korvel/service_cache.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "korvel/tree.h"
#include "korvel/utils.h"
#include "logger/logger.h"
#include "stlext/uuid.h"

namespace qx::korvel {
namespace {

using logging::QXLOG_DEBUG;
using logging::QXLOG_WARNING;
using Clock = std::chrono::steady_clock;

// Never destroyed: the cache's thread may log while the process exits.
const logging::ConstSourcePtr& g_log =
    *new logging::ConstSourcePtr(logging::MakeSource("korvel.cache"));

constexpr char kUp[] = "up";

// An instance caught in the middle of its registration (without one of the
// attributes that every registration writes) is read again soon, first after
// kFollowUp, then after twice as long each time, at most kMaxFollowUps times;
// once complete, it is read once more after kSettle, unless it has the
// version too, which registration writes last.
constexpr auto kFollowUp = std::chrono::milliseconds(50);
constexpr int kMaxFollowUps = 6;
constexpr auto kSettle = std::chrono::milliseconds(150);

// After a listing failed, the next try waits this long, doubling up to the maximum.
constexpr auto kFirstRetry = std::chrono::milliseconds(100);
constexpr auto kMaxRetry = std::chrono::milliseconds(2000);

std::atomic<std::uint64_t> g_nextCacheId{1};

// The cache whose thread this is, if any.
thread_local const void* t_cacheThreadOf = nullptr;

ServiceCacheEvent MakeEvent(ServiceCacheEvent::Type type, const ServiceId& id = {},
                            CachedInstancePtr instance = nullptr) {
  ServiceCacheEvent event;
  event.type = type;
  event.id = id;
  event.instance = std::move(instance);
  return event;
}

}  // namespace

const String* CachedInstance::Attribute(const String& name) const {
  auto it = attributes.find(name);
  return it == attributes.end() ? nullptr : &it->second;
}

CachedInstancePtr ServiceSnapshot::Find(const ServiceId& id) const {
  auto it =
      std::lower_bound(instances.begin(), instances.end(), id,
                       [](const CachedInstancePtr& i, const ServiceId& v) { return i->id < v; });
  return it != instances.end() && (*it)->id == id ? *it : nullptr;
}

namespace {

// Reads one type for every cache of it on one connection with one listing
// window: one listing per change, one read of each instance and one set of
// watches, however many caches share it. Each listener belongs to one cache.
class Reader : public ConnectionObserver, public std::enable_shared_from_this<Reader> {
 public:
  using Listener = ServiceCache::Listener;

  Reader(std::shared_ptr<Connection> conn, String type, std::chrono::milliseconds listingWindow)
      : m_conn(std::move(conn)),
        m_type(std::move(type)),
        m_aliveDir(tree::AliveDir(m_type)),
        m_listingWindow(listingWindow),
        m_published(std::make_shared<const ServiceSnapshot>()) {}

  ~Reader() override = default;

  void Start() {
    std::lock_guard<std::mutex> lock(m_queueMutex);
    if (m_worker.joinable() || m_stopping) return;
    m_conn->RegisterWeak(weak_from_this());
    m_tasks.push_back(Task{Task::kList, {}, 0, true, {}});
    // The thread keeps the cache alive, for a Stop that does not wait for it.
    m_worker = std::thread([self = shared_from_this()] { self->Run(); });
  }

  void Stop() {
    {
      std::lock_guard<std::mutex> lock(m_queueMutex);
      if (m_stopping) return;
      m_stopping = true;
    }
    m_queueCv.notify_all();
    if (!m_worker.joinable()) return;
    if (MustNotWaitForTheCacheThread()) {
      // It may be waiting for answers that this thread would deliver; it
      // stops by itself, and listeners are not started any more.
      m_worker.detach();
    } else {
      m_worker.join();
    }
  }

  std::shared_ptr<const ServiceSnapshot> Snapshot() const {
    // Each thread keeps its own reference to the latest snapshot, so that the
    // readers of one snapshot do not contend on one reference count.
    struct ThreadCopy {
      std::uint64_t cacheId;
      std::uint64_t version;
      std::weak_ptr<const Reader> owner;
      std::shared_ptr<const ServiceSnapshot> snapshot;
    };
    thread_local std::vector<ThreadCopy> copies;
    const std::uint64_t version = m_version.load(std::memory_order_acquire);
    for (ThreadCopy& copy : copies) {
      if (copy.cacheId != m_id) continue;
      if (copy.version != version) copy.snapshot = ThreadLocalCopy(copy.version);
      return copy.snapshot;
    }
    copies.erase(std::remove_if(copies.begin(), copies.end(),
                                [](const ThreadCopy& c) { return c.owner.expired(); }),
                 copies.end());
    ThreadCopy copy{m_id, 0, weak_from_this(), nullptr};
    copy.snapshot = ThreadLocalCopy(copy.version);
    copies.push_back(copy);
    return copies.back().snapshot;
  }

  bool WaitUntilCurrent(std::chrono::milliseconds timeout) const {
    // The cache's reads are answered on the event thread: waiting there
    // would only hold them up.
    if (Connection::OnEventThread()) return Snapshot()->current;
    std::unique_lock<std::mutex> lock(m_publishMutex);
    return m_publishCv.wait_for(lock, timeout, [this] { return m_published->current; });
  }

  // Adds listeners that hear of the instances known when the cache's thread
  // gets to them, as added, and of the cache being current, before anything
  // that happens afterwards.
  void Join(std::map<int, Listener> listeners) {
    std::vector<int> ids;
    {
      std::lock_guard<std::mutex> lock(m_listenerMutex);
      for (auto& [id, listener] : listeners) {
        m_listeners.emplace(
            id, Registered{std::make_shared<const Listener>(std::move(listener)), false});
        ids.push_back(id);
      }
    }
    if (!ids.empty()) Post(Task{Task::kJoin, {}, 0, false, std::move(ids)});
  }

  // Adds a listener that hears what happens from now on.
  void AddListener(int id, Listener listener) {
    std::lock_guard<std::mutex> lock(m_listenerMutex);
    m_listeners.emplace(id,
                        Registered{std::make_shared<const Listener>(std::move(listener)), true});
  }

  void RemoveListener(int id) {
    std::unique_lock<std::mutex> lock(m_listenerMutex);
    m_listeners.erase(id);
    if (MustNotWaitForTheCacheThread()) return;
    m_listenerCv.wait(lock, [&] { return m_runningListener != id; });
  }

  // On the cache's own thread (a listener) waiting for it cannot end; on an
  // event thread it may not end, since the cache may be waiting for that thread.
  bool MustNotWaitForTheCacheThread() const {
    return t_cacheThreadOf == this || Connection::OnEventThread();
  }

  void OnSessionEvent(int type, int state, String) override {
    if (type == ZOO_SESSION_EVENT) Post(Task{Task::kSession, {}, state, false, {}});
  }

 private:
  struct Task {
    enum Kind { kList, kRead, kSession, kJoin } kind;
    ServiceId id;            // kRead
    int state;               // kSession
    bool full;               // kList: read every instance again, not only new ones
    std::vector<int> joins;  // kJoin: the listeners that join
  };

  struct Registered {
    std::shared_ptr<const Listener> listener;
    bool joined;  // hears every event; until then only its introduction
  };

  struct Entry {
    CachedInstancePtr data;
    Connection::WatchHandle statusWatch;
    int followUps = 0;  // reads scheduled since it was last complete
  };

  // A reference to the published snapshot whose count belongs to this thread.
  std::shared_ptr<const ServiceSnapshot> ThreadLocalCopy(std::uint64_t& version) const {
    std::shared_ptr<const ServiceSnapshot> published;
    {
      std::lock_guard<std::mutex> lock(m_publishMutex);
      published = m_published;
    }
    version = published->version;
    auto holder = std::make_shared<std::shared_ptr<const ServiceSnapshot>>(published);
    return std::shared_ptr<const ServiceSnapshot>(holder, published.get());
  }

  void Post(Task task) {
    {
      std::lock_guard<std::mutex> lock(m_queueMutex);
      if (m_stopping) return;
      m_tasks.push_back(std::move(task));
    }
    m_queueCv.notify_all();
  }

  // The cache's thread: takes tasks one at a time, and wakes up for retries
  // and for the end of the grace period of a disconnection.
  void Run() {
    t_cacheThreadOf = this;
    while (RunOnce()) {
    }
    Finish();
  }

  // Handles one task or deadline; false once the cache stops.
  bool RunOnce() {
    std::optional<Task> task;
    {
      std::unique_lock<std::mutex> lock(m_queueMutex);
      const auto ready = [&] { return m_stopping || !m_tasks.empty(); };
      if (const auto deadline = NextDeadline()) {
        m_queueCv.wait_until(lock, *deadline, ready);
      } else {
        m_queueCv.wait(lock, ready);
      }
      if (m_stopping) return false;
      // A deadline that has come goes first: a steady stream of tasks must not
      // put off a deferred listing, a retry or the stale mark.
      const auto deadline = NextDeadline();
      const bool due = deadline && Clock::now() >= *deadline;
      if (!due && !m_tasks.empty()) {
        task = std::move(m_tasks.front());
        m_tasks.pop_front();
      }
    }
    try {
      if (task) {
        Handle(*task);
      } else {
        OnDeadline();
      }
    } catch (const std::exception& e) {
      QXLOG(g_log, QXLOG_WARNING) << "Service cache of '" << m_aliveDir << "' failed: " << e.what()
                                  << "; listing again";
      ScheduleRetry(true);
    }
    return true;
  }

  // Removes the cache's watches and publishes its last snapshot, no longer
  // current; listeners hear nothing more.
  void Finish() {
    std::vector<Connection::WatchHandle> handles;
    handles.push_back(std::move(m_listWatch));
    for (auto& [id, entry] : m_instances) handles.push_back(std::move(entry.statusWatch));
    try {
      m_conn->RemoveWatches(handles);
    } catch (const std::exception& e) {
      QXLOG(g_log, QXLOG_WARNING) << "Service cache of '" << m_aliveDir
                                  << "' could not remove its watches: " << e.what();
    }
    m_current = false;
    PublishSnapshot();
  }

  std::optional<Clock::time_point> NextDeadline() const {
    std::optional<Clock::time_point> next;
    for (const auto& candidate :
         {m_retryAt, m_staleAt, m_listingDue,
          m_followUps.empty() ? std::nullopt : std::optional(m_followUps.begin()->first)}) {
      if (candidate && (!next || *candidate < *next)) next = candidate;
    }
    return next;
  }

  void OnDeadline() {
    const auto now = Clock::now();
    std::set<ServiceId> due;
    while (!m_followUps.empty() && m_followUps.begin()->first <= now) {
      due.insert(m_followUps.begin()->second);
      m_followUps.erase(m_followUps.begin());
    }
    Reread({due.begin(), due.end()});
    if (m_staleAt && now >= *m_staleAt) {
      m_staleAt.reset();
      if (m_current) Publish(false);
    }
    if (m_retryAt && now >= *m_retryAt) {
      m_retryAt.reset();
      List(m_retryFull);
    }
    if (m_listingDue && now >= *m_listingDue) List(false);
  }

  void Handle(const Task& task) {
    switch (task.kind) {
      case Task::kList:
        if (!task.full && m_listedAt && Clock::now() < *m_listedAt + m_listingWindow) {
          m_listingDue = *m_listedAt + m_listingWindow;
        } else {
          List(task.full);
        }
        break;
      case Task::kRead:
        Reread({task.id});
        break;
      case Task::kSession:
        OnSession(task.state);
        break;
      case Task::kJoin:
        Introduce(task.joins);
        break;
    }
  }

  void OnSession(int state) {
    if (state == ZOO_CONNECTING_STATE) {
      // Brief disconnections are harmless: the session and its watches
      // survive, and the server reports what changed meanwhile.
      if (!m_staleAt) m_staleAt = Clock::now() + m_conn->SessionTimeout();
    } else if (state == ZOO_EXPIRED_SESSION_STATE) {
      m_expired = true;
      m_staleAt.reset();
      if (m_current) Publish(false);
    } else if (state == ZOO_CONNECTED_STATE) {
      m_staleAt.reset();
      if (m_expired || m_retryAt) {
        // A new session has no watches: list and read everything again.
        m_expired = false;
        m_retryAt.reset();
        List(true);
      } else if (!m_current && m_listed) {
        Publish(true);
      }
    }
  }

  void ScheduleRetry(bool full) {
    m_retryFull = m_retryFull || full;
    m_retryDelay = m_retryDelay.count() == 0 ? kFirstRetry : std::min(2 * m_retryDelay, kMaxRetry);
    m_retryAt = Clock::now() + m_retryDelay;
  }

  WatchFunction ListCallback() {
    return [weak = weak_from_this()](int type, int, std::string) {
      if (type == ZOO_SESSION_EVENT) return;  // the session observer handles it
      if (auto self = weak.lock()) self->Post(Task{Task::kList, {}, 0, false, {}});
    };
  }

  // One callback for every status watch: the path names the instance.
  WatchFunction StatusCallback() {
    return [weak = weak_from_this()](int type, int, std::string path) {
      if (type == ZOO_SESSION_EVENT) return;
      auto self = weak.lock();
      if (!self) return;
      const auto location = tree::Parse(path);
      if (location && !location->alive && location->type == self->m_type && location->id) {
        self->Post(Task{Task::kRead, *location->id, 0, false, {}});
      }
    };
  }

  // Lists the live instances, drops those that left and reads those that
  // came (all of them when `full`).
  void List(bool full) {
    m_listedAt = Clock::now();
    m_listingDue.reset();
    std::vector<String> children;
    auto [rc, handle] = m_conn->GetChildren(m_aliveDir, children, ListCallback());
    if (rc == ZNONODE) {
      // No liveness directory: no instance, until it is made.
      std::tie(rc, handle) = m_conn->Exists(m_aliveDir, ListCallback(), nullptr);
      if (rc == ZOK) return Post(Task{Task::kList, {}, 0, full, {}});
      if (rc == ZNONODE) rc = ZOK;
    }
    if (rc != ZOK) {
      QXLOG(g_log, QXLOG_DEBUG) << "Listing '" << m_aliveDir << "' failed: " << zerror(rc);
      return ScheduleRetry(full);
    }
    m_listWatch = std::move(handle);

    std::set<ServiceId> live;
    for (const String& child : children) {
      // A name that is no ServiceId is no instance: the listing of the type
      // skips it too.
      ServiceId id;
      if (uuid::from_string(child, id)) live.insert(id);
    }
    std::vector<ServiceId> toRead;
    for (const ServiceId& id : live) {
      if (full || m_instances.count(id) == 0) toRead.push_back(id);
    }
    std::vector<ServiceCacheEvent> events;
    std::vector<Connection::WatchHandle> dropped;
    for (auto it = m_instances.begin(); it != m_instances.end();) {
      if (live.count(it->first) != 0) {
        ++it;
        continue;
      }
      events.push_back(
          MakeEvent(ServiceCacheEvent::Type::kInstanceRemoved, it->first, it->second.data));
      dropped.push_back(std::move(it->second.statusWatch));
      it = m_instances.erase(it);
    }
    if (!Read(toRead, events)) {
      Publish(m_current, std::move(events));
      return ScheduleRetry(full);
    }
    m_conn->RemoveWatches(dropped);
    m_retryAt.reset();
    m_retryFull = false;
    m_retryDelay = {};
    m_listed = true;
    Publish(true, std::move(events));
  }

  // Reads the instances of `ids` that are still live, in one batch.
  void Reread(std::vector<ServiceId> ids) {
    ids.erase(std::remove_if(ids.begin(), ids.end(),
                             [this](const ServiceId& id) { return m_instances.count(id) == 0; }),
              ids.end());
    std::vector<ServiceCacheEvent> events;
    if (!Read(ids, events)) return ScheduleRetry(true);
    if (!events.empty()) Publish(m_current, std::move(events));
  }

  // Reads the own attributes of `ids`, watching each status, and records what
  // changed against what the cache knew. False when the reads failed; then
  // nothing is changed.
  bool Read(const std::vector<ServiceId>& ids, std::vector<ServiceCacheEvent>& events) {
    if (ids.empty()) return true;
    std::vector<tree::OwnAttributes> read;
    if (tree::ReadOwnAttributes(*m_conn, m_type, ids, read, StatusCallback()) != ZOK) return false;
    for (tree::OwnAttributes& instance : read) {
      auto data = std::make_shared<CachedInstance>();
      data->id = instance.id;
      for (std::size_t a = 0; a < tree::kOwnAttributeCount; ++a) {
        if (instance.values[a]) {
          data->attributes[tree::kOwnAttributeNames[a]] = std::move(*instance.values[a]);
        }
      }
      Connection::WatchHandle statusWatch = std::move(instance.statusWatch);
      if (!instance[tree::kStatus]) {
        // Not published yet (or gone): watch for it to appear.
        const String status =
            tree::OwnAttributePath(tree::DataPath(m_type, instance.id), tree::kStatus);
        auto [rc, handle] = m_conn->Exists(status, StatusCallback(), nullptr);
        if (rc == ZOK) Post(Task{Task::kRead, instance.id, 0, false, {}});
        statusWatch = std::move(handle);
      }
      Entry& entry = m_instances[instance.id];
      ScheduleFollowUp(instance.id, entry, *data);
      if (!entry.data) {
        events.push_back(MakeEvent(ServiceCacheEvent::Type::kInstanceAdded, instance.id, data));
      } else {
        Compare(*entry.data, data, events);
      }
      entry.data = std::move(data);
      entry.statusWatch = std::move(statusWatch);
    }
    return true;
  }

  // An instance caught in the middle of its registration is read again.
  void ScheduleFollowUp(const ServiceId& id, Entry& entry, const CachedInstance& now) {
    const auto has = [&now](tree::OwnAttribute a) {
      return now.Attribute(tree::kOwnAttributeNames[a]) != nullptr;
    };
    bool complete = true;
    for (std::size_t a = 0; a < tree::kOwnAttributeCount; ++a) {
      const auto attribute = static_cast<tree::OwnAttribute>(a);
      if (tree::AlwaysPublished(attribute) && !has(attribute)) complete = false;
    }
    if (!complete) {
      if (entry.followUps < kMaxFollowUps) {
        m_followUps.emplace(Clock::now() + kFollowUp * (1 << entry.followUps++), id);
      }
      return;
    }
    const char* startTime = tree::kOwnAttributeNames[tree::kStartTime];
    const String* before = entry.data ? entry.data->Attribute(startTime) : nullptr;
    const bool registered = before == nullptr || *before != *now.Attribute(startTime);
    const bool finished = has(tree::kVersion);
    if (!finished && (registered || entry.followUps > 0)) {
      m_followUps.emplace(Clock::now() + kSettle, id);
    }
    entry.followUps = 0;
  }

  // Adds one event per attribute that differs between `before` and `after`.
  static void Compare(const CachedInstance& before, const CachedInstancePtr& after,
                      std::vector<ServiceCacheEvent>& events) {
    std::set<String> names;
    for (const auto& entry : before.attributes) names.insert(entry.first);
    for (const auto& entry : after->attributes) names.insert(entry.first);
    for (const String& name : names) {
      const String* old = before.Attribute(name);
      const String* now = after->Attribute(name);
      if (old != nullptr && now != nullptr && *old == *now) continue;
      ServiceCacheEvent event =
          MakeEvent(ServiceCacheEvent::Type::kAttributeChanged, after->id, after);
      event.attribute = name;
      if (old != nullptr) event.oldValue = *old;
      if (now != nullptr) event.newValue = *now;
      events.push_back(std::move(event));
    }
  }

  // Publishes what the cache knows now, then tells the listeners `events`
  // and, when it changes, whether the cache is current.
  void Publish(bool current, std::vector<ServiceCacheEvent> events = {}) {
    if (current != m_current) {
      events.push_back(
          MakeEvent(current ? ServiceCacheEvent::Type::kCurrent : ServiceCacheEvent::Type::kStale));
      m_current = current;
    }
    PublishSnapshot();
    Deliver(events);
  }

  void PublishSnapshot() {
    auto snapshot = std::make_shared<ServiceSnapshot>();
    snapshot->instances.reserve(m_instances.size());
    for (const auto& [id, entry] : m_instances) {
      snapshot->instances.push_back(entry.data);
      const String* status = entry.data->Attribute(tree::kOwnAttributeNames[tree::kStatus]);
      if (status != nullptr && *status == kUp) snapshot->up.push_back(entry.data);
    }
    snapshot->current = m_current;
    {
      std::lock_guard<std::mutex> lock(m_publishMutex);
      snapshot->version = m_published->version + 1;
      m_published = std::move(snapshot);
      m_version.store(m_published->version, std::memory_order_release);
    }
    m_publishCv.notify_all();
  }

  // Tells joining listeners of the instances known now, then lets them hear
  // every event.
  void Introduce(const std::vector<int>& ids) {
    for (const auto& [id, entry] : m_instances) {
      const auto added = MakeEvent(ServiceCacheEvent::Type::kInstanceAdded, id, entry.data);
      for (int listener : ids) Call(listener, added);
    }
    if (m_current) {
      for (int listener : ids) Call(listener, MakeEvent(ServiceCacheEvent::Type::kCurrent));
    }
    std::lock_guard<std::mutex> lock(m_listenerMutex);
    for (int listener : ids) {
      auto it = m_listeners.find(listener);
      if (it != m_listeners.end()) it->second.joined = true;
    }
  }

  // Calls the listeners without holding their lock, so that they may add
  // and remove listeners and the cache may be stopped meanwhile.
  void Deliver(const std::vector<ServiceCacheEvent>& events) {
    for (const ServiceCacheEvent& event : events) {
      std::vector<int> ids;
      {
        std::lock_guard<std::mutex> lock(m_listenerMutex);
        for (const auto& [id, entry] : m_listeners) {
          if (entry.joined) ids.push_back(id);
        }
      }
      for (int id : ids) Call(id, event);
    }
  }

  // Calls one listener, unless it was removed meanwhile.
  void Call(int id, const ServiceCacheEvent& event) {
    std::shared_ptr<const Listener> listener;
    {
      std::lock_guard<std::mutex> lock(m_listenerMutex);
      auto it = m_listeners.find(id);
      if (m_stopping || it == m_listeners.end()) return;
      listener = it->second.listener;
      m_runningListener = id;
    }
    try {
      (*listener)(event);
    } catch (const std::exception& e) {
      QXLOG(g_log, QXLOG_WARNING) << "Service cache listener threw: " << e.what();
    } catch (...) {
      QXLOG(g_log, QXLOG_WARNING) << "Service cache listener threw";
    }
    {
      std::lock_guard<std::mutex> lock(m_listenerMutex);
      m_runningListener = 0;
    }
    m_listenerCv.notify_all();
  }

  const std::shared_ptr<Connection> m_conn;
  const String m_type;
  const String m_aliveDir;
  const std::chrono::milliseconds m_listingWindow;
  const std::uint64_t m_id = g_nextCacheId++;

  // Owned by the cache's thread.
  std::map<ServiceId, Entry> m_instances;
  Connection::WatchHandle m_listWatch;
  bool m_current = false;
  bool m_listed = false;
  bool m_expired = false;
  std::optional<Clock::time_point> m_staleAt;
  std::optional<Clock::time_point> m_retryAt;
  std::optional<Clock::time_point> m_listedAt;    // the last listing's start
  std::optional<Clock::time_point> m_listingDue;  // a change waits for the window's end
  std::multimap<Clock::time_point, ServiceId> m_followUps;
  bool m_retryFull = false;
  std::chrono::milliseconds m_retryDelay{0};

  mutable std::mutex m_publishMutex;
  mutable std::condition_variable m_publishCv;
  std::shared_ptr<const ServiceSnapshot> m_published;
  std::atomic<std::uint64_t> m_version{0};

  std::mutex m_listenerMutex;
  std::condition_variable m_listenerCv;
  std::map<int, Registered> m_listeners;
  int m_runningListener = 0;  // the listener being called, if any

  std::mutex m_queueMutex;
  std::condition_variable m_queueCv;
  std::deque<Task> m_tasks;
  std::atomic<bool> m_stopping{false};  // set under m_queueMutex
  std::thread m_worker;
};

// The readers that started caches use, by connection, type and listing
// window. A reader is handed out until its last cache stops.
class Readers {
 public:
  static Readers& Instance() {
    // Never destroyed: caches may stop while the process exits.
    static Readers& readers = *new Readers;
    return readers;
  }

  std::shared_ptr<Reader> Acquire(const std::shared_ptr<Connection>& conn, const String& type,
                                  std::chrono::milliseconds window) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Shared& shared = m_readers[Key(conn.get(), type, window)];
    if (!shared.reader) shared.reader = std::make_shared<Reader>(conn, type, window);
    ++shared.users;
    return shared.reader;
  }

  // True when the reader has no cache left; it is not handed out again.
  bool Release(const std::shared_ptr<Connection>& conn, const String& type,
               std::chrono::milliseconds window) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_readers.find(Key(conn.get(), type, window));
    if (--it->second.users > 0) return false;
    m_readers.erase(it);
    return true;
  }

 private:
  using Key = std::tuple<const Connection*, String, std::chrono::milliseconds>;
  struct Shared {
    std::shared_ptr<Reader> reader;
    int users = 0;
  };

  std::mutex m_mutex;
  std::map<Key, Shared> m_readers;
};

std::atomic<int> g_nextListener{1};

std::size_t RandomIndex(std::size_t size) {
  thread_local std::minstd_rand engine{std::random_device{}()};
  return std::uniform_int_distribution<std::size_t>(0, size - 1)(engine);
}

}  // namespace

// One cache: its selection and its listeners, over the reader it shares.
class ServiceCache::Impl {
 public:
  Impl(std::shared_ptr<Connection> conn, const String& type, Selection selection,
       std::chrono::milliseconds listingWindow)
      : m_conn(std::move(conn)),
        m_type(NormalizePath(type)),
        m_selection(selection),
        m_listingWindow(listingWindow) {}

  void Start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state != kNew) return;
    m_reader = Readers::Instance().Acquire(m_conn, m_type, m_listingWindow);
    m_reader->Start();
    for (const auto& entry : m_pending) m_listenerIds.push_back(entry.first);
    m_reader->Join(std::move(m_pending));
    m_pending.clear();
    m_state.store(kStarted, std::memory_order_release);
  }

  void Stop() {
    std::vector<int> ids;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_state == kNew) m_state = kStopped;
      if (m_state != kStarted) return;
      m_state = kStopping;
      ids.swap(m_listenerIds);
    }
    for (int id : ids) m_reader->RemoveListener(id);
    {
      // The latest snapshot, kept as it is but no longer current.
      auto last = std::make_shared<ServiceSnapshot>(*m_reader->Snapshot());
      last->current = false;
      ++last->version;
      std::lock_guard<std::mutex> lock(m_mutex);
      m_last = std::move(last);
      m_state.store(kStopped, std::memory_order_release);
    }
    if (Readers::Instance().Release(m_conn, m_type, m_listingWindow)) m_reader->Stop();
  }

  std::shared_ptr<const ServiceSnapshot> Snapshot() const {
    const State state = m_state.load(std::memory_order_acquire);
    if (state == kStarted || state == kStopping) return m_reader->Snapshot();
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_last;
  }

  CachedInstancePtr Pick() const {
    const auto snapshot = Snapshot();
    const auto& up = snapshot->up;
    if (up.empty()) return nullptr;
    switch (m_selection) {
      case Selection::kRoundRobin:
        return up[m_nextPick.fetch_add(1, std::memory_order_relaxed) % up.size()];
      case Selection::kRandom:
        return up[RandomIndex(up.size())];
      case Selection::kSticky: {
        std::lock_guard<std::mutex> lock(m_stickyMutex);
        if (m_sticky) {
          auto kept = std::find_if(up.begin(), up.end(),
                                   [&](const CachedInstancePtr& i) { return i->id == *m_sticky; });
          if (kept != up.end()) return *kept;
        }
        const CachedInstancePtr chosen = up[RandomIndex(up.size())];
        m_sticky = chosen->id;
        return chosen;
      }
    }
    return nullptr;
  }

  bool WaitUntilCurrent(std::chrono::milliseconds timeout) const {
    if (m_state.load(std::memory_order_acquire) != kStarted) return false;
    return m_reader->WaitUntilCurrent(timeout);
  }

  int AddListener(Listener listener) {
    const int id = g_nextListener++;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == kNew) {
      m_pending.emplace(id, std::move(listener));
    } else if (m_state == kStarted) {
      m_listenerIds.push_back(id);
      m_reader->AddListener(id, std::move(listener));
    }
    return id;
  }

  void RemoveListener(int id) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_pending.erase(id);
      auto it = std::find(m_listenerIds.begin(), m_listenerIds.end(), id);
      if (it == m_listenerIds.end()) return;
      m_listenerIds.erase(it);
    }
    m_reader->RemoveListener(id);
  }

 private:
  enum State { kNew, kStarted, kStopping, kStopped };

  const std::shared_ptr<Connection> m_conn;
  const String m_type;
  const Selection m_selection;
  const std::chrono::milliseconds m_listingWindow;

  mutable std::mutex m_mutex;
  std::atomic<State> m_state{kNew};   // changed under m_mutex
  std::shared_ptr<Reader> m_reader;   // set once by Start
  std::map<int, Listener> m_pending;  // added before Start
  std::vector<int> m_listenerIds;     // added to the reader
  std::shared_ptr<const ServiceSnapshot> m_last = std::make_shared<const ServiceSnapshot>();

  mutable std::atomic<std::uint64_t> m_nextPick{0};
  mutable std::mutex m_stickyMutex;
  mutable std::optional<ServiceId> m_sticky;
};

ServiceCache::ServiceCache(std::shared_ptr<Connection> conn, const String& type,
                           Selection selection, std::chrono::milliseconds listingWindow)
    : m_impl(std::make_shared<Impl>(std::move(conn), type, selection, listingWindow)) {
  if (listingWindow.count() < 0) throw std::invalid_argument("negative listing window");
}

ServiceCache::~ServiceCache() {
  m_impl->Stop();
}

void ServiceCache::Start() {
  m_impl->Start();
}

void ServiceCache::Stop() {
  m_impl->Stop();
}

std::shared_ptr<const ServiceSnapshot> ServiceCache::Snapshot() const {
  return m_impl->Snapshot();
}

CachedInstancePtr ServiceCache::Pick() const {
  return m_impl->Pick();
}

bool ServiceCache::WaitUntilCurrent(std::chrono::milliseconds timeout) const {
  return m_impl->WaitUntilCurrent(timeout);
}

int ServiceCache::AddListener(Listener listener) {
  return m_impl->AddListener(std::move(listener));
}

void ServiceCache::RemoveListener(int id) {
  m_impl->RemoveListener(id);
}

}  // namespace qx::korvel
