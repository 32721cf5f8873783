// The sessions of one Connection, one C-client handle each.
#pragma once

#include <zookeeper/zookeeper.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "korvel/connection_v2.h"

namespace qx::korvel {

// Opens the first session and waits until it is connected, logs each state
// the current session reaches, passes it on, and replaces an expired session
// by a new one. With credentials, each session authenticates before anything
// else is sent on it, and its connected state is passed on only once the
// server has answered the authentication. A handle is closed on the keeper's
// worker thread once its last user lets it go, never on one of the client's
// threads.
class Connection::SessionKeeper {
 public:
  // One C-client handle. It is the handle's context, so callbacks find their
  // keeper through zoo_get_context.
  struct Session {
    SessionKeeper* keeper;
    zhandle_t* zh = nullptr;
    bool connected = false;  // guarded by m_sessionMutex
    // Without credentials both are true from the start; guarded by m_sessionMutex.
    bool authAnswered = false;
    bool authenticated = false;
  };
  // Called on the event thread with each state of the current session, after
  // an expiry has been delivered to the session's pending watches.
  using Notify = std::function<void(int state, const String& path)>;

  SessionKeeper(String hosts, std::chrono::milliseconds timeout,
                std::optional<Credentials> credentials, WatchRegistry& watches, Notify notify);
  // Closes the current session and waits until every session is closed.
  ~SessionKeeper();
  SessionKeeper(const SessionKeeper&) = delete;
  SessionKeeper& operator=(const SessionKeeper&) = delete;

  // Opens the first session and waits until it is connected (and
  // authenticated). Throws KorvelError.
  void Connect(std::chrono::milliseconds timeout);
  std::shared_ptr<Session> Current() const;
  // Stops all dispatch to the owner, which is going away before this does.
  void Detach() { m_closing = true; }
  bool Closing() const { return m_closing; }
  WatchRegistry& Watches() const { return m_watches; }

 private:
  std::shared_ptr<Session> Open();
  void Retire(Session* session);
  void Post(std::function<void()> job);
  void RunWorker();
  void Reopen(const Session* expired);
  static void OnSessionWatch(zhandle_t*, int type, int state, const char* path, void* context);
  static void OnAuthenticated(int rc, const void* context);
  bool AwaitAuthentication(Session& session);
  void OnSessionEvent(Session& session, int state, const String& path);
  void CountState(Session& session, int state);

  const String m_hosts;
  const int m_timeoutMs;
  const std::optional<Credentials> m_credentials;
  WatchRegistry& m_watches;
  const Notify m_notify;

  mutable std::mutex m_sessionMutex;
  std::condition_variable m_connectedCv;
  std::shared_ptr<Session> m_current;
  bool m_countedConnected = false;  // counted in korvel_zookeeper_connected
  std::atomic<bool> m_closing{false};

  std::mutex m_workMutex;
  std::condition_variable m_workCv;
  std::deque<std::function<void()>> m_jobs;
  bool m_stopping = false;
  std::thread m_worker;  // last: started once everything else exists
};

}  // namespace qx::korvel
