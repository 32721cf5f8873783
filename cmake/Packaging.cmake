# Debian packages of korvel, one per install component, made by CPack from a build configured
# with -DBUILD_SHARED_LIBS=ON -DCMAKE_INSTALL_PREFIX=/usr (scripts/package.sh):
#   libkorvel<major>  the shared library
#   libkorvel-dev     headers, the .so link, the CMake package and the pkg-config file
#   korvel            the command-line tool, its man page and the systemd unit template
# A static build has no library to package: the `package` target is left out there.
if(NOT BUILD_SHARED_LIBS)
  message(STATUS "Debian packages: configure with -DBUILD_SHARED_LIBS=ON (scripts/package.sh)")
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library development)
if(KORVEL_BUILD_TOOL)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "korvel developers <korvel@example.org>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The Depends on Debian's libraries (libc6, libstdc++6, libzookeeper-mt2, ...) come from
# dpkg-shlibdeps; the library package gets a shlibs file, so that other packages' can too.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(korvel_library_package libkorvel${PROJECT_VERSION_MAJOR})
set(korvel_same_library "${korvel_library_package} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${korvel_library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
    "service registry over Apache ZooKeeper (shared library)
korvel registers processes in Apache ZooKeeper and lets them find one
another: registration with health checks, watchers and a cache of the
live instances of a type.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkorvel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${korvel_same_library}, libzookeeper-mt-dev, libboost-dev (>= 1.74)")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "service registry over Apache ZooKeeper (development files)
The headers of korvel, its CMake package (find_package(korvel)) and its
pkg-config file, for building programs with the korvel library.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME korvel)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${korvel_same_library}")
set(CPACK_COMPONENT_TOOL_DESCRIPTION
    "service registry over Apache ZooKeeper (command-line tool)
The korvel tool registers service instances (with health checks, also as a
systemd sidecar: korvel-register@.service), lists and shows them, and serves
the registry over HTTP with a dashboard and Prometheus metrics.")

include(CPack)
