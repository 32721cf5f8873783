#!/usr/bin/env bash
# The demo: installs what is missing, builds korvel, installs it into build/prefix and runs
# `korvel demo`. The demo starts a ZooKeeper server of its own on a free loopback port, registers
# three instances of a service type as separate processes, lists and inspects them, crashes one,
# expires the session of another, and stops everything again (about 10 to 20 s).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/build.sh
cmake --install build --prefix build/prefix >/dev/null
exec build/prefix/bin/korvel demo
