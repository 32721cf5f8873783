#include "http_query.h"

#include <korvel/tree.h>
#include <korvel/utils.h>
#include <stlext/uuid.h>

#include <algorithm>
#include <cctype>

namespace korvel::http {
namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<std::string> DecodeComponent(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] == '%') {
      if (i + 2 >= text.size()) return std::nullopt;
      const int high = HexDigit(text[i + 1]), low = HexDigit(text[i + 2]);
      if (high < 0 || low < 0) return std::nullopt;
      out += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

bool SplitTarget(std::string_view target, std::string& path, Query& query) {
  const std::size_t question = std::min(target.find('?'), target.size());
  path = std::string(target.substr(0, question));
  target.remove_prefix(std::min(question + 1, target.size()));
  while (!target.empty()) {
    const std::size_t end = std::min(target.find('&'), target.size());
    const std::string_view pair = target.substr(0, end);
    target.remove_prefix(std::min(end + 1, target.size()));
    if (pair.empty()) continue;
    const std::size_t equals = std::min(pair.find('='), pair.size());
    auto name = DecodeComponent(pair.substr(0, equals));
    auto value = DecodeComponent(pair.substr(std::min(equals + 1, pair.size())));
    if (!name || !value) return false;
    query[std::move(*name)] = std::move(*value);
  }
  return true;
}

std::optional<std::string_view> BearerToken(std::string_view authorization) {
  constexpr std::string_view kScheme = "bearer ";
  if (authorization.size() < kScheme.size()) return std::nullopt;
  for (std::size_t i = 0; i < kScheme.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(authorization[i])) != kScheme[i]) {
      return std::nullopt;
    }
  }
  authorization.remove_prefix(kScheme.size());
  const std::size_t first = authorization.find_first_not_of(' ');
  if (first == std::string_view::npos) return std::string_view();
  return authorization.substr(first, authorization.find_last_not_of(' ') + 1 - first);
}

bool SameSecret(std::string_view given, std::string_view secret) {
  // Every byte of the secret is compared whatever differs, so that the time tells nothing of
  // where a guess goes wrong.
  unsigned difference = given.size() == secret.size() ? 0 : 1;
  for (std::size_t i = 0; i < secret.size(); ++i) {
    const unsigned char guessed = i < given.size() ? given[i] : 0;
    difference |= guessed ^ static_cast<unsigned char>(secret[i]);
  }
  return difference == 0;
}

}  // namespace korvel::http

namespace korvel::cli {

using korvel::http::Query;

namespace {

// The endpoints at a path of their own, which is also their label.
constexpr std::pair<const char*, Endpoint> kRoutes[] = {
    {"/api/v1/types", Endpoint::kTypes},       {"/api/v1/instances", Endpoint::kInstances},
    {"/api/v1/instance", Endpoint::kInstance}, {"/api/v1/watch", Endpoint::kWatch},
    {"/metrics", Endpoint::kMetrics},          {"/sd/prometheus", Endpoint::kDiscovery},
    {"/healthz", Endpoint::kHealth},           {"/", Endpoint::kPage}};

}  // namespace

Endpoint EndpointOf(std::string_view path) {
  for (const auto& [known, endpoint] : kRoutes) {
    if (path == known) return endpoint;
  }
  if (path == "/index.html") return Endpoint::kPage;
  if (path.rfind("/assets/", 0) == 0) return Endpoint::kAsset;
  return Endpoint::kOther;
}

const char* EndpointLabel(Endpoint endpoint) {
  for (const auto& [path, known] : kRoutes) {
    if (endpoint == known) return path;
  }
  return endpoint == Endpoint::kAsset ? "/assets" : "other";
}

const std::string& Parameter(const Query& query, const std::string& name) {
  const auto it = query.find(name);
  if (it == query.end() || it->second.empty()) {
    throw Refusal(400, "missing parameter '" + name + "'");
  }
  return it->second;
}

std::string TypeParameter(const Query& query) {
  const std::string type = qx::korvel::NormalizePath(Parameter(query, "type"));
  if (type.empty()) throw Refusal(400, "the service type is empty");
  if (qx::korvel::tree::IsLivenessType(type)) {
    throw Refusal(400, "'alive' is not a service type: it is where liveness nodes live");
  }
  return type;
}

qx::korvel::ServiceId IdParameter(const Query& query) {
  const std::string& text = Parameter(query, "id");
  qx::korvel::ServiceId id;
  if (!qx::uuid::from_string(text, id)) throw Refusal(400, "not an instance id: '" + text + "'");
  return id;
}

}  // namespace korvel::cli
