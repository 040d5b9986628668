#!/usr/bin/env bash
# A stock Apache 2.4 (prefork, mod_cgi) with the packaged snippet
# (packaging/apache2/cvml.conf: an Action handler for .cvm) serving
# tests/system/deploy_site/.  Started by hand with its own configuration,
# pid and log files, on 127.0.0.1 and a free port.
# Usage: apache_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
source "$here/server_checks.sh"
apache=$(command -v apache2 || echo /usr/sbin/apache2)
modules=/usr/lib/apache2/modules
[ -x "$apache" ] && [ -f "$modules/mod_actions.so" ] ||
  { echo "FAIL: apache2 is not installed (scripts/setup.sh test installs it)"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-apache.XXXXXX")
stop() {
  local pid
  pid=$(cat "$work/httpd.pid" 2>/dev/null)
  if [ -n "$pid" ]; then
    kill "$pid" 2>/dev/null
    for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  fi
  rm -rf "$work"
}
trap stop EXIT
server_site "$work/site"
port=$(free_port)
# Apache's children drop to www-data when started as root: the program
# must be theirs to run.
cp "$cvml" "$work/cvml"
chmod 755 "$work" "$work/cvml"
sed "s#/usr/bin/cvml#$work/cvml#" "$here/../../packaging/apache2/cvml.conf" > "$work/cvml.conf"

user_lines=
[ "$(id -u)" = 0 ] && user_lines=$'User www-data\nGroup www-data'
pass_env=
for var in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
  [ -n "${!var:-}" ] && pass_env+="SetEnv $var ${!var}"$'\n'
done
cat > "$work/httpd.conf" <<CONF
ServerRoot "$work"
ServerName 127.0.0.1
Listen 127.0.0.1:$port
PidFile "$work/httpd.pid"
ErrorLog "$work/error.log"
LogLevel warn
$user_lines
LoadModule mpm_prefork_module $modules/mod_mpm_prefork.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule mime_module $modules/mod_mime.so
LoadModule dir_module $modules/mod_dir.so
LoadModule alias_module $modules/mod_alias.so
LoadModule actions_module $modules/mod_actions.so
LoadModule cgi_module $modules/mod_cgi.so
LoadModule env_module $modules/mod_env.so
TypesConfig /etc/mime.types
DocumentRoot "$work/site"
<Directory />
    Require all denied
</Directory>
<Directory "$work/site">
    Require all granted
</Directory>
Include "$work/cvml.conf"
SetEnv CVML_UPLOAD_DIR $work/site/uploads
$pass_env
CONF

"$apache" -f "$work/httpd.conf" -k start > "$work/start.log" 2>&1
for _ in $(seq 1 50); do [ -s "$work/httpd.pid" ] && break; sleep 0.1; done
if [ ! -s "$work/httpd.pid" ] || ! wait_for_port "$port" "$(cat "$work/httpd.pid")"; then
  echo "FAIL: apache2 did not start:"; cat "$work/start.log" "$work/error.log" 2>/dev/null
  exit 1
fi
echo "apache2 on 127.0.0.1:$port serving $work/site"
server_checks "http://127.0.0.1:$port" "$work/site"

# The program's own address runs pages only as their handler.
fetch_direct=$(curl -s -o /dev/null -w '%{http_code}' --max-time 20 "http://127.0.0.1:$port/cvml-bin/cvml/other.txt")
if [ "$fetch_direct" = 403 ]; then
  pass "a direct request for /cvml-bin/cvml/other.txt is refused (403)"
else
  fail "/cvml-bin/cvml/other.txt answered $fetch_direct"
fi

# Apache logs what a CGI program prints on standard error as AH01215.
if grep -q 'AH01215' "$work/error.log"; then
  fail "cvml wrote to standard error:"; head -n 40 "$work/error.log"
fi
[ $failed -eq 0 ] && echo "all Apache checks passed"
exit $failed
