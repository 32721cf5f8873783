// `korvel serve` as installed (its path in KORVEL_CLI), run as a separate process against a real
// ZooKeeper server and asked over loopback HTTP: every endpoint against instances registered with
// the library and with `korvel register`, the event stream and how soon it tells a change, a
// session expiry and a ZooKeeper outage of the serving process, the limits it puts on clients,
// that it never writes to ZooKeeper, and how it ends. Plain requests go through cpp-httplib; raw
// loopback sockets send what a well-behaved client would not (huge headers, a request dribbled
// byte by byte, connections that stay idle) and read the event streams. Every wait is bounded;
// a process that hangs is killed.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "korvel/service.h"
#include "korvel/version.h"
#include "process/child_process.h"
#include "stlext/uuid.h"
#include "util/prometheus_text.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using process::ChildProcess;
using qx::korvel::Connection;
using qx::korvel::Service;
using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

constexpr auto kCommandTimeout = 20s;  // a korvel command, or the first line of one
constexpr auto kGrace = 10s;           // a process ending after a signal
constexpr auto kAnswerTimeout = 5s;    // one HTTP answer
constexpr auto kSettle = 5s;           // the server following a change it is told of
// Under the sanitizers everything runs several times slower: the bounds on how long something may
// take grow with it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlowdown = 4;
#else
constexpr int kSlowdown = 1;
#endif
constexpr auto kEventDeadline = 1s * kSlowdown;  // from a change in the registry to its event
constexpr auto kPrompt = 1s * kSlowdown;         // an answer that nothing should hold up

Millis Since(Clock::time_point start) {
  return std::chrono::duration_cast<Millis>(Clock::now() - start);
}

std::string HostName() {
  char name[256] = {};
  gethostname(name, sizeof name - 1);
  return boost::algorithm::trim_copy(std::string(name));
}

// Percent-encodes every byte but the unreserved characters, for a query value.
std::string Encode(const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

// The media type of a Content-Type value, without its parameters.
std::string MediaType(const std::string& contentType) {
  return boost::algorithm::to_lower_copy(
      boost::algorithm::trim_copy(contentType.substr(0, contentType.find(';'))));
}

// The string member `key` of `json`; "" when there is none.
std::string Text(const Json& json, const std::string& key) {
  if (!json.is_object() || !json.contains(key) || !json[key].is_string()) return "";
  return json[key].get<std::string>();
}

// The member `key` of `json`; null when there is none.
Json Member(const Json& json, const std::string& key) {
  return json.is_object() && json.contains(key) ? json[key] : Json();
}

std::string Lower(const std::string& text) {
  return boost::algorithm::to_lower_copy(text);
}

std::string IdOf(const Service& service) {
  return qx::uuid::to_string(service.GetId());
}

// ---- korvel as a child process ----------------------------------------------------------

// What `korvel list TYPE --json` prints, ordered by id (as serve orders instances).
Json ListedById(const std::string& type, const std::string& hosts = Hosts()) {
  const Result result = RunKorvel({"--zk", hosts, "list", type, "--json"});
  EXPECT_EQ(0, result.code) << result.err;
  Json list = Json::parse(result.out, nullptr, false);
  if (!list.is_array()) {
    ADD_FAILURE() << "korvel list printed no JSON array: " << result.out;
    return Json::array();
  }
  std::sort(list.begin(), list.end(), [](const Json& a, const Json& b) {
    return a.at("id").get<std::string>() < b.at("id").get<std::string>();
  });
  return list;
}

// `korvel register TYPE ARGS` in the background; SIGTERM on destruction unregisters it.
class Registered {
 public:
  explicit Registered(const std::string& type, const std::vector<std::string>& args = {},
                      const std::string& hosts = Hosts())
      : m_process(CliPath(),
                  Concat({"korvel", "--zk", hosts, "--session-timeout", "4000", "register", type},
                         args)) {
    m_id = m_process
               .WaitForLine(
                   ChildProcess::kStdout, [](const std::string&) { return true; }, kCommandTimeout)
               .value_or("");
  }
  ~Registered() { Stop(); }
  Registered(const Registered&) = delete;
  Registered& operator=(const Registered&) = delete;

  // The instance id it printed once registered; empty if it printed none.
  const std::string& Id() const { return m_id; }
  ChildProcess& Process() { return m_process; }
  std::string Stderr() const { return m_process.Output(ChildProcess::kStderr); }

  // Sends a stdin command and returns its answer line.
  std::string Command(const std::string& command) {
    m_process.SendLine(command);
    return m_process
        .WaitForLine(
            ChildProcess::kStdout,
            [](const std::string& line) {
              return line.rfind("ok", 0) == 0 || line.rfind("error", 0) == 0;
            },
            kCommandTimeout)
        .value_or("<nothing>");
  }

  // Unregisters (SIGTERM) and returns the exit status.
  int Stop() {
    if (!m_process.Running()) return m_process.ExitStatus().value_or(-1);
    m_process.Signal(SIGTERM);
    const auto code = m_process.Wait(kGrace);
    return code ? *code : m_process.Kill();
  }

 private:
  ChildProcess m_process;
  std::string m_id;
};

#define ASSERT_REGISTERED(registered) \
  ASSERT_EQ(36u, (registered).Id().size()) << (registered).Stderr()

// An instance registered through the library, with its status and child attributes published.
using ChildAttributes = std::vector<std::tuple<std::string, std::string, std::string>>;
std::shared_ptr<Service> RegisterInstance(const std::shared_ptr<Connection>& conn,
                                          const std::string& type, const std::string& name,
                                          Service::Status status = Service::DOWN,
                                          const ChildAttributes& attributes = {}) {
  auto service = std::make_shared<Service>(conn, type, name);
  if (status != Service::DOWN) service->SetStatus(status);
  for (const auto& [child, attribute, value] : attributes) {
    service->SetChildAttribute(child, attribute, value);
  }
  return service;
}

// `korvel [GLOBAL] serve --listen 127.0.0.1:0 [ARGS]`, stopped (SIGTERM) on destruction.
class Serve {
 public:
  explicit Serve(const std::vector<std::string>& serveArgs = {},
                 const std::vector<std::string>& globalArgs = {},
                 const std::string& hosts = Hosts())
      : m_process(CliPath(), Concat(Concat({"korvel", "--zk", hosts}, globalArgs),
                                    Concat({"serve", "--listen", "127.0.0.1:0"}, serveArgs))) {
    m_firstLine =
        m_process
            .WaitForLine(
                ChildProcess::kStdout, [](const std::string&) { return true; }, kCommandTimeout)
            .value_or("");
    static const std::regex kListening(R"(listening on http://127\.0\.0\.1:(\d+))");
    std::smatch match;
    if (std::regex_match(m_firstLine, match, kListening)) m_port = std::stoi(match[1]);
  }
  ~Serve() {
    if (!m_process.Running()) return;
    m_process.Signal(SIGCONT);
    m_process.Stop(kGrace);
  }
  Serve(const Serve&) = delete;
  Serve& operator=(const Serve&) = delete;

  // The bound port its first line named; 0 when that line was not as it should be.
  int Port() const { return m_port; }
  const std::string& FirstLine() const { return m_firstLine; }
  ChildProcess& Process() { return m_process; }
  std::string Stderr() const { return m_process.Output(ChildProcess::kStderr); }

 private:
  ChildProcess m_process;
  std::string m_firstLine;
  int m_port = 0;
};

#define ASSERT_SERVING(serve)                                                     \
  ASSERT_NE(0, (serve).Port()) << "first line: '" << (serve).FirstLine() << "'\n" \
                               << (serve).Stderr()

// ---- HTTP -------------------------------------------------------------------------------

struct Answer {
  int status = 0;                              // 0: no answer came
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;

  std::string Header(const std::string& name) const {
    const auto it = headers.find(name);
    return it == headers.end() ? "" : it->second;
  }
  std::string ContentType() const { return Header("content-type"); }
  Json Parsed() const { return Json::parse(body, nullptr, false); }
};

std::ostream& operator<<(std::ostream& out, const Answer& answer) {
  return out << answer.status << " " << answer.ContentType() << " " << answer.body;
}

// One request on a connection of its own, through cpp-httplib.
Answer Request(int port, const std::string& method, const std::string& target,
               const httplib::Headers& headers = {}) {
  httplib::Client client("127.0.0.1", port);
  client.set_connection_timeout(2s);
  client.set_read_timeout(kAnswerTimeout);
  client.set_write_timeout(2s);
  client.set_url_encode(false);
  const httplib::Result result =
      method == "HEAD" ? client.Head(target, headers) : client.Get(target, headers);
  Answer answer;
  if (!result) return answer;
  answer.status = result->status;
  for (const auto& [name, value] : result->headers) answer.headers[Lower(name)] = value;
  answer.body = result->body;
  return answer;
}

Answer Get(int port, const std::string& target, const httplib::Headers& headers = {}) {
  return Request(port, "GET", target, headers);
}

// The JSON answer of a GET that must succeed; null when it did not.
Json GetJson(int port, const std::string& target) {
  const Answer answer = Get(port, target);
  EXPECT_EQ(200, answer.status) << target << ": " << answer;
  EXPECT_EQ("application/json", MediaType(answer.ContentType())) << target;
  const Json json = answer.Parsed();
  EXPECT_FALSE(json.is_discarded()) << target << ": " << answer.body;
  return json.is_discarded() ? Json() : json;
}

// Has the server read `type` before a test asks what it holds: whether the very first answer for a
// type is complete is TheFirstRequestForATypeIsAnsweredInFull's to check, once, and not every
// test's.
void Prime(int port, const std::string& type) {
  Answer answer;
  EXPECT_TRUE(WaitUntil(
      [&] {
        answer = Get(port, "/api/v1/instances?type=" + Encode(type));
        return answer.status == 200;
      },
      kSettle))
      << answer;
}

// An error answer: the status and a JSON body {"error": "..."} whose message is not empty.
void ExpectError(const Answer& answer, int status, const std::string& what) {
  EXPECT_EQ(status, answer.status) << what << ": " << answer;
  EXPECT_EQ("application/json", MediaType(answer.ContentType())) << what << ": " << answer;
  const Json body = answer.Parsed();
  EXPECT_TRUE(body.is_object() && body.size() == 1 && body.contains("error") &&
              body["error"].is_string() && !body["error"].get<std::string>().empty())
      << what << ": " << answer.body;
}

// The text of a request without a body.
std::string RequestText(const std::string& target, const std::string& headers = "",
                        const std::string& method = "GET") {
  return method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n";
}

// A raw TCP connection to 127.0.0.1, for what a well-behaved client would not send and for
// holding connections open. Reads collect into a buffer that answers are parsed from.
class Socket {
 public:
  enum class Read { kData, kTimeout, kClosed };

  explicit Socket(int port) {
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_fd < 0) return;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      m_connected = true;
      return;
    }
    if (errno != EINPROGRESS) return;
    pollfd p{m_fd, POLLOUT, 0};
    int error = 0;
    socklen_t length = sizeof error;
    m_connected = poll(&p, 1, 5000) == 1 &&
                  getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
  }
  ~Socket() { Close(); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  bool Connected() const { return m_connected; }
  // True once a read found the connection closed by the other end.
  bool Closed() const { return m_closed; }
  int Fd() const { return m_fd; }
  std::string& Buffer() { return m_buffer; }
  void Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
  }

  // Writes all of `data` (bounded); false when the connection does not take it.
  bool Send(const std::string& data) {
    std::size_t sent = 0;
    const auto deadline = Clock::now() + 5s;
    while (sent < data.size() && Clock::now() < deadline) {
      const ssize_t n = send(m_fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
      if (n > 0) {
        sent += static_cast<std::size_t>(n);
      } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        pollfd p{m_fd, POLLOUT, 0};
        poll(&p, 1, 100);
      } else if (n < 0 && errno != EINTR) {
        return false;
      }
    }
    return sent == data.size();
  }

  // Appends what arrives within `timeout` to the buffer.
  Read ReadSome(Millis timeout) {
    if (m_closed || m_fd < 0) return Read::kClosed;
    pollfd p{m_fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(std::max<Millis::rep>(0, timeout.count()))) <= 0) {
      return Read::kTimeout;
    }
    char chunk[16384];
    const ssize_t n = recv(m_fd, chunk, sizeof chunk, 0);
    if (n > 0) {
      m_buffer.append(chunk, static_cast<std::size_t>(n));
      return Read::kData;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return Read::kTimeout;
    m_closed = true;  // the end of the stream, or a reset
    return Read::kClosed;
  }

  // One whole answer (to a HEAD request when `head`), taken out of the buffer; nullopt when
  // none was complete within `timeout`.
  std::optional<Answer> ReadAnswer(Millis timeout, bool head = false) {
    const auto deadline = Clock::now() + timeout;
    while (true) {
      std::size_t used = 0;
      if (auto answer = ParseAnswer(m_buffer, head, m_closed, used)) {
        m_buffer.erase(0, used);
        return answer;
      }
      const auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now());
      if (m_closed || left.count() <= 0) return std::nullopt;
      ReadSome(left);
    }
  }

  // True once the peer has closed the connection, within `timeout`; what arrived meanwhile
  // stays in the buffer.
  bool AwaitClose(Millis timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!m_closed && Clock::now() < deadline) {
      ReadSome(std::chrono::duration_cast<Millis>(deadline - Clock::now()));
    }
    return m_closed;
  }

  // Parses one answer at the start of `text`: its status line, headers and body (by
  // Content-Length, chunked, or up to the end of a closed connection). Sets `used` to its size.
  static std::optional<Answer> ParseAnswer(const std::string& text, bool head, bool closed,
                                           std::size_t& used) {
    const std::size_t end = text.find("\r\n\r\n");
    if (end == std::string::npos) return std::nullopt;
    Answer answer;
    std::istringstream lines(text.substr(0, end));
    std::string line;
    std::getline(lines, line);
    static const std::regex kStatusLine(R"(HTTP/1\.[01] (\d\d\d)( .*)?\r?)");
    std::smatch match;
    if (!std::regex_match(line, match, kStatusLine)) return std::nullopt;
    answer.status = std::stoi(match[1]);
    while (std::getline(lines, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      const std::size_t colon = line.find(':');
      if (colon == std::string::npos) continue;
      answer.headers[Lower(line.substr(0, colon))] =
          boost::algorithm::trim_copy(line.substr(colon + 1));
    }
    std::size_t pos = end + 4;
    if (head || answer.status / 100 == 1 || answer.status == 204 || answer.status == 304) {
      used = pos;
      return answer;
    }
    if (answer.headers.count("content-length")) {
      const std::size_t length = std::stoul(answer.headers["content-length"]);
      if (text.size() < pos + length) return std::nullopt;
      answer.body = text.substr(pos, length);
      used = pos + length;
      return answer;
    }
    if (Lower(answer.Header("transfer-encoding")).find("chunked") != std::string::npos) {
      while (true) {
        const std::size_t lineEnd = text.find("\r\n", pos);
        if (lineEnd == std::string::npos) return std::nullopt;
        const std::size_t size = std::stoul(text.substr(pos, lineEnd - pos), nullptr, 16);
        if (size == 0) {
          const std::size_t trailerEnd = text.find("\r\n", lineEnd + 2);
          if (trailerEnd == std::string::npos) return std::nullopt;
          used = trailerEnd + 2;
          return answer;
        }
        if (text.size() < lineEnd + 2 + size + 2) return std::nullopt;
        answer.body += text.substr(lineEnd + 2, size);
        pos = lineEnd + 2 + size + 2;
      }
    }
    if (!closed) return std::nullopt;
    answer.body = text.substr(pos);
    used = text.size();
    return answer;
  }

 private:
  int m_fd = -1;
  bool m_connected = false;
  bool m_closed = false;
  std::string m_buffer;
};

