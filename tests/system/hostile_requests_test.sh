#!/usr/bin/env bash
# Requests an attacker would send, to pages that use request data the way
# pages do, under a real lighttpd running cvml as a CGI program: response
# splitting through every header a page can write, the nested-index query,
# huge and malformed query strings, cookies and POST bodies, NUL bytes,
# invalid percent escapes, path traversal, devices behind file names, and
# the log mode for reports.  Every response must have a clean status and
# clean headers, and every CGI process must stay under 256 MB of peak RSS
# (measured by /usr/bin/time around each run of cvml).
# Usage: hostile_requests_test.sh path/to/cvml
set -u

here=$(cd "$(dirname "$0")" && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
source "$here/../../scripts/lighttpd.sh"
command -v lighttpd >/dev/null || { echo "FAIL: lighttpd is not installed (scripts/setup.sh test installs it)"; exit 1; }
[ -x /usr/bin/time ] || { echo "FAIL: /usr/bin/time is not installed (scripts/setup.sh test installs it)"; exit 1; }
command -v curl >/dev/null || { echo "FAIL: curl is not installed"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-hostile.XXXXXX")
trap 'lighttpd_stop; rm -rf "$work"' EXIT
site=$work/site
mkdir -p "$site/log" "$site/sub"
failed=0
fail() { echo "FAIL: $*"; failed=1; }

# ---- the site ---------------------------------------------------------------
cat > "$site/location.cvm" <<'EOF'
<CVLOCATION location="<HTTPGET hash='to'>">
EOF
cat > "$site/headers.cvm" <<'EOF'
<CVHEADER type="rawheader" name="X-Name<HTTPGET hash='n'>" value="<HTTPGET hash='v'>"><CVHEADER type="cookie" name="<HTTPGET hash='n'>" value="<HTTPGET hash='v'>" encode="URL" expirationdate="<HTTPGET hash='v'>">headers written
EOF
cat > "$site/type.cvm" <<'EOF'
<CVHEADER type="content-type" value="text/plain<HTTPGET hash='v'>"><CVBINARY value="typed">
EOF
cat > "$site/nested.cvm" <<'EOF'
<CVDEBUG type="error"><CVVAR var="a" value="x">before <a element="[<HTTPGET hash='i'>]"> after
EOF
cat > "$site/echo.cvm" <<'EOF'
<CVDEBUG type="error">get=<HTTPGET getsizey> post=<HTTPPOST getsizey> cookie=<HTTPCOOKIE getsizey> a=[<HTTPGET hash="a">]
EOF
cat > "$site/include.cvm" <<'EOF'
<CVDEBUG type="error">include: <CVINCLUDE file="<HTTPGET hash='f'>">
EOF
cat > "$site/file.cvm" <<'EOF'
<CVDEBUG type="error"><CVFILE filename="<HTTPGET hash='f'>" openfile filevar="h"><CVFILE filevar="h" read="all" var="d">read=[<d getsize>]
EOF
cat > "$site/sub/inner.cvm" <<'EOF'
inner page
EOF
cp "$site/nested.cvm" "$site/log/nested.cvm"
cat > "$site/log/fail.cvm" <<'EOF'
visible part <CVVAR var="<HTTPGET hash='n'>" value="1"><CVVAR>
EOF
echo "plain text" > "$site/plain.txt"
ln -s /dev/zero "$site/zero.txt"
ln -s /dev/zero "$site/zero.cvm"
mkfifo "$site/fifo.txt"
python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' "$site/socket.txt" 2>/dev/null ||
  echo "note: no UNIX socket file could be made here; that case is left out"

# cvml runs under /usr/bin/time, which appends each process's peak RSS (KB).
rss_log=$work/rss.log
: > "$rss_log"
cat > "$work/cvml-measured" <<EOF
#!/bin/sh
exec /usr/bin/time -a -o "$rss_log" -f "%M" "$cvml" "\$@"
EOF
chmod +x "$work/cvml-measured"

# The requests are meant to reach cvml: lighttpd passes large requests and,
# like more lenient servers, control bytes and invalid escapes in the URL.
# Reports of the pages under /log/ go to the server's error log.
LIGHTTPD_EXTRA_CONF='server.max-request-field-size = 65535
server.http-parseopts = ( "url-ctrls-reject" => "disable", "url-normalize" => "disable",
                          "header-strict" => "disable" )
setenv.add-environment += ( "CVML_MAX_UPLOAD" => "1M" )
$HTTP["url"] =~ "^/log/" { setenv.add-environment += ( "CVML_REPORTS" => "log" ) }'
lighttpd_start "$site" "$work/cvml-measured" || { echo "FAIL: lighttpd did not start"; exit 1; }
base="http://127.0.0.1:$LIGHTTPD_PORT"
echo "lighttpd on 127.0.0.1:$LIGHTTPD_PORT serving $site"

# ---- checks -------------------------------------------------------------------
# request NAME EXPECTED_STATUS CURL_ARGS...: one request; the status must be
# the expected one, the header block free of injected lines and stray bytes,
# and the CGI process (if one ran) under 256 MB of peak RSS.
resp=$work/resp
request() {
  local name=$1 want=$2 status lines_before lines_after rss
  shift 2
  lines_before=$(wc -l < "$rss_log")
  status=$(curl -sS -g --max-time 30 --path-as-is -D "$resp.head" -o "$resp.body" -w '%{http_code}' "$@") ||
    { fail "$name: no response (curl: $status)"; return; }
  [ "$status" = "$want" ] || fail "$name: status $status, expected $want"
  if LC_ALL=C grep -aqiE '^(x-injected|set-cookie: *evil)' "$resp.head"; then
    fail "$name: an injected header line reached the response:"; cat -A "$resp.head" | head -20
  fi
  # Every header line ends in CR LF, and nothing else in it is a control byte.
  if LC_ALL=C grep -aqvP '^[^\x00-\x1f\x7f]*\r$' "$resp.head"; then
    fail "$name: control bytes in the header block:"; cat -A "$resp.head" | head -20
  fi
  lines_after=$(wc -l < "$rss_log")
  if [ "$lines_after" -gt "$lines_before" ]; then
    if LC_ALL=C grep -q 'signal\|status' <(tail -n +"$((lines_before + 1))" "$rss_log"); then
      fail "$name: cvml did not end normally: $(tail -n +"$((lines_before + 1))" "$rss_log" | tr '\n' ' ')"
    fi
    rss=$(tail -n 1 "$rss_log")
    if [ "$rss" -ge 262144 ]; then fail "$name: peak RSS $rss KB, not under 256 MB"; fi
    echo "ok: $name (status $status, peak RSS ${rss} KB)"
  else
    echo "ok: $name (status $status, answered by the server)"
  fi
}
body_has() { LC_ALL=C grep -aq -- "$2" "$resp.body" || { fail "$1: the body lacks \"$2\":"; head -c 600 "$resp.body"; echo; }; }
body_lacks() { ! LC_ALL=C grep -aq -- "$2" "$resp.body" || { fail "$1: the body shows \"$2\""; head -c 600 "$resp.body"; echo; }; }
head_has() { LC_ALL=C grep -aqi -- "$2" "$resp.head" || { fail "$1: no header \"$2\":"; cat -A "$resp.head"; }; }

crlf='%0d%0aX-Injected:%20yes%0d%0aSet-Cookie:%20evil=1'

# Response splitting through every header a page writes.
request "location splitting" 302 "$base/location.cvm?to=/next.cvm$crlf%00"
head_has "location splitting" "^Location: http://127.0.0.1:$LIGHTTPD_PORT/next.cvmX-Injected: yesSet-Cookie: evil=1.$"
request "relative location splitting" 302 "$base/location.cvm?to=next$crlf.cvm"
request "raw header and cookie splitting" 200 "$base/headers.cvm?n=a$crlf%00&v=b$crlf%0a%00"
head_has "raw header and cookie splitting" '^X-Namea'
request "content type splitting" 200 "$base/type.cvm?v=$crlf%00"
head_has "content type splitting" '^Content-type: text/plainX-Injected'
body_has "content type splitting" typed
request "header name as HTML" 200 "$base/headers.cvm?n=%3Cscript%3E&v=%3Cb%3E"

# The nested-index query: a million-element list on each of four levels.
request "nested index" 200 "$base/nested.cvm?i=1000000][1000000][1000000][1000000"
body_has "nested index" "before "
body_has "nested index" "(CVML_MAX_MEMORY)"
request "nested index, eight levels" 200 "$base/nested.cvm?i=1000000][1000000][1000000][1000000][1000000][1000000][1000000][1000000"
body_has "nested index, eight levels" "(CVML_MAX_MEMORY)"
request "index out of range" 200 "$base/nested.cvm?i=99999999999999999999999"
body_has "index out of range" "out of range"

# Huge and malformed query strings, cookies and POST bodies.
long=$(head -c 60000 /dev/zero | tr '\0' 'q')
request "60 KB query value" 200 "$base/echo.cvm?a=$long"
body_has "60 KB query value" "get=1 "
request "30000 query pairs" 200 "$base/echo.cvm?$(printf 'a&%.0s' $(seq 1 30000))"
body_has "30000 query pairs" "get=30001 "  # the final "&" ends an empty pair
request "invalid percent escapes" 200 "$base/echo.cvm?a=%zz%4&b=%&c=%%%&%=%&%00=%00"
body_has "invalid percent escapes" "get=5 "
request "60 KB cookie" 200 -H "Cookie: a=$long; b; ;;; =; c==d" "$base/echo.cvm"
body_has "60 KB cookie" "cookie=3 "
request "NUL and control bytes escaped in the query" 200 "$base/echo.cvm?a=%00%0d%0a%1b%7f"
request "150000 POST pairs" 200 --data-binary "@"<(printf 'p=1&%.0s' $(seq 1 150000)) "$base/echo.cvm"
body_has "150000 POST pairs" "post=100000 "
head -c 2000000 /dev/zero | tr '\0' 'x' > "$work/big.post"
request "POST body over the upload limit" 200 --data-binary "@$work/big.post" "$base/echo.cvm"
body_has "POST body over the upload limit" "it was not read"
request "multipart without a boundary" 200 -H "Content-Type: multipart/form-data" --data-binary 'a=1' "$base/echo.cvm"
request "multipart with a broken part" 200 -H "Content-Type: multipart/form-data; boundary=XX" \
  --data-binary $'--XX\r\nContent-Disposition: form-data; name="a"\r\n\r\nvalue\r\n--XX\r\nbroken' "$base/echo.cvm"

# A NUL byte sent raw in a header line: the server refuses it or cvml
# survives it; either way the answer is a clean HTTP status line.
exec 3<>"/dev/tcp/127.0.0.1/$LIGHTTPD_PORT"
printf 'GET /echo.cvm?a=1 HTTP/1.0\r\nCookie: a=\0b\r\n\r\n' >&3
raw=$(timeout 10 head -c 200 <&3 | head -n 1 | tr -d '\r')
exec 3<&-
case $raw in HTTP/1.?\ [2-5][0-9][0-9]*) echo "ok: raw NUL in a cookie ($raw)" ;; *) fail "raw NUL in a cookie: answer \"$raw\"" ;; esac

