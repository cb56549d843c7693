#!/usr/bin/env bash
# Broker throughput and latency: builds bench_broker in the optimised bench
# preset (VELCLIENT_BENCH_PRESET names another, e.g. release), then for each
# transport of VELCLIENT_BENCH_TRANSPORTS (default "amqp mqtt") starts a
# throwaway broker, runs velclient and a plain program side by side on it
# (3 rounds, alternating) and stops the broker by its pid, also when
# interrupted:
#   amqp  RabbitMQ (scripts/broker.sh) beside a plain Qpid Proton-C program;
#   mqtt  mosquitto (scripts/mosquitto.sh) beside a plain libmosquitto program.
# Extra arguments go to bench_broker (e.g. --rounds 5 --only latency).
# The output is kept in build/<preset>/bench_broker_<transport>.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${VELCLIENT_BENCH_PRESET:-bench}
transports=${VELCLIENT_BENCH_TRANSPORTS:-amqp mqtt}

for transport in $transports; do
  case "$transport" in
    amqp) server=/usr/lib/rabbitmq/bin/rabbitmq-server package=rabbitmq-server ;;
    mqtt) server=/usr/sbin/mosquitto package=mosquitto ;;
    *) echo "bench_broker.sh: unknown transport '$transport' (amqp or mqtt)" >&2; exit 2 ;;
  esac
  if [ ! -x "$server" ]; then
    echo "bench_broker.sh: $server is not installed (Debian: $package)" >&2
    exit 1
  fi
done

cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j"${VELCLIENT_BUILD_JOBS:-2}" --target bench_broker

dirs=()
stop_all() {
  for d in "${dirs[@]}"; do
    if [ -f "$d/mosquitto.conf" ]; then bash scripts/mosquitto.sh stop "$d"; else bash scripts/broker.sh stop "$d"; fi
  done
}
trap stop_all EXIT

for transport in $transports; do
  # mosquitto saves after every change: on tmpfs, as its tests run it, that costs no disk flushes.
  base=/tmp
  [ "$transport" = mqtt ] && [ -d /dev/shm ] && [ -w /dev/shm ] && base=/dev/shm
  dir=$(mktemp -d "$base/velclient-bench-$transport.XXXXXX")
  dirs+=("$dir")
  if [ "$transport" = amqp ]; then
    port=$(bash scripts/broker.sh start "$dir")
    echo "=== amqp: RabbitMQ on 127.0.0.1:$port, velclient beside plain Proton-C"
  else
    port=$(bash scripts/mosquitto.sh start "$dir")
    echo "=== mqtt: mosquitto on 127.0.0.1:$port, velclient beside plain libmosquitto"
  fi
  "./build/$preset/bench/bench_broker" --port "$port" --transport "$transport" --rounds 3 "$@" |
    tee "build/$preset/bench_broker_$transport.txt"
  echo
done
