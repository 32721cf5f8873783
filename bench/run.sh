#!/usr/bin/env bash
# Runs the benchmark suite: builds it, starts a local ZooKeeper server the way
# the tests do (tools/zklocal, through korvel-zk-local; its JVM with the full
# JIT), runs the micro-benchmarks and the macro benchmarks against it, and
# prints one table, also written as JSON. Nothing is left running.
#
#   bench/run.sh [--quick] [--json FILE] [--markdown FILE] [--build DIR] [--no-build]
#                [--hosts HOSTS] [--quick-start-server]
#
#   --quick               tiny sizes: a smoke run of everything (about a minute)
#   --json FILE           the table as JSON (default: bench/results.json)
#   --markdown FILE       the table as Markdown too, as docs/performance.md shows it
#   --build DIR           the CMake build directory (default: build)
#   --no-build            use what DIR holds
#   --hosts HOSTS         measure against this ZooKeeper instead of starting one
#   --quick-start-server  the tests' faster-starting, slower-serving JVM
set -euo pipefail
cd "$(dirname "$0")/.."

quick=()
json=bench/results.json
markdown=()
build=build
compile=1
hosts=
server_flags=(--full-jit)
server_text="full JIT"
while [ $# -gt 0 ]; do
  case $1 in
    --quick) quick=(--quick) ;;
    --json) json=$2; shift ;;
    --markdown) markdown=(--markdown "$2"); shift ;;
    --build) build=$2; shift ;;
    --no-build) compile=0 ;;
    --hosts) hosts=$2; server_text="given"; shift ;;
    --quick-start-server) server_flags=(); server_text="JIT tier 1 only" ;;
    -h|--help) sed -n '2,/^set -euo/{/^#/s/^# \{0,1\}//p}' "$0"; exit 0 ;;
    *) echo "run.sh: unknown argument '$1'" >&2; exit 2 ;;
  esac
  shift
done

if [ $compile = 1 ]; then
  bash scripts/install-deps.sh
  new_build=()
  [ -f "$build/CMakeCache.txt" ] || new_build=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
  cmake -S . -B "$build" "${new_build[@]}" -DKORVEL_BUILD_BENCHMARKS=ON >/dev/null
  cmake --build "$build" -j"$(nproc)" --target korvel_benchmarks
fi
bin=$build/bench
work=$(mktemp -d "${TMPDIR:-/tmp}/korvel-bench.XXXXXX")
server=
cleanup() {
  if [ -n "$server" ]; then
    kill "$server" 2>/dev/null || true  # it stops the server and removes its data
    wait "$server" || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
load_before=$(cut -d' ' -f1-3 /proc/loadavg)

if [ -z "$hosts" ]; then
  # Bounded: it stops by itself after an hour.
  "$build/tools/korvel-zk-local" "${server_flags[@]}" --lifetime 3600 \
    >"$work/server.out" 2>"$work/server.err" &
  server=$!
  for _ in $(seq 900); do  # it gives up by itself within 90 s
    if [ -s "$work/server.out" ] || ! kill -0 "$server" 2>/dev/null; then break; fi
    sleep 0.1
  done
  hosts=$(head -1 "$work/server.out")
  if [ -z "$hosts" ]; then
    echo "run.sh: ZooKeeper did not start" >&2
    cat "$work/server.err" >&2
    exit 1
  fi
  server_text="$server_text, Java $(java -version 2>&1 | sed -n 1p | cut -d'"' -f2)"
fi
echo "ZooKeeper at $hosts ($server_text); logs in $work while running" >&2

# Each program prints its own table; the merged one comes last.
run() {
  local name=$1
  shift
  echo "== $name" >&2
  if ! "$@" --json "$work/$name.json" >"$work/$name.log"; then
    cat "$work/$name.log" >&2
    echo "run.sh: $name failed" >&2
    exit 1
  fi
}
if [ ${#quick[@]} -eq 0 ]; then
  # The server's JIT compiles its hot paths during a first pass that is not kept.
  run warmup "$bin/registry_bench" "$hosts" --quick
fi
run micro "$bin/micro_bench" "${quick[@]}"
run registry "$bin/registry_bench" "$hosts" "${quick[@]}"
run cache "$bin/cache_bench" "$hosts" "${quick[@]}" --korvel "$build/tools/korvel"
run memory "$bin/memory_bench" "$hosts" "${quick[@]}"
run health "$bin/health_bench" "$hosts" "${quick[@]}" --korvel "$build/tools/korvel"
run serve "$bin/serve_bench" "$hosts" "${quick[@]}" --korvel "$build/tools/korvel"
run fanout "$bin/fanout_bench" "${quick[@]}"  # a server of its own, for its CPU time
"$bin/bench_report" --json "$json" "${markdown[@]}" --hosts "$hosts" --server "$server_text" \
  --load-before "$load_before" "$work"/{micro,registry,cache,memory,health,serve,fanout}.json
echo "written to $json" >&2
