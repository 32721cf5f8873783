#include "korvel/connection_v2.h"

#include <stdio.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <thread>
#include <unordered_map>

#include "korvel/error.h"
#include "logger/logger.h"

namespace qx::korvel {
namespace {

using logging::QXLOG_DEBUG;
using logging::QXLOG_ERROR;
using logging::QXLOG_INFO;
using logging::QXLOG_WARNING;

// Never destroyed: the client's threads may still log while the process exits.
const logging::ConstSourcePtr& g_log =
    *new logging::ConstSourcePtr(logging::MakeSource("korvel.connection"));
const logging::ConstSourcePtr& g_clientLog =
    *new logging::ConstSourcePtr(logging::MakeSource("zookeeper.client"));

// ---- The C client's own log lines --------------------------------------------

// The client logs every failed connection attempt while a server is away;
// beyond this many warnings and errors a second the rest are counted and
// summarised.
constexpr int kClientWarningsPerSecond = 5;

void RouteClientLine(const char* text, std::size_t length) {
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) --length;
  if (length == 0) return;
  // A line reads "<time>:<pid>(<tid>):ZOO_<LEVEL>@<function>@<line>: <message>".
  static const std::pair<const char*, logging::LogLevel> kLevels[] = {{"ZOO_ERROR@", QXLOG_ERROR},
                                                                      {"ZOO_WARN@", QXLOG_WARNING},
                                                                      {"ZOO_INFO@", QXLOG_INFO},
                                                                      {"ZOO_DEBUG@", QXLOG_DEBUG}};
  const std::string_view line(text, length);
  logging::LogLevel level = QXLOG_INFO;
  std::string_view message = line;
  for (const auto& [marker, markerLevel] : kLevels) {
    const auto at = line.find(marker);
    if (at != std::string_view::npos) {
      level = markerLevel;
      message = line.substr(at + std::strlen(marker));
      break;
    }
  }
  if (!logging::IsLogged(level)) return;
  if (level < QXLOG_WARNING) {
    QXLOG(g_clientLog, level) << message;
    return;
  }

  static std::mutex mutex;
  static auto windowStart = std::chrono::steady_clock::now();
  static int linesInWindow = 0;
  static int suppressed = 0;
  int reportSuppressed = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    const auto now = std::chrono::steady_clock::now();
    if (now - windowStart >= std::chrono::seconds(1)) {
      windowStart = now;
      linesInWindow = 0;
      reportSuppressed = std::exchange(suppressed, 0);
    }
    if (++linesInWindow > kClientWarningsPerSecond) {
      ++suppressed;
      return;
    }
  }
  if (reportSuppressed > 0) {
    QXLOG(g_clientLog, QXLOG_WARNING)
        << "suppressed " << reportSuppressed << " ZooKeeper client log lines";
  }
  QXLOG(g_clientLog, level) << message;
}

void ClientLogCallback(const char* message) {
  RouteClientLine(message, std::strlen(message));
}

ssize_t ClientLogStreamWrite(void*, const char* buffer, std::size_t size) {
  for (std::size_t start = 0; start < size;) {
    const void* newline = std::memchr(buffer + start, '\n', size - start);
    const std::size_t end =
        newline ? static_cast<std::size_t>(static_cast<const char*>(newline) - buffer) + 1 : size;
    RouteClientLine(buffer + start, end - start);
    start = end;
  }
  return static_cast<ssize_t>(size);
}

// The client's informational lines (a dozen per connection) are wanted only
// when debugging.
ZooLogLevel ClientLevelFor(logging::LogLevel level) {
  if (level <= QXLOG_DEBUG) return ZOO_LOG_LEVEL_DEBUG;
  if (level < QXLOG_ERROR) return ZOO_LOG_LEVEL_WARN;
  return ZOO_LOG_LEVEL_ERROR;
}

// Routes the client's lines into our logging: those of a handle through the
// handle's callback, the few it logs without a handle through a stream.
void RouteClientLogging() {
  static std::once_flag once;
  std::call_once(once, [] {
    cookie_io_functions_t functions{};
    functions.write = &ClientLogStreamWrite;
    if (FILE* stream = fopencookie(nullptr, "w", functions)) {
      setvbuf(stream, nullptr, _IOLBF, 0);
      zoo_set_log_stream(stream);
    }
  });
  zoo_set_debug_level(ClientLevelFor(logging::GetMinimumLoggingLevel()));
}

// ---- Threads ------------------------------------------------------------------

// True on a thread that is running one of our C-client callbacks: such a
// thread must not wait for asynchronous completions, which it would deliver.
thread_local bool t_onEventThread = false;

