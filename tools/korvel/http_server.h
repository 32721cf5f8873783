// A small HTTP/1.1 server on Boost.Beast for `korvel serve`: keep-alive, bounded in every
// resource a client can hold, handlers on a pool of their own, and Server-Sent Event streams.
//
// Limits and their answers (each closes the connection after the answer):
//   a request line and headers over maxHeaderBytes, more than maxHeaderFields fields, or a body
//   over maxBodyBytes                                           413
//   a request that started but is not complete within requestTimeout   408
//   a connection beyond maxConnections, a stream beyond maxStreams      503
// A keep-alive connection that sends nothing for idleTimeout is closed without an answer; a
// client that does not read an answer within writeTimeout is dropped, and so is a stream's
// client whose events wait for longer than writeTimeout (seen at the next keep-alive tick) or
// add up to more than maxQueuedStreamBytes.
//
// Threads: the server's own threads read and write; each request's handler runs on the handler
// pool, so a handler may block (it may read from ZooKeeper) without stopping other connections.
// An EventSink may be used from any thread.
#ifndef KORVEL_TOOLS_KORVEL_HTTP_SERVER_H_
#define KORVEL_TOOLS_KORVEL_HTTP_SERVER_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace korvel::http {

struct Request {
  std::string method;
  std::string path;                            // the target without its query, not decoded
  std::map<std::string, std::string> query;    // decoded; a name given twice keeps its last value
  std::map<std::string, std::string> headers;  // names in lower case
};

struct Response {
  unsigned status = 200;
  std::string contentType = "application/json";
  std::shared_ptr<const std::string> body;  // may be shared by many responses
  std::vector<std::pair<std::string, std::string>> headers;
};

// The writing side of a Server-Sent Events stream.
class EventSink {
 public:
  virtual ~EventSink() = default;
  // Queues `text` (one or more complete events) to be written in order. False once the stream
  // is closed: the client went away, did not keep up, or the server stops.
  virtual bool Send(std::shared_ptr<const std::string> text) = 0;
};

// What a handler answers: a response, or a stream when `stream` is set. A stream's answer is
// written with status 200, content type text/event-stream and the response's headers; then
// `stream` is called once with its sink, on the handler pool. What it returns (a subscription)
// the connection holds until the stream closes; it should hold the sink only weakly.
struct Reply {
  Response response;
  std::function<std::shared_ptr<void>(const std::shared_ptr<EventSink>&)> stream;
};

using Handler = std::function<Reply(const Request&)>;

// One io thread per core, at most 8.
unsigned DefaultIoThreads();

struct ServerOptions {
  std::string address = "127.0.0.1";
  std::uint16_t port = 7411;  // 0: a free one
  unsigned ioThreads = DefaultIoThreads();
  unsigned handlerThreads = 4;
  std::size_t maxConnections = 4096;
  std::size_t maxStreams = 1024;
  std::size_t maxHeaderBytes = 8 * 1024;
  std::size_t maxHeaderFields = 64;
  std::size_t maxBodyBytes = 0;
  std::size_t maxQueuedStreamBytes = 4 * 1024 * 1024;  // a stream's unsent events
  std::chrono::milliseconds requestTimeout{10000};
  std::chrono::milliseconds idleTimeout{60000};
  std::chrono::milliseconds writeTimeout{30000};
  std::chrono::milliseconds streamKeepAlive{15000};  // a comment line when nothing else is sent
};

// Counts that the server keeps, read at any time from any thread.
struct ServerStats {
  std::atomic<std::uint64_t> connectionsOpen{0};
  std::atomic<std::uint64_t> streamsOpen{0};
  std::atomic<std::uint64_t> rejectedConnections{0};  // beyond maxConnections
};

// Called after each answer with the request (null for one refused before it was read), its
// status, and the time from the request's last byte to the answer's last byte.
using AnswerObserver =
    std::function<void(const Request* request, unsigned status, std::chrono::nanoseconds took)>;

class Server {
 public:
  // Binds and listens; throws std::runtime_error naming the address when it cannot. Serves
  // once Start() is called.
  Server(ServerOptions options, Handler handler, AnswerObserver observer = nullptr);
  // Stops, as Stop() does.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // The bound port (the chosen one for port 0).
  std::uint16_t Port() const;
  const ServerStats& Stats() const;

  void Start();
  // Closes the listener and every connection, and waits for the server's and the handlers'
  // threads. Not from a handler.
  void Stop();

 private:
  class Impl;
  std::shared_ptr<Impl> m_impl;
};

// An answer with a JSON body {"error": message}.
Response ErrorResponse(unsigned status, const std::string& message);

}  // namespace korvel::http

#endif  // KORVEL_TOOLS_KORVEL_HTTP_SERVER_H_
