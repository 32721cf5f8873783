// A supervised registration: a SupervisedService owns a Service and keeps the
// instance registered, with what the application published through it, for as
// long as the SupervisedService lives.
//
// A bare Service registers again once after a session expiry; if that fails,
// or if someone else removes its nodes, the instance stays invisible until the
// next expiry. A SupervisedService checks that the instance is registered:
// after every session event, whenever its liveness node is deleted (it keeps a
// watch on it), and every `verifyInterval`. Registered means: the liveness
// node exists and is owned by the connection's current session, and the data
// node holds the attributes that every registration writes. When it is not,
// it destroys its Service (which removes whatever is left of the instance's
// nodes) and makes a new one with the same id, trying again with capped
// exponential backoff and jitter until it succeeds or is destroyed. Then it
// publishes again the status last set through it (a new Service starts
// "down") and the child attributes set through it and not removed since,
// those that are missing or hold another value. Child records the application
// removed are not brought back; records made by other means are not restored.
//
// Threads: every method may be called from any thread. Verification and
// re-registration run on a thread of the SupervisedService's own; the
// Connection's event thread only wakes it. A call that publishes waits while a
// re-registration is under way (its requests are bounded by the session
// timeout). Do not destroy it on the Connection's event thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "korvel/connection_v2.h"
#include "korvel/service.h"
#include "korvel/service_id.h"
#include "stlext/string.h"

namespace qx::korvel {

struct SupervisionOptions {
  // How often the registration is checked without a session event or watch.
  std::chrono::milliseconds verifyInterval{10000};
  // The wait after the first failed try; doubled after each further failure up
  // to `maxBackoff`, each wait with up to a fifth of it added or taken at
  // random. A failed check (connection loss) is retried after the same waits.
  std::chrono::milliseconds initialBackoff{100};
  std::chrono::milliseconds maxBackoff{5000};
  // Called on the supervisor's thread after each successful re-registration,
  // once the remembered state is published again. May be empty.
  std::function<void()> reregistered;
};

class SupervisedService {
 public:
  // Registers instance `id` of type `stype` named `serviceName` as Service's
  // constructor does, and throws what it throws (KorvelError) when this first
  // registration fails: a type that cannot be registered, refused access, or
  // ZooKeeper unavailable. Supervision starts once it has succeeded. Throws
  // std::invalid_argument for options that are not positive or a maximum
  // backoff below the initial one.
  SupervisedService(std::shared_ptr<Connection> conn, String stype, ServiceId id,
                    String serviceName, SupervisionOptions options = {});
  // The same under a new random ServiceId.
  SupervisedService(std::shared_ptr<Connection> conn, String stype, String serviceName,
                    SupervisionOptions options = {});
  // Stops supervision at once (a backoff wait is cut short; a request under
  // way finishes within its bound), then unregisters the instance as
  // Service's destructor does. Never throws.
  ~SupervisedService();
  SupervisedService(const SupervisedService&) = delete;
  SupervisedService& operator=(const SupervisedService&) = delete;

  ServiceId GetId() const;
  // The data node's path (tree::DataPath).
  const String& GetRoot() const;
  const std::shared_ptr<Connection>& GetConnection() const;

  // Remembers `status` and publishes it. Throws KorvelError when it cannot be
  // published now; it stays remembered and is published with the next
  // re-registration, which the failure asks for at once.
  void SetStatus(Service::Status status);
  // Remembers attribute `attribute` of child `childPath` (a path relative to
  // the data node) with `value`, and publishes it as
  // Service::SetChildAttribute does. Throws as SetStatus.
  void SetChildAttribute(String childPath, String attribute, String value);
  // Forgets the attributes at `childPath` and below, then deletes the child
  // record as Service::RemoveChild does (never throws; a failure is logged).
  void RemoveChild(String childPath, bool ignoreNonExistent);

  // How many times the instance was registered: 1 after construction, one
  // more for each successful re-registration.
  std::uint64_t Registrations() const;

 private:
  class Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace qx::korvel
