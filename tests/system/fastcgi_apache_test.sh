#!/usr/bin/env bash
# Apache 2.4 with mod_proxy_fcgi and the packaged snippet
# (packaging/apache2/cvml-fastcgi.conf) in front of `cvml --listen`,
# serving tests/system/deploy_site/: GET, POST, uploads, cookies, a
# redirect and an error report.
# Usage: fastcgi_apache_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-fastcgi-apache.XXXXXX")
source "$here/server_checks.sh"
source "$here/fastcgi_common.sh"
apache=$(command -v apache2 || echo /usr/sbin/apache2)
modules=/usr/lib/apache2/modules
[ -x "$apache" ] && [ -f "$modules/mod_proxy_fcgi.so" ] ||
  { echo "FAIL: apache2 with mod_proxy_fcgi is not installed (scripts/setup.sh test installs it)"; exit 1; }
cleanup() {
  local pid
  pid=$(cat "$work/httpd.pid" 2>/dev/null)
  if [ -n "$pid" ]; then
    kill "$pid" 2>/dev/null
    for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  fi
  fastcgi_cleanup
  rm -rf "$work"
}
trap cleanup EXIT
server_site "$work/site"
chmod 755 "$work"
sc_error_status=500

export CVML_UPLOAD_DIR=$work/site/uploads
start_server cvml --workers 2 --reports page || exit 1
port=$(free_port)
sed "s#127.0.0.1:9000#127.0.0.1:$cvml_port#" "$here/../../packaging/apache2/cvml-fastcgi.conf" > "$work/cvml-fastcgi.conf"
grep -q "fcgi://127.0.0.1:$cvml_port" "$work/cvml-fastcgi.conf" || { echo "FAIL: the snippet has no proxy:fcgi handler"; exit 1; }
user_lines=
[ "$(id -u)" = 0 ] && user_lines=$'User www-data\nGroup www-data'
cat > "$work/httpd.conf" <<CONF
ServerRoot "$work"
ServerName 127.0.0.1
Listen 127.0.0.1:$port
PidFile "$work/httpd.pid"
ErrorLog "$work/error.log"
LogLevel warn
$user_lines
LoadModule mpm_event_module $modules/mod_mpm_event.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule mime_module $modules/mod_mime.so
LoadModule dir_module $modules/mod_dir.so
LoadModule proxy_module $modules/mod_proxy.so
LoadModule proxy_fcgi_module $modules/mod_proxy_fcgi.so
TypesConfig /etc/mime.types
DocumentRoot "$work/site"
<Directory />
    Require all denied
</Directory>
<Directory "$work/site">
    Require all granted
</Directory>
Include "$work/cvml-fastcgi.conf"
CONF

"$apache" -f "$work/httpd.conf" -k start > "$work/start.log" 2>&1
for _ in $(seq 1 50); do [ -s "$work/httpd.pid" ] && break; sleep 0.1; done
if [ ! -s "$work/httpd.pid" ] || ! wait_for_port "$port" "$(cat "$work/httpd.pid")"; then
  echo "FAIL: apache2 did not start:"; cat "$work/start.log" "$work/error.log" 2>/dev/null
  exit 1
fi
echo "apache2 on 127.0.0.1:$port, cvml on $cvml_port"
server_checks "http://127.0.0.1:$port" "$work/site"

if grep -v 'serving FastCGI' "$work/cvml.log" | grep -q .; then fail "cvml logged:"; head "$work/cvml.log"; fi
if grep -q 'proxy' "$work/error.log"; then fail "Apache logged:"; grep 'proxy' "$work/error.log" | head; fi
[ $failed -eq 0 ] && echo "all Apache FastCGI checks passed"
exit $failed
