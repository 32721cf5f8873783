// `korvel serve`, a child process serving a registry in ZooKeeper over HTTP, against floors
// measured in the same run:
// - GET /api/v1/instances?type=T of a type with many live instances, over keep-alive
//   connections that each send their next request once the last answer is complete, against
//   the same HTTP server (korvel::http::Server) answering a constant body of the same size from
//   a process of its own (this program in its constant-server mode) with the same io threads;
//   rounds interleaved, medians of the request rates;
// - the time from the creation of a new instance's liveness node until the last of many
//   Server-Sent Event clients (GET /api/v1/watch?type=T) has its `added` event, against the time
//   until an in-process ServiceCache's listener has its kInstanceAdded, each on a type of its
//   own, registrations interleaved, medians;
// - the growth of the serve process's resident memory per idle event stream, from a fresh
//   process, median over a few processes.
// Instances are written as registration leaves them (the data node, every own attribute as an
// ephemeral node, the ephemeral liveness node), many requests in flight together.
//
//   serve_bench HOSTS --korvel PATH [--quick] [--json FILE] [--instances N] [--connections N]
//               [--seconds S] [--rounds R] [--io-threads N] [--sse-clients N] [--add-rounds R]
//               [--idle-clients N] [--memory-rounds R] [--client-threads N] [--handler-threads N]
//   serve_bench --constant-server BYTES [--io-threads N] [--handler-threads N]
#include <korvel/service_cache.h>
#include <korvel/tree.h>
#include <korvel/utils.h>
#include <logger/logger.h>
#include <stlext/uuid.h>

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cctype>
#include <condition_variable>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string_view>
#include <thread>

#include "bench_util.h"
#include "http_server.h"
#include "process/child_process.h"
#include "zklocal/zklocal.h"

using namespace std::chrono_literals;
using namespace korvel::bench;
using qx::korvel::Connection;
using qx::korvel::ServiceCache;
namespace tree = qx::korvel::tree;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using korvel::process::ChildProcess;

namespace {

constexpr double kKiB = 1024;
constexpr char kListening[] = "listening on http://";

// What went wrong in a server along the way without making a figure meaningless; printed on
// stderr and in the notes.
std::mutex g_problemsMutex;
std::vector<std::string> g_problems;

void Problem(std::string text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
  Progress("serve: %s", text.c_str());
  std::lock_guard<std::mutex> lock(g_problemsMutex);
  g_problems.push_back(std::move(text));
}

// The problems noted since the last call, for a row's note.
std::string TakeProblems() {
  std::lock_guard<std::mutex> lock(g_problemsMutex);
  std::string text;
  for (const std::string& problem : g_problems) text += "; problem: " + problem;
  g_problems.clear();
  return text;
}

// ---- The processes ------------------------------------------------------------------------

// CPU seconds of this process, all its threads.
double OwnCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Every stream and connection is a descriptor here and in the serve process, which inherits the
// limit: the soft limit goes up to the hard one.
void RaiseDescriptorLimit(rlim_t needed) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("getrlimit failed");
  if (limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("setrlimit failed");
  }
  if (limit.rlim_cur < needed) {
    throw std::runtime_error("the descriptor limit " + std::to_string(limit.rlim_cur) +
                             " is below the " + std::to_string(needed) + " needed");
  }
}

// A server child process that prints "listening on http://ADDR:PORT" first and stops on
// SIGTERM.
class ServerProcess {
 public:
  ServerProcess(const std::string& what, const std::string& program,
                const std::vector<std::string>& argv)
      : m_what(what), m_child(program, argv) {
    const auto line = m_child.WaitForLine(
        ChildProcess::kStdout,
        [](const std::string& text) { return text.rfind(kListening, 0) == 0; }, 30s);
    if (!line) {
      throw std::runtime_error(m_what + " did not start listening within 30 s: " +
                               m_child.Output(ChildProcess::kStderr));
    }
    m_port = std::stoi(line->substr(line->rfind(':') + 1));
  }
  ~ServerProcess() {
    if (m_child.Running()) m_child.Kill();
  }

  int Port() const { return m_port; }
  pid_t Pid() const { return m_child.Pid(); }

  // What it is, and how it ended if it did, with what it wrote on stderr.
  std::string Describe() {
    std::string text = m_what;
    if (const auto status = m_child.Wait(100ms)) {
      text += " (exited with status " + std::to_string(*status) + ")";
    }
    const std::string errors = m_child.Output(ChildProcess::kStderr);
    if (!errors.empty())
      text +=
          ", stderr: " + errors.substr(errors.size() - std::min<std::size_t>(errors.size(), 2000));
    return text;
  }

