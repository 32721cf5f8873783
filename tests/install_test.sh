#!/usr/bin/env bash
# Installs korvel into a temporary prefix and builds the examples against it
# the way a consumer does: with find_package(korvel), and with pkg-config.
set -euo pipefail
source_dir=$1
work=$2
rm -rf "$work"
mkdir -p "$work"

cmake -S "$source_dir" -B "$work/build" -DCMAKE_BUILD_TYPE=Release \
  -DKORVEL_BUILD_TESTS=OFF -DKORVEL_BUILD_BENCHMARKS=OFF -DKORVEL_BUILD_TOOL=OFF >/dev/null
cmake --build "$work/build" -j2 >/dev/null
cmake --install "$work/build" --prefix "$work/prefix" >/dev/null

for header in korvel/service.h korvel/connection_v2.h korvel/utils.h korvel/error.h \
  korvel/service_id.h logger/logger.h stlext/sstream.h stlext/string.h \
  stlext/observable_impl.h stlext/uuid.h; do
  test -f "$work/prefix/include/$header" || { echo "not installed: $header"; exit 1; }
done
test -f "$work/prefix/lib/cmake/korvel/korvelConfig.cmake"
test -f "$work/prefix/lib/pkgconfig/korvel.pc"

cmake -S "$source_dir/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/examples" -j2 >/dev/null
echo "find_package(korvel) build: ok"

PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" \
  ${CXX:-c++} -std=c++17 "$source_dir/examples/list_instances.cpp" -o "$work/list_instances_pc" \
  $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs korvel)
echo "pkg-config build: ok"
