#!/usr/bin/env bash
# Requests per second of persistent servers: lighttpd in front of
# `cvml --listen` and, in the same run, lighttpd in front of php-fpm with the
# same number of workers; wrk drives the hello, variables and rows pages on
# each and the script prints requests/s, p50 and p99 latency and the ratio.
#
# Usage: bench/fastcgi.sh [page...]     (default: hello variables rows)
# Environment:
#   CVML              the binary (default build/cvml, built when missing)
#   FCGI_WORKERS      workers on each side (default: the number of cores)
#   FCGI_SECONDS      wrk's measured run per page and side (default 10)
#   FCGI_WARMUP       an unmeasured wrk run before it, seconds (default 2)
#   FCGI_CONNECTIONS  wrk's open connections (default 16)
#   FCGI_THREADS      wrk's threads (default 2)
#   FCGI_CVML         how lighttpd reaches cvml: "listen" (default) starts
#                     `cvml --listen 127.0.0.1:PORT --workers N` and lighttpd
#                     connects to it; "spawn" lets lighttpd start N cvml
#                     processes itself with the listening socket as their
#                     standard input (bin-path)
#
# Everything listens on 127.0.0.1 on free ports; the servers' files live in a
# temporary directory; every process started here is stopped at the end, by
# its id.  php-fpm gets its own configuration, pid and log files (as root it
# runs with -R and a pool user of root).  When cvml's server is not available
# (the build has no FastCGI mode, or it does not answer) the cvml side is
# reported as not available and the php-fpm side is measured all the same.
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
. "$here/common.sh"

workers=${FCGI_WORKERS:-$(nproc)}
seconds=${FCGI_SECONDS:-10}
warmup=${FCGI_WARMUP:-2}
connections=${FCGI_CONNECTIONS:-16}
threads=${FCGI_THREADS:-2}
mode=${FCGI_CVML:-listen}
case $mode in listen|spawn) ;; *) echo "FCGI_CVML must be listen or spawn" >&2; exit 2 ;; esac

"$root/scripts/setup.sh" >&2 || { echo "set-up failed" >&2; exit 1; }
cvml=${CVML:-$root/build/cvml}
if [ -z "${CVML:-}" ]; then
  if [ ! -f "$root/build/build.ninja" ]; then
    cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2 || exit 1
  fi
  nice -n 10 ninja -C "$root/build" cvml >&2 || { echo "build failed" >&2; exit 1; }
fi
[ -x "$cvml" ] || { echo "no cvml binary at $cvml" >&2; exit 1; }
cvml=$(cd "$(dirname "$cvml")" && pwd)/$(basename "$cvml")
fpm=$(command -v php-fpm8.2 || ls /usr/sbin/php-fpm* 2>/dev/null | head -n 1)
[ -n "$fpm" ] && [ -x "$fpm" ] || { echo "php-fpm is not installed" >&2; exit 1; }
for tool in lighttpd wrk curl sqlite3 setsid; do
  command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done

