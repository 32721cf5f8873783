#include "korvel/connection_v2.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>

#include <boost/uuid/detail/sha1.hpp>

#include "client_log.h"
#include "korvel/error.h"
#include "metrics_counters.h"
#include "pipeline.h"
#include "session_keeper.h"
#include "watch_registry.h"

namespace qx::korvel {
namespace {

using details::AsyncSlot;
using details::CountRequest;
using details::g_log;
using details::RequestKind;
using details::RunPipelined;
using details::Submitted;
using logging::QXLOG_ERROR;

// The client takes a path as a C string, so a NUL inside would cut it short
// and address another node; a path longer than the server's packet limit
// would cost the connection, failing every request in flight with it.
bool UnsendablePath(const String& path) {
  return path.find('\0') != String::npos || path.size() > Connection::kMaxDataSize;
}

// Codes that say the request may not have reached the server, rather than
// that the server refused it.
bool IsSessionFailure(int rc) {
  return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT || rc == ZSESSIONEXPIRED ||
         rc == ZINVALIDSTATE || rc == ZCLOSING || rc == ZSESSIONMOVED;
}

// Values are read into a buffer of at least this size, so that a typical
// value takes one round trip even when the caller's string is short.
constexpr std::size_t kReadBuffer = 4096;
// A value that keeps growing between the reads of one Get gives up after this.
constexpr int kMaxGetAttempts = 8;
// At most this many deletes, and this many bytes of them, go in one multi request.
constexpr std::size_t kDeletesPerMulti = 100;
constexpr std::size_t kDeleteBatchBytes = 256 * 1024;

RequestKind KindOf(Connection::Operation op) {
  switch (op) {
    case Connection::Operation::Create:
      return RequestKind::kCreate;
    case Connection::Operation::Set:
      return RequestKind::kSet;
    case Connection::Operation::Get:
      return RequestKind::kGet;
    case Connection::Operation::Exists:
      return RequestKind::kExists;
    case Connection::Operation::GetChildren:
      return RequestKind::kGetChildren;
    case Connection::Operation::Delete:
      return RequestKind::kDelete;
  }
  return RequestKind::kGet;
}

// Counts each request of a finished batch.
void CountEach(RequestKind kind, const std::vector<int>& results) {
  for (const int rc : results) CountRequest(kind, rc);
}

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

// Standard base64 with padding, as the server's digest ids use it.
String Base64(const unsigned char* bytes, std::size_t size) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  String text;
  for (std::size_t i = 0; i < size; i += 3) {
    const std::size_t n = std::min<std::size_t>(3, size - i);
    unsigned int group = 0;
    for (std::size_t k = 0; k < 3; ++k) group = group << 8 | (k < n ? bytes[i + k] : 0);
    for (std::size_t k = 0; k < 4; ++k) {
      text.push_back(k <= n ? kDigits[(group >> (18 - 6 * k)) & 63] : '=');
    }
  }
  return text;
}

const Credentials& Checked(const Credentials& credentials) {
  if (credentials.user.empty() || credentials.user.find(':') != String::npos) {
    throw KorvelError("Invalid ZooKeeper credentials");
  }
  return credentials;
}

}  // namespace

String DigestId(const Credentials& credentials) {
  const String secret = credentials.user + ":" + credentials.password;
  boost::uuids::detail::sha1 sha1;
  sha1.process_bytes(secret.data(), secret.size());
  boost::uuids::detail::sha1::digest_type words;
  sha1.get_digest(words);
  unsigned char bytes[20];
  for (int i = 0; i < 20; ++i) {
    bytes[i] = static_cast<unsigned char>(words[i / 4] >> (24 - 8 * (i % 4)));  // big-endian
  }
  return credentials.user + ":" + Base64(bytes, sizeof bytes);
}

namespace {

void AppendNames(const Connection::ChildNames& names, std::vector<String>& out) {
  out.reserve(out.size() + names.size());
  for (std::size_t i = 0; i < names.size(); ++i) out.emplace_back(names[i]);
}

}  // namespace

class Connection::Impl {
 public:
  Impl(Connection& self, String hosts, std::chrono::milliseconds timeout,
       std::optional<Credentials> credentials)
      : m_self(self),
        m_user(credentials ? credentials->user : String()),
        m_ownerId(credentials ? DigestId(*credentials) : String()),
        m_ownerAcl{{ZOO_PERM_ALL, {const_cast<char*>("digest"), m_ownerId.data()}},
                   {ZOO_PERM_READ, {const_cast<char*>("world"), const_cast<char*>("anyone")}}},
        m_nodeAcl(credentials ? ACL_vector{2, m_ownerAcl} : ZOO_OPEN_ACL_UNSAFE),
        m_sessions(std::move(hosts), timeout, std::move(credentials), m_watches,
                   [this](int state, const String& path) { NotifyObservers(state, path); }) {}

