// korvel serve: the registry over HTTP, read-only. JSON of types and instances, Server-Sent
// Event streams of a type's changes, Prometheus metrics and Prometheus HTTP service discovery,
// and a health check; every type read through one ServiceCache however many clients ask.
#include <korvel/metrics.h>
#include <korvel/service.h>
#include <korvel/tree.h>
#include <korvel/utils.h>
#include <korvel/version.h>
#include <logger/logger.h>
#include <stlext/uuid.h>

#include <boost/asio/ip/address.hpp>
#include <iostream>
#include <mutex>
#include <thread>

#include "commands.h"
#include "http_query.h"
#include "http_server.h"
#include "registry_view.h"
#include "signals.h"
#include "web_assets.h"

namespace korvel::cli {
namespace {

using namespace std::chrono_literals;
using korvel::http::Reply;
using korvel::http::Request;
using korvel::http::Response;
using qx::korvel::MetricsText;
namespace tree = qx::korvel::tree;

const qx::logging::ConstSourcePtr& g_log =
    *new qx::logging::ConstSourcePtr(qx::logging::MakeSource("korvel.serve"));

constexpr char kMetricsContentType[] = "text/plain; version=0.0.4; charset=utf-8";
using qx::korvel::Service;
const char* const kUp = Service::StatusToString(Service::UP);

Response JsonResponse(const Json& json) {
  Response response;
  response.body = std::make_shared<const std::string>(
      json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
  return response;
}

Response TextResponse(unsigned status, std::string text, const std::string& type = "text/plain") {
  Response response;
  response.status = status;
  response.contentType = type;
  response.body = std::make_shared<const std::string>(std::move(text));
  return response;
}

// The records below `record` as {"path": {attribute: value}}, nested ones as "a/b".
void FlattenChildren(const Record& record, const std::string& prefix, Json& out) {
  for (const Record& child : record.children) {
    const std::string path = prefix + child.name;
    Json attributes = Json::object();
    for (const auto& [name, value] : child.attributes) attributes[name] = value;
    out[path] = std::move(attributes);
    FlattenChildren(child, path + "/", out);
  }
}

// A port attribute that names a TCP port.
bool IsPort(const std::string& text) {
  if (text.empty() || text.size() > 5) return false;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
  }
  const int port = std::stoi(text);
  return port > 0 && port < 65536;
}

// Request counts by handler and status, and latency by handler.
class HttpMetrics {
 public:
  void Observe(const Request* request, unsigned status, std::chrono::nanoseconds took) {
    const std::string handler = Handler(request);
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_counts[{handler, status}];
    auto& histogram = m_durations[handler];
    if (!histogram) {
      histogram = std::make_unique<qx::korvel::Histogram>(
          std::vector<double>{0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                              0.25, 0.5, 1, 2.5, 5});
    }
    histogram->Observe(std::chrono::duration<double>(took).count());
  }

  void Write(MetricsText& out, const korvel::http::ServerStats& stats) {
    using Type = MetricsText::Type;
    out.Declare("korvel_http_requests_total", Type::kCounter,
                "HTTP requests answered, by handler and status code.");
    out.Declare("korvel_http_request_duration_seconds", Type::kHistogram,
                "Time from a request's last byte to its answer's last byte.");
    out.Declare("korvel_http_connections", Type::kGauge, "Open HTTP connections.");
    out.Declare("korvel_http_streams", Type::kGauge, "Open event streams.");
    out.Declare("korvel_http_rejected_connections_total", Type::kCounter,
                "Connections refused with 503 because too many were open.");
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      for (const auto& [key, count] : m_counts) {
        out.Add("korvel_http_requests_total",
                {{"handler", key.first}, {"code", std::to_string(key.second)}},
                static_cast<double>(count));
      }
      for (const auto& [handler, histogram] : m_durations) {
        out.AddHistogram("korvel_http_request_duration_seconds", {{"handler", handler}},
                         histogram->Value());
      }
    }
    out.Add("korvel_http_connections", {}, static_cast<double>(stats.connectionsOpen.load()));
    out.Add("korvel_http_streams", {}, static_cast<double>(stats.streamsOpen.load()));
    out.Add("korvel_http_rejected_connections_total", {},
            static_cast<double>(stats.rejectedConnections.load()));
  }

