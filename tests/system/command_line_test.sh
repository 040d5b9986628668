#!/usr/bin/env bash
# The program's command line and the start-up rules that need the program's
# own path: --help, --version, --check (its findings, exit status and speed
# on a 10,000-line page), "--" before a page whose name begins with "--",
# unknown flags, arguments under a web server that are never flags, and a
# SCRIPT_FILENAME that names the program itself.
# Usage: command_line_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-cli.XXXXXX")
trap 'rm -rf "$work"' EXIT

failed=0
pass() { echo "PASS: $1"; }
fail() { echo "FAIL: $1"; failed=1; }
# run NAME [command...]: output in $work/NAME.out, status in $work/NAME.rc
run() {
  local name=$1; shift
  "$@" > "$work/$name.out" 2> "$work/$name.err"
  echo $? > "$work/$name.rc"
}
rc() { cat "$work/$1.rc"; }
has() { grep -qF -- "$2" "$work/$1.out"; }

run help "$cvml" --help
if [ "$(rc help)" = 0 ] && has help "Usage: cvml PAGE" && has help "--check PAGE..." && has help CVML_MAX_UPLOAD; then
  pass "--help prints the usage"
else
  fail "--help: status $(rc help)"; cat "$work/help.out"
fi

run version "$cvml" --version
if [ "$(rc version)" = 0 ] && grep -qx 'cvml [0-9][0-9.]*' "$work/version.out"; then
  pass "--version prints '$(cat "$work/version.out")'"
else
  fail "--version: status $(rc version): $(cat "$work/version.out")"
fi

run unknown "$cvml" --frobnicate
if [ "$(rc unknown)" = 2 ] && grep -q "unknown option --frobnicate" "$work/unknown.err" && [ ! -s "$work/unknown.out" ]; then
  pass "an unknown flag is refused on standard error"
else
  fail "unknown flag: status $(rc unknown)"
fi

# "--" ends the flags: the page named "--help" runs.
mkdir "$work/site"
printf 'the page called --help ran\n' > "$work/site/--help"
(cd "$work/site" && run dashdash "$cvml" -- --help)
if [ "$(rc dashdash)" = 0 ] && has dashdash "the page called --help ran"; then
  pass "-- runs a page whose name begins with --"
else
  fail "-- then a page: $(cat "$work/dashdash.out")"
fi

# Under a web server the arguments are never flags (a query string without
# "=" reaches a CGI program as arguments): the page runs.
printf '<CVDEBUG type="off">page ran with argument <ARGV element="[1]">\n' > "$work/site/page.cvm"
run cgi_args env -i GATEWAY_INTERFACE=CGI/1.1 REQUEST_METHOD=GET DOCUMENT_ROOT="$work/site" \
  SCRIPT_FILENAME="$work/site/page.cvm" "$cvml" --help
if has cgi_args "page ran with argument --help" && ! has cgi_args "Usage:"; then
  pass "under a web server --help is an argument of the page"
else
  fail "CGI run with --help: $(cat "$work/cgi_args.out")"
fi
run cgi_check env -i REQUEST_METHOD=GET DOCUMENT_ROOT="$work/site" SCRIPT_FILENAME="$work/site/page.cvm" \
  "$cvml" --check /etc/passwd
if has cgi_check "page ran with argument --check" && ! has cgi_check "passwd"; then
  pass "under a web server --check runs no checker"
else
  fail "CGI run with --check: $(cat "$work/cgi_check.out")"
fi

# A server that runs cvml as an action handler (Apache's Action, fcgiwrap)
# names cvml itself in SCRIPT_FILENAME and the page in PATH_TRANSLATED.
ln -s "$cvml" "$work/cvml-link"
for program in "$cvml" "$work/cvml-link"; do
  run action env -i DOCUMENT_ROOT="$work/site" SCRIPT_FILENAME="$program" PATH_TRANSLATED="$work/site/page.cvm" "$cvml"
  if has action "page ran with argument"; then
    pass "SCRIPT_FILENAME naming the program ($program) leaves the page to PATH_TRANSLATED"
  else
    fail "SCRIPT_FILENAME=$program: $(cat "$work/action.out")"
  fi
done