  // SIGTERM; a server that does not exit with 0 within 10 s is a problem.
  void Stop() {
    const auto start = Clock::now();
    const int status = m_child.Stop(10s);
    const double took = Seconds(Clock::now() - start);
    if (status != 0) {
      Problem(m_what + " exited with status " + std::to_string(status) + " on SIGTERM after " +
              Figure(took) + " s; stderr: " + m_child.Output(ChildProcess::kStderr));
    }
    const std::string errors = m_child.Output(ChildProcess::kStderr);
    if (status == 0 && !errors.empty()) {
      Progress("serve: %s wrote on stderr: %s", m_what.c_str(), errors.substr(0, 2000).c_str());
    }
  }

 private:
  std::string m_what;
  ChildProcess m_child;
  int m_port = 0;
};

// ---- The constant server --------------------------------------------------------------------

// The floor's server: korvel::http::Server answering every request with the same body of
// `bytes` bytes, built once, until SIGTERM or SIGINT.
int ServeConstant(std::size_t bytes, unsigned ioThreads, unsigned handlerThreads) {
  // Blocked before the server's threads start, so that they inherit the mask and only sigwait
  // sees the signal.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  // A JSON array of strings, `bytes` long.
  if (bytes < 4) throw std::invalid_argument("a constant body needs 4 bytes at least");
  std::string text = "[";
  while (text.size() + 15 + 3 <= bytes) text += "\"0123456789ab\",";
  text += "\"" + std::string(bytes - text.size() - 3, 'x') + "\"]";
  const auto body = std::make_shared<const std::string>(std::move(text));

  korvel::http::ServerOptions options;
  options.address = "127.0.0.1";
  options.port = 0;
  options.ioThreads = ioThreads;
  options.handlerThreads = handlerThreads;
  korvel::http::Server server(options, [body](const korvel::http::Request&) {
    korvel::http::Reply reply;
    reply.response.body = body;
    return reply;
  });
  server.Start();
  std::printf("%s127.0.0.1:%u\n", kListening, static_cast<unsigned>(server.Port()));
  std::fflush(stdout);
  int signal = 0;
  sigwait(&stopSignals, &signal);
  server.Stop();
  return 0;
}

// ---- The registrations ----------------------------------------------------------------------

// Writes instances of types as registration leaves them, through one session that owns their
// ephemeral nodes.
class Registrar {
 public:
  explicit Registrar(const std::string& hosts)
      : m_conn(std::make_shared<Connection>(hosts, 10s)), m_pid(std::to_string(getpid())) {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    m_hostname = name;
  }

  const Connection& Conn() const { return *m_conn; }

  void AddType(const std::string& type) {
    qx::korvel::EnsurePath(*m_conn, tree::AliveDir(type), false, ZOO_OPEN_ACL_UNSAFE);
    qx::korvel::EnsurePath(*m_conn, tree::DataDir(type), false, ZOO_OPEN_ACL_UNSAFE);
    m_types.push_back(type);
  }

  // The data node and every own attribute of a new instance.
  std::vector<Connection::CreateRequest> Data(const std::string& type,
                                              const qx::korvel::ServiceId& id) const {
    const std::string root = tree::DataPath(type, id);
    const std::string values[tree::kOwnAttributeCount] = {"up",
                                                          "bench-service",
                                                          m_hostname,
                                                          m_pid,
                                                          tree::StartTimeText(std::time(nullptr)),
                                                          "bench::default",
                                                          "1.4.2"};
    std::vector<Connection::CreateRequest> nodes{{root, "", 0}};
    for (std::size_t a = 0; a < tree::kOwnAttributeCount; ++a) {
      nodes.push_back({tree::OwnAttributePath(root, static_cast<tree::OwnAttribute>(a)), values[a],
                       ZOO_EPHEMERAL});
    }
    return nodes;
  }

  static Connection::CreateRequest Liveness(const std::string& type,
                                            const qx::korvel::ServiceId& id) {
    return {tree::AlivePath(type, id), "", ZOO_EPHEMERAL};
  }

  // `count` instances of `type`, every request of a batch in flight.
  void Populate(const std::string& type, int count) const {
    std::vector<Connection::CreateRequest> nodes;
    for (int i = 0; i < count; ++i) {
      const auto id = qx::korvel::RandomServiceId();
      for (auto& node : Data(type, id)) nodes.push_back(std::move(node));
      nodes.push_back(Liveness(type, id));
    }
    CreateBatched(*m_conn, nodes);
  }

  // Writes a new instance's data, calls `arm` with its id, creates its liveness node and returns
  // the moment just before that creation.
  Clock::time_point AddOne(const std::string& type,
                           const std::function<void(const std::string&)>& arm) const {
    const auto id = qx::korvel::RandomServiceId();
    for (int rc : m_conn->CreateAll(Data(type, id), ZOO_OPEN_ACL_UNSAFE)) Check(rc, "create");
    arm(qx::uuid::to_string(id));
    const auto live = Liveness(type, id);
    const auto start = Clock::now();
    Check(m_conn->Create(live.path, live.data, ZOO_OPEN_ACL_UNSAFE, live.flags, nullptr), "create");
    return start;
  }

