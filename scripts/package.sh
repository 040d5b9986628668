#!/usr/bin/env bash
# Builds the Debian package cvml_VERSION_ARCH.deb from a build directory:
# the stripped program, its manual page, the documentation, and the server
# snippets as configuration files under /etc.
#   usage: scripts/package.sh [BUILD_DIR [OUT_DIR]]   (default build/, OUT_DIR
#          defaults to BUILD_DIR); prints the path of the package.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
out=$(mkdir -p "${2:-$build}" && cd "${2:-$build}" && pwd)
# Brought up to date first, unless the caller has just built it (a test
# running beside others must not relink the program they run).
[ -n "${CVML_PACKAGE_NO_BUILD:-}" ] || ninja -C "$build" cvml >&2

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
arch=$(dpkg --print-architecture)
[ -n "$version" ] || { echo "package.sh: no project version in $build/CMakeCache.txt" >&2; exit 1; }

stage=$(mktemp -d "${TMPDIR:-/tmp}/cvml-package.XXXXXX")
trap 'rm -rf "$stage"' EXIT
pkg=$stage/cvml
DESTDIR=$pkg cmake --install "$build" --prefix /usr >&2

# The snippets go where each server looks for optional configuration.
move() { mkdir -p "$(dirname "$pkg/$2")"; mv "$pkg/usr/share/cvml/$1" "$pkg/$2"; }
move lighttpd/10-cvml.conf etc/lighttpd/conf-available/10-cvml.conf
move apache2/cvml.conf etc/apache2/conf-available/cvml.conf
move nginx/cvml.conf etc/nginx/snippets/cvml.conf
move lighttpd/10-cvml-fastcgi.conf etc/lighttpd/conf-available/10-cvml-fastcgi.conf
move apache2/cvml-fastcgi.conf etc/apache2/conf-available/cvml-fastcgi.conf
move nginx/cvml-fastcgi.conf etc/nginx/snippets/cvml-fastcgi.conf
rm -rf "$pkg/usr/share/cvml"

doc=$pkg/usr/share/doc/cvml
gzip -9n "$pkg/usr/share/man/man1/cvml.1"
cp "$root/packaging/debian/copyright" "$doc/copyright"
gzip -9n < "$root/packaging/debian/changelog" > "$doc/changelog.gz"
mkdir -p "$pkg/usr/share/lintian/overrides"
cp "$root/packaging/debian/lintian-overrides" "$pkg/usr/share/lintian/overrides/cvml"
find "$pkg" -type d -exec chmod 755 {} +
find "$pkg" -type f -exec chmod 644 {} +
chmod 755 "$pkg/usr/bin/cvml"

# Library dependencies as dpkg-shlibdeps finds them (it wants a
# debian/control beside it).
mkdir -p "$stage/src/debian"
printf 'Source: cvml\n\nPackage: cvml\nArchitecture: any\n' > "$stage/src/debian/control"
depends=$(cd "$stage/src" && dpkg-shlibdeps -O "$pkg/usr/bin/cvml" 2>/dev/null | sed -n 's/^shlibs:Depends=//p')
[ -n "$depends" ] || { echo "package.sh: dpkg-shlibdeps found no dependencies" >&2; exit 1; }

mkdir -p "$pkg/DEBIAN"
size=$(du -sk --exclude=DEBIAN "$pkg" | cut -f1)
sed -e "s/@VERSION@/$version/" -e "s/@ARCH@/$arch/" -e "s/@SIZE@/$size/" -e "s/@DEPENDS@/$depends/" \
  "$root/packaging/debian/control.in" > "$pkg/DEBIAN/control"
(cd "$pkg" && find etc -type f | sed 's#^#/#' | sort) > "$pkg/DEBIAN/conffiles"
(cd "$pkg" && find usr -type f -exec md5sum {} + | sort -k2) > "$pkg/DEBIAN/md5sums"
chmod 644 "$pkg/DEBIAN/"*

deb=$out/cvml_${version}_${arch}.deb
dpkg-deb --root-owner-group -Zxz --build "$pkg" "$deb" >&2
echo "$deb"
