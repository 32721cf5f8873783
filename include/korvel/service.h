// The service registry: `OldServiceWatcher` lists the live instances of a
// service type and reads their attributes.
//
// The tree: every live instance of type T has an ephemeral liveness node
// /srv/alive/T/<id> and a data node /srv/T/<id> whose children are its
// attributes ("status", "service_name", "hostname", "pid", "start_time",
// "chef_recipe_name", "version") and its per-child records. <id> is the
// instance's ServiceId in its 36-character text form.
//
// Threads: a watcher keeps no state after construction; its queries may be
// called from any thread that may use the Connection. Watch callbacks run on
// the Connection's event thread and live as long as the returned handle.
#pragma once

#include <memory>
#include <tuple>
#include <vector>

#include "korvel/connection_v2.h"
#include "korvel/service_id.h"
#include "stlext/string.h"

namespace qx::korvel {

class OldServiceWatcher {
 public:
  // Watches the service type `name` (normalised with NormalizePath) and makes
  // sure its liveness directory /srv/alive/<type> exists. Throws what
  // EnsurePath throws when it cannot.
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