class EventThreadScope {
 public:
  EventThreadScope() : m_previous(std::exchange(t_onEventThread, true)) {}
  ~EventThreadScope() { t_onEventThread = m_previous; }

 private:
  bool m_previous;
};

class Latch {
 public:
  explicit Latch(std::size_t count) : m_count(count) {}
  void CountDown() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (--m_count == 0) m_cv.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [this] { return m_count == 0; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::size_t m_count;
};

// One request of a pipelined batch: its result code, and where its
// completion stores what it read.
struct AsyncSlot {
  int* rc = nullptr;
  Latch* latch = nullptr;
  void* out = nullptr;

  static AsyncSlot& From(const void* data) {
    return *static_cast<AsyncSlot*>(const_cast<void*>(data));
  }
  void Complete(int code) {
    *rc = code;
    latch->CountDown();
  }
};

// The client takes a path as a C string, so a NUL inside would cut it short
// and address another node; a path longer than the server's packet limit
// would cost the connection, failing every request in flight with it.
bool UnsendablePath(const String& path) {
  return path.find('\0') != String::npos || path.size() > Connection::kMaxDataSize;
}

std::optional<int> Submitted(int rc) {
  return rc == ZOK ? std::nullopt : std::optional<int>(rc);
}

// Sends every request of a batch, request i through submit(i, slot), and waits
// until each has completed; results[i] receives request i's code. `submit`
// returns nullopt when the request was sent (its completion calls
// slot.Complete), or the code of a request that ends without being sent.
// `sending`, when given, is unlocked once all are sent, before the wait. If
// `submit` throws, the requests after it are not sent, and the exception
// leaves once those already sent have completed.
// Never on the event thread: it would wait for completions it must deliver.
template <typename Submit>
void RunPipelined(std::vector<int>& results, Submit submit,
                  std::unique_lock<std::mutex>* sending = nullptr) {
  Latch latch(results.size());
  std::vector<AsyncSlot> slots(results.size());
  std::exception_ptr failure;
  for (std::size_t i = 0; i < results.size(); ++i) {
    slots[i].rc = &results[i];
    slots[i].latch = &latch;
    if (failure) {
      slots[i].Complete(ZSYSTEMERROR);
      continue;
    }
    try {
      if (auto rc = submit(i, slots[i])) slots[i].Complete(*rc);
    } catch (...) {
      failure = std::current_exception();
      slots[i].Complete(ZSYSTEMERROR);
    }
  }
  if (sending != nullptr) sending->unlock();
  latch.Wait();
  if (failure) std::rethrow_exception(failure);
}

// Codes that say the request may not have reached the server, rather than
// that the server refused it.
bool IsSessionFailure(int rc) {
  return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT || rc == ZSESSIONEXPIRED ||
         rc == ZINVALIDSTATE || rc == ZCLOSING || rc == ZSESSIONMOVED;
}

String SessionIdText(const clientid_t& id) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(id.client_id));
  return text;
}

const char* StateName(int state) {
  if (state == ZOO_CONNECTED_STATE) return "connected";
  if (state == ZOO_CONNECTING_STATE) return "connecting";
  if (state == ZOO_ASSOCIATING_STATE) return "associating";
  if (state == ZOO_EXPIRED_SESSION_STATE) return "expired";
  if (state == ZOO_AUTH_FAILED_STATE) return "auth failed";
  if (state == ZOO_READONLY_STATE) return "read-only";
  return "not connected";
}

}  // namespace

// ---- WatchContext and WatchHandle ------------------------------------------------

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

