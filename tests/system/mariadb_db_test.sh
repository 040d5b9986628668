#!/usr/bin/env bash
# Runs the database pages (db/common and db/mariadb) against a private
# MariaDB server on 127.0.0.1 through MariaDB Connector/ODBC, measures what
# a 100,000-row result costs, and checks that a server that stops answering
# in the middle of a statement ends the page with an error.  See
# db_pages.sh for the page files.
set -u
cvml=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
here=$(cd "$(dirname "$0")" && pwd)
db_cases=$here/db
started=$(date +%s)

for tool in python3 /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "$tool is needed (packages python3, time): run scripts/setup.sh"; exit 1; }
done
# shellcheck source=db_servers.sh
source "$here/db_servers.sh"
# shellcheck source=db_pages.sh
source "$here/db_pages.sh"

DB_DRIVER=$(odbc_driver libmaodbc.so) ||
  { echo "MariaDB Connector/ODBC (odbc-mariadb) is needed: run scripts/setup.sh"; exit 1; }
DB_DRIVERNAME="MariaDB Unicode"

work=$(mktemp -d)
stopped_pid=
cleanup() {
  [ -z "$stopped_pid" ] || kill -CONT "$stopped_pid" 2>/dev/null
  db_stop_all
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT

mariadb_start || exit 1
DB_PORT=$MY_PORT
DB_DATABASE=$MY_DATABASE
mariadb_run < "$db_cases/mariadb.sql" || { echo "loading mariadb.sql failed"; exit 1; }

cat > "$work/odbcinst.ini" <<INI
[$DB_DRIVERNAME]
Driver=$DB_DRIVER
INI
# cvmlhasty sets its own statement time limit, which must win over the
# engine's.
cat > "$work/odbc.ini" <<INI
[cvmltest]
Driver=$DB_DRIVERNAME
Server=127.0.0.1
Port=$DB_PORT
Database=$DB_DATABASE

[cvmlhasty]
Driver=$DB_DRIVERNAME
Server=127.0.0.1
Port=$DB_PORT
Database=$DB_DATABASE
INITSTMT=SET SESSION max_statement_time = 1
INI

failures=0
run_db_pages mariadb
data=$(mariadb_run -N -e "SELECT sum(octet_length(name)) + count(*) * (4 + 8 + 16) FROM big")
# The driver holds its own copy of the rows while they are fetched.
check_result_memory mariadb "$data" 30

# A server that stops answering while a statement runs: the page must end
# with an error once the read time-out (the query time-out + 5 s) passes.
sed -e "s#@PORT@#$DB_PORT#g" "$db_cases/stall.cvm" > "$work/pages/stall.cvm"
(cd "$work/pages" && env -i PATH=/usr/bin:/bin ODBCSYSINI="$work" ODBCINI="$work/odbc.ini" \
   CVML_DB_QUERY_TIMEOUT=2 timeout 60 "$cvml" stall.cvm > stall.actual) &
page_pid=$!
if wait_until 20 sh -c "mariadb --no-defaults -uroot --socket='$work/my/socket' -N -e 'SHOW PROCESSLIST' | grep -q 'SLEEP(20)'"; then
  stopped_pid=${db_pids[0]}
  kill -STOP "$stopped_pid"
  stop_started=$(date +%s)
  wait "$page_pid"
  stalled=$(( $(date +%s) - stop_started ))
  kill -CONT "$stopped_pid"
  stopped_pid=
  echo "mariadb/stall: the page ended $stalled s after the server stopped answering"
  if [ "$stalled" -gt 12 ] || ! grep -q '^Error executing the SQL statement' "$work/pages/stall.actual"; then
    echo "mariadb/stall: expected an error within 12 s, got after $stalled s:"
    cat "$work/pages/stall.actual"
    failures=$((failures + 1))
  fi
else
  echo "mariadb/stall: the statement never reached the server"
  failures=$((failures + 1))
  wait "$page_pid"
fi

echo "mariadb: $(( $(date +%s) - started )) s in all"
[ $failures -eq 0 ] || { echo "$failures MariaDB check(s) failed"; exit 1; }
echo "MariaDB pages passed"
