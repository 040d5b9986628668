#!/usr/bin/env bash
# Serves the demo site in examples/ through lighttpd and walks every page with
# curl the way a visitor would: each page answers 200 with the shared header,
# footer and view-source link and its own content; query strings, cookies,
# the upload form, the redirect, the paged table, the web service and the
# source viewer work; the error page shows its report after its footer.
# Usage: demo_site_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=${1:?usage: $0 path/to/cvml}
site=$(cd "$here/../../examples" && pwd)
# shellcheck source=../../scripts/lighttpd.sh
source "$here/../../scripts/lighttpd.sh"

work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-demo.XXXXXX")
trap 'lighttpd_stop; rm -rf "$work"' EXIT

export LIGHTTPD_CGI_TIMEOUT=10
# The database page's data source, made for this run.
"$here/../../scripts/demo_database.sh" "$work/db" || { echo "FAIL: demo database not made"; exit 1; }
export ODBCSYSINI=$work/db ODBCINI=$work/db/odbc.ini
lighttpd_start "$site" "$cvml" || { echo "FAIL: lighttpd did not start"; exit 1; }
base=http://127.0.0.1:$LIGHTTPD_PORT
echo "lighttpd on $base serving $site"

failed=0
pass() { echo "PASS: $1"; }
fail() { echo "FAIL: $1"; failed=1; }

# fetch NAME PATH [curl args...]: body in $work/NAME.body, status in $work/NAME.status.
fetch() {
  local name=$1 path=$2
  shift 2
  curl -s --max-time 20 -o "$work/$name.body" -w '%{http_code}' "$@" "$base/$path" > "$work/$name.status"
}
has() { grep -qF -- "$2" "$work/$1.body"; }

# check_page NAME DESCRIPTION MARKER...: status 200, the shared header and
# footer with the page's view-source link, no error report, and every marker.
check_page() {
  local name=$1 what=$2 marker ok=1
  shift 2
  [ "$(cat "$work/$name.status")" = 200 ] || { fail "$what: status $(cat "$work/$name.status")"; ok=0; }
  has "$name" '<a class="site" href="index.cvm">CVML demo site</a>' || { fail "$what: shared header missing"; ok=0; }
  has "$name" 'View the source of this page' || { fail "$what: shared footer missing"; ok=0; }
  has "$name" 'Error in' && { fail "$what: unexpected error report"; ok=0; }
  for marker in "$@"; do
    has "$name" "$marker" || { fail "$what: no \"$marker\""; ok=0; }
  done
  if [ $ok = 1 ]; then
    pass "$what"
  else
    head -c 3000 "$work/$name.body"
    echo
  fi
}

fetch root ""
check_page root "site root serves index.cvm" "Welcome to the CVML demo site" 'href="source.cvm?page=index.cvm"'
for page in variables request form redirect planets functions web error; do
  has root "href=\"$page.cvm\"" || fail "index does not link $page.cvm"
done

fetch variables variables.cvm
check_page variables "variables page builds a table and a list with loops" \
  '<tr class="even"><td class="number">66</td><td>B</td><td>b</td></tr>' '<li>Earth</li>' 'The list holds 3 names.'

fetch request_get "request.cvm?colour=green&size=large"
check_page request_get "request page lists the query string" '<tr><td>colour</td><td>green</td></tr>' \
  '<tr><td>size</td><td>large</td></tr>' 'The browser sent no cookies'
fetch request_set "request.cvm?remember=Ada+%3Cb%3E" -c "$work/jar" -D "$work/request_set.head"
grep -qi '^Set-Cookie: demo_name=Ada%20%3Cb%3E' "$work/request_set.head" && pass "request page sets a cookie" ||
  fail "request page sent no demo_name cookie"
fetch request_back request.cvm -b "$work/jar"
check_page request_back "the cookie comes back, decoded and escaped" '<code>demo_name</code> is "Ada &lt;b&gt;"'

