#!/usr/bin/env bash
# Broker throughput and latency: builds bench_broker in the optimised bench
# preset, starts a throwaway broker (scripts/broker.sh), runs velclient and a
# plain Qpid Proton-C program side by side on it (3 rounds, alternating), and
# stops the broker and its epmd by their pids, also when interrupted.
# Extra arguments go to bench_broker (e.g. --rounds 5 --only latency).
# The output is kept in build/bench/bench_broker.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ ! -x /usr/lib/rabbitmq/bin/rabbitmq-server ]; then
  echo "bench_broker.sh: rabbitmq-server is not installed (Debian: rabbitmq-server)" >&2
  exit 1
fi

cmake --preset bench >/dev/null
cmake --build --preset bench -j"${VELCLIENT_BUILD_JOBS:-2}" --target bench_broker

dir=$(mktemp -d /tmp/velclient-bench-broker.XXXXXX)
trap 'bash scripts/broker.sh stop "$dir"' EXIT
port=$(bash scripts/broker.sh start "$dir")
echo "broker on 127.0.0.1:$port"
./build/bench/bench/bench_broker --port "$port" --rounds 3 "$@" | tee build/bench/bench_broker.txt
