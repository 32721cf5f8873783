#!/usr/bin/env bash
# Builds examples/ against the korvel installed in PREFIX, as any consumer would.
# Usage: build_examples.sh SOURCE_DIR PREFIX BUILD_DIR
set -euo pipefail
cmake -S "$1/examples" -B "$3" -DCMAKE_PREFIX_PATH="$2" >/dev/null
cmake --build "$3" -j2 >/dev/null
