// How the korvel tool prints instances and records, for people (aligned text) and for scripts
// (JSON). Pure functions over plain data.
#ifndef KORVEL_TOOLS_KORVEL_OUTPUT_H_
#define KORVEL_TOOLS_KORVEL_OUTPUT_H_

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace korvel::cli {

using Json = nlohmann::ordered_json;

// One live instance: its id and those of its own attributes that it publishes.
struct InstanceFacts {
  std::string id;
  std::vector<std::pair<std::string, std::string>> attributes;  // name, value

  // The value of attribute `name`, "-" when it is missing.
  std::string Get(const std::string& name) const;
};

// The attributes of an instance or of one of its child records, and its child records.
struct Record {
  std::string name;
  std::vector<std::pair<std::string, std::string>> attributes;  // name, value; sorted by name
  std::vector<Record> children;                                 // sorted by name
};

// A table with the columns ID, STATUS, NAME, HOST, PID, STARTED, VERSION.
std::string FormatTable(const std::vector<InstanceFacts>& instances);
// [{"id": ..., "status": ..., ...}, ...]: each instance's id and own attributes.
Json InstancesToJson(const std::vector<InstanceFacts>& instances);

// "name  value" lines, aligned, then each child record as "name/" with its lines indented below.
std::string FormatRecord(const Record& record);
// {"attribute": "value", ..., "child": {...}}.
Json RecordToJson(const Record& record);

}  // namespace korvel::cli

#endif  // KORVEL_TOOLS_KORVEL_OUTPUT_H_