  // Removes every type's nodes.
  void Clean() const {
    for (const std::string& type : m_types) {
      qx::korvel::RecursiveDelete(*m_conn, tree::DataDir(type));
      qx::korvel::RecursiveDelete(*m_conn, tree::AliveDir(type));
    }
  }

 private:
  std::shared_ptr<Connection> m_conn;
  std::string m_hostname, m_pid;
  std::vector<std::string> m_types;
};

// ---- HTTP clients ---------------------------------------------------------------------------

// A message body that keeps nothing: it counts its bytes and hands them to `sink`, if set.
struct SinkBody {
  struct value_type {
    std::uint64_t bytes = 0;
    std::function<void(std::string_view)> sink;
  };

  class reader {
   public:
    template <bool isRequest, class Fields>
    reader(http::header<isRequest, Fields>&, value_type& body) : m_body(body) {}
    void init(const boost::optional<std::uint64_t>&, beast::error_code& ec) { ec = {}; }
    template <class Buffers>
    std::size_t put(const Buffers& buffers, beast::error_code& ec) {
      std::size_t size = 0;
      for (auto it = asio::buffer_sequence_begin(buffers); it != asio::buffer_sequence_end(buffers);
           ++it) {
        const asio::const_buffer buffer = *it;
        size += buffer.size();
        if (m_body.sink) m_body.sink({static_cast<const char*>(buffer.data()), buffer.size()});
      }
      m_body.bytes += size;
      ec = {};
      return size;
    }
    void finish(beast::error_code& ec) { ec = {}; }

   private:
    value_type& m_body;
  };
};

tcp::endpoint Loopback(int port) {
  return {asio::ip::make_address_v4("127.0.0.1"), static_cast<unsigned short>(port)};
}

http::request<http::empty_body> GetRequest(const std::string& target) {
  http::request<http::empty_body> request{http::verb::get, target, 11};
  request.set(http::field::host, "127.0.0.1");
  return request;
}

// One GET on a connection of its own, bounded by 30 s: the status and the body.
std::pair<unsigned, std::string> Get(int port, const std::string& target) {
  asio::io_context io;
  beast::tcp_stream stream(io);
  beast::flat_buffer buffer;
  auto request = GetRequest(target);
  http::response<http::string_body> response;
  beast::error_code error;
  stream.expires_after(30s);
  stream.async_connect(Loopback(port), [&](beast::error_code ec) {
    if (ec) {
      error = ec;
      return;
    }
    http::async_write(stream, request, [&](beast::error_code ec, std::size_t) {
      if (ec) {
        error = ec;
        return;
      }
      http::async_read(stream, buffer, response,
                       [&](beast::error_code ec, std::size_t) { error = ec; });
    });
  });
  io.run();
  if (error) throw std::runtime_error("GET " + target + ": " + error.message());
  return {response.result_int(), response.body()};
}

// ---- The load client ------------------------------------------------------------------------

struct LoadState {
  Clock::time_point windowStart, windowEnd;  // answers completed between them count
  std::uint64_t bodyBytes = 0;               // what every answer's body must hold
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> counted{0};
  std::atomic<int> active{0};  // connections still sending
  std::mutex mutex;
  std::string error;  // the first failure
};

// A keep-alive connection that sends its next request as soon as the last answer is complete.
class LoadConnection : public std::enable_shared_from_this<LoadConnection> {
 public:
  LoadConnection(asio::io_context& io, LoadState& state, const std::string& target)
      : m_socket(io), m_state(state), m_request(GetRequest(target)) {
    // Beast reads no more than the buffer's free capacity (512 bytes at least): without room
    // reserved, a large answer takes a read per 512 bytes.
    m_buffer.reserve(64 * 1024);
  }

  void Start(const tcp::endpoint& endpoint) {
    ++m_state.active;
    m_socket.async_connect(endpoint, [self = shared_from_this()](beast::error_code ec) {
      if (ec) return self->Fail("connect: " + ec.message());
      self->m_socket.set_option(tcp::no_delay(true));
      self->Send();
    });
  }

 private:
  void Send() {
    if (m_state.stop) return Done();
    http::async_write(m_socket, m_request,
                      [self = shared_from_this()](beast::error_code ec, std::size_t) {
                        if (ec) return self->Fail("write: " + ec.message());
                        self->Receive();
                      });
  }

