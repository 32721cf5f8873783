#include "korvel/metrics.h"

#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "korvel/error.h"
#include "metrics_counters.h"

namespace qx::korvel {
namespace {

using details::RegistrationKind;
using details::RequestKind;

constexpr std::size_t kRequestKinds = static_cast<std::size_t>(RequestKind::kCount);
constexpr std::array<const char*, kRequestKinds> kRequestNames = {
    "create", "set", "get", "exists", "get_children", "delete", "multi", "remove_watches"};

struct ResultName {
  int code;
  const char* name;
};
// The result label of each code the client defines; "other" for the rest.
constexpr ResultName kResultNames[] = {
    {ZOK, "ok"},
    {ZSYSTEMERROR, "system_error"},
    {ZRUNTIMEINCONSISTENCY, "runtime_inconsistency"},
    {ZDATAINCONSISTENCY, "data_inconsistency"},
    {ZCONNECTIONLOSS, "connection_loss"},
    {ZMARSHALLINGERROR, "marshalling_error"},
    {ZUNIMPLEMENTED, "unimplemented"},
    {ZOPERATIONTIMEOUT, "operation_timeout"},
    {ZBADARGUMENTS, "bad_arguments"},
    {ZINVALIDSTATE, "invalid_state"},
    {ZNEWCONFIGNOQUORUM, "new_config_no_quorum"},
    {ZRECONFIGINPROGRESS, "reconfig_in_progress"},
    {ZSSLCONNECTIONERROR, "ssl_connection_error"},
    {ZAPIERROR, "api_error"},
    {ZNONODE, "no_node"},
    {ZNOAUTH, "no_auth"},
    {ZBADVERSION, "bad_version"},
    {ZNOCHILDRENFOREPHEMERALS, "no_children_for_ephemerals"},
    {ZNODEEXISTS, "node_exists"},
    {ZNOTEMPTY, "not_empty"},
    {ZSESSIONEXPIRED, "session_expired"},
    {ZINVALIDCALLBACK, "invalid_callback"},
    {ZINVALIDACL, "invalid_acl"},
    {ZAUTHFAILED, "auth_failed"},
    {ZCLOSING, "closing"},
    {ZNOTHING, "nothing"},
    {ZSESSIONMOVED, "session_moved"},
    {ZNOTREADONLY, "not_read_only"},
    {ZEPHEMERALONLOCALSESSION, "ephemeral_on_local_session"},
    {ZNOWATCHER, "no_watcher"},
    {ZRECONFIGDISABLED, "reconfig_disabled"},
    {ZSESSIONCLOSEDREQUIRESASLAUTH, "session_closed_require_sasl_auth"},
    {ZTHROTTLEDOP, "throttled_op"},
};
constexpr std::size_t kKnownResults = std::size(kResultNames);
constexpr std::size_t kOtherResult = kKnownResults;
constexpr std::size_t kResultSlots = kKnownResults + 1;

// Slot of each code from 0 down to kLowestCode: the hot path looks a code up
// instead of searching for it.
constexpr int kLowestCode = -127;
constexpr auto kSlotOfCode = [] {
  std::array<std::uint8_t, 1 - kLowestCode> slots{};
  for (auto& slot : slots) slot = static_cast<std::uint8_t>(kOtherResult);
  for (std::size_t i = 0; i < kKnownResults; ++i) {
    slots[static_cast<std::size_t>(-kResultNames[i].code)] = static_cast<std::uint8_t>(i);
  }
  return slots;
}();

std::size_t ResultSlot(int rc) {
  if (rc > 0 || rc < kLowestCode) return kOtherResult;
  return kSlotOfCode[static_cast<std::size_t>(-rc)];
}

using Counter = std::atomic<std::uint64_t>;

// Static storage: zero before anything runs, whatever the order of static
// initialisation.
Counter g_requests[kRequestKinds][kResultSlots];
Counter g_sessions;
Counter g_expirations;
std::atomic<std::int64_t> g_connected;
Counter g_registrations;
Counter g_reregistrations;
Counter g_registrationFailures;

void Bump(Counter& counter) {
  counter.fetch_add(1, std::memory_order_relaxed);
}

double Read(const Counter& counter) {
  return static_cast<double>(counter.load(std::memory_order_relaxed));
}

bool ValidName(const String& name, bool colonAllowed) {
  if (name.empty()) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    const bool letter =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (colonAllowed && c == ':');
    if (!letter && !(i > 0 && c >= '0' && c <= '9')) return false;
  }
  return true;
}

bool EndsWith(const String& text, const char* suffix) {
  const String s(suffix);
  return text.size() >= s.size() && text.compare(text.size() - s.size(), s.size(), s) == 0;
}

constexpr const char* kHistogramSuffixes[] = {"_bucket", "_sum", "_count"};

String FormatValue(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return String(buffer, result.ptr);
}

void AppendEscaped(String& out, const String& text, bool quote) {
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '"' && quote) {
      out += "\\\"";
    } else {
      out += c;
    }
  }
}

