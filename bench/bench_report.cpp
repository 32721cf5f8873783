// Merges the reports of the benchmark programs into one table on stdout and
// one JSON file, with a description of the machine and the run.
//
//   bench_report [--json OUT] [--markdown OUT] [--hosts HOSTS] [--server TEXT]
//                [--load-before "1m 5m 15m"] REPORT.json...
#include <sys/utsname.h>
#include <unistd.h>
#include <zookeeper/zookeeper_version.h>

#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>

#include "bench_util.h"
#include "zklocal/zklocal.h"

using namespace korvel::bench;
using nlohmann::json;

namespace {

// The value after ':' on the first line of `in` that starts with `key`.
std::string FieldOf(std::istream&& in, const std::string& key) {
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(key, 0) != 0) continue;
    const auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    const auto start = line.find_first_not_of(" \t", colon + 1);
    return start == std::string::npos ? "" : line.substr(start);
  }
  return "";
}

std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

json Machine(const std::string& hosts, const std::string& server, const std::string& loadBefore) {
  utsname names{};
  uname(&names);
  std::string zookeeper = "unknown";
  if (const auto colon = hosts.rfind(':'); colon != std::string::npos) {
    const std::string srvr = korvel::zklocal::FourLetterWord(std::stoi(hosts.substr(colon + 1)),
                                                             "srvr", std::chrono::seconds(2));
    const std::string version = FieldOf(std::istringstream(srvr), "Zookeeper version");
    // "3.8.0-<commit>, built on ...": the release.
    if (!version.empty()) zookeeper = version.substr(0, version.find_first_of("-,"));
  }
  const std::time_t now = std::time(nullptr);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  return {{"date", date},
          {"nproc", sysconf(_SC_NPROCESSORS_ONLN)},
          {"cpu", FieldOf(std::ifstream("/proc/cpuinfo"), "model name")},
          {"memory", FieldOf(std::ifstream("/proc/meminfo"), "MemTotal")},
          {"kernel", std::string(names.sysname) + " " + names.release},
          {"compiler", "gcc " __VERSION__},
          {"zookeeper_server", zookeeper + (server.empty() ? "" : " (" + server + ")")},
          {"zookeeper_c_client", ZOO_VERSION},
          {"load_before", loadBefore.empty() ? "unknown" : loadBefore},
          {"load_after", LoadAverage()}};
}

void WriteMarkdown(const std::vector<Row>& rows, const json& machine, const std::string& path) {
  std::ofstream out(path);
  out << "| workload | korvel | floor | ratio | throughput | goal | met |\n"
      << "| --- | ---: | ---: | ---: | ---: | --- | --- |\n";
  for (const Row& row : rows) {
    out << "| " << row.workload << " | ";
    for (const std::string& cell : Cells(row)) out << cell << " | ";
    out << MetCell(row, "yes", "**no**") << " |\n";
  }
  out << "\n";
  for (const Row& row : rows) {
    if (!row.note.empty()) out << "- " << row.workload << ": " << row.note << "\n";
  }
  out << "\n";
  for (const auto& [key, value] : machine.items()) {
    out << "- " << key << ": " << (value.is_string() ? value.get<std::string>() : value.dump())
        << "\n";
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string jsonPath, markdownPath, hosts, server, loadBefore;
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    std::string* target = arg == "--json"          ? &jsonPath
                          : arg == "--markdown"    ? &markdownPath
                          : arg == "--hosts"       ? &hosts
                          : arg == "--server"      ? &server
                          : arg == "--load-before" ? &loadBefore
                                                   : nullptr;
    if (target != nullptr && i + 1 < argc) {
      *target = argv[++i];
    } else {
      inputs.push_back(arg);
    }
  }
  std::vector<Row> rows;
  for (const std::string& input : inputs) {
    std::ifstream in(input);
    if (!in) {
      std::cerr << "bench_report: cannot read " << input << "\n";
      return 1;
    }
    const json report = json::parse(in);
    for (const json& row : report.at("rows")) rows.push_back(row.get<Row>());
  }
  const json machine = Machine(hosts, server, loadBefore);
  for (const auto& [key, value] : machine.items()) {
    std::printf("%-20s %s\n", key.c_str(),
                value.is_string() ? value.get<std::string>().c_str() : value.dump().c_str());
  }
  std::printf("\n");
  PrintTable(rows);
  int goals = 0, met = 0;
  for (const Row& row : rows) {
    if (row.goal.kind == Goal::kNone) continue;
    ++goals;
    met += row.Met();
  }
  std::printf("\n%d of %d goals met\n", met, goals);
  if (!jsonPath.empty()) {
    std::ofstream(jsonPath) << json{{"machine", machine}, {"rows", rows}}.dump(2) << "\n";
  }
  if (!markdownPath.empty()) WriteMarkdown(rows, machine, markdownPath);
  return 0;
}