  void Receive() {
    m_parser.emplace();
    m_parser->body_limit(boost::none);
    http::async_read(m_socket, m_buffer, *m_parser,
                     [self = shared_from_this()](beast::error_code ec, std::size_t) {
                       if (ec) return self->Fail("read: " + ec.message());
                       const auto now = Clock::now();
                       const auto& response = self->m_parser->get();
                       if (response.result_int() != 200) {
                         return self->Fail("status " + std::to_string(response.result_int()));
                       }
                       if (response.body().bytes != self->m_state.bodyBytes) {
                         return self->Fail("a body of " + std::to_string(response.body().bytes) +
                                           " bytes instead of " +
                                           std::to_string(self->m_state.bodyBytes));
                       }
                       if (!response.keep_alive()) return self->Fail("the server closes");
                       if (now >= self->m_state.windowStart && now < self->m_state.windowEnd) {
                         ++self->m_state.counted;
                       }
                       self->Send();
                     });
  }

  void Fail(const std::string& what) {
    {
      std::lock_guard<std::mutex> lock(m_state.mutex);
      if (m_state.error.empty()) m_state.error = what;
    }
    Done();
  }

  void Done() { --m_state.active; }

  tcp::socket m_socket;
  LoadState& m_state;
  http::request<http::empty_body> m_request;
  beast::flat_buffer m_buffer;
  std::optional<http::response_parser<SinkBody>> m_parser;
};

// Answers per second over the window, and CPU microseconds per answer of the server and of
// this client.
using LoadFigures = std::array<double, 3>;

// `connections` keep-alive connections to the server `server` getting `target` for `warmup`,
// then counted for `duration`.
LoadFigures Load(ServerProcess& server, const std::string& target, std::uint64_t bodyBytes,
                 int connections, int threads, Clock::duration warmup, Clock::duration duration) {
  LoadState state;
  asio::io_context io(threads);
  state.bodyBytes = bodyBytes;
  const auto start = Clock::now();
  state.windowStart = start + warmup;
  state.windowEnd = state.windowStart + duration;
  for (int c = 0; c < connections; ++c) {
    std::make_shared<LoadConnection>(io, state, target)->Start(Loopback(server.Port()));
  }
  std::vector<std::thread> runners;
  for (int t = 0; t < threads; ++t) runners.emplace_back([&io] { io.run(); });
  std::this_thread::sleep_until(state.windowStart);
  const double serverBefore = CpuSeconds(server.Pid()), clientBefore = OwnCpuSeconds();
  std::this_thread::sleep_until(state.windowEnd);
  const double serverAfter = CpuSeconds(server.Pid()), clientAfter = OwnCpuSeconds();
  state.stop = true;
  // The answers in flight complete; a server that does not finish them is cut off.
  korvel::zklocal::WaitUntil([&] { return state.active.load() == 0; }, 10s, 1ms);
  io.stop();
  for (auto& runner : runners) runner.join();
  if (state.active.load() != 0) {
    throw std::runtime_error("GET " + target + ": answers still missing 10 s after the end");
  }
  if (!state.error.empty()) {
    throw std::runtime_error("GET " + target + ": " + state.error + "; " + server.Describe());
  }
  const double answers = static_cast<double>(state.counted.load());
  if (answers == 0) throw std::runtime_error("GET " + target + ": no answer within the window");
  return {answers / Seconds(duration), (serverAfter - serverBefore) * 1e6 / answers,
          (clientAfter - clientBefore) * 1e6 / answers};
}

// ---- Server-Sent Event clients --------------------------------------------------------------

class EventClient;

// Event streams of one target, read on a thread of their own: how many have their snapshot,
// and when the last of them got the `added` event of an expected instance.
class EventClients {
 public:
  EventClients(int port, std::string target)
      : m_endpoint(Loopback(port)),
        m_target(std::move(target)),
        m_work(asio::make_work_guard(m_io)),
        m_thread([this] { m_io.run(); }) {}
  ~EventClients() { Close(); }

  // Opens `count` more streams, `batch` at a time, each batch waited for until every stream of
  // it has its snapshot (30 s at most).
  void Add(int count, int batch = 50);

  // From now on, the `added` event of instance `id` is counted; `Wait` returns when every open
  // stream has had it.
  void Expect(const std::string& id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_expected = id;
    m_seen = 0;
    m_firstAt = m_allAt = {};
  }
  // The moments the first and the last stream had it.
  std::pair<Clock::time_point, Clock::time_point> Wait(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, timeout, [this] { return m_allAt != Clock::time_point{}; })) {
      throw std::runtime_error("only " + std::to_string(m_seen) + " of " +
                               std::to_string(m_opened) + " event streams got the addition of " +
                               m_expected + " within " + std::to_string(timeout.count()) + " ms");
    }
    return {m_firstAt, m_allAt};
  }

  int Snapshots() const { return m_snapshots.load(); }
  std::size_t SnapshotBytes() const { return m_snapshotBytes.load(); }

  // Closes every stream.
  void Close();

  // Called on the streams' thread.
  void OnEvent(const std::string& event, const std::string& data);
  void OnFailure(const std::string& what) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_failures;
    if (m_error.empty()) m_error = what;
    m_changed.notify_all();
  }

 private:
  friend class EventClient;

  asio::io_context m_io;
  tcp::endpoint m_endpoint;
  std::string m_target;
  asio::executor_work_guard<asio::io_context::executor_type> m_work;
  std::vector<std::shared_ptr<EventClient>> m_clients;
  std::atomic<int> m_snapshots{0};
  std::atomic<std::size_t> m_snapshotBytes{0};
  int m_opened = 0;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::string m_expected;
  int m_seen = 0;
  Clock::time_point m_firstAt{}, m_allAt{};
  bool m_checkedAddition = false;
  int m_failures = 0;
  std::string m_error;

  std::thread m_thread;  // last: it starts once the rest is there
};

