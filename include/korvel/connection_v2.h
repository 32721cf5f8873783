// One ZooKeeper session of the multi-threaded C client, shared by everything
// of korvel that talks to ZooKeeper.
//
// Session contract:
// - The constructor returns with the session connected (and that logged), or
//   throws.
// - A connection loss is not an expiry: the client reconnects to the same
//   session by itself, its ephemeral nodes and watches survive, and requests
//   made meanwhile fail with ZCONNECTIONLOSS, or with ZOPERATIONTIMEOUT when
//   the connection attempt they waited for got no answer within 2/3 of the
//   session timeout (a write that failed so may still have been applied).
//   Nothing is retried implicitly.
// - When the server expires the session, observers get ZOO_EXPIRED_SESSION_STATE,
//   every pending watch is delivered once with (ZOO_SESSION_EVENT,
//   ZOO_EXPIRED_SESSION_STATE, path) and is then over, and the connection opens
//   a new session by itself; observers get ZOO_CONNECTED_STATE once it is up.
//   The new session starts with no ephemeral nodes and no watches: whoever
//   needs them makes them again. Requests in between fail (ZINVALIDSTATE,
//   ZSESSIONEXPIRED or ZCONNECTIONLOSS).
//
// Threads: every operation may be called from any thread, including from a
// watch callback or a session observer. Watch callbacks and session events run
// on the client's event thread, one at a time: a callback that blocks holds up
// every other one. Watch callbacks never run after their handle is gone.
#pragma once

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "stlext/observable_impl.h"
#include "stlext/string.h"

namespace qx::korvel {

// An identity of ZooKeeper's digest scheme. The user name may be logged; the
// password never leaves the Connection except to the server.
struct Credentials {
  String user;  // not empty, no ':'
  String password;
};

// The digest scheme's id of an identity, "user:" + base64(sha1("user:password")):
// what an ACL entry names and what a server's superDigest option takes.
String DigestId(const Credentials& credentials);

// One entry of a node's ACL as the server reports it.
struct AclEntry {
  int perms;      // ZOO_PERM_* bits
  String scheme;  // "world", "digest", ...
  String id;      // "anyone", "user:base64(sha1(user:password))", ...
};

// A watch callback: ZooKeeper event type, session state, path of the node.
using WatchFunction = std::function<void(int type, int state, std::string path)>;

// Receives the session events of a Connection on its event thread.
class ConnectionObserver {
 public:
  virtual ~ConnectionObserver() = default;
  virtual void OnSessionEvent(int type, int state, String path) = 0;
};

class Connection : public ObservableImpl<ConnectionObserver> {
 public:
  // What a watch and its handle share: the callback and its cancellation state.
  class WatchContext {
   public:
    WatchContext(const Connection& conn, WatchFunction&& func);
    WatchContext(const WatchContext& other);
    WatchContext(WatchContext&& other);
    WatchContext& operator=(const WatchContext&) = delete;
    WatchContext& operator=(WatchContext&&) = delete;

    // Cancels the watch: its callback is never started after this returns. If
    // the callback is running on another thread right now, `cbk` (when not
    // empty) runs on that thread once the callback has ended, and the result
    // is true; otherwise `cbk` is dropped unrun and the result is false.
    bool Invalidate(std::function<void()> cbk);

   private:
    friend class Connection;

    const Connection& m_conn;
    WatchFunction m_func;
    std::mutex m_mtx;
    bool m_valid = true;
    bool m_invoking = false;
    std::function<void()> m_cbk;
  };

  // The caller's side of one watch. Destroying (or move-assigning over) a
  // non-empty handle cancels its watch; it does not wait for a callback that
  // is running right now. Movable, not copyable. Thread-safe against the
  // event thread, but one handle must not be used by two threads at once.
  class WatchHandle {
   public:
    WatchHandle() = default;
    WatchHandle(WatchHandle&& other) noexcept = default;
    WatchHandle& operator=(WatchHandle&& other) noexcept;
    WatchHandle(const WatchHandle&) = delete;
    WatchHandle& operator=(const WatchHandle&) = delete;
    ~WatchHandle();

