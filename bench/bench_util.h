// Shared pieces of the benchmark programs: timing, medians and the report.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

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

// One line of the report: a workload measured against its floor.
struct Row {
  std::string workload;
  double korvel;  // median, in the unit given
  double floor;   // median of the same work done directly with the C client
  std::string unit;
  double goal;  // the largest acceptable ratio; 0 when the row has no ratio goal
};

inline void PrintReport(const std::vector<Row>& rows, const char* jsonPath) {
  std::printf("%-44s %14s %14s %8s %8s\n", "workload", "korvel", "floor", "ratio", "goal");
  for (const Row& row : rows) {
    const double ratio = row.floor > 0 ? row.korvel / row.floor : 0;
    std::printf("%-44s %11.3f %-2s %11.3f %-2s %8.2f %8s\n", row.workload.c_str(), row.korvel,
                row.unit.c_str(), row.floor, row.unit.c_str(), ratio,
                row.goal > 0 ? (std::to_string(row.goal).substr(0, 4) + "x").c_str() : "-");
  }
  if (jsonPath == nullptr) return;
  if (FILE* out = std::fopen(jsonPath, "w")) {
    std::fprintf(out, "[\n");
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const Row& row = rows[i];
      std::fprintf(out,
                   "  {\"workload\": \"%s\", \"korvel\": %.6f, \"floor\": %.6f, \"unit\": \"%s\", "
                   "\"ratio\": %.4f, \"goal\": %.2f}%s\n",
                   row.workload.c_str(), row.korvel, row.floor, row.unit.c_str(),
                   row.floor > 0 ? row.korvel / row.floor : 0, row.goal,
                   i + 1 < rows.size() ? "," : "");
    }
    std::fprintf(out, "]\n");
    std::fclose(out);
  }
}

}  // namespace korvel::bench