// One event stream: the request, the answer's header, then the events as they come, parsed
// line by line.
class EventClient : public std::enable_shared_from_this<EventClient> {
 public:
  EventClient(asio::io_context& io, EventClients& owner) : m_socket(io), m_owner(owner) {
    m_request = "GET " + owner.m_target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  }

  // On the streams' thread, or once it has ended.
  void Close() {
    beast::error_code ignored;
    m_socket.close(ignored);
  }

  void Start() {
    m_parser.body_limit(boost::none);
    m_parser.get().body().sink = [this](std::string_view text) { Feed(text); };
    m_socket.async_connect(m_owner.m_endpoint, [self = shared_from_this()](beast::error_code ec) {
      if (ec) return self->m_owner.OnFailure("connect: " + ec.message());
      asio::async_write(self->m_socket, asio::buffer(self->m_request),
                        [self](beast::error_code ec, std::size_t) {
                          if (ec) return self->m_owner.OnFailure("write: " + ec.message());
                          self->ReadHeader();
                        });
    });
  }

 private:
  void ReadHeader() {
    http::async_read_header(
        m_socket, m_buffer, m_parser,
        [self = shared_from_this()](beast::error_code ec, std::size_t) {
          if (ec) return self->m_owner.OnFailure("read: " + ec.message());
          const auto& response = self->m_parser.get();
          if (response.result_int() != 200 ||
              response[http::field::content_type].find("text/event-stream") ==
                  beast::string_view::npos) {
            return self->m_owner.OnFailure("status " + std::to_string(response.result_int()) +
                                           ", content type " +
                                           std::string(response[http::field::content_type]));
          }
          self->ReadEvents();
        });
  }

  void ReadEvents() {
    http::async_read_some(m_socket, m_buffer, m_parser,
                          [self = shared_from_this()](beast::error_code ec, std::size_t) {
                            if (ec) return self->m_owner.OnFailure("read: " + ec.message());
                            if (self->m_parser.is_done()) {
                              return self->m_owner.OnFailure("the stream ended");
                            }
                            self->ReadEvents();
                          });
  }

  // The body's text as it comes: lines ending in "\n" (a "\r" before it dropped); a blank line
  // ends an event, a line starting with ':' is a comment.
  void Feed(std::string_view text) {
    while (!text.empty()) {
      const auto end = text.find('\n');
      if (end == std::string_view::npos) {
        m_line.append(text);
        return;
      }
      m_line.append(text.substr(0, end));
      text.remove_prefix(end + 1);
      if (!m_line.empty() && m_line.back() == '\r') m_line.pop_back();
      Line();
      m_line.clear();
    }
  }

  void Line() {
    if (m_line.empty()) {
      if (m_hasData) m_owner.OnEvent(m_event.empty() ? "message" : m_event, m_data);
      m_event.clear();
      m_data.clear();
      m_hasData = false;
      return;
    }
    if (m_line.front() == ':') return;
    const auto colon = m_line.find(':');
    const std::string field = m_line.substr(0, colon);
    std::string value = colon == std::string::npos ? "" : m_line.substr(colon + 1);
    if (!value.empty() && value.front() == ' ') value.erase(0, 1);
    if (field == "event") {
      m_event = value;
    } else if (field == "data") {
      if (m_hasData) m_data += '\n';
      m_data += value;
      m_hasData = true;
    }
  }

  tcp::socket m_socket;
  EventClients& m_owner;
  std::string m_request;
  beast::flat_buffer m_buffer;
  http::response_parser<SinkBody> m_parser;
  std::string m_line, m_event, m_data;
  bool m_hasData = false;
};