    // Cancels the watch as WatchContext::Invalidate does and empties the
    // handle. False for an empty handle.
    bool Cancel(std::function<void()> cbk);
    bool Empty() const { return m_ctx == nullptr; }

   private:
    friend class Connection;
    explicit WatchHandle(std::shared_ptr<WatchContext> ctx) : m_ctx(std::move(ctx)) {}

    std::shared_ptr<WatchContext> m_ctx;
  };

  // Values larger than this are refused with ZBADARGUMENTS before anything is
  // sent: the server drops a connection whose request exceeds its packet limit
  // (1 MiB by default), and path, ACL and header need room too.
  static constexpr std::size_t kMaxDataSize = 1024 * 1024 - 4096;

  // Opens a session with the ensemble `hosts` (the C client's connect string:
  // "host:port,host:port[/chroot]") and waits until it is connected. Throws
  // KorvelError "Failed to connect to ZooKeeper" if that does not happen within
  // `sessionTimeout`, or "Invalid ZooKeeper connect string" for a string the
  // client refuses. The server may clamp the timeout to its own bounds.
  Connection(String hosts, std::chrono::milliseconds sessionTimeout);
  // The same, and every session it opens (the first and each one after an
  // expiry) authenticates as `credentials` before observers hear that it is
  // connected, so nothing they do runs unauthenticated. Nodes that korvel
  // makes over it then get NodeAcl(). The connection keeps its own copy for
  // new sessions and sends the password to the server only; the caller's may
  // go at once. May be called from any thread.
  // Throws as above, KorvelError "Invalid ZooKeeper credentials" for an empty
  // user or one with ':', and "ZooKeeper authentication failed" (the user
  // named in an ERROR record) when the server refuses them. Note that with the digest scheme
  // a wrong password is not refused here: the session then simply has
  // another identity, and writes to the owner's nodes fail with ZNOAUTH.
  Connection(String hosts, std::chrono::milliseconds sessionTimeout, Credentials credentials);
  // Closes the session: its ephemeral nodes vanish at once, pending watches
  // are dropped without being called. Never throws.
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // The current session's id and password.
  clientid_t ClientId() const;
  // The session timeout that the server granted.
  std::chrono::milliseconds SessionTimeout() const;
  // The current session's state (ZOO_CONNECTED_STATE, ZOO_CONNECTING_STATE, ...).
  int State() const;
  // The user of the credentials; empty without credentials.
  const String& User() const;
  // The ACL for the nodes korvel makes below the registry's roots: without
  // credentials ZOO_OPEN_ACL_UNSAFE; with them all rights for the identity
  // and read for everyone. Lives as long as the connection.
  const ACL_vector& NodeAcl() const;
  // True on a thread that is running a watch callback or a session observer
  // of any Connection: such a thread must not wait for anything that needs
  // further callbacks, since it is the one that would deliver them.
  static bool OnEventThread();

  // Node operations. Each returns the ZooKeeper result code and never throws
  // for a ZooKeeper failure. Paths are absolute ZooKeeper paths; one that
  // holds a NUL or is longer than kMaxDataSize is refused with ZBADARGUMENTS
  // before anything is sent.

