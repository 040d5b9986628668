#!/usr/bin/env bash
# Requests that go wrong, each followed by one that must be answered: a page
# past its time limit (between tags, and inside a tag that blocks), a page
# past its memory, a client that goes away mid-response, malformed FastCGI
# records, oversized and overflowing parameters, a request without
# DOCUMENT_ROOT; and the Status lines a FastCGI server needs.
# Usage: fastcgi_faults_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-fastcgi-faults.XXXXXX")
source "$here/fastcgi_common.sh"
trap 'fastcgi_cleanup; rm -rf "$work"' EXIT
command -v python3 > /dev/null || { echo "FAIL: python3 is not installed"; exit 1; }

site=$work/site
mkdir -p "$site"
printf '<CVDEBUG type="off">ok\n' > "$site/ok.cvm"
printf '<CVVAR var="i" value="0"><CVWHILE condition="1 == 1"><CVVAR var="i" value="<i> + 1"></CVWHILE>never\n' \
  > "$site/loop.cvm"
printf 'before<CV-API function="sleep" value="30000">after\n' > "$site/sleep.cvm"
printf '<CVVAR var="l element=[1000000][1000000][1000000]" value="1">never\n' > "$site/memory.cvm"
printf '<CVDEBUG type="off"><CVVAR var="i" value="0"><CVWHILE condition="<i> < 20000"><CVVAR var="i" value="<i> + 1">line <i> of the long response, written so that it does not fit in one buffer\n</CVWHILE>\n' \
  > "$site/long.cvm"
printf '<CVDEBUG type="off"><CVLOCATION location="other.cvm?x=1">\n' > "$site/away.cvm"
printf '<CVDEBUG type="off">size=<CGI hash="BIG" getsize>\n' > "$site/big.cvm"

# 2 s of wall time per request.
start_server faults --workers 1 --max-time 2 --reports page || exit 1
wait_for_workers "$faults_pid" 1 || { fail "no worker"; exit 1; }
addr=127.0.0.1:$faults_port
ask() { fcgi request "$addr" $(request_env "$site" "$1") "${@:2}"; }
served() {
  local out
  out=$(ask ok.cvm | tail -n 1)
  [ "$out" = ok ] && pass "then the next request is served ($1)" || fail "after $1 the next request got '$out'"
}
worker=$(workers_of "$faults_pid")

out=$(ask loop.cvm)
if [ "$(head -n 1 <<< "$out")" = "Status: 500 Internal Server Error" ] &&
   grep -q 'The request ran longer than its time limit of 2 seconds (--max-time).' <<< "$out"; then
  pass "a page that loops for ever ends at its time limit with a report and a 500"
else
  fail "the looping page answered:"; head -c 800 <<< "$out"
fi
served "the time limit"
[ "$(workers_of "$faults_pid")" = "$worker" ] && pass "the worker carried on after the time limit" ||
  fail "the worker was replaced after a page past its time limit"

start=$(date +%s%N)
out=$(ask sleep.cvm)
took=$(( ($(date +%s%N) - start) / 1000000 ))
if [ "$(head -n 1 <<< "$out")" = "Status: 500 Internal Server Error" ] &&
   grep -q 'ran longer than its time limit of 2 s' <<< "$out" && [ "$took" -lt 8000 ]; then
  pass "a tag that blocks past the time limit gets a 500 after ${took} ms"
else
  fail "the blocking page answered after $took ms:"; head -c 800 <<< "$out"
fi
grep -q 'a tag still running past --max-time' "$work/faults.log" && pass "the blocked request is in the log" ||
  fail "the log does not name the blocked request"
wait_for_workers "$faults_pid" 1
served "a blocked tag"

# A run may hold 16 MB; a page that builds lists of a million elements
# inside lists of a million goes past it.
start_server memory --workers 1 --max-time 30 --max-memory 16M --reports page || exit 1
wait_for_workers "$memory_pid" 1 || { fail "no worker"; exit 1; }
out=$(fcgi request "127.0.0.1:$memory_port" $(request_env "$site" memory.cvm))
if [ "$(head -n 1 <<< "$out")" = "Status: 500 Internal Server Error" ]; then
  pass "a page that takes memory without end gets a 500"
else
  fail "the memory page answered:"; head -c 800 <<< "$out"
fi
wait_for_workers "$memory_pid" 1
out=$(fcgi request "127.0.0.1:$memory_port" $(request_env "$site" ok.cvm) | tail -n 1)
[ "$out" = ok ] && pass "then the next request is served (running out of memory)" ||
  fail "after running out of memory the next request got '$out'"
worker=$(workers_of "$memory_pid")
if [ "$(grep VmRSS "/proc/$worker/status" | awk '{print $2}')" -lt 65536 ]; then
  pass "the worker that serves now holds less than 64 MB"
