#include "web_assets.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace korvel::cli::web {
namespace {

using korvel::http::Request;
using korvel::http::Response;

constexpr std::string_view kAssetPrefix = "/assets/";

// Every answer of the dashboard: the page's scripts, styles and connections come from this
// server only, no other site may frame it, and a browser takes each content type as given.
const char kSecurityPolicy[] =
    "default-src 'self'; img-src 'self' data:; object-src 'none'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'";

std::string ContentType(std::string_view name) {
  const auto dot = name.rfind('.');
  const std::string_view extension = dot == std::string_view::npos ? "" : name.substr(dot + 1);
  if (extension == "html") return "text/html; charset=utf-8";
  if (extension == "js") return "text/javascript; charset=utf-8";
  if (extension == "css") return "text/css; charset=utf-8";
  if (extension == "svg") return "image/svg+xml";
  if (extension == "png") return "image/png";
  if (extension == "json") return "application/json";
  return "application/octet-stream";
}

struct Asset {
  std::string contentType;
  std::string version;
  std::shared_ptr<const std::string> body;  // built once, shared by every answer
};

// The embedded files by name, made on first use.
const std::map<std::string, Asset, std::less<>>& Assets() {
  static const auto* const assets = [] {
    auto* made = new std::map<std::string, Asset, std::less<>>;
    for (std::size_t i = 0; i < kEmbeddedFileCount; ++i) {
      const EmbeddedFile& file = kEmbeddedFiles[i];
      (*made)[file.name] = {
          ContentType(file.name), file.version,
          std::make_shared<const std::string>(reinterpret_cast<const char*>(file.data), file.size)};
    }
    return made;
  }();
  return *assets;
}

Response Answer(const Asset& asset, const std::string& cacheControl) {
  Response response;
  response.contentType = asset.contentType;
  response.body = asset.body;
  response.headers = {{"Cache-Control", cacheControl},
                      {"ETag", "\"" + asset.version + "\""},
                      {"X-Content-Type-Options", "nosniff"},
                      {"Content-Security-Policy", kSecurityPolicy},
                      {"Referrer-Policy", "no-referrer"}};
  return response;
}

}  // namespace

std::optional<Response> Serve(const Request& request) {
  const auto& assets = Assets();
  if (request.path == "/" || request.path == "/index.html") {
    // The page names the versions of its assets: it is asked for again every time, so that a
    // new binary's page (and through it its assets) is seen at once.
    return Answer(assets.at("index.html"), "no-cache");
  }
  const std::string_view path = request.path;
  if (path.compare(0, kAssetPrefix.size(), kAssetPrefix) != 0) return std::nullopt;
  const auto it = assets.find(path.substr(kAssetPrefix.size()));
  if (it == assets.end() || it->first == "index.html") {
    return korvel::http::ErrorResponse(404, "no asset " + request.path);
  }
  // Asked for by the version it has, an asset never changes; asked for otherwise, it may.
  const auto version = request.query.find("v");
  const bool versioned = version != request.query.end() && version->second == it->second.version;
  return Answer(it->second, versioned ? "public, max-age=31536000, immutable" : "no-cache");
}

}  // namespace korvel::cli::web
