#!/usr/bin/env bash
# Builds the test suite with sanitizers in build-<name> and runs it (all of it
# but install_test and package_test). Suppressed: races (tsan.supp) and leaks (lsan.supp)
# inside the ZooKeeper C client only.
#   bash scripts/sanitize.sh thread [ctest arguments]
#   bash scripts/sanitize.sh address,undefined [ctest arguments]
set -euo pipefail
cd "$(dirname "$0")/.."

sanitizers=${1:?usage: sanitize.sh thread|address,undefined [ctest arguments]}
shift
build="build-${sanitizers//,/-}"
bash scripts/install-deps.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKORVEL_SANITIZE="$sanitizers" \
  -DKORVEL_BUILD_TESTS=ON -DKORVEL_BUILD_BENCHMARKS=OFF -DKORVEL_WERROR=ON \
  -DKORVEL_FAULT_TIMEOUT=900 >/dev/null
cmake --build "$build" -j"$(nproc)"

supp="$PWD/tests/sanitizers"
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$supp/tsan.supp"
# Full stacks for allocations (the C client has no frame pointers), so that
# lsan.supp can name the client function that leaks.
export ASAN_OPTIONS="detect_leaks=1 abort_on_error=1 fast_unwind_on_malloc=0 malloc_context_size=16"
export LSAN_OPTIONS="suppressions=$supp/lsan.supp print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1"
# install_test and package_test are left out: each builds an uninstrumented copy
# of the library of its own, so nothing of it would run under the sanitizers.
ctest --test-dir "$build" --output-on-failure -j2 -E '^(install|package)_test$' "$@"
