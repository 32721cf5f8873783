// The library's counters against a real standalone server (requests by
// operation and result, batches, sessions, a forced expiry and the
// re-registration after it), and the exposition text they render, checked by
// the strict parser of the Prometheus text format 0.0.4 in util/, which must
// also refuse broken text.
#include "korvel/metrics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>

#include "korvel/error.h"
#include "korvel/service.h"
#include "util/prometheus_text.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using qx::korvel::Connection;
using qx::korvel::HistogramValue;
using qx::korvel::KorvelError;
using qx::korvel::MetricsText;
using qx::korvel::RenderMetrics;
using qx::korvel::Service;

// ---- Helpers ----------------------------------------------------------------

Exposition Current() {
  return ParseExposition(RenderMetrics());
}

double Value(const Exposition& e, const std::string& name, const Labels& labels = {}) {
  return e.Value(name, labels).value_or(0);
}

// Every request sample's value, by operation and result.
std::map<std::pair<std::string, std::string>, double> Requests(const Exposition& e) {
  std::map<std::pair<std::string, std::string>, double> out;
  for (const Sample& sample : e.families.at("korvel_zookeeper_requests_total").samples) {
    std::string operation, result;
    for (const auto& [name, value] : sample.labels)
      (name == "operation" ? operation : result) = value;
    out[{operation, result}] = sample.value;
  }
  return out;
}

// What changed between two renderings of the request counters.
std::map<std::pair<std::string, std::string>, double> RequestDelta(const Exposition& before,
                                                                   const Exposition& after) {
  auto delta = Requests(after);
  for (const auto& [key, value] : Requests(before)) delta[key] -= value;
  for (auto it = delta.begin(); it != delta.end();) it = it->second == 0 ? delta.erase(it) : ++it;
  return delta;
}

class MetricsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = Connect(SharedServer().ConnectString());
    root = "/" + UniqueName("metrics");
  }
  void TearDown() override { conn->SetFaultInjector(nullptr); }

  std::shared_ptr<Connection> conn;
  std::string root;
};

// ---- The library's counters ---------------------------------------------------

