#!/usr/bin/env bash
# One FastCGI worker, requests interleaved: pages that set variables,
# cookies, headers, the content type, decimal mode and its precision, debug
# and output modes, open files and connections, end in an error, a redirect
# or binary output, each followed by a page that would print any of it;
# then descriptors and resident memory over 10,000 requests (from /proc).
# Usage: fastcgi_isolation_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-fastcgi-isolation.XXXXXX")
source "$here/fastcgi_common.sh"
trap 'fastcgi_cleanup; rm -rf "$work"' EXIT
command -v python3 > /dev/null || { echo "FAIL: python3 is not installed"; exit 1; }

site=$work/site
mkdir -p "$site/a" "$site/b"
peer="port=\"<CGI hash='PEER_PORT'>\""
cat > "$site/a/set.cvm" <<EOF
<CVVAR var="leaked" value="from the setter"><CVVAR var="h" value="x">
<CVHEADER type="cookie" name="sid" value="setter" encode="URL"><CVHEADER type="rawheader" name="X-Setter" value="1">
<CV-MATH operation="enable"><CV-MATH operation="setprecision" value="30">
<CVFILE filename="data.txt" openfile filevar="f"><CVFILE filename="data2.txt" openfile filevar="g">
<CVWEB socketvar="s" server="127.0.0.1" $peer><CVWEB socketvar="t" server="127.0.0.1" $peer>
<CVHEADER type="content-type" value="text/plain"><CVMLMODE type="off"><CVDEBUG type="off">
EOF
cat > "$site/a/fail.cvm" <<EOF
<CVVAR var="leaked" value="x"><CV-MATH operation="enable"><CVFILE filename="data.txt" openfile filevar="f">
<CVWEB socketvar="s" server="127.0.0.1" $peer><CVDEBUG type="error"><CVVAR value="1">
EOF
cat > "$site/a/away.cvm" <<EOF
<CVVAR var="leaked" value="x"><CVHEADER type="cookie" name="sid" value="away" encode="URL"><CVLOCATION location="elsewhere.cvm">
EOF
cat > "$site/a/binary.cvm" <<EOF
<CVDEBUG type="off"><CVMLMODE type="binary"><CVVAR var="b" value="1"><CVBINARY var="b"><CVFLUSH><CVRESTART><CVEXIT>
EOF
cat > "$site/b/show.cvm" <<EOF
leaked=<leaked> h=<h> <CVVAR var="q" value="1/3">q=<q>
<CVFILE filename="p.txt" openfile filevar="f">file=<f>
<CVWEB socketvar="s" server="127.0.0.1" $peer>socket=<s>
get=<HTTPGET> post=<HTTPPOST> cookie=<HTTPCOOKIE>
cgi=<CGI>
EOF

start_server iso --workers 1 --reports page || exit 1
wait_for_workers "$iso_pid" 1 || { fail "the server started no worker"; exit 1; }
worker=$(workers_of "$iso_pid")
python3 "$here/fastcgi_isolation.py" "127.0.0.1:$iso_port" "$site" "$worker" 10000 $sanitizer || failed=1
[ "$(workers_of "$iso_pid")" = "$worker" ] && pass "one worker served every request" ||
  fail "the worker was replaced: $(workers_of "$iso_pid")"
if grep -v 'serving FastCGI' "$work/iso.log" | grep -q .; then
  fail "the server logged:"; head -n 20 "$work/iso.log"
fi
[ $failed -eq 0 ] && echo "nothing of one request reached the next"
exit $failed
