#include "client_log.h"

#include <stdio.h>
#include <zookeeper/zookeeper.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>

namespace qx::korvel::details {

using logging::QXLOG_DEBUG;
using logging::QXLOG_ERROR;
using logging::QXLOG_INFO;
using logging::QXLOG_WARNING;

// Never destroyed: the client's threads may still log while the process exits.
const logging::ConstSourcePtr& g_log =
    *new logging::ConstSourcePtr(logging::MakeSource("korvel.connection"));

namespace {

const logging::ConstSourcePtr& g_clientLog =
    *new logging::ConstSourcePtr(logging::MakeSource("zookeeper.client"));

// The client logs every failed connection attempt while a server is away;
// beyond this many warnings and errors a second the rest are counted and
// summarised.
constexpr int kClientWarningsPerSecond = 5;

void RouteClientLine(const char* text, std::size_t length) {
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) --length;
  if (length == 0) return;
  // A line reads "<time>:<pid>(<tid>):ZOO_<LEVEL>@<function>@<line>: <message>".
  static const std::pair<const char*, logging::LogLevel> kLevels[] = {{"ZOO_ERROR@", QXLOG_ERROR},
                                                                      {"ZOO_WARN@", QXLOG_WARNING},
                                                                      {"ZOO_INFO@", QXLOG_INFO},
                                                                      {"ZOO_DEBUG@", QXLOG_DEBUG}};
  const std::string_view line(text, length);
  logging::LogLevel level = QXLOG_INFO;
  std::string_view message = line;
  for (const auto& [marker, markerLevel] : kLevels) {
    const auto at = line.find(marker);
    if (at != std::string_view::npos) {
      level = markerLevel;
      message = line.substr(at + std::strlen(marker));
      break;
    }
  }
  if (!logging::IsLogged(level)) return;
  if (level < QXLOG_WARNING) {
    QXLOG(g_clientLog, level) << message;
    return;
  }

  static std::mutex mutex;
  static auto windowStart = std::chrono::steady_clock::now();
  static int linesInWindow = 0;
  static int suppressed = 0;
  int reportSuppressed = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    const auto now = std::chrono::steady_clock::now();
    if (now - windowStart >= std::chrono::seconds(1)) {
      windowStart = now;
      linesInWindow = 0;
      reportSuppressed = std::exchange(suppressed, 0);
    }
    if (++linesInWindow > kClientWarningsPerSecond) {
      ++suppressed;
      return;
    }
  }
  if (reportSuppressed > 0) {
    QXLOG(g_clientLog, QXLOG_WARNING)
        << "suppressed " << reportSuppressed << " ZooKeeper client log lines";
  }
  QXLOG(g_clientLog, level) << message;
}

ssize_t ClientLogStreamWrite(void*, const char* buffer, std::size_t size) {
  for (std::size_t start = 0; start < size;) {
    const void* newline = std::memchr(buffer + start, '\n', size - start);
    const std::size_t end =
        newline ? static_cast<std::size_t>(static_cast<const char*>(newline) - buffer) + 1 : size;
    RouteClientLine(buffer + start, end - start);
    start = end;
  }
  return static_cast<ssize_t>(size);
}

// The client's informational lines (a dozen per connection) are wanted only
// when debugging.
ZooLogLevel ClientLevelFor(logging::LogLevel level) {
  if (level <= QXLOG_DEBUG) return ZOO_LOG_LEVEL_DEBUG;
  if (level < QXLOG_ERROR) return ZOO_LOG_LEVEL_WARN;
  return ZOO_LOG_LEVEL_ERROR;
}

}  // namespace

void RouteClientLogging() {
  static std::once_flag once;
  std::call_once(once, [] {
    cookie_io_functions_t functions{};
    functions.write = &ClientLogStreamWrite;
    if (FILE* stream = fopencookie(nullptr, "w", functions)) {
      setvbuf(stream, nullptr, _IOLBF, 0);
      zoo_set_log_stream(stream);
    }
  });
  zoo_set_debug_level(ClientLevelFor(logging::GetMinimumLoggingLevel()));
}

void ClientLogCallback(const char* message) {
  RouteClientLine(message, std::strlen(message));
}

}  // namespace qx::korvel::details
