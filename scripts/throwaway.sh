# Helpers shared by the throwaway broker scripts (broker.sh, mosquitto.sh);
# sourced, not run.

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
