#!/usr/bin/env bash
# Shared by the stock-server tests (lighttpd_test.sh, apache_test.sh,
# nginx_test.sh): the site they serve and the checks a browser's requests
# make against it.  Source it; it defines:
#   server_site DIR          copies tests/system/deploy_site to DIR, readable
#                            by a server's own user, with DIR/uploads for the
#                            temporary copies of uploaded files
#   server_checks BASE DIR   drives http://127.0.0.1:PORT (BASE) with curl;
#                            sets `failed` to 1 on any failure; a page that
#                            ends in an error answers sc_error_status (200,
#                            or 500 from the FastCGI server)
#   wait_for_port PORT PID   polls until PORT answers (10 s), false when the
#                            process PID ended first
#   free_port                prints a port nobody listens on

server_checks_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
failed=0
pass() { echo "PASS: $1"; }
fail() { echo "FAIL: $1"; failed=1; }

server_site() {
  cp -R "$server_checks_dir/deploy_site" "$1"
  mkdir -p "$1/uploads"
  chmod -R a+rX "$1"
  chmod 1777 "$1/uploads"
  # Servers that drop to their own user must reach the site.
  local d=$1
  while d=$(dirname "$d") && [ "$d" != / ]; do chmod a+x "$d" 2>/dev/null; done
}

free_port() {
  local port low=32768 high
  # Below the range the system hands out for outgoing connections, so a
  # client of a test running beside this one cannot be holding it.
  read -r low high < /proc/sys/net/ipv4/ip_local_port_range 2>/dev/null
  [ "${low:-0}" -gt 12000 ] 2>/dev/null || low=32768
  while :; do
    port=$(( 10000 + (RANDOM * 32768 + RANDOM) % (low - 10000) ))
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return; }
  done
}

wait_for_port() {
  local i
  for i in $(seq 1 100); do
    kill -0 "$2" 2>/dev/null || return 1
    curl -s -o /dev/null --max-time 1 "http://127.0.0.1:$1/" && return 0
    sleep 0.1
  done
  return 1
}

# fetch NAME [curl args...]: headers (CR removed) in $sc_work/NAME.head,
# body in $sc_work/NAME.body.
fetch() {
  local name=$1; shift
  curl -s --max-time 20 -D "$sc_work/$name.rawhead" -o "$sc_work/$name.body" "$@"
  tr -d '\r' < "$sc_work/$name.rawhead" > "$sc_work/$name.head"
}
status_of() { head -n 1 "$sc_work/$1.head" | cut -d' ' -f2; }
header_of() { grep -i "^$2:" "$sc_work/$1.head" | head -n 1 | cut -d' ' -f2-; }
body_is() {
  if [ "$(cat "$sc_work/$1.body"; echo .)" = "$2." ]; then
    pass "$3"
  else
    fail "$3: status $(status_of "$1"), body:"
    head -c 2000 "$sc_work/$1.body" | cat -A | head -n 20
  fi
}

server_checks() {
  local base=$1 site=$2
  sc_work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-checks.XXXXXX")

  fetch index "$base/"
  body_is index $'It works.\n' "index.cvm answers for the site root"

  fetch get "$base/get.cvm?name=Ada+Lovelace%21&x=1"
  body_is get $'name=[Ada Lovelace!] x=[1]\n' "a GET query string reaches HTTPGET"
  [ "$(header_of get Content-Type)" = text/html ] && pass "pages are text/html" ||
    fail "Content-Type was '$(header_of get Content-Type)'"

  fetch post --data 'other=2&field=x%3Dy+z' "$base/post.cvm"
  body_is post $'field=[x=y z] other=[2]\n' "a form POST reaches HTTPPOST"

  printf 'first file\n' > "$sc_work/a.txt"
  head -c 3000 /dev/urandom > "$sc_work/b.bin"
  fetch upload -F title=holiday -F "docs=@$sc_work/a.txt;type=text/plain" -F "photo=@$sc_work/b.bin" "$base/upload.cvm"
  body_is upload $'title=[holiday]\nfile field=[docs] name=[a.txt] type=[text/plain] size=[11]\nfile field=[photo] name=[b.bin] type=[application/octet-stream] size=[3000]\n\n' \
    "a multipart upload fills HTTPPOST and HTTPFILES"

  fetch cookie -b 'd=2; c=chocolate chip' "$base/cookie.cvm"
  body_is cookie $'c=[chocolate chip] d=[2]\n' "request cookies reach HTTPCOOKIE"
  grep -qx 'Set-Cookie: sid=a%20b' "$sc_work/cookie.head" && pass "CVHEADER sets a cookie" ||
    { fail "no Set-Cookie: sid=a%20b; headers:"; cat "$sc_work/cookie.head"; }

  fetch redirect "$base/sub/redirect.cvm"
  if [ "$(status_of redirect)" = 302 ] && [ "$(header_of redirect Location)" = "$base/sub/other.cvm?from=redirect" ]; then
    pass "a redirect keeps the server's port: $(header_of redirect Location)"
  else
    fail "redirect: status $(status_of redirect), Location '$(header_of redirect Location)'"
  fi

  fetch error "$base/error.cvm"
  # The page ends where the report begins; the report quotes the whole page.
  sed '/^<hr>$/,$d' "$sc_work/error.body" > "$sc_work/error_page.body"
  if [ "$(status_of error)" = "${sc_error_status:-200}" ] && [ "$(cat "$sc_work/error_page.body")" = "before the mistake" ] &&
     grep -q 'Error:  Error in &lt;CVVAR&gt;.  CVVAR requires the' "$sc_work/error.body"; then
    pass "an error report follows the page"
  else
    fail "error page: status $(status_of error)"; head -c 1500 "$sc_work/error.body"
  fi

  # Extra path information never chooses the page.
  fetch extra "$base/index.cvm/other.txt"
  if grep -q 'ran as a page' "$sc_work/extra.body"; then
    fail "/index.cvm/other.txt ran other.txt as a page"
  else
    pass "/index.cvm/other.txt does not run other.txt (status $(status_of extra))"
  fi

  fetch fragment "$base/header.inc"
  if [ "$(status_of fragment)" != 200 ] && ! grep -q 'fragment source' "$sc_work/fragment.body"; then
    pass "an included fragment is not served (status $(status_of fragment))"
  else
    fail "header.inc was served: status $(status_of fragment)"
  fi

  if [ -z "$(ls -A "$site/uploads")" ]; then
    pass "no temporary upload copy is left behind"
  else
    fail "files left in the upload directory: $(ls -A "$site/uploads")"
  fi
  rm -rf "$sc_work"
}
