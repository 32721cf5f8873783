#include "output.h"

#include <korvel/tree.h>

#include <algorithm>
#include <ctime>
#include <sstream>

namespace korvel::cli {
namespace {

using qx::korvel::tree::kOwnAttributeNames;
namespace tree = qx::korvel::tree;

// A start time is stored with the ISO weekday after the seconds, which reads like a tenth of a
// second: the table shows "YYYY-MM-DD HH:MM:SSZ" instead. Any other text is shown as it is.
std::string ShowStartTime(const std::string& value) {
  const auto time = tree::ParseStartTime(value);
  if (!time) return value;
  std::tm utc{};
  gmtime_r(&*time, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%SZ", &utc);
  return text;
}

struct Column {
  const char* heading;
  const char* attribute;                              // nullptr: the id
  std::string (*show)(const std::string&) = nullptr;  // how the table shows the value
};

const Column kColumns[] = {
    {"ID", nullptr},
    {"STATUS", kOwnAttributeNames[tree::kStatus]},
    {"NAME", kOwnAttributeNames[tree::kServiceName]},
    {"HOST", kOwnAttributeNames[tree::kHostname]},
    {"PID", kOwnAttributeNames[tree::kPid]},
    {"STARTED", kOwnAttributeNames[tree::kStartTime], &ShowStartTime},
    {"VERSION", kOwnAttributeNames[tree::kVersion]},
};

// Writes `cells` padded to `widths`, two spaces apart; the last cell unpadded.
void WriteRow(std::ostream& out, const std::vector<std::string>& cells,
              const std::vector<std::size_t>& widths) {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    out << cells[i];
    if (i + 1 < cells.size()) out << std::string(widths[i] - cells[i].size() + 2, ' ');
  }
  out << "\n";
}

void WriteRecord(std::ostream& out, const Record& record, const std::string& indent) {
  std::size_t width = 0;
  for (const auto& [name, value] : record.attributes) width = std::max(width, name.size());
  for (const auto& [name, value] : record.attributes) {
    out << indent << name << std::string(width - name.size() + 2, ' ') << value << "\n";
  }
  for (const Record& child : record.children) {
    out << indent << child.name << "/\n";
    WriteRecord(out, child, indent + "  ");
  }
}

}  // namespace

std::string InstanceFacts::Get(const std::string& name) const {
  for (const auto& [attribute, value] : attributes) {
    if (attribute == name) return value;
  }
  return "-";
}

std::string FormatTable(const std::vector<InstanceFacts>& instances) {
  std::vector<std::vector<std::string>> rows(1);
  for (const Column& column : kColumns) rows[0].push_back(column.heading);
  for (const InstanceFacts& instance : instances) {
    std::vector<std::string>& row = rows.emplace_back();
    for (const Column& column : kColumns) {
      const std::string value = column.attribute ? instance.Get(column.attribute) : instance.id;
      row.push_back(column.show ? column.show(value) : value);
    }
  }
  std::vector<std::size_t> widths(rows[0].size(), 0);
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::ostringstream out;
  for (const auto& row : rows) WriteRow(out, row, widths);
  return out.str();
}

Json InstancesToJson(const std::vector<InstanceFacts>& instances) {
  Json list = Json::array();
  for (const InstanceFacts& instance : instances) {
    Json object = {{"id", instance.id}};
    for (const auto& [name, value] : instance.attributes) object[name] = value;
    list.push_back(std::move(object));
  }
  return list;
}

std::string FormatRecord(const Record& record) {
  std::ostringstream out;
  WriteRecord(out, record, "");
  return out.str();
}

Json RecordToJson(const Record& record) {
  Json object = Json::object();
  for (const auto& [name, value] : record.attributes) object[name] = value;
  for (const Record& child : record.children) object[child.name] = RecordToJson(child);
  return object;
}

}  // namespace korvel::cli