// ---- Server-Sent Events -----------------------------------------------------------------

struct Event {
  std::string id;
  std::string name;
  std::string data;
  Clock::time_point arrived;  // when its last byte was read

  Json Data() const { return Json::parse(data, nullptr, false); }
};

std::ostream& operator<<(std::ostream& out, const Event& event) {
  return out << "[" << event.id << " " << event.name << " " << event.data << "]";
}

// GET /api/v1/watch?type=TYPE on a raw connection, read by a thread of its own that notes when
// each event arrived.
class EventStream {
 public:
  // `more`: further header lines, each ending in "\r\n".
  EventStream(int port, const std::string& type, const std::string& lastEventId = "",
              const std::string& more = "")
      : m_socket(port) {
    const std::string headers =
        "Accept: text/event-stream\r\n" + more +
        (lastEventId.empty() ? std::string() : "Last-Event-ID: " + lastEventId + "\r\n");
    if (!m_socket.Connected() ||
        !m_socket.Send(RequestText("/api/v1/watch?type=" + Encode(type), headers))) {
      m_closed = true;
      return;
    }
    m_reader = std::thread([this] { ReadLoop(); });
  }
  ~EventStream() { Close(); }
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;

  // Closes the connection from this side.
  void Close() {
    m_stop = true;
    if (m_reader.joinable()) m_reader.join();
    m_socket.Close();
  }

  // The answer's status, waiting for its headers (0 if none came in time).
  int Status() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, kAnswerTimeout, [this] { return m_head.status != 0 || m_closed; });
    return m_head.status;
  }
  std::string ContentType() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_head.ContentType();
  }

  // The next event not returned yet, waiting up to `timeout`.
  std::optional<Event> Next(Millis timeout = kSettle) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, timeout, [this] { return m_next < m_events.size() || m_closed; });
    if (m_next >= m_events.size()) return std::nullopt;
    return m_events[m_next++];
  }

  // True once the server has closed the stream, within `timeout`.
  bool AwaitClose(Millis timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [this] { return m_closed; });
  }

  // Every event received, for failure messages.
  std::string Describe() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::ostringstream out;
    for (const Event& event : m_events) out << event << "\n";
    return out.str();
  }

 private:
  void ReadLoop() {
    std::string decoded;  // the body, chunked encoding undone
    bool chunked = false;
    while (!m_stop) {
      const Socket::Read read = m_socket.ReadSome(50ms);
      const auto now = Clock::now();
      std::string& raw = m_socket.Buffer();
      bool head = false;
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        head = m_head.status != 0;
      }
      if (!head) {
        const std::size_t end = raw.find("\r\n\r\n");
        if (end != std::string::npos) {
          std::size_t used = 0;
          Answer answer = *Socket::ParseAnswer(raw.substr(0, end + 4), true, false, used);
          raw.erase(0, end + 4);
          chunked = Lower(answer.Header("transfer-encoding")).find("chunked") != std::string::npos;
          std::lock_guard<std::mutex> lock(m_mutex);
          m_head = std::move(answer);
          head = true;
        }
      }
      if (head) {
        if (chunked) {
          Unchunk(raw, decoded);
        } else {
          decoded += raw;
          raw.clear();
        }
        ParseEvents(decoded, now);
      }
      if (read == Socket::Read::kClosed) break;
      m_changed.notify_all();
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closed = true;
    m_changed.notify_all();
  }

  // Moves the complete chunks at the start of `raw` to `decoded`.
  static void Unchunk(std::string& raw, std::string& decoded) {
    while (true) {
      const std::size_t lineEnd = raw.find("\r\n");
      if (lineEnd == std::string::npos) return;
      const std::size_t size = std::stoul(raw.substr(0, lineEnd), nullptr, 16);
      if (raw.size() < lineEnd + 2 + size + 2) return;
      decoded += raw.substr(lineEnd + 2, size);
      raw.erase(0, lineEnd + 2 + size + 2);
      if (size == 0) return;
    }
  }

  // Takes the complete lines out of `text`; a blank line ends an event.
  void ParseEvents(std::string& text, Clock::time_point now) {
    std::size_t newline;
    while ((newline = text.find('\n')) != std::string::npos) {
      std::string line = text.substr(0, newline);
      text.erase(0, newline + 1);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.empty()) {
        if (!m_pending.name.empty() || !m_pending.data.empty() || !m_pending.id.empty()) {
          m_pending.arrived = now;
          std::lock_guard<std::mutex> lock(m_mutex);
          m_events.push_back(std::move(m_pending));
        }
        m_pending = Event();
        m_hasData = false;
        continue;
      }
      if (line[0] == ':') continue;  // a comment: the keep-alive
      const std::size_t colon = line.find(':');
      const std::string field = line.substr(0, colon);
      std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
      if (!value.empty() && value[0] == ' ') value.erase(0, 1);
      if (field == "id") {
        m_pending.id = value;
      } else if (field == "event") {
        m_pending.name = value;
      } else if (field == "data") {
        if (m_hasData) m_pending.data += '\n';
        m_pending.data += value;
        m_hasData = true;
      }
    }
  }

  Socket m_socket;
  std::thread m_reader;
  std::atomic<bool> m_stop{false};
  Event m_pending;  // the reader thread's own
  bool m_hasData = false;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  Answer m_head;
  std::vector<Event> m_events;
  std::size_t m_next = 0;
  bool m_closed = false;
};

