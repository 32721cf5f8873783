#!/usr/bin/env bash
# Starts a standalone ZooKeeper server on a free loopback port with its data
# in a new temporary directory, the way the tests and the demo do (through
# korvel-zk-local of the build in ./build, or $KORVEL_BUILD), and prints two
# lines: the connect string and the directory. `zk-local.sh stop DIR` stops it
# and removes the directory. The server stops by itself after
# KORVEL_ZK_LIFETIME seconds (default 600), and removes the directory too.
# $KORVEL_ZOOKEEPER_HOME names another ZooKeeper installation than Debian's.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" = "stop" ]; then
  dir=${2:?usage: zk-local.sh stop DIR}
  # korvel-zk-local, which owns the directory, stops the server and removes it.
  pid=$(cat "$dir/owner" 2>/dev/null || true)
  [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
  for _ in $(seq 150); do [ -d "$dir" ] || exit 0; sleep 0.1; done
  echo "zk-local.sh: $dir is still there" >&2
  exit 1
fi

tool=${KORVEL_BUILD:-build}/tools/korvel-zk-local
if [ ! -x "$tool" ]; then
  echo "zk-local.sh: $tool is missing; build first (bash scripts/build.sh)" >&2
  exit 1
fi
out=$(mktemp "${TMPDIR:-/tmp}/korvel-zk-local.XXXXXX")
trap 'rm -f "$out"' EXIT
setsid "$tool" --lifetime "${KORVEL_ZK_LIFETIME:-600}" </dev/null >"$out" 2>&1 &
tool_pid=$!
for _ in $(seq 600); do  # it gives up by itself within 90 s
  if [ "$(wc -l <"$out")" -ge 2 ]; then
    cat "$out"
    exit 0
  fi
  grep -q '^korvel-zk-local:' "$out" && break  # it failed
  sleep 0.2
done
echo "zk-local.sh: ZooKeeper did not start:" >&2
cat "$out" >&2
kill "$tool_pid" 2>/dev/null || true
exit 1
