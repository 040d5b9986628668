#!/usr/bin/env bash
# Shared by the FastCGI server's tests (fastcgi_*_test.sh).  Source it after
# setting `cvml` and `work`; it defines:
#   start_server NAME FLAGS...   starts `cvml --listen 127.0.0.1:PORT FLAGS`
#                                with standard error in $work/NAME.log; sets
#                                NAME_port and NAME_pid, fails when it does
#                                not listen within 10 s
#   stop_server NAME             SIGTERM, then waits (10 s) for it to end
#   workers_of PID               the worker processes of a server
#   fcgi ARGS...                 runs fastcgi_client.py
#   request_env DIR PAGE         the parameters of a GET for DIR/PAGE
#   sanitizer                    1 when cvml is a sanitizer build
# and stops every server it started when the script exits (call
# fastcgi_cleanup from the script's own EXIT trap).

fastcgi_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
sanitizer=0
grep -qs '^CVML_SANITIZE:BOOL=ON' "$(dirname "$cvml")/CMakeCache.txt" && sanitizer=1
# The address sanitizer refuses an impossible allocation by ending the
# process; a server's memory bounds expect the allocation to fail instead,
# as it does in a normal build.
[ $sanitizer = 1 ] && export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}allocator_may_return_null=1"
fastcgi_servers=()
failed=0
pass() { echo "PASS: $1"; }
fail() { echo "FAIL: $1"; failed=1; }

fcgi() { python3 "$fastcgi_dir/fastcgi_client.py" "$@"; }

port_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# The same choice as server_checks.sh's free_port: below the system's
# range for outgoing connections.
free_tcp_port() {
  local port low=32768 high
  read -r low high < /proc/sys/net/ipv4/ip_local_port_range 2>/dev/null
  [ "${low:-0}" -gt 12000 ] 2>/dev/null || low=32768
  while :; do
    port=$(( 10000 + (RANDOM * 32768 + RANDOM) % (low - 10000) ))
    port_open "$port" || { echo "$port"; return; }
  done
}

start_server() {
  local name=$1 port pid i attempt
  shift
  # A port nobody listens on may still be some connection's own port: then
  # the server cannot have it, and another is tried.
  for attempt in 1 2 3 4 5; do
    port=$(free_tcp_port)
    "$cvml" --listen "127.0.0.1:$port" "$@" < /dev/null > /dev/null 2> "$work/$name.log" &
    pid=$!
    fastcgi_servers+=("$pid")
    printf -v "${name}_port" '%s' "$port"
    printf -v "${name}_pid" '%s' "$pid"
    for i in $(seq 1 100); do
      port_open "$port" && return 0
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
    wait "$pid" 2>/dev/null
    grep -q 'Address already in use' "$work/$name.log" || break
  done
  echo "FAIL: cvml --listen 127.0.0.1:$port $* did not start:"
  cat "$work/$name.log"
  return 1
}

stop_server() {
  local pid_var="${1}_pid" i
  local pid=${!pid_var}
  kill -TERM "$pid" 2>/dev/null
  for i in $(seq 1 100); do
    kill -0 "$pid" 2>/dev/null || { wait "$pid" 2>/dev/null; return 0; }
    sleep 0.1
  done
  return 1
}

# wait_server NAME: until the server ends by itself (10 s); a second SIGTERM
# would end its workers at once.
wait_server() {
  local pid_var="${1}_pid" i
  local pid=${!pid_var}
  for i in $(seq 1 100); do
    kill -0 "$pid" 2>/dev/null || { wait "$pid" 2>/dev/null; return 0; }
    sleep 0.1
  done
  return 1
}

workers_of() { pgrep -P "$1" | sort -n; }

# wait_for_workers PID COUNT: until the server has COUNT workers (5 s).
wait_for_workers() {
  local i
  for i in $(seq 1 50); do
    [ "$(workers_of "$1" | wc -l)" -eq "$2" ] && return 0
    sleep 0.1
  done
  return 1
}

request_env() {
  echo "DOCUMENT_ROOT=$1" "SCRIPT_FILENAME=$1/$2" "SCRIPT_NAME=/$2" "REQUEST_URI=/$2" "REQUEST_METHOD=GET" \
    "SERVER_NAME=127.0.0.1" "SERVER_PORT=80" "GATEWAY_INTERFACE=CGI/1.1"
}

fastcgi_cleanup() {
  local pid
  for pid in "${fastcgi_servers[@]}"; do
    kill -TERM "$pid" 2>/dev/null
  done
  for pid in "${fastcgi_servers[@]}"; do
    for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
  done
}
