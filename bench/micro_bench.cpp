// Micro-benchmarks (Google Benchmark) of the logging facade against spdlog
// and of the small helpers on the registry's paths. Every benchmark is
// registered once per round, the rounds interleaved (korvel, comparison,
// korvel, ...); the report takes the median of the rounds' CPU times.
//
//   micro_bench [--quick] [--json FILE] [--rounds N] [--benchmark_... flags]
#include <benchmark/benchmark.h>
#include <korvel/service_id.h>
#include <korvel/utils.h>
#include <logger/logger.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <stlext/uuid.h>

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstring>
#include <map>

#include "bench_util.h"

using namespace korvel::bench;
namespace logging = qx::logging;

namespace {

const logging::ConstSourcePtr g_source = logging::MakeSource("bench.micro");
const std::string kType = "billing";

// A record's text: two literals, a number and a string.
void LogDisabled(benchmark::State& state) {
  logging::SetMinimumLoggingLevel(logging::QXLOG_INFO);
  int i = 0;
  for (auto _ : state) {
    QXLOG(g_source, logging::QXLOG_DEBUG) << "registered instance " << ++i << " of type " << kType;
  }
}

void SpdlogDisabled(benchmark::State& state) {
  spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
  logger.set_level(spdlog::level::info);
  int i = 0;
  for (auto _ : state) logger.debug("registered instance {} of type {}", ++i, kType);
}

// Enabled, to a handler that discards the record.
void LogEnabled(benchmark::State& state) {
  logging::SetMinimumLoggingLevel(logging::QXLOG_INFO);
  const int handler = logging::AddLogHandler([](const logging::LogRecord&) {});
  int i = 0;
  for (auto _ : state) {
    QXLOG(g_source, logging::QXLOG_INFO) << "registered instance " << ++i << " of type " << kType;
  }
  logging::RemoveLogHandler(handler);
}

// Enabled, to spdlog's null sink (which formats the message, not a pattern).
void SpdlogEnabled(benchmark::State& state) {
  spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
  logger.set_level(spdlog::level::info);
  int i = 0;
  for (auto _ : state) logger.info("registered instance {} of type {}", ++i, kType);
}

void NormalizePath(benchmark::State& state) {
  const qx::String path = "//srv///billing/eu-1/";
  for (auto _ : state) benchmark::DoNotOptimize(qx::korvel::NormalizePath(path));
}

void UuidText(benchmark::State& state) {
  const auto id = qx::korvel::RandomServiceId();
  for (auto _ : state) benchmark::DoNotOptimize(qx::uuid::to_string(id));
}

void UuidTextBoost(benchmark::State& state) {
  const auto id = qx::korvel::RandomServiceId();
  for (auto _ : state) benchmark::DoNotOptimize(boost::uuids::to_string(id));
}

void ServiceIdParse(benchmark::State& state) {
  const qx::String text = qx::uuid::to_string(qx::korvel::RandomServiceId());
  qx::korvel::ServiceId id;
  for (auto _ : state) {
    benchmark::DoNotOptimize(qx::uuid::from_string(text, id));
    benchmark::DoNotOptimize(id);
  }
}

void ServiceIdParseLexicalCast(benchmark::State& state) {
  const qx::String text = qx::uuid::to_string(qx::korvel::RandomServiceId());
  for (auto _ : state) {
    benchmark::DoNotOptimize(boost::lexical_cast<qx::korvel::ServiceId>(text));
  }
}

void RandomServiceId(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(qx::korvel::RandomServiceId());
}

// Keeps each benchmark's CPU time per iteration, by name, and prints as usual.
class Collector : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      const std::string name = run.benchmark_name();
      times[name.substr(0, name.find('#'))].push_back(run.GetAdjustedCPUTime());
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double MedianOf(const std::string& name) const {
    auto it = times.find(name);
    return it == times.end() ? 0 : Median(it->second);
  }

  std::map<std::string, std::vector<double>> times;
};

}  // namespace

int main(int argc, char** argv) {
  // Our own flags first; the rest goes to Google Benchmark.
  std::vector<char*> forwarded{argv[0]};
  std::vector<char*> ours{argv[0]};
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--benchmark_", 12) == 0) {
      forwarded.push_back(argv[i]);
    } else {
      ours.push_back(argv[i]);
    }
  }
  const Args args(static_cast<int>(ours.size()), ours.data(), false);
  static char quickTime[] = "--benchmark_min_time=0.01";
  if (args.quick) forwarded.push_back(quickTime);
  int forwardedCount = static_cast<int>(forwarded.size());
  benchmark::Initialize(&forwardedCount, forwarded.data());
  if (benchmark::ReportUnrecognizedArguments(forwardedCount, forwarded.data())) return 1;

  const std::pair<const char*, void (*)(benchmark::State&)> benchmarks[] = {
      {"log_disabled", LogDisabled},
      {"spdlog_disabled", SpdlogDisabled},
      {"log_enabled", LogEnabled},
      {"spdlog_enabled", SpdlogEnabled},
      {"normalize_path", NormalizePath},
      {"uuid_text", UuidText},
      {"uuid_text_boost", UuidTextBoost},
      {"service_id_parse", ServiceIdParse},
      {"service_id_parse_lexical_cast", ServiceIdParseLexicalCast},
      {"random_service_id", RandomServiceId},
  };
  const int rounds = args.Int("rounds", 5, 1);
  for (int r = 0; r < rounds; ++r) {
    for (const auto& [name, function] : benchmarks) {
      benchmark::RegisterBenchmark((std::string(name) + "#" + std::to_string(r)).c_str(), function)
          ->Unit(benchmark::kNanosecond);
    }
  }
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  benchmark::Shutdown();

  const auto row = [&](const char* workload, const char* korvel, const char* comparison, Goal goal,
                       const char* note) {
    const double ns = collector.MedianOf(korvel);
    return Row(workload, ns, comparison ? collector.MedianOf(comparison) : 0, "ns", std::move(goal),
               ns > 0 ? 1e3 / ns : 0, "M/s", note);
  };
  std::vector<Row> rows{
      row("log statement below the minimum level", "log_disabled", "spdlog_disabled",
          ValueAtMost(1, "ns"), "comparison: spdlog's logger.debug() below its level"),
      row("log record to a discarding handler", "log_enabled", "spdlog_enabled", RatioAtMost(1.5),
          "comparison: spdlog's logger.info(), same text, to null_sink_mt"),
      row("NormalizePath", "normalize_path", nullptr, Goal{}, ""),
      row("ServiceId to text (uuid::to_string)", "uuid_text", "uuid_text_boost", Goal{},
          "comparison: boost::uuids::to_string"),
      row("ServiceId from text (uuid::from_string)", "service_id_parse",
          "service_id_parse_lexical_cast", Goal{}, "comparison: boost::lexical_cast"),
      row("RandomServiceId", "random_service_id", nullptr, Goal{}, ""),
  };
  std::printf("\n");
  PrintReport(rows, args.json);
  return 0;
}
