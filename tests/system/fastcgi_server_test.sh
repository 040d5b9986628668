#!/usr/bin/env bash
# The FastCGI server's life: its flags, a Unix socket, a worker retired
# after --max-requests, a worker that dies replaced, SIGHUP replacing every
# worker, SIGTERM answering the request in progress and refusing new ones,
# and the listening socket handed over as standard input.
# Usage: fastcgi_server_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-fastcgi-server.XXXXXX")
source "$here/fastcgi_common.sh"
trap 'fastcgi_cleanup; rm -rf "$work"' EXIT
command -v python3 > /dev/null || { echo "FAIL: python3 is not installed"; exit 1; }

site=$work/site
mkdir -p "$site"
printf '<CVDEBUG type="off">ok\n' > "$site/ok.cvm"
printf '<CVDEBUG type="off">before <CV-API function="sleep" value="1500">after\n' > "$site/slow.cvm"
ok_at() { fcgi request "$1" $(request_env "$site" ok.cvm) 2>/dev/null | tail -n 1; }

# Flags.
"$cvml" --workers 2 > "$work/out" 2>&1; status=$?
[ $status = 2 ] && grep -q 'needs --listen' "$work/out" && pass "--workers without --listen is refused" ||
  fail "--workers alone: status $status, $(cat "$work/out")"
"$cvml" --listen 127.0.0.1:9 --max-time soon > "$work/out" 2>&1; status=$?
[ $status = 2 ] && grep -q -- "--max-time takes seconds" "$work/out" && pass "a bad --max-time is refused" ||
  fail "--max-time soon: status $status, $(cat "$work/out")"
"$cvml" --listen 127.0.0.1:9000 page.cvm > "$work/out" 2>&1; status=$?
[ $status = 2 ] && grep -q "not 'page.cvm'" "$work/out" && pass "a page after the server's flags is refused" ||
  fail "--listen with a page: status $status, $(cat "$work/out")"
"$cvml" --listen 256.1.1.1:80 > "$work/out" 2>&1; status=$?
[ $status = 1 ] && grep -q 'cannot use the address' "$work/out" && pass "an address that is not one is refused" ||
  fail "--listen 256.1.1.1:80: status $status, $(cat "$work/out")"
"$cvml" --help | grep -q -- '--listen ADDRESS' && pass "--help describes the server's flags" ||
  fail "--help does not mention --listen"

# A Unix socket, over a stale socket file; a live one is not taken.
python3 -c "import socket,sys; s=socket.socket(socket.AF_UNIX); s.bind(sys.argv[1])" "$work/cvml.sock"
"$cvml" --listen "unix:$work/cvml.sock" --workers 1 < /dev/null 2> "$work/unix.log" &
unix_pid=$!
fastcgi_servers+=("$unix_pid")
for _ in $(seq 1 50); do [ "$(ok_at "unix:$work/cvml.sock")" = ok ] && break; sleep 0.1; done
[ "$(ok_at "unix:$work/cvml.sock")" = ok ] && pass "a Unix socket serves, replacing a stale socket file" ||
  { fail "the Unix socket does not serve:"; cat "$work/unix.log"; }
"$cvml" --listen "unix:$work/cvml.sock" > "$work/out" 2>&1; status=$?
[ $status = 1 ] && grep -q 'in use by another server' "$work/out" && pass "a socket in use is not taken over" ||
  fail "a second server on the socket: status $status, $(cat "$work/out")"
kill -TERM "$unix_pid"; wait "$unix_pid" 2>/dev/null
[ ! -e "$work/cvml.sock" ] && pass "the socket file is removed when the server stops" ||
  fail "the socket file is left behind"

# A worker retires after --max-requests; one that dies is replaced.
start_server retire --workers 1 --max-requests 3 || exit 1
wait_for_workers "$retire_pid" 1
first=$(workers_of "$retire_pid")
for _ in 1 2 3; do ok_at "127.0.0.1:$retire_port" > /dev/null; done
for _ in $(seq 1 50); do [ "$(workers_of "$retire_pid")" != "$first" ] && break; sleep 0.1; done
second=$(workers_of "$retire_pid")
[ -n "$second" ] && [ "$second" != "$first" ] && [ "$(ok_at "127.0.0.1:$retire_port")" = ok ] &&
  pass "a worker retires after 3 requests and another serves" || fail "workers: $first, then '$second'"
