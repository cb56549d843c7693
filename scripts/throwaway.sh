# shellcheck shell=bash
# Helpers shared by the throwaway broker scripts (broker.sh, mosquitto.sh);
# sourced, not run. The sourcing script sets `name` (for messages) and `last`
# (the file that remembers the directory of a start without one).

# Prints a port of 127.0.0.1 that nothing listens on.
free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Ends one process by its pid: TERM, then KILL after 10 s.
end_pid() {
  local pid=$1
  kill -TERM "$pid" 2>/dev/null || return 0
  for _ in $(seq 1 100); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
}

# Waits up to 30 s for the process to end, then kills it.
wait_gone() {
  local pid=$1
  for _ in $(seq 1 300); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
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
