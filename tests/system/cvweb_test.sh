#!/usr/bin/env bash
# Runs the CVWEB pages in cvweb/ against real peers on 127.0.0.1: a private
# lighttpd serving cvweb/site (static files and a shell CGI that echoes a
# POST) and, for the mail and file pages, a scripted SMTP, POP3 or FTP peer
# (cvweb/peer.py) that records what the page sent.
#
# A page is a template: @HTTP_PORT@, @PEER_PORT@ and @CLOSED_PORT@ are
# replaced by the ports of this run.  NAME.out is the exact expected output
# (the work directory masked as @DIR@); NAME.log, when present, makes the
# test start the peer named by the page's prefix (smtp_, pop3_, ftp_, http_
# with "peer" in the name, hostile_) and is the exact expected record of
# what that peer received.  NAME.env holds extra environment lines for the
# page (the network limits of a hostile case).
set -u
cvml=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
here=$(cd "$(dirname "$0")" && pwd)
cases=$here/cvweb
root=$(cd "$here/../.." && pwd)

command -v python3 >/dev/null || { echo "python3 is needed: run scripts/setup.sh"; exit 1; }
# shellcheck source=../../scripts/lighttpd.sh
source "$root/scripts/lighttpd.sh"

work=$(mktemp -d)
peer_pid=
cleanup() {
  if [ -n "$peer_pid" ]; then kill "$peer_pid" 2>/dev/null; wait "$peer_pid" 2>/dev/null; fi
  lighttpd_stop
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT

# lighttpd keeps its strict header parsing: the client's request lines end
# in CR LF.  The echo CGI runs through /bin/sh (and must not be served as a
# static file, which comes first otherwise).
export LIGHTTPD_EXTRA_CONF='cgi.assign += ( ".sh" => "/bin/sh" )
static-file.exclude-extensions += ( ".sh" )'
lighttpd_start "$cases/site" "$cvml" || exit 1

# A port that was free a moment ago and has no listener now.
closed_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

# Starts the peer of `kind` and waits (bounded) for the port it reports,
# which it leaves in peer_port.
start_peer() {
  local kind=$1 case=$2 i
  rm -f "$work/peer.port" "$work/peer.log"
  python3 "$cases/peer.py" "$kind" "$work/peer.port" "$work/peer.log" "$case" > "$work/peer.out" 2>&1 &
  peer_pid=$!
  for i in $(seq 1 100); do
    [ -s "$work/peer.port" ] && { peer_port=$(cat "$work/peer.port"); return 0; }
    kill -0 "$peer_pid" 2>/dev/null || break
    sleep 0.1
  done
  echo "peer $kind did not start" >&2
  return 1
}

# Waits for the peer to finish its dialogue; it ends itself within 30 s.
stop_peer() {
  local i
  for i in $(seq 1 300); do
    kill -0 "$peer_pid" 2>/dev/null || break
    sleep 0.1
  done
  kill "$peer_pid" 2>/dev/null
  wait "$peer_pid" 2>/dev/null
  peer_pid=
}

failures=0
check() {  # check NAME EXPECTED ACTUAL
  if ! cmp -s "$2" "$3"; then
    echo "$1: differs from $(basename "$2"):"
    diff -u "$2" "$3" | cat -A | head -n 60
    failures=$((failures + 1))
  fi
}

for page in "$cases"/*.cvm; do
  name=$(basename "$page" .cvm)
  peer_port=0
  if [ -f "$cases/$name.log" ]; then
    start_peer "${name%%_*}" "$name" || { failures=$((failures + 1)); continue; }
  fi
  sed -e "s/@HTTP_PORT@/$LIGHTTPD_PORT/g" -e "s/@PEER_PORT@/$peer_port/g" \
      -e "s/@CLOSED_PORT@/$closed_port/g" "$page" > "$work/$name.cvm"
  actual=$work/$name.actual
  envs=(PATH=/usr/bin:/bin)
  for var in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
    [ -n "${!var:-}" ] && envs+=("$var=${!var}")
  done
  if [ -f "$cases/$name.env" ]; then
    while IFS= read -r line || [ -n "$line" ]; do
      [ -n "$line" ] && envs+=("$line")
    done < "$cases/$name.env"
  fi
  (cd "$work" && env -i "${envs[@]}" timeout 60 "$cvml" "$name.cvm") > "$actual"
  status=$?
  [ -n "$peer_pid" ] && stop_peer
  if [ $status -ne 0 ]; then
    echo "$name: cvml exited with status $status"
    failures=$((failures + 1))
    continue
  fi
  sed -i -e "s#$work#@DIR@#g" -e "s/$LIGHTTPD_PORT/@HTTP_PORT@/g" -e "s/$closed_port/@CLOSED_PORT@/g" "$actual"
  [ "$peer_port" != 0 ] && sed -i -e "s/$peer_port/@PEER_PORT@/g" "$actual"
  check "$name" "$cases/$name.out" "$actual"
  if [ -f "$cases/$name.log" ]; then
    mv "$work/peer.log" "$work/$name.peer.log" 2>/dev/null
    check "$name (peer)" "$cases/$name.log" "$work/$name.peer.log"
  fi
done
[ $failures -eq 0 ] || { echo "$failures CVWEB check(s) failed"; exit 1; }
echo "CVWEB pages passed"
