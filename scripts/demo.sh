#!/usr/bin/env bash
# The demo: installs what is missing, builds korvel, installs it into
# build/prefix, builds the examples against that installation the way a user
# would, starts a local ZooKeeper, registers two instances of a service type,
# lists them, stops one and lists again.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/build.sh
cmake --install build --prefix build/prefix >/dev/null
cmake -S examples -B build/examples -DCMAKE_PREFIX_PATH="$PWD/build/prefix" >/dev/null
cmake --build build/examples -j"$(nproc)" >/dev/null

examples=build/examples
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [ -n "${zkdir:-}" ] && bash scripts/zk-local.sh stop "$zkdir"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
export KORVEL_LOG_LEVEL=${KORVEL_LOG_LEVEL:-warning}

echo "== Starting a local ZooKeeper"
{ read -r hosts; read -r zkdir; } < <(bash scripts/zk-local.sh)
echo "ZooKeeper serves at $hosts"

echo "== Registering two instances of the type 'demo'"
for name in alpha beta; do
  "$examples/register_service" "$hosts" demo "$name" >"$zkdir/$name.id" &
  pids+=($!)
done
for name in alpha beta; do
  for _ in $(seq 100); do [ -s "$zkdir/$name.id" ] && break; sleep 0.1; done
  echo "$name registered as $(cat "$zkdir/$name.id")"
done

echo "== Listing the live instances"
"$examples/list_instances" "$hosts" demo

echo "== Stopping 'alpha' (SIGTERM: it removes its nodes) and listing again"
kill -TERM "${pids[0]}"
wait "${pids[0]}" || true
"$examples/list_instances" "$hosts" demo
