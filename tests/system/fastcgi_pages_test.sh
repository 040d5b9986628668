#!/usr/bin/env bash
# Every page case of tests/pages, run through one FastCGI worker (forwards,
# then backwards) and as a CGI process: the responses must be the same, so
# no request sees anything an earlier one left in the worker.
# Usage: fastcgi_pages_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-fastcgi-pages.XXXXXX")
source "$here/fastcgi_common.sh"
trap 'fastcgi_cleanup; rm -rf "$work"' EXIT
command -v python3 > /dev/null || { echo "FAIL: python3 is not installed"; exit 1; }

# The server's own environment as the page tests give it to the program;
# the request parameters carry the rest.
export PATH=/usr/bin:/bin
start_server pages --workers 1 --reports page --max-time 20 || exit 1
python3 "$here/fastcgi_pages.py" "$cvml" "127.0.0.1:$pages_port" "$here/../pages" || failed=1
if grep -v 'serving FastCGI\|SIGTERM\|stopped' "$work/pages.log" | grep -q .; then
  fail "the server logged:"; head -n 20 "$work/pages.log"
fi
[ $failed -eq 0 ] && echo "every page case answers through FastCGI as it does through CGI"
exit $failed
