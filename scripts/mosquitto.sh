#!/usr/bin/env bash
# A throwaway mosquitto (MQTT 5) broker, for tests and trying things out. Its
# state lives in a temporary directory; nothing touches the system's broker or
# systemd.
#
#   scripts/mosquitto.sh start [DIR]   starts it on a free port of 127.0.0.1
#                                      and prints that port once it answers
#                                      an MQTT connect
#   scripts/mosquitto.sh stop [DIR]    ends the broker by its own pid and
#                                      removes DIR
#   scripts/mosquitto.sh kill DIR TERM|KILL
#                                      sends the broker that signal and waits
#                                      until it is gone; DIR stays
#   scripts/mosquitto.sh restart DIR   starts the broker of DIR again, on the
#                                      same port with the same data
#
# DIR (default: a new directory under /dev/shm, or /tmp without it, remembered
# in ${TMPDIR:-/tmp}/velclient-mosquitto.last) holds the configuration, the
# persistence file, the log and the pid. A second listener, its port in
# DIR/login_port, admits only user velclient with password secret, who may use
# every topic but those under velclient-denied/; a third, its port in
# DIR/tls_port, speaks TLS with a certificate for 127.0.0.1 and localhost
# signed by a CA made for the run (DIR/tls/ca.pem), and DIR/tls/other-ca.pem
# is a CA that signed nothing.
#
# The broker saves its state (and fsyncs it) at the end of every pass of its
# main loop that changed something (autosave_on_changes with an interval of
# 1), on SIGTERM and on exit; the default saves only every 30 minutes and on
# exit, so SIGKILL would lose everything since. It acknowledges a QoS 1
# publish within the pass that takes it, before that save: after SIGKILL, what
# it acknowledged in its last pass may be gone, while whatever it acknowledged
# before an acknowledgement the client saw later survives. On a disk the
# fsyncs make it about 10 times slower than on tmpfs, hence /dev/shm. An
# offline client's queue holds up to 1,000,000 messages (the default of 1000
# drops the rest with only a line in the log).
set -euo pipefail

name=mosquitto.sh
last="${TMPDIR:-/tmp}/velclient-mosquitto.last"
broker=/usr/sbin/mosquitto
# shellcheck source=scripts/throwaway.sh
. "$(dirname "${BASH_SOURCE[0]}")/throwaway.sh"

# Succeeds once the port answers an MQTT 3.1.1 connect with a connack.
speaks_mqtt() {
  answers "$1" 'b"\x10\x0c\x00\x04MQTT\x04\x02\x00\x3c\x00\x00"' 'b"\x20\x02\x00\x00"'
}

start() {
  need_program "$broker" mosquitto
  local dir base=/tmp
  [ -d /dev/shm ] && [ -w /dev/shm ] && base=/dev/shm
  dir=$(start_dir "${1:-}" "$base" mosquitto)
  mkdir -p "$dir"
  local port login_port tls_port
  port=$(free_port)
  echo "$port" >"$dir/port"
  login_port=$(free_port)
  echo "$login_port" >"$dir/login_port"
  mosquitto_passwd -c -b "$dir/passwords" velclient secret >/dev/null
  tls_port=$(free_port)
  echo "$tls_port" >"$dir/tls_port"
  make_certificates "$dir/tls"
  cat >"$dir/mosquitto.conf" <<CONF
per_listener_settings true
listener $port 127.0.0.1
allow_anonymous true
listener $login_port 127.0.0.1
allow_anonymous false
password_file $dir/passwords
acl_file $dir/acl
listener $tls_port 127.0.0.1
allow_anonymous true
certfile $dir/tls/cert.pem
keyfile $dir/tls/key.pem
persistence true
persistence_location $dir/
autosave_on_changes true
autosave_interval 1
user root
set_tcp_nodelay true
max_queued_messages 1000000
max_queued_bytes 0
log_dest file $dir/mosquitto.log
log_type error
log_type warning
log_type notice
connection_messages true
CONF
  # The login listener's user may use every topic but those under velclient-denied/. (An access list on the
  # first listener would drop what a restarted broker owes the sessions it restored.)
  printf 'user velclient\ntopic readwrite #\ntopic deny velclient-denied/#\n' >"$dir/acl"
  launch "$dir"
}

# Starts the broker of DIR and prints its port once it answers MQTT.
launch() {
  local dir=$1 port
  port=$(cat "$dir/port")
  setsid "$broker" -c "$dir/mosquitto.conf" >>"$dir/mosquitto.out" 2>&1 &
  echo $! >"$dir/mosquitto.pid"
  await_port speaks_mqtt "$port" "$dir/mosquitto.pid" 30 0.05 && return 0
  echo "mosquitto.sh: the broker did not answer MQTT on port $port; see $dir/mosquitto.out and $dir/mosquitto.log" >&2
  stop "$dir" keep
  exit 1
}

stop() {
  local dir
  dir=$(stopped_dir "${1:-}") || exit 1
  [ -s "$dir/mosquitto.pid" ] && end_pid "$(cat "$dir/mosquitto.pid")"
  [ "${2:-}" = keep ] || rm -rf "$dir"
}

case "${1:-}" in
  start) start "${2:-}" ;;
  stop) stop "${2:-}" ;;
  kill) need_dir "${2:-}" mosquitto.conf kill; signal_and_wait "$2" "${3:-}" mosquitto.pid ;;
  restart) need_dir "${2:-}" mosquitto.conf restart; launch "$2" ;;
  *) echo "usage: $0 start|stop [DIR] | kill DIR TERM|KILL | restart DIR" >&2; exit 2 ;;
esac