void Connection::WatchContext::Invoke(int type, int state, const String& path) {
  {
    std::lock_guard<std::mutex> lock(m_mtx);
    if (!m_valid) return;
    m_invoking = true;
  }
  try {
    m_func(type, state, path);
  } catch (const std::exception& e) {
    QXLOG(g_log, QXLOG_ERROR) << "Watch callback for '" << path << "' threw: " << e.what();
  } catch (...) {
    QXLOG(g_log, QXLOG_ERROR) << "Watch callback for '" << path << "' threw";
  }
  std::function<void()> completion;
  {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_invoking = false;
    completion = std::move(m_cbk);
    m_cbk = nullptr;
  }
  if (completion) completion();
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

// ---- Impl --------------------------------------------------------------------------

class Connection::Impl {
 public:
  // One C-client handle. It is the handle's context, so callbacks find their
  // connection through zoo_get_context.
  struct Session {
    Impl* impl;
    zhandle_t* zh = nullptr;
    bool connected = false;  // guarded by m_sessionMutex
  };

  Impl(Connection& self, String hosts, std::chrono::milliseconds timeout)
      : m_self(self),
        m_hosts(std::move(hosts)),
        m_timeoutMs(static_cast<int>(timeout.count())),
        m_worker([this] { RunWorker(); }) {}

  ~Impl() {
    std::shared_ptr<Session> last;
    {
      std::lock_guard<std::mutex> lock(m_sessionMutex);
      m_closing = true;
      last = std::move(m_current);
    }
    last.reset();  // queues the close
    {
      std::lock_guard<std::mutex> lock(m_workMutex);
      m_stopping = true;
    }
    m_workCv.notify_all();
    m_worker.join();
  }

  // Opens the first session and waits until it is connected.
  void Connect(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_sessionMutex);
    m_current = Open();
    if (!m_current) {
      QXLOG(g_log, QXLOG_ERROR) << "Invalid ZooKeeper connect string '" << m_hosts << "'";
      throw KorvelError("Invalid ZooKeeper connect string");
    }
    if (!m_connectedCv.wait_for(lock, timeout, [this] { return m_current->connected; })) {
      QXLOG(g_log, QXLOG_ERROR) << "Failed to connect to ZooKeeper at '" << m_hosts << "' within "
                                << timeout.count() << " ms";
      throw KorvelError("Failed to connect to ZooKeeper");
    }
  }

  std::shared_ptr<Session> Current() const {
    std::lock_guard<std::mutex> lock(m_sessionMutex);
    return m_current;
  }

  // Stops all dispatch to the owner, which is going away before this does.
  void Detach() { m_closing = true; }

  bool HasInjector() const { return m_hasInjector.load(std::memory_order_acquire); }

  // The code a request ends with before anything is sent: ZBADARGUMENTS for
  // a path the client cannot send (see UnsendablePath), else the injector's.
  std::optional<int> Injected(Operation op, const String& path) const {
    if (UnsendablePath(path)) return ZBADARGUMENTS;
    if (!HasInjector()) return std::nullopt;
    FaultInjector injector;
    {
      std::lock_guard<std::mutex> lock(m_injectorMutex);
      injector = m_injector;
    }
    return injector ? injector(op, path) : std::nullopt;
  }

  void SetFaultInjector(FaultInjector injector) {
    std::lock_guard<std::mutex> lock(m_injectorMutex);
    m_hasInjector.store(static_cast<bool>(injector), std::memory_order_release);
    m_injector = std::move(injector);
  }

  // Runs `call(zh, watcher, watcherCtx)`, which returns the result code and
  // whether the client set the watch, with a new watch for `func`. The handle
  // is returned whatever the code; a watch that was not set never fires.
  template <typename Call>
  std::pair<int, WatchHandle> Watched(Operation op, const String& path, WatchFunction func,
                                      Call call) {
    auto ctx = std::make_shared<WatchContext>(m_self, std::move(func));
    if (auto rc = Injected(op, path)) return {*rc, WatchHandle(std::move(ctx))};
    const auto session = Current();
    const std::uint64_t id = AddWatch(ctx, session.get(), path, WatchTypeOf(op));
    const auto [rc, set] =
        call(session->zh, &Impl::OnPathWatch, reinterpret_cast<void*>(static_cast<uintptr_t>(id)));
    if (!set) TakeWatch(id);
    return {rc, WatchHandle(std::move(ctx))};
  }

 private:
  struct PendingWatch {
    std::shared_ptr<WatchContext> ctx;
    const Session* session;
    String path;
    ZooWatcherType type;
  };

  // Must be called with m_sessionMutex held, so that the new session's
  // callbacks see it installed before they act.
  std::shared_ptr<Session> Open() {
    RouteClientLogging();
    auto* session = new Session{this};
    session->zh = zookeeper_init2(m_hosts.c_str(), &Impl::OnSessionWatch, m_timeoutMs, nullptr,
                                  session, 0, &ClientLogCallback);
    if (session->zh == nullptr) {
      delete session;
      return nullptr;
    }
    return std::shared_ptr<Session>(session, [this](Session* s) { Retire(s); });
  }

  // The last user of a session let it go: close it on the worker, never on a
  // client callback thread.
  void Retire(Session* session) {
    Post([session] {
      zookeeper_close(session->zh);
      delete session;
    });
  }

  void Post(std::function<void()> job) {
    {
      std::lock_guard<std::mutex> lock(m_workMutex);
      m_jobs.push_back(std::move(job));
    }
    m_workCv.notify_all();
  }

  void RunWorker() {
    for (;;) {
      std::function<void()> job;
      {
        std::unique_lock<std::mutex> lock(m_workMutex);
        m_workCv.wait(lock, [this] { return m_stopping || !m_jobs.empty(); });
        if (m_jobs.empty()) return;
        job = std::move(m_jobs.front());
        m_jobs.pop_front();
      }
      job();
    }
  }

  // Replaces the expired session with a new one, unless that already happened
  // or the connection is closing.
  void Reopen(const Session* expired) {
    for (;;) {
      std::shared_ptr<Session> old;
      {
        std::lock_guard<std::mutex> lock(m_sessionMutex);
        if (m_closing || m_current.get() != expired) return;
        if (auto fresh = Open()) {
          old = std::exchange(m_current, std::move(fresh));
          QXLOG(g_log, QXLOG_INFO) << "Opening a new ZooKeeper session after expiry";
          return;
        }
      }
      QXLOG(g_log, QXLOG_ERROR) << "Failed to open a new ZooKeeper session; retrying in 1 s";
      std::unique_lock<std::mutex> lock(m_workMutex);
      if (m_workCv.wait_for(lock, std::chrono::seconds(1), [this] { return m_stopping; })) return;
    }
  }

  static void OnSessionWatch(zhandle_t*, int type, int state, const char* path, void* context) {
    if (type != ZOO_SESSION_EVENT) return;
    EventThreadScope scope;
    auto* session = static_cast<Session*>(context);
    session->impl->OnSessionEvent(*session, state, path ? path : "");
  }

  void OnSessionEvent(Session& session, int state, const String& path) {
    bool current;
    clientid_t id{};
    {
      std::lock_guard<std::mutex> lock(m_sessionMutex);
      current = !m_closing && m_current.get() == &session;
      if (current) id = *zoo_client_id(session.zh);
    }
    // The state is logged before a waiting Connect is released, so that the
    // connection's first record always comes before anything its user logs.
    if (current) {
      const logging::LogLevel level = state == ZOO_CONNECTED_STATE ? QXLOG_INFO : QXLOG_WARNING;
      QXLOG(g_log, level) << "ZooKeeper session " << SessionIdText(id) << " " << StateName(state);
    }
    if (state == ZOO_CONNECTED_STATE) {
      std::lock_guard<std::mutex> lock(m_sessionMutex);
      if (!session.connected) {
        session.connected = true;
        m_connectedCv.notify_all();
      }
    }
    if (!current) return;

    if (state == ZOO_EXPIRED_SESSION_STATE) ExpireWatches(&session);
    m_self.Notify([&](ConnectionObserver& observer) {
      try {
        observer.OnSessionEvent(ZOO_SESSION_EVENT, state, path);
      } catch (const std::exception& e) {
        QXLOG(g_log, QXLOG_ERROR) << "Session observer failed: " << e.what();
      } catch (...) {
        QXLOG(g_log, QXLOG_ERROR) << "Session observer failed";
      }
    });
    if (state == ZOO_EXPIRED_SESSION_STATE) Post([this, expired = &session] { Reopen(expired); });
  }

  static void OnPathWatch(zhandle_t* zh, int type, int state, const char* path, void* context) {
    // Session events reach every path watcher too; they do not use the watch
    // up, and an expiry is delivered to pending watches by the session watcher.
    if (type == ZOO_SESSION_EVENT) return;
    auto* session = static_cast<const Session*>(zoo_get_context(zh));
    auto watch = session->impl->TakeWatch(reinterpret_cast<uintptr_t>(context));
    if (!watch.ctx) return;
    EventThreadScope scope;
    watch.ctx->Invoke(type, state, path ? path : watch.path);
  }

  static ZooWatcherType WatchTypeOf(Operation op) {
    return op == Operation::GetChildren ? ZWATCHTYPE_CHILD : ZWATCHTYPE_DATA;
  }

  std::uint64_t AddWatch(std::shared_ptr<WatchContext> ctx, const Session* session,
                         const String& path, ZooWatcherType type) {
    // Destroyed after the lock: a callback's captures may call back into us.
    std::vector<std::shared_ptr<WatchContext>> forgotten;
    std::lock_guard<std::mutex> lock(m_watchMutex);
    if (m_pending.size() >= m_pruneAt) {
      // Cancelled watches stay registered with the client until their node
      // changes; forget them here, so that the registry stays small.
      for (auto it = m_pending.begin(); it != m_pending.end();) {
        const std::shared_ptr<WatchContext>& entry = it->second.ctx;
        bool valid;
        {
          std::lock_guard<std::mutex> ctxLock(entry->m_mtx);
          valid = entry->m_valid;
        }
        if (valid) {
          ++it;
        } else {
          forgotten.push_back(std::move(it->second.ctx));
          it = m_pending.erase(it);
        }
      }
      m_pruneAt = std::max<std::size_t>(kMinPrune, 2 * m_pending.size());
    }
    const std::uint64_t id = m_nextWatchId++;
    m_pending.emplace(id, PendingWatch{std::move(ctx), session, path, type});
    return id;
  }

 public:
  // Reads with all requests in flight, setting the data watches asked for.
  void GetAll(const std::vector<ReadRequest>& requests, std::vector<String>& values,
              const WatchFunction& watch, std::vector<WatchHandle>* handles,
              std::vector<int>& results) {
    const auto session = Current();
    std::vector<std::shared_ptr<WatchContext>> contexts(requests.size());
    std::vector<std::uint64_t> ids(requests.size(), 0);
    RunPipelined(results, [&](std::size_t i, AsyncSlot& slot) -> std::optional<int> {
      const String& path = requests[i].path;
      const bool watched = requests[i].watch && watch;
      if (watched) contexts[i] = std::make_shared<WatchContext>(m_self, WatchFunction(watch));
      if (auto injected = Injected(Operation::Get, path)) return injected;
      slot.out = &values[i];
      void* watchId = nullptr;
      if (watched) {
        ids[i] = AddWatch(contexts[i], session.get(), path, ZWATCHTYPE_DATA);
        watchId = reinterpret_cast<void*>(static_cast<uintptr_t>(ids[i]));
      }
      return Submitted(zoo_awget(
          session->zh, path.c_str(), watched ? &Impl::OnPathWatch : nullptr, watchId,
          [](int rc, const char* value, int length, const Stat*, const void* data) {
            AsyncSlot& slot = AsyncSlot::From(data);
            if (rc == ZOK && value != nullptr && length > 0) {
              static_cast<String*>(slot.out)->assign(value, static_cast<std::size_t>(length));
            }
            slot.Complete(rc);
          },
          &slot));
    });
    for (std::size_t i = 0; i < requests.size(); ++i) {
      if (ids[i] != 0 && results[i] != ZOK) TakeWatch(ids[i]);  // the watch was not set
      if (handles != nullptr && contexts[i]) (*handles)[i] = WatchHandle(std::move(contexts[i]));
    }
  }

  // Forgets the watches of `handles` and cancels them. The server keeps one
  // watch per node and kind for all of a session's watchers, so it is removed
  // there when no other live watch of this session needs it.
  int RemoveWatches(std::vector<WatchHandle>& handles) {
    // Held until the end, so that no context can be freed and its address
    // taken by a new watch while the registry is searched for these; and
    // released after the lock, since a callback's captures may call back into us.
    std::unordered_map<const WatchContext*, std::shared_ptr<WatchContext>> targets;
    for (WatchHandle& handle : handles) {
      if (handle.m_ctx) targets.emplace(handle.m_ctx.get(), handle.m_ctx);
      handle.Cancel(nullptr);
    }
    const auto session = Current();
    std::set<std::pair<String, ZooWatcherType>> removed, kept;
    std::unique_lock<std::mutex> lock(m_watchMutex);
    for (auto it = m_pending.begin(); it != m_pending.end();) {
      const PendingWatch& watch = it->second;
      if (watch.session != session.get()) {
        ++it;
      } else if (targets.count(watch.ctx.get()) != 0) {
        removed.emplace(watch.path, watch.type);
        it = m_pending.erase(it);
      } else {
        std::lock_guard<std::mutex> ctxLock(watch.ctx->m_mtx);
        if (watch.ctx->m_valid) kept.emplace(watch.path, watch.type);
        ++it;
      }
    }
    std::vector<RemoveRequest> requests;
    for (const auto& entry : removed) {
      if (kept.count(entry) == 0) requests.push_back({entry.first, entry.second});
    }
    // The removals leave before the lock does: a watch set on one of these
    // paths after the search goes out after them, and no removal takes it.
    return SendRemoveWatches(*session, requests, lock);
  }

 private:
  struct RemoveRequest {
    String path;
    ZooWatcherType type;
  };

  // Sends the removals and unlocks `sending` before waiting for them.
  static int SendRemoveWatches(const Session& session, const std::vector<RemoveRequest>& requests,
                               std::unique_lock<std::mutex>& sending) {
    std::vector<int> results(requests.size(), ZOK);
    if (t_onEventThread) {
      // Synchronous requests are answered by the client's I/O thread, so they
      // may wait under the lock.
      for (std::size_t i = 0; i < requests.size(); ++i) {
        results[i] =
            zoo_remove_all_watches(session.zh, requests[i].path.c_str(), requests[i].type, 0);
      }
      sending.unlock();
    } else {
      // The client declares the completion as a pointer to a function pointer
      // but stores and calls the value it is given as the function itself.
      void_completion_t completion = [](int rc, const void* data) {
        AsyncSlot::From(data).Complete(rc);
      };
      RunPipelined(
          results,
          [&](std::size_t i, AsyncSlot& slot) -> std::optional<int> {
            return Submitted(
                zoo_aremove_all_watches(session.zh, requests[i].path.c_str(), requests[i].type, 0,
                                        reinterpret_cast<void_completion_t*>(completion), &slot));
          },
          &sending);
    }
    for (int rc : results) {
      // A watch that fired meanwhile is gone already.
      if (rc != ZOK && rc != ZNOWATCHER) return rc;
    }
    return ZOK;
  }

  PendingWatch TakeWatch(std::uint64_t id) {
    std::lock_guard<std::mutex> lock(m_watchMutex);
    auto it = m_pending.find(id);
    if (it == m_pending.end() || m_closing) return {};
    PendingWatch watch = std::move(it->second);
    m_pending.erase(it);
    return watch;
  }

  void ExpireWatches(const Session* session) {
    std::vector<PendingWatch> expired;
    {
      std::lock_guard<std::mutex> lock(m_watchMutex);
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
      watch.ctx->Invoke(ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE, watch.path);
    }
  }

  static constexpr std::size_t kMinPrune = 64;

  Connection& m_self;
  const String m_hosts;
  const int m_timeoutMs;

  mutable std::mutex m_sessionMutex;
  std::condition_variable m_connectedCv;
  std::shared_ptr<Session> m_current;
  std::atomic<bool> m_closing{false};

  std::mutex m_watchMutex;
  std::map<std::uint64_t, PendingWatch> m_pending;  // by id: registration order
  std::uint64_t m_nextWatchId = 1;
  std::size_t m_pruneAt = kMinPrune;

  std::atomic<bool> m_hasInjector{false};
  mutable std::mutex m_injectorMutex;
  FaultInjector m_injector;

  std::mutex m_workMutex;
  std::condition_variable m_workCv;
  std::deque<std::function<void()>> m_jobs;
  bool m_stopping = false;
  std::thread m_worker;  // last: started once everything else exists
};