 private:
  // The label of a request: its endpoint's, or "refused" for one refused before it was read.
  static std::string Handler(const Request* request) {
    return request == nullptr ? "refused" : EndpointLabel(EndpointOf(request->path));
  }

  std::mutex m_mutex;
  std::map<std::pair<std::string, unsigned>, std::uint64_t> m_counts;
  std::map<std::string, std::unique_ptr<qx::korvel::Histogram>> m_durations;
};

// The endpoints.
class Api {
 public:
  // `token`: the bearer token every endpoint but the health check and the dashboard's files
  // needs; none when empty.
  Api(RegistryView& registry, HttpMetrics& metrics, std::string token)
      : m_registry(registry), m_metrics(metrics), m_token(std::move(token)) {}

  void SetServer(const korvel::http::Server* server) { m_server = server; }

  Reply Handle(const Request& request) {
    const Endpoint endpoint = EndpointOf(request.path);
    if (!Authorized(request, endpoint)) return {Unauthorized(request), nullptr};
    try {
      switch (endpoint) {
        case Endpoint::kTypes:
          return {Types(), nullptr};
        case Endpoint::kInstances:
          return {Instances(request), nullptr};
        case Endpoint::kInstance:
          return {Instance(request), nullptr};
        case Endpoint::kWatch:
          return Watch(request);
        case Endpoint::kMetrics:
          return {Metrics(), nullptr};
        case Endpoint::kDiscovery:
          return {Discovery(request), nullptr};
        case Endpoint::kHealth:
          return {Health(), nullptr};
        case Endpoint::kPage:
        case Endpoint::kAsset:
          return {*web::Serve(request), nullptr};
        case Endpoint::kOther:
          break;
      }
      throw Refusal(404, "not found: " + request.path);
    } catch (const Refusal& e) {
      return {korvel::http::ErrorResponse(e.status, e.what()), nullptr};
    } catch (const Failure& e) {
      // ZooKeeper cannot be read now.
      return {korvel::http::ErrorResponse(503, e.what()), nullptr};
    }
  }

 private:
  // The health check answers anyone, and so do the dashboard's page and files, which hold no
  // registry data: the page has to load to ask for the token that its API calls then send.
  bool Authorized(const Request& request, Endpoint endpoint) const {
    if (m_token.empty() || endpoint == Endpoint::kHealth || endpoint == Endpoint::kPage ||
        endpoint == Endpoint::kAsset) {
      return true;
    }
    const auto header = request.headers.find("authorization");
    if (header == request.headers.end()) return false;
    const auto token = korvel::http::BearerToken(header->second);
    return token && korvel::http::SameSecret(*token, m_token);
  }

  static Response Unauthorized(const Request& request) {
    const bool sent = request.headers.count("authorization") > 0;
    Response response = korvel::http::ErrorResponse(
        401, sent ? "the bearer token is not valid" : "a bearer token is required");
    response.headers.emplace_back(
        "WWW-Authenticate",
        sent ? "Bearer realm=\"korvel\", error=\"invalid_token\"" : "Bearer realm=\"korvel\"");
    return response;
  }

  Response Types() {
    Json array = Json::array();
    for (const TypeSummary& summary : m_registry.Summaries()) {
      Json statuses = Json::object();
      for (const auto& [status, count] : summary.statuses) statuses[status] = count;
      const auto up = summary.statuses.find(kUp);
      array.push_back({{"type", summary.type},
                       {"instances", summary.instances},
                       {"up", up == summary.statuses.end() ? 0 : up->second},
                       {"statuses", std::move(statuses)},
                       {"current", summary.current}});
    }
    return JsonResponse(array);
  }

  Response Instances(const Request& request) {
    const auto view = m_registry.CurrentView(TypeParameter(request.query), false);
    if (!view) return JsonResponse(Json::array());
    auto [instances, current] = view->Rendered();
    if (!current) {
      throw Refusal(503, "the instances of type '" + view->Type() + "' cannot be read now");
    }
    Response response;
    response.body = std::move(instances);
    return response;
  }

