#!/usr/bin/env bash
# A stock nginx with fcgiwrap and the packaged snippet
# (packaging/nginx/cvml.conf) serving tests/system/deploy_site/.  Both are
# started by hand with their own configuration, socket, pid and log files,
# on 127.0.0.1 and a free port.
# Usage: nginx_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
source "$here/server_checks.sh"
nginx=$(command -v nginx || echo /usr/sbin/nginx)
fcgiwrap=$(command -v fcgiwrap || echo /usr/sbin/fcgiwrap)
[ -x "$nginx" ] || { echo "FAIL: nginx is not installed (scripts/setup.sh test installs it)"; exit 1; }
[ -x "$fcgiwrap" ] || { echo "FAIL: fcgiwrap is not installed (scripts/setup.sh test installs it)"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-nginx.XXXXXX")
wrap_pid=
stop() {
  local pid
  pid=$(cat "$work/nginx.pid" 2>/dev/null)
  [ -n "$pid" ] && kill "$pid" 2>/dev/null
  if [ -n "$wrap_pid" ]; then kill "$wrap_pid" 2>/dev/null; wait "$wrap_pid" 2>/dev/null; fi
  for _ in $(seq 1 50); do [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  rm -rf "$work"
}
trap stop EXIT
server_site "$work/site"
chmod 755 "$work"
port=$(free_port)
mkdir "$work/conf" "$work/run" "$work/logs"

# fcgiwrap runs only cvml, on its own socket; it hands the FastCGI
# parameters to the program as its environment.
"$fcgiwrap" -s "unix:$work/run/fcgiwrap.socket" -p "$cvml" < /dev/null > /dev/null 2> "$work/logs/fcgiwrap.log" &
wrap_pid=$!
for _ in $(seq 1 50); do [ -S "$work/run/fcgiwrap.socket" ] && break; sleep 0.1; done
[ -S "$work/run/fcgiwrap.socket" ] || { echo "FAIL: fcgiwrap did not start:"; cat "$work/logs/fcgiwrap.log"; exit 1; }
# nginx's workers run as their own user and must reach the socket.
chmod 777 "$work/run" "$work/run/fcgiwrap.socket"

cp /etc/nginx/fastcgi_params /etc/nginx/mime.types "$work/conf/"
sed -e "s#/usr/bin/cvml#$cvml#" -e "s#unix:/run/fcgiwrap.socket#unix:$work/run/fcgiwrap.socket#" \
  "$here/../../packaging/nginx/cvml.conf" > "$work/conf/cvml.conf"
params="fastcgi_param CVML_UPLOAD_DIR $work/site/uploads;"
for var in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
  [ -n "${!var:-}" ] && params+=$'\n'"        fastcgi_param $var \"${!var}\";"
done
# The test's own environment for the pages goes into fastcgi_params, which
# the snippet includes.
printf '%s\n' "$params" >> "$work/conf/fastcgi_params"
cat > "$work/conf/nginx.conf" <<CONF
daemon off;
pid $work/nginx.pid;
error_log $work/logs/error.log warn;
worker_processes 1;
events { worker_connections 64; }
http {
    include mime.types;
    access_log off;
    client_body_temp_path $work/run/body;
    proxy_temp_path $work/run/proxy;
    fastcgi_temp_path $work/run/fastcgi;
    uwsgi_temp_path $work/run/uwsgi;
    scgi_temp_path $work/run/scgi;
    server {
        listen 127.0.0.1:$port;
        root $work/site;
        include cvml.conf;
    }
}
CONF

"$nginx" -p "$work" -c "$work/conf/nginx.conf" < /dev/null > "$work/logs/stdout.log" 2>&1 &
nginx_pid=$!
if ! wait_for_port "$port" "$nginx_pid"; then
  echo "FAIL: nginx did not start:"; cat "$work/logs/stdout.log" "$work/logs/error.log" 2>/dev/null
  exit 1
fi
echo "nginx on 127.0.0.1:$port serving $work/site"
server_checks "http://127.0.0.1:$port" "$work/site"

# fcgiwrap passes what the program writes on standard error to its own.
if [ -s "$work/logs/fcgiwrap.log" ]; then
  fail "cvml (or fcgiwrap) wrote to standard error:"; head -n 40 "$work/logs/fcgiwrap.log"
fi
[ $failed -eq 0 ] && echo "all nginx checks passed"
exit $failed