// The next event that is not `changed` of instance `id` for an attribute appearing (old null)
// or vanishing (new null): what the stream tells of a registration or an unregistration that it
// caught half done.
std::optional<Event> NextBesidesPartialChanges(EventStream& stream, const std::string& id,
                                               Millis timeout = kSettle) {
  const auto deadline = Clock::now() + timeout;
  while (true) {
    const auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now());
    std::optional<Event> event = stream.Next(std::max(left, Millis(0)));
    if (!event || event->name != "changed") return event;
    const Json data = event->Data();
    if (!data.is_object() || Text(data, "id") != id) return event;
    if (!data.contains("old") || !data.contains("new")) return event;
    if (!data["old"].is_null() && !data["new"].is_null()) return event;
  }
}

// Follows the `changed` events of an instance that was `added` before all its attributes were
// written, until its status is known: each one an attribute appearing (old null).
void AwaitStatus(EventStream& stream, const Event& added, std::vector<Event>& seen) {
  const std::string id = Text(added.Data(), "id");
  Json view = added.Data();
  while (!view.contains("status")) {
    const auto change = stream.Next();
    ASSERT_TRUE(change && change->name == "changed") << stream.Describe();
    const Json data = change->Data();
    ASSERT_EQ(id, Text(data, "id")) << *change;
    ASSERT_TRUE(data.contains("old") && data["old"].is_null()) << *change;
    view[Text(data, "attribute")] = Member(data, "new");
    seen.push_back(*change);
  }
}

// ---- ZooKeeper as seen from outside -------------------------------------------------------

// The TCP connections that process `pid` holds to 127.0.0.1:`port`: the state of each (as
// /proc/net/tcp gives it: 1 established, 8 close-wait: closed by the other end) by socket inode.
std::map<std::string, int> ConnectionsTo(pid_t pid, int port) {
  std::set<std::string> inodes;
  std::error_code error;
  for (const auto& fd :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
    const std::string target = std::filesystem::read_symlink(fd.path(), error).string();
    static const std::regex kSocket(R"(socket:\[(\d+)\])");
    std::smatch match;
    if (std::regex_match(target, match, kSocket)) inodes.insert(match[1]);
  }
  std::map<std::string, int> connections;
  std::ifstream table("/proc/net/tcp");
  std::string line;
  std::getline(table, line);  // the headings
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
    fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
        timeout >> inode;
    const std::size_t colon = remote.find(':');
    if (colon == std::string::npos || inodes.count(inode) == 0) continue;
    if (std::stoi(remote.substr(colon + 1), nullptr, 16) != port) continue;
    connections[inode] = std::stoi(state, nullptr, 16);
  }
  return connections;
}

// True when every thread of process `pid` has stopped (state T in /proc): a SIGSTOP has taken
// effect, which it does some time after kill() returns.
bool AllThreadsStopped(pid_t pid) {
  std::error_code error;
  bool any = false;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    std::ifstream stat(task.path() / "stat");
    std::string text;
    std::getline(stat, text);
    // "tid (name) S ...": the state follows the name's closing parenthesis.
    const std::size_t paren = text.rfind(')');
    if (paren == std::string::npos || paren + 2 >= text.size()) return false;
    if (text[paren + 2] != 'T') return false;
    any = true;
  }
  return any;
}

// What changes in the tree when anything writes: the number of nodes below a root, the highest
// creation, modification and child-list zxids among them, and the children of "/".
struct TreeState {
  std::size_t nodes = 0;
  int64_t maxCzxid = 0;
  int64_t maxMzxid = 0;
  int64_t maxPzxid = 0;
  std::vector<std::string> topLevel;
  int64_t rootPzxid = 0;

  bool operator==(const TreeState& o) const {
    return std::tie(nodes, maxCzxid, maxMzxid, maxPzxid, topLevel, rootPzxid) ==
           std::tie(o.nodes, o.maxCzxid, o.maxMzxid, o.maxPzxid, o.topLevel, o.rootPzxid);
  }
};

std::ostream& operator<<(std::ostream& out, const TreeState& s) {
  out << s.nodes << " nodes, czxid " << s.maxCzxid << ", mzxid " << s.maxMzxid << ", pzxid "
      << s.maxPzxid << ", root pzxid " << s.rootPzxid << ", top level:";
  for (const auto& name : s.topLevel) out << " " << name;
  return out;
}

TreeState Walk(const Connection& conn, const std::string& root) {
  TreeState state;
  Stat stat{};
  EXPECT_EQ(ZOK, conn.Exists("/", &stat));
  state.rootPzxid = stat.pzxid;
  EXPECT_EQ(ZOK, conn.GetChildren("/", state.topLevel));
  std::sort(state.topLevel.begin(), state.topLevel.end());
  std::vector<std::string> pending{root};
  while (!pending.empty()) {
    const std::string path = pending.back();
    pending.pop_back();
    if (conn.Exists(path, &stat) != ZOK) {
      ADD_FAILURE() << "cannot read " << path;
      continue;
    }
    ++state.nodes;
    state.maxCzxid = std::max<int64_t>(state.maxCzxid, stat.czxid);
    state.maxMzxid = std::max<int64_t>(state.maxMzxid, stat.mzxid);
    state.maxPzxid = std::max<int64_t>(state.maxPzxid, stat.pzxid);
    std::vector<std::string> children;
    EXPECT_EQ(ZOK, conn.GetChildren(path, children));
    for (const auto& child : children) pending.push_back(path + "/" + child);
  }
  return state;
}

// Raises this process's limit of open descriptors to `wanted` (children inherit it); false
// when the hard limit is lower.
bool RaiseDescriptorLimit(rlim_t wanted) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  if (limit.rlim_cur >= wanted) return true;
  if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < wanted) return false;
  limit.rlim_cur = wanted;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// The metrics, parsed strictly; an empty exposition (and a failure) when the text is broken.
Exposition Metrics(int port, const httplib::Headers& headers = {}) {
  const Answer answer = Get(port, "/metrics", headers);
  EXPECT_EQ(200, answer.status) << answer;
  try {
    return ParseExposition(answer.body);
  } catch (const ParseError& e) {
    ADD_FAILURE() << "/metrics is not well-formed: " << e.what();
    return Exposition();
  }
}

double MetricValue(const Exposition& e, const std::string& name, const Labels& labels = {}) {
  return e.Value(name, labels).value_or(0);
}

// The sum of a family's samples named `name` whose labels include `match`.
double SumOf(const Exposition& e, const std::string& family, const std::string& name,
             const Labels& match) {
  double sum = 0;
  const auto it = e.families.find(family);
  if (it == e.families.end()) return 0;
  for (const Sample& sample : it->second.samples) {
    if (sample.name != name) continue;
    const bool matches = std::all_of(match.begin(), match.end(), [&](const auto& label) {
      return std::find(sample.labels.begin(), sample.labels.end(), label) != sample.labels.end();
    });
    if (matches) sum += sample.value;
  }
  return sum;
}

Json SortedArray(Json array) {
  std::sort(array.begin(), array.end(),
            [](const Json& a, const Json& b) { return a.dump() < b.dump(); });
  return array;
}

// ---- The endpoints ------------------------------------------------------------------------

TEST(ServeTest, TypesCountTheInstancesOfEveryTypeByStatus) {
  const auto conn = Connect(Hosts());
  const std::string billing = UniqueName("serve-types");
  const std::string nested = UniqueName("serve-types") + "/eu/billing";
  const std::string emptied = UniqueName("serve-types");
  auto up = RegisterInstance(conn, billing, "b1", Service::UP);
  auto down = RegisterInstance(conn, billing, "b2");
  Registered alsoDown(billing, {"--name", "b3"});
  ASSERT_REGISTERED(alsoDown);
  Registered disabled(nested, {"--status", "up_sending_disabled"});
  ASSERT_REGISTERED(disabled);
  // Registered and gone: its liveness directory stays, empty.
  RegisterInstance(conn, emptied, "gone").reset();

  Serve serve;
  ASSERT_SERVING(serve);
  const auto typesNow = [&] {
    const Json types = GetJson(serve.Port(), "/api/v1/types");
    std::map<std::string, Json> byType;
    std::vector<std::string> order;
    EXPECT_TRUE(types.is_array()) << types;
    if (!types.is_array()) return byType;
    for (const Json& entry : types) {
      const std::string type = Text(entry, "type");
      order.push_back(type);
      byType[type] = entry;
    }
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << types;
    EXPECT_EQ(order.size(), byType.size()) << "a type listed twice: " << types;
    for (const std::string& type : order) {
      EXPECT_FALSE(type == "alive" || type.rfind("alive/", 0) == 0) << types;
    }
    return byType;
  };
  const auto entry = [](const std::string& type, int instances, int upCount, Json statuses) {
    return Json{{"type", type},
                {"instances", instances},
                {"up", upCount},
                {"statuses", statuses},
                {"current", true}};
  };

  // A type's entry may say that it is not current yet; once it is, its counts are right.
  std::map<std::string, Json> types;
  EXPECT_TRUE(WaitUntil(
      [&] {
        types = typesNow();
        return Member(types[billing], "current") == true &&
               Member(types[nested], "current") == true &&
               Member(types[emptied], "current") == true;
      },
      kSettle));
  EXPECT_EQ(entry(billing, 3, 1, {{"down", 2}, {"up", 1}}), types[billing]);
  EXPECT_EQ(entry(nested, 1, 0, {{"up_sending_disabled", 1}}), types[nested]);
  EXPECT_EQ(entry(emptied, 0, 0, Json::object()), types[emptied]);

  // Changes show.
  down->SetStatus(Service::UP);
  EXPECT_EQ("ok status up_sending_disabled", alsoDown.Command("status up_sending_disabled"));
  const Json changed = entry(billing, 3, 2, {{"up", 2}, {"up_sending_disabled", 1}});
  EXPECT_TRUE(WaitUntil([&] { return typesNow()[billing] == changed; }, kSettle))
      << typesNow()[billing];
  EXPECT_EQ(0, disabled.Stop());
  EXPECT_TRUE(
      WaitUntil([&] { return typesNow()[nested] == entry(nested, 0, 0, Json::object()); }, kSettle))
      << typesNow()[nested];
}

