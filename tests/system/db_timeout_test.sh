#!/usr/bin/env bash
# Log-in time-outs against a server that accepts connections and then stays
# silent (db/silent_server.py): through psqlODBC and MariaDB Connector/ODBC,
# with the time-out set, with the default, and with a data source whose own
# setting wins.  The pages are in db/silent (files as in db_pages.sh).
set -u
cvml=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
here=$(cd "$(dirname "$0")" && pwd)
db_cases=$here/db

command -v python3 >/dev/null || { echo "python3 is needed: run scripts/setup.sh"; exit 1; }
# shellcheck source=db_servers.sh
source "$here/db_servers.sh"
# shellcheck source=db_pages.sh
source "$here/db_pages.sh"

pg_driver=$(odbc_driver psqlodbcw.so) ||
  { echo "psqlODBC (odbc-postgresql) is needed: run scripts/setup.sh"; exit 1; }
my_driver=$(odbc_driver libmaodbc.so) ||
  { echo "MariaDB Connector/ODBC (odbc-mariadb) is needed: run scripts/setup.sh"; exit 1; }

work=$(mktemp -d)
listener=
cleanup() {
  if [ -n "$listener" ]; then kill "$listener" 2>/dev/null; wait "$listener" 2>/dev/null; fi
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT

"$py" "$db_cases/silent_server.py" "$work/port" 120 &
listener=$!
wait_until 10 test -s "$work/port" || { echo "the silent server did not start"; exit 1; }
DB_PORT=$(cat "$work/port")
DB_DATABASE=x
DB_DRIVERNAME=

# "hasty" sets its own log-in time-out of 1 s, which must win.
cat > "$work/odbcinst.ini" <<INI
[MariaDB Unicode]
Driver=$my_driver
INI
cat > "$work/odbc.ini" <<INI
[hasty]
Driver=MariaDB Unicode
Server=127.0.0.1
Port=$DB_PORT
CONN_TIMEOUT=1
INI

failures=0
# The pages take a few seconds each, waiting; they run side by side.
pids=()
for name in pg_login pg_login_default mariadb_login mariadb_own_login; do
  case $name in pg_*) DB_DRIVER=$pg_driver ;; *) DB_DRIVER=$my_driver ;; esac
  (failures=0; run_db_page silent "$db_cases/silent/$name.cvm" > "$work/$name.result"; exit $failures) &
  pids+=($!)
done
for pid in "${pids[@]}"; do wait "$pid" || failures=$((failures + 1)); done
cat "$work"/*.result
[ $failures -eq 0 ] || { echo "$failures time-out check(s) failed"; exit 1; }
echo "log-in time-outs passed"
