#!/usr/bin/env bash
# Installation and the Debian package: `cmake --install` puts the program
# (stripped), its manual page, the documentation and the server snippets in
# place; scripts/package.sh builds the .deb, lintian finds no error in it,
# and the program installed from it into a scratch root (dpkg -x) runs
# pages.  Usage: package_test.sh path/to/cvml (in its build directory)
set -u

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
cvml=$(cd "$(dirname "${1:?usage: $0 path/to/cvml}")" && pwd)/$(basename "$1")
build=$(dirname "$cvml")
for tool in lintian dpkg-deb dpkg-shlibdeps readelf; do
  command -v "$tool" >/dev/null || { echo "FAIL: $tool is not installed (scripts/setup.sh test installs it)"; exit 1; }
done
work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-package.XXXXXX")
trap 'rm -rf "$work"' EXIT

failed=0
pass() { echo "PASS: $1"; }
fail() { echo "FAIL: $1"; failed=1; }
sanitizer=0
grep -q '^CVML_SANITIZE:BOOL=ON' "$build/CMakeCache.txt" && sanitizer=1

# ---- cmake --install --------------------------------------------------------
if cmake --install "$build" --prefix "$work/prefix" > "$work/install.log" 2>&1; then
  missing=
  for f in bin/cvml share/man/man1/cvml.1 share/doc/cvml/README.md share/cvml/lighttpd/10-cvml.conf \
           share/cvml/apache2/cvml.conf share/cvml/nginx/cvml.conf share/cvml/lighttpd/10-cvml-fastcgi.conf \
           share/cvml/apache2/cvml-fastcgi.conf share/cvml/nginx/cvml-fastcgi.conf share/doc/cvml/examples/cvml.service; do
    [ -f "$work/prefix/$f" ] || missing+=" $f"
  done
  [ -z "$missing" ] && pass "cmake --install installs the program, manual page, documentation and snippets" ||
    fail "cmake --install left out:$missing"
else
  fail "cmake --install failed:"; cat "$work/install.log"
fi
symbols() { readelf -S "$1" 2>/dev/null | grep -cE '\.symtab|\.debug_info'; }
if [ $sanitizer = 1 ]; then
  echo "note: sanitizer build: the installed program keeps its symbols; the stripped release is checked in the normal build"
elif [ "$(symbols "$work/prefix/bin/cvml")" = 0 ] && [ "$(symbols "$cvml")" != 0 ]; then
  pass "the installed program is stripped ($(stat -c %s "$work/prefix/bin/cvml") bytes, built $(stat -c %s "$cvml"))"
else
  fail "the installed program is not stripped"
fi

# ---- the .deb -------------------------------------------------------------
if ! deb=$(CVML_PACKAGE_NO_BUILD=1 "$root/scripts/package.sh" "$build" "$work" 2> "$work/package.log"); then
  fail "scripts/package.sh failed:"; cat "$work/package.log"
  exit 1
fi
pass "scripts/package.sh built $(basename "$deb")"
dpkg-deb -c "$deb" | awk '{print $6}' > "$work/contents"
expected="./etc/apache2/conf-available/cvml.conf ./etc/lighttpd/conf-available/10-cvml.conf ./etc/nginx/snippets/cvml.conf ./etc/apache2/conf-available/cvml-fastcgi.conf ./etc/lighttpd/conf-available/10-cvml-fastcgi.conf ./etc/nginx/snippets/cvml-fastcgi.conf ./usr/share/doc/cvml/examples/cvml.service ./usr/bin/cvml ./usr/share/man/man1/cvml.1.gz ./usr/share/doc/cvml/copyright ./usr/share/doc/cvml/changelog.gz"
missing=
for f in $expected; do grep -qx -- "$f" "$work/contents" || missing+=" $f"; done
[ -z "$missing" ] && pass "the package holds the program, manual page, documentation and snippets" ||
  fail "the package lacks:$missing"
if [ "$(dpkg-deb -f "$deb" Depends)" != "" ] && dpkg-deb -I "$deb" conffiles | grep -qx /etc/nginx/snippets/cvml.conf; then
  pass "the package depends on $(dpkg-deb -f "$deb" Depends) and marks its snippets as configuration files"
else
  fail "package control data:"; dpkg-deb -I "$deb"
fi

if [ $sanitizer = 1 ]; then
  echo "note: sanitizer build: lintian judges the release package, made in the normal build"
else
  # lintian complains when run as root, and takes its time.
  lintian --no-cfg --fail-on error "$deb" > "$work/lintian.log" 2>&1
  rc=$?
  if [ $rc = 0 ] && ! grep -q '^E:' "$work/lintian.log"; then
    pass "lintian finds no error (overridden: $(grep -v '^#' "$root/packaging/debian/lintian-overrides" | tr '\n' ' '))"
    grep -E '^(W|I):' "$work/lintian.log" | sed 's/^/  lintian /'
  else
    fail "lintian (status $rc):"; cat "$work/lintian.log"
  fi
fi

# ---- the installed program ------------------------------------------------
dpkg -x "$deb" "$work/root"
installed=$work/root/usr/bin/cvml
mkdir "$work/site"
printf '<CVDEBUG type="off"><CVVAR var="n" value="6*7">answer=<n>\n' > "$work/site/page.cvm"
version=$("$installed" --version)
page=$(cd "$work/site" && "$installed" page.cvm)
cgi=$(env -i PATH=/usr/bin:/bin DOCUMENT_ROOT="$work/site" SCRIPT_FILENAME="$work/site/page.cvm" "$installed")
if [ "$version" = "$("$cvml" --version)" ] && [ "$page" = $'Content-type: text/html\n\nanswer=42.000000000000000' ] &&
   [ "$cgi" = "$page" ]; then
  pass "the installed program runs a page from a shell and as CGI ($version)"
else
  fail "installed program: version '$version', page:"; printf '%s\n---\n%s\n' "$page" "$cgi"
fi
if zcat "$work/root/usr/share/man/man1/cvml.1.gz" | grep -q '^\.SH SYNOPSIS' &&
   man -l "$work/root/usr/share/man/man1/cvml.1.gz" 2>/dev/null | grep -q -- '--check'; then
  pass "the manual page cvml(1) reads"
else
  fail "the manual page does not read"
fi

# The README's "Deploying" section shows each snippet as the package ships
# it (after the snippet's opening comment).
for snippet in lighttpd/10-cvml.conf apache2/cvml.conf nginx/cvml.conf \
               lighttpd/10-cvml-fastcgi.conf apache2/cvml-fastcgi.conf nginx/cvml-fastcgi.conf; do
  if python3 - "$root/README.md" "$root/packaging/$snippet" <<'PY'
import sys
readme = open(sys.argv[1]).read()
lines = open(sys.argv[2]).read().splitlines()
while lines and lines[0].startswith("#"):
    lines.pop(0)
block = "".join("    " + line + "\n" if line else "\n" for line in lines)
sys.exit(0 if block in readme else 1)
PY
  then
    pass "README shows packaging/$snippet as shipped"
  else
    fail "README's Deploying section differs from packaging/$snippet"
  fi
done

[ $failed -eq 0 ] && echo "all package checks passed"
exit $failed
