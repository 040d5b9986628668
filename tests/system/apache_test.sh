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
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-apache.XXXXXX")
source "$here/apache_common.sh"
[ -x "$apache" ] && [ -f "$apache_modules/mod_actions.so" ] ||
  { echo "FAIL: apache2 is not installed (scripts/setup.sh test installs it)"; exit 1; }

stop() {
  apache_stop
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

pass_env=
for var in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
  [ -n "${!var:-}" ] && pass_env+="SetEnv $var ${!var}"$'\n'
done
apache_start "$port" "mpm_prefork authz_core mime dir alias actions cgi env" "$work/cvml.conf" \
  "SetEnv CVML_UPLOAD_DIR $work/site/uploads"$'\n'"$pass_env" || exit 1
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
