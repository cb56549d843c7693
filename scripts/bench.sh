#!/usr/bin/env bash
# Builds the optimised benchmark preset, installs the library, builds
# bench/peers against the installed package and runs bench_peers: velclient
# (shared library) beside msgpack-c, Qpid Proton-C, libbson and a
# malloc/memcpy baseline, 15 short repetitions each; then velclient alone on the
# static library; then the medians and the ratios against the goals
# (scripts/bench_goals.py). Installs what is missing first.
# Extra arguments go to both runs (e.g. --benchmark_filter=W2).
# The full output is kept in build/bench/bench_peers{,_static}.txt and .json.
# Then the broker step, scripts/bench_broker.sh: broker sessions beside a
# plain Proton-C program on a throwaway RabbitMQ and beside a plain
# libmosquitto program on a throwaway mosquitto (VELCLIENT_BENCH_BROKER=0
# leaves it out). Exits 1 when a goal of bench_peers is missed.
set -euo pipefail
cd "$(dirname "$0")/.."

SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO="sudo"
updated=0
install_missing() {
  local missing=()
  for p in "$@"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$updated" -eq 0 ]; then
    $SUDO apt-get update -qq
    updated=1
  fi
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
}

# What the benchmark build needs.
install_missing cmake g++ make pkg-config libbenchmark-dev
# The peers: optional, bench_peers is built with those that are present.
install_missing libmsgpack-dev libqpid-proton11-dev libbson-dev ||
  echo "warning: peer packages not installed; bench_peers compares with what is present" >&2

cmake --preset bench
cmake --build --preset bench -j"$(nproc)"

# bench_peers is built the way an application builds against velclient: the
# library is installed, and bench/peers takes it with find_package.
prefix=$PWD/build/bench/install
cmake --install build/bench --prefix "$prefix" >/dev/null
cmake -S bench/peers -B build/bench/peers -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_RPATH="$prefix/lib"
cmake --build build/bench/peers -j"$(nproc)"

# Repetitions are interleaved in random order, so that a slow spell of a
# shared machine falls on every library alike instead of on a few rows; and
# they are many and short (15 of 0.15 s instead of 5 of 0.5 s, about the same
# time in all), so that a spell of some seconds spoils a few samples of each
# row, which the median leaves out, rather than most samples of a few rows.
run() {
  local exe=$1 out=$2
  shift 2
  "$exe" \
    --benchmark_repetitions=15 --benchmark_min_time=0.15 \
    --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$out.json" --benchmark_out_format=json \
    "$@" | tee "$out.txt"
  echo
  echo "=== medians of 15 repetitions (Time = wall clock per operation, CPU = CPU time per operation)"
  awk '/_median/ {
         name = $1; sub(/_median$/, "", name)
         printf "%-56s %12s %-3s %12s %s\n", name, $2, $3, $4, $5
       }' "$out.txt" | sort
}

out=build/bench/bench_peers
echo "=== bench_peers on the installed shared library"
run build/bench/peers/bench_peers "$out" "$@"
echo
echo "=== bench_peers_static: velclient on the static library"
run build/bench/peers/bench_peers_static "${out}_static" --benchmark_filter='/velclient' "$@"
echo
goals=0
python3 scripts/bench_goals.py "$out.json" "${out}_static.json" || goals=$?

if [ "${VELCLIENT_BENCH_BROKER:-1}" = 1 ]; then
  install_missing rabbitmq-server mosquitto
  echo
  echo "=== broker sessions beside plain Proton-C and plain libmosquitto (scripts/bench_broker.sh)"
  bash scripts/bench_broker.sh
fi
exit "$goals"
