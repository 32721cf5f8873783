#include "http_server.h"

#include <logger/logger.h>

#include <algorithm>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/optional.hpp>
#include <cctype>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <thread>

#include "http_query.h"

namespace korvel::http {
namespace {

namespace beast = boost::beast;
namespace bhttp = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;
using qx::logging::QXLOG_ERROR;
using qx::logging::QXLOG_INFO;
using qx::logging::QXLOG_WARNING;

const qx::logging::ConstSourcePtr& g_log =
    *new qx::logging::ConstSourcePtr(qx::logging::MakeSource("korvel.http"));

// A refused client gets this long to read its answer before the connection is closed.
constexpr std::chrono::seconds kLinger{1};
constexpr std::size_t kReadChunk = 1024;

// A response body that many responses share without copying it.
struct SharedBody {
  using value_type = std::shared_ptr<const std::string>;

  static std::uint64_t size(const value_type& body) { return body ? body->size() : 0; }

  class writer {
   public:
    using const_buffers_type = net::const_buffer;

    template <bool isRequest, class Fields>
    writer(const bhttp::header<isRequest, Fields>&, const value_type& body) : m_body(body) {}

    void init(beast::error_code& ec) { ec = {}; }
    boost::optional<std::pair<const_buffers_type, bool>> get(beast::error_code& ec) {
      ec = {};
      if (!m_body || m_body->empty()) return boost::none;
      return std::make_pair(net::const_buffer(m_body->data(), m_body->size()), false);
    }

   private:
    const value_type& m_body;
  };
};

std::string_view View(beast::string_view text) {
  return {text.data(), text.size()};
}

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace

Response ErrorResponse(unsigned status, const std::string& message) {
  Response response;
  response.status = status;
  // Messages may quote what a client sent: bytes that are not UTF-8 are replaced.
  const nlohmann::json body = {{"error", message}};
  response.body = std::make_shared<const std::string>(
      body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
  return response;
}

unsigned DefaultIoThreads() {
  return std::clamp(std::thread::hardware_concurrency(), 1u, 8u);
}

class Server::Impl : public std::enable_shared_from_this<Server::Impl> {
 public:
  Impl(ServerOptions options, Handler handler, AnswerObserver observer)
      : m_options(std::move(options)),
        m_handler(std::move(handler)),
        m_observer(std::move(observer)),
        m_io(std::make_unique<net::io_context>(static_cast<int>(m_options.ioThreads))),
        m_acceptor(std::in_place, *m_io),
        m_handlers(m_options.handlerThreads) {
    beast::error_code ec;
    const auto address = net::ip::make_address(m_options.address, ec);
    if (ec) throw std::runtime_error("not an IP address: '" + m_options.address + "'");
    const tcp::endpoint endpoint(address, m_options.port);
    const std::string where = m_options.address + ":" + std::to_string(m_options.port);
    m_acceptor->open(endpoint.protocol(), ec);
    if (!ec) m_acceptor->set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) m_acceptor->bind(endpoint, ec);
    if (!ec) m_acceptor->listen(net::socket_base::max_listen_connections, ec);
    if (ec) throw std::runtime_error("cannot listen on " + where + ": " + ec.message());
    m_port = m_acceptor->local_endpoint().port();
  }

  std::uint16_t Port() const { return m_port; }

  void Start() {
    Accept();
    for (unsigned i = 0; i < std::max(1u, m_options.ioThreads); ++i) {
      m_threads.emplace_back([this] { m_io->run(); });
    }
  }

  void Stop() {
    {
      std::lock_guard<std::mutex> lock(m_postMutex);
      if (m_stopped) return;
      m_stopped = true;
    }
    m_io->stop();
    for (std::thread& thread : m_threads) thread.join();
    m_threads.clear();
    m_handlers.join();
    // The listener first, then the io_context, which destroys every connection still waiting
    // in it and so closes its socket.
    m_acceptRetry.reset();
    m_acceptor.reset();
    m_io.reset();
  }

  // Runs `task` on the strand of a connection, unless the server stopped.
  template <typename Executor, typename Task>
  bool Post(const Executor& executor, Task&& task) {
    std::lock_guard<std::mutex> lock(m_postMutex);
    if (m_stopped) return false;
    net::post(executor, std::forward<Task>(task));
    return true;
  }

  class Session;
  class StreamSink;

  const ServerOptions m_options;
  const Handler m_handler;
  const AnswerObserver m_observer;
  ServerStats m_stats;
  std::unique_ptr<net::io_context> m_io;
  std::optional<tcp::acceptor> m_acceptor;
  std::uint16_t m_port = 0;
  net::thread_pool m_handlers;
  std::vector<std::thread> m_threads;
  std::mutex m_postMutex;
  bool m_stopped = false;
  std::optional<net::steady_timer> m_acceptRetry;

 private:
  void Accept();
};

// What a stream's producer holds: it reaches the connection only while both live.
class Server::Impl::StreamSink : public EventSink {
 public:
  StreamSink(Impl& server, std::weak_ptr<Session> session)
      : m_server(server), m_session(std::move(session)) {}

