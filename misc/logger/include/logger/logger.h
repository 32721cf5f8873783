// The logging facade and the logging service behind it.
//
// A log statement names a source and a level and streams its text:
//
//   QXLOG(g_log, qx::logging::QXLOG_INFO) << "registered " << id;
//
// A statement below the minimum level costs one atomic load and a compare and
// evaluates none of its operands. An enabled statement formats into the
// calling thread's own stream (no lock) and hands the finished record to
// `LogMessage`, which passes it to every handler on the same thread.
//
// Thread-safety: every function here may be called from any thread at any
// time. Handlers are called on the thread that logs, one record at a time per
// thread but concurrently across threads; a handler must be thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <ios>
#include <locale>
#include <memory>
#include <optional>
#include <ostream>
#include <utility>

#include "stlext/sstream.h"
#include "stlext/string.h"

namespace qx::logging {

enum LogLevel : std::int32_t {
  QXLOG_DEBUG = 0,
  QXLOG_INFO = 10,
  QXLOG_INFO_LOCAL = 14,
  QXLOG_INFO_SEARCH = 17,
  QXLOG_WARNING = 20,
  QXLOG_ERROR = 30,
  QXLOG_CRITICAL = 40,
  QXLOG_WALL = 100,
};

// Tells handlers how a record's text may be parsed.
enum DecodeType : std::int32_t {
  QXLOG_DECODE_AS_NONE = 0,
  QXLOG_DECODE_AS_KV = 1,
  QXLOG_DECODE_AS_JSON = 2,
  QXLOG_DECODE_AS_MIXED = 3,
  QXLOG_DECODE_AS_PB = 4,
};

// The name of a level: "DEBUG", "INFO", ..., "UNKNOWN" for other values.
const char* LevelName(LogLevel level);

class Source;
using ConstSourcePtr = std::shared_ptr<const Source>;
using SourcePtr = std::shared_ptr<Source>;

// A named log source in a tree of sources. Immutable once shared.
class Source {
 public:
  explicit Source(const char* name, ConstSourcePtr parent = nullptr)
      : m_name(name), m_parent(std::move(parent)) {}
  explicit Source(IPString name, ConstSourcePtr parent = nullptr)
      : m_name(std::move(name)), m_parent(std::move(parent)) {}

  const IPString& Name() const { return m_name; }
  const ConstSourcePtr& Parent() const { return m_parent; }
  // A root source named by the chain from the root down to this source,
  // joined with "." ("root.child.leaf").
  ConstSourcePtr Reverse() const;

 private:
  IPString m_name;
  ConstSourcePtr m_parent;
};

// A new root source named `name`.
inline SourcePtr MakeSource(IPString name) {
  return std::make_shared<Source>(std::move(name));
}

// One finished record as handlers see it. The references are valid only for
// the duration of the handler call.
struct LogRecord {
  LogLevel level;
  unsigned int id;
  DecodeType decodeType;
  const ConstSourcePtr& source;
  const char* filename;
  int lineNumber;
  const String& message;
  const String& handlerName;
};

using LogHandler = std::function<void(const LogRecord&)>;

// The process-wide minimum level. Starts at the level named by the
// environment variable KORVEL_LOG_LEVEL (debug, info, warning, error,
// critical; case-insensitive), else at QXLOG_INFO.
extern std::atomic<LogLevel> g_minLogLevel;

void SetMinimumLoggingLevel(LogLevel level);
LogLevel GetMinimumLoggingLevel();

// The level that `name` names (debug, info, warning, error, critical, in any
// case), or nothing. Any thread.
std::optional<LogLevel> LevelNamed(const char* name);

// Adds a handler and returns its id for `RemoveLogHandler`. While no handler
// is added, records go to a default handler that writes one line per record
// to stderr. A handler that throws loses that record; the others still get it.
// A handler must not add or remove handlers, and records it logs itself are
// dropped.
int AddLogHandler(LogHandler handler);
// Removes the handler; an unknown id is ignored. When it returns, no other
// thread is still inside that handler and it is never called again.
void RemoveLogHandler(int id);

// Makes sure the handler registry exists; called before every record so that
// records logged during static initialisation or exit are delivered.
void ForceLockHandlers();

// Delivers one finished record to the handlers, synchronously on this thread.
void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType,
                const ConstSourcePtr& source, const char* filename, int lineNumber,
                const String& message, const String& handlerName);

// The calling thread's formatting stream, shared by every record of the thread.
inline IPStringStream& GetThreadLocalStream() {
  thread_local IPStringStream stream;
  return stream;
}

// True while a record of the calling thread is being formatted in its stream.
inline bool& ThreadLocalStreamInUse() {
  thread_local bool inUse = false;
  return inUse;
}

