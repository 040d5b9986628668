# Private database servers for the system tests (sourced, not run).
#
# pg_start and mariadb_start each make a fresh server under $work (its own
# data directory, socket directory and a free port on 127.0.0.1), wait with
# a deadline until it answers, and create the user "cvml" (password
# "secret") with a database of its own.  db_stop_all stops what was started;
# callers run it from their EXIT trap.  Run as root, the servers run as
# their Debian system users (postgres, mysql).
#
# Needs: $work (an empty directory of the caller's).

db_pids=()      # servers started, and the signal that stops each
db_signals=()

# Debian's own interpreter when it is there: a version manager's shim in
# front of it on PATH can take seconds to start.
py=python3
[ -x /usr/bin/python3 ] && py=/usr/bin/python3

# free_port: a port on 127.0.0.1 that nothing listened on a moment ago.
free_port() {
  "$py" -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# owner_prefix USER: sets exec_as to the words that run a command as USER
# when we are root (none otherwise).  setpriv replaces itself with the
# command, so a server started in the background keeps the id $! gives.
owner_prefix() {
  exec_as=()
  [ "$(id -u)" -ne 0 ] || exec_as=(setpriv --reuid="$1" --regid="$1" --init-groups --)
}

# own_dir USER DIR: makes DIR, owned by USER when we are root.
own_dir() {
  mkdir -p "$2"
  if [ "$(id -u)" -eq 0 ]; then chown "$1" "$2"; fi
}

# wait_until SECONDS COMMAND...: polls the command every 0.1 s.
wait_until() {
  local deadline=$(( $(date +%s) + $1 )); shift
  until "$@" >/dev/null 2>&1; do
    [ "$(date +%s)" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}

# ---- PostgreSQL ---------------------------------------------------------

pg_bin=""
for candidate in /usr/lib/postgresql/15/bin /usr/lib/postgresql/*/bin; do
  if [ -x "$candidate/postgres" ]; then pg_bin=$candidate; break; fi
done

# pg_start: sets PG_PORT, PG_DATABASE; psql_run runs SQL as cvml.
pg_start() {
  [ -n "$pg_bin" ] || { echo "PostgreSQL (postgresql) is needed: run scripts/setup.sh"; return 1; }
  # The server's user must reach its directories under $work.
  chmod 755 "$work"
  own_dir postgres "$work/pg"
  printf 'secret\n' > "$work/pg/password"
  [ "$(id -u)" -ne 0 ] || chown postgres "$work/pg/password"
  owner_prefix postgres
  if ! "${exec_as[@]}" "$pg_bin/initdb" -D "$work/pg/data" -U cvml --pwfile="$work/pg/password" \
         --auth=scram-sha-256 -E UTF8 --locale=C.UTF-8 -N > "$work/pg/initdb.log" 2>&1; then
    echo "initdb failed:"; cat "$work/pg/initdb.log"; return 1
  fi
  PG_PORT=$(free_port)
  PG_DATABASE=postgres
  "${exec_as[@]}" "$pg_bin/postgres" -D "$work/pg/data" -p "$PG_PORT" -h 127.0.0.1 -k "$work/pg" \
    -c fsync=off -c synchronous_commit=off -c full_page_writes=off > "$work/pg/server.log" 2>&1 &
  db_pids+=($!)
  db_signals+=(INT)  # a fast shutdown: sessions still open are ended
  if ! wait_until 30 "$pg_bin/pg_isready" -q -h 127.0.0.1 -p "$PG_PORT"; then
    echo "PostgreSQL did not start:"; cat "$work/pg/server.log"; return 1
  fi
}

psql_run() {
  PGPASSWORD=secret "$pg_bin/psql" -X -q -v ON_ERROR_STOP=1 -h 127.0.0.1 -p "$PG_PORT" -U cvml "$PG_DATABASE" "$@"
}

# ---- MariaDB ------------------------------------------------------------

# mariadb_start: sets MY_PORT, MY_DATABASE; mariadb_run runs SQL as cvml,
# mariadb_root as the server's root over its socket.
mariadb_start() {
  command -v mariadbd >/dev/null || [ -x /usr/sbin/mariadbd ] ||
    { echo "MariaDB (mariadb-server) is needed: run scripts/setup.sh"; return 1; }
  chmod 755 "$work"
  own_dir mysql "$work/my"
  local user=()
  [ "$(id -u)" -ne 0 ] || user=(--user=mysql)
  if ! mariadb-install-db --no-defaults "${user[@]}" --datadir="$work/my/data" --skip-test-db \
         --auth-root-authentication-method=normal --skip-name-resolve > "$work/my/install.log" 2>&1; then
    echo "mariadb-install-db failed:"; cat "$work/my/install.log"; return 1
  fi
  MY_PORT=$(free_port)
  MY_DATABASE=cvml
  /usr/sbin/mariadbd --no-defaults "${user[@]}" --datadir="$work/my/data" --socket="$work/my/socket" \
    --port="$MY_PORT" --bind-address=127.0.0.1 --skip-name-resolve --pid-file="$work/my/pid" \
    --log-error="$work/my/server.log" --skip-log-bin --innodb-buffer-pool-size=32M \
    --innodb-log-file-size=16M --innodb-flush-log-at-trx-commit=0 > /dev/null 2>&1 &
  db_pids+=($!)
  db_signals+=(TERM)
  if ! wait_until 30 mariadb-admin --no-defaults -uroot --socket="$work/my/socket" ping; then
    echo "MariaDB did not start:"; cat "$work/my/server.log"; return 1
  fi
  mariadb_root -e "CREATE DATABASE cvml CHARACTER SET utf8mb4 COLLATE utf8mb4_bin;
    CREATE USER cvml@'127.0.0.1' IDENTIFIED BY 'secret';
    GRANT ALL ON cvml.* TO cvml@'127.0.0.1';"
}

mariadb_root() { mariadb --no-defaults -uroot --socket="$work/my/socket" "$@"; }
mariadb_run() { mariadb --no-defaults -h 127.0.0.1 -P "$MY_PORT" -ucvml -psecret "$MY_DATABASE" "$@"; }

# ---- both ---------------------------------------------------------------

# db_stop_all: asks each server to stop, waits up to 15 s, then kills it.
db_stop_all() {
  local pid i n
  for n in "${!db_pids[@]}"; do kill -"${db_signals[$n]}" "${db_pids[$n]}" 2>/dev/null; done
  for pid in "${db_pids[@]}"; do
    for i in $(seq 150); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
  done
  db_pids=()
  db_signals=()
}

# odbc_driver NAME: the path of an ODBC driver library, or nothing.
odbc_driver() {
  local candidate
  for candidate in /usr/lib/*/odbc/"$1" /usr/lib/odbc/"$1" /usr/local/lib/odbc/"$1"; do
    if [ -f "$candidate" ]; then echo "$candidate"; return 0; fi
  done
  return 1
}