void EventClients::Add(int count, int batch) {
  for (int done = 0; done < count;) {
    const int now = std::min(batch, count - done);
    asio::post(m_io, [this, now] {
      for (int i = 0; i < now; ++i) {
        m_clients.push_back(std::make_shared<EventClient>(m_io, *this));
        m_clients.back()->Start();
      }
    });
    done += now;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_opened += now;
    }
    const bool ready = korvel::zklocal::WaitUntil(
        [&] {
          std::lock_guard<std::mutex> lock(m_mutex);
          return m_failures > 0 || m_snapshots.load() >= m_opened;
        },
        30s, 1ms);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_failures > 0) {
      throw std::runtime_error(std::to_string(m_failures) + " event streams of " + m_target +
                               " failed, the first: " + m_error);
    }
    if (!ready) {
      throw std::runtime_error("only " + std::to_string(m_snapshots.load()) + " of " +
                               std::to_string(m_opened) + " event streams of " + m_target +
                               " got their snapshot within 30 s");
    }
  }
}

void EventClients::Close() {
  if (!m_thread.joinable()) return;
  m_work.reset();
  m_io.stop();
  m_thread.join();
  // Handlers still pending hold the clients: their sockets are closed here.
  for (const auto& client : m_clients) client->Close();
  m_clients.clear();
}

void EventClients::OnEvent(const std::string& event, const std::string& data) {
  if (event == "snapshot") {
    m_snapshotBytes = data.size();
    ++m_snapshots;
    return;
  }
  if (event != "added") return;
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_expected.empty() || data.find(m_expected) == std::string::npos) return;
  if (!m_checkedAddition) {
    // Once: the event carries the instance with every own attribute, as /instances does.
    m_checkedAddition = true;
    const auto instance = nlohmann::json::parse(data, nullptr, false);
    std::size_t attributes = 0;
    for (const char* name : tree::kOwnAttributeNames) {
      attributes += instance.is_object() && instance.contains(name) ? 1 : 0;
    }
    if (!instance.is_object() || instance.value("id", "") != m_expected ||
        attributes != tree::kOwnAttributeCount) {
      Problem("an `added` event's data is not the instance with its " +
              std::to_string(tree::kOwnAttributeCount) + " own attributes: " + data);
    }
  }
  if (++m_seen == 1) m_firstAt = Clock::now();
  if (m_seen == m_opened) {
    m_allAt = Clock::now();
    m_changed.notify_all();
  }
}

// ---- The measurements -----------------------------------------------------------------------

std::string SelfPath() {
  char path[4096];
  const ssize_t size = readlink("/proc/self/exe", path, sizeof path - 1);
  if (size <= 0) throw std::runtime_error("cannot read /proc/self/exe");
  return std::string(path, static_cast<std::size_t>(size));
}

std::vector<std::string> ServeArgv(const std::string& korvel, const Args& args,
                                   const std::string& ioThreads) {
  // Without a listing window, as the cache it is compared with: the registrations follow each
  // other closely, and this measures how fast a change reaches the streams.
  return {korvel,         "--zk",    args.hosts,         "serve", "--listen", "127.0.0.1:0",
          "--io-threads", ioThreads, "--listing-window", "0"};
}

// The instances of `type` as the server lists them, once it lists `count` of them with every
// own attribute (30 s at most).
std::string ListedInstances(const ServerProcess& serve, const std::string& type, int count) {
  const std::string target = "/api/v1/instances?type=" + type;
  std::string body;
  std::size_t listed = 0, complete = 0;
  bool first = true;
  const bool ready = korvel::zklocal::WaitUntil(
      [&] {
        auto [status, text] = Get(serve.Port(), target);
        if (status == 503) {
          // Not read yet: asked again.
          if (first) Problem("the first GET " + target + " was answered 503: " + text);
          first = false;
          return false;
        }
        if (status != 200) {
          throw std::runtime_error("GET " + target + ": " + std::to_string(status));
        }
        const auto instances = nlohmann::json::parse(text);
        listed = instances.size();
        complete = 0;
        for (const auto& instance : instances) {
          std::size_t attributes = 0;
          for (const char* name : tree::kOwnAttributeNames) attributes += instance.contains(name);
          complete += attributes == tree::kOwnAttributeCount && instance.contains("id");
        }
        if (first && listed != static_cast<std::size_t>(count)) {
          Problem("the first GET " + target + " listed " + std::to_string(listed) + " of " +
                  std::to_string(count) + " instances");
        }
        first = false;
        body = std::move(text);
        return listed == static_cast<std::size_t>(count) && complete == listed;
      },
      30s, 50ms);
  if (!ready) {
    throw std::runtime_error("GET " + target + " listed " + std::to_string(listed) +
                             " instances (" + std::to_string(complete) +
                             " with every own attribute), not " + std::to_string(count));
  }
  return body;
}

