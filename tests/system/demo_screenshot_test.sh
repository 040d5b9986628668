#!/usr/bin/env bash
# Headless Chromium takes a screenshot of every demo page served by lighttpd
# and the test fails on a blank or broken page: a PNG of one colour (or of
# almost nothing but its background), or a page with an error report other
# than the error demo's.  DEMO_SCREENSHOTS=DIR keeps the pictures there.
# Usage: demo_screenshot_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=${1:?usage: $0 path/to/cvml}
site=$(cd "$here/../../examples" && pwd)
command -v chromium >/dev/null || { echo "FAIL: chromium is not installed (scripts/setup.sh test installs it)"; exit 1; }
command -v python3 >/dev/null || { echo "FAIL: python3 is not installed (scripts/setup.sh test installs it)"; exit 1; }
# shellcheck source=../../scripts/lighttpd.sh
source "$here/../../scripts/lighttpd.sh"

work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-screens.XXXXXX")
trap 'lighttpd_stop; rm -rf "$work"' EXIT
export LIGHTTPD_CGI_TIMEOUT=20
"$here/../../scripts/demo_database.sh" "$work/db" || { echo "FAIL: demo database not made"; exit 1; }
export ODBCSYSINI=$work/db ODBCINI=$work/db/odbc.ini
lighttpd_start "$site" "$cvml" || { echo "FAIL: lighttpd did not start"; exit 1; }
base=http://127.0.0.1:$LIGHTTPD_PORT
echo "lighttpd on $base serving $site"

failed=0
pass() { echo "PASS: $1"; }
fail() { echo "FAIL: $1"; failed=1; }

pages=(index.cvm variables.cvm request.cvm?colour=green form.cvm redirect.cvm planets.cvm?page=2 functions.cvm
       web.cvm error.cvm source.cvm?page=form.cvm)

# shoot SLOT PAGE: a screenshot of PAGE, judged; one result line in
# $work/NAME.result.  Each of the two slots has its own fresh profile (and
# half-size pictures keep the check quick).
shoot() {
  local slot=$1 page=$2 name png start ms picture
  name=${page%%\?*}
  name=${name%.cvm}
  png=$work/$name.png
  start=$(date +%s%N)
  timeout 60 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
    --disable-background-networking --disable-component-update --disable-sync \
    --user-data-dir="$work/profile-$slot" --hide-scrollbars --window-size=1000,1400 \
    --force-device-scale-factor=0.5 --screenshot="$png" "$base/$page" > "$work/$name.log" 2>&1
  ms=$(( ($(date +%s%N) - start) / 1000000 ))
  if [ ! -s "$png" ]; then
    echo "FAIL: $page: no screenshot: $(tail -n 3 "$work/$name.log" | tr '\n' ' ')"
  elif ! picture=$(python3 "$here/png_check.py" "$png"); then
    echo "FAIL: $page: the screenshot is blank ($picture)"
  elif curl -s --max-time 20 -o "$work/$name.html" "$base/$page" &&
       [ "$name" != error ] && grep -q 'Error in &quot;' "$work/$name.html"; then
    echo "FAIL: $page: the page shows an error report: $(sed -n '/^<hr>$/,$p' "$work/$name.html" | sed -n 4p)"
  else
    echo "PASS: $page: $picture (${ms}ms)"
  fi > "$work/$name.result"
}

# Two browsers at a time, each working through every other page.
slots=()
for slot in 0 1; do
  (
    for ((i = slot; i < ${#pages[@]}; i += 2)); do shoot "$slot" "${pages[i]}"; done
  ) &
  slots+=($!)
done
wait "${slots[@]}"  # not lighttpd, which runs until the end
for page in "${pages[@]}"; do
  name=${page%%\?*}
  name=${name%.cvm}
  cat "$work/$name.result" 2>/dev/null || echo "FAIL: $page: no result"
done | tee "$work/results"
grep -q '^FAIL' "$work/results" && failed=1
if [ -n "${DEMO_SCREENSHOTS:-}" ]; then
  mkdir -p "$DEMO_SCREENSHOTS" && cp "$work"/*.png "$DEMO_SCREENSHOTS/"
fi
if [ -s "$LIGHTTPD_DIR/cgi-stderr.log" ]; then
  fail "cvml wrote to standard error:"; head -n 20 "$LIGHTTPD_DIR/cgi-stderr.log"
fi
[ $failed -eq 0 ] && echo "all demo screenshots show a page"
exit $failed
