// A live, always-current view of the instances of one service type.
//
// The cache lists the type's live instances and reads their own attributes,
// keeps one child watch on the type's liveness directory and one data watch
// per instance status, and after a gap (a long disconnection, a new session)
// lists and reads everything again. Each change is published as a new
// immutable snapshot and reported to listeners as deltas: instance added,
// instance removed, attribute changed (old and new value), and the cache
// becoming current or stale.
//
// Started caches of one type on one Connection with the same listing window
// share their reading: one listing per change, one read of each instance, one
// set of watches and one copy of the instances, however many such caches the
// process has. Each keeps its own selection and listeners.
//
// Threads: Snapshot() and Pick() may be called from any thread and make no
// request; Snapshot() takes a short lock only the first time a thread asks
// after a change, and Pick() with kSticky takes one to remember its choice. The cache does its
// reading on a thread of its own, which also calls the listeners, one event at a time and in the
// order the tree changed as far as ZooKeeper tells. Every other member may be called from any
// thread too, including a listener and the connection's event thread (a watch callback or session
// observer); there Stop, the destructor and RemoveListener do not wait for the cache's thread,
// which may be waiting for that very thread, and WaitUntilCurrent does not wait at all.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "korvel/connection_v2.h"
#include "korvel/service_id.h"
#include "stlext/string.h"

namespace qx::korvel {

// One live instance as the cache read it last. Immutable.
struct CachedInstance {
  ServiceId id;
  // The instance's own attributes that exist (tree::kOwnAttributeNames).
  std::map<String, String> attributes;

  // The attribute's value, or null when the instance does not publish it.
  const String* Attribute(const String& name) const;
};

using CachedInstancePtr = std::shared_ptr<const CachedInstance>;

// What the cache knew at one moment. Immutable.
struct ServiceSnapshot {
  std::vector<CachedInstancePtr> instances;  // ordered by id
  std::vector<CachedInstancePtr> up;         // those whose status is "up"
  // True while the cache is connected and watching; false before the first
  // listing, after an expiry until everything is read again, and after a
  // disconnection that lasted longer than the session timeout.
  bool current = false;
  std::uint64_t version = 0;  // grows with every published change

  // The instance, or null when it is not live.
  CachedInstancePtr Find(const ServiceId& id) const;
};

struct ServiceCacheEvent {
  enum class Type { kInstanceAdded, kInstanceRemoved, kAttributeChanged, kCurrent, kStale };
  Type type;
  ServiceId id{};                  // the instance (not for kCurrent, kStale)
  CachedInstancePtr instance;      // added or changed: as now; removed: as last known
  String attribute;                // kAttributeChanged: its name
  std::optional<String> oldValue;  // kAttributeChanged: absent when the attribute appeared
  std::optional<String> newValue;  // kAttributeChanged: absent when it vanished
};

class ServiceCache {
 public:
  // How Pick() chooses among the instances whose status is "up".
  enum class Selection {
    kRoundRobin,  // each one in turn
    kRandom,      // uniformly at random
    kSticky,      // the same one until it leaves or is no longer up
  };
  using Listener = std::function<void(const ServiceCacheEvent&)>;

  // The listing window a cache has unless told otherwise: it caps a reader
  // at 10 listings a second while instances keep coming and going (a fleet
  // restarting, say), and delays an added or removed instance by at most
  // 100 ms, only while changes follow each other that closely.
  static constexpr std::chrono::milliseconds kDefaultListingWindow{100};

  // A cache of the service type `type` (normalised with NormalizePath); it
  // reads nothing until Start().
  //
  // `listingWindow` coalesces the listings that registrations and teardowns
  // cause: a change seen within the window after the last listing is listed
  // at the window's end, together with every change made until then (the
  // child watch is set again only by a listing). A type whose instances come
  // and go R times a second then costs at most min(R, 1 s / window) listings
  // a second per reader, and an added or removed instance is seen up to one
  // window later; a change after a quiet spell is listed at once. Zero lists
  // at once after every change. Attribute changes are not delayed. Throws
  // std::invalid_argument for a negative window.
  ServiceCache(std::shared_ptr<Connection> conn, const String& type,
               Selection selection = Selection::kRoundRobin,
               std::chrono::milliseconds listingWindow = kDefaultListingWindow);
  // Stops the cache, as Stop() does.
  ~ServiceCache();
  ServiceCache(const ServiceCache&) = delete;
  ServiceCache& operator=(const ServiceCache&) = delete;

  // Starts listing and watching; returns at once. When the server cannot be
  // reached, the cache keeps trying and fills in once it can. Listeners added
  // before hear of every instance the cache knows, as added, and of the cache
  // being current; a cache that shares the reading of one started earlier
  // gets them at once from what that one knows.
  void Start();
  // Stops watching and removes its watches from the server; no listener is
  // called after it returns. A stopped cache keeps its last snapshot (no
  // longer current) and cannot be started again. Called from a listener or on
  // the connection's event thread, it returns at once: a listener running at
  // that moment may still be finishing, none starts afterwards, and the
  // cache's thread removes the watches and ends by itself.
  void Stop();

  // The latest snapshot. Never null.
  std::shared_ptr<const ServiceSnapshot> Snapshot() const;
  // One instance whose status is "up", chosen by the selection strategy, or
  // null when there is none.
  CachedInstancePtr Pick() const;
  // Waits until the cache is current; false when `timeout` passed first, and
  // at once before Start and after Stop. On the connection's event thread it
  // says at once whether it is current.
  bool WaitUntilCurrent(std::chrono::milliseconds timeout) const;

  // Adds a listener and returns its id. Events that happen from then on are
  // delivered to it on the cache's thread.
  int AddListener(Listener listener);
  // Removes a listener: it is never called again, and when this returns it
  // is not running (unless called by a listener or on the connection's event
  // thread, which do not wait).
  void RemoveListener(int id);

 private:
  class Impl;
  std::shared_ptr<Impl> m_impl;
};

}  // namespace qx::korvel
