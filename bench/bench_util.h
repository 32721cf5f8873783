// Shared pieces of the benchmark programs: arguments, timing, medians,
// interleaved measurement, setup through korvel, a bare C-client session for
// the floors, and the report (a table on stdout, rows as JSON for bench_report).
#pragma once

#include <sys/types.h>
#include <unistd.h>
#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <korvel/connection_v2.h>
#include <korvel/service_id.h>
#include <korvel/tree.h>
#include <stlext/uuid.h>
#include <nlohmann/json.hpp>

namespace korvel::bench {

using Clock = std::chrono::steady_clock;

inline double Seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

inline double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t mid = values.size() / 2;
  return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

// Seconds that `work` takes.
template <typename Work>
double Time(Work&& work) {
  const auto start = Clock::now();
  work();
  return Seconds(Clock::now() - start);
}

// Samples of two ways of doing the same work, taken alternately.
template <typename Sample>
struct Samples {
  std::vector<Sample> korvel, floor;
};

// Runs `korvel` and `floor` (each returns its sample: seconds, or an array
// of figures) `rounds` times each, interleaved, the order swapped every round
// (A B, B A, A B, ...) so that neither always runs right after the other.
// The first `warmup` rounds are not kept.
template <typename A, typename B>
auto Interleave(int rounds, int warmup, A&& korvel, B&& floor) {
  Samples<decltype(korvel())> samples;
  for (int r = -warmup; r < rounds; ++r) {
    decltype(korvel()) a, b;
    if (r % 2 == 0) {
      a = korvel();
      b = floor();
    } else {
      b = floor();
      a = korvel();
    }
    if (r < 0) continue;
    samples.korvel.push_back(a);
    samples.floor.push_back(b);
  }
  return samples;
}

// The median of figure `i` of array samples.
template <std::size_t N>
double Median(const std::vector<std::array<double, N>>& samples, std::size_t i) {
  std::vector<double> column;
  for (const auto& sample : samples) column.push_back(sample[i]);
  return Median(column);
}

// ---- Processes --------------------------------------------------------------

// Resident memory (bytes) of process `pid`.
inline double ResidentBytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) * 1024;
  }
  throw std::runtime_error("no VmRSS for process " + std::to_string(pid));
}

// CPU seconds (user and system) of process `pid`, all its threads; with `reapedChildren`, those
// of the children that it has reaped instead.
inline double CpuSeconds(pid_t pid, bool reapedChildren = false) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  const std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::vector<std::string> values{"", "", ""};  // fields 1 and 2 are before the name's end
  for (std::string field; fields >> field;) values.push_back(field);
  const std::size_t user = reapedChildren ? 16 : 14;  // utime, stime; cutime, cstime
  return (std::stod(values.at(user)) + std::stod(values.at(user + 1))) /
         static_cast<double>(sysconf(_SC_CLK_TCK));
}

// ---- Arguments ------------------------------------------------------------

// PROGRAM HOSTS [--quick] [--json FILE] [--NAME VALUE ...]
struct Args {
  std::string hosts;
  bool quick = false;
  std::string json;
  std::vector<std::pair<std::string, std::string>> options;

  Args(int argc, char** argv, bool needHosts = true) {
    for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      if (arg == "--quick") {
        quick = true;
      } else if (arg == "--json" && i + 1 < argc) {
        json = argv[++i];
      } else if (arg.rfind("--", 0) == 0 && i + 1 < argc) {
        options.emplace_back(arg.substr(2), argv[++i]);
      } else if (arg.rfind("--", 0) != 0 && hosts.empty()) {
        hosts = arg;
      } else {
        throw std::invalid_argument("unexpected argument '" + arg + "'");
      }
    }
    if (needHosts && hosts.empty()) {
      throw std::invalid_argument(std::string("usage: ") + argv[0] +
                                  " HOSTS [--quick] [--json FILE] [--NAME VALUE ...]");
    }
  }

  // Option --name, else `fallback`.
  std::string Option(const std::string& name, const std::string& fallback) const {
    for (const auto& [key, value] : options) {
      if (key == name) return value;
    }
    return fallback;
  }
  // Option --name, else `full`, or `quickValue` with --quick.
  int Int(const std::string& name, int full, int quickValue) const {
    const std::string value = Option(name, "");
    return value.empty() ? (quick ? quickValue : full) : std::stoi(value);
  }
};

// Progress on stderr, so that stdout carries the report only.
template <typename... T>
void Progress(const char* format, T... values) {
  std::fprintf(stderr, format, values...);
  std::fputc('\n', stderr);
}

