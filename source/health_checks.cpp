// The ready-made health checks: a command, an HTTP GET and a TCP connect.
// Each keeps to the timeout it is given.
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/algorithm/string/trim.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <stdexcept>

#include "korvel/health.h"
#include "process/child_process.h"

namespace qx::korvel {
namespace {

using Clock = std::chrono::steady_clock;

struct Endpoint {
  String host;  // without the brackets of an IPv6 address
  String port;
};

// "host:port" or "[v6]:port", the port from 1 to 65535.
std::optional<Endpoint> ParseEndpoint(const String& text) {
  static const std::regex pattern(R"(^(?:\[([0-9A-Fa-f:.]+)\]|([^\[\]:/\s]+)):([0-9]{1,5})$)");
  std::smatch match;
  if (!std::regex_match(text, match, pattern)) return std::nullopt;
  const int port = std::stoi(match[3]);
  if (port < 1 || port > 65535) return std::nullopt;
  return Endpoint{match[1].matched ? match[1].str() : match[2].str(), match[3]};
}

// Connects to one address within `deadline`: 0 on success, else an errno value.
int ConnectBefore(const addrinfo& address, Clock::time_point deadline) {
  const int fd = socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                        address.ai_protocol);
  if (fd < 0) return errno;
  int error = 0;
  if (connect(fd, address.ai_addr, address.ai_addrlen) != 0) {
    error = errno;
    if (error == EINPROGRESS) {
      pollfd pending{fd, POLLOUT, 0};
      int ready;
      do {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        ready = poll(&pending, 1, static_cast<int>(std::max<long>(0, left.count())));
      } while (ready < 0 && errno == EINTR);
      socklen_t size = sizeof error;
      if (ready == 0) {
        error = ETIMEDOUT;
      } else if (ready < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        error = errno;
      }
    }
  }
  close(fd);
  return error;
}

CheckResult Connect(const Endpoint& endpoint, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* addresses = nullptr;
  const int resolved =
      getaddrinfo(endpoint.host.c_str(), endpoint.port.c_str(), &hints, &addresses);
  if (resolved != 0)
    return {false, "cannot resolve " + endpoint.host + ": " + gai_strerror(resolved)};
  int error = ETIMEDOUT;
  for (const addrinfo* a = addresses; a != nullptr && Clock::now() < deadline; a = a->ai_next) {
    error = ConnectBefore(*a, deadline);
    if (error == 0) break;
  }
  freeaddrinfo(addresses);
  const String where = endpoint.host + ":" + endpoint.port;
  if (error == 0) return {true, "connected to " + where};
  return {false, "cannot connect to " + where + ": " + std::strerror(error)};
}

// A command's output, in a file of its own that is gone from the directory as
// soon as the command has it open.
class OutputFile {
 public:
  OutputFile() {
    const char* dir = std::getenv("TMPDIR");
    m_path = String(dir && *dir ? dir : "/tmp") + "/korvel-check-XXXXXX";
    m_fd = mkostemp(m_path.data(), O_CLOEXEC);
    if (m_fd < 0)
      throw std::runtime_error("cannot make a file for the output: " +
                               String(std::strerror(errno)));
  }
  ~OutputFile() {
    Unlink();
    close(m_fd);
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  const String& Path() const { return m_path; }
  void Unlink() {
    if (!m_path.empty()) unlink(m_path.c_str());
    m_path.clear();
  }
  // The end of what was written: enough for the record's last KiB.
  String Tail() const {
    struct stat info {};
    if (fstat(m_fd, &info) != 0) return "";
    const off_t size = std::min<off_t>(info.st_size, 4096);
    String text(static_cast<std::size_t>(size), '\0');
    const ssize_t n = pread(m_fd, text.data(), text.size(), info.st_size - size);
    text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return text;
  }

 private:
  String m_path;
  int m_fd;
};

// The output, then why the command failed on a line of its own.
String WithReason(String output, const String& reason) {
  if (!output.empty() && output.back() != '\n') output += '\n';
  return output + reason;
}

struct HttpTarget {
  String host;  // to resolve: without the brackets of an IPv6 address
  String port;
  String hostHeader;
  String path;
};

// A GET of `target`, all of it within `timeout`: its status line, or why there is none.
CheckResult Get(const HttpTarget& target, std::chrono::milliseconds timeout) {
  namespace asio = boost::asio;
  namespace http = boost::beast::http;
  using boost::beast::error_code;
  asio::io_context io;
  asio::ip::tcp::resolver resolver(io);
  boost::beast::tcp_stream stream(io);
  boost::beast::flat_buffer buffer;
  http::request<http::empty_body> request{http::verb::get, target.path, 11};
  request.set(http::field::host, target.hostHeader);
  request.set(http::field::user_agent, "korvel-health-check");
  http::response_parser<http::empty_body> parser;
  std::optional<CheckResult> result;
  const auto fail = [&](const char* step, const error_code& error) {
    result = CheckResult{false, String(step) + " " + target.hostHeader + ": " + error.message()};
  };
  resolver.async_resolve(target.host, target.port, [&](error_code error, auto addresses) {
    if (error) return fail("cannot resolve", error);
    stream.async_connect(addresses, [&](error_code error, const auto&) {
      if (error) return fail("cannot connect to", error);
      http::async_write(stream, request, [&](error_code error, std::size_t) {
        if (error) return fail("cannot send to", error);
        http::async_read_header(stream, buffer, parser, [&](error_code error, std::size_t) {
          if (error) return fail("no answer from", error);
          const unsigned status = parser.get().result_int();
          result =
              CheckResult{status >= 200 && status < 300,
                          "HTTP " + std::to_string(status) + " " + String(parser.get().reason())};
        });
      });
    });
  });
  io.run_for(timeout);
  if (result) return *result;
  return {false, "GET http://" + target.hostHeader + target.path + ": timed out after " +
                     std::to_string(timeout.count()) + " ms"};
}

}  // namespace

HealthCheck CommandCheck(String name, String command) {
  if (boost::algorithm::trim_copy(command).empty()) {
    throw std::invalid_argument("a check command must not be empty");
  }
  return {std::move(name), [command](std::chrono::milliseconds timeout) -> CheckResult {
            OutputFile output;
            ::korvel::process::SpawnOptions options;
            options.outputFile = output.Path();
            options.reapGroup = true;
            ::korvel::process::ChildProcess child("/bin/sh", {"sh", "-c", command}, options);
            output.Unlink();
            const std::optional<int> status = child.Wait(timeout);
            if (!status) {
              child.Kill();
              return {false, WithReason(output.Tail(), "timed out after " +
                                                           std::to_string(timeout.count()) +
                                                           " ms; killed")};
            }
            if (*status == 0) return {true, output.Tail()};
            return {false, WithReason(output.Tail(), "exit status " + std::to_string(*status))};
          }};
}

HealthCheck TcpCheck(String name, String address) {
  const auto endpoint = ParseEndpoint(address);
  if (!endpoint) {
    throw std::invalid_argument("bad address '" + address + "': expected HOST:PORT");
  }
  return {std::move(name), [endpoint = *endpoint](std::chrono::milliseconds timeout) {
            return Connect(endpoint, timeout);
          }};
}

HealthCheck HttpCheck(String name, String url) {
  // http://host[:port] and the rest, which is the request's target.
  static const std::regex pattern(
      R"(^http://(\[([0-9A-Fa-f:.]+)\]|([^\[\]:/?#\s]+))(?::([0-9]{1,5}))?([/?][^\s#]*)?$)");
  std::smatch match;
  if (!std::regex_match(url, match, pattern) || (match[4].matched && std::stoi(match[4]) > 65535)) {
    throw std::invalid_argument("bad URL '" + url + "': expected http://HOST[:PORT][/PATH]");
  }
  HttpTarget target;
  target.host = match[2].matched ? match[2].str() : match[3].str();
  target.port = match[4].matched ? match[4].str() : "80";
  target.hostHeader = match[1].str() + (match[4].matched ? ":" + target.port : "");
  target.path = match[5].matched ? match[5].str() : "/";
  return {std::move(name),
          [target](std::chrono::milliseconds timeout) { return Get(target, timeout); }};
}

}  // namespace qx::korvel
