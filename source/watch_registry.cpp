#include "watch_registry.h"

#include <algorithm>
#include <set>
#include <unordered_map>
#include <utility>

#include "client_log.h"
#include "metrics_counters.h"
#include "pipeline.h"

namespace qx::korvel {

using details::g_log;
using logging::QXLOG_ERROR;

// ---- WatchContext and WatchHandle ----------------------------------------------

Connection::WatchContext::WatchContext(const Connection& conn, WatchFunction&& func)
    : m_conn(conn), m_func(std::move(func)) {}

Connection::WatchContext::WatchContext(const WatchContext& other) : m_conn(other.m_conn) {
  std::lock_guard<std::mutex> lock(const_cast<std::mutex&>(other.m_mtx));
  m_func = other.m_func;
  m_valid = other.m_valid;
  m_cbk = other.m_cbk;
}

Connection::WatchContext::WatchContext(WatchContext&& other) : m_conn(other.m_conn) {
  std::lock_guard<std::mutex> lock(other.m_mtx);
  m_func = std::move(other.m_func);
  m_valid = other.m_valid;
  m_cbk = std::move(other.m_cbk);
}

bool Connection::WatchContext::Invalidate(std::function<void()> cbk) {
  std::lock_guard<std::mutex> lock(m_mtx);
  m_valid = false;
  if (!m_invoking) return false;
  m_cbk = std::move(cbk);
  return true;
}

Connection::WatchHandle& Connection::WatchHandle::operator=(WatchHandle&& other) noexcept {
  if (this != &other) {
    Cancel(nullptr);
    m_ctx = std::move(other.m_ctx);
  }
  return *this;
}

Connection::WatchHandle::~WatchHandle() {
  Cancel(nullptr);
}

bool Connection::WatchHandle::Cancel(std::function<void()> cbk) {
  if (!m_ctx) return false;
  const bool deferred = m_ctx->Invalidate(std::move(cbk));
  m_ctx.reset();
  return deferred;
}

// ---- WatchRegistry ---------------------------------------------------------------

void Connection::WatchRegistry::Invoke(WatchContext& ctx, int type, int state, const String& path) {
  {
    std::lock_guard<std::mutex> lock(ctx.m_mtx);
    if (!ctx.m_valid) return;
    ctx.m_invoking = true;
  }
  try {
    ctx.m_func(type, state, path);
  } catch (const std::exception& e) {
    QXLOG(g_log, QXLOG_ERROR) << "Watch callback for '" << path << "' threw: " << e.what();
  } catch (...) {
    QXLOG(g_log, QXLOG_ERROR) << "Watch callback for '" << path << "' threw";
  }
  std::function<void()> completion;
  {
    std::lock_guard<std::mutex> lock(ctx.m_mtx);
    ctx.m_invoking = false;
    completion = std::move(ctx.m_cbk);
    ctx.m_cbk = nullptr;
  }
  if (completion) completion();
}

bool Connection::WatchRegistry::Valid(WatchContext& ctx) {
  std::lock_guard<std::mutex> lock(ctx.m_mtx);
  return ctx.m_valid;
}

void Connection::WatchRegistry::OnPathWatch(zhandle_t* zh, int type, int state, const char* path,
                                            void* context) {
  // Session events reach every path watcher too; they do not use the watch
  // up, and an expiry is delivered to pending watches by the session watcher.
  if (type == ZOO_SESSION_EVENT) return;
  const SessionKeeper& keeper = *static_cast<const Session*>(zoo_get_context(zh))->keeper;
  if (keeper.Closing()) return;
  auto watch = keeper.Watches().Take(reinterpret_cast<std::uintptr_t>(context));
  if (!watch.ctx) return;
  details::EventThreadScope scope;
  Invoke(*watch.ctx, type, state, path ? path : watch.path);
}

void* Connection::WatchRegistry::Add(std::shared_ptr<WatchContext> ctx, const Session* session,
                                     const String& path, ZooWatcherType type) {
  // Destroyed after the lock: a callback's captures may call back into us.
  std::vector<std::shared_ptr<WatchContext>> forgotten;
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pending.size() >= m_pruneAt) {
    // Cancelled watches stay registered with the client until their node
    // changes; forget them here, so that the registry stays small.
    for (auto it = m_pending.begin(); it != m_pending.end();) {
      if (Valid(*it->second.ctx)) {
        ++it;
      } else {
        forgotten.push_back(std::move(it->second.ctx));
        it = m_pending.erase(it);
      }
    }
    m_pruneAt = std::max<std::size_t>(kMinPrune, 2 * m_pending.size());
  }
  const std::uintptr_t id = m_nextId++;
  m_pending.emplace(id, PendingWatch{std::move(ctx), session, path, type});
  return reinterpret_cast<void*>(id);
}

