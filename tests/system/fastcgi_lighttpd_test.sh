#!/usr/bin/env bash
# lighttpd with mod_fastcgi and the packaged snippet
# (packaging/lighttpd/10-cvml-fastcgi.conf) serving tests/system/deploy_site/
# twice: once starting cvml itself (bin-path, the socket as standard
# input), once connecting to `cvml --listen`.  GET, POST, uploads, cookies,
# a redirect and an error report through each.
# Usage: fastcgi_lighttpd_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-fastcgi-lighttpd.XXXXXX")
source "$here/server_checks.sh"
source "$here/fastcgi_common.sh"
command -v lighttpd >/dev/null || { echo "FAIL: lighttpd is not installed (scripts/setup.sh test installs it)"; exit 1; }
lighttpd_pids=()
cleanup() {
  local pid
  for pid in "${lighttpd_pids[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
  fastcgi_cleanup
  rm -rf "$work"
}
trap cleanup EXIT
server_site "$work/site"
sc_error_status=500

# start_lighttpd NAME FASTCGI_BLOCK: lighttpd on a free port with the
# snippet, its fastcgi.server block replaced; sets NAME_url.
start_lighttpd() {
  local name=$1 block=$2 port pid attempt
  # A port free when chosen may be taken before lighttpd binds it (tests
  # run in parallel): each failed start is shown, and another port tried.
  for attempt in 1 2 3; do
    start_lighttpd_once "$name" "$block" && return 0
    echo "note: lighttpd ($name) did not start (attempt $attempt):"
    cat "$work/$name-stdout.log" "$work/$name-error.log" 2>/dev/null
  done
  echo "FAIL: lighttpd ($name) did not start"
  return 1
}

start_lighttpd_once() {
  local name=$1 block=$2 port pid
  port=$(free_port)
  python3 - "$here/../../packaging/lighttpd/10-cvml-fastcgi.conf" "$block" > "$work/$name-cvml.conf" <<'EOF'
import re, sys
text = open(sys.argv[1]).read()
print(re.sub(r'fastcgi\.server \+= \( "\.cvm" => \(\(.*?\)\) \)', lambda m: sys.argv[2], text, count=1, flags=re.S))
EOF
  cat > "$work/$name.conf" <<CONF
server.document-root = "$work/site"
server.bind = "127.0.0.1"
server.port = $port
server.errorlog = "$work/$name-error.log"
mimetype.assign = ( ".txt" => "text/plain", ".html" => "text/html" )
include "$work/$name-cvml.conf"
CONF
  lighttpd -D -f "$work/$name.conf" < /dev/null > "$work/$name-stdout.log" 2>&1 &
  pid=$!
  lighttpd_pids+=("$pid")
  if ! wait_for_port "$port" "$pid"; then
    kill "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    return 1
  fi
  printf -v "${name}_url" 'http://127.0.0.1:%s' "$port"
}

env_lines="\"CVML_UPLOAD_DIR\" => \"$work/site/uploads\""
for var in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
  [ -n "${!var:-}" ] && env_lines+=", \"$var\" => \"${!var}\""
done
# The snippet's own block, with this build's program (reports after the
# page, which the checks read), a socket in the test's directory, two
# processes and the test's environment.
spawn_block=$(sed -n '/^fastcgi.server += ( ".cvm" => ((/,/^)) )/p' "$here/../../packaging/lighttpd/10-cvml-fastcgi.conf" |
  sed -e "s#/usr/bin/cvml --max-time 30#$cvml --max-time 30 --reports page#" -e "s#/run/lighttpd/cvml.socket#$work/cvml.socket#" \
      -e 's#"max-procs" => 4#"max-procs" => 2#' \
      -e "s#\"check-local\" => \"enable\",#\"check-local\" => \"enable\", \"bin-environment\" => ( $env_lines ),#")
grep -q "$cvml --max-time 30 --reports page" <<< "$spawn_block" || { echo "FAIL: the snippet's block was not found"; exit 1; }

echo "== lighttpd starting cvml (bin-path)"
start_lighttpd spawn "$spawn_block" || exit 1
server_checks "$spawn_url" "$work/site"
[ "$(pgrep -f -- "$cvml --max-time 30" | wc -l)" -ge 2 ] && pass "lighttpd started cvml itself" ||
  fail "no cvml processes started by lighttpd"

echo "== lighttpd connecting to cvml --listen"
export CVML_UPLOAD_DIR=$work/site/uploads
start_server listen --workers 2 --reports page || exit 1
start_lighttpd listen "fastcgi.server += ( \".cvm\" => (( \"host\" => \"127.0.0.1\", \"port\" => $listen_port, \"check-local\" => \"enable\" )) )" || exit 1
server_checks "$listen_url" "$work/site"

for log in "$work"/spawn-error.log "$work"/listen-error.log; do
  if grep -v 'server started\|server stopped\|serving FastCGI\|SIGTERM\|cvml\[[0-9]*\]: stopped' "$log" | grep -q .; then
    fail "$(basename "$log"):"; head -n 20 "$log"
  fi
done
if grep -v 'serving FastCGI' "$work/listen.log" | grep -q .; then fail "cvml --listen logged:"; head "$work/listen.log"; fi
[ $failed -eq 0 ] && echo "all lighttpd FastCGI checks passed"
exit $failed
