#include "korvel/service.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <unordered_set>

#include <boost/algorithm/string/trim.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "korvel/error.h"
#include "korvel/tree.h"
#include "korvel/utils.h"
#include "logger/logger.h"
#include "metrics_counters.h"
#include "stlext/uuid.h"

namespace qx::korvel {
namespace {

const logging::ConstSourcePtr g_log = logging::MakeSource("korvel.service");

// Values are read into a buffer of this size first; Get grows it as needed.
constexpr std::size_t kAttributeBuffer = 22;

// Registrations tried in a row while the session keeps expiring under them.
constexpr int kRegistrationAttempts = 3;

// Leftovers of crashed instances deleted together, their requests pipelined. 10,000 leftovers of
// 6 nodes (30,000 listings, then 600 multis) were taken by a server without a timeout; more are
// deleted a batch at a time.
constexpr std::size_t kCleanupBatch = 10000;

// A registration after an expiry builds the same paths again while other
// threads read them (SetStatus, child records): only a first registration
// writes them, so that no reader sees a buffer being replaced.
void SetPath(String& member, const String& path) {
  if (member != path) member = path;
}

using logging::QXLOG_DEBUG;
using logging::QXLOG_ERROR;
using logging::QXLOG_INFO;
using logging::QXLOG_WARNING;

// The types whose directories were seen protected for an identity, as its
// digest id + "/" + type: their ACLs are read once per process, not at every
// registration. An open type is never recorded, so it is reported each time.
class ProtectedTypes {
 public:
  bool Contains(const String& key) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_keys.count(key) != 0;
  }
  void Add(String key) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_keys.insert(std::move(key));
  }

 private:
  std::mutex m_mutex;
  std::unordered_set<String> m_keys;
};

// Never destroyed: registrations may run on the client's threads at exit.
ProtectedTypes& g_protectedTypes = *new ProtectedTypes;

// Runs a registration and counts how it ended.
template <typename Register>
void CountedRegistration(details::RegistrationKind kind, Register&& registration) {
  try {
    registration();
  } catch (...) {
    details::CountRegistrationFailure();
    throw;
  }
  details::CountRegistration(kind);
}

}  // namespace

Service::Service(std::shared_ptr<Connection> conn, String stype, String serviceName)
    : Service(std::move(conn), std::move(stype), RandomServiceId(), std::move(serviceName)) {}

Service::Service(std::shared_ptr<Connection> conn, String stype, ServiceId uuid, String serviceName)
    : m_updateNeeded(false),
      m_conn(std::move(conn)),
      m_uuid(uuid),
      m_stype(std::move(stype)),
      m_name(std::move(serviceName)) {
  CountedRegistration(details::RegistrationKind::kFirst, [this] { Init(); });
}

Service::~Service() {
  try {
    RecursiveDelete(*m_conn, m_root);
  } catch (const KorvelError&) {
    QXLOG(g_log, QXLOG_WARNING) << "Failed to remove service tree";
  }
  m_conn->Delete(m_alive, -1);
}

const char* Service::StatusToString(Status s) {
  switch (s) {
    case UP:
      return "up";
    case DOWN:
      return "down";
    case UP_SENDING_DISABLED:
      return "up_sending_disabled";
  }
  return "unknown";
}

void Service::RegisterForSessionEvent() {
  std::shared_ptr<Service> self = shared_from_this();
  m_conn->RegisterWeak(std::weak_ptr<ConnectionObserver>(self));
}

void Service::OnSessionEvent(int event, int state, String) {
  if (event != ZOO_SESSION_EVENT) return;
  if (state == ZOO_EXPIRED_SESSION_STATE) {
    QXLOG(g_log, QXLOG_INFO) << "Session expired. Flagging data for update on reconnect.";
    m_updateNeeded = true;
  } else if (state == ZOO_CONNECTED_STATE && m_updateNeeded) {
    QXLOG(g_log, QXLOG_INFO) << "Reconnected. Updating service node data.";
    // Cleared first: a re-registration that fails is not tried again until
    // the next expiry.
    m_updateNeeded = false;
    CountedRegistration(details::RegistrationKind::kAgain, [this] { Init(); });
  }
}

void Service::Init() {
  // A registration during which the session expired made its liveness node
  // in the old session, which took it along: register again in the new one.
  for (int attempt = 1;; ++attempt) {
    const std::int64_t session = m_conn->ClientId().client_id;
    Register();
    if (m_conn->ClientId().client_id == session) return;
    QXLOG(g_log, QXLOG_WARNING) << "Session changed during registration. Registering again.";
    if (attempt == kRegistrationAttempts) {
      throw KorvelError("Failed to register: the session kept expiring");
    }
  }
}