  Response Instance(const Request& request) {
    const std::string type = TypeParameter(request.query);
    const qx::korvel::ServiceId id = IdParameter(request.query);
    const std::string idText = qx::uuid::to_string(id);
    const std::string dataPath = tree::DataPath(type, id);
    const auto records = ReadRecords(*m_registry.Conn(), {dataPath});
    if (records.empty()) throw Refusal(404, "no instance " + idText + " of type '" + type + "'");
    const Record& record = records.begin()->second;
    Json attributes = Json::object(), children = Json::object();
    for (const auto& [name, value] : record.attributes) attributes[name] = value;
    FlattenChildren(record, "", children);
    return JsonResponse(
        {{"id", idText}, {"attributes", std::move(attributes)}, {"children", std::move(children)}});
  }

  Reply Watch(const Request& request) {
    auto view = m_registry.CurrentView(TypeParameter(request.query), true);
    Reply reply;
    reply.stream = [view](const std::shared_ptr<korvel::http::EventSink>& sink) {
      return view->Subscribe(sink);
    };
    return reply;
  }

  Response Discovery(const Request& request) {
    const auto view = m_registry.CurrentView(TypeParameter(request.query), false);
    const auto attribute = request.query.find("port_attribute");
    const std::string port =
        attribute == request.query.end() ? std::string("port") : attribute->second;
    if (port.empty() || port.find('/') != std::string::npos) {
      throw Refusal(400, "not an attribute name: '" + port + "'");
    }
    if (!view) return JsonResponse(Json::array());
    const TypeView::State state = view->Now();
    std::vector<qx::korvel::CachedInstancePtr> up;
    std::vector<std::string> nodes;
    for (const auto& instance : state.instances) {
      const std::string* status = instance->Attribute(tree::kOwnAttributeNames[tree::kStatus]);
      if (status == nullptr || *status != kUp) continue;
      up.push_back(instance);
      nodes.push_back(tree::DataPath(view->Type(), instance->id));
    }
    const auto records = ReadRecords(*m_registry.Conn(), nodes);
    Json targets = Json::array();
    for (std::size_t i = 0; i < up.size(); ++i) {
      const auto record = records.find(nodes[i]);
      const std::string* host = up[i]->Attribute(tree::kOwnAttributeNames[tree::kHostname]);
      if (record == records.end() || host == nullptr) continue;
      const std::string* name = up[i]->Attribute(tree::kOwnAttributeNames[tree::kServiceName]);
      const auto add = [&](const Record& where, const std::string& child) {
        for (const auto& [key, value] : where.attributes) {
          if (key != port || !IsPort(value)) continue;
          targets.push_back({{"targets", {*host + ":" + value}},
                             {"labels",
                              {{"__meta_korvel_type", view->Type()},
                               {"__meta_korvel_id", qx::uuid::to_string(up[i]->id)},
                               {"__meta_korvel_service_name", name ? *name : ""},
                               {"__meta_korvel_child", child}}}});
        }
      };
      add(record->second, "");
      AddChildTargets(record->second, "", add);
    }
    return JsonResponse(targets);
  }

  template <typename Add>
  static void AddChildTargets(const Record& record, const std::string& prefix, const Add& add) {
    for (const Record& child : record.children) {
      add(child, prefix + child.name);
      AddChildTargets(child, prefix + child.name + "/", add);
    }
  }

  Response Health() {
    if (m_registry.Conn()->State() != ZOO_CONNECTED_STATE) {
      return TextResponse(503, "not connected to ZooKeeper\n");
    }
    for (const auto& [type, current] : m_registry.Caches()) {
      if (!current) return TextResponse(503, "the cache of type '" + type + "' is not current\n");
    }
    return TextResponse(200, "ok\n");
  }