// ---- Connection -------------------------------------------------------------------

namespace {

// Values are read into a buffer of at least this size, so that a typical
// value takes one round trip even when the caller's string is short.
constexpr std::size_t kReadBuffer = 4096;
// A value that keeps growing between the reads of one Get gives up after this.
constexpr int kMaxGetAttempts = 8;
// Bytes of delete requests sent in one atomic batch.
constexpr std::size_t kDeleteBatchBytes = 256 * 1024;

struct GetResult {
  int rc;
  bool watchSet;
};

GetResult ReadValue(zhandle_t* zh, const String& path, String& data, watcher_fn watcher,
                    void* watcherCtx, Stat* statOut) {
  const std::size_t sizeOnEntry = data.size();
  if (data.size() < kReadBuffer) data.resize(kReadBuffer);
  Stat stat{};
  int length = static_cast<int>(data.size());
  int rc = zoo_wget(zh, path.c_str(), watcher, watcherCtx, data.data(), &length, &stat);
  const bool watchSet = watcher != nullptr && rc == ZOK;
  // The client truncates silently: read again until the buffer holds it all.
  // A node without data (made with a null value) reads as length -1.
  for (int attempt = 1; rc == ZOK && length >= 0 && stat.dataLength > length; ++attempt) {
    if (attempt == kMaxGetAttempts) {
      rc = ZOPERATIONTIMEOUT;
      break;
    }
    data.resize(static_cast<std::size_t>(stat.dataLength));
    length = static_cast<int>(data.size());
    rc = zoo_get(zh, path.c_str(), 0, data.data(), &length, &stat);
  }
  if (rc != ZOK) {
    data.resize(sizeOnEntry);
    return {rc, watchSet};
  }
  data.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  if (statOut != nullptr) *statOut = stat;
  return {rc, watchSet};
}

void AppendNames(const String_vector& names, std::vector<String>& out) {
  out.reserve(out.size() + static_cast<std::size_t>(names.count));
  for (int i = 0; i < names.count; ++i) out.emplace_back(names.data[i]);
}

}  // namespace