// `{a="x",b="y"}` for the labels with `extra` last, or "" when there are none.
String FormatLabels(const MetricLabels& labels, const std::pair<String, String>* extra = nullptr) {
  if (labels.empty() && extra == nullptr) return String();
  String out = "{";
  const auto append = [&out](const std::pair<String, String>& label) {
    if (out.size() > 1) out += ',';
    out += label.first;
    out += "=\"";
    AppendEscaped(out, label.second, true);
    out += '"';
  };
  for (const auto& label : labels) append(label);
  if (extra != nullptr) append(*extra);
  out += '}';
  return out;
}

void CheckLabels(const MetricLabels& labels, bool histogram) {
  for (std::size_t i = 0; i < labels.size(); ++i) {
    const String& name = labels[i].first;
    const bool duplicate = std::any_of(labels.begin(), labels.begin() + i,
                                       [&](const auto& before) { return before.first == name; });
    if (!ValidName(name, false) || name.compare(0, 2, "__") == 0 || duplicate ||
        (histogram && name == "le")) {
      throw KorvelError("Invalid label name");
    }
  }
}

// The labels in a form that does not depend on their order. Throws if a
// sample of the family had the same ones.
String UniqueLabelKey(const std::vector<String>& keys, const MetricLabels& labels) {
  MetricLabels sorted = labels;
  std::sort(sorted.begin(), sorted.end());
  String key = FormatLabels(sorted);
  if (std::find(keys.begin(), keys.end(), key) != keys.end()) {
    throw KorvelError("Duplicate metric sample");
  }
  return key;
}

String SampleLine(const String& name, const String& labels, double value) {
  return name + labels + ' ' + FormatValue(value);
}

}  // namespace

Histogram::Histogram(std::vector<double> upperBounds)
    : m_upperBounds(std::move(upperBounds)),
      m_counts(std::make_unique<std::atomic<std::uint64_t>[]>(m_upperBounds.size() + 1)) {
  for (std::size_t i = 0; i < m_upperBounds.size(); ++i) {
    if (!std::isfinite(m_upperBounds[i]) || (i > 0 && m_upperBounds[i - 1] >= m_upperBounds[i])) {
      throw KorvelError("Histogram bounds must be finite and increasing");
    }
  }
}

void Histogram::Observe(double value) {
  const auto bucket = std::lower_bound(m_upperBounds.begin(), m_upperBounds.end(), value);
  m_counts[static_cast<std::size_t>(bucket - m_upperBounds.begin())].fetch_add(
      1, std::memory_order_relaxed);
  double sum = m_sum.load(std::memory_order_relaxed);
  while (!m_sum.compare_exchange_weak(sum, sum + value, std::memory_order_relaxed)) {
  }
}

HistogramValue Histogram::Value() const {
  HistogramValue value;
  value.upperBounds = m_upperBounds;
  for (std::size_t i = 0; i <= m_upperBounds.size(); ++i) {
    value.bucketCounts.push_back(m_counts[i].load(std::memory_order_relaxed));
  }
  value.sum = m_sum.load(std::memory_order_relaxed);
  return value;
}

void MetricsText::Declare(const String& name, Type type, const String& help) {
  if (!ValidName(name, true)) throw KorvelError("Invalid metric name");
  if (type == Type::kCounter && !EndsWith(name, "_total")) {
    throw KorvelError("Counter names must end in _total");
  }
  if (const auto it = m_families.find(name); it != m_families.end()) {
    if (it->second.type == type && it->second.help == help) return;
    throw KorvelError("Metric family declared twice");
  }
  for (const char* suffix : kHistogramSuffixes) {
    const bool clash = (type == Type::kHistogram && m_families.count(name + suffix) != 0) ||
                       (EndsWith(name, suffix) && [&] {
                         const auto it =
                             m_families.find(name.substr(0, name.size() - String(suffix).size()));
                         return it != m_families.end() && it->second.type == Type::kHistogram;
                       }());
    if (clash) throw KorvelError("Metric family declared twice");
  }
  m_families.emplace(name, Family{type, help, {}, {}});
}

MetricsText::Family& MetricsText::Find(const String& name, bool histogram) {
  const auto it = m_families.find(name);
  if (it == m_families.end()) throw KorvelError("Undeclared metric family");
  if ((it->second.type == Type::kHistogram) != histogram) {
    throw KorvelError("Metric family of another type");
  }
  return it->second;
}

