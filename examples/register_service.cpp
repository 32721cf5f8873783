// Registers one instance of a service type, raises its status to up, publishes
// a child's attributes and status, and stays registered (also across session
// expiries) until SIGINT or SIGTERM; then tears down and exits 0.
//
//   register_service HOSTS TYPE [NAME]
#include <korvel/service.h>
#include <stlext/uuid.h>

#include <csignal>
#include <iostream>

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::cerr << "usage: " << argv[0] << " HOSTS TYPE [NAME]\n";
    return 2;
  }
  // Block the signals before any thread starts, so that only sigwait sees them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  try {
    auto conn = std::make_shared<qx::korvel::Connection>(argv[1], std::chrono::seconds(10));
    auto service =
        std::make_shared<qx::korvel::Service>(conn, argv[2], argc == 4 ? argv[3] : "example");
    service->RegisterForSessionEvent();
    service->SetStatus(qx::korvel::Service::UP);
    service->SetChildAttribute("worker-1", "port", "8080");
    service->SetChildStatus(qx::korvel::Service::UP, "worker-1");
    std::cout << qx::uuid::to_string(service->GetId()) << std::endl;

    int received = 0;
    sigwait(&signals, &received);
    std::cerr << "signal " << received << ": tearing down\n";
    return 0;  // the service is destroyed first, then its connection
  } catch (const std::exception& e) {
    std::cerr << "error: " << e.what() << "\n";
    return 1;
  }
}
