#include "util/prometheus_text.h"

#include <algorithm>
#include <cmath>
#include <regex>
#include <set>

namespace korvel::test {
namespace {

const std::regex kMetricName("[a-zA-Z_:][a-zA-Z0-9_:]*");
const std::regex kLabelName("[a-zA-Z_][a-zA-Z0-9_]*");
const std::regex kNumber(R"([-+]?([0-9]+\.?[0-9]*|\.[0-9]+)([eE][-+]?[0-9]+)?|[-+]?Inf|NaN)");
const std::regex kTimestamp("-?[0-9]+");
const std::set<std::string> kTypes = {"counter", "gauge", "histogram", "summary", "untyped"};

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

Labels Sorted(Labels labels) {
  std::sort(labels.begin(), labels.end());
  return labels;
}

}  // namespace

std::optional<double> Exposition::Value(const std::string& name, Labels labels) const {
  labels = Sorted(labels);
  for (const auto& [familyName, family] : families) {
    for (const Sample& sample : family.samples) {
      if (sample.name == name && Sorted(sample.labels) == labels) return sample.value;
    }
  }
  return std::nullopt;
}

namespace {

double ParseNumber(const std::string& text) {
  if (!std::regex_match(text, kNumber)) throw ParseError("bad number '" + text + "'");
  if (text == "+Inf" || text == "Inf") return INFINITY;
  if (text == "-Inf") return -INFINITY;
  if (text == "NaN") return NAN;
  return std::stod(text);
}

// Undoes the escapes of a HELP text (\\ and \n) or of a label value (also \").
std::string Unescape(const std::string& text, bool quote) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      if (quote && text[i] == '"') throw ParseError("unescaped quote");
      out += text[i];
      continue;
    }
    if (++i == text.size()) throw ParseError("backslash at the end");
    if (text[i] == '\\') {
      out += '\\';
    } else if (text[i] == 'n') {
      out += '\n';
    } else if (text[i] == '"' && quote) {
      out += '"';
    } else {
      throw ParseError(std::string("bad escape \\") + text[i]);
    }
  }
  return out;
}

// name{a="x",b="y"} value [timestamp]
Sample ParseSample(const std::string& line) {
  Sample sample;
  std::size_t pos = 0;
  while (pos < line.size() && line[pos] != '{' && line[pos] != ' ') ++pos;
  sample.name = line.substr(0, pos);
  if (!std::regex_match(sample.name, kMetricName)) throw ParseError("bad metric name");
  if (pos < line.size() && line[pos] == '{') {
    ++pos;
    while (pos < line.size() && line[pos] != '}') {
      if (!sample.labels.empty()) {
        if (line[pos] != ',') throw ParseError("labels not separated by ','");
        ++pos;
      }
      const std::size_t eq = line.find('=', pos);
      if (eq == std::string::npos) throw ParseError("label without '='");
      const std::string name = line.substr(pos, eq - pos);
      if (!std::regex_match(name, kLabelName) || name.compare(0, 2, "__") == 0) {
        throw ParseError("bad label name '" + name + "'");
      }
      for (const auto& label : sample.labels) {
        if (label.first == name) throw ParseError("label given twice");
      }
      if (eq + 1 >= line.size() || line[eq + 1] != '"') throw ParseError("label value not quoted");
      std::size_t end = eq + 2;
      while (end < line.size() && line[end] != '"') end += line[end] == '\\' ? 2 : 1;
      if (end >= line.size()) throw ParseError("label value not closed");
      sample.labels.emplace_back(name, Unescape(line.substr(eq + 2, end - eq - 2), true));
      pos = end + 1;
    }
    if (pos >= line.size()) throw ParseError("labels not closed");
    ++pos;
  }
  if (pos >= line.size() || line[pos] != ' ') throw ParseError("no single space before value");
  const std::string rest = line.substr(pos + 1);
  const std::size_t space = rest.find(' ');
  sample.value = ParseNumber(rest.substr(0, space));
  if (space != std::string::npos && !std::regex_match(rest.substr(space + 1), kTimestamp)) {
    throw ParseError("bad timestamp");
  }
  return sample;
}

// The family a sample belongs to: its own name, or a histogram's or
// summary's _bucket, _sum or _count.
std::string FamilyOf(const Exposition& exposition, const std::string& sampleName) {
  const auto declared = [&](const std::string& name) {
    const auto it = exposition.families.find(name);
    return it != exposition.families.end() && it->second.hasType ? &it->second : nullptr;
  };
  if (declared(sampleName)) return sampleName;
  for (const std::string suffix : {"_bucket", "_sum", "_count"}) {
    if (!EndsWith(sampleName, suffix)) continue;
    const std::string base = sampleName.substr(0, sampleName.size() - suffix.size());
    const Family* family = declared(base);
    if (family &&
        (family->type == "histogram" || (family->type == "summary" && suffix != "_bucket"))) {
      return base;
    }
  }
  throw ParseError("sample '" + sampleName + "' of no declared family");
}

