#!/usr/bin/env bash
# nginx with fastcgi_pass and the packaged snippet
# (packaging/nginx/cvml-fastcgi.conf) in front of two `cvml --listen`
# servers in one upstream, serving tests/system/deploy_site/: GET, POST,
# uploads, cookies, a redirect and an error report; both servers serve,
# and stopping one under load loses no request (the other takes them).
# Usage: fastcgi_nginx_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-fastcgi-nginx.XXXXXX")
source "$here/server_checks.sh"
source "$here/fastcgi_common.sh"
nginx=$(command -v nginx || echo /usr/sbin/nginx)
[ -x "$nginx" ] || { echo "FAIL: nginx is not installed (scripts/setup.sh test installs it)"; exit 1; }
cleanup() {
  local pid
  pid=$(cat "$work/nginx.pid" 2>/dev/null)
  [ -n "$pid" ] && kill "$pid" 2>/dev/null
  for _ in $(seq 1 50); do [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  fastcgi_cleanup
  rm -rf "$work"
}
trap cleanup EXIT
server_site "$work/site"
printf '<CVDEBUG type="off">ok\n' > "$work/site/ok.cvm"
printf '<CVDEBUG type="off"><CV-API function="sleep" value="150">slow\n' > "$work/site/slow.cvm"
chmod a+r "$work/site"/*.cvm
chmod 755 "$work"
sc_error_status=500

export CVML_UPLOAD_DIR=$work/site/uploads
start_server one --workers 2 --reports page || exit 1
start_server two --workers 2 --reports page || exit 1

mkdir "$work/conf" "$work/run" "$work/logs"
cp /etc/nginx/fastcgi_params /etc/nginx/mime.types "$work/conf/"
sed -e "s#fastcgi_pass 127.0.0.1:9000;#fastcgi_pass cvml;#" \
  "$here/../../packaging/nginx/cvml-fastcgi.conf" > "$work/conf/cvml-fastcgi.conf"
grep -q 'fastcgi_pass cvml;' "$work/conf/cvml-fastcgi.conf" || { echo "FAIL: the snippet has no fastcgi_pass"; exit 1; }
# A port free when chosen may be taken before nginx binds it (tests run in
# parallel): then another is tried.
for attempt in 1 2 3 4 5; do
port=$(free_port)
cat > "$work/conf/nginx.conf" <<CONF
daemon off;
pid $work/nginx.pid;
error_log $work/logs/error.log warn;
worker_processes 1;
events { worker_connections 256; }
http {
    include mime.types;
    access_log off;
    client_body_temp_path $work/run/body;
    proxy_temp_path $work/run/proxy;
    fastcgi_temp_path $work/run/fastcgi;
    uwsgi_temp_path $work/run/uwsgi;
    scgi_temp_path $work/run/scgi;
    upstream cvml {
        server 127.0.0.1:$one_port;
        server 127.0.0.1:$two_port;
    }
    server {
        listen 127.0.0.1:$port;
        root $work/site;
        add_header X-Upstream \$upstream_addr always;
        include cvml-fastcgi.conf;
    }
}
CONF
"$nginx" -p "$work" -c "$work/conf/nginx.conf" < /dev/null > "$work/logs/stdout.log" 2>&1 &
nginx_pid=$!
if wait_for_port "$port" "$nginx_pid"; then break; fi
if [ $attempt = 5 ] || ! grep -q 'Address already in use' "$work/logs/stdout.log" "$work/logs/error.log" 2>/dev/null; then
  echo "FAIL: nginx did not start:"; cat "$work/logs/stdout.log" "$work/logs/error.log" 2>/dev/null
  exit 1
fi
wait "$nginx_pid" 2>/dev/null
: > "$work/logs/error.log"
done
base=http://127.0.0.1:$port
echo "nginx on 127.0.0.1:$port, cvml on ports $one_port and $two_port"
server_checks "$base" "$work/site"

# Both servers take requests.
for _ in $(seq 1 20); do
  curl -s -o /dev/null -D - "$base/ok.cvm" | tr -d '\r' | sed -n 's/^X-Upstream: //p'
done | sort | uniq -c > "$work/spread"
if grep -q ":$one_port\$" "$work/spread" && grep -q ":$two_port\$" "$work/spread"; then
  pass "both servers serve: $(tr -s ' \n' ' ' < "$work/spread")"
else
  fail "the requests went to: $(cat "$work/spread")"
fi

# Four clients, each 40 requests (fast and slow pages), while the first
# server stops halfway: every request must succeed.
load() {
  local i
  for i in $(seq 1 40); do
    page=ok.cvm
    [ $((i % 3)) = 0 ] && page=slow.cvm
    curl -s -o /dev/null -w '%{http_code}\n' --max-time 20 "$base/$page"
  done > "$work/load.$1"
}
loaders=()
for c in 1 2 3 4; do load "$c" & loaders+=($!); done
sleep 1
kill -TERM "$one_pid"
wait "${loaders[@]}"
for _ in $(seq 1 50); do kill -0 "$one_pid" 2>/dev/null || break; sleep 0.1; done
codes=$(cat "$work"/load.* | sort | uniq -c | tr -s ' \n' ' ')
if [ "$(cat "$work"/load.* | wc -l)" = 160 ] && [ "$(grep -cx 200 "$work"/load.* | awk -F: '{s+=$2} END {print s}')" = 160 ]; then
  pass "160 requests while one server stopped: all answered 200"
else
  fail "while one server stopped the answers were: $codes"
fi
kill -0 "$one_pid" 2>/dev/null && fail "the stopped server is still running" || pass "the stopped server ended"
after=$(curl -s -o /dev/null -D - "$base/ok.cvm" | tr -d '\r' | sed -n 's/^X-Upstream: //p')
[ "$after" = "127.0.0.1:$two_port" ] && pass "the other server takes the requests alone" ||
  fail "after the stop a request went to '$after'"

if grep -v 'serving FastCGI\|SIGTERM\|cvml\[[0-9]*\]: stopped' "$work/one.log" "$work/two.log" | grep -q .; then
  fail "the servers logged:"; cat "$work/one.log" "$work/two.log" | head -n 20
fi
[ $failed -eq 0 ] && echo "all nginx FastCGI checks passed"
exit $failed
