#include "session_keeper.h"

#include <cstdio>
#include <utility>

#include "client_log.h"
#include "korvel/error.h"
#include "metrics_counters.h"
#include "pipeline.h"
#include "watch_registry.h"

namespace qx::korvel {
namespace {

using details::g_log;
using logging::QXLOG_ERROR;
using logging::QXLOG_INFO;
using logging::QXLOG_WARNING;

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

Connection::SessionKeeper::SessionKeeper(String hosts, std::chrono::milliseconds timeout,
                                         std::optional<Credentials> credentials,
                                         WatchRegistry& watches, Notify notify)
    : m_hosts(std::move(hosts)),
      m_timeoutMs(static_cast<int>(timeout.count())),
      m_credentials(std::move(credentials)),
      m_watches(watches),
      m_notify(std::move(notify)),
      m_worker([this] { RunWorker(); }) {}

Connection::SessionKeeper::~SessionKeeper() {
  std::shared_ptr<Session> last;
  {
    std::lock_guard<std::mutex> lock(m_sessionMutex);
    m_closing = true;
    m_connectedCv.notify_all();  // ends an event thread's wait for the authentication
    last = std::move(m_current);
    if (std::exchange(m_countedConnected, false)) details::CountConnected(-1);
  }
  last.reset();  // queues the close
  {
    std::lock_guard<std::mutex> lock(m_workMutex);
    m_stopping = true;
  }
  m_workCv.notify_all();
  m_worker.join();
}

void Connection::SessionKeeper::Connect(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(m_sessionMutex);
  m_current = Open();
  if (!m_current) {
    QXLOG(g_log, QXLOG_ERROR) << "Invalid ZooKeeper connect string '" << m_hosts << "'";
    throw KorvelError("Invalid ZooKeeper connect string");
  }
  const auto ready = [this] { return m_current->connected && m_current->authAnswered; };
  if (!m_connectedCv.wait_for(lock, timeout, ready)) {
    QXLOG(g_log, QXLOG_ERROR) << "Failed to connect to ZooKeeper at '" << m_hosts << "' within "
                              << timeout.count() << " ms";
    throw KorvelError("Failed to connect to ZooKeeper");
  }
  if (!m_current->authenticated) throw KorvelError("ZooKeeper authentication failed");
}

std::shared_ptr<Connection::SessionKeeper::Session> Connection::SessionKeeper::Current() const {
  std::lock_guard<std::mutex> lock(m_sessionMutex);
  return m_current;
}

// Must be called with m_sessionMutex held, so that the new session's
// callbacks see it installed before they act.
std::shared_ptr<Connection::SessionKeeper::Session> Connection::SessionKeeper::Open() {
  details::RouteClientLogging();
  auto* session = new Session{this};
  session->authAnswered = session->authenticated = !m_credentials;
  session->zh = zookeeper_init2(m_hosts.c_str(), &SessionKeeper::OnSessionWatch, m_timeoutMs,
                                nullptr, session, 0, &details::ClientLogCallback);
  if (session->zh == nullptr) {
    delete session;
    return nullptr;
  }
  // Added before anyone can send on the session: the client sends it first on
  // every connection of the session, ahead of every request.
  if (m_credentials) {
    const String secret = m_credentials->user + ":" + m_credentials->password;
    const int rc = zoo_add_auth(session->zh, "digest", secret.data(),
                                static_cast<int>(secret.size()), &OnAuthenticated, session);
    if (rc != ZOK) {
      QXLOG(g_log, QXLOG_ERROR) << "Failed to authenticate as '" << m_credentials->user
                                << "': " << zerror(rc);
      session->authAnswered = true;
    }
  }
  return std::shared_ptr<Session>(session, [this](Session* s) { Retire(s); });
}

// The last user of a session let it go: close it on the worker, never on a
// client callback thread.
void Connection::SessionKeeper::Retire(Session* session) {
  Post([session] {
    zookeeper_close(session->zh);
    delete session;
  });
}

void Connection::SessionKeeper::Post(std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(m_workMutex);
    m_jobs.push_back(std::move(job));
  }
  m_workCv.notify_all();
}

void Connection::SessionKeeper::RunWorker() {
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
void Connection::SessionKeeper::Reopen(const Session* expired) {
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

void Connection::SessionKeeper::OnSessionWatch(zhandle_t*, int type, int state, const char* path,
                                               void* context) {
  if (type != ZOO_SESSION_EVENT) return;
  details::EventThreadScope scope;
  auto* session = static_cast<Session*>(context);
  session->keeper->OnSessionEvent(*session, state, path ? path : "");
}

// Runs on the client's I/O thread, which must not be held up: it only
// records the answer for the event thread that waits for it.
void Connection::SessionKeeper::OnAuthenticated(int rc, const void* context) {
  auto& session = *static_cast<Session*>(const_cast<void*>(context));
  SessionKeeper& keeper = *session.keeper;
  {
    std::lock_guard<std::mutex> lock(keeper.m_sessionMutex);
    // The client may answer again on each reconnection of the session.
    if (session.authAnswered) return;
    session.authAnswered = true;
    session.authenticated = rc == ZOK;
  }
  keeper.m_connectedCv.notify_all();
  if (rc == ZOK) {
    QXLOG(g_log, QXLOG_INFO) << "ZooKeeper session authenticated as '" << keeper.m_credentials->user
                             << "'";
  } else {
    QXLOG(g_log, QXLOG_ERROR) << "ZooKeeper authentication failed for user '"
                              << keeper.m_credentials->user << "': " << zerror(rc);
  }
}

// Waits on the event thread (the answer comes on the I/O thread) until the
// server has answered the session's authentication, at most a session timeout.
// True when it accepted it.
bool Connection::SessionKeeper::AwaitAuthentication(Session& session) {
  std::unique_lock<std::mutex> lock(m_sessionMutex);
  m_connectedCv.wait_for(lock, std::chrono::milliseconds(m_timeoutMs),
                         [&] { return session.authAnswered || m_closing; });
  return session.authenticated;
}

void Connection::SessionKeeper::OnSessionEvent(Session& session, int state, const String& path) {
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
  CountState(session, state);
  if (!current) return;
  // Observers hear of a connected session only once it is authenticated, so
  // that nothing they do runs without the identity.
  if (state == ZOO_CONNECTED_STATE && !AwaitAuthentication(session)) return;

  if (state == ZOO_EXPIRED_SESSION_STATE) m_watches.Expire(&session);
  m_notify(state, path);
  if (state == ZOO_EXPIRED_SESSION_STATE) Post([this, expired = &session] { Reopen(expired); });
}

// Marks the session connected, and keeps the counters of sessions and of
// connected connections: the gauge follows this connection's current session
// only, and a session counts once, when it first connects.
void Connection::SessionKeeper::CountState(Session& session, int state) {
  std::lock_guard<std::mutex> lock(m_sessionMutex);
  if (state == ZOO_CONNECTED_STATE && !session.connected) {
    session.connected = true;
    details::CountSessionEstablished();
    m_connectedCv.notify_all();
  }
  if (m_closing || m_current.get() != &session) return;
  if (state == ZOO_EXPIRED_SESSION_STATE) details::CountSessionExpired();
  const bool connected = state == ZOO_CONNECTED_STATE;
  if (connected != m_countedConnected) {
    m_countedConnected = connected;
    details::CountConnected(connected ? 1 : -1);
  }
}

}  // namespace qx::korvel