// ---- The report -------------------------------------------------------------

// What a row is judged by.
struct Goal {
  enum Kind { kNone, kRatioAtMost, kValueAtMost, kValueAtLeast };
  Kind kind = kNone;
  double value = 0;
  std::string text;  // how the goal reads in the table
};

inline Goal RatioAtMost(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "<= %.2fx", value);
  return {Goal::kRatioAtMost, value, text};
}
// The work is at least `factor` times faster than its comparison.
inline Goal FasterBy(double factor) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0fx faster", factor);
  return {Goal::kRatioAtMost, 1 / factor, text};
}
inline Goal ValueAtMost(double value, const std::string& unit) {
  char text[32];
  std::snprintf(text, sizeof text, "<= %g %s", value, unit.c_str());
  return {Goal::kValueAtMost, value, text};
}
inline Goal ValueAtLeast(double value, const std::string& unit) {
  char text[32];
  std::snprintf(text, sizeof text, ">= %g %s", value, unit.c_str());
  return {Goal::kValueAtLeast, value, text};
}

// One line of the report: a workload measured against its floor.
struct Row {
  Row() = default;
  Row(std::string workload, double korvel, double floor, std::string unit, Goal goal,
      double throughput = 0, std::string throughputUnit = "", std::string note = "")
      : workload(std::move(workload)),
        korvel(korvel),
        floor(floor),
        unit(std::move(unit)),
        goal(std::move(goal)),
        throughput(throughput),
        throughputUnit(std::move(throughputUnit)),
        note(std::move(note)) {}

  std::string workload;
  double korvel = 0;  // median, in `unit`
  double floor = 0;   // median of the same work done directly with the C client; 0: none
  std::string unit;
  Goal goal;
  double throughput = 0;  // korvel's rate, in `throughputUnit`; 0: not applicable
  std::string throughputUnit;
  std::string note;  // printed below the table

  double Ratio() const { return floor > 0 ? korvel / floor : 0; }
  bool Met() const {
    switch (goal.kind) {
      case Goal::kRatioAtMost:
        return floor > 0 && Ratio() <= goal.value;
      case Goal::kValueAtMost:
        return korvel <= goal.value;
      case Goal::kValueAtLeast:
        return korvel >= goal.value;
      case Goal::kNone:
        break;
    }
    return true;
  }
};

inline void to_json(nlohmann::json& out, const Row& row) {
  out = {{"workload", row.workload},
         {"korvel", row.korvel},
         {"floor", row.floor},
         {"unit", row.unit},
         {"ratio", row.Ratio()},
         {"throughput", row.throughput},
         {"throughput_unit", row.throughputUnit},
         {"goal", row.goal.text},
         {"goal_kind", static_cast<int>(row.goal.kind)},
         {"goal_value", row.goal.value},
         {"met", row.goal.kind == Goal::kNone ? nlohmann::json() : nlohmann::json(row.Met())},
         {"note", row.note}};
}

inline void from_json(const nlohmann::json& in, Row& row) {
  row.workload = in.at("workload");
  row.korvel = in.at("korvel");
  row.floor = in.at("floor");
  row.unit = in.at("unit");
  row.throughput = in.at("throughput");
  row.throughputUnit = in.at("throughput_unit");
  row.goal = {static_cast<Goal::Kind>(in.at("goal_kind").get<int>()), in.at("goal_value"),
              in.at("goal")};
  row.note = in.at("note");
}

// A number with three significant digits at least, no exponent.
inline std::string Figure(double value) {
  char text[32];
  const double magnitude = value < 0 ? -value : value;
  std::snprintf(text, sizeof text,
                magnitude >= 100 ? "%.0f"
                : magnitude >= 1 ? "%.2f"
                                 : "%.3f",
                value);
  return text;
}

// The cells of a row's korvel figure, floor, ratio, throughput and goal.
inline std::array<std::string, 5> Cells(const Row& row) {
  return {Figure(row.korvel) + " " + row.unit,
          row.floor > 0 ? Figure(row.floor) + " " + row.unit : "-",
          row.floor > 0 ? Figure(row.Ratio()) : "-",
          row.throughput > 0 ? Figure(row.throughput) + " " + row.throughputUnit : "-",
          row.goal.text.empty() ? "-" : row.goal.text};
}

// "-" without a goal, else `yes` or `no` as the goal is met.
inline const char* MetCell(const Row& row, const char* yes, const char* no) {
  return row.goal.kind == Goal::kNone ? "-" : row.Met() ? yes : no;
}