  const String& User() const { return m_user; }
  const ACL_vector& NodeAcl() const { return m_nodeAcl; }

  SessionKeeper& Sessions() { return m_sessions; }
  WatchRegistry& Watches() { return m_watches; }
  std::shared_ptr<SessionKeeper::Session> Current() const { return m_sessions.Current(); }

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
    if (auto rc = Injected(op, path))
      return {CountRequest(KindOf(op), *rc), WatchHandle(std::move(ctx))};
    const auto session = Current();
    void* watcherCtx =
        m_watches.Add(ctx, session.get(), path,
                      op == Operation::GetChildren ? ZWATCHTYPE_CHILD : ZWATCHTYPE_DATA);
    const auto [rc, set] = call(session->zh, &WatchRegistry::OnPathWatch, watcherCtx);
    if (!set) m_watches.Forget(watcherCtx);
    return {CountRequest(KindOf(op), rc), WatchHandle(std::move(ctx))};
  }

  // Reads with all requests in flight, setting the data watches asked for.
  void GetAll(const std::vector<ReadRequest>& requests, std::vector<String>& values,
              const WatchFunction& watch, std::vector<WatchHandle>* handles,
              std::vector<int>& results) {
    const auto session = Current();
    std::vector<std::shared_ptr<WatchContext>> contexts(requests.size());
    std::vector<void*> watcherCtxs(requests.size(), nullptr);
    RunPipelined(results, [&](std::size_t i, AsyncSlot& slot) -> std::optional<int> {
      const String& path = requests[i].path;
      const bool watched = requests[i].watch && watch;
      if (watched) contexts[i] = std::make_shared<WatchContext>(m_self, WatchFunction(watch));
      if (auto injected = Injected(Operation::Get, path)) return injected;
      slot.out = &values[i];
      if (watched) {
        watcherCtxs[i] = m_watches.Add(contexts[i], session.get(), path, ZWATCHTYPE_DATA);
      }
      return Submitted(zoo_awget(
          session->zh, path.c_str(), watched ? &WatchRegistry::OnPathWatch : nullptr,
          watcherCtxs[i],
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
      // A watch whose read failed was not set.
      if (watcherCtxs[i] != nullptr && results[i] != ZOK) m_watches.Forget(watcherCtxs[i]);
      if (handles != nullptr && contexts[i]) (*handles)[i] = WatchHandle(std::move(contexts[i]));
    }
    CountEach(RequestKind::kGet, results);
  }

 private:
  void NotifyObservers(int state, const String& path) {
    m_self.Notify([&](ConnectionObserver& observer) {
      try {
        observer.OnSessionEvent(ZOO_SESSION_EVENT, state, path);
      } catch (const std::exception& e) {
        QXLOG(g_log, QXLOG_ERROR) << "Session observer failed: " << e.what();
      } catch (...) {
        QXLOG(g_log, QXLOG_ERROR) << "Session observer failed";
      }
    });
  }

  Connection& m_self;
  const String m_user;
  String m_ownerId;   // the identity's digest id; m_ownerAcl points into it
  ACL m_ownerAcl[2];  // the identity: all rights; anyone: read
  const ACL_vector m_nodeAcl;
  std::atomic<bool> m_hasInjector{false};
  mutable std::mutex m_injectorMutex;
  FaultInjector m_injector;
  WatchRegistry m_watches;
  SessionKeeper m_sessions;  // last: its worker and sessions start once the rest exists
};

Connection::Connection(String hosts, std::chrono::milliseconds sessionTimeout)
    : m_impl(std::make_unique<Impl>(*this, std::move(hosts), sessionTimeout, std::nullopt)) {
  m_impl->Sessions().Connect(sessionTimeout);
}

Connection::Connection(String hosts, std::chrono::milliseconds sessionTimeout,
                       Credentials credentials)
    : m_impl(
          std::make_unique<Impl>(*this, std::move(hosts), sessionTimeout, Checked(credentials))) {
  m_impl->Sessions().Connect(sessionTimeout);
}

Connection::~Connection() {
  if (details::OnEventThread()) {
    // The last owner let go inside one of our callbacks: closing the handle
    // here would join the thread we run on. Close it from a thread of its own.
    m_impl->Sessions().Detach();
    std::thread([impl = std::move(m_impl)]() mutable { impl.reset(); }).detach();
  }
}

bool Connection::OnEventThread() {
  return details::OnEventThread();
}

clientid_t Connection::ClientId() const {
  return *zoo_client_id(m_impl->Current()->zh);
}

std::chrono::milliseconds Connection::SessionTimeout() const {
  return std::chrono::milliseconds(zoo_recv_timeout(m_impl->Current()->zh));
}

const String& Connection::User() const {
  return m_impl->User();
}

const ACL_vector& Connection::NodeAcl() const {
  return m_impl->NodeAcl();
}

int Connection::State() const {
  return zoo_state(m_impl->Current()->zh);
}

int Connection::Create(String path, const String& data, const ACL_vector& acl, int flags,
                       String* createdPath) const {
  if (auto rc = m_impl->Injected(Operation::Create, path)) {
    return CountRequest(RequestKind::kCreate, *rc);
  }
  if (data.size() > kMaxDataSize) return CountRequest(RequestKind::kCreate, ZBADARGUMENTS);
  const auto session = m_impl->Current();
  if (createdPath == nullptr) {
    return CountRequest(RequestKind::kCreate,
                        zoo_create(session->zh, path.c_str(), data.data(),
                                   static_cast<int>(data.size()), &acl, flags, nullptr, 0));
  }
  String created(path.size() + 16, '\0');  // room for a sequence suffix
  const int rc = zoo_create(session->zh, path.c_str(), data.data(), static_cast<int>(data.size()),
                            &acl, flags, created.data(), static_cast<int>(created.size()));
  if (rc == ZOK) *createdPath = created.c_str();
  return CountRequest(RequestKind::kCreate, rc);
}

int Connection::Set(String path, const String& data, int version) const {
  if (auto rc = m_impl->Injected(Operation::Set, path)) return CountRequest(RequestKind::kSet, *rc);
  if (data.size() > kMaxDataSize) return CountRequest(RequestKind::kSet, ZBADARGUMENTS);
  return CountRequest(RequestKind::kSet, zoo_set(m_impl->Current()->zh, path.c_str(), data.data(),
                                                 static_cast<int>(data.size()), version));
}

int Connection::Get(String path, String& data, Stat* stat) const {
  if (auto rc = m_impl->Injected(Operation::Get, path)) return CountRequest(RequestKind::kGet, *rc);
  return CountRequest(RequestKind::kGet,
                      ReadValue(m_impl->Current()->zh, path, data, nullptr, nullptr, stat).rc);
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
  if (auto rc = m_impl->Injected(Operation::Exists, path)) {
    return CountRequest(RequestKind::kExists, *rc);
  }
  Stat local{};
  return CountRequest(RequestKind::kExists,
                      zoo_exists(m_impl->Current()->zh, path.c_str(), 0, stat ? stat : &local));
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
  return VisitChildren(std::move(path),
                       [&children](const ChildNames& names) { AppendNames(names, children); });
}

std::pair<int, Connection::WatchHandle> Connection::GetChildren(String path,
                                                                std::vector<String>& children,
                                                                WatchFunction watch) const {
  return VisitChildren(
      std::move(path), [&children](const ChildNames& names) { AppendNames(names, children); },
      std::move(watch));
}

int Connection::VisitChildren(String path, const ChildNamesVisitor& visit) const {
  if (auto rc = m_impl->Injected(Operation::GetChildren, path)) {
    return CountRequest(RequestKind::kGetChildren, *rc);
  }
  String_vector names{};
  const int rc = zoo_get_children(m_impl->Current()->zh, path.c_str(), 0, &names);
  if (rc == ZOK) visit(ChildNames(names));
  deallocate_String_vector(&names);
  return CountRequest(RequestKind::kGetChildren, rc);
}

std::pair<int, Connection::WatchHandle> Connection::VisitChildren(String path,
                                                                  const ChildNamesVisitor& visit,
                                                                  WatchFunction watch) const {
  return m_impl->Watched(Operation::GetChildren, path, std::move(watch),
                         [&](zhandle_t* zh, watcher_fn fn, void* ctx) {
                           String_vector names{};
                           const int rc = zoo_wget_children(zh, path.c_str(), fn, ctx, &names);
                           if (rc == ZOK) visit(ChildNames(names));
                           deallocate_String_vector(&names);
                           return std::pair<int, bool>(rc, rc == ZOK);
                         });
}

int Connection::Delete(String path, int version) const {
  if (auto rc = m_impl->Injected(Operation::Delete, path)) {
    return CountRequest(RequestKind::kDelete, *rc);
  }
  return CountRequest(RequestKind::kDelete,
                      zoo_delete(m_impl->Current()->zh, path.c_str(), version));
}

int Connection::GetAcl(String path, std::vector<AclEntry>& acl) const {
  if (UnsendablePath(path)) return ZBADARGUMENTS;
  ACL_vector entries{};
  Stat stat{};
  const int rc = zoo_get_acl(m_impl->Current()->zh, path.c_str(), &entries, &stat);
  if (rc == ZOK) {
    acl.clear();
    for (int i = 0; i < entries.count; ++i) {
      const ACL& entry = entries.data[i];
      acl.push_back({entry.perms, entry.id.scheme, entry.id.id});
    }
  }
  deallocate_ACL_vector(&entries);
  return rc;
}

int Connection::SetAcl(String path, const ACL_vector& acl) const {
  if (UnsendablePath(path)) return ZBADARGUMENTS;
  return zoo_set_acl(m_impl->Current()->zh, path.c_str(), -1, &acl);
}

std::vector<int> Connection::CreateAll(const std::vector<CreateRequest>& requests,
                                       const ACL_vector& acl) const {
  std::vector<int> results(requests.size(), ZOK);
  if (details::OnEventThread()) {
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
  CountEach(RequestKind::kCreate, results);
  return results;
}

std::vector<int> Connection::GetChildrenAll(const std::vector<String>& paths,
                                            std::vector<std::vector<String>>& children) const {
  std::vector<int> results(paths.size(), ZOK);
  children.assign(paths.size(), {});
  if (details::OnEventThread()) {
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
            AppendNames(ChildNames(*names), *static_cast<std::vector<String>*>(slot.out));
          }
          slot.Complete(rc);
        },
        &slot));
  });
  CountEach(RequestKind::kGetChildren, results);
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
  if (!details::OnEventThread()) {
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
  const auto session = m_impl->Current();
  return m_impl->Watches().Remove(*session, handles);
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
    if (UnsendablePath(path)) return CountRequest(RequestKind::kMulti, ZBADARGUMENTS);
  }

  // Small multis, all in flight together: the server works on several at once, while one big
  // multi is a single transaction. It applies them in order, so deepest first still holds.
  struct Multi {
    std::size_t begin, end;
    std::vector<zoo_op_t> ops;
    std::vector<zoo_op_result_t> results;
  };
  std::vector<Multi> multis;
  for (std::size_t begin = 0; begin < paths.size();) {
    std::size_t end = begin;
    for (std::size_t bytes = 0;
         end < paths.size() && end - begin < kDeletesPerMulti && bytes < kDeleteBatchBytes; ++end) {
      bytes += paths[end].size() + 32;
    }
    Multi& multi = multis.emplace_back(Multi{begin, end, std::vector<zoo_op_t>(end - begin),
                                             std::vector<zoo_op_result_t>(end - begin)});
    for (std::size_t i = begin; i < end; ++i) {
      zoo_delete_op_init(&multi.ops[i - begin], paths[i].c_str(), -1);
    }
    begin = end;
  }
  std::vector<int> results(multis.size(), ZOK);
  const auto session = m_impl->Current();
  if (details::OnEventThread()) {
    for (std::size_t m = 0; m < multis.size(); ++m) {
      results[m] = zoo_multi(session->zh, static_cast<int>(multis[m].ops.size()),
                             multis[m].ops.data(), multis[m].results.data());
    }
  } else {
    RunPipelined(results, [&](std::size_t m, AsyncSlot& slot) -> std::optional<int> {
      return Submitted(zoo_amulti(
          session->zh, static_cast<int>(multis[m].ops.size()), multis[m].ops.data(),
          multis[m].results.data(),
          [](int rc, const void* data) { AsyncSlot::From(data).Complete(rc); }, &slot));
    });
  }
  CountEach(RequestKind::kMulti, results);
  for (std::size_t m = 0; m < multis.size(); ++m) {
    if (IsSessionFailure(results[m])) return results[m];
    // A multi is all or nothing: when one node of it was already gone or got a new child (and
    // so the multis after it that hold its ancestors), delete its nodes one by one.
    if (results[m] != ZOK) {
      if (const int failed = deleteOneByOne(multis[m].begin, multis[m].end); failed != ZOK) {
        return failed;
      }
    }
  }
  return ZOK;
}

void Connection::SetFaultInjector(FaultInjector injector) {
  m_impl->SetFaultInjector(std::move(injector));
}

}  // namespace qx::korvel