void Service::Register() {
  const String stype = tree::RegistrableType(m_stype);
  const String uuidStr = uuid::to_string(m_uuid);
  QXLOG(g_log, QXLOG_INFO) << "Initializing Korvel Service: " << uuidStr;

  if (!m_conn->User().empty()) CheckTypeAcl(stype);
  // The liveness node stands before the cleanup looks for data nodes without
  // one, so that this instance's own data node is never taken for a leftover.
  SetPath(m_alive, tree::AlivePath(stype, m_uuid));
  EnsurePath(*m_conn, m_alive, true, m_conn->NodeAcl());
  CleanupCrashedApps(stype);
  SetPath(m_root, tree::DataPath(stype, m_uuid));
  EnsurePath(*m_conn, m_root, false, m_conn->NodeAcl());

  CreateOrSet(tree::OwnAttributePath(m_root, tree::kStatus), StatusToString(DOWN));
  if (!m_name.empty()) CreateOrSet(tree::OwnAttributePath(m_root, tree::kServiceName), m_name);

  char buf[1024];
  buf[1023] = '\0';
  if (gethostname(buf, 1023) != 0) {
    const int error = errno;
    if (strerror_r(error, buf, sizeof buf) == nullptr) {
      QXLOG(g_log, QXLOG_ERROR) << "gethostname error: " << buf;
    } else {
      QXLOG(g_log, QXLOG_ERROR) << "gethostname error: " << error;
    }
    throw KorvelError("gethostname error");
  }
  String hostName(buf);
  boost::algorithm::trim(hostName);
  CreateOrSet(tree::OwnAttributePath(m_root, tree::kHostname), hostName);

  char pid[16];
  std::snprintf(pid, sizeof pid, "%d", static_cast<int>(getpid()));
  CreateOrSet(tree::OwnAttributePath(m_root, tree::kPid), pid);

  std::time_t rawtime;
  std::time(&rawtime);
  CreateOrSet(tree::OwnAttributePath(m_root, tree::kStartTime), tree::StartTimeText(rawtime));

  // The recipe name and the version may stand in files beside the directory
  // of the executable.
  char path[4000];
  path[3999] = '\0';
  static const char linkName[] = "/proc/self/exe";
  const ssize_t bytesRead = readlink(linkName, path, 3999);
  if (bytesRead <= 0) {
    const int error = errno;
    QXLOG(g_log, QXLOG_ERROR) << "failed to read link, linkName=" << linkName << ", errno=" << error
                              << ", " << std::strerror(error);
    throw KorvelError("failed to read link");
  }
  path[bytesRead] = '\0';
  *std::strrchr(path, '/') = '\0';

  const auto get_from_file = [](const String& file, String& out) {
    std::ifstream stream(file);
    if (stream.good()) std::getline(stream, out);
  };
  if (const char* chef_recipe_name_from_env = std::getenv("CHEF_RECIPE_NAME")) {
    CreateOrSet(tree::OwnAttributePath(m_root, tree::kRecipeName), chef_recipe_name_from_env);
  } else {
    String chef_recipe_name;
    get_from_file(String(path) + "/../CHEF_RECIPE_NAME", chef_recipe_name);
    if (!chef_recipe_name.empty()) {
      CreateOrSet(tree::OwnAttributePath(m_root, tree::kRecipeName), chef_recipe_name);
    }
  }
  String version;
  get_from_file(String(path) + "/../CHEF_VERSION", version);
  if (!version.empty()) CreateOrSet(tree::OwnAttributePath(m_root, tree::kVersion), version);
}

void Service::CheckTypeAcl(const String& stype) {
  const ACL& owner = m_conn->NodeAcl().data[0];
  String key = String(owner.id.id) + "/" + stype;
  if (g_protectedTypes.Contains(key)) return;
  bool open = false, missing = false;
  for (const String& dir : {tree::AliveDir(stype), tree::DataDir(stype)}) {
    std::vector<AclEntry> acl;
    if (m_conn->GetAcl(dir, acl) != ZOK) {
      missing = true;  // made below, with the owner's ACL
      continue;
    }
    bool mayCreate = false;
    for (const AclEntry& entry : acl) {
      if ((entry.perms & ZOO_PERM_CREATE) == 0) continue;
      const bool anyone = entry.scheme == "world" && entry.id == "anyone";
      open = open || anyone;
      mayCreate =
          mayCreate || anyone || (entry.scheme == owner.id.scheme && entry.id == owner.id.id);
    }
    if (!mayCreate) {
      QXLOG(g_log, QXLOG_ERROR) << "Not authorized to register type '" << stype << "' as '"
                                << m_conn->User() << "': '" << dir
                                << "' belongs to another identity (or the password is wrong)";
      throw KorvelError("Not authorized to register: the type belongs to another identity");
    }
  }
  if (!open && !missing) g_protectedTypes.Add(std::move(key));
  if (open) {
    QXLOG(g_log, QXLOG_WARNING) << "Type '" << stype
                                << "' is open to every client of ZooKeeper; protect it with "
                                   "'korvel acl lock "
                                << stype << "'";
  }
}

