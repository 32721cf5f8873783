// Child process of registration_stress_test: one instance that registers and
// then "crashes" (the parent kills it with SIGKILL; its Service is never
// destroyed).
//
// Usage: registration_child HOSTS TYPE ID MARKER
// Connects, creates the ephemeral node MARKER (it vanishes exactly when this
// session is over), prints "ready", waits for one byte on stdin, registers
// instance ID of TYPE, prints "registered" (or "error <what>") and sleeps
// until killed. Every wait is bounded.
#include <poll.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "korvel/service.h"
#include "korvel/utils.h"
#include "logger/logger.h"

int main(int argc, char** argv) {
  using namespace std::chrono_literals;
  if (argc != 5) return 2;
  qx::logging::SetMinimumLoggingLevel(qx::logging::QXLOG_WARNING);
  try {
    auto conn = std::make_shared<qx::korvel::Connection>(argv[1], 800ms);
    qx::korvel::EnsurePath(*conn, argv[4], true, ZOO_OPEN_ACL_UNSAFE);
    std::printf("ready\n");
    std::fflush(stdout);

    pollfd in{STDIN_FILENO, POLLIN, 0};
    char go;
    if (poll(&in, 1, 20000) != 1 || read(STDIN_FILENO, &go, 1) != 1) _exit(3);

    const auto id = boost::lexical_cast<qx::korvel::ServiceId>(std::string(argv[3]));
    // Leaked on purpose: a crashed process never runs the destructor.
    new qx::korvel::Service(conn, argv[2], id, "registration-child");
    std::printf("registered\n");
  } catch (const std::exception& e) {
    std::printf("error %s\n", e.what());
  }
  std::fflush(stdout);
  sleep(30);
  _exit(0);
}
