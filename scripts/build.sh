#!/usr/bin/env bash
# Installs what is missing, then configures and builds korvel in ./build
# (tests, benchmarks and the tool included). Extra arguments go to the CMake configure step.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
werror=OFF
[ "${CI:-}" = "true" ] && werror=ON
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVEL_WERROR=$werror \
  -DKORVEL_BUILD_TESTS=ON -DKORVEL_BUILD_BENCHMARKS=ON "$@" >/dev/null
cmake --build build -j"$(nproc)"
