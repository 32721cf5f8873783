#!/usr/bin/env bash
# The demo: installs what is missing, builds korvel, installs it into
# build/prefix, builds the examples against that installation the way a user
# would, starts a local ZooKeeper and lists a service type through it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/build.sh
cmake --install build --prefix build/prefix >/dev/null
cmake -S examples -B build/examples -DCMAKE_PREFIX_PATH="$PWD/build/prefix" >/dev/null
cmake --build build/examples -j"$(nproc)" >/dev/null

echo "== Starting a local ZooKeeper"
{ read -r hosts; read -r zkdir; } < <(bash scripts/zk-local.sh)
trap 'bash scripts/zk-local.sh stop "$zkdir"' EXIT INT TERM
echo "ZooKeeper serves at $hosts"

echo "== Listing the live instances of the type 'demo'"
build/examples/list_instances "$hosts" demo
