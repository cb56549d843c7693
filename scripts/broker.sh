#!/usr/bin/env bash
# A throwaway RabbitMQ broker with its AMQP 1.0 plugin, for tests and trying
# things out. Its state lives in a temporary directory; nothing touches the
# system's broker or systemd.
#
#   scripts/broker.sh start [DIR]   starts it on a free port of 127.0.0.1 and
#                                   prints that port once it accepts AMQP 1.0
#   scripts/broker.sh stop [DIR]    ends the broker and its epmd, each by its
#                                   own pid, and removes DIR
#   scripts/broker.sh kill DIR TERM|KILL
#                                   sends the broker that signal and waits
#                                   until it is gone; epmd and DIR stay
#   scripts/broker.sh restart DIR   starts the broker of DIR again, on the
#                                   same ports with the same data (durable
#                                   queues and persistent messages survive)
#
# DIR (default: a new directory under /tmp, remembered in
# ${TMPDIR:-/tmp}/velclient-broker.last) holds the configuration, the data, the
# logs and the pids. With VELCLIENT_BROKER_TLS=1 a TLS listener also starts,
# its port in DIR/tls_port, with a certificate for 127.0.0.1 and localhost
# signed by a CA made for the run (DIR/tls/ca.pem), and DIR/tls/other-ca.pem,
# a CA that signed nothing.
set -euo pipefail

name=broker.sh
last="${TMPDIR:-/tmp}/velclient-broker.last"
server=/usr/lib/rabbitmq/bin/rabbitmq-server
# shellcheck source=scripts/throwaway.sh
. "$(dirname "${BASH_SOURCE[0]}")/throwaway.sh"

# Succeeds once the port answers an AMQP 1.0 SASL protocol header in kind.
speaks_amqp10() {
  answers "$1" 'b"AMQP\x03\x01\x00\x00"' 'b"AMQP\x03\x01\x00\x00"'
}

start() {
  need_program "$server" rabbitmq-server
  local dir
  dir=$(start_dir "${1:-}" /tmp broker)
  mkdir -p "$dir/mnesia" "$dir/log"
  local port dist epmd_port
  port=$(free_port); dist=$(free_port); epmd_port=$(free_port)
  {
    echo "listeners.tcp.1 = 127.0.0.1:$port"
    echo "loopback_users.guest = true"
    echo "amqp1_0.default_user = guest"
    if [ "${VELCLIENT_BROKER_TLS:-0}" = 1 ]; then
      make_certificates "$dir/tls"
      local tls_port; tls_port=$(free_port)
      echo "$tls_port" >"$dir/tls_port"
      echo "listeners.ssl.1 = 127.0.0.1:$tls_port"
      echo "ssl_options.cacertfile = $dir/tls/ca.pem"
      echo "ssl_options.certfile = $dir/tls/cert.pem"
      echo "ssl_options.keyfile = $dir/tls/key.pem"
      echo "ssl_options.verify = verify_none"
      echo "ssl_options.fail_if_no_peer_cert = false"
    fi
  } >"$dir/rabbitmq.conf"
  echo "[rabbitmq_amqp1_0]." >"$dir/enabled_plugins"
  : >"$dir/rabbitmq-env.conf"
  echo "$port" >"$dir/port"
  cat >"$dir/env.sh" <<EOF
export HOME="$dir" RABBITMQ_MNESIA_BASE="$dir/mnesia" RABBITMQ_LOG_BASE="$dir/log" \\
  RABBITMQ_CONFIG_FILE="$dir/rabbitmq.conf" RABBITMQ_ENABLED_PLUGINS_FILE="$dir/enabled_plugins" \\
  RABBITMQ_CONF_ENV_FILE="$dir/rabbitmq-env.conf" RABBITMQ_NODENAME="velclient-$port@localhost" \\
  RABBITMQ_DIST_PORT="$dist" ERL_EPMD_PORT="$epmd_port" ERL_EPMD_ADDRESS=127.0.0.1
EOF
  launch "$dir"
}

# Starts the broker of DIR (and its epmd, unless that still runs) and prints
# its port once it accepts AMQP 1.0.
launch() {
  local dir=$1 port
  port=$(cat "$dir/port")
  # shellcheck source=/dev/null
  . "$dir/env.sh"
  if ! { [ -s "$dir/epmd.pid" ] && kill -0 "$(cat "$dir/epmd.pid")" 2>/dev/null; }; then
    # epmd runs in the foreground of its own process so that its pid is known.
    epmd -port "$ERL_EPMD_PORT" -address 127.0.0.1 >>"$dir/log/epmd.out" 2>&1 &
    echo $! >"$dir/epmd.pid"
  fi
  "$server" >>"$dir/log/server.out" 2>&1 &
  echo $! >"$dir/server.pid"
  # 6 to 10 s on an idle machine; far longer on a loaded one.
  if await_port speaks_amqp10 "$port" "$dir/server.pid" 180 0.5; then
    pgrep -P "$(cat "$dir/server.pid")" beam.smp >"$dir/beam.pid" || true
    return 0
  fi
  echo "broker.sh: the broker did not accept AMQP 1.0 on port $port; see $dir/log" >&2
  stop "$dir" keep
  exit 1
}

stop() {
  local dir f
  dir=$(stopped_dir "${1:-}") || exit 1
  for f in server.pid beam.pid epmd.pid; do
    [ -s "$dir/$f" ] && end_pid "$(cat "$dir/$f")"
  done
  [ "${2:-}" = keep ] || rm -rf "$dir"
}

case "${1:-}" in
  start) start "${2:-}" ;;
  stop) stop "${2:-}" ;;
  # The Erlang VM gets the signal; its launcher ends with it; epmd stays for the restart.
  kill) need_dir "${2:-}" env.sh kill; signal_and_wait "$2" "${3:-}" beam.pid server.pid ;;
  restart) need_dir "${2:-}" env.sh restart; launch "$2" ;;
  *) echo "usage: $0 start|stop [DIR] | kill DIR TERM|KILL | restart DIR" >&2; exit 2 ;;
esac
