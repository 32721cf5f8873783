#include "korvel/tree.h"

#include <algorithm>
#include <cstdio>

#include "korvel/error.h"
#include "korvel/utils.h"
#include "stlext/uuid.h"

namespace qx::korvel::tree {
namespace {

constexpr char kStartTimeFormat[] = "%Y-%m-%d %H:%M:%S";

String IdPath(const char* root, const String& type, const ServiceId& id) {
  String path = String(root) + "/" + NormalizePath(type) + "/";
  path += uuid::to_string(id);
  return path;
}

String FormatUtc(std::time_t time, const char* format) {
  std::tm utc{};
  gmtime_r(&time, &utc);  // gmtime's buffer is shared by every thread
  char text[64];
  std::strftime(text, sizeof text, format, &utc);
  return text;
}

}  // namespace

bool IsLivenessType(const String& type) {
  return type == "alive" || type.rfind("alive/", 0) == 0;
}

String RegistrableType(const String& type) {
  String normalized = NormalizePath(type);
  if (IsLivenessType(normalized)) throw KorvelError("application cannot be named 'alive'");
  return normalized;
}

String DataDir(const String& type) {
  return String(kDataRoot) + "/" + NormalizePath(type);
}

String AliveDir(const String& type) {
  return String(kAliveRoot) + "/" + NormalizePath(type);
}

String DataPath(const String& type, const ServiceId& id) {
  return IdPath(kDataRoot, type, id);
}

String AlivePath(const String& type, const ServiceId& id) {
  return IdPath(kAliveRoot, type, id);
}

String Below(const String& node, const String& relative) {
  return node + "/" + NormalizePath(relative);
}

bool AlwaysPublished(OwnAttribute attribute) {
  return attribute == kStatus || attribute == kHostname || attribute == kPid ||
         attribute == kStartTime;
}

std::optional<OwnAttribute> OwnAttributeNamed(std::string_view name) {
  for (std::size_t i = 0; i < kOwnAttributeCount; ++i) {
    if (name == kOwnAttributeNames[i]) return static_cast<OwnAttribute>(i);
  }
  return std::nullopt;
}

String OwnAttributePath(const String& dataPath, OwnAttribute attribute) {
  return dataPath + "/" + kOwnAttributeNames[attribute];
}

String StartTimeText(std::time_t time) {
  return FormatUtc(time, "%Y-%m-%d %H:%M:%S.%u");
}

String HealthRecord(const String& checkName) {
  return "health-" + checkName;
}

String UtcText(std::time_t time) {
  return FormatUtc(time, "%Y-%m-%dT%H:%M:%SZ");
}

std::optional<std::time_t> ParseStartTime(std::string_view text) {
  // "YYYY-MM-DD HH:MM:SS.D": 19 characters of time, a dot and the weekday.
  if (text.size() != 21 || text[19] != '.' || text[20] < '1' || text[20] > '7') {
    return std::nullopt;
  }
  const String time(text.substr(0, 19));
  std::tm utc{};
  const char* end = strptime(time.c_str(), kStartTimeFormat, &utc);
  if (end == nullptr || *end != '\0') return std::nullopt;
  const std::time_t parsed = timegm(&utc);
  if (StartTimeText(parsed) != text) return std::nullopt;  // a wrong weekday or an invalid date
  return parsed;
}

std::optional<Location> Parse(std::string_view path) {
  constexpr std::string_view root = kDataRoot;
  if (path.substr(0, root.size()) != root || path.size() <= root.size() + 1 ||
      path[root.size()] != '/' || path.back() == '/' || path.find("//") != std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view rest = path.substr(root.size() + 1);
  Location location;
  constexpr std::string_view kAlive = "alive/";
  if (rest.substr(0, kAlive.size()) == kAlive) {
    location.alive = true;
    rest.remove_prefix(kAlive.size());
  }
  // Components up to the first ServiceId name the type; the rest lies below.
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = std::min(rest.find('/', start), rest.size());
    ServiceId id;
    if (uuid::from_string(rest.substr(start, end - start), id)) {
      location.id = id;
      location.type = String(rest.substr(0, start == 0 ? 0 : start - 1));
      if (end < rest.size()) location.below = String(rest.substr(end + 1));
      break;
    }
    if (end == rest.size()) {
      location.type = String(rest);
      break;
    }
    start = end + 1;
  }
  if (location.type.empty() || IsLivenessType(location.type)) return std::nullopt;
  if (location.alive && !location.below.empty()) return std::nullopt;
  return location;
}

bool OwnAttributes::Any() const {
  return std::any_of(std::begin(values), std::end(values),
                     [](const std::optional<String>& value) { return value.has_value(); });
}

int ReadOwnAttributes(const Connection& conn, const String& type, const std::vector<ServiceId>& ids,
                      std::vector<OwnAttributes>& out, WatchFunction statusWatch) {
  out.clear();
  const String dir = DataDir(type) + "/";
  std::vector<Connection::ReadRequest> requests;
  requests.reserve(ids.size() * kOwnAttributeCount);
  for (const ServiceId& id : ids) {
    const String dataPath = dir + uuid::to_string(id);
    for (std::size_t a = kOwnAttributeCount; a-- > 0;) {
      requests.push_back({OwnAttributePath(dataPath, static_cast<OwnAttribute>(a)),
                          statusWatch != nullptr && a == kStatus});
    }
  }
  std::vector<String> values;
  std::vector<Connection::WatchHandle> watches;
  const std::vector<int> codes = conn.GetAll(requests, values, std::move(statusWatch), &watches);
  for (int rc : codes) {
    if (rc != ZOK && rc != ZNONODE) return rc;
  }
  out.resize(ids.size());
  for (std::size_t i = 0; i < ids.size(); ++i) {
    OwnAttributes& instance = out[i];
    instance.id = ids[i];
    for (std::size_t a = 0; a < kOwnAttributeCount; ++a) {
      const std::size_t request = (i + 1) * kOwnAttributeCount - 1 - a;
      if (codes[request] == ZOK) instance.values[a] = std::move(values[request]);
      if (a == kStatus && !watches.empty()) instance.statusWatch = std::move(watches[request]);
    }
  }
  return ZOK;
}

}  // namespace qx::korvel::tree
