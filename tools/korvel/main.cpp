// korvel: registers service instances in ZooKeeper and finds them; `korvel demo` shows it all
// against a ZooKeeper of its own. Options and dispatch; the commands live in the other files.
//
// Exit codes: 0 success, 1 failure (one line on stderr naming it), 2 usage error.
#include <korvel/version.h>
#include <logger/logger.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <map>

#include "commands.h"

namespace {

const std::map<std::string, qx::logging::LogLevel> kLogLevels = {
    {"debug", qx::logging::QXLOG_DEBUG},       {"info", qx::logging::QXLOG_INFO},
    {"warning", qx::logging::QXLOG_WARNING},   {"error", qx::logging::QXLOG_ERROR},
    {"critical", qx::logging::QXLOG_CRITICAL},
};

// True when KORVEL_LOG_LEVEL names a level, which the library then started with.
bool EnvironmentNamesALogLevel() {
  const char* text = std::getenv("KORVEL_LOG_LEVEL");
  return text != nullptr && qx::logging::LevelNamed(text).has_value();
}

// Checks a value with `parse`, which returns nullopt for a bad one; `name` says what it should be.
template <typename Parse>
CLI::Validator Parsable(const std::string& name, Parse parse) {
  return CLI::Validator(
      [name, parse](std::string& text) {
        return parse(text) ? std::string() : "not " + name + ": '" + text + "'";
      },
      "");
}

// Checks a value by making a health check of it, which throws std::invalid_argument for a bad one.
CLI::Validator Checkable(qx::korvel::HealthCheck (*make)(qx::String, qx::String)) {
  return CLI::Validator(
      [make](std::string& text) {
        try {
          make("check", text);
        } catch (const std::invalid_argument& e) {
          return std::string(e.what());
        }
        return std::string();
      },
      "");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Announces service instances in Apache ZooKeeper and finds them.", "korvel");
  app.set_version_flag("--version", std::string("korvel ") + qx::korvel::Version());
  app.require_subcommand(1);
  app.footer("Each command's options: korvel COMMAND --help.");
  app.fallthrough();  // the global options may also follow the command
  app.failure_message([](const CLI::App* failed, const CLI::Error& e) {
    const auto unexpected = failed->remaining();
    const std::string what = failed->get_subcommands().empty() && !unexpected.empty()
                                 ? "unknown command '" + unexpected.front() + "'"
                                 : e.what();
    return "korvel: " + what + "\n\n" + failed->help();
  });

  std::string hosts = "127.0.0.1:2181";
  int sessionTimeoutMs = 10000;
  std::string logLevel;
  app.add_option("--zk", hosts, "ZooKeeper connect string")
      ->envname("KORVEL_ZK")
      ->type_name("HOSTS")
      ->capture_default_str();
  app.add_option("--session-timeout", sessionTimeoutMs, "Session timeout in milliseconds")
      // Connecting waits as long as this: below a second it fails for no reason.
      ->check(CLI::Range(1000, 3600 * 1000))
      ->type_name("MS")
      ->capture_default_str();
  app.add_option("--log-level", logLevel,
                 "Minimum level of the library's log records on stderr (default: "
                 "KORVEL_LOG_LEVEL, else warning)")
      ->check(CLI::IsMember(kLogLevels))
      ->type_name("LEVEL");
  std::string authFile;
  app.add_option("--auth-file", authFile,
                 "File whose first line is the ZooKeeper digest credentials USER:PASSWORD, "
                 "readable by its owner only (default: KORVEL_ZK_AUTH, else none)")
      ->type_name("FILE");

  const auto statusCheck =
      Parsable("a status (up, down, up_sending_disabled)", korvel::cli::ParseStatus);
  const auto idCheck = Parsable("an instance id", korvel::cli::ParseServiceId);
  const auto attributeCheck = Parsable("CHILD:ATTR=VALUE", korvel::cli::ChildAttribute::Parse);

  korvel::cli::RegisterOptions registerOptions;
  std::string status = "down", id;
  std::vector<std::string> childAttributes;
  auto* registerCommand =
      app.add_subcommand("register", "Registers an instance until SIGINT or SIGTERM.");
  registerCommand->footer(
      "Prints the instance's id, then answers commands on stdin, one line each:\n"
      "  status up|down|up_sending_disabled    (with health checks: a manual status)\n"
      "  status auto    (hands the status back to the health checks)\n"
      "  attr CHILD:ATTR=VALUE\n"
      "  remove CHILD\n"
      "  expire-session    (a fault drill: the server expires this instance's session)\n"
      "When it finds itself unregistered (a session expiry, its nodes deleted by others) it\n"
      "registers again with its status and child records and prints \"re-registered ID\".\n"
      "With health checks the status is \"down\" until every check has passed --rise times in a\n"
      "row, and \"down\" again once one has failed --fall times in a row; each check's result,\n"
      "since when and last output stand in the child record health-<check> (exec-1, http-1, ...).");
  registerCommand->add_option("TYPE", registerOptions.type, "Service type")->required();
  registerCommand->add_option("--name", registerOptions.name, "Service name");
  registerCommand->add_option("--id", id, "Instance id (default: a new random one)")
      ->check(idCheck)
      ->type_name("UUID");
  registerCommand->add_option("--status", status, "Status once registered")
      ->check(statusCheck)
      ->type_name("up|down|up_sending_disabled")
      ->capture_default_str();
  registerCommand
      ->add_option("--child-attr", childAttributes, "Attribute of a child record (repeatable)")
      ->check(attributeCheck)
      ->type_name("CHILD:ATTR=VALUE");
  korvel::cli::CheckOptions& checks = registerOptions.checks;
  int checkIntervalMs = 5000, checkTimeoutMs = 2000;
  registerCommand
      ->add_option("--check-exec", checks.commands,
                   "Health check: a shell command that passes when it exits 0 (repeatable)")
      ->check(Checkable(qx::korvel::CommandCheck))
      ->type_name("CMD");
  registerCommand
      ->add_option("--check-http", checks.urls,
                   "Health check: a GET that passes on a 2xx answer (repeatable)")
      ->check(Checkable(qx::korvel::HttpCheck))
      ->type_name("URL");
  registerCommand
      ->add_option("--check-tcp", checks.addresses,
                   "Health check: a TCP connection that passes when it is made (repeatable)")
      ->check(Checkable(qx::korvel::TcpCheck))
      ->type_name("HOST:PORT");
  registerCommand->add_option("--check-interval", checkIntervalMs, "Time between runs of a check")
      ->check(CLI::Range(10, 3600 * 1000))
      ->type_name("MS")
      ->capture_default_str();
  registerCommand
      ->add_option("--check-timeout", checkTimeoutMs,
                   "Time a check may take (at most the interval)")
      ->check(CLI::Range(10, 3600 * 1000))
      ->type_name("MS")
      ->capture_default_str();
  registerCommand
      ->add_option("--rise", checks.health.rise, "Passes in a row of every check for status up")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  registerCommand
      ->add_option("--fall", checks.health.fall, "Failures in a row of a check for status down")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  registerCommand
      ->add_option("--pid", registerOptions.watchedPid, "Unregister when this process exits")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()))
      ->type_name("PID");

  std::string type, child, attribute;
  bool json = false, watch = false;
  auto* listCommand = app.add_subcommand("list", "Lists the live instances of a type.");
  listCommand->add_option("TYPE", type, "Service type")->required();
  listCommand->add_flag("--json", json, "Print JSON");
  listCommand->add_flag("--watch", watch, "Print the list again at every change until stopped");

  auto* showCommand =
      app.add_subcommand("show", "Prints the attributes and child records of an instance.");
  showCommand->add_option("TYPE", type, "Service type")->required();
  showCommand->add_option("ID", id, "Instance id")->required()->check(idCheck)->type_name("UUID");
  showCommand->add_option("--child", child, "Path of a child record");
  showCommand->add_flag("--json", json, "Print JSON");

  auto* getCommand = app.add_subcommand("get", "Prints the value of one attribute.");
  getCommand->add_option("TYPE", type, "Service type")->required();
  getCommand->add_option("ID", id, "Instance id")->required()->check(idCheck)->type_name("UUID");
  getCommand->add_option("ATTRIBUTE", attribute, "Attribute name")->required();
  getCommand->add_option("--child", child, "Path of a child record");

  korvel::cli::ServeOptions serveOptions;
  korvel::http::ServerOptions& server = serveOptions.server;
  std::string listen = "127.0.0.1:7411";
  int requestTimeoutMs = 10000, idleTimeoutMs = 60000, cacheIdleMs = 300000;
  int listingWindowMs = static_cast<int>(qx::korvel::ServiceCache::kDefaultListingWindow.count());
  auto* serveCommand = app.add_subcommand(
      "serve", "Serves the registry over HTTP (read-only) until SIGINT or SIGTERM.");
  serveCommand->footer(
      "Prints \"listening on http://ADDR:PORT\", then answers:\n"
      "  GET /api/v1/types                       types with instance counts by status\n"
      "  GET /api/v1/instances?type=T            the live instances of a type (as list --json)\n"
      "  GET /api/v1/instance?type=T&id=ID       an instance's attributes and child records\n"
      "  GET /api/v1/watch?type=T                the type's changes as Server-Sent Events\n"
      "  GET /sd/prometheus?type=T[&port_attribute=port]   Prometheus HTTP service discovery\n"
      "  GET /metrics                            Prometheus metrics\n"
      "  GET /healthz                            200 while connected and every cache is current\n"
      "With --token-file, every endpoint but /healthz and the dashboard's page and assets needs\n"
      "\"Authorization: Bearer TOKEN\" (else 401).");
  serveCommand
      ->add_option("--listen", listen, "Address and port to listen on (port 0: any free one)")
      ->check(Parsable("ADDR:PORT", korvel::cli::ParseListenAddress))
      ->type_name("ADDR:PORT")
      ->capture_default_str();
  serveCommand->add_option("--max-connections", server.maxConnections, "Open connections at most")
      ->check(CLI::Range(1, 1000000))
      ->capture_default_str();
  serveCommand->add_option("--max-streams", server.maxStreams, "Open event streams at most")
      ->check(CLI::Range(1, 1000000))
      ->capture_default_str();
  serveCommand
      ->add_option("--request-timeout", requestTimeoutMs,
                   "Time a client has to send a request it started (else 408)")
      ->check(CLI::Range(10, 3600 * 1000))
      ->type_name("MS")
      ->capture_default_str();
  serveCommand
      ->add_option("--idle-timeout", idleTimeoutMs, "Time a keep-alive connection may stay idle")
      ->check(CLI::Range(10, 24 * 3600 * 1000))
      ->type_name("MS")
      ->capture_default_str();
  serveCommand
      ->add_option("--cache-idle", cacheIdleMs,
                   "A type's cache is dropped when no reader asked for it this long")
      ->check(CLI::Range(100, 24 * 3600 * 1000))
      ->type_name("MS")
      ->capture_default_str();
  serveCommand
      ->add_option("--listing-window", listingWindowMs,
                   "While instances keep coming and going, a type is listed at most once in this "
                   "time (0: after every change)")
      ->check(CLI::Range(0, 60 * 1000))
      ->type_name("MS")
      ->capture_default_str();
  serveCommand
      ->add_option("--io-threads", server.ioThreads,
                   "Threads that read and write (default: one per core, at most 8)")
      ->check(CLI::Range(1, 64));
  serveCommand
      ->add_option("--token-file", serveOptions.tokenFile,
                   "File (mode 600) holding the bearer token that requests must send")
      ->type_name("FILE");

  auto* aclCommand = app.add_subcommand("acl", "Shows or protects who may change a type's nodes.");
  aclCommand->require_subcommand(1);
  auto* aclShowCommand = aclCommand->add_subcommand(
      "show", "Prints the ACL of each node of a type's trees: who may do what.");
  aclShowCommand->add_option("TYPE", type, "Service type")->required();
  aclShowCommand->add_flag("--json", json, "Print JSON");
  auto* aclLockCommand = aclCommand->add_subcommand(
      "lock", "Gives every node of a type's trees the ACL of the credentials' user.");
  aclLockCommand->footer(
      "The user gets all rights, everyone else read only. Needs admin rights on every node: an\n"
      "open node gives them to anyone; a node of another user needs ZooKeeper's superuser.");
  aclLockCommand->add_option("TYPE", type, "Service type")->required();

  auto* demoCommand = app.add_subcommand(
      "demo", "Runs a tour against a ZooKeeper of its own (started on a free loopback port).");

  try {
    app.parse(argc, argv);
    if (checkIntervalMs < checkTimeoutMs) {
      throw CLI::ValidationError("--check-interval (" + std::to_string(checkIntervalMs) +
                                 " ms) must be at least --check-timeout (" +
                                 std::to_string(checkTimeoutMs) + " ms)");
    }
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }

  if (!logLevel.empty()) {
    qx::logging::SetMinimumLoggingLevel(kLogLevels.at(logLevel));
  } else if (!EnvironmentNamesALogLevel()) {
    qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);
  }
  korvel::cli::Settings settings{hosts, std::chrono::milliseconds(sessionTimeoutMs), {}};
  const auto serviceId = [&id] { return *korvel::cli::ParseServiceId(id); };

  try {
    settings.credentials = korvel::cli::LoadCredentials(authFile);
    if (*registerCommand) {
      registerOptions.status = *korvel::cli::ParseStatus(status);
      registerOptions.statusGiven = registerCommand->count("--status") > 0;
      checks.health.interval = std::chrono::milliseconds(checkIntervalMs);
      checks.health.timeout = std::chrono::milliseconds(checkTimeoutMs);
      if (!id.empty()) registerOptions.id = serviceId();
      for (const std::string& text : childAttributes) {
        registerOptions.childAttributes.push_back(*korvel::cli::ChildAttribute::Parse(text));
      }
      return korvel::cli::RunRegister(settings, registerOptions);
    }
    if (*listCommand) return korvel::cli::RunList(settings, type, json, watch);
    if (*showCommand) return korvel::cli::RunShow(settings, type, serviceId(), child, json);
    if (*getCommand) return korvel::cli::RunGet(settings, type, serviceId(), attribute, child);
    if (*serveCommand) {
      const auto address = korvel::cli::ParseListenAddress(listen);
      server.address = address->first;
      server.port = address->second;
      server.requestTimeout = std::chrono::milliseconds(requestTimeoutMs);
      server.idleTimeout = std::chrono::milliseconds(idleTimeoutMs);
      serveOptions.cacheIdle = std::chrono::milliseconds(cacheIdleMs);
      serveOptions.listingWindow = std::chrono::milliseconds(listingWindowMs);
      return korvel::cli::RunServe(settings, serveOptions);
    }
    if (*aclShowCommand) return korvel::cli::RunAclShow(settings, type, json);
    if (*aclLockCommand) return korvel::cli::RunAclLock(settings, type);
    if (*demoCommand) return korvel::cli::RunDemo(settings);
  } catch (const std::exception& e) {
    std::cerr << "korvel: " << e.what() << "\n";
    return 1;
  }
  return 2;
}
