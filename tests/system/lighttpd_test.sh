#!/usr/bin/env bash
# A stock lighttpd with the packaged snippet (packaging/lighttpd/10-cvml.conf:
# mod_cgi and cgi.assign, no wrapper) serving tests/system/deploy_site/.
# Usage: lighttpd_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
source "$here/server_checks.sh"
command -v lighttpd >/dev/null || { echo "FAIL: lighttpd is not installed (scripts/setup.sh test installs it)"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-lighttpd.XXXXXX")
pid=
trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null; rm -rf "$work"' EXIT
server_site "$work/site"
port=$(free_port)

# The snippet as installed, with this build's program in place of /usr/bin/cvml.
sed "s#/usr/bin/cvml#$cvml#" "$here/../../packaging/lighttpd/10-cvml.conf" > "$work/10-cvml.conf"
# What an administrator writes, plus the test's own environment for the
# pages (sanitizer settings, the upload directory).
env_lines="\"CVML_UPLOAD_DIR\" => \"$work/site/uploads\""
for var in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
  [ -n "${!var:-}" ] && env_lines+=", \"$var\" => \"${!var}\""
done
cat > "$work/lighttpd.conf" <<CONF
server.document-root = "$work/site"
server.bind = "127.0.0.1"
server.port = $port
server.errorlog = "$work/error.log"
server.breakagelog = "$work/cgi-stderr.log"
server.modules = ( "mod_setenv" )
mimetype.assign = ( ".txt" => "text/plain", ".html" => "text/html" )
include "$work/10-cvml.conf"
setenv.add-environment = ( $env_lines )
CONF

lighttpd -D -f "$work/lighttpd.conf" < /dev/null > "$work/stdout.log" 2>&1 &
pid=$!
if ! wait_for_port "$port" "$pid"; then
  echo "FAIL: lighttpd did not start:"; cat "$work/stdout.log" "$work/error.log" 2>/dev/null
  exit 1
fi
echo "lighttpd on 127.0.0.1:$port serving $work/site"
server_checks "http://127.0.0.1:$port" "$work/site"

if [ -s "$work/cgi-stderr.log" ]; then
  fail "cvml wrote to standard error:"; head -n 40 "$work/cgi-stderr.log"
fi
[ $failed -eq 0 ] && echo "all lighttpd checks passed"
exit $failed
