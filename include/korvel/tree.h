// The registry's tree: every path korvel reads or writes in ZooKeeper, the
// names of an instance's own attributes with the order registration writes
// them, and the text of its start time.
//
//   /srv/<type>/<id>                      an instance's data node (persistent)
//   /srv/<type>/<id>/<attribute>          its own attributes (ephemeral)
//   /srv/<type>/<id>/<child>/<attribute>  its per-child records (persistent)
//   /srv/alive/<type>/<id>                its liveness node (ephemeral)
//
// <type> is a service type passed through NormalizePath; it may hold "/" (the
// type "eu/billing" lives in /srv/eu/billing), but it is never "alive" or
// below it, where its data nodes would stand among the liveness nodes. <id>
// is a ServiceId in its canonical text (qx::uuid::to_string).
//
// Everything here is pure and may be called from any thread, except
// ReadOwnAttributes, which reads through a Connection.
#pragma once

#include <cstddef>
#include <ctime>
#include <optional>
#include <string_view>
#include <vector>

#include "korvel/connection_v2.h"
#include "korvel/service_id.h"
#include "stlext/string.h"

namespace qx::korvel::tree {

// The root of the data nodes, and the root of the liveness nodes below it.
inline constexpr char kDataRoot[] = "/srv";
inline constexpr char kAliveRoot[] = "/srv/alive";

// The type as it stands in paths: `type` passed through NormalizePath.
// Throws KorvelError "application cannot be named 'alive'" for "alive" and
// every type below it ("alive/x"), and returns "" for an empty type.
String RegistrableType(const String& type);
// True for a normalised type that RegistrableType refuses.
bool IsLivenessType(const String& type);

// The paths of a type and of its instances. `type` is normalised here; a
// type "alive" is not refused (RegistrableType does that).
String DataDir(const String& type);                         // /srv/<type>
String AliveDir(const String& type);                        // /srv/alive/<type>
String DataPath(const String& type, const ServiceId& id);   // /srv/<type>/<id>
String AlivePath(const String& type, const ServiceId& id);  // /srv/alive/<type>/<id>
// `node` + "/" + `relative` normalised: a child record or an attribute below
// a data node. An empty `relative` gives a path that ends in "/", which the
// server refuses.
String Below(const String& node, const String& relative);

// An instance's own attributes, in the order registration writes them: the
// status first (so that an instance is never seen without one for long) and
// the version last. The status, host name, pid and start time are always
// published; the name, recipe name and version only when known.
enum OwnAttribute : std::size_t {
  kStatus,
  kServiceName,
  kHostname,
  kPid,
  kStartTime,
  kRecipeName,
  kVersion,
  kOwnAttributeCount
};
// Their node names, indexed by OwnAttribute.
inline constexpr const char* kOwnAttributeNames[kOwnAttributeCount] = {
    "status", "service_name", "hostname", "pid", "start_time", "chef_recipe_name", "version"};
// True for the attributes that every registration writes.
bool AlwaysPublished(OwnAttribute attribute);
// The attribute named `name`, or nullopt when it is no own attribute.
std::optional<OwnAttribute> OwnAttributeNamed(std::string_view name);
// /srv/<type>/<id>/<name of attribute>, below the data node `dataPath`.
String OwnAttributePath(const String& dataPath, OwnAttribute attribute);

// The start time as registration writes it: "YYYY-MM-DD HH:MM:SS.D" in UTC,
// D being the ISO weekday (1 Monday ... 7 Sunday), not a fraction.
String StartTimeText(std::time_t time);
// The time that a start-time text names, or nullopt for any other text.
std::optional<std::time_t> ParseStartTime(std::string_view text);

// What a path of the tree names. The first component after the root that is
// a ServiceId (in either case) ends the type: a type with such a component
// cannot be told from an instance path.
struct Location {
  bool alive = false;           // below /srv/alive
  String type;                  // normalised
  std::optional<ServiceId> id;  // none: the type's directory
  String below;                 // below the data node ("": the node itself)
};
// The location that the absolute, normalised `path` names, or nullopt for a
// path outside the tree, the roots themselves, the type "alive" or below it,
// or a node below a liveness node.
std::optional<Location> Parse(std::string_view path);

// A health check's record: the child "health-<check>" of the data node, with
// the check's result ("passing" or "failing"), since when (UtcText) and its
// last output.
String HealthRecord(const String& checkName);
inline constexpr char kHealthResult[] = "result";
inline constexpr char kHealthSince[] = "since";
inline constexpr char kHealthOutput[] = "output";
inline constexpr char kPassing[] = "passing";
inline constexpr char kFailing[] = "failing";
// `time` in UTC as "YYYY-MM-DDTHH:MM:SSZ".
String UtcText(std::time_t time);

// One instance's own attributes, as read.
struct OwnAttributes {
  ServiceId id;
  std::optional<String> values[kOwnAttributeCount];  // indexed by OwnAttribute; unset: absent
  Connection::WatchHandle statusWatch;               // with a status watch, when the status exists

  const std::optional<String>& operator[](OwnAttribute attribute) const {
    return values[attribute];
  }
  // False when none is published (the instance is gone, or not written yet).
  bool Any() const;
};

// Reads the own attributes of the instances `ids` of `type`, every request
// in flight together (Connection::GetAll), each instance's in the reverse of
// the order registration writes them: the server answers one session's reads
// in order, so a read that finds an attribute is followed by reads that find
// every attribute written before it. With `statusWatch`, each status that
// exists gets a one-shot data watch calling it. Returns ZOK with one entry
// per id, in order, or the first code other than ZOK and ZNONODE (then `out`
// is empty). Not on the connection's event thread for large batches: there
// the requests run one after another.
int ReadOwnAttributes(const Connection& conn, const String& type, const std::vector<ServiceId>& ids,
                      std::vector<OwnAttributes>& out, WatchFunction statusWatch = nullptr);

}  // namespace qx::korvel::tree