TEST(ServeTest, InstancesAreWhatKorvelListPrintsOrderedById) {
  const auto conn = Connect(Hosts());
  const std::string type = UniqueName("serve-instances");
  auto alpha = RegisterInstance(conn, type, "alpha", Service::UP);
  auto beta = RegisterInstance(conn, type, "beta", Service::UP_SENDING_DISABLED);
  Registered gamma(type, {"--name", "gamma", "--status", "up"});
  ASSERT_REGISTERED(gamma);
  const std::string nested = UniqueName("serve-instances") + "/eu/billing";
  auto delta = RegisterInstance(conn, nested, "delta");

  Serve serve;
  ASSERT_SERVING(serve);
  Prime(serve.Port(), type);
  Prime(serve.Port(), nested);
  const Json listed = ListedById(type);
  ASSERT_EQ(3u, listed.size()) << listed;
  const Json instances = GetJson(serve.Port(), "/api/v1/instances?type=" + Encode(type));
  EXPECT_EQ(listed, instances);
  ASSERT_TRUE(instances.is_array());
  for (const Json& instance : instances) {
    const std::string id = Text(instance, "id");
    EXPECT_EQ(Lower(id), id);
    for (const auto& [name, value] : instance.items()) EXPECT_TRUE(value.is_string()) << name;
  }
  const Json gammaListed = *std::find_if(listed.begin(), listed.end(),
                                         [&](const Json& i) { return i.at("id") == gamma.Id(); });
  EXPECT_EQ(std::to_string(gamma.Process().Pid()), Text(gammaListed, "pid"));

  // A type that holds "/", with its slashes encoded or not.
  const Json nestedListed = ListedById(nested);
  ASSERT_EQ(1u, nestedListed.size());
  EXPECT_EQ(nestedListed, GetJson(serve.Port(), "/api/v1/instances?type=" + Encode(nested)));
  EXPECT_EQ(nestedListed, GetJson(serve.Port(), "/api/v1/instances?type=" + nested));

  // An unknown type has none.
  EXPECT_EQ(Json::array(),
            GetJson(serve.Port(), "/api/v1/instances?type=" + Encode(UniqueName("serve-none"))));

  // Changes show.
  EXPECT_EQ("ok status down", gamma.Command("status down"));
  alpha.reset();
  Json now;
  EXPECT_TRUE(WaitUntil(
      [&] {
        now = GetJson(serve.Port(), "/api/v1/instances?type=" + Encode(type));
        return now.size() == 2;
      },
      kSettle))
      << now;
  EXPECT_EQ(ListedById(type), now);
}

