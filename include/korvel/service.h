// The service registry: a `Service` registers one running instance of a
// service type; an `OldServiceWatcher` lists the live instances of a type and
// reads their attributes.
//
// The tree (korvel/tree.h): every live instance of type T has an ephemeral
// liveness node /srv/alive/T/<id> and a data node /srv/T/<id> whose children
// are its own attributes and its per-child records. <id> is the instance's
// ServiceId in its 36-character text form.
//
// Over a Connection with credentials, every node made here gets the
// connection's NodeAcl(): only that identity may change the type's trees.
//
// The liveness node and the instance's own attributes are ephemeral: they
// vanish with the session that made them. The data node and the per-child
// records are persistent; a crashed instance's data node is removed by the
// next registration of its type.
//
// Threads: neither class takes a lock. A Service's operations run on the
// caller's thread; after a session expiry its re-registration runs on the
// Connection's event thread, concurrently with whatever the application calls
// meanwhile (the server orders the writes; the last one wins). A watcher keeps
// no state after construction; its queries may be called from any thread that
// may use the Connection. Watch callbacks run on the Connection's event thread
// and live as long as the returned handle.
#pragma once

#include <cstdint>
#include <memory>
#include <tuple>
#include <vector>

#include "korvel/connection_v2.h"
#include "korvel/service_id.h"
#include "stlext/string.h"

namespace qx::korvel {

class Service : public std::enable_shared_from_this<Service>, public ConnectionObserver {
 public:
  enum Status : std::int32_t { UP = 0, DOWN = 1, UP_SENDING_DISABLED = 2 };

  // Registers a new instance of type `stype` (normalised with NormalizePath)
  // under a new random ServiceId, named `serviceName` (may be empty): removes
  // what crashed instances of the type left behind, creates the liveness node
  // and the data node, and publishes status "down", the name, host name,
  // process id, start time, recipe name and version. Throws KorvelError when
  // the type is "alive" or below it ("alive/x") or a step fails; what was
  // created stays. With credentials, throws KorvelError "Not authorized to
  // register: the type belongs to another identity" before creating anything
  // when the type's directories do not let this identity create below them.
  Service(std::shared_ptr<Connection> conn, String stype, String serviceName);
  // The same under the given identity.
  Service(std::shared_ptr<Connection> conn, String stype, ServiceId uuid, String serviceName);
  // Removes the data node with its whole subtree, then the liveness node.
  // Never throws; a failure is logged.
  ~Service() override;
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // The data node's path (tree::DataPath).
  const String& GetRoot() const { return m_root; }
  ServiceId GetId() const { return m_uuid; }
  const std::shared_ptr<Connection>& GetConnection() const { return m_conn; }

  // "up", "down", "up_sending_disabled"; "unknown" for any other value.
  static const char* StatusToString(Status s);

  // Subscribes this service to its connection's session events, so that it
  // registers again by itself once a new session follows an expiry (status
  // "down" again until SetStatus). Call once, after making the service under
  // a shared_ptr; throws std::bad_weak_ptr otherwise.
  void RegisterForSessionEvent();

  // Publishes the service's own status. Throws KorvelError "Failed to create
  // status node" when the node cannot be updated (it is never created here).
  void SetStatus(Status status);
  // Publishes the status of child `childPath` ("/": the service itself) as
  // its persistent attribute "status". Throws as SetChildAttribute.
  void SetChildStatus(Status status, String childPath);
  // Publishes attribute `attribute` of child `childPath` ("/": the service
  // itself; otherwise a path relative to the data node, made when missing) as
  // a persistent node holding `value`. Throws KorvelError "Failed to create
  // node" on failure.
  void SetChildAttribute(String childPath, String attribute, String value);
  // Deletes child `childPath` with everything below it, deepest first. A
  // failed delete is logged, never thrown; with `ignoreNonExistent` a missing
  // child is skipped silently.
  void RemoveChild(String childPath, bool ignoreNonExistent);
  // Deletes, with their subtrees, the data nodes of type `stype` (already
  // normalised) that have no liveness node: the leftovers of crashed
  // instances. Two listings plus one recursive delete per leftover, those of
  // up to 10,000 leftovers with their requests in flight together (see
  // RecursiveDeleteAll). Throws KorvelError for the type "alive" or one below
  // it, as the constructor does.
  void CleanupCrashedApps(String stype);

 private:
  void OnSessionEvent(int event, int state, String path) override;
  // Registers, again when the session changed meanwhile (up to 3 times).
  void Init();
  void Register();
  // With credentials: throws KorvelError when the type's directories belong
  // to another identity, and logs a warning when they are open to anyone.
  // Once they were found the identity's, they are not read again.
  void CheckTypeAcl(const String& stype);
  void CreateOrSet(const String& path, const String& value);
  void SetStatusInternal(Status status, String path);

  bool m_updateNeeded;
  std::shared_ptr<Connection> m_conn;
  String m_root;
  String m_alive;
  ServiceId m_uuid;
  String m_stype;
  String m_name;
};

class OldServiceWatcher {
 public:
  // Watches the service type `name` (normalised with NormalizePath) and makes
  // sure its liveness directory /srv/alive/<type> exists. Throws what
  // EnsurePath throws when it cannot, "Invalid path" for an empty type.
  OldServiceWatcher(std::shared_ptr<Connection> conn, const String& name);

  // The live instances: the result code of listing /srv/alive/<type> and one
  // ServiceId per well-formed liveness node, in the listing's order. A node
  // whose name is not a ServiceId is skipped with a WARNING record. On a
  // failure the code (for instance ZNONODE, ZCONNECTIONLOSS) and no instances.
  std::tuple<int, std::vector<ServiceId>> List() const;
  // The same, and a one-shot child watch on the liveness directory whose
  // callback is `func`. The handle is returned whatever the code.
  std::tuple<int, std::vector<ServiceId>, Connection::WatchHandle> List(WatchFunction func) const;

  // Attribute queries of instance `id`. `path` addresses a node below the
  // instance's data node (empty: the data node itself; a child's name: that
  // child's record) and is normalised; `name` is a bare node name, appended
  // as it is. Each returns the ZooKeeper result code unchanged (ZNONODE for
  // an unknown instance or attribute), never logs and never throws for a
  // ZooKeeper failure. Watch forms return the handle whatever the code.

  // The names of the attribute and child nodes below the addressed node.
  std::tuple<int, std::vector<String>> GetAttributes(const ServiceId& id,
                                                     const String& path = String()) const;
  std::tuple<int, std::vector<String>, Connection::WatchHandle> GetAttributes(
      const ServiceId& id, WatchFunction func, const String& path = String()) const;
  // The value of attribute `name`, whole; on failure, what the read left.
  std::tuple<int, String> GetAttribute(const ServiceId& id, const String& name,
                                       const String& path = String()) const;
  std::tuple<int, String, Connection::WatchHandle> GetAttribute(
      const ServiceId& id, const String& name, WatchFunction func,
      const String& path = String()) const;
  // ZOK when attribute `name` exists, ZNONODE when it does not.
  int HasAttribute(const ServiceId& id, const String& name, const String& path = String()) const;
  std::tuple<int, Connection::WatchHandle> HasAttribute(const ServiceId& id, const String& name,
                                                        WatchFunction func,
                                                        const String& path = String()) const;

 private:
  // /srv/<type>/<id>, or /srv/<type>/<id>/<normalised path> below it.
  String CreatePath(const String& path, const ServiceId& id) const;

  std::shared_ptr<Connection> m_conn;
  const String m_name;
};

}  // namespace qx::korvel