  bool Send(std::shared_ptr<const std::string> text) override;

 private:
  Impl& m_server;
  const std::weak_ptr<Session> m_session;
};

// One client connection: reads a request, has the handler answer it on the pool, writes the
// answer, and again while the client keeps the connection alive; or turns into an event stream.
class Server::Impl::Session : public std::enable_shared_from_this<Session> {
 public:
  Session(Impl& server, tcp::socket socket) : m_server(server), m_stream(std::move(socket)) {
    ++m_server.m_stats.connectionsOpen;
  }
  ~Session() {
    --m_server.m_stats.connectionsOpen;
    if (m_streaming) --m_server.m_stats.streamsOpen;
  }

  void Start() { WaitForRequest(); }

  // Answers 503 and closes: the server holds as many connections as it may.
  void Reject() {
    ++m_server.m_stats.rejectedConnections;
    Refuse(503, "too many connections");
  }

  // Queues an event stream's text; false once the stream is closed.
  bool Enqueue(std::shared_ptr<const std::string> text) {
    if (m_closed) return false;
    m_queuedBytes += text->size();
    if (m_queuedBytes > m_server.m_options.maxQueuedStreamBytes) {
      QXLOG(g_log, QXLOG_WARNING) << "An event stream's client does not keep up; closing it";
      Close();
      return false;
    }
    m_queue.push_back(std::move(text));
    if (m_inFlight == 0) WriteQueued();
    return true;
  }

  bool Closed() const { return m_closedFlag.load(); }
  beast::tcp_stream::executor_type Executor() { return m_stream.get_executor(); }

 private:
  // Waits for the first byte of a request as long as an idle connection may stay.
  void WaitForRequest() {
    if (m_buffer.size() > 0) return ReadRequest();
    m_stream.expires_after(m_server.m_options.idleTimeout);
    m_stream.async_read_some(m_buffer.prepare(kReadChunk),
                             [self = shared_from_this()](beast::error_code ec, std::size_t bytes) {
                               if (ec) return self->Close();
                               self->m_buffer.commit(bytes);
                               self->ReadRequest();
                             });
  }

  void ReadRequest() {
    const ServerOptions& options = m_server.m_options;
    m_parser.emplace();
    m_parser->header_limit(static_cast<std::uint32_t>(options.maxHeaderBytes));
    m_parser->body_limit(options.maxBodyBytes);
    // A timeout of the stream would close the socket; this one cancels the read, so that the
    // client still gets its 408.
    m_stream.expires_never();
    m_timedOut = false;
    if (!m_requestTimer) m_requestTimer.emplace(m_stream.get_executor());
    m_requestTimer->expires_after(options.requestTimeout);
    m_requestTimer->async_wait([self = shared_from_this(), read = m_reads](beast::error_code ec) {
      if (ec || read != self->m_reads) return;  // that read is over
      self->m_timedOut = true;
      beast::error_code ignored;
      self->m_stream.socket().cancel(ignored);
    });
    bhttp::async_read(m_stream, m_buffer, *m_parser,
                      [self = shared_from_this()](beast::error_code ec, std::size_t) {
                        ++self->m_reads;
                        self->m_requestTimer->cancel();
                        self->OnRequest(ec);
                      });
  }

