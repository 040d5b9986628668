# Helpers shared by bench/run.sh and bench/fastcgi.sh (sourced, not run).

# bench_machine: one line naming the machine a run is measured on.
bench_machine() {
  local cpu load mem
  cpu=$(awk -F': *' '/^model name/ { print $2; exit }' /proc/cpuinfo 2>/dev/null)
  [ -n "$cpu" ] || cpu=$(lscpu 2>/dev/null | awk -F': *' '/^Model name/ { print $2; exit }')
  load=$(cut -d' ' -f1-3 /proc/loadavg 2>/dev/null)
  mem=$(awk '/^MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo 2>/dev/null)
  printf '%s cores, %s, %s memory, Linux %s; %s; load average at start %s\n' \
    "$(nproc)" "${cpu:-unknown CPU}" "${mem:-unknown}" "$(uname -r)" \
    "$(date -u '+%Y-%m-%d %H:%M UTC')" "${load:-unknown}"
}

# bench_versions: the versions compared, for the line under the machine.
bench_versions() {
  local root commit dirty="" php
  root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  commit=$(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo unknown)
  if ! git -C "$root" diff --quiet HEAD -- src 2>/dev/null; then dirty=" (src/ modified)"; fi
  php=$(env -i PATH="$PATH" php-cgi -v 2>/dev/null | head -n 1 | cut -d' ' -f1-2)
  printf 'cvml at commit %s%s; %s\n' "$commit" "$dirty" "${php:-php not found}"
}

# bench_make_database DIR: the rows benchmark's database, made once in DIR:
# DIR/rows.db, a SQLite table "items" of 1,000 rows, and the ODBC files that
# name it as the data source "cvmlbench" (the SQLite ODBC driver under
# unixODBC, found by scripts/demo_database.sh).  Sets BENCH_SQLITE (the file,
# for PHP) and exports ODBCSYSINI and ODBCINI (for cvml).
bench_make_database() {
  local dir=$1 root
  root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  "$root/scripts/demo_database.sh" "$dir" >&2 || return 1
  dir=$(cd "$dir" && pwd)
  printf '[cvmlbench]\nDriver=SQLite3\nDatabase=%s\n' "$dir/rows.db" >> "$dir/odbc.ini"
  rm -f "$dir/rows.db"
  sqlite3 "$dir/rows.db" <<'SQL' || return 1
CREATE TABLE items (id INTEGER PRIMARY KEY, name TEXT NOT NULL, city TEXT NOT NULL,
                    qty INTEGER NOT NULL, price REAL NOT NULL);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000)
INSERT INTO items
  SELECT i, 'Item ' || i,
         CASE i % 4 WHEN 0 THEN 'Oslo' WHEN 1 THEN 'Lyon' WHEN 2 THEN 'Porto' ELSE 'Graz' END,
         i * 7 % 100, (i * 37 % 1000) / 4.0
  FROM n;
SQL
  BENCH_SQLITE=$dir/rows.db
  export BENCH_SQLITE ODBCSYSINI=$dir ODBCINI=$dir/odbc.ini
}

# bench_port_busy PORT: succeeds when something listens on 127.0.0.1:PORT.
bench_port_busy() {
  (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# bench_free_port: prints a port on 127.0.0.1 that nothing listens on now.
bench_free_port() {
  local port attempt
  for attempt in $(seq 1 50); do
    port=$(( 20000 + (RANDOM * 32768 + RANDOM) % 40000 ))
    bench_port_busy "$port" || { echo "$port"; return 0; }
  done
  return 1
}

# bench_body FILE: the response in FILE without its header block.
bench_body() { sed '1,/^\r\{0,1\}$/d' "$1"; }
