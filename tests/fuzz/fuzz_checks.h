// The invariants that the fuzz targets check, shared by the libFuzzer targets
// (fuzz_target.cpp, built with -DKORVEL_FUZZ=ON) and by fuzz_regression_test,
// which replays every corpus and regression file in the normal build.
//
// Each check takes one input and returns "" when the invariants hold, else a
// description of what broke. Checks are deterministic and need no server.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace korvel::fuzz {

// NormalizePath: no leading or trailing "/", no "//", idempotent, keeps the
// non-empty components in order, and "/base/" + result is a valid ZooKeeper
// path exactly when the result is not empty and the input has no "." or ".."
// component, no NUL and no character the server refuses in a path.
std::string CheckNormalizePath(std::string_view input);

// The ServiceId parse of listing names: boost::lexical_cast<ServiceId> and
// qx::uuid::from_string accept exactly the 36-character 8-4-4-4-12 forms of
// hexadecimal digits, agree, and the id prints back as the input in lower case.
std::string CheckServiceIdParse(std::string_view input);

// The paths of registration and queries, built by the tree module. The input
// holds a type, a child and an attribute name separated by '\n', joined the
// way Service and OldServiceWatcher join them. Each path is valid exactly
// when its parts are; a type is refused exactly when it is "alive" or below;
// the data and liveness paths of a registrable type parse back as the type
// and id that built them (so no data node lies among the liveness nodes).
std::string CheckRegistryPaths(std::string_view input);

// The log facade: the input is read as a program of stream operations (text,
// numbers, manipulators, a nested record) for one record. The record's text
// equals what a fresh std::ostringstream makes of the same operations, a
// nested record keeps its own text, and a probe record logged next is
// unaffected.
std::string CheckLogFormatting(std::string_view input);

// How `korvel serve` reads a request target (http_query.h): the path is the
// text before the first "?"; the query is decoded exactly when every "%" starts
// a whole escape, into its pairs with the last value of a name; the type and id
// parameters are refused with 400 exactly when they are no service type or
// instance id; a path routes to its own endpoint, labelled by the path, or to
// "/assets" or "other"; a bearer token compares equal to itself only.
std::string CheckServeTarget(std::string_view input);

// The server's rules for a path (PathUtils.validatePath): absolute, no empty,
// "." or ".." component, no trailing "/", and, read as UTF-8, no malformed
// sequence and no character in U+0000-U+001F, U+007F-U+009F, U+D800-U+F8FF,
// U+FFF0-U+FFFF or beyond U+FFFF.
bool IsValidZooKeeperPath(std::string_view path);

struct Target {
  const char* name;  // also the directory of its corpus and regressions
  std::string (*check)(std::string_view input);
};
const std::vector<Target>& Targets();

}  // namespace korvel::fuzz
