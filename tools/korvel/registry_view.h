// What `korvel serve` knows of the registry: one connection, a ServiceCache per service type made
// when a reader first asks for the type and dropped when none asked for a while, each with the
// type's instances rendered as JSON once per change and its changes fanned out to event streams.
// It only reads: it never creates, changes or deletes a node.
//
// Threads: every member may be called from any thread. Caches call into their TypeView on their
// own threads.
#ifndef KORVEL_TOOLS_KORVEL_REGISTRY_VIEW_H_
#define KORVEL_TOOLS_KORVEL_REGISTRY_VIEW_H_

#include <korvel/service_cache.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "http_server.h"

namespace korvel::cli {

// One service type's cache, and the event streams that follow it.
class TypeView : public std::enable_shared_from_this<TypeView> {
 public:
  TypeView(std::shared_ptr<qx::korvel::Connection> conn, const std::string& type,
           std::chrono::milliseconds listingWindow);
  ~TypeView();
  TypeView(const TypeView&) = delete;
  TypeView& operator=(const TypeView&) = delete;

  struct State {
    // The instances as `korvel list TYPE --json` prints them, ordered by id.
    std::shared_ptr<const std::string> instancesJson;
    std::vector<qx::korvel::CachedInstancePtr> instances;  // ordered by id
    bool current = false;
    std::time_t staleSince = 0;  // when it last stopped being current (or was made)
  };
  // What the cache knows now. Renders the JSON at most once per change.
  State Now();
  // Only the rendered instances and whether they are current: what most requests need.
  std::pair<std::shared_ptr<const std::string>, bool> Rendered();
  bool Current() const;
  // Waits until the view is current (it has taken in the cache's every change up to the moment
  // the cache became current); false when `timeout` passed first.
  bool WaitUntilCurrent(std::chrono::milliseconds timeout);

  // Sends `sink` an event "snapshot" with the instances, "stale" when the cache is not current,
  // and then every change as it happens, until the returned subscription is dropped or the sink
  // refuses an event.
  std::shared_ptr<void> Subscribe(std::weak_ptr<korvel::http::EventSink> sink);

  const std::string& Type() const { return m_type; }
  // True while a stream follows the type.
  bool Followed() const;

 private:
  struct Subscriber;
  void OnEvent(const qx::korvel::ServiceCacheEvent& event);
  std::shared_ptr<const std::string> RenderLocked();
  // The text of an event with the next id. Under m_mutex.
  std::shared_ptr<const std::string> EventLocked(const std::string& name, const std::string& data);
  // Sends an event to every subscriber and forgets those that refuse it. Under m_mutex.
  void BroadcastLocked(const std::string& name, const std::string& data);

  const std::string m_type;
  mutable std::mutex m_mutex;
  std::condition_variable m_becameCurrent;
  std::map<qx::korvel::ServiceId, qx::korvel::CachedInstancePtr> m_instances;
  std::shared_ptr<const std::string> m_rendered;  // null after a change
  bool m_current = false;
  std::time_t m_staleSince;
  std::uint64_t m_sequence = 0;  // events so far, for the streams' event ids
  std::list<std::shared_ptr<Subscriber>> m_subscribers;
  // Last: it calls OnEvent until it is stopped, which the destructor does first.
  qx::korvel::ServiceCache m_cache;
};

// A service type with a liveness directory, and its live instances.
struct TypeSummary {
  std::string type;
  std::size_t instances = 0;
  std::map<std::string, std::size_t> statuses;  // instances per status ("" for none yet)
  bool current = false;
};

class RegistryView {
 public:
  // Drops a type's cache when no request and no stream asked for it for `cacheIdle`; the caches
  // list with `listingWindow`.
  RegistryView(std::shared_ptr<qx::korvel::Connection> conn, std::chrono::milliseconds cacheIdle,
               std::chrono::milliseconds listingWindow);
  ~RegistryView();
  RegistryView(const RegistryView&) = delete;
  RegistryView& operator=(const RegistryView&) = delete;

  // At most this many types are read at once.
  static constexpr std::size_t kMaxViews = 4096;

  // The view of `type` (normalised), made and started when none is held; marks it used. Throws
  // Failure for the type "alive" or below it, an empty one, or one beyond kMaxViews.
  std::shared_ptr<TypeView> View(const std::string& type);
  // The view, waited for (bounded) until current. Null when none is held and the type has no
  // liveness directory (unless `make` is set): a request for a type that does not exist makes
  // no cache.
  std::shared_ptr<TypeView> CurrentView(const std::string& type, bool make);

  // Every type with a liveness directory, found by walking the liveness tree (a directory that
  // holds instances, or none at all, is a type), with counts from its cache; sorted by type.
  // Throws Failure when the tree cannot be read.
  std::vector<TypeSummary> Summaries();

  // The views held now, and whether each is current.
  std::vector<std::pair<std::string, bool>> Caches() const;

  const std::shared_ptr<qx::korvel::Connection>& Conn() const { return m_conn; }

 private:
  struct Entry {
    std::shared_ptr<TypeView> view;
    std::chrono::steady_clock::time_point used;
  };
  void Sweep();

  const std::shared_ptr<qx::korvel::Connection> m_conn;
  const std::chrono::milliseconds m_cacheIdle;
  const std::chrono::milliseconds m_listingWindow;
  mutable std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_stopping = false;
  std::map<std::string, Entry> m_views;
  std::thread m_sweeper;
};

}  // namespace korvel::cli

#endif  // KORVEL_TOOLS_KORVEL_REGISTRY_VIEW_H_