Connection::Connection(String hosts, std::chrono::milliseconds sessionTimeout)
    : m_impl(std::make_unique<Impl>(*this, std::move(hosts), sessionTimeout)) {
  m_impl->Connect(sessionTimeout);
}

Connection::~Connection() {
  if (t_onEventThread) {
    // The last owner let go inside one of our callbacks: closing the handle
    // here would join the thread we run on. Close it from a thread of its own.
    m_impl->Detach();
    std::thread([impl = std::move(m_impl)]() mutable { impl.reset(); }).detach();
  }
}

bool Connection::OnEventThread() {
  return t_onEventThread;
}

clientid_t Connection::ClientId() const {
  return *zoo_client_id(m_impl->Current()->zh);
}

std::chrono::milliseconds Connection::SessionTimeout() const {
  return std::chrono::milliseconds(zoo_recv_timeout(m_impl->Current()->zh));
}

int Connection::State() const {
  return zoo_state(m_impl->Current()->zh);
}

int Connection::Create(String path, const String& data, const ACL_vector& acl, int flags,
                       String* createdPath) const {
  if (auto rc = m_impl->Injected(Operation::Create, path)) return *rc;
  if (data.size() > kMaxDataSize) return ZBADARGUMENTS;
  const auto session = m_impl->Current();
  if (createdPath == nullptr) {
    return zoo_create(session->zh, path.c_str(), data.data(), static_cast<int>(data.size()), &acl,
                      flags, nullptr, 0);
  }
  String created(path.size() + 16, '\0');  // room for a sequence suffix
  const int rc = zoo_create(session->zh, path.c_str(), data.data(), static_cast<int>(data.size()),
                            &acl, flags, created.data(), static_cast<int>(created.size()));
  if (rc == ZOK) *createdPath = created.c_str();
  return rc;
}

