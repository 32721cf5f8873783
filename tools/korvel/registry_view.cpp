#include "registry_view.h"

#include <korvel/tree.h>
#include <korvel/utils.h>
#include <logger/logger.h>
#include <stlext/uuid.h>

#include <algorithm>

#include "commands.h"

namespace korvel::cli {
namespace {

using qx::korvel::CachedInstancePtr;
using qx::korvel::Connection;
using qx::korvel::ServiceCacheEvent;
using qx::korvel::ServiceId;
using Clock = std::chrono::steady_clock;
namespace tree = qx::korvel::tree;

const qx::logging::ConstSourcePtr& g_log =
    *new qx::logging::ConstSourcePtr(qx::logging::MakeSource("korvel.serve"));

// How long a request waits for a new cache to read its type.
constexpr std::chrono::seconds kFirstReadWait{5};

std::string Compact(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json InstanceJson(const qx::korvel::CachedInstance& instance) {
  return InstancesToJson({FactsOf(instance)}).at(0);
}

std::string Status(const qx::korvel::CachedInstance& instance) {
  const std::string* status = instance.Attribute(tree::kOwnAttributeNames[tree::kStatus]);
  return status ? *status : std::string();
}

}  // namespace

struct TypeView::Subscriber {
  std::weak_ptr<korvel::http::EventSink> sink;
};

TypeView::TypeView(std::shared_ptr<Connection> conn, const std::string& type,
                   std::chrono::milliseconds listingWindow)
    : m_type(type),
      m_staleSince(std::time(nullptr)),
      m_cache(std::move(conn), type, qx::korvel::ServiceCache::Selection::kRoundRobin,
              listingWindow) {
  m_cache.AddListener([this](const ServiceCacheEvent& event) { OnEvent(event); });
  m_cache.Start();
}

TypeView::~TypeView() {
  m_cache.Stop();
}

bool TypeView::WaitUntilCurrent(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_becameCurrent.wait_for(lock, timeout, [this] { return m_current; });
}

bool TypeView::Current() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_current;
}

std::pair<std::shared_ptr<const std::string>, bool> TypeView::Rendered() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return {RenderLocked(), m_current};
}

bool TypeView::Followed() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return !m_subscribers.empty();
}

TypeView::State TypeView::Now() {
  std::lock_guard<std::mutex> lock(m_mutex);
  State state;
  state.instancesJson = RenderLocked();
  state.instances.reserve(m_instances.size());
  for (const auto& entry : m_instances) state.instances.push_back(entry.second);
  state.current = m_current;
  state.staleSince = m_staleSince;
  return state;
}

std::shared_ptr<const std::string> TypeView::RenderLocked() {
  if (!m_rendered) {
    Json array = Json::array();
    for (const auto& entry : m_instances) array.push_back(InstanceJson(*entry.second));
    m_rendered = std::make_shared<const std::string>(Compact(array));
  }
  return m_rendered;
}

std::shared_ptr<const std::string> TypeView::EventLocked(const std::string& name,
                                                         const std::string& data) {
  return std::make_shared<const std::string>("id: " + std::to_string(++m_sequence) +
                                             "\nevent: " + name + "\ndata: " + data + "\n\n");
}

void TypeView::BroadcastLocked(const std::string& name, const std::string& data) {
  const auto text = EventLocked(name, data);
  for (auto it = m_subscribers.begin(); it != m_subscribers.end();) {
    const auto sink = (*it)->sink.lock();
    it = sink && sink->Send(text) ? std::next(it) : m_subscribers.erase(it);
  }
}

void TypeView::OnEvent(const ServiceCacheEvent& event) {
  std::lock_guard<std::mutex> lock(m_mutex);
  using Type = ServiceCacheEvent::Type;
  switch (event.type) {
    case Type::kInstanceAdded:
    case Type::kInstanceRemoved: {
      const bool added = event.type == Type::kInstanceAdded;
      if (added) {
        m_instances[event.id] = event.instance;
      } else {
        m_instances.erase(event.id);
      }
      m_rendered.reset();
      BroadcastLocked(added ? "added" : "removed", Compact(InstanceJson(*event.instance)));
      break;
    }
    case Type::kAttributeChanged: {
      m_instances[event.id] = event.instance;
      m_rendered.reset();
      const auto value = [](const std::optional<std::string>& v) {
        return v ? Json(*v) : Json(nullptr);
      };
      BroadcastLocked("changed", Compact(Json{{"id", qx::uuid::to_string(event.id)},
                                              {"attribute", event.attribute},
                                              {"old", value(event.oldValue)},
                                              {"new", value(event.newValue)}}));
      break;
    }
    case Type::kCurrent:
      m_current = true;
      m_becameCurrent.notify_all();
      QXLOG(g_log, qx::logging::QXLOG_INFO) << "The cache of type '" << m_type << "' is current";
      BroadcastLocked("current", *RenderLocked());
      break;
    case Type::kStale:
      m_current = false;
      m_staleSince = std::time(nullptr);
      QXLOG(g_log, qx::logging::QXLOG_WARNING)
          << "The cache of type '" << m_type << "' is stale: its session expired or was cut off";
      BroadcastLocked("stale", Compact(Json{{"since", tree::UtcText(m_staleSince)}}));
      break;
  }
}