  // Creates the node. `createdPath`, when not null, receives the created name
  // (differs from `path` for sequential nodes).
  int Create(String path, const String& data, const ACL_vector& acl, int flags,
             String* createdPath) const;
  int Set(String path, const String& data, int version) const;
  // Reads the node's whole value into `data`, whatever its size on entry;
  // afterwards data.size() is the value's length. On failure `data` keeps
  // its size on entry.
  int Get(String path, String& data, Stat* stat) const;
  // The same, and sets a one-shot data watch when the node exists.
  std::pair<int, WatchHandle> Get(String path, String& data, WatchFunction watch, Stat* stat) const;
  // ZOK when the node exists, ZNONODE when it does not.
  int Exists(String path, Stat* stat) const;
  // The same, and sets a one-shot watch also when the node does not exist yet.
  std::pair<int, WatchHandle> Exists(String path, WatchFunction watch, Stat* stat) const;
  // Appends the names of the node's children (single components) to `children`.
  int GetChildren(String path, std::vector<String>& children) const;
  // The same, and sets a one-shot child watch when the node exists.
  std::pair<int, WatchHandle> GetChildren(String path, std::vector<String>& children,
                                          WatchFunction watch) const;
  // The names of a node's children where the client left them, in the
  // server's order; valid only during the call that hands them over.
  class ChildNames {
   public:
    explicit ChildNames(const String_vector& names) : m_names(names) {}
    std::size_t size() const { return static_cast<std::size_t>(m_names.count); }
    std::string_view operator[](std::size_t i) const { return m_names.data[i]; }

   private:
    const String_vector& m_names;
  };
  using ChildNamesVisitor = std::function<void(const ChildNames& names)>;
  // Hands the names of the node's children to `visit` once, on the calling
  // thread, when the listing succeeded; nothing is copied. Otherwise as
  // GetChildren.
  int VisitChildren(String path, const ChildNamesVisitor& visit) const;
  std::pair<int, WatchHandle> VisitChildren(String path, const ChildNamesVisitor& visit,
                                            WatchFunction watch) const;
  int Delete(String path, int version) const;
  // Reads the node's ACL into `acl` (replacing its contents). The server
  // shows a digest's hash only to a client with admin rights on the node
  // ("user:x" to others). Neither ACL operation is counted in the metrics.
  int GetAcl(String path, std::vector<AclEntry>& acl) const;
  // Replaces the node's ACL; needs ZOO_PERM_ADMIN on the node.
  int SetAcl(String path, const ACL_vector& acl) const;

  // Pipelined operations: the requests are in flight together (up to 10,000
  // at once, so that the session's pings are not queued behind a whole big
  // batch), so a batch costs about one round trip instead of one per request.
  // Called from the event thread they run one request after another instead.

  struct CreateRequest {
    String path;
    String data;
    int flags = 0;
  };
  // Creates the nodes in order; one result code per request.
  std::vector<int> CreateAll(const std::vector<CreateRequest>& requests,
                             const ACL_vector& acl) const;
  // Lists the children of each path; one result code and one list per path.
  std::vector<int> GetChildrenAll(const std::vector<String>& paths,
                                  std::vector<std::vector<String>>& children) const;
  struct ReadRequest {
    String path;
    bool watch = false;  // also set a one-shot data watch, if the node exists
  };
  // Reads the values of the nodes; one result code and one value per request.
  // The requests that ask for it set a data watch calling `watch`; `handles`
  // (when not null) receives one handle per request, empty for the others.
  std::vector<int> GetAll(const std::vector<ReadRequest>& requests, std::vector<String>& values,
                          WatchFunction watch = nullptr,
                          std::vector<WatchHandle>* handles = nullptr) const;
  // Deletes the nodes in the order given (children before their parents) in
  // as few atomic batches as fit in a request. A node that is already gone
  // counts as deleted. Returns ZOK or the first failure's code.
  int DeleteAll(const std::vector<String>& paths) const;

  // Cancels the watches of `handles` (which end up empty) and removes them
  // from the server too, so that they are not kept there until their nodes
  // change. Returns ZOK or the first failure's code; a watch that has fired
  // or that belongs to an expired session counts as removed.
  int RemoveWatches(std::vector<WatchHandle>& handles) const;

  // Test seam: when set, every node operation but GetAcl and SetAcl first
  // asks `injector`; a code it returns is the operation's result and nothing
  // is sent.
  enum class Operation { Create, Set, Get, Exists, GetChildren, Delete };
  using FaultInjector = std::function<std::optional<int>(Operation op, const String& path)>;
  void SetFaultInjector(FaultInjector injector);

 private:
  class Impl;
  class SessionKeeper;
  class WatchRegistry;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace qx::korvel
