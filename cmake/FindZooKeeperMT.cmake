# Finds the multi-threaded ZooKeeper C client and defines the imported target
# ZooKeeperMT::zookeeper_mt (which carries the THREADED definition that its
# synchronous API needs).
find_path(ZooKeeperMT_INCLUDE_DIR zookeeper/zookeeper.h)
find_library(ZooKeeperMT_LIBRARY zookeeper_mt)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZooKeeperMT
  REQUIRED_VARS ZooKeeperMT_LIBRARY ZooKeeperMT_INCLUDE_DIR)

if(ZooKeeperMT_FOUND AND NOT TARGET ZooKeeperMT::zookeeper_mt)
  add_library(ZooKeeperMT::zookeeper_mt UNKNOWN IMPORTED)
  set_target_properties(ZooKeeperMT::zookeeper_mt PROPERTIES
    IMPORTED_LOCATION "${ZooKeeperMT_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${ZooKeeperMT_INCLUDE_DIR}"
    INTERFACE_COMPILE_DEFINITIONS THREADED)
endif()
mark_as_advanced(ZooKeeperMT_INCLUDE_DIR ZooKeeperMT_LIBRARY)