  void OnRequest(beast::error_code ec) {
    if (m_timedOut) return Refuse(408, "the request took too long");
    if (ec == bhttp::error::header_limit) return Refuse(413, "the request's header is too large");
    if (ec == bhttp::error::body_limit || ec == bhttp::error::unexpected_body) {
      return Refuse(413, "the request's body is too large");
    }
    if (ec == bhttp::error::end_of_stream || ec == net::error::eof ||
        ec == net::error::connection_reset || ec == net::error::operation_aborted) {
      return Close();
    }
    if (ec) return Refuse(400, "malformed request: " + ec.message());

    const auto& message = m_parser->get();
    Request request;
    std::size_t fields = 0;
    for (const auto& field : message) {
      if (++fields > m_server.m_options.maxHeaderFields) {
        return Refuse(413, "the request has too many header fields");
      }
      request.headers[Lower(View(field.name_string()))] = std::string(View(field.value()));
    }
    request.method = std::string(View(message.method_string()));
    const bool queryDecoded = SplitTarget(View(message.target()), request.path, request.query);
    m_keepAlive = message.keep_alive();
    m_head = message.method() == bhttp::verb::head;
    m_version = message.version();
    m_started = Clock::now();
    m_request = std::move(request);
    m_stream.expires_never();
    if (!queryDecoded) return Answer(ErrorResponse(400, "malformed query"));
    if (message.method() != bhttp::verb::get && !m_head) {
      Response response = ErrorResponse(405, "method not allowed: " + m_request->method);
      response.headers.emplace_back("Allow", "GET, HEAD");
      return Answer(std::move(response));
    }
    net::post(m_server.m_handlers, [self = shared_from_this()] { self->Handle(); });
  }

  // On the handler pool.
  void Handle() {
    Reply reply;
    try {
      reply = m_server.m_handler(*m_request);
    } catch (const std::exception& e) {
      QXLOG(g_log, QXLOG_ERROR) << "Request " << m_request->path << " failed: " << e.what();
      reply = Reply{ErrorResponse(500, std::string("internal error: ") + e.what()), nullptr};
    }
    auto self = shared_from_this();
    m_server.Post(Executor(), [self, reply = std::move(reply)]() mutable {
      if (reply.stream) return self->StartStream(std::move(reply));
      self->Answer(std::move(reply.response));
    });
  }

  // Writes `response` and waits for the next request, or closes when the client asked so.
  void Answer(Response response) { Write(std::move(response), m_keepAlive); }

  // Writes an error answer and closes the connection after it.
  void Refuse(unsigned status, const std::string& message) {
    m_refused = true;
    Write(ErrorResponse(status, message), false);
  }

  void Write(Response response, bool keepAlive) {
    auto& out = m_response.emplace(static_cast<bhttp::status>(response.status), m_version);
    out.set(bhttp::field::server, "korvel");
    out.set(bhttp::field::content_type, response.contentType);
    for (auto& [name, value] : response.headers) out.set(name, value);
    out.keep_alive(keepAlive);
    out.content_length(response.body ? response.body->size() : 0);
    if (!m_head) out.body() = std::move(response.body);
    m_status = response.status;
    m_stream.expires_after(m_server.m_options.writeTimeout);
    bhttp::async_write(m_stream, out,
                       [self = shared_from_this(), keepAlive](beast::error_code ec, std::size_t) {
                         self->Observe();
                         self->m_response.reset();
                         if (ec) return self->Close();
                         if (!keepAlive) return self->Linger();
                         self->m_request.reset();
                         self->WaitForRequest();
                       });
  }

  void Observe() {
    if (!m_server.m_observer) return;
    m_server.m_observer(m_refused   ? nullptr
                        : m_request ? &*m_request
                                    : nullptr,
                        m_status, Clock::now() - m_started);
  }

