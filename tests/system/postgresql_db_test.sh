#!/usr/bin/env bash
# Runs the database pages (db/common and db/postgresql) against a private
# PostgreSQL server on 127.0.0.1 through psqlODBC, and measures what a
# 100,000-row result costs.  See db_pages.sh for the page files.
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

DB_DRIVER=$(odbc_driver psqlodbcw.so) ||
  { echo "psqlODBC (odbc-postgresql) is needed: run scripts/setup.sh"; exit 1; }
DB_DRIVERNAME="PostgreSQL Unicode"

work=$(mktemp -d)
cleanup() {
  db_stop_all
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT

pg_start || exit 1
DB_PORT=$PG_PORT
DB_DATABASE=$PG_DATABASE
psql_run -f "$db_cases/postgresql.sql" || { echo "loading postgresql.sql failed"; exit 1; }
# A role whose own statement time-out must win over the engine's.
psql_run -c "CREATE ROLE hasty LOGIN PASSWORD 'secret'; ALTER ROLE hasty SET statement_timeout = '1s'"

cat > "$work/odbcinst.ini" <<INI
[$DB_DRIVERNAME]
Driver=$DB_DRIVER
INI
cat > "$work/odbc.ini" <<INI
[cvmltest]
Driver=$DB_DRIVERNAME
Servername=127.0.0.1
Port=$DB_PORT
Database=$DB_DATABASE
INI

failures=0
run_db_pages postgresql
data=$(psql_run -At -c "SELECT sum(octet_length(name)) + count(*) * (4 + 8 + 16) FROM big")
check_result_memory postgresql "$data" 20
echo "postgresql: $(( $(date +%s) - started )) s in all"
[ $failures -eq 0 ] || { echo "$failures PostgreSQL check(s) failed"; exit 1; }
echo "PostgreSQL pages passed"