else
  fail "the worker holds $(grep VmRSS "/proc/$worker/status")"
fi

fcgi cut "$addr" $(request_env "$site" long.cvm)
served "a client that went away mid-response"

# Records no web server sends.  The worker survives each of them.
worker=$(workers_of "$faults_pid")
begin="\\x01\\x01\\x00\\x01\\x00\\x08\\x00\\x00\\x00\\x01\\x00\\x00\\x00\\x00\\x00\\x00"
for record in \
    "b'GET / HTTP/1.1\\r\\nHost: x\\r\\n\\r\\n'" \
    "b'\\x01\\x04\\x00\\x01\\x00\\x04\\x00\\x00\\x01\\x01ab'" \
    "b'\\x01\\x01\\x00\\x01\\x00\\x08\\x00\\x00\\x00\\x09\\x00\\x00\\x00\\x00\\x00\\x00'" \
    "b'\\x09\\x01\\x00\\x01\\x00\\x08\\x00\\x00\\x00\\x01\\x00\\x00\\x00\\x00\\x00\\x00'" \
    "b'$begin\\x01\\x04\\x00\\x01\\x00\\x08\\x00\\x00\\xff\\xff\\xff\\xf0\\xff\\xff\\xff\\xf0'" \
    "b'$begin\\x01\\x04\\x00\\x01\\x00\\x08\\x00\\x00\\x8f\\xff\\xff\\xff\\x01\\x00\\x00\\x00'" \
    "b'$begin\\x01\\x04\\x00\\x01\\xff\\xff\\x00\\x00\\x05\\x05'" \
    "b'$begin\\x01\\x05\\x00\\x07\\x00\\x02\\x00\\x00hi'" \
    "b'\\x01\\x01\\x00'"; do
  fcgi raw "$addr" "$record" --wait 5 > /dev/null
  out=$(ask ok.cvm | tail -n 1)
  [ "$out" = ok ] || fail "after the records $record the next request got '$out'"
done
[ "$(workers_of "$faults_pid")" = "$worker" ] && pass "malformed records end their connection, not the worker" ||
  fail "a malformed record ended the worker: $(tail -n 5 "$work/faults.log")"

head -c 1000000 /dev/zero | tr '\0' 'x' > "$work/big.txt"
out=$(ask big.cvm --param-file BIG "$work/big.txt" | tail -n 1)
[ "$out" = "size=1000000" ] && pass "a parameter of 1 MB reaches the page" || fail "the 1 MB parameter gave '$out'"
many=()
for i in $(seq 1 5000); do many+=("P$i=$i"); done
out=$(ask ok.cvm "${many[@]}" | tail -n 1)
[ "$out" = ok ] && pass "5,000 parameters are taken" || fail "5,000 parameters gave '$out'"

out=$(fcgi request "$addr" "SCRIPT_FILENAME=$site/ok.cvm" "REQUEST_METHOD=GET")
if [ "$(head -n 1 <<< "$out")" = "Status: 500 Internal Server Error" ] && grep -q 'no DOCUMENT_ROOT' <<< "$out"; then
  pass "a request without DOCUMENT_ROOT gets a 500 that says so"
else
  fail "without DOCUMENT_ROOT: $out"
fi
out=$(fcgi request "$addr" "DOCUMENT_ROOT=$site" "SCRIPT_FILENAME=/etc/passwd")
if [ "$(head -n 2 <<< "$out")" = $'Status: 500 Internal Server Error\nContent-Type: text/plain' ] &&
   grep -q 'Expecting PATH_TRANSLATED to contain DOCUMENT_ROOT' <<< "$out"; then
  pass "a page outside the web root is refused with a 500"
else
  fail "a page outside the web root: $out"
fi
out=$(fcgi request "$addr" "DOCUMENT_ROOT=$site" "SCRIPT_FILENAME=$site/away.cvm" "SERVER_NAME=www.example.com")
if [ "$(head -n 2 <<< "$out")" = $'Status: 302 Found\nLocation: http://www.example.com/other.cvm?x=1' ]; then
  pass "a redirect carries Status: 302"
else
  fail "the redirect answered: $out"
fi
out=$(ask ok.cvm)
[ "$(head -n 1 <<< "$out")" = "Content-type: text/html" ] && pass "a page that succeeds carries no Status line" ||
  fail "a good page answered: $out"

# (A sanitizer build also warns of the allocation it refused.)
if grep -v 'serving FastCGI\|past --max-time\|cannot take\|Malloc: Assertion\|without DOCUMENT_ROOT\|AddressSanitizer failed to allocate' \
     "$work/faults.log" | grep -q .; then
  fail "the server logged more:"; head -n 20 "$work/faults.log"
fi
[ $failed -eq 0 ] && echo "every fault ended its own request only"
exit $failed