int Connection::Set(String path, const String& data, int version) const {
  if (auto rc = m_impl->Injected(Operation::Set, path)) return *rc;
  if (data.size() > kMaxDataSize) return ZBADARGUMENTS;
  return zoo_set(m_impl->Current()->zh, path.c_str(), data.data(), static_cast<int>(data.size()),
                 version);
}

int Connection::Get(String path, String& data, Stat* stat) const {
  if (auto rc = m_impl->Injected(Operation::Get, path)) return *rc;
  return ReadValue(m_impl->Current()->zh, path, data, nullptr, nullptr, stat).rc;
}

std::pair<int, Connection::WatchHandle> Connection::Get(String path, String& data,
                                                        WatchFunction watch, Stat* stat) const {
  return m_impl->Watched(Operation::Get, path, std::move(watch),
                         [&](zhandle_t* zh, watcher_fn fn, void* ctx) {
                           const GetResult result = ReadValue(zh, path, data, fn, ctx, stat);
                           return std::pair<int, bool>(result.rc, result.watchSet);
                         });
}

int Connection::Exists(String path, Stat* stat) const {
  if (auto rc = m_impl->Injected(Operation::Exists, path)) return *rc;
  Stat local{};
  return zoo_exists(m_impl->Current()->zh, path.c_str(), 0, stat ? stat : &local);
}

