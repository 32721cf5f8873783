// Lists the live instances of a service type with their status.
//
//   list_instances HOSTS TYPE
#include <korvel/service.h>
#include <stlext/uuid.h>

#include <chrono>
#include <iostream>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: " << argv[0] << " HOSTS TYPE\n";
    return 2;
  }
  try {
    auto conn = std::make_shared<qx::korvel::Connection>(argv[1], std::chrono::seconds(5));
    qx::korvel::OldServiceWatcher watcher(conn, argv[2]);
    auto [rc, instances] = watcher.List();
    if (rc != ZOK) {
      std::cerr << "listing failed: " << zerror(rc) << "\n";
      return 1;
    }
    std::cout << instances.size() << " live instance(s) of '" << argv[2] << "'\n";
    for (const auto& id : instances) {
      auto [statusRc, status] = watcher.GetAttribute(id, "status");
      std::cout << qx::uuid::to_string(id) << "  " << (statusRc == ZOK ? status : "-") << "\n";
    }
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "error: " << e.what() << "\n";
    return 1;
  }
}