TEST_F(MetricsTest, RequestsCountByOperationAndResult) {
  const Exposition before = Current();
  const std::string missing = root + "/missing";
  std::string value;
  std::vector<std::string> children;
  ASSERT_EQ(ZOK, conn->Create(root, "v", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_EQ(ZNODEEXISTS, conn->Create(root, "v", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_EQ(ZOK, conn->Get(root, value, nullptr));
  EXPECT_EQ(ZNONODE, conn->Get(missing, value, nullptr));
  EXPECT_EQ(ZOK, conn->Set(root, "w", -1));
  EXPECT_EQ(ZNONODE, conn->Set(missing, "w", -1));
  EXPECT_EQ(ZOK, conn->Exists(root, nullptr));
  EXPECT_EQ(ZNONODE, conn->Exists(missing, nullptr));
  EXPECT_EQ(ZNONODE, conn->Exists(
                             missing, [](int, int, std::string) {}, nullptr)
                         .first);
  EXPECT_EQ(ZOK, conn->Get(
                         root, value, [](int, int, std::string) {}, nullptr)
                     .first);
  EXPECT_EQ(ZOK, conn->GetChildren(root, children));
  EXPECT_EQ(ZNONODE, conn->GetChildren(missing, children, [](int, int, std::string) {}).first);
  EXPECT_EQ(ZBADARGUMENTS, conn->Get(root + std::string(1, '\0'), value, nullptr));
  conn->SetFaultInjector([](Connection::Operation op, const std::string&) {
    return op == Connection::Operation::Set ? std::optional<int>(ZCONNECTIONLOSS) : std::nullopt;
  });
  EXPECT_EQ(ZCONNECTIONLOSS, conn->Set(root, "x", -1));
  conn->SetFaultInjector(nullptr);
  EXPECT_EQ(ZOK, conn->Delete(root, -1));
  EXPECT_EQ(ZNONODE, conn->Delete(root, -1));

  const std::map<std::pair<std::string, std::string>, double> expected = {
      {{"create", "ok"}, 1},      {{"create", "node_exists"}, 1},  {{"get", "ok"}, 2},
      {{"get", "no_node"}, 1},    {{"get", "bad_arguments"}, 1},   {{"set", "ok"}, 1},
      {{"set", "no_node"}, 1},    {{"set", "connection_loss"}, 1}, {{"exists", "ok"}, 1},
      {{"exists", "no_node"}, 2}, {{"get_children", "ok"}, 1},     {{"get_children", "no_node"}, 1},
      {{"delete", "ok"}, 1},      {{"delete", "no_node"}, 1},
  };
  EXPECT_EQ(expected, RequestDelta(before, Current()));
}

TEST_F(MetricsTest, BatchesCountEachRequest) {
  ASSERT_EQ(ZOK, conn->Create(root, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  const Exposition before = Current();
  const std::string a = root + "/a", b = root + "/b";
  const auto created =
      conn->CreateAll({{a, "1", 0}, {b, "2", 0}, {a, "3", 0}}, ZOO_OPEN_ACL_UNSAFE);
  EXPECT_EQ((std::vector<int>{ZOK, ZOK, ZNODEEXISTS}), created);
  std::vector<std::string> values;
  const auto read = conn->GetAll({{a}, {b}, {root + "/c"}}, values);
  EXPECT_EQ((std::vector<int>{ZOK, ZOK, ZNONODE}), read);
  std::vector<std::vector<std::string>> children;
  EXPECT_EQ((std::vector<int>{ZOK, ZNONODE}), conn->GetChildrenAll({root, root + "/c"}, children));
  std::vector<Connection::WatchHandle> handles;
  handles.push_back(conn->Exists(
                            a, [](int, int, std::string) {}, nullptr)
                        .second);
  EXPECT_EQ(ZOK, conn->RemoveWatches(handles));
  EXPECT_EQ(ZOK, conn->DeleteAll({a, b, root}));

  const std::map<std::pair<std::string, std::string>, double> expected = {
      {{"create", "ok"}, 2},   {{"create", "node_exists"}, 1}, {{"get", "ok"}, 2},
      {{"get", "no_node"}, 1}, {{"get_children", "ok"}, 1},    {{"get_children", "no_node"}, 1},
      {{"exists", "ok"}, 1},   {{"remove_watches", "ok"}, 1},  {{"multi", "ok"}, 1},
  };
  EXPECT_EQ(expected, RequestDelta(before, Current()));
}

TEST_F(MetricsTest, SessionsAndConnectedConnections) {
  const Exposition before = Current();
  auto other = Connect(SharedServer().ConnectString());
  const Exposition during = Current();
  EXPECT_EQ(Value(before, "korvel_zookeeper_sessions_total") + 1,
            Value(during, "korvel_zookeeper_sessions_total"));
  EXPECT_EQ(Value(before, "korvel_zookeeper_connected") + 1,
            Value(during, "korvel_zookeeper_connected"));
  other.reset();
  const Exposition after = Current();
  EXPECT_EQ(Value(before, "korvel_zookeeper_connected"),
            Value(after, "korvel_zookeeper_connected"));
  EXPECT_EQ(Value(during, "korvel_zookeeper_sessions_total"),
            Value(after, "korvel_zookeeper_sessions_total"));
}

TEST_F(MetricsTest, ExpiryAndReregistration) {
  const std::string type = UniqueName("metrics");
  const Exposition before = Current();
  auto service = std::make_shared<Service>(conn, type, "x");
  service->RegisterForSessionEvent();
  EXPECT_EQ(Value(before, "korvel_service_registrations_total") + 1,
            Value(Current(), "korvel_service_registrations_total"));
  EXPECT_THROW(Service(conn, "alive", "x"), KorvelError);
  EXPECT_EQ(Value(before, "korvel_service_registration_failures_total") + 1,
            Value(Current(), "korvel_service_registration_failures_total"));

  ExpireSession(SharedServer().ConnectString(), conn->ClientId());
  const double reregistered = Value(before, "korvel_service_reregistrations_total") + 1;
  ASSERT_TRUE(WaitUntil(
      [&] { return Value(Current(), "korvel_service_reregistrations_total") == reregistered; },
      15000ms));
  const Exposition after = Current();
  EXPECT_EQ(Value(before, "korvel_zookeeper_session_expirations_total") + 1,
            Value(after, "korvel_zookeeper_session_expirations_total"));
  EXPECT_EQ(Value(before, "korvel_zookeeper_sessions_total") + 1,
            Value(after, "korvel_zookeeper_sessions_total"));
  EXPECT_EQ(Value(before, "korvel_zookeeper_connected"),
            Value(after, "korvel_zookeeper_connected"));
  EXPECT_EQ(Value(before, "korvel_service_registrations_total") + 1,
            Value(after, "korvel_service_registrations_total"));
  EXPECT_EQ(Value(before, "korvel_service_registration_failures_total") + 1,
            Value(after, "korvel_service_registration_failures_total"));
  EXPECT_EQ(ZOK, conn->Exists(tree::AlivePath(type, service->GetId()), nullptr));
}

TEST_F(MetricsTest, LibraryTextIsWellFormedAndComplete) {
  const std::string text = RenderMetrics();
  const Exposition e = ParseExposition(text);
  const std::map<std::string, std::string> expected = {
      {"korvel_service_registration_failures_total", "counter"},
      {"korvel_service_registrations_total", "counter"},
      {"korvel_service_reregistrations_total", "counter"},
      {"korvel_zookeeper_connected", "gauge"},
      {"korvel_zookeeper_requests_total", "counter"},
      {"korvel_zookeeper_session_expirations_total", "counter"},
      {"korvel_zookeeper_sessions_total", "counter"},
  };
  std::map<std::string, std::string> types;
  for (const auto& [name, family] : e.families) {
    types[name] = family.type;
    EXPECT_FALSE(family.help.empty()) << name;
  }
  EXPECT_EQ(expected, types);
  EXPECT_TRUE(std::is_sorted(e.order.begin(), e.order.end()));
  // The "ok" sample of every operation is there from the start.
  for (const char* op :
       {"create", "set", "get", "exists", "get_children", "delete", "multi", "remove_watches"}) {
    EXPECT_TRUE(e.Value("korvel_zookeeper_requests_total", {{"operation", op}, {"result", "ok"}}))
        << op;
  }
}

// ---- The writer ----------------------------------------------------------------

TEST(MetricsTextTest, RendersFamiliesSortedWithEscapesAndHistograms) {
  MetricsText text;
  text.Declare("zz_requests_total", MetricsText::Type::kCounter, "Requests.");
  text.Declare("aa_instances", MetricsText::Type::kGauge, "Help with \\ and\nnewline.");
  text.Declare("mm_latency_seconds", MetricsText::Type::kHistogram, "Latency.");
  text.Add("zz_requests_total", {{"code", "200"}}, 7);
  text.Add("aa_instances", {{"type", "a\"b\\c\nd"}, {"status", "up"}}, 3);
  text.Add("aa_instances", {{"type", "a"}, {"status", "up"}}, 0.5);
  qx::korvel::Histogram latency({0.005, 0.1, 1});
  for (double v : {0.001, 0.005, 0.05, 0.5, 2.0, 3.0}) latency.Observe(v);
  text.AddHistogram("mm_latency_seconds", {{"path", "/x"}}, latency.Value());
  text.AddHistogram("mm_latency_seconds", {{"path", "/y"}}, qx::korvel::Histogram({}).Value());
  const std::string rendered = text.Render();

  const Exposition e = ParseExposition(rendered);
  EXPECT_EQ((std::vector<std::string>{"aa_instances", "mm_latency_seconds", "zz_requests_total"}),
            e.order);
  EXPECT_EQ("Help with \\ and\nnewline.", e.families.at("aa_instances").help);
  EXPECT_EQ(3, Value(e, "aa_instances", {{"type", "a\"b\\c\nd"}, {"status", "up"}}));
  EXPECT_EQ(0.5, Value(e, "aa_instances", {{"type", "a"}, {"status", "up"}}));
  EXPECT_EQ(7, Value(e, "zz_requests_total", {{"code", "200"}}));
  const Labels x = {{"path", "/x"}};
  EXPECT_EQ(2, Value(e, "mm_latency_seconds_bucket", {{"path", "/x"}, {"le", "0.005"}}));
  EXPECT_EQ(3, Value(e, "mm_latency_seconds_bucket", {{"path", "/x"}, {"le", "0.1"}}));
  EXPECT_EQ(4, Value(e, "mm_latency_seconds_bucket", {{"path", "/x"}, {"le", "1"}}));
  EXPECT_EQ(6, Value(e, "mm_latency_seconds_bucket", {{"path", "/x"}, {"le", "+Inf"}}));
  EXPECT_EQ(6, Value(e, "mm_latency_seconds_count", x));
  EXPECT_DOUBLE_EQ(5.556, Value(e, "mm_latency_seconds_sum", x));
  EXPECT_EQ(0, *e.Value("mm_latency_seconds_count", {{"path", "/y"}}));

  EXPECT_NE(std::string::npos,
            rendered.find("aa_instances{type=\"a\\\"b\\\\c\\nd\",status=\"up\"} 3\n"));
  EXPECT_NE(std::string::npos,
            rendered.find("# HELP aa_instances Help with \\\\ and\\nnewline.\n"));
  EXPECT_NE(std::string::npos, rendered.find("# TYPE mm_latency_seconds histogram\n"));
}

TEST(MetricsTextTest, SharedFamiliesAndTheLibrarysTogether) {
  MetricsText text;
  qx::korvel::WriteLibraryMetrics(text);
  text.Declare("korvel_types", MetricsText::Type::kGauge, "Service types.");
  text.Declare("korvel_types", MetricsText::Type::kGauge, "Service types.");  // the same again
  text.Add("korvel_types", {}, 2);
  const Exposition e = ParseExposition(text.Render());
  EXPECT_EQ(2, Value(e, "korvel_types"));
  EXPECT_TRUE(e.families.count("korvel_zookeeper_requests_total"));
}

TEST(MetricsTextTest, RefusesWhatWouldBreakTheFormat) {
  using Type = MetricsText::Type;
  MetricsText text;
  text.Declare("h_seconds", Type::kHistogram, "h");
  text.Declare("g", Type::kGauge, "g");
  text.Add("g", {{"a", "1"}}, 1);
  const std::string rendered = text.Render();

  EXPECT_THROW(text.Declare("1bad", Type::kGauge, ""), KorvelError);
  EXPECT_THROW(text.Declare("", Type::kGauge, ""), KorvelError);
  EXPECT_THROW(text.Declare("a-b", Type::kGauge, ""), KorvelError);
  EXPECT_THROW(text.Declare("requests", Type::kCounter, ""), KorvelError);
  EXPECT_THROW(text.Declare("g", Type::kCounter, "g"), KorvelError);
  EXPECT_THROW(text.Declare("g", Type::kGauge, "other help"), KorvelError);
  EXPECT_THROW(text.Declare("h_seconds_bucket", Type::kGauge, ""), KorvelError);
  EXPECT_THROW(text.Declare("h_seconds_count", Type::kGauge, ""), KorvelError);
  EXPECT_THROW(text.Add("nothing", {}, 1), KorvelError);
  EXPECT_THROW(text.Add("h_seconds", {}, 1), KorvelError);
  EXPECT_THROW(text.AddHistogram("g", {}, HistogramValue{{}, {0}, 0}), KorvelError);
  EXPECT_THROW(text.Add("g", {{"a", "1"}}, 2), KorvelError);
  EXPECT_THROW(text.Add("g", {{"__a", "1"}}, 2), KorvelError);
  EXPECT_THROW(text.Add("g", {{"a b", "1"}}, 2), KorvelError);
  EXPECT_THROW(text.Add("g", {{"b", "1"}, {"b", "2"}}, 2), KorvelError);
  EXPECT_THROW(text.AddHistogram("h_seconds", {{"le", "1"}}, HistogramValue{{}, {0}, 0}),
               KorvelError);
  EXPECT_THROW(text.AddHistogram("h_seconds", {}, HistogramValue{{2, 1}, {0, 0, 0}, 0}),
               KorvelError);
  EXPECT_THROW(text.AddHistogram("h_seconds", {}, HistogramValue{{1}, {0}, 0}), KorvelError);
  EXPECT_THROW(qx::korvel::Histogram({1, 1}), KorvelError);
  EXPECT_THROW(qx::korvel::Histogram({INFINITY}), KorvelError);
  EXPECT_EQ(rendered, text.Render()) << "a refusal changed nothing";

  text.Declare("g_sum", Type::kGauge, "");  // no histogram g: no clash
  text.Declare("x_count", Type::kGauge, "");
  EXPECT_THROW(text.Declare("x", Type::kHistogram, ""), KorvelError);
  text.Declare("c_total", Type::kCounter, "");
  EXPECT_THROW(text.Add("c_total", {}, -1), KorvelError);
  EXPECT_THROW(text.Add("c_total", {}, NAN), KorvelError);
}

// ---- The parser refuses broken text ---------------------------------------------

TEST(ExpositionParserTest, RefusesBrokenText) {
  const std::string head = "# HELP a_total A.\n# TYPE a_total counter\n";
  const std::string hist = "# HELP h H.\n# TYPE h histogram\n";
  const std::vector<std::pair<std::string, std::string>> broken = {
      {"no final newline", head + "a_total 1"},
      {"sample before TYPE", "a_total 1\n" + head},
      {"undeclared family", head + "b_total 1\n"},
      {"no HELP", "# TYPE a_total counter\na_total 1\n"},
      {"no TYPE", "# HELP a_total A.\na_total 1\n"},
      {"TYPE twice", head + "# TYPE a_total counter\na_total 1\n"},
      {"unknown type", "# HELP a A.\n# TYPE a meter\na 1\n"},
      {"counter without _total", "# HELP a A.\n# TYPE a counter\na 1\n"},
      {"negative counter", head + "a_total -1\n"},
      {"bad metric name", "# HELP 1a A.\n# TYPE 1a gauge\n1a 1\n"},
      {"bad label name", head + "a_total{1x=\"v\"} 1\n"},
      {"reserved label name", head + "a_total{__x=\"v\"} 1\n"},
      {"label twice", head + "a_total{x=\"1\",x=\"2\"} 1\n"},
      {"unquoted label value", head + "a_total{x=v} 1\n"},
      {"bad escape in label", head + "a_total{x=\"\\t\"} 1\n"},
      {"unescaped quote", head + "a_total{x=\"a\"b\"} 1\n"},
      {"unclosed labels", head + "a_total{x=\"a\" 1\n"},
      {"trailing comma", head + "a_total{x=\"a\",} 1\n"},
      {"bad escape in HELP", "# HELP a_total A\\t.\n# TYPE a_total counter\na_total 1\n"},
      {"bad value", head + "a_total one\n"},
      {"two spaces", head + "a_total  1\n"},
      {"bad timestamp", head + "a_total 1 soon\n"},
      {"duplicate sample", head + "a_total{x=\"1\"} 1\na_total{x=\"1\"} 2\n"},
      {"family split", head + "a_total 1\n# HELP b B.\n# TYPE b gauge\nb 1\na_total{x=\"1\"} 1\n"},
      {"carriage return", head + "a_total 1\r\n"},
      {"HELP only after samples", "# TYPE a_total counter\na_total 1\n# HELP a_total A.\n"},
      {"le not increasing", hist + "h_bucket{le=\"1\"} 0\nh_bucket{le=\"0.5\"} 0\n"
                                   "h_bucket{le=\"+Inf\"} 0\nh_sum 0\nh_count 0\n"},
      {"not cumulative", hist + "h_bucket{le=\"1\"} 2\nh_bucket{le=\"+Inf\"} 1\nh_sum 0\n"
                                "h_count 1\n"},
      {"no +Inf", hist + "h_bucket{le=\"1\"} 1\nh_sum 0\nh_count 1\n"},
      {"+Inf not last", hist + "h_bucket{le=\"+Inf\"} 1\nh_bucket{le=\"1\"} 1\nh_sum 0\n"
                               "h_count 1\n"},
      {"count differs", hist + "h_bucket{le=\"+Inf\"} 2\nh_sum 0\nh_count 1\n"},
      {"no _sum", hist + "h_bucket{le=\"+Inf\"} 1\nh_count 1\n"},
      {"bucket without le", hist + "h_bucket 1\nh_bucket{le=\"+Inf\"} 1\nh_sum 0\nh_count 1\n"},
      {"le on _sum", hist + "h_bucket{le=\"+Inf\"} 1\nh_sum{le=\"1\"} 0\nh_count 1\n"},
      {"histogram's own name", hist + "h 1\n"},
  };
  for (const auto& [why, text] : broken) {
    EXPECT_THROW(ParseExposition(text), ParseError) << why;
  }
  // And what is right passes.
  const Exposition ok = ParseExposition(
      head + "a_total{x=\"a\\\"\\\\\\n\"} 1 1700000000000\n" + hist +
      "h_bucket{le=\"0.5\"} 1\nh_bucket{le=\"+Inf\"} 2\nh_sum 1.5\nh_count 2\n# a comment\n");
  EXPECT_EQ(1, Value(ok, "a_total", {{"x", "a\"\\\n"}}));
  EXPECT_EQ(2, Value(ok, "h_count"));
}

}  // namespace
}  // namespace korvel::test