// What a record may change on its thread's stream and the next record must
// not inherit: flags, precision, width, fill, exception mask, tie, buffer and
// locale. The locale is put back only when a callback on the stream saw it
// replaced, since imbuing costs more than a whole record.
class ThreadStreamState {
 public:
  explicit ThreadStreamState(std::ostream& stream)
      : m_stream(stream),
        m_flags(stream.flags()),
        m_precision(stream.precision()),
        m_width(stream.width()),
        m_fill(stream.fill()),
        m_exceptions(stream.exceptions()),
        m_tie(stream.tie()),
        m_rdbuf(stream.rdbuf()) {
    Locale& locale = ThreadLocale();
    if (locale.replaced) {  // imbued between records: that is the locale to keep
      locale.home = stream.getloc();
      locale.replaced = false;
    }
  }
  ThreadStreamState(const ThreadStreamState&) = delete;
  ThreadStreamState& operator=(const ThreadStreamState&) = delete;

  void Restore() {
    if (Locale& locale = ThreadLocale(); locale.replaced) {
      m_stream.imbue(locale.home);
      locale.replaced = false;
    }
    if (m_stream.rdbuf() != m_rdbuf) m_stream.rdbuf(m_rdbuf);
    if (m_stream.tie() != m_tie) m_stream.tie(m_tie);
    if (m_stream.exceptions() != m_exceptions) m_stream.exceptions(m_exceptions);
    m_stream.fill(m_fill);
    m_stream.width(m_width);
    m_stream.precision(m_precision);
    m_stream.flags(m_flags);
  }

 private:
  // The thread stream's locale outside records, and whether it was replaced since.
  struct Locale {
    Locale() : home(GetThreadLocalStream().getloc()) {
      GetThreadLocalStream().register_callback(&NoteImbue, 0);
    }
    std::locale home;
    bool replaced = false;
  };
  static Locale& ThreadLocale() {
    thread_local Locale locale;
    return locale;
  }
  static void NoteImbue(std::ios_base::event event, std::ios_base&, int) {
    if (event == std::ios_base::imbue_event) ThreadLocale().replaced = true;
  }

  std::ostream& m_stream;
  std::ios_base::fmtflags m_flags;
  std::streamsize m_precision;
  std::streamsize m_width;
  char m_fill;
  std::ios_base::iostate m_exceptions;
  std::ostream* m_tie;
  std::streambuf* m_rdbuf;
};

// One record under construction, alive for one log statement. A record made
// while another one of the thread is being formatted (an operand that logs)
// formats in a stream of its own.
class Logger {
 public:
  Logger(LogLevel level, unsigned int id, DecodeType decodeType, const ConstSourcePtr& source,
         const char* filename, int lineNumber, const String& handlerName)
      : m_level(level),
        m_id(id),
        m_decodeType(decodeType),
        m_filename(filename),
        m_lineNumber(lineNumber),
        m_source(source),
        m_nested(std::exchange(ThreadLocalStreamInUse(), true)),
        m_ownStream(m_nested ? std::make_unique<IPStringStream>() : nullptr),
        m_stream(m_nested ? *m_ownStream : GetThreadLocalStream()),
        m_handlerName(handlerName) {
    if (!m_nested) m_state.emplace(m_stream);
  }
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Hands the record over. An exception here ends the process.
  virtual ~Logger() noexcept {
    ForceLockHandlers();
    // The text is handed over where it stands: handlers may not keep it.
    LogMessage(m_level, m_id, m_decodeType, m_source, m_filename, m_lineNumber, Finish(m_stream),
               m_handlerName);
    Reset(m_stream, kKeptCapacity);
    if (m_state) m_state->Restore();
    if (!m_nested) ThreadLocalStreamInUse() = false;
  }

  std::ostream& Stream() { return m_stream; }

 private:
  // Records longer than this give their buffer back afterwards.
  static constexpr std::size_t kKeptCapacity = 64 * 1024;

  LogLevel m_level;
  unsigned int m_id;
  DecodeType m_decodeType;
  const char* m_filename;
  int m_lineNumber;
  ConstSourcePtr m_source;
  bool m_nested;
  std::unique_ptr<IPStringStream> m_ownStream;
  IPStringStream& m_stream;
  // The thread's stream is put back as it was (a record's own stream is
  // dropped): a manipulator used in one record never leaks into the next.
  std::optional<ThreadStreamState> m_state;
  const String m_handlerName;
};

// Lets a log statement be one conditional expression whose branches are void.
struct VoidifyStream {
  void operator&(std::ostream&) {}
};

inline bool IsLogged(LogLevel level) {
  return level >= g_minLogLevel.load(std::memory_order_relaxed);
}

}  // namespace qx::logging

// Logs to `source` at `level` with id 0, key-value decoding and the default
// handlers; the streamed operands are evaluated only when the level is logged.
#define QXLOG(source, level)                                                               \
  !::qx::logging::IsLogged(level)                                                          \
      ? (void)0                                                                            \
      : ::qx::logging::VoidifyStream() &                                                   \
            ::qx::logging::Logger((level), 0, ::qx::logging::QXLOG_DECODE_AS_KV, (source), \
                                  __FILE__, __LINE__, ::qx::String())                      \
                .Stream()