  Response Metrics() {
    using Type = MetricsText::Type;
    MetricsText out;
    qx::korvel::WriteLibraryMetrics(out);
    out.Declare("korvel_build_info", Type::kGauge, "The korvel version that serves; always 1.");
    out.Add("korvel_build_info", {{"version", qx::korvel::Version()}}, 1);
    out.Declare("korvel_types", Type::kGauge, "Service types with a liveness directory.");
    out.Declare("korvel_instances", Type::kGauge, "Live instances by type and status.");
    out.Declare("korvel_cache_stale", Type::kGauge,
                "1 while the cache of a type is not current, else 0.");
    try {
      const auto summaries = m_registry.Summaries();
      out.Add("korvel_types", {}, static_cast<double>(summaries.size()));
      for (const TypeSummary& summary : summaries) {
        auto statuses = summary.statuses;
        for (const Service::Status status :
             {Service::UP, Service::DOWN, Service::UP_SENDING_DISABLED}) {
          statuses[Service::StatusToString(status)];
        }
        for (const auto& [status, count] : statuses) {
          out.Add("korvel_instances",
                  {{"type", summary.type}, {"status", status.empty() ? "none" : status}},
                  static_cast<double>(count));
        }
      }
    } catch (const Failure& e) {
      // The tree cannot be read now: the other metrics still say why.
      QXLOG(g_log, qx::logging::QXLOG_WARNING) << "Metrics without the registry: " << e.what();
    }
    for (const auto& [type, current] : m_registry.Caches()) {
      out.Add("korvel_cache_stale", {{"type", type}}, current ? 0 : 1);
    }
    if (m_server != nullptr) m_metrics.Write(out, m_server->Stats());
    return TextResponse(200, out.Render(), kMetricsContentType);
  }

  RegistryView& m_registry;
  HttpMetrics& m_metrics;
  const std::string m_token;
  const korvel::http::Server* m_server = nullptr;
};

// The bearer token in `path`, without a trailing newline; Failure for a file that its group or
// others may access, an empty token, or one that a header cannot carry.
std::string ReadTokenFile(const std::string& path) {
  // The errors name the file, never what it holds.
  std::string token = ReadPrivateFile(path, "the token file");
  if (!token.empty() && token.back() == '\n') token.pop_back();
  if (!token.empty() && token.back() == '\r') token.pop_back();
  if (token.empty()) throw Failure("the token file " + path + " is empty");
  for (const char c : token) {
    if (c <= ' ' || c == '\x7f') {
      throw Failure("the token in " + path +
                    " has a space or a control character: a header cannot carry it");
    }
  }
  return token;
}

}  // namespace

std::optional<std::pair<std::string, std::uint16_t>> ParseListenAddress(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size()) return std::nullopt;
  std::string address = text.substr(0, colon);
  if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
    address = address.substr(1, address.size() - 2);
  }
  boost::system::error_code ec;
  boost::asio::ip::make_address(address, ec);
  const std::string port = text.substr(colon + 1);
  if (ec || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  const int number = std::stoi(port);
  if (number > 65535) return std::nullopt;
  return std::make_pair(address, static_cast<std::uint16_t>(number));
}

int RunServe(const Settings& settings, const ServeOptions& options) {
  const std::string token = options.tokenFile.empty() ? "" : ReadTokenFile(options.tokenFile);
  WatchStopSignals();
  RegistryView registry(Connect(settings), options.cacheIdle, options.listingWindow);
  HttpMetrics metrics;
  Api api(registry, metrics, token);
  std::unique_ptr<korvel::http::Server> server;
  try {
    server = std::make_unique<korvel::http::Server>(
        options.server, [&api](const Request& request) { return api.Handle(request); },
        [&metrics](const Request* request, unsigned status, std::chrono::nanoseconds took) {
          metrics.Observe(request, status, took);
        });
  } catch (const std::runtime_error& e) {
    throw Failure(e.what());
  }
  api.SetServer(server.get());
  server->Start();
  std::cout << "listening on http://" << options.server.address << ":" << server->Port()
            << std::endl;
  if (token.empty()) {
    std::cerr << "korvel serve: unauthenticated: anyone who can reach this address reads the "
                 "registry (--token-file requires a bearer token)"
              << std::endl;
  }
  while (!ReceivedStopSignal()) std::this_thread::sleep_for(100ms);
  QXLOG(g_log, qx::logging::QXLOG_INFO) << "Stopping: closing every connection";
  server->Stop();
  return 0;
}

}  // namespace korvel::cli
