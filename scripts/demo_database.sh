#!/usr/bin/env bash
# Makes the demo site's database and the ODBC files that name it, in DIR:
# DIR/planets.db (SQLite), DIR/odbcinst.ini (the SQLite ODBC driver) and
# DIR/odbc.ini (the data source "cvmldemo").  Each run writes all three
# afresh (the database through a new file moved into place).
# Afterwards: export ODBCSYSINI=DIR ODBCINI=DIR/odbc.ini
#   usage: scripts/demo_database.sh DIR
set -euo pipefail

dir=${1:?usage: $0 DIR}
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)

driver=""
for candidate in /usr/lib/*/odbc/libsqlite3odbc.so /usr/lib/odbc/libsqlite3odbc.so \
                 /usr/local/lib/odbc/libsqlite3odbc.so /usr/lib64/libsqlite3odbc.so; do
  if [ -f "$candidate" ]; then driver=$candidate; break; fi
done
[ -n "$driver" ] || { echo "demo_database.sh: the SQLite ODBC driver is missing (scripts/setup.sh installs it)" >&2; exit 1; }

printf '[SQLite3]\nDriver=%s\n' "$driver" > "$dir/odbcinst.ini"
printf '[cvmldemo]\nDriver=SQLite3\nDatabase=%s\n' "$dir/planets.db" > "$dir/odbc.ini"

rm -f "$dir/planets.db.new"
sqlite3 "$dir/planets.db.new" <<'SQL'
CREATE TABLE planets (name VARCHAR(20), moons INTEGER, radius_km INTEGER);
INSERT INTO planets VALUES ('Mercury', 0, 2440), ('Venus', 0, 6052), ('Earth', 1, 6371),
  ('Mars', 2, 3390), ('Jupiter', 95, 69911), ('Saturn', 146, 58232), ('Uranus', 28, 25362),
  ('Neptune', 16, 24622), ('Ceres', 0, 470), ('Pluto', 5, 1188), ('Haumea', 2, 780),
  ('Makemake', 1, 715), ('Eris', 1, 1163);
SQL
mv "$dir/planets.db.new" "$dir/planets.db"
