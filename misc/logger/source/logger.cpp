#include "logger/logger.h"

#include <strings.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <shared_mutex>

namespace qx::logging {
namespace {

LogLevel LevelFromEnvironment() {
  const char* text = std::getenv("KORVEL_LOG_LEVEL");
  if (text == nullptr || *text == '\0') return QXLOG_INFO;
  if (const auto level = LevelNamed(text)) return *level;
  std::fprintf(stderr,
               "korvel: ignoring KORVEL_LOG_LEVEL=%s (expected debug, info, warning, error or "
               "critical)\n",
               text);
  return QXLOG_INFO;
}

void WriteToStderr(const LogRecord& record) {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);

  String line;
  line.reserve(96 + record.message.size());
  line += stamp;
  char fraction[8];
  std::snprintf(fraction, sizeof fraction, ".%03dZ ", static_cast<int>(millis));
  line += fraction;
  line += LevelName(record.level);
  line += ' ';
  line += record.source ? record.source->Name() : String("-");
  line += ' ';
  line += record.filename != nullptr ? record.filename : "-";
  line += ':';
  line += std::to_string(record.lineNumber);
  line += ' ';
  line += record.message;
  line += '\n';
  // One write per record keeps lines from different threads whole.
  for (std::size_t done = 0; done < line.size();) {
    const ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
}

struct Handlers {
  std::shared_mutex mutex;
  std::map<int, LogHandler> byId;
  int nextId = 1;
};

Handlers& TheHandlers() {
  static Handlers* handlers = new Handlers;  // never destroyed: records may come during exit
  return *handlers;
}

thread_local bool t_delivering = false;

}  // namespace

std::atomic<LogLevel> g_minLogLevel{LevelFromEnvironment()};

const char* LevelName(LogLevel level) {
  switch (level) {
    case QXLOG_DEBUG:
      return "DEBUG";
    case QXLOG_INFO:
      return "INFO";
    case QXLOG_INFO_LOCAL:
      return "INFO_LOCAL";
    case QXLOG_INFO_SEARCH:
      return "INFO_SEARCH";
    case QXLOG_WARNING:
      return "WARNING";
    case QXLOG_ERROR:
      return "ERROR";
    case QXLOG_CRITICAL:
      return "CRITICAL";
    case QXLOG_WALL:
      return "WALL";
  }
  return "UNKNOWN";
}

ConstSourcePtr Source::Reverse() const {
  IPString name = m_name;
  for (const Source* s = m_parent.get(); s != nullptr; s = s->m_parent.get()) {
    name = s->m_name + "." + name;
  }
  return std::make_shared<const Source>(std::move(name));
}

void SetMinimumLoggingLevel(LogLevel level) {
  g_minLogLevel.store(level);
}

LogLevel GetMinimumLoggingLevel() {
  return g_minLogLevel.load();
}

std::optional<LogLevel> LevelNamed(const char* name) {
  constexpr std::pair<const char*, LogLevel> kNames[] = {{"debug", QXLOG_DEBUG},
                                                         {"info", QXLOG_INFO},
                                                         {"warning", QXLOG_WARNING},
                                                         {"error", QXLOG_ERROR},
                                                         {"critical", QXLOG_CRITICAL}};
  for (const auto& [levelName, level] : kNames) {
    if (strcasecmp(name, levelName) == 0) return level;
  }
  return std::nullopt;
}

int AddLogHandler(LogHandler handler) {
  Handlers& handlers = TheHandlers();
  std::unique_lock<std::shared_mutex> lock(handlers.mutex);
  const int id = handlers.nextId++;
  handlers.byId.emplace(id, std::move(handler));
  return id;
}

void RemoveLogHandler(int id) {
  Handlers& handlers = TheHandlers();
  std::unique_lock<std::shared_mutex> lock(handlers.mutex);
  handlers.byId.erase(id);
}

void ForceLockHandlers() {
  TheHandlers();
}

void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType,
                const ConstSourcePtr& source, const char* filename, int lineNumber,
                const String& message, const String& handlerName) {
  // A record logged by a handler while it handles another would be mixed into
  // the thread's stream of the first; such records are dropped.
  if (t_delivering) return;
  t_delivering = true;
  const LogRecord record{level, id, decodeType, source, filename, lineNumber, message, handlerName};
  Handlers& handlers = TheHandlers();
  {
    std::shared_lock<std::shared_mutex> lock(handlers.mutex);
    if (handlers.byId.empty()) {
      WriteToStderr(record);
    } else {
      for (const auto& entry : handlers.byId) {
        try {
          entry.second(record);
        } catch (...) {
          // A failing handler loses this record only.
        }
      }
    }
  }
  t_delivering = false;
}

}  // namespace qx::logging
