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
source "$here/apache_common.sh"
[ -x "$apache" ] && [ -f "$apache_modules/mod_proxy_fcgi.so" ] ||
  { echo "FAIL: apache2 with mod_proxy_fcgi is not installed (scripts/setup.sh test installs it)"; exit 1; }
cleanup() {
  apache_stop
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
apache_start "$port" "mpm_event authz_core mime dir proxy proxy_fcgi" "$work/cvml-fastcgi.conf" || exit 1
echo "apache2 on 127.0.0.1:$port, cvml on $cvml_port"
server_checks "http://127.0.0.1:$port" "$work/site"

if grep -v 'serving FastCGI' "$work/cvml.log" | grep -q .; then fail "cvml logged:"; head "$work/cvml.log"; fi
if grep -q 'proxy' "$work/error.log"; then fail "Apache logged:"; grep 'proxy' "$work/error.log" | head; fi
[ $failed -eq 0 ] && echo "all Apache FastCGI checks passed"
exit $failed
