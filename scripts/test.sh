#!/usr/bin/env bash
# Builds korvel and runs the whole test suite against real ZooKeeper servers
# that the tests start themselves on loopback. Extra arguments go to ctest
# (for instance: -L unit, -L integration, -L ensemble).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/build.sh
ctest --test-dir build --output-on-failure -j2 --timeout 600 "$@"
