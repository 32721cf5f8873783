#!/usr/bin/env bash
# Installs korvel into a temporary prefix and builds against it the way a
# consumer does: the examples and a file that includes the logging facade and
# the support headers, with find_package(korvel) and with pkg-config. Then
# builds a parent project that adds korvel with add_subdirectory and checks
# that korvel imposes nothing on it.
set -euo pipefail
source_dir=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
fail() {
  echo "install_test: $*" >&2
  exit 1
}

# A plain configure: no benchmark, tool or test dependencies needed.
cmake -S "$source_dir" -B "$work/build" -DCMAKE_BUILD_TYPE=Release -DKORVEL_BUILD_TESTS=OFF \
  -DKORVEL_BUILD_TOOL=OFF >/dev/null
cmake --build "$work/build" -j2 >/dev/null
cmake --install "$work/build" --prefix "$work/prefix" >/dev/null

include=$work/prefix/include
for header in korvel/service.h korvel/connection_v2.h korvel/utils.h korvel/error.h \
  korvel/service_id.h korvel/support/logger/logger.h korvel/support/stlext/sstream.h \
  korvel/support/stlext/string.h korvel/support/stlext/observable_impl.h \
  korvel/support/stlext/uuid.h; do
  test -f "$include/$header" || fail "not installed: $header"
done
for dir in logger stlext; do
  test ! -e "$include/$dir" || fail "include/$dir is installed at the top of include/"
done
test -f "$work/prefix/lib/cmake/korvel/korvelConfig.cmake"
test -f "$work/prefix/lib/pkgconfig/korvel.pc"

# What a consumer includes: korvel's headers, the logging facade and stlext.
mkdir -p "$work/consumer"
cat >"$work/consumer/consumer.cpp" <<'CPP'
#include <korvel/service.h>
#include <logger/logger.h>
#include <stlext/uuid.h>

int main() {
  static const qx::logging::ConstSourcePtr source = qx::logging::MakeSource("consumer");
  QXLOG(source, qx::logging::QXLOG_DEBUG) << "not shown";
  return qx::logging::IsLogged(qx::logging::QXLOG_WALL) ? 0 : 1;
}
CPP
cat >"$work/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.21)
project(korvel_consumer LANGUAGES CXX)
find_package(korvel CONFIG REQUIRED)
add_executable(consumer consumer.cpp)
target_link_libraries(consumer PRIVATE korvel::korvel)
CMAKE

bash "$(dirname "$0")/build_examples.sh" "$source_dir" "$work/prefix" "$work/examples"
cmake -S "$work/consumer" -B "$work/consumer/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer/build" >/dev/null
"$work/consumer/build/consumer"
echo "find_package(korvel) build: ok"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
for program in "$source_dir/examples/list_instances.cpp" "$work/consumer/consumer.cpp"; do
  # shellcheck disable=SC2046
  ${CXX:-c++} -std=c++17 "$program" -o "$work/$(basename "$program" .cpp)_pc" \
    $(pkg-config --cflags --libs korvel)
done
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer_pc"
echo "pkg-config build: ok"

# A parent project with settings of its own, and korvel in a subdirectory.
mkdir -p "$work/parent"
cp "$work/consumer/consumer.cpp" "$work/parent/"
cat >"$work/parent/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.21)
project(parent LANGUAGES CXX)
add_subdirectory("$source_dir" korvel)
if(CMAKE_BUILD_TYPE)
  message(FATAL_ERROR "korvel set CMAKE_BUILD_TYPE for its parent")
endif()
foreach(variable CMAKE_CXX_STANDARD CMAKE_CXX_EXTENSIONS)
  if(DEFINED \${variable})
    message(FATAL_ERROR "korvel set \${variable} for its parent")
  endif()
endforeach()
get_directory_property(options COMPILE_OPTIONS)
get_directory_property(link_options LINK_OPTIONS)
if(options OR link_options)
  message(FATAL_ERROR "korvel set compile or link options for its parent: \${options} \${link_options}")
endif()
foreach(target korvel_cli korvel_test_util micro_bench)
  if(TARGET \${target})
    message(FATAL_ERROR "korvel built \${target} as a subproject")
  endif()
endforeach()
add_executable(parent consumer.cpp)
target_compile_options(parent PRIVATE -DPARENT_OWN_OPTION)
target_link_libraries(parent PRIVATE korvel::korvel)
CMAKE
cmake -S "$work/parent" -B "$work/parent/build" >/dev/null
cmake --build "$work/parent/build" -j2 >/dev/null
flags=$work/parent/build/CMakeFiles/parent.dir/flags.make
grep -q -- '-DPARENT_OWN_OPTION' "$flags" || fail "no parent flags in $flags"
! grep -E -- '-W(all|extra|error)|-fsanitize' "$flags" || fail "korvel's flags reached the parent"
"$work/parent/build/parent"
echo "add_subdirectory build: ok"