// The buckets of one histogram and label set: `le` increasing, +Inf last,
// counts cumulative, _count equal to the +Inf bucket, _sum present.
void CheckHistogram(const std::string& name, const Family& family) {
  struct Series {
    std::vector<std::pair<double, double>> buckets;  // le, count
    std::optional<double> sum, count;
  };
  std::map<Labels, Series> series;
  for (const Sample& sample : family.samples) {
    Labels rest;
    std::optional<double> le;
    for (const auto& label : sample.labels) {
      if (label.first == "le") {
        le = ParseNumber(label.second);
      } else {
        rest.push_back(label);
      }
    }
    Series& s = series[Sorted(rest)];
    if (sample.name == name + "_bucket") {
      if (!le) throw ParseError("bucket without le");
      if (!s.buckets.empty() && !(s.buckets.back().first < *le)) {
        throw ParseError("le not increasing");
      }
      if (!s.buckets.empty() && s.buckets.back().second > sample.value) {
        throw ParseError("bucket counts not cumulative");
      }
      if (!(sample.value >= 0)) throw ParseError("negative bucket count");
      s.buckets.emplace_back(*le, sample.value);
    } else if (le) {
      throw ParseError("le outside a bucket");
    } else if (sample.name == name + "_sum") {
      s.sum = sample.value;
    } else if (sample.name == name + "_count") {
      s.count = sample.value;
    } else {
      throw ParseError("histogram sample without _bucket, _sum or _count");
    }
  }
  for (const auto& [labels, s] : series) {
    if (s.buckets.empty() || !std::isinf(s.buckets.back().first)) {
      throw ParseError("histogram without le=\"+Inf\" last");
    }
    if (!s.sum || !s.count) throw ParseError("histogram without _sum or _count");
    if (*s.count != s.buckets.back().second) throw ParseError("_count differs from +Inf bucket");
  }
}

}  // namespace

Exposition ParseExposition(const std::string& text) {
  if (!text.empty() && text.back() != '\n') throw ParseError("last line does not end in \\n");
  Exposition exposition;
  std::set<std::string> closed;  // families whose lines have ended
  std::set<std::pair<std::string, Labels>> seen;
  std::string current;
  const auto enter = [&](const std::string& name) {
    if (name == current) return;
    if (closed.count(name) != 0) throw ParseError("lines of family '" + name + "' not together");
    if (!current.empty()) closed.insert(current);
    current = name;
    if (exposition.families.count(name) == 0) exposition.order.push_back(name);
  };
  std::size_t begin = 0;
  for (int number = 1; begin < text.size(); ++number) {
    const std::size_t end = text.find('\n', begin);
    const std::string line = text.substr(begin, end - begin);
    begin = end + 1;
    try {
      if (line.find('\r') != std::string::npos) throw ParseError("carriage return");
      if (line.empty()) continue;
      if (line[0] == '#') {
        std::smatch m;
        static const std::regex kHelp("# HELP ([^ ]*) (.*)");
        static const std::regex kType("# TYPE ([^ ]*) ([^ ]*)");
        const bool help = std::regex_match(line, m, kHelp);
        if (!help && !std::regex_match(line, m, kType)) {
          if (line.rfind("# HELP", 0) == 0 || line.rfind("# TYPE", 0) == 0) {
            throw ParseError("malformed HELP or TYPE");
          }
          continue;  // a comment
        }
        const std::string name = m[1];
        if (!std::regex_match(name, kMetricName)) throw ParseError("bad metric name");
        enter(name);
        Family& family = exposition.families[name];
        if (!family.samples.empty()) throw ParseError("HELP or TYPE after samples");
        if (help) {
          if (family.hasHelp) throw ParseError("HELP twice");
          family.hasHelp = true;
          family.help = Unescape(m[2], false);
        } else {
          if (family.hasType) throw ParseError("TYPE twice");
          if (kTypes.count(m[2]) == 0) throw ParseError("unknown type");
          family.hasType = true;
          family.type = m[2];
          if (family.type == "counter" && !EndsWith(name, "_total")) {
            throw ParseError("counter name without _total");
          }
        }
        continue;
      }
      Sample sample = ParseSample(line);
      const std::string name = FamilyOf(exposition, sample.name);
      enter(name);
      Family& family = exposition.families[name];
      if (!family.hasHelp) throw ParseError("family without HELP");
      if (!seen.emplace(sample.name, Sorted(sample.labels)).second) {
        throw ParseError("duplicate sample");
      }
      if (family.type == "counter" && !(sample.value >= 0)) throw ParseError("bad counter value");
      family.samples.push_back(std::move(sample));
    } catch (const ParseError& e) {
      throw ParseError("line " + std::to_string(number) + ": " + e.what() + ": " + line);
    }
  }
  for (const auto& [name, family] : exposition.families) {
    if (!family.hasHelp || !family.hasType) throw ParseError(name + ": no HELP or no TYPE");
    if (family.type == "histogram") CheckHistogram(name, family);
  }
  return exposition;
}

}  // namespace korvel::test