pages=("$@")
[ ${#pages[@]} -gt 0 ] || pages=(hello variables rows)
for page in "${pages[@]}"; do
  [ -f "$here/$page.cvm" ] && [ -f "$here/$page.php" ] ||
    { echo "no page pair bench/$page.cvm + bench/$page.php" >&2; exit 1; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-fastcgi.XXXXXX")
pids=()   # every process group started here, each stopped by its id

# stop PID: ends the process group PID (started with setsid, so the group is
# the process and what it forked), politely first.
stop() {
  local pid=$1 i
  kill -0 "$pid" 2>/dev/null || { wait "$pid" 2>/dev/null; return 0; }
  kill -TERM -- "-$pid" 2>/dev/null || kill -TERM "$pid" 2>/dev/null
  for i in $(seq 1 100); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL -- "-$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  # Children left in the group after their parent ended.
  kill -KILL -- "-$pid" 2>/dev/null
  return 0
}
cleanup() {
  local pid
  for pid in "${pids[@]}"; do stop "$pid"; done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

# start LOG CMD...: starts CMD in a process group of its own; sets PID.
start() {
  local log=$1; shift
  setsid "$@" < /dev/null > "$log" 2>&1 &
  PID=$!
  pids+=("$PID")
}

# wait_port PORT PID: succeeds once PORT listens, fails when PID ends or
# after ten seconds.
wait_port() {
  local i
  for i in $(seq 1 100); do
    bench_port_busy "$1" && return 0
    kill -0 "$2" 2>/dev/null || return 1
    sleep 0.1
  done
  return 1
}

# lighttpd_conf PORT FASTCGI: a lighttpd configuration serving bench/ on
# 127.0.0.1:PORT with the fastcgi.server block FASTCGI.
lighttpd_conf() {
  cat <<EOF
server.document-root = "$here"
server.bind = "127.0.0.1"
server.port = $1
server.errorlog = "$work/lighttpd-$1.log"
server.upload-dirs = ( "$work" )
server.modules = ( "mod_fastcgi" )
server.max-connections = 1024
fastcgi.server = ( $2 )
mimetype.assign = ( "" => "application/octet-stream" )
EOF
}

# start_lighttpd NAME FASTCGI: sets <NAME>_URL and returns 0 when it runs.
start_lighttpd() {
  local name=$1 block=$2 port
  port=$(bench_free_port) || return 1
  lighttpd_conf "$port" "$block" > "$work/lighttpd-$name.conf"
  start "$work/lighttpd-$name.out" lighttpd -D -f "$work/lighttpd-$name.conf"
  if ! wait_port "$port" "$PID"; then
    echo "lighttpd ($name) did not start:" >&2
    cat "$work/lighttpd-$name.out" "$work/lighttpd-$port.log" >&2 2>/dev/null
    return 1
  fi
  printf -v "${name}_URL" 'http://127.0.0.1:%s' "$port"
}

bench_make_database "$work/db" || { echo "cannot make the rows database" >&2; exit 1; }

# ---- php-fpm ------------------------------------------------------------------

php_URL=""
php_port=$(bench_free_port) || { echo "no free port" >&2; exit 1; }
user=$(id -un); group=$(id -gn)
cat > "$work/php-fpm.conf" <<EOF
[global]
pid = $work/php-fpm.pid
error_log = $work/php-fpm.log
daemonize = no

[bench]
user = $user
group = $group
listen = 127.0.0.1:$php_port
listen.allowed_clients = 127.0.0.1
pm = static
pm.max_children = $workers
clear_env = yes
env[BENCH_SQLITE] = $BENCH_SQLITE
EOF
fpm_args=(-F -y "$work/php-fpm.conf" -p "$work")
[ "$(id -u)" -eq 0 ] && fpm_args+=(-R)
start "$work/php-fpm.out" "$fpm" "${fpm_args[@]}"
fpm_pid=$PID
if wait_port "$php_port" "$fpm_pid" &&
   start_lighttpd php "\".php\" => (( \"host\" => \"127.0.0.1\", \"port\" => $php_port ))"; then
  :
else
  echo "php-fpm did not start:" >&2
  cat "$work/php-fpm.out" "$work/php-fpm.log" >&2 2>/dev/null
  php_URL=""
fi

# ---- cvml ---------------------------------------------------------------------

cvml_URL=""
cvml_why=""
if [ "$mode" = listen ]; then
  cvml_port=$(bench_free_port) || { echo "no free port" >&2; exit 1; }
  start "$work/cvml.out" "$cvml" --listen "127.0.0.1:$cvml_port" --workers "$workers"
  cvml_pid=$PID
  if wait_port "$cvml_port" "$cvml_pid"; then
    start_lighttpd cvml "\".cvm\" => (( \"host\" => \"127.0.0.1\", \"port\" => $cvml_port ))" ||
      cvml_why="lighttpd in front of it did not start"
  else
    if kill -0 "$cvml_pid" 2>/dev/null; then
      cvml_why="\`cvml --listen 127.0.0.1:$cvml_port --workers $workers\` did not listen within 10 s"
    else
      cvml_why="\`cvml --listen 127.0.0.1:$cvml_port --workers $workers\` ended without listening: this cvml has no FastCGI server"
    fi
    { echo "cvml --listen printed:"; head -c 2000 "$work/cvml.out"; echo; } >&2
  fi
else
  env_block="\"ODBCSYSINI\" => \"$ODBCSYSINI\", \"ODBCINI\" => \"$ODBCINI\""
  start_lighttpd cvml "\".cvm\" => (( \"socket\" => \"$work/cvml.sock\", \"bin-path\" => \"$cvml\",
      \"max-procs\" => $workers, \"bin-environment\" => ( $env_block ) ))" ||
    cvml_why="lighttpd could not spawn cvml as a FastCGI server (see above)"
fi

# A server that starts but cannot answer a page is not available either.
if [ -n "$cvml_URL" ]; then
  code=$(curl -s -o "$work/probe.out" -w '%{http_code}' --max-time 10 "$cvml_URL/hello.cvm?name=World")
  if [ "$code" != 200 ]; then
    cvml_why="lighttpd answered hello.cvm with status ${code:-none}"
    [ "$mode" = spawn ] && cvml_why+=": the cvml processes it spawned do not serve FastCGI"
    { echo "lighttpd's error log:"; tail -n 20 "$work"/lighttpd-*.log; } >&2 2>/dev/null
    cvml_URL=""
  fi
fi

# ---- the runs -----------------------------------------------------------------

# to_ms VALUE: wrk's "1.23ms" / "850.00us" / "1.02s" as milliseconds.
to_ms() {
  awk -v v="$1" 'BEGIN {
    if (v ~ /us$/) { sub(/us$/, "", v); printf "%.3f", v / 1000 }
    else if (v ~ /ms$/) { sub(/ms$/, "", v); printf "%.2f", v }
    else if (v ~ /m$/) { sub(/m$/, "", v); printf "%.0f", v * 60000 }
    else if (v ~ /s$/) { sub(/s$/, "", v); printf "%.0f", v * 1000 }
    else print v }'
}

# measure SIDE URL: warm-up, then the measured wrk run; sets RPS, P50, P99 and
# ERRS (non-2xx answers and socket errors, empty when none).
measure() {
  local out=$work/wrk-$1.txt
  if [ "$warmup" != 0 ]; then
    wrk -t"$threads" -c"$connections" -d"${warmup}s" "$2" > /dev/null 2>&1
  fi
  wrk -t"$threads" -c"$connections" -d"${seconds}s" --latency "$2" > "$out" 2>&1
  RPS=$(awk '/^Requests\/sec:/ { printf "%.0f", $2 }' "$out")
  P50=$(to_ms "$(awk '$1 == "50%" { print $2 }' "$out")")
  P99=$(to_ms "$(awk '$1 == "99%" { print $2 }' "$out")")
  ERRS=$(grep -E 'Non-2xx|Socket errors' "$out" | tr -s ' ' | sed 's/^ //' | paste -sd ';' -)
  [ -n "$RPS" ] || { ERRS="wrk failed: $(head -c 200 "$out")"; RPS=0; }
}

cat_rows=()
status=0
for page in "${pages[@]}"; do
  query=""
  [ "$page" = hello ] && query="?name=World"
  c_cell="not available"; p_cell="not available"; r_cell="–"; c_lat="–"; p_lat="–"; note=""
  rps_c=""; rps_p=""
  # Bodies first: both sides must print the same page.
  if [ -n "$php_URL" ]; then
    curl -s --max-time 30 -o "$work/$page.php.body" "$php_URL/$page.php$query"
  fi
  if [ -n "$cvml_URL" ]; then
    curl -s --max-time 30 -o "$work/$page.cvml.body" "$cvml_URL/$page.cvm$query"
    if [ -n "$php_URL" ] && ! cmp -s "$work/$page.cvml.body" "$work/$page.php.body"; then
      echo "WARNING: $page: the two servers' bodies differ:" >&2
      diff "$work/$page.cvml.body" "$work/$page.php.body" | head -n 20 >&2
      note=" (bodies differ)"; status=1
    fi
  fi
  echo "== $page" >&2
  if [ -n "$php_URL" ]; then
    measure "$page-php" "$php_URL/$page.php$query"
    rps_p=$RPS; p_cell=$RPS; p_lat="$P50 / $P99"
    [ -n "$ERRS" ] && { p_cell+=" ($ERRS)"; status=1; }
  fi
  if [ -n "$cvml_URL" ]; then
    measure "$page-cvml" "$cvml_URL/$page.cvm$query"
    rps_c=$RPS; c_cell=$RPS; c_lat="$P50 / $P99"
    [ -n "$ERRS" ] && { c_cell+=" ($ERRS)"; status=1; }
  fi
  if [ -n "$rps_c" ] && [ -n "$rps_p" ]; then
    r_cell=$(awk -v a="$rps_c" -v b="$rps_p" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "n/a" }')
  fi
  cat_rows+=("| $page | $c_cell | $c_lat | $p_cell | $p_lat | $r_cell$note |")
done

echo
echo "Machine: $(bench_machine)"
echo "Versions: $(bench_versions); $(lighttpd -v 2>/dev/null | cut -d' ' -f1); $("$fpm" -v 2>/dev/null | head -n 1 | cut -d' ' -f1-3)"
echo "Set-up: lighttpd (mod_fastcgi) in front of each; $workers workers each (php-fpm pm = static;"
echo "cvml: $([ "$mode" = listen ] && echo "cvml --listen --workers $workers" || echo "$workers processes spawned by lighttpd")); wrk -t$threads -c$connections,"
echo "${seconds} s per page and side after ${warmup} s of warm-up."
echo
echo "| page | cvml req/s | cvml p50 / p99 (ms) | php-fpm req/s | php-fpm p50 / p99 (ms) | cvml/php-fpm req/s |"
echo "|---|---|---|---|---|---|"
printf '%s\n' "${cat_rows[@]}"
echo
echo "Goal: cvml/php-fpm ≥ 1.0 on every page (1.5 the moonshot)."
if [ -z "$cvml_URL" ]; then
  echo "cvml side not available: ${cvml_why:-unknown reason}"
  status=1
fi
[ -n "$php_URL" ] || { echo "php-fpm side not available (see the messages above)"; status=1; }
exit $status
