// A strict parser of the Prometheus text exposition format 0.0.4, for the tests that read what
// korvel renders (the library's RenderMetrics, the /metrics answer of `korvel serve`). It refuses
// what a scraper might take but the format does not allow: a sample before its family's HELP and
// TYPE, a family's lines apart, duplicate samples, bad names, escapes or numbers, a counter not
// named *_total or below zero, and histograms whose buckets are not increasing and cumulative
// with +Inf last and _count equal to it.
#pragma once

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace korvel::test {

using Labels = std::vector<std::pair<std::string, std::string>>;

struct Sample {
  std::string name;
  Labels labels;  // in the order written
  double value;
};

struct Family {
  std::string type;
  std::string help;
  bool hasHelp = false;
  bool hasType = false;
  std::vector<Sample> samples;
};

struct Exposition {
  std::vector<std::string> order;  // family names as they appeared
  std::map<std::string, Family> families;

  // The value of the sample with exactly these labels (in any order).
  std::optional<double> Value(const std::string& name, Labels labels = {}) const;
};

// What ParseExposition throws for text that breaks the format, naming the line.
struct ParseError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The families and samples of `text`; throws ParseError.
Exposition ParseExposition(const std::string& text);

}  // namespace korvel::test