  // Ends the sending side, then reads (and drops) what the client still sends for a short
  // while, so that the answer is not lost to a reset caused by unread data.
  void Linger() {
    beast::error_code ignored;
    m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    m_stream.expires_after(kLinger);
    m_buffer.consume(m_buffer.size());
    m_stream.async_read_some(m_buffer.prepare(kReadChunk),
                             [self = shared_from_this()](beast::error_code ec, std::size_t) {
                               if (ec) return self->Close();
                               self->m_buffer.consume(self->m_buffer.size());
                               self->Linger();
                             });
  }

  void StartStream(Reply reply) {
    const ServerOptions& options = m_server.m_options;
    if (m_server.m_stats.streamsOpen.load() >= options.maxStreams) {
      return Refuse(503, "too many event streams");
    }
    ++m_server.m_stats.streamsOpen;
    m_streaming = true;
    m_parser.reset();
    m_buffer.consume(m_buffer.size());
    m_buffer.shrink_to_fit();

    std::string head =
        "HTTP/1.1 200 OK\r\nServer: korvel\r\nContent-Type: text/event-stream\r\n"
        "Cache-Control: no-cache\r\nX-Accel-Buffering: no\r\n";
    for (const auto& [name, value] : reply.response.headers) head += name + ": " + value + "\r\n";
    head += "\r\n";
    m_status = 200;
    Observe();
    Enqueue(std::make_shared<const std::string>(std::move(head)));
    m_sink = std::make_shared<StreamSink>(m_server, weak_from_this());
    auto stream = std::move(reply.stream);
    net::post(m_server.m_handlers, [self = shared_from_this(), sink = m_sink,
                                    stream = std::move(stream)] {
      auto subscription = stream(sink);
      self->m_server.Post(self->Executor(), [self, subscription = std::move(subscription)] {
        if (!self->m_closed) self->m_subscription = subscription;
      });
    });
    WatchForHangUp();
    KeepAlive();
  }

  // A stream's client sends nothing; reading tells when it goes away.
  void WatchForHangUp() {
    m_buffer.consume(m_buffer.size());
    m_stream.socket().async_read_some(
        m_buffer.prepare(64), [self = shared_from_this()](beast::error_code ec, std::size_t) {
          if (ec) return self->Close();
          self->WatchForHangUp();
        });
  }

  void KeepAlive() {
    if (!m_keepAliveTimer) m_keepAliveTimer.emplace(m_stream.get_executor());
    m_keepAliveTimer->expires_after(m_server.m_options.streamKeepAlive);
    m_keepAliveTimer->async_wait([self = shared_from_this()](beast::error_code ec) {
      if (ec || self->m_closed) return;
      const ServerOptions& options = self->m_server.m_options;
      if (self->m_inFlight > 0 && Clock::now() - self->m_writeStarted > options.writeTimeout) {
        QXLOG(g_log, QXLOG_WARNING) << "An event stream's client stopped reading; closing it";
        return self->Close();
      }
      if (!self->m_wroteSinceKeepAlive) {
        static const auto kComment = std::make_shared<const std::string>(": keep-alive\n\n");
        self->Enqueue(kComment);
      }
      self->m_wroteSinceKeepAlive = false;
      self->KeepAlive();
    });
  }

  // Writes everything queued in one go. No stream timeout: it would also end the read that
  // watches for a hang-up; a write that does not finish is found by the keep-alive timer.
  void WriteQueued() {
    std::vector<net::const_buffer> buffers;
    buffers.reserve(m_queue.size());
    for (const auto& text : m_queue) buffers.emplace_back(text->data(), text->size());
    m_inFlight = m_queue.size();
    m_writeStarted = Clock::now();
    net::async_write(m_stream.socket(), buffers,
                     [self = shared_from_this()](beast::error_code ec, std::size_t) {
                       if (ec) return self->Close();
                       self->m_wroteSinceKeepAlive = true;
                       for (; self->m_inFlight > 0; --self->m_inFlight) {
                         self->m_queuedBytes -= self->m_queue.front()->size();
                         self->m_queue.pop_front();
                       }
                       if (!self->m_queue.empty()) self->WriteQueued();
                     });
  }

