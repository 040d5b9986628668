#!/usr/bin/env bash
# Runs the pages in database/ against a SQLite database reached through the
# ODBC driver manager: the test writes its own driver and data-source files
# and points the driver manager at them, so no system configuration is used.
# NAME.out is the exact expected output; NAME.lines lists lines that must
# appear in it (for reports that quote the driver's own messages).
set -u
cvml=$1
here=$(cd "$(dirname "$0")" && pwd)
cases=$here/database

driver=""
for candidate in /usr/lib/*/odbc/libsqlite3odbc.so /usr/lib/odbc/libsqlite3odbc.so \
                 /usr/local/lib/odbc/libsqlite3odbc.so /usr/lib64/libsqlite3odbc.so; do
  if [ -f "$candidate" ]; then driver=$candidate; break; fi
done
if [ -z "$driver" ] || ! command -v sqlite3 >/dev/null; then
  echo "the SQLite ODBC driver (libsqliteodbc) and sqlite3 are needed: run scripts/setup.sh"
  exit 1
fi

work=$(mktemp -d)
trap '[ -n "${KEEP_WORK:-}" ] || rm -rf "$work"' EXIT
cat > "$work/odbcinst.ini" <<INI
[SQLite3]
Driver=$driver
INI
cat > "$work/odbc.ini" <<INI
[cvmltest]
Driver=SQLite3
Database=$work/test.db
INI

make_database() {
  rm -f "$work/test.db"
  sqlite3 "$work/test.db" <<'SQL'
CREATE TABLE people (id INTEGER, name VARCHAR(20), score DOUBLE);
INSERT INTO people VALUES (1, 'Ann', 2.5), (2, 'Bob', NULL), (3, 'Cy', 7);
CREATE TABLE declared (short VARCHAR(5), wide BIGINT);
INSERT INTO declared VALUES ('éèçàüéèçàüéèçàüéèçàü', 9007199254740993), ('ok', -5), (NULL, 4294967296);
SQL
}

failures=0
for page in "$cases"/*.cvm; do
  name=$(basename "$page" .cvm)
  make_database
  actual=$work/$name.actual
  (cd "$cases" && env -i PATH=/usr/bin:/bin ODBCSYSINI="$work" ODBCINI="$work/odbc.ini" \
     timeout 20 "$cvml" "$name.cvm") > "$actual"
  status=$?
  if [ $status -ne 0 ]; then
    echo "$name: cvml exited with status $status"
    failures=$((failures + 1))
    continue
  fi
  sed -i -e "s#$cases#@DIR@#g" -e 's/ - [0-9][0-9]*ms$/ - Nms/' -e 's/^Time = [0-9][0-9]*ms$/Time = Nms/' "$actual"
  if [ -f "$cases/$name.out" ]; then
    if ! cmp -s "$actual" "$cases/$name.out"; then
      echo "$name: output differs from $name.out:"
      diff -u "$cases/$name.out" "$actual" | cat -A | head -n 60
      failures=$((failures + 1))
    fi
  fi
  if [ -f "$cases/$name.lines" ]; then
    while IFS= read -r line || [ -n "$line" ]; do
      if ! grep -qxF -- "$line" "$actual"; then
        echo "$name: missing line: $line"
        failures=$((failures + 1))
      fi
    done < "$cases/$name.lines"
  fi
done
[ $failures -eq 0 ] || { echo "$failures database check(s) failed"; exit 1; }
echo "database pages passed"