# --check: findings as file:line: message, status 1; a clean page, status 0.
cat > "$work/site/bad.cvm" <<'PAGE'
<CVIF condition="1">
<CVVAR vaule="1">
<CVINCLUDE file="missing.inc">
PAGE
printf '<CVIF condition="<x> > 1">yes</CVIF>\n' > "$work/site/good.cvm"
(cd "$work/site" && run check "$cvml" --check bad.cvm good.cvm)
expected='bad.cvm:1: <CVIF> is never closed: no </CVIF> follows
bad.cvm:2: CVVAR has no option '"'"'vaule'"'"'
bad.cvm:2: CVVAR requires the '"'"'var'"'"' option
bad.cvm:3: CVINCLUDE file '"'"'missing.inc'"'"' does not exist (looked for '"$work"'/site/missing.inc)'
if [ "$(rc check)" = 1 ] && [ "$(cat "$work/check.out")" = "$expected" ]; then
  pass "--check reports file:line: message and exits 1"
else
  fail "--check: status $(rc check), output:"; cat "$work/check.out"
fi
(cd "$work/site" && run clean "$cvml" --check good.cvm)
if [ "$(rc clean)" = 0 ] && [ ! -s "$work/clean.out" ]; then
  pass "--check on a clean page prints nothing and exits 0"
else
  fail "--check clean: status $(rc clean): $(cat "$work/clean.out")"
fi
run missing "$cvml" --check "$work/site/nothing-here.cvm"
if [ "$(rc missing)" = 1 ] && has missing "nothing-here.cvm:0: cannot be read"; then
  pass "--check on a missing file reports it"
else
  fail "--check missing file: status $(rc missing): $(cat "$work/missing.out")"
fi
# With DOCUMENT_ROOT set (and no request), an include from "/" is looked
# for under it.
mkdir -p "$work/site/sub"
printf '<CVINCLUDE file="/top.inc"><CVINCLUDE file="/sub/none.inc">\n' > "$work/site/sub/inc.cvm"
printf 'x\n' > "$work/site/top.inc"
run rooted env DOCUMENT_ROOT="$work/site" "$cvml" --check "$work/site/sub/inc.cvm"
if [ "$(rc rooted)" = 1 ] && [ "$(cat "$work/rooted.out")" = "$work/site/sub/inc.cvm:1: CVINCLUDE file '/sub/none.inc' does not exist (looked for $work/site/sub/none.inc)" ]; then
  pass "--check looks for includes from / under DOCUMENT_ROOT"
else
  fail "--check under DOCUMENT_ROOT: status $(rc rooted):"; cat "$work/rooted.out"
fi

# The demo site is clean, but for its page with a deliberate mistake.
(cd "$here/../../examples" && run demo "$cvml" --check ./*.cvm ./*.inc)
if [ "$(rc demo)" = 1 ] && [ "$(cat "$work/demo.out")" = "./error.cvm:$(grep -n '<CVFOR' "$here/../../examples/error.cvm" | cut -d: -f1): CVFOR requires the 'condition' option" ]; then
  pass "--check finds only the deliberate mistake in the demo site"
else
  fail "--check on the demo site:"; cat "$work/demo.out"
fi

# Speed: a 10,000-line page with loops, conditions and functions on every
# few lines, checked within a second (an editor runs it on every save); a
# sanitizer build (ASAN_OPTIONS set by scripts/test.sh) gets five.
for ((i = 0; i < 1250; i++)); do
  printf '<CVFOR var="i%d" initial="1" condition="<i%d> <= 10">\n' $i $i
  printf '<CVIF condition="<i%d> %% 2 == 0"><tr class="even"><CVELSE><tr></CVIF>\n' $i
  printf '<td><ASCII element="[<i%d> + 64]"></td><td><CV-STR function="uppercase" var="s"></td>\n' $i
  printf '<CVVAR var="total" value="<total> + <i%d> * 2">\n' $i
  printf '<p>Ordinary text with <b>markup</b> and <a href="x.cvm?a=1">a link</a>.</p>\n'
  printf '<CV-MATH operation="round" value="3.14159" places="2">\n'
  printf '</CVFOR>\n\n'
done > "$work/big.cvm"
lines=$(wc -l < "$work/big.cvm")
limit=1000
[ -n "${ASAN_OPTIONS:-}" ] && limit=5000
# The processor time the check takes (user and system), which other work
# on the machine hardly changes, and the wall time for the record.
TIMEFORMAT='%3U %3S %3R'
{ time run big "$cvml" --check "$work/big.cvm"; } 2> "$work/big.time"
read -r user sys wall < "$work/big.time"
ms=$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%d", (u + s) * 1000 }')
if [ "$(rc big)" = 0 ] && [ "$lines" = 10000 ] && [ "$ms" -lt "$limit" ]; then
  pass "--check on a $lines-line page took ${ms}ms of processor time (${wall}s wall)"
else
  fail "--check on a $lines-line page: status $(rc big) in ${ms}ms of processor time (${wall}s wall)"
  head -5 "$work/big.out"
fi

[ $failed -eq 0 ] && echo "all command-line checks passed"
exit $failed
