# shellcheck shell=bash
# Helpers shared by the throwaway broker scripts (broker.sh, mosquitto.sh);
# sourced, not run. The sourcing script sets `name` (for messages) and `last`
# (the file that remembers the directory of a start without one).

# Fails unless PROGRAM can run; PACKAGE is what installs it.
need_program() {
  if [ ! -x "$1" ]; then
    echo "$name: $1 not found (install $2)" >&2
    exit 1
  fi
}

# Prints DIR, or when it is empty a new directory velclient-KIND.* under BASE,
# remembered in $last for a stop without one.
start_dir() {
  local dir=$1 base=$2 kind=$3
  if [ -z "$dir" ]; then
    dir=$(mktemp -d "$base/velclient-$kind.XXXXXX")
    echo "$dir" >"$last"
  fi
  echo "$dir"
}

# Prints a port of 127.0.0.1 that nothing listens on.
free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Succeeds when 127.0.0.1:PORT answers the bytes SEND with EXPECT (both
# Python bytes literals).
answers() {
  python3 - "$@" <<'PYEOF'
import ast, socket, sys
send, expect = ast.literal_eval(sys.argv[2]), ast.literal_eval(sys.argv[3])
try:
    with socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=2) as s:
        s.sendall(send)
        sys.exit(0 if s.recv(len(expect)) == expect else 1)
except OSError:
    sys.exit(1)
PYEOF
}

# Waits up to TENTHS tenths of a second for the process to end, then kills it.
wait_gone() {
  local pid=$1 tenths=${2:-300}
  for _ in $(seq 1 "$tenths"); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
}

# Ends one process by its pid: TERM, then KILL after 10 s.
end_pid() {
  kill -TERM "$1" 2>/dev/null || return 0
  wait_gone "$1" 100
}

# Prints PORT once CHECK PORT succeeds; fails when the process of PIDFILE
# ends first or SECONDS pass. PAUSE: the wait between two checks.
await_port() {
  local check=$1 port=$2 pidfile=$3 deadline=$((SECONDS + $4)) pause=$5
  while [ "$SECONDS" -lt "$deadline" ]; do
    if "$check" "$port"; then
      echo "$port"
      return 0
    fi
    kill -0 "$(cat "$pidfile")" 2>/dev/null || return 1
    sleep "$pause"
  done
  return 1
}

# The directory given, or the one the last start without one made (then
# forgotten); fails when there is none.
# shellcheck disable=SC2154 # name and last come from the sourcing script
stopped_dir() {
  local dir="${1:-}"
  if [ -z "$dir" ] && [ -f "$last" ]; then
    dir=$(cat "$last")
    rm -f "$last"
  fi
  if [ -z "$dir" ] || [ ! -d "$dir" ]; then
    echo "$name: no broker directory to stop" >&2
    return 1
  fi
  echo "$dir"
}

# Sends signal (TERM or KILL) to the pid in DIR/FIRST, waits for the pids of
# every file named (FIRST and the rest) to end, and empties those files.
signal_and_wait() {
  local dir=$1 signal=$2 f
  shift 2
  case "$signal" in TERM|KILL) ;; *) echo "$name: kill needs TERM or KILL" >&2; exit 2 ;; esac
  if [ -s "$dir/$1" ]; then kill -"$signal" "$(cat "$dir/$1")" 2>/dev/null || true; fi
  for f in "$@"; do
    [ -s "$dir/$f" ] && wait_gone "$(cat "$dir/$f")"
    : >"$dir/$f"
  done
}

# Fails unless DIR holds FILE, which a start of this script wrote.
need_dir() {
  if [ -z "${1:-}" ] || [ ! -s "$1/$2" ]; then
    echo "$name: $3 needs the directory of a broker started by this script" >&2
    exit 2
  fi
}

# A CA, a server certificate it signs for 127.0.0.1 and localhost, and an unrelated CA.
make_certificates() {
  local tls=$1
  mkdir -p "$tls"
  (
    cd "$tls"
    openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj /CN=velclient-test-ca
    openssl req -newkey rsa:2048 -nodes -keyout key.pem -out server.csr -subj /CN=localhost
    echo "subjectAltName=IP:127.0.0.1,DNS:127.0.0.1,DNS:localhost" >san.cnf
    openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out cert.pem -days 2 -extfile san.cnf
    openssl req -x509 -newkey rsa:2048 -nodes -keyout other-ca.key -out other-ca.pem -days 2 -subj /CN=other-ca
    chmod 644 ./*.pem
  ) >"$tls/openssl.out" 2>&1
}