std::pair<int, Connection::WatchHandle> Connection::Exists(String path, WatchFunction watch,
                                                           Stat* stat) const {
  return m_impl->Watched(
      Operation::Exists, path, std::move(watch), [&](zhandle_t* zh, watcher_fn fn, void* ctx) {
        Stat local{};
        const int rc = zoo_wexists(zh, path.c_str(), fn, ctx, stat ? stat : &local);
        return std::pair<int, bool>(rc, rc == ZOK || rc == ZNONODE);
      });
}

int Connection::GetChildren(String path, std::vector<String>& children) const {
  if (auto rc = m_impl->Injected(Operation::GetChildren, path)) return *rc;
  String_vector names{};
  const int rc = zoo_get_children(m_impl->Current()->zh, path.c_str(), 0, &names);
  if (rc == ZOK) AppendNames(names, children);
  deallocate_String_vector(&names);
  return rc;
}

std::pair<int, Connection::WatchHandle> Connection::GetChildren(String path,
                                                                std::vector<String>& children,
                                                                WatchFunction watch) const {
  return m_impl->Watched(Operation::GetChildren, path, std::move(watch),
                         [&](zhandle_t* zh, watcher_fn fn, void* ctx) {
                           String_vector names{};
                           const int rc = zoo_wget_children(zh, path.c_str(), fn, ctx, &names);
                           if (rc == ZOK) AppendNames(names, children);
                           deallocate_String_vector(&names);
                           return std::pair<int, bool>(rc, rc == ZOK);
                         });
}

int Connection::Delete(String path, int version) const {
  if (auto rc = m_impl->Injected(Operation::Delete, path)) return *rc;
  return zoo_delete(m_impl->Current()->zh, path.c_str(), version);
}

