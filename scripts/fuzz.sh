#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz (clang, ASan and UBSan) in
# build-fuzz and runs each for SECONDS (default 60):
#   bash scripts/fuzz.sh [SECONDS] [TARGET...]
# Each target starts from its seed corpus tests/fuzz/corpus/<target> (read
# only) and keeps what it learns in build-fuzz/corpus/<target>. An input that
# breaks an invariant is saved in build-fuzz/crashes/<target>/ and the script
# fails; copy it into tests/fuzz/regressions/<target>/ so that
# fuzz_regression_test replays it in the default suite from then on.
# Prints one line per target: executions, corpus entries, seconds.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(normalize_path service_id registry_paths log_format serve_target)

bash scripts/install-deps.sh
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVEL_FUZZ=ON \
  -DKORVEL_BUILD_TESTS=OFF -DKORVEL_BUILD_BENCHMARKS=OFF -DKORVEL_WERROR=ON >/dev/null
cmake --build build-fuzz -j"$(nproc)" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS="detect_leaks=1 abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1"
failed=0
for target in "${targets[@]}"; do
  work=build-fuzz/corpus/$target
  crashes=build-fuzz/crashes/$target
  log=build-fuzz/fuzz-$target.log
  mkdir -p "$work" "$crashes"
  status=0
  timeout $((seconds + 60)) "build-fuzz/tests/fuzz/fuzz_$target" "$work" "tests/fuzz/corpus/$target" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
    -use_value_profile=1 -print_final_stats=1 -artifact_prefix="$crashes/" >"$log" 2>&1 || status=$?
  runs=$(awk '/stat::number_of_executed_units/ {print $NF}' "$log")
  printf '%-16s %10s executions %6s corpus entries %5s s' "$target" "${runs:-?}" \
    "$(find "$work" -type f | wc -l)" "$seconds"
  if [ "$status" -ne 0 ]; then
    failed=1
    echo "  FAILED (exit $status); see $log and $crashes/"
    grep -m3 -E "invariant broken|ERROR:|runtime error" "$log" || true
  else
    echo "  ok"
  fi
done
exit $failed