inline void PrintTable(const std::vector<Row>& rows) {
  std::printf("%-48s %13s %13s %6s %16s %13s %4s\n", "workload", "korvel", "floor", "ratio",
              "throughput", "goal", "met");
  for (const Row& row : rows) {
    const auto cells = Cells(row);
    std::printf("%-48s %13s %13s %6s %16s %13s %4s\n", row.workload.c_str(), cells[0].c_str(),
                cells[1].c_str(), cells[2].c_str(), cells[3].c_str(), cells[4].c_str(),
                MetCell(row, "yes", "NO"));
  }
  for (const Row& row : rows) {
    if (!row.note.empty()) std::printf("  %s: %s\n", row.workload.c_str(), row.note.c_str());
  }
}

// Prints the table and, when `jsonPath` is not empty, writes the rows there.
inline void PrintReport(const std::vector<Row>& rows, const std::string& jsonPath) {
  PrintTable(rows);
  if (jsonPath.empty()) return;
  std::ofstream(jsonPath) << nlohmann::json{{"rows", rows}}.dump(2) << "\n";
}

// ---- Through korvel: the setup ----------------------------------------------

inline std::string NewId() {
  return qx::uuid::to_string(qx::korvel::RandomServiceId());
}

// A service type name of its own for one run: "bench-xxxxxxxx".
inline std::string UniqueType() {
  return "bench-" + NewId().substr(0, 8);
}

inline void Check(int rc, const char* what) {
  if (rc != ZOK) throw std::runtime_error(std::string(what) + ": " + zerror(rc));
}

// Creates the nodes in order, with every request of a batch in flight.
inline void CreateBatched(const qx::korvel::Connection& conn,
                          const std::vector<qx::korvel::Connection::CreateRequest>& nodes) {
  constexpr std::size_t kBatch = 8000;
  for (std::size_t begin = 0; begin < nodes.size(); begin += kBatch) {
    const std::vector<qx::korvel::Connection::CreateRequest> batch(
        nodes.begin() + static_cast<std::ptrdiff_t>(begin),
        nodes.begin() + static_cast<std::ptrdiff_t>(std::min(nodes.size(), begin + kBatch)));
    for (int rc : conn.CreateAll(batch, ZOO_OPEN_ACL_UNSAFE)) Check(rc, "create");
  }
}

// The data node of instance `id` (canonical text) of `type`.
inline std::string DataPath(const std::string& type, const std::string& id) {
  qx::korvel::ServiceId parsed;
  qx::uuid::from_string(id, parsed);
  return qx::korvel::tree::DataPath(type, parsed);
}

// The nodes of instance `id` of `type` as registration leaves them, parents first: the data
// node, every own attribute ("up" as status), the liveness node. All persistent, so that they
// outlive the session that writes them.
inline std::vector<qx::korvel::Connection::CreateRequest> InstanceNodes(const std::string& type,
                                                                        const std::string& id) {
  namespace tree = qx::korvel::tree;
  const std::string root = DataPath(type, id);
  std::vector<qx::korvel::Connection::CreateRequest> nodes{{root, "", 0}};
  for (std::size_t a = 0; a < tree::kOwnAttributeCount; ++a) {
    nodes.push_back({root + "/" + tree::kOwnAttributeNames[a], a == tree::kStatus ? "up" : "x", 0});
  }
  nodes.push_back({tree::AliveDir(type) + "/" + id, "", 0});
  return nodes;
}

// ---- A bare C-client session: the floors -----------------------------------

// Counts asynchronous completions down and lets one thread wait for them all.
class Completions {
 public:
  explicit Completions(int count) : m_left(count) {}
  void Done() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (--m_left == 0) m_cv.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [this] { return m_left == 0; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  int m_left;
};

// The moment something happened, marked by one thread (a callback) and
// awaited by another without spinning.
class Moment {
 public:
  void Reset() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_at = {};
  }
  void Mark() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_at == Clock::time_point{}) m_at = Clock::now();
    m_cv.notify_all();
  }
  // Throws after 10 s without a mark.
  Clock::time_point Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_cv.wait_for(lock, std::chrono::seconds(10),
                       [this] { return m_at != Clock::time_point{}; })) {
      throw std::runtime_error("no event within 10 s");
    }
    return m_at;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  Clock::time_point m_at{};
};