  void Close() {
    if (m_closed) return;
    m_closed = true;
    m_closedFlag = true;
    beast::error_code ignored;
    m_stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
    m_stream.close();
    if (m_keepAliveTimer) m_keepAliveTimer->cancel();
    if (m_requestTimer) m_requestTimer->cancel();
    m_queue.clear();
    m_subscription.reset();
  }

  Impl& m_server;
  beast::tcp_stream m_stream;
  beast::flat_buffer m_buffer;
  std::optional<bhttp::request_parser<bhttp::empty_body>> m_parser;
  std::optional<Request> m_request;
  std::optional<bhttp::response<SharedBody>> m_response;
  unsigned m_version = 11;
  unsigned m_status = 0;
  bool m_keepAlive = false;
  bool m_head = false;
  bool m_refused = false;
  bool m_timedOut = false;
  std::uint64_t m_reads = 0;  // requests read so far
  std::optional<net::steady_timer> m_requestTimer;
  Clock::time_point m_started = Clock::now();

  bool m_streaming = false;
  bool m_closed = false;
  std::atomic<bool> m_closedFlag{false};
  std::deque<std::shared_ptr<const std::string>> m_queue;
  std::size_t m_queuedBytes = 0;
  std::size_t m_inFlight = 0;  // the first queued texts, being written
  Clock::time_point m_writeStarted;
  bool m_wroteSinceKeepAlive = false;
  std::optional<net::steady_timer> m_keepAliveTimer;
  std::shared_ptr<EventSink> m_sink;
  std::shared_ptr<void> m_subscription;
};

bool Server::Impl::StreamSink::Send(std::shared_ptr<const std::string> text) {
  // The connection is taken only under the server's lock and handed to the io_context at once:
  // once the server stops, no thread but the io_context's own holds a connection.
  std::lock_guard<std::mutex> lock(m_server.m_postMutex);
  if (m_server.m_stopped) return false;
  auto session = m_session.lock();
  if (!session || session->Closed()) return false;
  auto executor = session->Executor();
  net::post(executor,
            [session = std::move(session), text = std::move(text)] { session->Enqueue(text); });
  return true;
}

void Server::Impl::Accept() {
  m_acceptor->async_accept(
      net::make_strand(*m_io), [this](beast::error_code ec, tcp::socket socket) {
        if (ec == net::error::operation_aborted) return;
        if (ec) {
          // Out of file descriptors, most likely: try again shortly rather than spin.
          QXLOG(g_log, QXLOG_WARNING) << "Cannot accept a connection: " << ec.message();
          if (!m_acceptRetry) m_acceptRetry.emplace(m_acceptor->get_executor());
          m_acceptRetry->expires_after(std::chrono::milliseconds(100));
          m_acceptRetry->async_wait([this](beast::error_code e) {
            if (!e) Accept();
          });
          return;
        }
        const bool full = m_stats.connectionsOpen.load() >= m_options.maxConnections;
        auto session = std::make_shared<Session>(*this, std::move(socket));
        if (full) {
          session->Reject();
        } else {
          session->Start();
        }
        Accept();
      });
}

Server::Server(ServerOptions options, Handler handler, AnswerObserver observer)
    : m_impl(std::make_shared<Impl>(std::move(options), std::move(handler), std::move(observer))) {}

Server::~Server() {
  Stop();
}

std::uint16_t Server::Port() const {
  return m_impl->Port();
}
const ServerStats& Server::Stats() const {
  return m_impl->m_stats;
}
void Server::Start() {
  m_impl->Start();
  QXLOG(g_log, QXLOG_INFO) << "Serving HTTP on " << m_impl->m_options.address << ":" << Port();
}
void Server::Stop() {
  m_impl->Stop();
}

}  // namespace korvel::http