std::shared_ptr<void> TypeView::Subscribe(std::weak_ptr<korvel::http::EventSink> sink) {
  // Keeps the view (and so its cache) alive, and ends the subscriber's events.
  class Subscription {
   public:
    Subscription(std::shared_ptr<TypeView> view, std::shared_ptr<Subscriber> subscriber)
        : m_view(std::move(view)), m_subscriber(std::move(subscriber)) {}
    ~Subscription() {
      std::lock_guard<std::mutex> lock(m_view->m_mutex);
      m_view->m_subscribers.remove(m_subscriber);  // gone already if its sink refused an event
    }

   private:
    const std::shared_ptr<TypeView> m_view;
    const std::shared_ptr<Subscriber> m_subscriber;
  };
  auto subscriber = std::make_shared<Subscriber>(Subscriber{std::move(sink)});
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto sink = subscriber->sink.lock();
    if (!sink || !sink->Send(EventLocked("snapshot", *RenderLocked()))) return nullptr;
    if (!m_current) {
      sink->Send(EventLocked("stale", Compact(Json{{"since", tree::UtcText(m_staleSince)}})));
    }
    m_subscribers.push_back(subscriber);
  }
  return std::make_shared<Subscription>(shared_from_this(), std::move(subscriber));
}

RegistryView::RegistryView(std::shared_ptr<Connection> conn, std::chrono::milliseconds cacheIdle,
                           std::chrono::milliseconds listingWindow)
    : m_conn(std::move(conn)),
      m_cacheIdle(cacheIdle),
      m_listingWindow(listingWindow),
      m_sweeper([this] { Sweep(); }) {}

RegistryView::~RegistryView() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_all();
  m_sweeper.join();
}

std::shared_ptr<TypeView> RegistryView::View(const std::string& type) {
  const std::string normalised = qx::korvel::NormalizePath(type);
  if (normalised.empty()) throw Failure("the service type is empty");
  if (tree::IsLivenessType(normalised)) {
    throw Failure("'alive' is not a service type: it is where liveness nodes live");
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_views.size() >= kMaxViews && m_views.count(normalised) == 0) {
    throw Failure("too many service types are being read (" + std::to_string(kMaxViews) + ")");
  }
  Entry& entry = m_views[normalised];
  if (!entry.view) {
    QXLOG(g_log, qx::logging::QXLOG_INFO) << "Reading service type '" << normalised << "'";
    entry.view = std::make_shared<TypeView>(m_conn, normalised, m_listingWindow);
  }
  entry.used = Clock::now();
  return entry.view;
}

std::shared_ptr<TypeView> RegistryView::CurrentView(const std::string& type, bool make) {
  if (!make) {
    bool held;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      held = m_views.count(qx::korvel::NormalizePath(type)) != 0;
    }
    const int rc = held ? ZOK : m_conn->Exists(tree::AliveDir(type), nullptr);
    if (rc == ZNONODE) return nullptr;
    if (rc != ZOK) throw Failure("cannot read the service type '" + type + "': " + zerror(rc));
  }
  auto view = View(type);
  view->WaitUntilCurrent(kFirstReadWait);
  return view;
}

std::vector<std::pair<std::string, bool>> RegistryView::Caches() const {
  std::vector<std::pair<std::string, bool>> caches;
  std::lock_guard<std::mutex> lock(m_mutex);
  for (const auto& [type, entry] : m_views) caches.emplace_back(type, entry.view->Current());
  return caches;
}

std::vector<TypeSummary> RegistryView::Summaries() {
  // A level of the liveness tree at a time, its listings in flight together.
  std::vector<std::string> types, level = {tree::kAliveRoot};
  while (!level.empty()) {
    std::vector<std::vector<std::string>> children;
    const std::vector<int> codes = m_conn->GetChildrenAll(level, children);
    std::vector<std::string> next;
    for (std::size_t i = 0; i < level.size(); ++i) {
      if (codes[i] == ZNONODE) continue;  // no type yet, or removed meanwhile
      if (codes[i] != ZOK) {
        throw Failure("cannot list " + level[i] + ": " + zerror(codes[i]));
      }
      bool instances = children[i].empty();
      for (const std::string& child : children[i]) {
        ServiceId id;
        if (qx::uuid::from_string(child, id)) {
          instances = true;
        } else {
          next.push_back(level[i] + "/" + child);
        }
      }
      if (instances && level[i] != tree::kAliveRoot) {
        std::string type = level[i].substr(std::string(tree::kAliveRoot).size() + 1);
        if (!tree::IsLivenessType(type)) types.push_back(std::move(type));
      }
    }
    level = std::move(next);
  }
  std::sort(types.begin(), types.end());

  std::vector<std::shared_ptr<TypeView>> views;
  for (const std::string& type : types) views.push_back(View(type));
  const auto deadline = Clock::now() + kFirstReadWait;
  std::vector<TypeSummary> summaries;
  for (const auto& view : views) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    view->WaitUntilCurrent(std::max(left, std::chrono::milliseconds(0)));
    const TypeView::State state = view->Now();
    TypeSummary summary{view->Type(), state.instances.size(), {}, state.current};
    for (const CachedInstancePtr& instance : state.instances) ++summary.statuses[Status(*instance)];
    summaries.push_back(std::move(summary));
  }
  return summaries;
}

void RegistryView::Sweep() {
  const auto period = std::max(std::chrono::milliseconds(100), m_cacheIdle / 4);
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_wake.wait_for(lock, period, [this] { return m_stopping; })) {
    std::vector<std::shared_ptr<TypeView>> dropped;
    for (auto it = m_views.begin(); it != m_views.end();) {
      if (Clock::now() - it->second.used < m_cacheIdle || it->second.view->Followed()) {
        ++it;
        continue;
      }
      QXLOG(g_log, qx::logging::QXLOG_INFO)
          << "Dropping the cache of type '" << it->first << "': no reader asked for it";
      dropped.push_back(std::move(it->second.view));
      it = m_views.erase(it);
    }
    // Stopping a cache removes its watches from the server: not under the lock.
    lock.unlock();
    dropped.clear();
    lock.lock();
  }
}

}  // namespace korvel::cli
