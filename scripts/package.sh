#!/usr/bin/env bash
# Builds korvel's Debian packages (libkorvel0, libkorvel-dev, korvel) in BUILD_DIR
# (default build-deb) and lists them:
#   bash scripts/package.sh [BUILD_DIR]
# Then install them with: sudo apt install ./build-deb/*.deb
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build-deb}
bash scripts/install-deps.sh
# The source paths that __FILE__ puts into the binaries become relative ones.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=ON \
  -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_CXX_FLAGS="-ffile-prefix-map=$PWD/=" \
  -DKORVEL_BUILD_TESTS=OFF -DKORVEL_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target package >/dev/null
ls -l "$build"/*.deb
