#!/usr/bin/env bash
# Runs the whole test suite: the plain build, the optimised (Release) build,
# the AddressSanitizer + UndefinedBehaviorSanitizer build and the
# ThreadSanitizer build, each through ctest and with warnings as errors.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc)
for preset in default release asan tsan; do
  echo "=== build: $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j"$jobs"
  echo "=== test: $preset"
  ctest --preset "$preset" -j"$jobs"
done
