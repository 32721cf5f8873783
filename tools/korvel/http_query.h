// How `korvel serve` reads a request, apart from any I/O (so that a fuzz target drives the same
// code): the target split into its path and decoded query, the endpoint a path names, the
// parameters that name a service type and an instance, and the bearer token a request carries.
#ifndef KORVEL_TOOLS_KORVEL_HTTP_QUERY_H_
#define KORVEL_TOOLS_KORVEL_HTTP_QUERY_H_

#include <korvel/service_id.h>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace korvel::http {

using Query = std::map<std::string, std::string>;

// Decodes %XX and '+' of a query component; nullopt for a broken escape.
std::optional<std::string> DecodeComponent(std::string_view text);

// Splits "PATH?a=1&b=x%20y" into the path (not decoded) and the decoded query, where a name given
// twice keeps its last value; false for a broken escape in the query.
bool SplitTarget(std::string_view target, std::string& path, Query& query);

// The token of an "Authorization: Bearer TOKEN" header's value; nullopt for another scheme.
std::optional<std::string_view> BearerToken(std::string_view authorization);

// Whether `given` equals `secret`, in a time that depends on the secret's length only.
bool SameSecret(std::string_view given, std::string_view secret);

}  // namespace korvel::http

namespace korvel::cli {

// What `korvel serve` answers at a path.
enum class Endpoint {
  kTypes,
  kInstances,
  kInstance,
  kWatch,
  kMetrics,
  kDiscovery,
  kHealth,
  kPage,   // the dashboard's page
  kAsset,  // the dashboard's scripts, styles and images
  kOther,
};

Endpoint EndpointOf(std::string_view path);

// The endpoint's name in request metrics: its path, "/assets" or "other", so that a client
// cannot make a sample per path it invents.
const char* EndpointLabel(Endpoint endpoint);

// A request that cannot be answered as asked: its status and why.
struct Refusal : std::runtime_error {
  Refusal(unsigned status, const std::string& message)
      : std::runtime_error(message), status(status) {}
  unsigned status;
};

// The named parameter; Refusal 400 when it is missing or empty.
const std::string& Parameter(const korvel::http::Query& query, const std::string& name);

// The "type" parameter, normalised; Refusal 400 for an empty one and for "alive" and below.
std::string TypeParameter(const korvel::http::Query& query);

// The "id" parameter; Refusal 400 for one that is no instance id.
qx::korvel::ServiceId IdParameter(const korvel::http::Query& query);

}  // namespace korvel::cli

#endif  // KORVEL_TOOLS_KORVEL_HTTP_QUERY_H_