kill -KILL "$second"
for _ in $(seq 1 50); do third=$(workers_of "$retire_pid"); [ -n "$third" ] && [ "$third" != "$second" ] && break; sleep 0.1; done
[ -n "$third" ] && [ "$third" != "$second" ] && [ "$(ok_at "127.0.0.1:$retire_port")" = ok ] &&
  grep -q "worker $second was ended by signal 9" "$work/retire.log" &&
  pass "a killed worker is replaced and logged" || { fail "after killing $second: '$third'"; cat "$work/retire.log"; }

# SIGHUP: every worker replaced, the service uninterrupted.
start_server reload --workers 2 || exit 1
wait_for_workers "$reload_pid" 2
before=$(workers_of "$reload_pid" | tr '\n' ' ')
kill -HUP "$reload_pid"
for _ in $(seq 1 50); do
  after=$(workers_of "$reload_pid" | tr '\n' ' ')
  [ "$(workers_of "$reload_pid" | wc -l)" = 2 ] && [ -z "$(comm -12 <(tr ' ' '\n' <<< "$before" | sort) <(tr ' ' '\n' <<< "$after" | sort) | grep .)" ] && break
  sleep 0.1
done
[ "$(ok_at "127.0.0.1:$reload_port")" = ok ] && [ "$before" != "$after" ] && [ "$(wc -w <<< "$after")" = 2 ] &&
  pass "SIGHUP replaces the workers ($before-> $after)" || fail "SIGHUP: workers $before then $after"

# SIGTERM: the request in progress is answered; new connections are refused.
start_server drain --workers 2 || exit 1
wait_for_workers "$drain_pid" 2
fcgi request "127.0.0.1:$drain_port" $(request_env "$site" slow.cvm) > "$work/slow.out" 2>&1 &
slow=$!
# Until a worker sleeps in the page.
for _ in $(seq 1 100); do
  for w in $(workers_of "$drain_pid"); do grep -q sleep "/proc/$w/wchan" 2>/dev/null && break 2; done
  sleep 0.05
done
kill -TERM "$drain_pid"
sleep 0.2
if port_open "$drain_port"; then fail "the port still takes connections after SIGTERM"; else
  pass "after SIGTERM the port refuses connections"; fi
wait "$slow"
[ "$(tail -n 1 "$work/slow.out")" = "before after" ] && pass "the request in progress at SIGTERM is answered in full" ||
  { fail "the slow request got:"; cat "$work/slow.out"; }
wait_server drain && pass "the server ends once it has answered" || fail "the server did not end after SIGTERM"
[ -z "$(pgrep -P "$drain_pid")" ] || fail "workers outlived their server"

# The socket as standard input, as a web server hands it over.
python3 - "$cvml" "$work/stdin.sock" "$work/stdin.log" <<'EOF' &
import os, socket, sys
s = socket.socket(socket.AF_UNIX)
s.bind(sys.argv[2])
s.listen(16)
os.dup2(s.fileno(), 0)
err = os.open(sys.argv[3], os.O_WRONLY | os.O_CREAT | os.O_TRUNC)
os.dup2(err, 2)
os.execv(sys.argv[1], [sys.argv[1], "--max-requests", "100"])
EOF
stdin_pid=$!
fastcgi_servers+=("$stdin_pid")
for _ in $(seq 1 50); do [ "$(ok_at "unix:$work/stdin.sock")" = ok ] && break; sleep 0.1; done
[ "$(ok_at "unix:$work/stdin.sock")" = ok ] && grep -q 'socket on standard input with 1 worker' "$work/stdin.log" &&
  pass "a listening socket as standard input makes a FastCGI server" ||
  { fail "the socket on standard input does not serve:"; cat "$work/stdin.log"; }

for log in "$work"/*.log; do
  if grep -v 'serving FastCGI\|SIG[A-Z]*:\|stopped\|was ended by signal 9' "$log" | grep -q .; then
    fail "$(basename "$log") holds more:"; head -n 10 "$log"
  fi
done
[ $failed -eq 0 ] && echo "the server starts, replaces, reloads and stops as it should"
exit $failed