fetch form_get form.cvm
check_page form_get "form page before posting" 'enctype="multipart/form-data"' "Nothing posted yet"
printf 'hello upload\n' > "$work/note.txt"
fetch form_post form.cvm --form-string 'name=<b>Ada</b>' -F colour=green -F "file=@$work/note.txt;type=text/plain"
check_page form_post "form posts a file back to itself" "<h2>Received</h2>" "<td>&lt;b&gt;Ada&lt;/b&gt;</td>" \
  "<td>green</td>" "<td>note.txt</td>" "<td>text/plain</td>" "<td>13 bytes</td>"
fetch form_nofile form.cvm -F name=Ada -F colour=red -F 'file=@/dev/null;filename='
check_page form_nofile "form without a file" "<td>Ada</td>" "No file was chosen."

fetch redirect_page redirect.cvm
check_page redirect_page "redirect page explains itself" 'href="redirect.cvm?go=1"'
location=$(curl -s -o /dev/null -w '%{redirect_url}' "$base/redirect.cvm?go=1")
[ "$location" = "$base/request.cvm?from=redirect" ] && pass "redirect.cvm?go=1 redirects to $location" ||
  fail "redirect went to '$location'"
fetch redirected "redirect.cvm?go=1" -L
check_page redirected "following the redirect reaches the request page" '<tr><td>from</td><td>redirect</td></tr>'

fetch planets planets.cvm
check_page planets "database page shows its first five rows" "Page 1 of 3 (13 bodies)" \
  '<tr><td>Jupiter</td><td class="number">95</td><td class="number">69911</td></tr>' 'href="planets.cvm?page=2"'
rows=$(grep -c '^<tr><td>' "$work/planets.body")
[ "$rows" = 5 ] && pass "five rows a page" || fail "planets page has $rows rows"
fetch planets3 "planets.cvm?page=3"
check_page planets3 "the last page holds the rest" "Page 3 of 3" '<tr><td>Ceres</td>' 'href="planets.cvm?page=2"'
fetch planets_bad "planets.cvm?page=2%3B+DROP+TABLE+planets"
check_page planets_bad "a page number that is not a number shows page 1" "Page 1 of 3"

fetch functions functions.cvm
check_page functions "functions page" "HELLO, WIDE WORLD" "5d41402abc4b2a76b9719d911017c592" \
  "Thursday, 29 February 2024" "0.142857142857142857142857142857" "15511210043330985984000000"

fetch web web.cvm
check_page web "web service page calls service.cvm" "<td>HTTP/1.1 200 OK</td>" \
  '{&quot;city&quot;: &quot;Bergen&quot;, &quot;letters&quot;: 6'

fetch source "source.cvm?page=form.cvm"
check_page source "source viewer shows a page's source, escaped" "Source of <code>form.cvm</code>" \
  '&lt;CVINCLUDE file=&quot;header.inc&quot;&gt;'
fetch source_bad "source.cvm?page=..%2FREADME.md"
check_page source_bad "source viewer refuses other files" "Only the demo's own pages can be shown"

fetch error error.cvm
# The page, footer included, ends where the report begins.
sed '/^<hr>$/,$d' "$work/error.body" > "$work/error_page.body"
if [ "$(cat "$work/error.status")" = 200 ] && has error_page "A page with a mistake" &&
   has error_page "View the source of this page" && ! has error_page "This paragraph is never reached." &&
   has error "Error:  Error in &lt;CVFOR&gt;.  CVFOR requires the 'condition' option to be used." &&
   ! has error "Page Statistics:" && [ "$(grep -c 'Error in &quot;' "$work/error.body")" = 1 ]; then
  pass "error page shows its footer, then one error report without statistics"
else
  fail "error page"
  head -c 3000 "$work/error.body"
fi

if [ -s "$LIGHTTPD_DIR/cgi-stderr.log" ]; then
  fail "cvml wrote to standard error:"
  head -n 20 "$LIGHTTPD_DIR/cgi-stderr.log"
fi

[ $failed = 0 ] && echo "all demo site checks passed"
exit $failed