# Path traversal and devices behind names.
request "traversal in the URL" 404 "$base/../../../../etc/passwd"
request "traversal in an include" 200 "$base/include.cvm?f=../../../../../../etc/passwd"
body_lacks "traversal in an include" "root:"
body_has "traversal in an include" "Error opening"
request "include of a device through a link" 200 "$base/include.cvm?f=zero.txt"
body_has "include of a device through a link" "Error opening"
request "include of a FIFO" 200 "$base/include.cvm?f=fifo.txt"
body_has "include of a FIFO" "Error opening"
request "include with a NUL byte" 200 "$base/include.cvm?f=sub/inner.cvm%00.txt"
body_has "include with a NUL byte" "web protocols"
request "include that works" 200 "$base/include.cvm?f=sub/inner.cvm"
body_has "include that works" "inner page"
request "file through a link to /dev/zero" 200 "$base/file.cvm?f=zero.txt"
body_has "file through a link to /dev/zero" "Error opening the file"
request "file that is a FIFO" 200 "$base/file.cvm?f=fifo.txt"
body_has "file that is a FIFO" "Error opening the file"
if [ -S "$site/socket.txt" ]; then
  request "file that is a socket" 200 "$base/file.cvm?f=socket.txt"
  body_has "file that is a socket" "Error opening the file"