void Service::CreateOrSet(const String& path, const String& value) {
  int rc = m_conn->Create(path, value, m_conn->NodeAcl(), ZOO_EPHEMERAL, nullptr);
  if (rc == ZNODEEXISTS) {
    rc = m_conn->Set(path, value, -1);
    if (rc == ZNONODE) {
      QXLOG(g_log, QXLOG_ERROR) << "Failed to set node data on '" << path << "': "
                                << "Node was deleted by other process";
      throw KorvelError("Failed to set node data: Node was deleted by other process");
    }
  }
  if (rc == ZOK) return;
  QXLOG(g_log, QXLOG_ERROR) << "Failed to create node '" << path << "': " << zerror(rc);
  throw KorvelError("Failed to create node");
}

void Service::SetStatus(Status status) {
  SetStatusInternal(status, m_root);
}

void Service::SetStatusInternal(Status status, String path) {
  const int result =
      m_conn->Set(tree::OwnAttributePath(path, tree::kStatus), StatusToString(status), -1);
  if (result == ZOK) return;
  QXLOG(g_log, QXLOG_ERROR) << "Failed to create status node: " << zerror(result);
  throw KorvelError("Failed to create status node");
}

void Service::SetChildStatus(Status status, String childPath) {
  SetChildAttribute(std::move(childPath), tree::kOwnAttributeNames[tree::kStatus],
                    StatusToString(status));
}

void Service::SetChildAttribute(String childPath, String attribute, String value) {
  const bool own = childPath == "/";
  const String node = own ? m_root : tree::Below(m_root, childPath);
  const String attrPath = tree::Below(node, attribute);
  // Update first: an attribute that exists costs one request.
  int result = m_conn->Set(attrPath, value, -1);
  if (result == ZNONODE) {
    if (!own) EnsurePath(*m_conn, node, false, m_conn->NodeAcl());
    result = m_conn->Create(attrPath, value, m_conn->NodeAcl(), 0, nullptr);
  }
  if (result == ZOK) return;
  QXLOG(g_log, QXLOG_ERROR) << "Failed to create node: " << zerror(result);
  throw KorvelError("Failed to create node");
}

void Service::RemoveChild(String childPath, bool ignoreNonExistent) {
  childPath = NormalizePath(std::move(childPath));
  const String node = tree::Below(m_root, childPath);
  QXLOG(g_log, QXLOG_DEBUG) << "Removing zookeeper node: " << m_root << "/" << childPath;
  std::vector<String> children;
  m_conn->GetChildren(node, children);
  for (const String& name : children) RemoveChild(childPath + "/" + name, false);
  if (ignoreNonExistent && m_conn->Exists(node, nullptr) == ZNONODE) return;
  const int result = m_conn->Delete(node, -1);
  if (result != ZOK) {
    QXLOG(g_log, QXLOG_ERROR) << "Failed to delete node (result = " << result << ")";
  }
}

void Service::CleanupCrashedApps(String stype) {
  stype = tree::RegistrableType(stype);
  const String appsInSrv = tree::DataDir(stype);
  std::vector<String> srvChildren;
  m_conn->GetChildren(appsInSrv, srvChildren);
  // Listed after the data nodes: an instance whose data node was listed had
  // its liveness node before, so it is listed here too.
  const String appsInSrvAlive = tree::AliveDir(stype);
  std::vector<String> srvAliveKids;
  m_conn->GetChildren(appsInSrvAlive, srvAliveKids);
  const std::unordered_set<String> srvAliveChildren(srvAliveKids.begin(), srvAliveKids.end());

  // The leftovers are deleted a batch at a time, each batch's requests in
  // flight together: a round trip per level of all its subtrees instead of
  // per level of each.
  std::vector<String> leftovers;
  for (const String& srvChild : srvChildren) {
    if (srvAliveChildren.count(srvChild) != 0) continue;
    QXLOG(g_log, QXLOG_INFO) << "Cleaning up application in zookeeper. "
                             << "Found '" << appsInSrv << "/" << srvChild << "', but did not find '"
                             << appsInSrvAlive << "/" << srvChild << "', recursively deleting '"
                             << appsInSrv << "/" << srvChild << "'.";
    leftovers.push_back(appsInSrv + "/" + srvChild);
    if (leftovers.size() == kCleanupBatch) {
      RecursiveDeleteAll(*m_conn, leftovers);
      leftovers.clear();
    }
  }
  RecursiveDeleteAll(*m_conn, leftovers);
}