// One session of the multi-threaded C client and nothing else.
class RawClient {
 public:
  explicit RawClient(const std::string& hosts) {
    zoo_set_debug_level(ZOO_LOG_LEVEL_ERROR);
    m_zh = zookeeper_init(hosts.c_str(), &RawClient::OnSession, 10000, nullptr, this, 0);
    if (m_zh == nullptr) throw std::runtime_error("zookeeper_init failed");
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_cv.wait_for(lock, std::chrono::seconds(10), [this] { return m_connected; })) {
      throw std::runtime_error("no ZooKeeper session within 10 s");
    }
  }
  ~RawClient() { zookeeper_close(m_zh); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  zhandle_t* zh() const { return m_zh; }

  // The children of every path, all listings in flight together.
  std::vector<std::vector<std::string>> ListAll(const std::vector<std::string>& paths) const {
    struct Listing {
      Completions* done;
      std::vector<std::string>* names;
    };
    std::vector<std::vector<std::string>> children(paths.size());
    std::vector<Listing> listings(paths.size());
    Completions done(static_cast<int>(paths.size()));
    for (std::size_t i = 0; i < paths.size(); ++i) {
      listings[i] = {&done, &children[i]};
      const int rc = zoo_aget_children(
          m_zh, paths[i].c_str(), 0,
          [](int rc, const String_vector* names, const void* data) {
            const auto* listing = static_cast<const Listing*>(data);
            if (rc == ZOK) listing->names->assign(names->data, names->data + names->count);
            listing->done->Done();
          },
          &listings[i]);
      if (rc != ZOK) done.Done();
    }
    done.Wait();
    return children;
  }

  // Deletes the nodes, in their order, in multi requests of up to `perMulti` deletes, all of
  // them in flight together; the first failure's code, or ZOK.
  int DeleteInMultis(const std::vector<std::string>& paths, std::size_t perMulti) const {
    struct Multi {
      std::vector<zoo_op_t> ops;
      std::vector<zoo_op_result_t> results;
      Completions* done = nullptr;
      int rc = ZOK;
    };
    std::vector<Multi> multis((paths.size() + perMulti - 1) / perMulti);
    Completions done(static_cast<int>(multis.size()));
    for (std::size_t m = 0; m < multis.size(); ++m) {
      Multi& multi = multis[m];
      const std::size_t begin = m * perMulti, end = std::min(paths.size(), begin + perMulti);
      multi.ops.resize(end - begin);
      multi.results.resize(end - begin);
      multi.done = &done;
      for (std::size_t i = begin; i < end; ++i) {
        zoo_delete_op_init(&multi.ops[i - begin], paths[i].c_str(), -1);
      }
      multi.rc = zoo_amulti(
          m_zh, static_cast<int>(multi.ops.size()), multi.ops.data(), multi.results.data(),
          [](int rc, const void* data) {
            auto* multi = static_cast<Multi*>(const_cast<void*>(data));
            multi->rc = rc;
            multi->done->Done();
          },
          &multi);
      if (multi.rc != ZOK) done.Done();
    }
    done.Wait();
    for (const Multi& multi : multis) {
      if (multi.rc != ZOK) return multi.rc;
    }
    return ZOK;
  }

  // The nodes of the subtrees of `roots`, deepest first: listed a level at a time, each level's
  // listings all in flight together.
  std::vector<std::string> SubtreesDeepestFirst(std::vector<std::string> roots) const {
    std::vector<std::vector<std::string>> levels{std::move(roots)};
    while (!levels.back().empty()) {
      const auto children = ListAll(levels.back());
      std::vector<std::string> next;
      for (std::size_t i = 0; i < children.size(); ++i) {
        for (const auto& child : children[i]) next.push_back(levels.back()[i] + "/" + child);
      }
      levels.push_back(std::move(next));
    }
    std::vector<std::string> deepestFirst;
    for (auto level = levels.rbegin(); level != levels.rend(); ++level) {
      deepestFirst.insert(deepestFirst.end(), level->begin(), level->end());
    }
    return deepestFirst;
  }

  // Deletes the nodes in one zoo_multi; the result code.
  int DeleteInOneMulti(const std::vector<std::string>& paths) const {
    std::vector<zoo_op_t> ops(paths.size());
    std::vector<zoo_op_result_t> results(paths.size());
    for (std::size_t i = 0; i < paths.size(); ++i) {
      zoo_delete_op_init(&ops[i], paths[i].c_str(), -1);
    }
    return zoo_multi(m_zh, static_cast<int>(ops.size()), ops.data(), results.data());
  }

 private:
  static void OnSession(zhandle_t*, int type, int state, const char*, void* context) {
    if (type != ZOO_SESSION_EVENT || state != ZOO_CONNECTED_STATE) return;
    auto* self = static_cast<RawClient*>(context);
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_connected = true;
    self->m_cv.notify_all();
  }

  zhandle_t* m_zh = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_connected = false;
};

}  // namespace korvel::bench
