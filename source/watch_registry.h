// The watches a Connection has set and not yet delivered.
#pragma once

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "korvel/connection_v2.h"
#include "session_keeper.h"

namespace qx::korvel {

// Every watch set through the client is registered here under an id, which
// the client holds as the watcher's context: a callback finds its watch by
// the id, never by a pointer the registry may have freed meanwhile.
class Connection::WatchRegistry {
 public:
  using Session = SessionKeeper::Session;

  // The client's watcher function for every registered watch.
  static void OnPathWatch(zhandle_t* zh, int type, int state, const char* path, void* context);

  // Registers the watch of `ctx` about to be set through `session`; returns
  // the watcher context to give the client with OnPathWatch.
  void* Add(std::shared_ptr<WatchContext> ctx, const Session* session, const String& path,
            ZooWatcherType type);
  // Forgets a watch that the client did not set after all.
  void Forget(void* watcherCtx) { Take(reinterpret_cast<std::uintptr_t>(watcherCtx)); }
  // Delivers (ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE, path) once to each
  // pending watch of the expired session and forgets them.
  void Expire(const Session* session);
  // Forgets the watches of `handles` and cancels them. The server keeps one
  // watch per node and kind for all of a session's watchers, so it is removed
  // there when no other live watch of this session needs it. ZOK or the first
  // failure's code.
  int Remove(const Session& session, std::vector<WatchHandle>& handles);

 private:
  struct PendingWatch {
    std::shared_ptr<WatchContext> ctx;
    const Session* session;
    String path;
    ZooWatcherType type;
  };

  PendingWatch Take(std::uintptr_t id);
  // Runs the callback unless the watch was cancelled. Event thread only.
  static void Invoke(WatchContext& ctx, int type, int state, const String& path);
  static bool Valid(WatchContext& ctx);

  static constexpr std::size_t kMinPrune = 64;

  std::mutex m_mutex;
  std::map<std::uintptr_t, PendingWatch> m_pending;  // by id: registration order
  std::uintptr_t m_nextId = 1;
  std::size_t m_pruneAt = kMinPrune;
};

}  // namespace qx::korvel
