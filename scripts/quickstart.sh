#!/usr/bin/env bash
# Sets everything up on a fresh machine, builds the library and runs the
# example program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)"
./build/default/examples/example_pool
