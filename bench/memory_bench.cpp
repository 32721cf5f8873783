// Memory of registered services, in a process of its own:
// - one Connection holding many registered Service objects: heap bytes
//   (mallinfo2, all arenas) and resident bytes per service;
// - register/teardown cycles (each service subscribed to session events, as
//   applications do): resident and heap memory at checkpoints, and their
//   growth after the first checkpoint.
//
//   memory_bench HOSTS [--quick] [--json FILE] [--services N] [--cycles N]
#include <korvel/service.h>
#include <korvel/tree.h>
#include <korvel/utils.h>
#include <logger/logger.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>

#include "bench_util.h"

using namespace std::chrono_literals;
using namespace korvel::bench;
using qx::korvel::Connection;
using qx::korvel::Service;

namespace {

struct Usage {
  double resident;  // bytes
  double heap;      // bytes allocated and not freed
};

Usage Measure() {
  std::size_t pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  const struct mallinfo2 info = mallinfo2();
  return {static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)),
          static_cast<double>(info.uordblks + info.hblkhd)};
}

std::shared_ptr<Service> Register(const std::shared_ptr<Connection>& conn,
                                  const std::string& type) {
  auto service = std::make_shared<Service>(conn, type, "memory");
  service->RegisterForSessionEvent();
  return service;
}

}  // namespace

int main(int argc, char** argv) {
  const Args args(argc, argv);
  const int count = args.Int("services", 1000, 100);
  const int cycles = args.Int("cycles", 10000, 500);
  unsetenv("CHEF_RECIPE_NAME");
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);
  auto conn = std::make_shared<Connection>(args.hosts, 10s);
  const std::string type = UniqueType();
  std::vector<Row> rows;

  // Cycles first, so that nothing held before distorts them. The first tenth
  // lets allocator and client settle; growth is counted from there.
  Progress("memory: %d register/teardown cycles", cycles);
  const int step = std::max(1, cycles / 10);
  std::vector<std::pair<int, Usage>> checkpoints;
  const auto start = Clock::now();
  for (int c = 1; c <= cycles; ++c) {
    Register(conn, type).reset();
    if (c % step == 0) checkpoints.emplace_back(c, Measure());
  }
  const double perCycle = Seconds(Clock::now() - start) / cycles;
  std::string residentNote = "RSS at cycles", heapNote = "heap at cycles";
  for (const auto& [cycle, usage] : checkpoints) {
    residentNote += " " + std::to_string(cycle) + ":" + Figure(usage.resident / 1024) + "K";
    heapNote += " " + std::to_string(cycle) + ":" + Figure(usage.heap / 1024) + "K";
  }
  const Usage& first = checkpoints.front().second;
  const Usage& last = checkpoints.back().second;
  const std::string span =
      std::to_string(checkpoints.front().first) + "-" + std::to_string(checkpoints.back().first);
  rows.emplace_back("resident growth, cycles " + span, (last.resident - first.resident) / 1024, 0,
                    "KiB", ValueAtMost(256, "KiB"), 1 / perCycle, "cycles/s", residentNote);
  rows.emplace_back("heap growth, cycles " + span, (last.heap - first.heap) / 1024, 0, "KiB",
                    ValueAtMost(64, "KiB"), 0, "", heapNote);

  // Many held at once.
  Progress("memory: %d services held", count);
  std::vector<std::shared_ptr<Service>> services;
  services.reserve(static_cast<std::size_t>(count));
  const Usage before = Measure();
  for (int i = 0; i < count; ++i) services.push_back(Register(conn, type));
  const Usage held = Measure();
  services.clear();
  rows.emplace_back("heap per registered service", (held.heap - before.heap) / count, 0, "B",
                    Goal{}, 0, "", "mallinfo2 over all arenas, " + std::to_string(count) + " held");
  rows.emplace_back("resident memory per registered service",
                    (held.resident - before.resident) / count, 0, "B", Goal{}, 0, "",
                    "RSS delta, " + std::to_string(count) + " held");

  qx::korvel::RecursiveDelete(*conn, qx::korvel::tree::DataDir(type));
  qx::korvel::RecursiveDelete(*conn, qx::korvel::tree::AliveDir(type));
  PrintReport(rows, args.json);
  return 0;
}