void MetricsText::Add(const String& name, const MetricLabels& labels, double value) {
  Family& family = Find(name, false);
  CheckLabels(labels, false);
  if (family.type == Type::kCounter && !(value >= 0)) throw KorvelError("Invalid counter value");
  String key = UniqueLabelKey(family.labelKeys, labels);
  family.sampleLines.push_back(SampleLine(name, FormatLabels(labels), value));
  family.labelKeys.push_back(std::move(key));
}

void MetricsText::AddHistogram(const String& name, const MetricLabels& labels,
                               const HistogramValue& value) {
  Family& family = Find(name, true);
  CheckLabels(labels, true);
  const auto& bounds = value.upperBounds;
  bool valid = value.bucketCounts.size() == bounds.size() + 1;
  for (std::size_t i = 0; valid && i < bounds.size(); ++i) {
    valid = std::isfinite(bounds[i]) && (i == 0 || bounds[i - 1] < bounds[i]);
  }
  if (!valid) throw KorvelError("Invalid histogram value");
  String key = UniqueLabelKey(family.labelKeys, labels);

  const String plain = FormatLabels(labels);
  std::uint64_t cumulative = 0;
  for (std::size_t i = 0; i <= bounds.size(); ++i) {
    cumulative += value.bucketCounts[i];
    const std::pair<String, String> le("le", i < bounds.size() ? FormatValue(bounds[i]) : "+Inf");
    family.sampleLines.push_back(
        SampleLine(name + "_bucket", FormatLabels(labels, &le), static_cast<double>(cumulative)));
  }
  family.sampleLines.push_back(SampleLine(name + "_sum", plain, value.sum));
  family.sampleLines.push_back(SampleLine(name + "_count", plain, static_cast<double>(cumulative)));
  family.labelKeys.push_back(std::move(key));
}

String MetricsText::Render() const {
  static constexpr const char* kTypeNames[] = {"counter", "gauge", "histogram"};
  String out;
  for (const auto& [name, family] : m_families) {
    out += "# HELP " + name + ' ';
    AppendEscaped(out, family.help, false);
    out += "\n# TYPE " + name + ' ' + kTypeNames[static_cast<int>(family.type)] + '\n';
    for (const String& line : family.sampleLines) {
      out += line;
      out += '\n';
    }
  }
  return out;
}

void WriteLibraryMetrics(MetricsText& out) {
  using Type = MetricsText::Type;
  const auto single = [&out](const char* name, Type type, const char* help, double value) {
    out.Declare(name, type, help);
    out.Add(name, {}, value);
  };
  single("korvel_zookeeper_sessions_total", Type::kCounter,
         "ZooKeeper sessions established by korvel connections.", Read(g_sessions));
  single("korvel_zookeeper_session_expirations_total", Type::kCounter,
         "ZooKeeper sessions of korvel connections that the server expired.", Read(g_expirations));
  single("korvel_zookeeper_connected", Type::kGauge,
         "korvel connections whose ZooKeeper session is connected.",
         static_cast<double>(g_connected.load(std::memory_order_relaxed)));
  single("korvel_service_registrations_total", Type::kCounter,
         "Service instances that registered in ZooKeeper.", Read(g_registrations));
  single("korvel_service_reregistrations_total", Type::kCounter,
         "Service instances that registered again after a session expiry.",
         Read(g_reregistrations));
  single("korvel_service_registration_failures_total", Type::kCounter,
         "Registrations of service instances, first or again, that failed.",
         Read(g_registrationFailures));

  const String requests = "korvel_zookeeper_requests_total";
  out.Declare(requests, Type::kCounter,
              "ZooKeeper node operations of korvel connections by operation and result.");
  for (std::size_t kind = 0; kind < kRequestKinds; ++kind) {
    for (std::size_t slot = 0; slot < kResultSlots; ++slot) {
      const std::uint64_t count = g_requests[kind][slot].load(std::memory_order_relaxed);
      if (count == 0 && slot != 0) continue;
      const char* result = slot == kOtherResult ? "other" : kResultNames[slot].name;
      out.Add(requests, {{"operation", kRequestNames[kind]}, {"result", result}},
              static_cast<double>(count));
    }
  }
}

String RenderMetrics() {
  MetricsText text;
  WriteLibraryMetrics(text);
  return text.Render();
}

namespace details {

int CountRequest(RequestKind kind, int rc) {
  Bump(g_requests[static_cast<std::size_t>(kind)][ResultSlot(rc)]);
  return rc;
}

void CountSessionEstablished() {
  Bump(g_sessions);
}

void CountSessionExpired() {
  Bump(g_expirations);
}

void CountConnected(int delta) {
  g_connected.fetch_add(delta, std::memory_order_relaxed);
}

void CountRegistration(RegistrationKind kind) {
  Bump(kind == RegistrationKind::kFirst ? g_registrations : g_reregistrations);
}

void CountRegistrationFailure() {
  Bump(g_registrationFailures);
}

}  // namespace details
}  // namespace qx::korvel
