#!/usr/bin/env bash
# Builds the test suite with sanitizers in build-<name> and runs it.
#   bash scripts/sanitize.sh thread [ctest arguments]
#   bash scripts/sanitize.sh address,undefined [ctest arguments]
set -euo pipefail
cd "$(dirname "$0")/.."

sanitizers=${1:?usage: sanitize.sh thread|address,undefined [ctest arguments]}
shift
build="build-${sanitizers//,/-}"
bash scripts/install-deps.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKORVEL_SANITIZE="$sanitizers" \
  -DKORVEL_BUILD_TESTS=ON -DKORVEL_WERROR=ON >/dev/null
cmake --build "$build" -j"$(nproc)"

supp="$PWD/tests/sanitizers"
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$supp/tsan.supp"
export ASAN_OPTIONS="detect_leaks=1 abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1"
ctest --test-dir "$build" --output-on-failure -j2 --timeout 900 "$@"