void Throughput(const Args& args, ServerProcess& serve, Registrar& registrar,
                std::vector<Row>& rows) {
  const int instances = args.Int("instances", 1000, 100);
  const int connections = args.Int("connections", 16, 16);
  const int rounds = args.Int("rounds", 5, 1);
  const auto duration = std::chrono::milliseconds(args.Int("seconds", 5, 1) * 1000);
  const auto warmup = std::chrono::milliseconds(args.quick ? 300 : 1000);
  const int clientThreads = args.Int("client-threads", 1, 1);
  const std::string ioThreads =
      args.Option("io-threads", std::to_string(korvel::http::DefaultIoThreads()));
  const std::string type = UniqueType();
  Progress("serve: populating %d instances", instances);
  registrar.AddType(type);
  registrar.Populate(type, instances);
  const std::string body = ListedInstances(serve, type, instances);

  ServerProcess constant(
      "the constant server", SelfPath(),
      {"serve_bench", "--constant-server", std::to_string(body.size()), "--io-threads", ioThreads,
       "--handler-threads", args.Option("handler-threads", "4")});
  const std::string target = "/api/v1/instances?type=" + type;
  Progress("serve: GET /api/v1/instances, %d connections, %d rounds of %d ms", connections, rounds,
           static_cast<int>(duration.count()));
  const auto samples = Interleave(
      rounds, 1,
      [&] {
        return Load(serve, target, body.size(), connections, clientThreads, warmup, duration);
      },
      [&] {
        return Load(constant, target, body.size(), connections, clientThreads, warmup, duration);
      });
  constant.Stop();

  const double rate = Median(samples.korvel, 0), floorRate = Median(samples.floor, 0);
  char note[512];
  std::snprintf(note, sizeof note,
                "%d instances, a body of %zu bytes, %d keep-alive connections, %s io thread(s) in "
                "both servers; floor: korvel::http::Server answering a constant body of that size "
                "from a process of its own; %.0f req/s against %.0f req/s; server CPU per request "
                "%.1f us against %.1f us; this client's CPU per request %.1f us against %.1f us; "
                "median of %d rounds of %.0f s",
                instances, body.size(), connections, ioThreads.c_str(), rate, floorRate,
                Median(samples.korvel, 1), Median(samples.floor, 1), Median(samples.korvel, 2),
                Median(samples.floor, 2), rounds, Seconds(duration));
  rows.emplace_back("serve: GET /instances, " + std::to_string(instances) + " instances",
                    1e6 / rate, 1e6 / floorRate, "us/req", RatioAtMost(2.0), rate, "req/s",
                    note + TakeProblems());
  rows.emplace_back("serve: GET /instances, requests per second", rate, 0, "req/s",
                    ValueAtLeast(5000, "req/s"));
}

void Propagation(const Args& args, const ServerProcess& serve, Registrar& registrar,
                 std::vector<Row>& rows) {
  const int clients = args.Int("sse-clients", 100, 100);
  const int addRounds = args.Int("add-rounds", 20, 4);
  constexpr int kInstances = 10;
  // A type for the event streams and one for the in-process cache, so that each registration
  // is worked on by one side only.
  const std::string streamed = UniqueType(), cached = UniqueType();
  for (const std::string& type : {streamed, cached}) {
    registrar.AddType(type);
    registrar.Populate(type, kInstances);
  }
  Progress("serve: %d event streams", clients);
  EventClients streams(serve.Port(), "/api/v1/watch?type=" + streamed);
  streams.Add(clients);

  auto cacheConn = std::make_shared<Connection>(args.hosts, 10s);
  ServiceCache cache(cacheConn, cached, ServiceCache::Selection::kRoundRobin, 0ms);
  cache.Start();
  if (!cache.WaitUntilCurrent(30s)) throw std::runtime_error("the cache did not become current");
  std::mutex mutex;
  std::string expected;
  Moment* seen = nullptr;
  cache.AddListener([&](const qx::korvel::ServiceCacheEvent& event) {
    if (event.type != qx::korvel::ServiceCacheEvent::Type::kInstanceAdded) return;
    std::lock_guard<std::mutex> lock(mutex);
    if (seen != nullptr && qx::uuid::to_string(event.id) == expected) {
      seen->Mark();
      seen = nullptr;
    }
  });

  // Every round starts with both sides idle.
  const auto pause = [] { std::this_thread::sleep_for(20ms); };
  Progress("serve: %d registrations seen by %d event streams and by a cache", addRounds, clients);
  const auto samples = Interleave(
      addRounds, 2,
      [&] {
        pause();
        const auto start =
            registrar.AddOne(streamed, [&](const std::string& id) { streams.Expect(id); });
        const auto [first, last] = streams.Wait(10s);
        return std::array<double, 2>{Seconds(last - start) * 1e3, Seconds(first - start) * 1e3};
      },
      [&] {
        pause();
        Moment added;
        const auto start = registrar.AddOne(cached, [&](const std::string& id) {
          std::lock_guard<std::mutex> lock(mutex);
          expected = id;
          seen = &added;
        });
        const double latency = Seconds(added.Wait() - start) * 1e3;
        return std::array<double, 2>{latency, latency};
      });
  cache.Stop();
  streams.Close();
  char note[512];
  std::snprintf(note, sizeof note,
                "from the creation of the liveness node until the last stream has its `added` "
                "event (the first had it after %.2f ms); floor: an in-process ServiceCache's "
                "kInstanceAdded for the same kind of registration; types of %d+ instances, "
                "median of %d",
                Median(samples.korvel, 1), kInstances, addRounds);
  rows.emplace_back("serve: a registration to " + std::to_string(clients) + " event streams",
                    Median(samples.korvel, 0), Median(samples.floor, 0), "ms", RatioAtMost(2.0), 0,
                    "", note + TakeProblems());
}

