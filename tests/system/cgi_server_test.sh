#!/usr/bin/env bash
# Serves tests/system/site/ through a real lighttpd with cvml as its CGI
# program and checks with curl what a browser would receive: request
# variables from the query string, a form and cookies, response headers,
# redirects, content types, error reports and the time-out of a page that
# never ends.  Usage: cgi_server_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=${1:?usage: $0 path/to/cvml}
# shellcheck source=../../scripts/lighttpd.sh
source "$here/../../scripts/lighttpd.sh"

work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-system.XXXXXX")
trap 'lighttpd_stop; rm -rf "$work"' EXIT
site=$work/site
cp -R "$here/site" "$site"

# A short CGI time-out keeps the never-ending page check quick.
export LIGHTTPD_CGI_TIMEOUT=2
lighttpd_start "$site" "$cvml" || { echo "FAIL: lighttpd did not start"; exit 1; }
base=http://127.0.0.1:$LIGHTTPD_PORT
echo "lighttpd on $base serving $site"

failed=0
pass() { echo "PASS: $1"; }
fail() { echo "FAIL: $1"; failed=1; }

# fetch NAME [curl args...]: stores the response headers (CR removed) in
# $work/NAME.head and the body in $work/NAME.body.
fetch() {
  local name=$1; shift
  curl -s --max-time 20 -D "$work/$name.rawhead" -o "$work/$name.body" "$@"
  tr -d '\r' < "$work/$name.rawhead" > "$work/$name.head"
}
status_of() { head -n 1 "$work/$1.head" | cut -d' ' -f2; }
header_of() { grep -i "^$2:" "$work/$1.head" | head -n 1 | cut -d' ' -f2-; }

# check_body NAME EXPECTED DESCRIPTION: exact body comparison.
check_body() {
  if [ "$(cat "$work/$1.body"; echo .)" = "$2." ]; then
    pass "$3"
  else
    fail "$3: body was:"
    cat -A "$work/$1.body" | head -n 20
  fi
}

fetch index "$base/"
check_body index $'It works.\n' "index.cvm answers for the site root"

fetch get "$base/get.cvm?name=Ada+Lovelace%21&x=1"
check_body get $'name=[Ada Lovelace!]\n' "query string reaches HTTPGET"
if [ "$(status_of get)" = 200 ] && [ "$(header_of get Content-Type)" = text/html ]; then
  pass "ordinary page is 200 text/html"
else
  fail "ordinary page status/type: $(status_of get) $(header_of get Content-Type)"
fi

fetch post --data 'other=2&field=x%3Dy+z' "$base/post.cvm"
check_body post $'field=[x=y z]\n' "form POST body reaches HTTPPOST"

fetch cookie -b 'd=2; c=chocolate chip' "$base/cookie.cvm"
check_body cookie $'c=[chocolate chip]\n' "cookie reaches HTTPCOOKIE"

fetch setcookie "$base/setcookie.cvm"
if grep -qx 'Set-Cookie: sid=a%20b' "$work/setcookie.head"; then
  pass "CVHEADER cookie sends Set-Cookie: sid=a%20b"
else
  fail "no 'Set-Cookie: sid=a%20b' header; headers were:"
  cat "$work/setcookie.head"
fi
check_body setcookie $'cookie set\n' "page with a cookie keeps its body"

# The engine makes a relative target absolute with the server name (and, on
# this port, the port); lighttpd answers a CGI Location header with a 302.
fetch redirect "$base/sub/redirect.cvm"
if [ "$(status_of redirect)" = 302 ] &&
   [ "$(header_of redirect Location)" = "$base/sub/other.cvm" ]; then
  pass "CVLOCATION redirects (302) to $base/sub/other.cvm"
else
  fail "redirect: status $(status_of redirect), Location '$(header_of redirect Location)'"
fi
fetch followed -L "$base/sub/redirect.cvm"
check_body followed $'other page\n' "following the redirect reaches other.cvm"

fetch plain "$base/plain.cvm"
if [ "$(header_of plain Content-Type)" = text/plain ]; then
  pass "CVHEADER content-type reaches the client as text/plain"
else
  fail "Content-Type was '$(header_of plain Content-Type)'"
fi
check_body plain $'\n' "content-type change drops the page text around it"

fetch error "$base/error.cvm"
# The report names the page by its full path; compare with it masked, in
# either separator style.
report=$(cat "$work/error.body"; echo .)
report=${report%.}
report=${report//"$site/error.cvm"/@PAGE@}
backslashed=${site//\//\\}
report=${report//"$backslashed\\error.cvm"/@PAGE@}
printf '%s' "$report" > "$work/error.masked"
if cmp -s "$work/error.masked" "$here/cgi_server_error.out"; then
  pass "error report is appended to the body, wrapped for HTML"
else
  fail "error report differs from cgi_server_error.out:"
  diff -u "$here/cgi_server_error.out" "$work/error.masked" | cat -A | head -n 40
fi

start=$(date +%s)
fetch forever "$base/forever.cvm"
took=$(( $(date +%s) - start ))
if [ "$(status_of forever)" = 504 ] && [ $took -lt 15 ]; then
  pass "a page that never ends is stopped by the CGI time-out (504 after ${took}s)"
else
  fail "never-ending page: status '$(status_of forever)' after ${took}s"
fi

# Anything a page wrote to standard error (sanitizer reports included).
if [ -s "$LIGHTTPD_DIR/cgi-stderr.log" ]; then
  fail "pages wrote to standard error:"
  head -n 60 "$LIGHTTPD_DIR/cgi-stderr.log"
else
  pass "no page wrote to standard error"
fi

[ $failed -eq 0 ] && echo "all CGI server checks passed"
exit $failed
