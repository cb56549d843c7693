#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (library and targets under
# AddressSanitizer + UndefinedBehaviorSanitizer, with the library's internal
# assertions on) and runs each for a while.
# Usage: scripts/fuzz.sh [seconds per target, default 60] [target ...]
# Prints each target's executions and whether it found anything; exits
# non-zero on a finding (the crashing input is left in build/fuzz/findings/).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
shift || true
bash scripts/deps.sh
CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELCLIENT_BUILD_FUZZ=ON \
  -DBUILD_TESTING=OFF -DVELCLIENT_BUILD_EXAMPLES=OFF -DVELCLIENT_BUILD_TOOLS=OFF -DVELCLIENT_WERROR=OFF \
  -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer" \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g" >/dev/null
cmake --build build/fuzz -j"$(nproc)"
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for src in fuzz/fuzz_*.cpp; do targets+=("$(basename "$src" .cpp)"); done
fi
mkdir -p build/fuzz/findings
status=0
for target in "${targets[@]}"; do
  corpus_name="${target#fuzz_}"
  work="build/fuzz/corpus-$corpus_name"
  mkdir -p "$work"
  seeds=()
  [ -d "fuzz/corpus/$corpus_name" ] && seeds=("fuzz/corpus/$corpus_name")
  dict=()
  [ -f "fuzz/$corpus_name.dict" ] && dict=("-dict=fuzz/$corpus_name.dict")
  log="build/fuzz/$target.log"
  # A program holds every message it made until its end, and a few dozen encodes and decodes of a
  # 2 MB attachment take hundreds of megabytes, which AddressSanitizer's allocator keeps: the
  # process settles near 2 GB on a grown corpus. A single allocation above 2 GB is still a
  # finding (a container that grows out of all proportion).
  if ./build/fuzz/fuzz/"$target" -max_total_time="$seconds" -print_final_stats=1 \
      -rss_limit_mb=4096 -malloc_limit_mb=2048 \
      -artifact_prefix=build/fuzz/findings/"$target"- "${dict[@]}" "$work" "${seeds[@]}" >"$log" 2>&1; then
    result="no finding"
  else
    result="FINDING (see $log and build/fuzz/findings/)"
    status=1
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
  echo "$target: $runs executions in ${seconds}s, $result"
done
exit $status