TEST(ServeTest, InstanceShowsItsAttributesAndEveryChildRecord) {
  const auto conn = Connect(Hosts());
  const std::string type = UniqueName("serve-instance");
  Registered cli(type, {"--name", "gamma", "--child-attr", "worker-1:port=8080", "--child-attr",
                        "worker-1:status=up", "--child-attr", "a/b:x=1"});
  ASSERT_REGISTERED(cli);
  auto lib = RegisterInstance(conn, type, "delta", Service::UP,
                              {{"w", "port", "9090"}, {"w/x/y", "k", "v"}});
  const std::string libId = IdOf(*lib);

  Serve serve;
  ASSERT_SERVING(serve);
  const auto instance = [&](const std::string& id) {
    return Get(serve.Port(), "/api/v1/instance?type=" + Encode(type) + "&id=" + id);
  };

  // The own attributes are those that `korvel show` prints as values.
  const Result shown = RunKorvel({"--zk", Hosts(), "show", type, cli.Id(), "--json"});
  ASSERT_EQ(0, shown.code) << shown.err;
  Json attributes = Json::object();
  const Json record = Json::parse(shown.out);
  for (const auto& [name, value] : record.items()) {
    if (value.is_string()) attributes[name] = value;
  }
  EXPECT_EQ("down", Text(attributes, "status"));
  EXPECT_EQ(std::to_string(cli.Process().Pid()), Text(attributes, "pid"));
  const Answer cliAnswer = instance(cli.Id());
  EXPECT_EQ(200, cliAnswer.status) << cliAnswer;
  EXPECT_EQ("application/json", MediaType(cliAnswer.ContentType()));
  EXPECT_EQ((Json{{"id", cli.Id()},
                  {"attributes", attributes},
                  {"children", Json::parse(R"({"worker-1": {"port": "8080", "status": "up"},
                                               "a": {}, "a/b": {"x": "1"}})")}}),
            cliAnswer.Parsed());

  const Json libInstance = instance(libId).Parsed();
  EXPECT_EQ(libId, Text(libInstance, "id"));
  const Json libAttributes = Member(libInstance, "attributes");
  EXPECT_EQ("up", Text(libAttributes, "status"));
  EXPECT_EQ("delta", Text(libAttributes, "service_name"));
  EXPECT_EQ(HostName(), Text(libAttributes, "hostname"));
  EXPECT_EQ(std::to_string(getpid()), Text(libAttributes, "pid"));
  EXPECT_TRUE(libAttributes.contains("start_time")) << libInstance;
  EXPECT_EQ(Json::parse(R"({"w": {"port": "9090"}, "w/x": {}, "w/x/y": {"k": "v"}})"),
            Member(libInstance, "children"));

  // An id in upper case names the same instance, answered with its canonical id.
  const Answer upper = instance(boost::algorithm::to_upper_copy(libId));
  EXPECT_EQ(200, upper.status) << upper;
  EXPECT_EQ(libInstance, upper.Parsed());

  // Unknown instances, also of an unknown type.
  const Answer missing = instance("ABCDEF00-0000-4000-8000-000000000000");
  EXPECT_EQ(404, missing.status) << missing;
  EXPECT_EQ("application/json", MediaType(missing.ContentType()));
  EXPECT_EQ(
      (Json{{"error", "no instance abcdef00-0000-4000-8000-000000000000 of type '" + type + "'"}}),
      missing.Parsed());
  const std::string unknownType = UniqueName("serve-none");
  const Answer noType =
      Get(serve.Port(), "/api/v1/instance?type=" + Encode(unknownType) + "&id=" + libId);
  EXPECT_EQ(404, noType.status) << noType;
  EXPECT_EQ((Json{{"error", "no instance " + libId + " of type '" + unknownType + "'"}}),
            noType.Parsed());

  // Bad or missing ids.
  for (const std::string& id : {std::string("not-a-uuid"), std::string(""), libId.substr(1),
                                libId.substr(0, 35) + "g", libId + "0", " " + libId}) {
    ExpectError(instance(Encode(id)), 400, "id '" + id + "'");
  }
  ExpectError(Get(serve.Port(), "/api/v1/instance?type=" + Encode(type)), 400, "no id");
  ExpectError(Get(serve.Port(), "/api/v1/instance?id=" + libId), 400, "no type");
}

TEST(ServeTest, PrometheusTargetsAreTheChildRecordsOfUpInstancesWithAPort) {
  const auto conn = Connect(Hosts());
  const std::string type = UniqueName("serve-sd");
  auto alpha = RegisterInstance(conn, type, "alpha", Service::UP,
                                {{"worker-1", "port", "8080"},
                                 {"worker-2", "port", "8081"},
                                 {"a/b", "port", "9000"},
                                 {"misc", "other", "1"},
                                 {"w", "metrics_port", "9100"}});
  auto beta = RegisterInstance(conn, type, "beta", Service::DOWN, {{"worker-1", "port", "7000"}});
  Registered gamma(type, {"--name", "gamma", "--status", "up", "--child-attr", "worker-1:port=8082",
                          "--child-attr", "worker-1:metrics_port=9101"});
  ASSERT_REGISTERED(gamma);
  Registered delta(type, {"--name", "delta", "--status", "up_sending_disabled", "--child-attr",
                          "worker-1:port=8083"});
  ASSERT_REGISTERED(delta);

  Serve serve;
  ASSERT_SERVING(serve);
  Prime(serve.Port(), type);
  const std::string host = HostName();
  const auto group = [&](const std::string& id, const std::string& name, const std::string& child,
                         const std::string& port) {
    return Json{{"targets", Json::array({host + ":" + port})},
                {"labels",
                 {{"__meta_korvel_type", type},
                  {"__meta_korvel_id", id},
                  {"__meta_korvel_service_name", name},
                  {"__meta_korvel_child", child}}}};
  };
  const std::string a = IdOf(*alpha);
  const std::string sd = "/sd/prometheus?type=" + Encode(type);
  EXPECT_EQ(
      SortedArray(Json::array(
          {group(a, "alpha", "worker-1", "8080"), group(a, "alpha", "worker-2", "8081"),
           group(a, "alpha", "a/b", "9000"), group(gamma.Id(), "gamma", "worker-1", "8082")})),
      SortedArray(GetJson(serve.Port(), sd)));
  EXPECT_EQ(SortedArray(Json::array(
                {group(a, "alpha", "w", "9100"), group(gamma.Id(), "gamma", "worker-1", "9101")})),
            SortedArray(GetJson(serve.Port(), sd + "&port_attribute=metrics_port")));

  // An instance that comes up brings its targets; one that goes down takes them away.
  beta->SetStatus(Service::UP);
  EXPECT_EQ("ok status down", gamma.Command("status down"));
  const Json now = SortedArray(Json::array(
      {group(a, "alpha", "worker-1", "8080"), group(a, "alpha", "worker-2", "8081"),
       group(a, "alpha", "a/b", "9000"), group(IdOf(*beta), "beta", "worker-1", "7000")}));
  Json answer;
  EXPECT_TRUE(WaitUntil(
      [&] {
        answer = SortedArray(GetJson(serve.Port(), sd));
        return answer == now;
      },
      kSettle))
      << answer;

  EXPECT_EQ(Json::array(),
            GetJson(serve.Port(), "/sd/prometheus?type=" + Encode(UniqueName("serve-none"))));
  ExpectError(Get(serve.Port(), "/sd/prometheus"), 400, "no type");
}

// The first request for a type makes the server read it; the answer is what was read, not what
// an empty cache held a moment before. Several types, each asked first at another endpoint, on
// a server that is already connected.
TEST(ServeTest, TheFirstRequestForATypeIsAnsweredInFull) {
  const auto conn = Connect(Hosts());
  Serve serve;
  ASSERT_SERVING(serve);
  Answer health;
  ASSERT_TRUE(WaitUntil(
      [&] {
        health = Get(serve.Port(), "/healthz");
        return health.status == 200;
      },
      kSettle))
      << health;
  const std::string host = HostName();
  for (int i = 0; i < 12; ++i) {
    const std::string type = UniqueName("serve-first");
    const auto instance =
        RegisterInstance(conn, type, "first", Service::UP, {{"worker-1", "port", "8080"}});
    const std::string id = IdOf(*instance);
    const std::string q = Encode(type);
    switch (i % 4) {
      case 0: {
        const Json instances = GetJson(serve.Port(), "/api/v1/instances?type=" + q);
        EXPECT_EQ(1u, instances.size()) << instances;
        EXPECT_EQ(id,
                  Text(instances.is_array() && !instances.empty() ? instances[0] : Json(), "id"));
        break;
      }
      case 1: {
        const Json record = GetJson(serve.Port(), "/api/v1/instance?type=" + q + "&id=" + id);
        EXPECT_EQ("up", Text(Member(record, "attributes"), "status")) << record;
        break;
      }
      case 2: {
        const Json groups = GetJson(serve.Port(), "/sd/prometheus?type=" + q);
        EXPECT_EQ(1u, groups.size()) << groups;
        EXPECT_EQ(Json::array({host + ":8080"}),
                  Member(groups.is_array() && !groups.empty() ? groups[0] : Json(), "targets"));
        break;
      }
      case 3: {
        EventStream stream(serve.Port(), type);
        const auto snapshot = stream.Next();
        ASSERT_TRUE(snapshot) << stream.Describe();
        EXPECT_EQ("snapshot", snapshot->name);
        EXPECT_EQ(1u, snapshot->Data().size()) << *snapshot;
        break;
      }
    }
  }
}

TEST(ServeTest, HealthzAndTheErrorsOfUnknownPathsAndMethods) {
  Serve serve;
  ASSERT_SERVING(serve);
  const Answer health = Get(serve.Port(), "/healthz");
  EXPECT_EQ(200, health.status) << health;
  EXPECT_EQ("text/plain", MediaType(health.ContentType()));
  EXPECT_EQ("ok\n", health.body);

  const Answer head = Request(serve.Port(), "HEAD", "/healthz");
  EXPECT_EQ(200, head.status) << head;
  EXPECT_EQ("", head.body);
  const Answer typesHead = Request(serve.Port(), "HEAD", "/api/v1/types");
  EXPECT_EQ(200, typesHead.status) << typesHead;
  EXPECT_EQ("application/json", MediaType(typesHead.ContentType()));
  EXPECT_EQ("", typesHead.body);

  for (const char* path : {"/nope", "/api/v1", "/api/v1/types/x", "/api/v2/types", "/healthz/x",
                           "/sd", "/metrics/x", "/assets/nope.js", "/assets/index.html"}) {
    ExpectError(Get(serve.Port(), path), 404, path);
  }
  // "/" is the dashboard's page (its assets are checked in a browser by dashboard_test.py).
  const Answer page = Get(serve.Port(), "/");
  EXPECT_EQ(200, page.status) << page;
  EXPECT_EQ("text/html", MediaType(page.ContentType()));
  EXPECT_EQ("no-cache", page.Header("cache-control"));
  EXPECT_NE(std::string::npos, page.body.find("/assets/app.js?v=")) << page.body;

  // Other methods, on one keep-alive connection that stays usable after each answer.
  Socket socket(serve.Port());
  ASSERT_TRUE(socket.Connected());
  for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS"}) {
    for (const char* path : {"/healthz", "/api/v1/types", "/metrics"}) {
      const std::string what = std::string(method) + " " + path;
      ASSERT_TRUE(socket.Send(RequestText(path, "", method))) << what;
      const auto answer = socket.ReadAnswer(kAnswerTimeout);
      ASSERT_TRUE(answer) << what << ": " << socket.Buffer();
      ExpectError(*answer, 405, what);
    }
  }
  ASSERT_TRUE(socket.Send(RequestText("/healthz")));
  const auto last = socket.ReadAnswer(kAnswerTimeout);
  ASSERT_TRUE(last);
  EXPECT_EQ(200, last->status);
}

TEST(ServeTest, MetricsAreWellFormedAndCountTheInstances) {
  const auto conn = Connect(Hosts());
  const std::string type = UniqueName("serve-metrics");
  auto a = RegisterInstance(conn, type, "a", Service::UP);
  auto b = RegisterInstance(conn, type, "b", Service::UP);
  Registered c(type, {"--name", "c"});
  ASSERT_REGISTERED(c);

  Serve serve;
  ASSERT_SERVING(serve);
  Prime(serve.Port(), type);
  EXPECT_EQ(3u, GetJson(serve.Port(), "/api/v1/instances?type=" + Encode(type)).size());
  ExpectError(Get(serve.Port(), "/nope"), 404, "/nope");
  const auto counts = [&](double up, double down) {
    return [&, up, down] {
      const Exposition e = Metrics(serve.Port());
      return MetricValue(e, "korvel_instances", {{"type", type}, {"status", "up"}}) == up &&
             MetricValue(e, "korvel_instances", {{"type", type}, {"status", "down"}}) == down;
    };
  };
  EXPECT_TRUE(WaitUntil(counts(2, 1), kSettle));

  const Answer answer = Get(serve.Port(), "/metrics");
  ASSERT_EQ(200, answer.status) << answer;
  EXPECT_EQ("text/plain; version=0.0.4; charset=utf-8", answer.ContentType());
  Exposition e;
  try {
    e = ParseExposition(answer.body);
  } catch (const ParseError& error) {
    FAIL() << "/metrics is not well-formed: " << error.what() << "\n" << answer.body;
  }
  const std::map<std::string, std::string> expected = {
      {"korvel_instances", "gauge"},
      {"korvel_types", "gauge"},
      {"korvel_zookeeper_connected", "gauge"},
      {"korvel_zookeeper_session_expirations_total", "counter"},
      {"korvel_cache_stale", "gauge"},
      {"korvel_build_info", "gauge"},
      {"korvel_http_requests_total", "counter"},
      {"korvel_http_request_duration_seconds", "histogram"},
      {"korvel_http_connections", "gauge"},
      {"korvel_http_streams", "gauge"},
      {"korvel_http_rejected_connections_total", "counter"},
      // The library's own.
      {"korvel_service_registration_failures_total", "counter"},
      {"korvel_service_registrations_total", "counter"},
      {"korvel_service_reregistrations_total", "counter"},
      {"korvel_zookeeper_requests_total", "counter"},
      {"korvel_zookeeper_sessions_total", "counter"},
  };
  for (const auto& [name, kind] : expected) {
    const auto it = e.families.find(name);
    if (it == e.families.end()) {
      ADD_FAILURE() << "no family " << name;
      continue;
    }
    EXPECT_EQ(kind, it->second.type) << name;
  }
  EXPECT_EQ(2, MetricValue(e, "korvel_instances", {{"type", type}, {"status", "up"}}));
  EXPECT_EQ(1, MetricValue(e, "korvel_instances", {{"type", type}, {"status", "down"}}));
  EXPECT_EQ(1, MetricValue(e, "korvel_zookeeper_connected"));
  EXPECT_EQ(0, MetricValue(e, "korvel_zookeeper_session_expirations_total"));
  EXPECT_EQ(std::optional<double>(0), e.Value("korvel_cache_stale", {{"type", type}}));
  EXPECT_EQ(0, MetricValue(e, "korvel_http_streams"));
  EXPECT_EQ(0, MetricValue(e, "korvel_http_rejected_connections_total"));
  EXPECT_GE(MetricValue(e, "korvel_http_connections"), 1);
  EXPECT_EQ(static_cast<double>(GetJson(serve.Port(), "/api/v1/types").size()),
            MetricValue(e, "korvel_types"));

  if (e.families.count("korvel_build_info")) {
    const auto& samples = e.families.at("korvel_build_info").samples;
    ASSERT_EQ(1u, samples.size());
    ASSERT_EQ(1u, samples[0].labels.size());
    EXPECT_EQ("version", samples[0].labels[0].first);
    EXPECT_EQ(qx::korvel::Version(), samples[0].labels[0].second);
    EXPECT_EQ(1, samples[0].value);
  }
  // Answers count by handler and code, and their durations by handler.
  if (e.families.count("korvel_http_requests_total")) {
    for (const Sample& sample : e.families.at("korvel_http_requests_total").samples) {
      std::set<std::string> names;
      for (const auto& label : sample.labels) names.insert(label.first);
      EXPECT_EQ((std::set<std::string>{"handler", "code"}), names);
    }
  }
  // Answered before this one: the instances and at least one /metrics with 200, /nope with 404.
  EXPECT_GE(SumOf(e, "korvel_http_requests_total", "korvel_http_requests_total", {{"code", "200"}}),
            2);
  EXPECT_GE(SumOf(e, "korvel_http_requests_total", "korvel_http_requests_total", {{"code", "404"}}),
            1);
  EXPECT_GE(SumOf(e, "korvel_http_request_duration_seconds",
                  "korvel_http_request_duration_seconds_count", {}),
            3);

  // An open stream counts.
  {
    EventStream stream(serve.Port(), type);
    ASSERT_TRUE(stream.Next()) << stream.Describe();
    EXPECT_EQ(1, MetricValue(Metrics(serve.Port()), "korvel_http_streams"));
  }
  EXPECT_TRUE(WaitUntil(
      [&] { return MetricValue(Metrics(serve.Port()), "korvel_http_streams") == 0; }, kSettle));

  // Changes count.
  b->SetStatus(Service::DOWN);
  EXPECT_TRUE(WaitUntil(counts(1, 2), kSettle));
  EXPECT_EQ(0, c.Stop());
  EXPECT_TRUE(WaitUntil(counts(1, 1), kSettle));
}

// ---- The event stream ---------------------------------------------------------------------

TEST(ServeTest, WatchStreamsASnapshotThenEveryChangeWithinASecond) {
  const auto conn = Connect(Hosts());
  const std::string type = UniqueName("serve-watch");
  auto first = RegisterInstance(conn, type, "first", Service::UP);
  Serve serve;
  ASSERT_SERVING(serve);
  Prime(serve.Port(), type);

  EventStream stream(serve.Port(), type);
  ASSERT_EQ(200, stream.Status());
  EXPECT_EQ("text/event-stream", MediaType(stream.ContentType()));
  const auto snapshot = stream.Next();
  ASSERT_TRUE(snapshot) << stream.Describe();
  EXPECT_EQ("snapshot", snapshot->name);
  const Json listed = ListedById(type);
  ASSERT_EQ(1u, listed.size());
  EXPECT_EQ(listed, snapshot->Data());
  std::vector<Event> seen{*snapshot};

  // Added (possibly caught before every attribute is written, which later events fill in).
  auto changeAt = Clock::now();
  auto second = RegisterInstance(conn, type, "second");
  const std::string id = IdOf(*second);
  auto added = stream.Next();
  ASSERT_TRUE(added) << stream.Describe();
  EXPECT_EQ("added", added->name) << *added;
  EXPECT_LT(added->arrived - changeAt, kEventDeadline) << *added;
  EXPECT_EQ(id, Text(added->Data(), "id")) << *added;
  seen.push_back(*added);
  // The status must be known before it changes.
  ASSERT_NO_FATAL_FAILURE(AwaitStatus(stream, *added, seen));

  // Changed.
  changeAt = Clock::now();
  second->SetStatus(Service::UP);
  auto changed = NextBesidesPartialChanges(stream, id);
  ASSERT_TRUE(changed) << stream.Describe();
  EXPECT_EQ("changed", changed->name) << *changed;
  EXPECT_EQ((Json{{"id", id}, {"attribute", "status"}, {"old", "down"}, {"new", "up"}}),
            changed->Data());
  EXPECT_LT(changed->arrived - changeAt, kEventDeadline) << *changed;
  seen.push_back(*changed);

  // Removed.
  changeAt = Clock::now();
  second.reset();
  auto removed = NextBesidesPartialChanges(stream, id);
  ASSERT_TRUE(removed) << stream.Describe();
  EXPECT_EQ("removed", removed->name) << *removed;
  EXPECT_EQ(id, Text(removed->Data(), "id")) << *removed;
  EXPECT_LT(removed->arrived - changeAt, kEventDeadline) << *removed;
  seen.push_back(*removed);

  // The same for an instance of `korvel register`.
  Registered third(type, {"--name", "third"});
  ASSERT_REGISTERED(third);
  added = NextBesidesPartialChanges(stream, third.Id());
  ASSERT_TRUE(added) << stream.Describe();
  EXPECT_EQ("added", added->name) << *added;
  EXPECT_EQ(third.Id(), Text(added->Data(), "id"));
  seen.push_back(*added);
  ASSERT_NO_FATAL_FAILURE(AwaitStatus(stream, *added, seen));
  changeAt = Clock::now();
  EXPECT_EQ("ok status up_sending_disabled", third.Command("status up_sending_disabled"));
  changed = NextBesidesPartialChanges(stream, third.Id());
  ASSERT_TRUE(changed) << stream.Describe();
  EXPECT_EQ((Json{{"id", third.Id()},
                  {"attribute", "status"},
                  {"old", "down"},
                  {"new", "up_sending_disabled"}}),
            changed->Data());
  EXPECT_LT(changed->arrived - changeAt, kEventDeadline) << *changed;
  seen.push_back(*changed);
  changeAt = Clock::now();
  third.Process().Signal(SIGTERM);
  removed = NextBesidesPartialChanges(stream, third.Id());
  ASSERT_TRUE(removed) << stream.Describe();
  EXPECT_EQ("removed", removed->name) << *removed;
  EXPECT_EQ(third.Id(), Text(removed->Data(), "id"));
  EXPECT_LT(removed->arrived - changeAt, kEventDeadline) << *removed;
  seen.push_back(*removed);

  // Every event has an id, and the ids grow.
  long long previous = -1;
  for (const Event& event : seen) {
    ASSERT_TRUE(std::regex_match(event.id, std::regex("[0-9]+"))) << event;
    EXPECT_GT(std::stoll(event.id), previous) << stream.Describe();
    previous = std::stoll(event.id);
  }

  // Reconnecting with Last-Event-ID gets a fresh snapshot of what is there now.
  stream.Close();
  EventStream again(serve.Port(), type, seen.back().id);
  ASSERT_EQ(200, again.Status());
  const auto fresh = again.Next();
  ASSERT_TRUE(fresh) << again.Describe();
  EXPECT_EQ("snapshot", fresh->name);
  EXPECT_EQ(ListedById(type), fresh->Data());
  EXPECT_EQ(1u, fresh->Data().size());
}

TEST(ServeTest, AnExpiredSessionMakesTheStreamStaleThenCurrentAgain) {
  const auto conn = Connect(Hosts());
  const std::string type = UniqueName("serve-expiry");
  auto kept = RegisterInstance(conn, type, "kept");
  auto leaving = RegisterInstance(conn, type, "leaving", Service::UP);
  Serve serve({}, {"--session-timeout", "2000", "--log-level", "info"});
  ASSERT_SERVING(serve);
  Prime(serve.Port(), type);
  EventStream stream(serve.Port(), type);
  const auto snapshot = stream.Next();
  ASSERT_TRUE(snapshot && snapshot->name == "snapshot") << stream.Describe();
  ASSERT_EQ(2u, snapshot->Data().size()) << *snapshot;

  // The serving process's connection to ZooKeeper.
  const int zkPort = SharedServer().Port();
  std::map<std::string, int> connections = ConnectionsTo(serve.Process().Pid(), zkPort);
  ASSERT_EQ(1u, connections.size());
  const std::string socket = connections.begin()->first;
  ASSERT_EQ(1, connections.begin()->second) << "not established";

  // Stopped for longer than its session timeout: the server expires the session and closes the
  // connection, which the stopped process cannot close itself. Meanwhile the registry changes.
  serve.Process().Signal(SIGSTOP);
  ASSERT_TRUE(WaitUntil([&] { return AllThreadsStopped(serve.Process().Pid()); }, kSettle));
  kept->SetStatus(Service::UP);
  leaving.reset();
  auto joined = RegisterInstance(conn, type, "joined");
  const bool expired = WaitUntil(
      [&] {
        connections = ConnectionsTo(serve.Process().Pid(), zkPort);
        return connections.count(socket) == 0 || connections[socket] != 1;
      },
      2000ms + 8s, 50ms);
  serve.Process().Signal(SIGCONT);
  ASSERT_TRUE(expired) << "the session outlived its timeout";

  // Deltas may come first (a change read on the new session before the expiry is told), then
  // `stale`, then deltas, then `current`.
  const auto isDelta = [](const Event& event) {
    return event.name == "added" || event.name == "removed" || event.name == "changed";
  };
  // The client learns of the expiry when it reconnects, which a loaded machine may delay.
  const auto reconnected = 10s * kSlowdown;
  std::optional<Event> stale;
  while ((stale = stream.Next(reconnected)) && isDelta(*stale)) {
  }
  ASSERT_TRUE(stale) << stream.Describe() << "\nkorvel serve's log:\n" << serve.Stderr();
  EXPECT_EQ("stale", stale->name) << stream.Describe();
  EXPECT_TRUE(std::regex_match(Text(stale->Data(), "since"),
                               std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")))
      << *stale;
  std::optional<Event> current;
  while ((current = stream.Next(reconnected)) && isDelta(*current)) {
  }
  ASSERT_TRUE(current) << stream.Describe() << "\nkorvel serve's log:\n" << serve.Stderr();
  EXPECT_EQ("current", current->name) << stream.Describe();
  const Json listed = ListedById(type);
  EXPECT_EQ(2u, listed.size());
  EXPECT_EQ(listed, current->Data());
  EXPECT_EQ(listed, GetJson(serve.Port(), "/api/v1/instances?type=" + Encode(type)));

  EXPECT_TRUE(WaitUntil([&] { return Get(serve.Port(), "/healthz").status == 200; }, kSettle));
  const Exposition e = Metrics(serve.Port());
  EXPECT_EQ(1, MetricValue(e, "korvel_zookeeper_session_expirations_total"));
  EXPECT_EQ(0, MetricValue(e, "korvel_cache_stale", {{"type", type}}));
}

TEST(ServeTest, HealthzIsUnavailableWhileZooKeeperIsDown) {
  ZooKeeperServer zk;
  Serve serve({}, {"--session-timeout", "4000"}, zk.ConnectString());
  ASSERT_SERVING(serve);
  // A type with an instance, whose cache must be current again for the server to be healthy.
  const std::string type = UniqueName("serve-outage");
  const auto instance = RegisterInstance(Connect(zk.ConnectString()), type, "outage");
  Prime(serve.Port(), type);
  EXPECT_EQ(1u, GetJson(serve.Port(), "/api/v1/instances?type=" + Encode(type)).size());
  Answer health;
  const auto healthIs = [&](int status) {
    return [&, status] {
      health = Get(serve.Port(), "/healthz");
      return health.status == status;
    };
  };
  ASSERT_TRUE(WaitUntil(healthIs(200), kSettle)) << health;

  zk.Stop();
  ASSERT_TRUE(WaitUntil(healthIs(503), 10s, 50ms)) << health;
  EXPECT_EQ("text/plain", MediaType(health.ContentType()));
  EXPECT_FALSE(boost::algorithm::trim_copy(health.body).empty()) << "no reason given";
  EXPECT_TRUE(WaitUntil(
      [&] { return MetricValue(Metrics(serve.Port()), "korvel_zookeeper_connected") == 0; },
      kSettle));

  zk.Start();
  ASSERT_TRUE(WaitUntil(healthIs(200), 20s, 50ms)) << health;
  EXPECT_EQ("ok\n", health.body);
  EXPECT_EQ(1, MetricValue(Metrics(serve.Port()), "korvel_zookeeper_connected"));
}

// ---- Clients that misbehave ---------------------------------------------------------------

// A keep-alive connection that asks for /healthz and must be answered 200 every time.
class NormalClient {
 public:
  explicit NormalClient(int port) : m_socket(port) {}
  void ExpectServed(const std::string& after) {
    ASSERT_TRUE(m_socket.Send(RequestText("/healthz"))) << "after " << after;
    const auto answer = m_socket.ReadAnswer(kAnswerTimeout);
    ASSERT_TRUE(answer) << "after " << after;
    EXPECT_EQ(200, answer->status) << "after " << after;
  }

 private:
  Socket m_socket;
};

// Sends `request` on a connection of its own and returns the answer; the connection must close
// after it.
Answer AnswerThenClose(int port, const std::string& request, const std::string& what) {
  Socket socket(port);
  EXPECT_TRUE(socket.Connected()) << what;
  socket.Send(request);  // the server may stop reading once it has seen enough
  const auto answer = socket.ReadAnswer(kAnswerTimeout);
  EXPECT_TRUE(answer) << what << ": " << socket.Buffer();
  EXPECT_TRUE(socket.AwaitClose(5s)) << what << ": the connection stayed open";
  return answer.value_or(Answer());
}

TEST(ServeLimitsTest, OversizedRequestsAre413AndClosed) {
  Serve serve;
  ASSERT_SERVING(serve);
  NormalClient normal(serve.Port());
  normal.ExpectServed("nothing");

  const std::string big = "X-Big: " + std::string(9000, 'a') + "\r\n";
  EXPECT_EQ(413, AnswerThenClose(serve.Port(), RequestText("/healthz", big), "9 KB header").status);
  normal.ExpectServed("9 KB header");

  // Host and 64 more fields are 65: one too many. Host and 63 more pass, as does a header of
  // half the byte limit.
  const auto fields = [](int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += "X-Field-" + std::to_string(i) + ": v\r\n";
    return text;
  };
  EXPECT_EQ(413,
            AnswerThenClose(serve.Port(), RequestText("/healthz", fields(64)), "65 fields").status);
  normal.ExpectServed("65 fields");
  Socket fine(serve.Port());
  ASSERT_TRUE(fine.Send(RequestText("/healthz", fields(63))));
  auto fineAnswer = fine.ReadAnswer(kAnswerTimeout);
  ASSERT_TRUE(fineAnswer);
  EXPECT_EQ(200, fineAnswer->status) << "64 fields";
  ASSERT_TRUE(fine.Send(RequestText("/healthz", "X-Big: " + std::string(4000, 'a') + "\r\n")));
  fineAnswer = fine.ReadAnswer(kAnswerTimeout);
  ASSERT_TRUE(fineAnswer);
  EXPECT_EQ(200, fineAnswer->status) << "4 KB header";

  const std::string withBody =
      "POST /api/v1/types HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 5\r\n\r\nhello";
  EXPECT_EQ(413, AnswerThenClose(serve.Port(), withBody, "POST with a body").status);
  const std::string getWithBody =
      "GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 5\r\n\r\nhello";
  EXPECT_EQ(413, AnswerThenClose(serve.Port(), getWithBody, "GET with a body").status);
  const std::string chunkedBody =
      "GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\nTransfer-Encoding: chunked\r\n\r\n"
      "5\r\nhello\r\n0\r\n\r\n";
  EXPECT_EQ(413, AnswerThenClose(serve.Port(), chunkedBody, "chunked body").status);
  normal.ExpectServed("bodies");
}

TEST(ServeLimitsTest, BadQueriesAre400) {
  Serve serve;
  ASSERT_SERVING(serve);
  NormalClient normal(serve.Port());
  // On one keep-alive connection, which a 400 does not close.
  Socket socket(serve.Port());
  ASSERT_TRUE(socket.Connected());
  const std::string id = "00000000-0000-4000-8000-000000000000";
  for (const std::string& target : std::vector<std::string>{
           "/api/v1/instances",
           "/api/v1/instances?type=",
           "/api/v1/instances?typo=x",
           "/api/v1/instances?type=alive",
           "/api/v1/instances?type=alive%2Fx",
           "/api/v1/instance?type=x&id=not-a-uuid",
           "/api/v1/instance?type=x",
           "/api/v1/instance?id=" + id,
           "/api/v1/instance?type=alive&id=" + id,
           "/sd/prometheus",
           "/sd/prometheus?type=alive",
           "/api/v1/watch",
           "/api/v1/watch?type=alive",
       }) {
    ASSERT_TRUE(socket.Send(RequestText(target))) << target;
    const auto answer = socket.ReadAnswer(kAnswerTimeout);
    ASSERT_TRUE(answer) << target << ": " << socket.Buffer();
    ExpectError(*answer, 400, target);
    normal.ExpectServed(target);
  }
}

TEST(ServeLimitsTest, ARequestDribbledByteByByteIs408AfterTheRequestTimeout) {
  Serve serve({"--request-timeout", "1000"});
  ASSERT_SERVING(serve);
  Socket slow(serve.Port());
  ASSERT_TRUE(slow.Send("GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: "));
  const auto start = Clock::now();
  std::optional<Answer> answer;
  const auto giveUp = start + 1000ms + 2s * kSlowdown + 1s;
  for (int i = 0; !answer && !slow.Closed() && Clock::now() < giveUp; ++i) {
    slow.Send("a");
    answer = slow.ReadAnswer(100ms);
    if (i % 3 == 0) {
      const auto asked = Clock::now();
      EXPECT_EQ(200, Get(serve.Port(), "/healthz").status) << "while a client dribbles";
      EXPECT_LT(Since(asked), kPrompt) << "a normal client waited";
    }
  }
  const Millis took = Since(start);
  ASSERT_TRUE(answer) << (slow.Closed() ? "closed without an answer after " : "no answer in ")
                      << took.count() << " ms: " << slow.Buffer();
  EXPECT_EQ(408, answer->status) << *answer;
  EXPECT_GE(took, 900ms);
  EXPECT_LT(took, 1000ms + 2s * kSlowdown);
  EXPECT_TRUE(slow.AwaitClose(5s));
}

TEST(ServeLimitsTest, AThousandIdleConnectionsDoNotKeepOthersWaiting) {
  ASSERT_TRUE(RaiseDescriptorLimit(4096)) << "too few file descriptors allowed";
  Serve serve;
  ASSERT_SERVING(serve);
  std::vector<std::unique_ptr<Socket>> idle;
  for (int i = 0; i < 1000; ++i) {
    idle.push_back(std::make_unique<Socket>(serve.Port()));
    ASSERT_TRUE(idle.back()->Connected()) << "connection " << i;
  }
  const auto asked = Clock::now();
  const Answer health = Get(serve.Port(), "/healthz");
  EXPECT_EQ(200, health.status) << health;
  EXPECT_LT(Since(asked), kPrompt);
  // Every one of them is open at the server, beside the one that asks.
  double open = 0;
  EXPECT_TRUE(WaitUntil(
      [&] {
        open = MetricValue(Metrics(serve.Port()), "korvel_http_connections");
        return open == 1001;
      },
      kSettle, 50ms))
      << open;
  for (const auto& socket : idle) {
    socket->Send(RequestText("/healthz"));
  }
  for (std::size_t i = 0; i < idle.size(); i += 97) {
    const auto answer = idle[i]->ReadAnswer(kAnswerTimeout);
    ASSERT_TRUE(answer) << "connection " << i;
    EXPECT_EQ(200, answer->status);
  }
  idle.clear();
  EXPECT_TRUE(WaitUntil(
      [&] {
        open = MetricValue(Metrics(serve.Port()), "korvel_http_connections");
        return open == 1;
      },
      kSettle, 50ms))
      << open;
}

TEST(ServeLimitsTest, AConnectionBeyondMaxConnectionsIs503) {
  Serve serve({"--max-connections", "3"});
  ASSERT_SERVING(serve);
  std::vector<std::unique_ptr<Socket>> open;
  for (int i = 0; i < 3; ++i) {
    open.push_back(std::make_unique<Socket>(serve.Port()));
    ASSERT_TRUE(open.back()->Send(RequestText("/healthz")));
    const auto answer = open.back()->ReadAnswer(kAnswerTimeout);
    ASSERT_TRUE(answer) << i;
    EXPECT_EQ(200, answer->status);
  }
  const Answer refused = AnswerThenClose(serve.Port(), RequestText("/healthz"), "a fourth");
  EXPECT_EQ(503, refused.status) << refused;

  // The ones within the limit go on being served.
  for (const auto& socket : open) {
    ASSERT_TRUE(socket->Send(RequestText("/healthz")));
    const auto answer = socket->ReadAnswer(kAnswerTimeout);
    ASSERT_TRUE(answer);
    EXPECT_EQ(200, answer->status);
  }
  // Once one closes, a new one is served.
  open.pop_back();
  std::optional<Answer> metrics;
  EXPECT_TRUE(WaitUntil(
      [&] {
        Socket socket(serve.Port());
        socket.Send(RequestText("/metrics"));
        metrics = socket.ReadAnswer(kAnswerTimeout);
        return metrics && metrics->status == 200;
      },
      kSettle, 50ms));
  if (metrics && metrics->status == 200) {
    const Exposition e = ParseExposition(metrics->body);
    EXPECT_GE(MetricValue(e, "korvel_http_rejected_connections_total"), 1);
    EXPECT_EQ(3, MetricValue(e, "korvel_http_connections"));
  }
}

TEST(ServeLimitsTest, AStreamBeyondMaxStreamsIs503) {
  const std::string type = UniqueName("serve-streams");
  Serve serve({"--max-streams", "2"});
  ASSERT_SERVING(serve);
  auto one = std::make_unique<EventStream>(serve.Port(), type);
  EventStream two(serve.Port(), type);
  for (EventStream* stream : {one.get(), &two}) {
    const auto snapshot = stream->Next();
    ASSERT_TRUE(snapshot && snapshot->name == "snapshot") << stream->Describe();
  }
  const Answer refused = AnswerThenClose(
      serve.Port(), RequestText("/api/v1/watch?type=" + Encode(type)), "a third stream");
  EXPECT_EQ(503, refused.status) << refused;
  // Plain requests go on.
  EXPECT_EQ(200, Get(serve.Port(), "/healthz").status);
  EXPECT_EQ(2, MetricValue(Metrics(serve.Port()), "korvel_http_streams"));

  // Once one closes, a new stream is served.
  one.reset();
  std::unique_ptr<EventStream> three;
  EXPECT_TRUE(WaitUntil(
      [&] {
        three = std::make_unique<EventStream>(serve.Port(), type);
        return three->Status() == 200;
      },
      kSettle, 50ms));
  const auto snapshot = three->Next();
  ASSERT_TRUE(snapshot) << three->Describe();
  EXPECT_EQ("snapshot", snapshot->name);
}

TEST(ServeLimitsTest, AnIdleKeepAliveConnectionIsClosedAfterTheIdleTimeout) {
  Serve serve({"--idle-timeout", "1000"});
  ASSERT_SERVING(serve);
  Socket idle(serve.Port());
  Socket busy(serve.Port());
  ASSERT_TRUE(idle.Send(RequestText("/healthz")));
  const auto answer = idle.ReadAnswer(kAnswerTimeout);
  ASSERT_TRUE(answer);
  EXPECT_EQ(200, answer->status);
  const auto answered = Clock::now();

  // A connection that keeps asking stays open meanwhile, past the idle timeout.
  for (int i = 0; i < 6; ++i) {
    ASSERT_TRUE(busy.Send(RequestText("/healthz"))) << i;
    const auto again = busy.ReadAnswer(kAnswerTimeout);
    ASSERT_TRUE(again) << "request " << i << " after " << Since(answered).count() << " ms";
    EXPECT_EQ(200, again->status);
    busy.ReadSome(400ms);
  }

  EXPECT_TRUE(idle.AwaitClose(5s));
  const Millis took = Since(answered);
  EXPECT_GE(took, 900ms);
  EXPECT_LT(took, 1000ms + 2500ms * kSlowdown);
  EXPECT_EQ("", idle.Buffer()) << "closed with an answer";
}

// ---- Read-only, and the end -----------------------------------------------------------------

TEST(ServeTest, ServingNeverWritesToZooKeeper) {
  const auto conn = Connect(Hosts());
  const std::string type = UniqueName("serve-readonly");
  auto lib = RegisterInstance(conn, type, "lib", Service::UP, {{"worker-1", "port", "8080"}});
  Registered cli(type, {"--child-attr", "a/b:port=1"});
  ASSERT_REGISTERED(cli);
  const auto observer = Connect(Hosts());
  const TreeState before = Walk(*observer, tree::kDataRoot);

  {
    Serve serve;
    ASSERT_SERVING(serve);
    const int port = serve.Port();
    const std::string id = IdOf(*lib);
    const std::string unknownId = "00000000-0000-4000-8000-000000000000";
    for (const std::string& t :
         std::vector<std::string>{type, UniqueName("serve-never"),
                                  UniqueName("serve-never") + "/deeper/still", "alive"}) {
      const std::string q = Encode(t);
      for (const std::string& target :
           {"/api/v1/instances?type=" + q, "/api/v1/instance?type=" + q + "&id=" + id,
            "/api/v1/instance?type=" + q + "&id=" + unknownId, "/sd/prometheus?type=" + q,
            "/sd/prometheus?type=" + q + "&port_attribute=x"}) {
        EXPECT_NE(0, Get(port, target).status) << target;
      }
      EventStream stream(port, t);
      if (stream.Status() == 200) {
        EXPECT_TRUE(stream.Next()) << t;
      }
    }
    for (const char* target : {"/api/v1/types", "/healthz", "/metrics", "/nope"}) {
      EXPECT_NE(0, Get(port, target).status) << target;
    }
    EXPECT_EQ(0, serve.Process().Stop(kGrace)) << serve.Stderr();
  }

  EXPECT_EQ(before, Walk(*observer, tree::kDataRoot));
}

TEST(ServeTest, SigtermOrSigintEndsItWithExitZero) {
  const std::string type = UniqueName("serve-end");
  for (const int signal : {SIGTERM, SIGINT}) {
    // At level info it tells on stderr when its orderly stop begins.
    Serve serve({}, {"--log-level", "info"});
    ASSERT_SERVING(serve);
    EventStream stream(serve.Port(), type);
    ASSERT_TRUE(stream.Next()) << stream.Describe();
    Socket idle(serve.Port());
    ASSERT_TRUE(idle.Send(RequestText("/healthz")));
    ASSERT_TRUE(idle.ReadAnswer(kAnswerTimeout));

    serve.Process().Signal(signal);
    EXPECT_EQ(0, serve.Process().Wait(kGrace)) << signal << "\n" << serve.Stderr();
    EXPECT_TRUE(stream.AwaitClose(5s)) << signal;
    EXPECT_TRUE(idle.AwaitClose(5s)) << signal;
    EXPECT_FALSE(Socket(serve.Port()).Connected()) << "still listening after " << signal;
  }
}

// ---- The bearer token ---------------------------------------------------------------------

constexpr char kToken[] = "k0rvel-T0ken-5ecret";

// A file holding `text` with the permissions `mode`, removed on destruction.
class TokenFile {
 public:
  TokenFile(const std::string& text, std::filesystem::perms mode)
      : m_path(std::filesystem::temp_directory_path() / UniqueName("korvel-token")) {
    std::ofstream(m_path) << text;
    std::filesystem::permissions(m_path, mode);
  }
  ~TokenFile() {
    std::error_code ignored;
    std::filesystem::remove(m_path, ignored);
  }
  TokenFile(const TokenFile&) = delete;
  TokenFile& operator=(const TokenFile&) = delete;

  std::string Path() const { return m_path.string(); }

 private:
  std::filesystem::path m_path;
};

constexpr auto kPrivate = std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;

httplib::Headers Authorization(const std::optional<std::string>& value) {
  if (!value) return {};
  return {{"Authorization", *value}};
}

TEST(ServeTokenTest, EveryEndpointButTheHealthCheckAndTheDashboardNeedsTheToken) {
  const auto conn = Connect(Hosts());
  const std::string type = UniqueName("serve-token");
  auto service = RegisterInstance(conn, type, "alpha", Service::UP, {{"w", "port", "9090"}});
  const TokenFile file(std::string(kToken) + "\n", kPrivate);
  Serve serve({"--token-file", file.Path()}, {"--log-level", "debug"});
  ASSERT_SERVING(serve);
  const int port = serve.Port();
  const std::string bearer = std::string("Bearer ") + kToken;

  std::string sameLength = kToken;
  sameLength.back() = 'x';
  // Authorization headers that are refused: none, wrong tokens, the right one in another scheme.
  const std::vector<std::pair<std::string, std::optional<std::string>>> refused = {
      {"no header", std::nullopt},
      {"a wrong token of the same length", "Bearer " + sameLength},
      {"a longer token", bearer + "x"},
      {"a prefix of the token", bearer.substr(0, bearer.size() - 1)},
      {"an empty token", "Bearer "},
      {"another scheme", std::string("Basic ") + kToken},
  };
  const std::string query = "type=" + Encode(type);
  int unauthorized = 0;
  for (const std::string& target :
       std::vector<std::string>{"/api/v1/types?", "/api/v1/instances?" + query,
                                "/api/v1/instance?" + query + "&id=" + IdOf(*service),
                                "/sd/prometheus?" + query, "/metrics?", "/nope?"}) {
    for (const auto& [what, header] : refused) {
      const Answer answer = Get(port, target, Authorization(header));
      ExpectError(answer, 401, target + " with " + what);
      EXPECT_EQ(0u, answer.Header("www-authenticate").rfind("Bearer realm=\"korvel\"", 0))
          << target << " with " << what << ": " << answer.Header("www-authenticate");
      ++unauthorized;
    }
    // A token is taken from the header only.
    ExpectError(Get(port, target + "&access_token=" + kToken), 401, target + " with the query");
    ++unauthorized;
    const Answer answer = Get(port, target, Authorization(bearer));
    EXPECT_EQ(target == "/nope?" ? 404 : 200, answer.status) << target << ": " << answer;
  }
  // The scheme's name is case-insensitive.
  const Answer lower = Get(port, "/api/v1/types", Authorization("bearer " + std::string(kToken)));
  EXPECT_EQ(200, lower.status) << lower;

  // The event stream: refused as the other endpoints, a snapshot with the token.
  for (const auto& [what, header] : refused) {
    EventStream stream(port, type, "", header ? "Authorization: " + *header + "\r\n" : "");
    EXPECT_EQ(401, stream.Status()) << "/api/v1/watch with " << what;
    ++unauthorized;
  }
  EventStream stream(port, type, "", "Authorization: " + bearer + "\r\n");
  ASSERT_EQ(200, stream.Status());
  EXPECT_EQ("text/event-stream", MediaType(stream.ContentType()));
  const auto snapshot = stream.Next();
  ASSERT_TRUE(snapshot) << stream.Describe();
  EXPECT_EQ("snapshot", snapshot->name);
  EXPECT_EQ(1u, snapshot->Data().size()) << snapshot->data;

  // The health check and the dashboard's page and assets answer anyone.
  Answer health;
  EXPECT_TRUE(WaitUntil(
      [&] {
        health = Get(port, "/healthz");
        return health.status == 200;
      },
      kSettle))
      << health;
  for (const char* target : {"/", "/assets/app.js"}) {
    const Answer answer = Get(port, target);
    EXPECT_EQ(200, answer.status) << target << ": " << answer;
  }

  // Every 401 is counted, under the label of its endpoint; the token is nowhere in the metrics.
  std::set<std::string> handlers;
  EXPECT_TRUE(WaitUntil(
      [&] {
        const Exposition metrics = Metrics(port, Authorization(bearer));
        handlers.clear();
        const auto family = metrics.families.find("korvel_http_requests_total");
        if (family == metrics.families.end()) return false;
        for (const Sample& sample : family->second.samples) {
          const auto code = std::find(sample.labels.begin(), sample.labels.end(),
                                      std::make_pair(std::string("code"), std::string("401")));
          if (code == sample.labels.end()) continue;
          for (const auto& [name, value] : sample.labels) {
            if (name == "handler") handlers.insert(value);
          }
        }
        return SumOf(metrics, "korvel_http_requests_total", "korvel_http_requests_total",
                     {{"code", "401"}}) == unauthorized;
      },
      kSettle))
      << unauthorized << " answers of 401";
  EXPECT_EQ((std::set<std::string>{"/api/v1/types", "/api/v1/instances", "/api/v1/instance",
                                   "/api/v1/watch", "/sd/prometheus", "/metrics", "other"}),
            handlers);
  const Answer metricsText = Get(port, "/metrics", Authorization(bearer));
  EXPECT_EQ(std::string::npos, metricsText.body.find(kToken));

  serve.Process().Signal(SIGTERM);
  ASSERT_EQ(0, serve.Process().Wait(kGrace)) << serve.Stderr();
  const std::string out = serve.Process().Output(ChildProcess::kStdout);
  EXPECT_EQ(std::string::npos, out.find(kToken)) << out;
  EXPECT_EQ(std::string::npos, serve.Stderr().find(kToken)) << serve.Stderr();
  EXPECT_EQ(std::string::npos, serve.Stderr().find("unauthenticated")) << serve.Stderr();
}

TEST(ServeTokenTest, ATokenFileThatOthersMayReadOrAnEmptyTokenIsRefused) {
  using std::filesystem::perms;
  const std::string secret = "refused-" + std::string(kToken);
  const struct {
    std::string what;
    std::string text;
    perms mode;
    std::string error;
  } cases[] = {
      {"readable by its group", secret, kPrivate | perms::group_read, "chmod 600"},
      {"readable by others", secret + "\n", kPrivate | perms::others_read, "chmod 600"},
      {"writable by others", secret, kPrivate | perms::others_write, "chmod 600"},
      {"empty", "", kPrivate, "is empty"},
      {"a newline only", "\n", kPrivate, "is empty"},
      {"with a space", secret + " " + secret, kPrivate, "space or a control character"},
  };
  for (const auto& c : cases) {
    const TokenFile file(c.text, c.mode);
    const Result result = RunKorvel(
        {"--zk", Hosts(), "serve", "--listen", "127.0.0.1:0", "--token-file", file.Path()});
    EXPECT_EQ(1, result.code) << c.what << ": " << result.out << result.err;
    EXPECT_NE(std::string::npos, result.err.find(c.error)) << c.what << ": " << result.err;
    EXPECT_NE(std::string::npos, result.err.find(file.Path())) << c.what << ": " << result.err;
    EXPECT_EQ(std::string::npos, result.err.find(secret)) << c.what << ": " << result.err;
    EXPECT_EQ("", result.out) << c.what;
  }
  const Result missing = RunKorvel({"--zk", Hosts(), "serve", "--listen", "127.0.0.1:0",
                                    "--token-file", "/nonexistent/korvel-token"});
  EXPECT_EQ(1, missing.code) << missing.err;
  EXPECT_NE(std::string::npos, missing.err.find("cannot read the token file")) << missing.err;
}

TEST(ServeTokenTest, WithoutATokenItSaysThatItIsUnauthenticated) {
  Serve serve;
  ASSERT_SERVING(serve);
  EXPECT_TRUE(serve.Process().WaitForLine(
      ChildProcess::kStderr,
      [](const std::string& line) { return line.find("unauthenticated") != std::string::npos; },
      kCommandTimeout))
      << serve.Stderr();
  const Answer types = Get(serve.Port(), "/api/v1/types");
  EXPECT_EQ(200, types.status) << types;
}

}  // namespace
}  // namespace korvel::test