OldServiceWatcher::OldServiceWatcher(std::shared_ptr<Connection> conn, const String& name)
    : m_conn(std::move(conn)), m_name(NormalizePath(name)) {
  EnsurePath(*m_conn, tree::AliveDir(m_name), false, m_conn->NodeAcl());
}

std::tuple<int, std::vector<ServiceId>> OldServiceWatcher::List() const {
  auto [rc, services, handle] = List(nullptr);
  return {rc, std::move(services)};
}

std::tuple<int, std::vector<ServiceId>, Connection::WatchHandle> OldServiceWatcher::List(
    WatchFunction func) const {
  const String path = tree::AliveDir(m_name);
  std::vector<ServiceId> services;
  // Each name is parsed where the client left it: no copy per instance.
  const auto parse = [&](const Connection::ChildNames& children) {
    services.reserve(children.size());
    for (std::size_t i = 0; i < children.size(); ++i) {
      ServiceId id;
      if (uuid::from_string(children[i], id)) {
        services.push_back(id);
      } else {
        QXLOG(g_log, logging::QXLOG_WARNING)
            << "Invalid child name at path '" << path << "'. Could not convert '" << children[i]
            << "' to ServiceId.";
      }
    }
  };
  int rc;
  Connection::WatchHandle handle;
  if (func) {
    std::tie(rc, handle) = m_conn->VisitChildren(path, parse, std::move(func));
  } else {
    rc = m_conn->VisitChildren(path, parse);
  }
  if (rc != ZOK) services.clear();
  return {rc, std::move(services), std::move(handle)};
}

std::tuple<int, std::vector<String>> OldServiceWatcher::GetAttributes(const ServiceId& id,
                                                                      const String& path) const {
  std::vector<String> children;
  const int rc = m_conn->GetChildren(CreatePath(path, id), children);
  return {rc, std::move(children)};
}

std::tuple<int, std::vector<String>, Connection::WatchHandle> OldServiceWatcher::GetAttributes(
    const ServiceId& id, WatchFunction func, const String& path) const {
  std::vector<String> children;
  auto [rc, handle] = m_conn->GetChildren(CreatePath(path, id), children, std::move(func));
  return {rc, std::move(children), std::move(handle)};
}

std::tuple<int, String> OldServiceWatcher::GetAttribute(const ServiceId& id, const String& name,
                                                        const String& path) const {
  String value;
  fast_resize(value, kAttributeBuffer);
  const int rc = m_conn->Get(CreatePath(path, id) + "/" + name, value, nullptr);
  return {rc, std::move(value)};
}

std::tuple<int, String, Connection::WatchHandle> OldServiceWatcher::GetAttribute(
    const ServiceId& id, const String& name, WatchFunction func, const String& path) const {
  String value;
  fast_resize(value, kAttributeBuffer);
  auto [rc, handle] =
      m_conn->Get(CreatePath(path, id) + "/" + name, value, std::move(func), nullptr);
  return {rc, std::move(value), std::move(handle)};
}

int OldServiceWatcher::HasAttribute(const ServiceId& id, const String& name,
                                    const String& path) const {
  return m_conn->Exists(CreatePath(path, id) + "/" + name, nullptr);
}

std::tuple<int, Connection::WatchHandle> OldServiceWatcher::HasAttribute(const ServiceId& id,
                                                                         const String& name,
                                                                         WatchFunction func,
                                                                         const String& path) const {
  auto [rc, handle] = m_conn->Exists(CreatePath(path, id) + "/" + name, std::move(func), nullptr);
  return {rc, std::move(handle)};
}

String OldServiceWatcher::CreatePath(const String& path, const ServiceId& id) const {
  const String root = tree::DataPath(m_name, id);
  return NormalizePath(path).empty() ? root : tree::Below(root, path);
}

}  // namespace qx::korvel