std::vector<int> Connection::CreateAll(const std::vector<CreateRequest>& requests,
                                       const ACL_vector& acl) const {
  std::vector<int> results(requests.size(), ZOK);
  if (t_onEventThread) {
    for (std::size_t i = 0; i < requests.size(); ++i) {
      results[i] = Create(requests[i].path, requests[i].data, acl, requests[i].flags, nullptr);
    }
    return results;
  }
  const auto session = m_impl->Current();
  RunPipelined(results, [&](std::size_t i, AsyncSlot& slot) -> std::optional<int> {
    const CreateRequest& request = requests[i];
    if (auto injected = m_impl->Injected(Operation::Create, request.path)) return injected;
    if (request.data.size() > kMaxDataSize) return ZBADARGUMENTS;
    return Submitted(zoo_acreate(
        session->zh, request.path.c_str(), request.data.data(),
        static_cast<int>(request.data.size()), &acl, request.flags,
        [](int rc, const char*, const void* data) { AsyncSlot::From(data).Complete(rc); }, &slot));
  });
  return results;
}

std::vector<int> Connection::GetChildrenAll(const std::vector<String>& paths,
                                            std::vector<std::vector<String>>& children) const {
  std::vector<int> results(paths.size(), ZOK);
  children.assign(paths.size(), {});
  if (t_onEventThread) {
    for (std::size_t i = 0; i < paths.size(); ++i) results[i] = GetChildren(paths[i], children[i]);
    return results;
  }
  const auto session = m_impl->Current();
  RunPipelined(results, [&](std::size_t i, AsyncSlot& slot) -> std::optional<int> {
    if (auto injected = m_impl->Injected(Operation::GetChildren, paths[i])) return injected;
    slot.out = &children[i];
    return Submitted(zoo_aget_children(
        session->zh, paths[i].c_str(), 0,
        [](int rc, const String_vector* names, const void* data) {
          AsyncSlot& slot = AsyncSlot::From(data);
          if (rc == ZOK && names != nullptr) {
            AppendNames(*names, *static_cast<std::vector<String>*>(slot.out));
          }
          slot.Complete(rc);
        },
        &slot));
  });
  return results;
}

std::vector<int> Connection::GetAll(const std::vector<ReadRequest>& requests,
                                    std::vector<String>& values, WatchFunction watch,
                                    std::vector<WatchHandle>* handles) const {
  std::vector<int> results(requests.size(), ZOK);
  values.assign(requests.size(), String());
  if (handles != nullptr) {
    handles->clear();
    handles->resize(requests.size());
  }
  if (!t_onEventThread) {
    m_impl->GetAll(requests, values, watch, handles, results);
    return results;
  }
  for (std::size_t i = 0; i < requests.size(); ++i) {
    if (!requests[i].watch || !watch) {
      results[i] = Get(requests[i].path, values[i], nullptr);
      continue;
    }
    auto [rc, handle] = Get(requests[i].path, values[i], watch, nullptr);
    results[i] = rc;
    if (handles != nullptr) (*handles)[i] = std::move(handle);
  }
  return results;
}

int Connection::RemoveWatches(std::vector<WatchHandle>& handles) const {
  return m_impl->RemoveWatches(handles);
}

int Connection::DeleteAll(const std::vector<String>& paths) const {
  const auto deleteOneByOne = [this, &paths](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      const int rc = Delete(paths[i], -1);
      if (rc != ZOK && rc != ZNONODE) return rc;
    }
    return static_cast<int>(ZOK);
  };
  if (m_impl->HasInjector()) return deleteOneByOne(0, paths.size());
  for (const String& path : paths) {
    if (UnsendablePath(path)) return ZBADARGUMENTS;
  }

  const auto session = m_impl->Current();
  for (std::size_t begin = 0; begin < paths.size();) {
    std::size_t end = begin;
    for (std::size_t bytes = 0; end < paths.size() && bytes < kDeleteBatchBytes; ++end) {
      bytes += paths[end].size() + 32;
    }
    std::vector<zoo_op_t> ops(end - begin);
    std::vector<zoo_op_result_t> results(end - begin);
    for (std::size_t i = begin; i < end; ++i) {
      zoo_delete_op_init(&ops[i - begin], paths[i].c_str(), -1);
    }
    const int rc = zoo_multi(session->zh, static_cast<int>(ops.size()), ops.data(), results.data());
    if (IsSessionFailure(rc)) return rc;
    // A batch is all or nothing: when one node of it was already gone or got
    // a new child, delete its nodes one by one to learn which.
    if (rc != ZOK) {
      if (const int failed = deleteOneByOne(begin, end); failed != ZOK) return failed;
    }
    begin = end;
  }
  return ZOK;
}

void Connection::SetFaultInjector(FaultInjector injector) {
  m_impl->SetFaultInjector(std::move(injector));
}

}  // namespace qx::korvel