// The value of the metric line `name` (with no labels) in the text of /metrics, or -1.
double MetricValue(const std::string& text, const std::string& name) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(name + " ", 0) == 0) return std::stod(line.substr(name.size() + 1));
  }
  return -1;
}

void IdleStreamMemory(const Args& args, Registrar& registrar, std::vector<Row>& rows) {
  const std::string korvel = args.Option("korvel", "");
  const int clients = args.Int("idle-clients", 1000, 100);
  const int memoryRounds = args.Int("memory-rounds", 3, 1);
  const std::string type = UniqueType();
  registrar.AddType(type);
  registrar.Populate(type, 3);
  const std::string target = "/api/v1/watch?type=" + type;
  std::vector<double> perClient;
  double before = 0, after = 0;
  std::size_t snapshot = 0;
  for (int round = 0; round < memoryRounds; ++round) {
    Progress("serve: %d idle event streams, process %d of %d", clients, round + 1, memoryRounds);
    ServerProcess serve(
        "korvel serve", korvel,
        ServeArgv(korvel, args,
                  args.Option("io-threads", std::to_string(korvel::http::DefaultIoThreads()))));
    // One stream first: the type's cache, and whatever a first stream allocates once.
    EventClients first(serve.Port(), target);
    first.Add(1);
    ListedInstances(serve, type, 3);
    std::this_thread::sleep_for(300ms);
    before = ResidentBytes(serve.Pid());
    {
      EventClients idle(serve.Port(), target);
      idle.Add(clients);
      std::this_thread::sleep_for(500ms);
      after = ResidentBytes(serve.Pid());
      snapshot = idle.SnapshotBytes();
      perClient.push_back((after - before) / clients / kKiB);
    }
    // Every closed stream is let go: the gauge goes back to the one left.
    double streamsOpen = -1;
    korvel::zklocal::WaitUntil(
        [&] {
          streamsOpen = MetricValue(Get(serve.Port(), "/metrics").second, "korvel_http_streams");
          return streamsOpen == 1;
        },
        5s, 20ms);
    if (streamsOpen != 1 && round == 0) {
      Problem("korvel_http_streams is " + Figure(streamsOpen) + ", not 1, 5 s after " +
              std::to_string(clients) + " streams closed");
    }
    first.Close();
    serve.Stop();
  }
  char note[256];
  std::snprintf(note, sizeof note,
                "VmRSS of a fresh serve process with one stream, then with %d more idle ones, "
                "each with its snapshot (%zu bytes): %.0f KiB, then %.0f KiB (last process); "
                "median of %d processes",
                clients, snapshot, before / kKiB, after / kKiB, memoryRounds);
  rows.emplace_back("serve: resident memory per idle event stream", Median(perClient), 0, "KiB",
                    ValueAtMost(64, "KiB"), 0, "", note + TakeProblems());
}

}  // namespace

int main(int argc, char** argv) try {
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);
  if (argc >= 3 && std::string(argv[1]) == "--constant-server") {
    const Args args(argc - 2, argv + 2, false);
    return ServeConstant(std::stoul(argv[2]),
                         static_cast<unsigned>(args.Int(
                             "io-threads", static_cast<int>(korvel::http::DefaultIoThreads()), 1)),
                         static_cast<unsigned>(args.Int("handler-threads", 4, 4)));
  }
  const Args args(argc, argv);
  const std::string korvel = args.Option("korvel", "");
  if (korvel.empty()) throw std::invalid_argument("serve_bench needs --korvel PATH");
  RaiseDescriptorLimit(static_cast<rlim_t>(args.Int("idle-clients", 1000, 100)) + 512);

  std::vector<Row> rows;
  Registrar registrar(args.hosts);
  {
    ServerProcess serve(
        "korvel serve", korvel,
        ServeArgv(korvel, args,
                  args.Option("io-threads", std::to_string(korvel::http::DefaultIoThreads()))));
    Throughput(args, serve, registrar, rows);
    Propagation(args, serve, registrar, rows);
    serve.Stop();
    rows.back().note += TakeProblems();
  }
  IdleStreamMemory(args, registrar, rows);
  registrar.Clean();
  PrintReport(rows, args.json);
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "serve_bench: %s\n", e.what());
  return 1;
}
