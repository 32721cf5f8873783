// The commands of the korvel tool. Each returns the process's exit code and throws Failure (exit
// code 1) with a one-line message naming what failed.
#ifndef KORVEL_TOOLS_KORVEL_COMMANDS_H_
#define KORVEL_TOOLS_KORVEL_COMMANDS_H_

#include <korvel/health.h>
#include <korvel/service.h>
#include <korvel/service_cache.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "http_server.h"
#include "output.h"

namespace korvel::cli {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The options that every command shares.
struct Settings {
  std::string hosts;
  std::chrono::milliseconds sessionTimeout;
  std::optional<qx::korvel::Credentials> credentials;  // none: an anonymous session
};

// An attribute of a child record: "CHILD:ATTR=VALUE" on the command line and on stdin.
struct ChildAttribute {
  std::string child;
  std::string attribute;
  std::string value;

  // Parses "CHILD:ATTR=VALUE" (all three non-empty); nullopt for anything else.
  static std::optional<ChildAttribute> Parse(const std::string& text);
  std::string ToString() const;
};

// The health checks of `register`, as given on the command line.
struct CheckOptions {
  std::vector<std::string> commands;   // --check-exec
  std::vector<std::string> urls;       // --check-http
  std::vector<std::string> addresses;  // --check-tcp
  qx::korvel::HealthOptions health;

  bool Any() const { return !commands.empty() || !urls.empty() || !addresses.empty(); }
  // The checks, named exec-1, exec-2, ..., http-1, ..., tcp-1, ... Throws std::invalid_argument
  // for an unusable argument.
  std::vector<qx::korvel::HealthCheck> Build() const;
};

struct RegisterOptions {
  std::string type;
  std::string name;
  std::optional<qx::korvel::ServiceId> id;
  qx::korvel::Service::Status status = qx::korvel::Service::DOWN;
  bool statusGiven = false;  // with checks: the instance starts in that manual status
  std::vector<ChildAttribute> childAttributes;
  CheckOptions checks;
  std::optional<int> watchedPid;  // the registration ends when this process exits
};

struct ServeOptions {
  korvel::http::ServerOptions server;
  std::chrono::milliseconds cacheIdle{300000};  // a type's cache without readers is dropped then
  std::chrono::milliseconds listingWindow = qx::korvel::ServiceCache::kDefaultListingWindow;
  std::string tokenFile;  // holds the bearer token every endpoint but /healthz needs; none if ""
};

int RunRegister(const Settings& settings, const RegisterOptions& options);
int RunServe(const Settings& settings, const ServeOptions& options);
int RunList(const Settings& settings, const std::string& type, bool json, bool watch);
int RunShow(const Settings& settings, const std::string& type, const qx::korvel::ServiceId& id,
            const std::string& child, bool json);
int RunGet(const Settings& settings, const std::string& type, const qx::korvel::ServiceId& id,
           const std::string& attribute, const std::string& child);
int RunDemo(const Settings& settings);
int RunAclShow(const Settings& settings, const std::string& type, bool json);
int RunAclLock(const Settings& settings, const std::string& type);

// The credentials of the commands: those in `authFile` (its first line, USER:PASSWORD; Failure
// when its group or others may access the file), else those of KORVEL_ZK_AUTH, else none.
std::optional<qx::korvel::Credentials> LoadCredentials(const std::string& authFile);
// The content of a file that holds a secret (`what` names it in errors). Failure when the file
// cannot be read or its group or others have any permission on it; no error quotes the content.
std::string ReadPrivateFile(const std::string& path, const std::string& what);

// Building blocks that the demo shares with the commands.

// A connected session to the settings' hosts, authenticated with their credentials; Failure
// "cannot connect to ZooKeeper at HOSTS" otherwise.
std::shared_ptr<qx::korvel::Connection> Connect(const Settings& settings);
// The live instances of `type` with their own attributes, oldest first (then by name and id),
// read with all requests in flight together; none when the type has no liveness directory.
std::vector<InstanceFacts> ReadInstances(const qx::korvel::Connection& conn,
                                         const std::string& type);
// What `list TYPE` prints.
std::string FormatInstances(const std::vector<InstanceFacts>& instances, bool json);
// What `show TYPE ID [--child PATH]` prints; Failure for a missing instance or child.
std::string ShowInstance(const qx::korvel::Connection& conn, const std::string& type,
                         const qx::korvel::ServiceId& id, const std::string& child, bool json);

// The records at `nodes` (absolute paths) with everything below them, read a level at a time with
// every request of a level in flight together; a node that does not exist has no entry. Each
// record's name is "". Failure when a read fails otherwise.
std::map<std::string, Record> ReadRecords(const qx::korvel::Connection& conn,
                                          const std::vector<std::string>& nodes);
// The instance's id and the own attributes that it publishes.
InstanceFacts FactsOf(const qx::korvel::CachedInstance& instance);

// "up", "down", "up_sending_disabled" -> the status; nullopt for anything else.
std::optional<qx::korvel::Service::Status> ParseStatus(const std::string& text);
// "ADDR:PORT" (an IPv4 address, or an IPv6 one in brackets) -> address and port; nullopt for
// anything else.
std::optional<std::pair<std::string, std::uint16_t>> ParseListenAddress(const std::string& text);
// A ServiceId from its 36-character text form in either case; nullopt for anything else.
std::optional<qx::korvel::ServiceId> ParseServiceId(const std::string& text);

}  // namespace korvel::cli

#endif  // KORVEL_TOOLS_KORVEL_COMMANDS_H_
