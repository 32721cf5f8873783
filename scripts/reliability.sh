#!/usr/bin/env bash
# Reproduces the figures of docs/reliability.md: builds korvel, runs the fault
# suite (ctest label `faults`) with its rounds multiplied by ROUNDS, then each
# fuzz target for FUZZ_SECONDS, and prints what each scenario did and how long
# it took.
#   bash scripts/reliability.sh [ROUNDS (default 5)] [FUZZ_SECONDS (default 120)]
set -euo pipefail
cd "$(dirname "$0")/.."

rounds=${1:-5}
fuzz_seconds=${2:-120}
bash scripts/build.sh -DKORVEL_FAULT_TIMEOUT=$((900 * rounds)) >/dev/null
log=build/reliability-faults.log
echo "== fault suite, KORVEL_FAULT_ROUNDS=$rounds"
status=0
KORVEL_FAULT_ROUNDS=$rounds ctest --test-dir build -L faults -V \
  >"$log" 2>&1 || status=$?
# A log without such lines (a suite that did not start) must still reach the summary.
grep -o 'FIGURES .*' "$log" | sed 's/^FIGURES /  /' || true
grep -E '^ *[0-9]+/[0-9]+ Test +#' "$log" | sed -E 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: /  /' || true
grep -E 'tests passed|tests failed' "$log" | tail -1 || echo "  no test ran; see $log"
echo "== fuzzing, $fuzz_seconds s per target"
bash scripts/fuzz.sh "$fuzz_seconds" | grep -E 'executions|FAILED|invariant|ERROR:|runtime error' || status=1
exit $status