fi
request "file with a NUL byte" 200 "$base/file.cvm?f=plain.txt%00.cvm"
body_has "file with a NUL byte" "web protocols"
request "traversal in a file name" 200 "$base/file.cvm?f=../../../../etc/passwd"
body_lacks "traversal in a file name" "root:"
request "a regular file" 200 "$base/file.cvm?f=plain.txt"
body_has "a regular file" "read=\[11\]"
# lighttpd itself refuses a page that is not a regular file; cvml is asked
# directly, as a server that does not check would ask it.
out=$(env -i DOCUMENT_ROOT="$site" PATH_TRANSLATED="$site/zero.cvm" timeout 10 "$cvml" 2>&1)
case $out in
  *"Error opening $site/zero.cvm for processing."*) echo "ok: a page that is a link to /dev/zero" ;;
  *) fail "a page that is a link to /dev/zero: $(printf '%s' "$out" | head -c 300)" ;;
esac

# Reports in the server's log: the visitor sees a notice and a 500.
: > "$LIGHTTPD_DIR/cgi-stderr.log"
request "log mode, failing page" 500 "$base/log/fail.cvm?n=%3Cimg%3E"
body_has "log mode, failing page" "visible part"
body_has "log mode, failing page" "error log"
body_lacks "log mode, failing page" "Error in"
body_lacks "log mode, failing page" "Level 4 tag dump"
request "log mode, nested index" 500 "$base/log/nested.cvm?i=1000000][1000000][1000000][1000000"
body_lacks "log mode, nested index" "CVML_MAX_MEMORY"
log=$LIGHTTPD_DIR/cgi-stderr.log
for line in 'cvml: /log/fail.cvm?n=%3Cimg%3E: Error:  Error in <CVVAR>' \
            'cvml: /log/nested.cvm?i=1000000\]\[1000000\]\[1000000\]\[1000000: Error:  Error in <a>.  The page needed more memory'; do
  LC_ALL=C grep -q "^[0-9-]* [0-9:]* [-+][0-9]* $line" "$log" || { fail "the error log lacks \"$line\":"; head -c 2000 "$log"; }
done

[ $failed -eq 0 ] && echo "all hostile request checks passed"
exit $failed
