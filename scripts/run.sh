#!/usr/bin/env bash
# Builds cvml and runs it: `scripts/run.sh page.cvm` runs one page from the
# command line; `scripts/run.sh` serves the demo site in examples/ through
# lighttpd on 127.0.0.1 until Ctrl-C.  BUILD_DIR picks the build directory
# (default build/).
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}

"$root/scripts/setup.sh" run >&2 || { echo "set-up failed" >&2; exit 1; }
if [ ! -f "$build/build.ninja" ]; then
  # Serving needs only the program: the tests (and GoogleTest) stay out
  # until scripts/test.sh turns them on in the same directory.
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCVML_TESTS=OFF >&2 || exit 1
fi
ninja -C "$build" -j "${JOBS:-2}" cvml >&2 || { echo "build failed" >&2; exit 1; }
cvml=$(cd "$build" && pwd)/cvml

if [ $# -ge 1 ]; then
  page=$1
  [ -f "$page" ] || { echo "no such page: $page" >&2; exit 1; }
  # The engine takes the current directory as the web root, so run the page
  # from its own directory.
  cd "$(dirname "$page")" && exec "$cvml" "$(basename "$page")"
fi

# The demo's database page reads a SQLite database through ODBC; its files
# live in the build directory and are made on first use.
"$root/scripts/demo_database.sh" "$build/demo-db" || exit 1
export ODBCSYSINI=$build/demo-db ODBCINI=$build/demo-db/odbc.ini
exec "$root/scripts/lighttpd.sh" serve "$root/examples" "$cvml"
