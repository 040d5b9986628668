#!/usr/bin/env bash
# Serves the demo site in examples/ through lighttpd and walks every page with
# curl the way a visitor would: each page answers 200 with the shared header
# and its own content, the form posts back to itself, and the error page shows
# its report.  Usage: demo_site_test.sh path/to/cvml
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
# footer, no error report, and every marker text present.
check_page() {
  local name=$1 what=$2 marker ok=1
  shift 2
  [ "$(cat "$work/$name.status")" = 200 ] || { fail "$what: status $(cat "$work/$name.status")"; ok=0; }
  has "$name" '<nav><a href="index.cvm">Home</a>' || { fail "$what: shared header missing"; ok=0; }
  has "$name" 'Every page includes header.inc and footer.inc.' || { fail "$what: shared footer missing"; ok=0; }
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
check_page root "site root serves index.cvm" "Welcome to the CVML demo site"

fetch index index.cvm
check_page index "index links to every page" 'href="form.cvm"' 'href="table.cvm"' 'href="planets.cvm"' 'href="error.cvm"'

fetch form_get form.cvm
check_page form_get "form page before posting" '<form method="post" action="form.cvm">' "Nothing posted yet"

fetch form_post form.cvm --data 'name=Ada+Lovelace&colour=green'
check_page form_post "form posts back and shows the values" "<h2>Received</h2>" \
  "<td>Ada Lovelace</td>" "<td>green</td>"
has form_post "Nothing posted yet" && fail "form after posting still shows the empty-form text"

# Posted markup comes back escaped, not as markup.
fetch form_markup form.cvm --data 'name=%3Cb%3Ebold%3C%2Fb%3E&colour=%22red%22'
check_page form_markup "posted markup is escaped" "<td>&lt;b&gt;bold&lt;/b&gt;</td>" "<td>&quot;red&quot;</td>"
has form_markup "<b>bold</b>" && fail "posted markup came back unescaped"

fetch table table.cvm
check_page table "table page builds the rows with a loop" "Letter table" '<tr class="even">' \
  "<td>A</td><td>a</td>" "<td>Z</td><td>z</td>"
rows=$(grep -c '<tr' "$work/table.body")
[ "$rows" = 27 ] && pass "table has a header row and 26 letter rows" || fail "table rows: $rows"

fetch planets planets.cvm
check_page planets "planets page lists the database rows" "<h1>Planets</h1>" \
  "<tr><td>Jupiter</td><td>95</td><td>69911</td></tr>" \
  "<tr><td>Mercury</td><td>0</td><td>2440</td></tr>" "6 planets, 3 columns."
rows=$(grep -c '^<tr><td>' "$work/planets.body")
order=$(grep -o '^<tr><td>[A-Za-z]*' "$work/planets.body" | sed 's/.*>//' | tr '\n' ' ')
[ "$rows" = 6 ] && [ "$order" = "Jupiter Saturn Earth Venus Mars Mercury " ] &&
  pass "planets come largest first, one row each" || fail "planet rows: $rows ($order)"

fetch error error.cvm
# The page itself ends where the reports begin; the report quotes the whole
# page, the paragraph after the mistake included.
sed '/^<hr>$/,$d' "$work/error.body" > "$work/error_page.body"
if [ "$(cat "$work/error.status")" = 200 ] && has error_page "A page with a mistake" &&
   ! has error_page "This paragraph is never reached." && has error "Page Statistics:" &&
   has error "Error:  Error in &lt;CVFOR&gt;.  CVFOR requires the 'condition' option to be used."; then
  pass "error page shows its report and stops"
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