Connection::WatchRegistry::PendingWatch Connection::WatchRegistry::Take(std::uintptr_t id) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_pending.find(id);
  if (it == m_pending.end()) return {};
  PendingWatch watch = std::move(it->second);
  m_pending.erase(it);
  return watch;
}

void Connection::WatchRegistry::Expire(const Session* session) {
  std::vector<PendingWatch> expired;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_pending.begin(); it != m_pending.end();) {
      if (it->second.session != session) {
        ++it;
        continue;
      }
      expired.push_back(std::move(it->second));
      it = m_pending.erase(it);
    }
  }
  for (auto& watch : expired) {
    Invoke(*watch.ctx, ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE, watch.path);
  }
}

namespace {

struct RemoveRequest {
  String path;
  ZooWatcherType type;
};

// Sends the removals and unlocks `sending` before waiting for them.
int SendRemoveWatches(zhandle_t* zh, const std::vector<RemoveRequest>& requests,
                      std::unique_lock<std::mutex>& sending) {
  std::vector<int> results(requests.size(), ZOK);
  if (details::OnEventThread()) {
    // Synchronous requests are answered by the client's I/O thread, so they
    // may wait under the lock.
    for (std::size_t i = 0; i < requests.size(); ++i) {
      results[i] = zoo_remove_all_watches(zh, requests[i].path.c_str(), requests[i].type, 0);
    }
    sending.unlock();
  } else {
    // The client declares the completion as a pointer to a function pointer
    // but stores and calls the value it is given as the function itself.
    void_completion_t completion = [](int rc, const void* data) {
      details::AsyncSlot::From(data).Complete(rc);
    };
    details::RunPipelined(
        results,
        [&](std::size_t i, details::AsyncSlot& slot) {
          return details::Submitted(
              zoo_aremove_all_watches(zh, requests[i].path.c_str(), requests[i].type, 0,
                                      reinterpret_cast<void_completion_t*>(completion), &slot));
        },
        &sending);
  }
  for (int rc : results) {
    details::CountRequest(details::RequestKind::kRemoveWatches, rc);
  }
  for (int rc : results) {
    // A watch that fired meanwhile is gone already.
    if (rc != ZOK && rc != ZNOWATCHER) return rc;
  }
  return ZOK;
}

}  // namespace

int Connection::WatchRegistry::Remove(const Session& session, std::vector<WatchHandle>& handles) {
  // Held until the end, so that no context can be freed and its address
  // taken by a new watch while the registry is searched for these; and
  // released after the lock, since a callback's captures may call back into us.
  std::unordered_map<const WatchContext*, std::shared_ptr<WatchContext>> targets;
  for (WatchHandle& handle : handles) {
    if (handle.m_ctx) targets.emplace(handle.m_ctx.get(), handle.m_ctx);
    handle.Cancel(nullptr);
  }
  std::set<std::pair<String, ZooWatcherType>> removed, kept;
  std::unique_lock<std::mutex> lock(m_mutex);
  for (auto it = m_pending.begin(); it != m_pending.end();) {
    const PendingWatch& watch = it->second;
    if (watch.session != &session) {
      ++it;
    } else if (targets.count(watch.ctx.get()) != 0) {
      removed.emplace(watch.path, watch.type);
      it = m_pending.erase(it);
    } else {
      if (Valid(*watch.ctx)) kept.emplace(watch.path, watch.type);
      ++it;
    }
  }
  std::vector<RemoveRequest> requests;
  for (const auto& entry : removed) {
    if (kept.count(entry) == 0) requests.push_back({entry.first, entry.second});
  }
  // The removals leave before the lock does: a watch set on one of these
  // paths after the search goes out after them, and no removal takes it.
  return SendRemoveWatches(session.zh, requests, lock);
}

}  // namespace qx::korvel
