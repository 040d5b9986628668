#!/usr/bin/env bash
# Shared by the Apache tests (apache_test.sh, fastcgi_apache_test.sh).
# Source it after server_checks.sh, with `work` set; it defines:
#   apache_start PORT MODULES INCLUDE [EXTRA]
#       a stock Apache 2.4 on 127.0.0.1:PORT with its own configuration, pid
#       and log files in $work, $work/site as the document root, the
#       modules named (mpm_prefork loads mod_mpm_prefork.so), the snippet
#       INCLUDE and any EXTRA lines; fails, showing the logs, when it does
#       not answer within 10 s
#   apache_stop   stops it (from the script's EXIT trap)
apache=$(command -v apache2 || echo /usr/sbin/apache2)
apache_modules=/usr/lib/apache2/modules

apache_start() {
  local port=$1 modules=$2 include=$3 extra=${4:-} module loads="" user_lines=""
  # Apache's children drop to www-data when started as root.
  [ "$(id -u)" = 0 ] && user_lines=$'User www-data\nGroup www-data'
  for module in $modules; do loads+="LoadModule ${module}_module $apache_modules/mod_$module.so"$'\n'; done
  cat > "$work/httpd.conf" <<CONF
ServerRoot "$work"
ServerName 127.0.0.1
Listen 127.0.0.1:$port
PidFile "$work/httpd.pid"
ErrorLog "$work/error.log"
LogLevel warn
$user_lines
$loads
TypesConfig /etc/mime.types
DocumentRoot "$work/site"
<Directory />
    Require all denied
</Directory>
<Directory "$work/site">
    Require all granted
</Directory>
Include "$include"
$extra
CONF
  "$apache" -f "$work/httpd.conf" -k start > "$work/start.log" 2>&1
  for _ in $(seq 1 50); do [ -s "$work/httpd.pid" ] && break; sleep 0.1; done
  if [ ! -s "$work/httpd.pid" ] || ! wait_for_port "$port" "$(cat "$work/httpd.pid")"; then
    echo "FAIL: apache2 did not start:"; cat "$work/start.log" "$work/error.log" 2>/dev/null
    return 1
  fi
}

apache_stop() {
  local pid
  pid=$(cat "$work/httpd.pid" 2>/dev/null)
  if [ -n "$pid" ]; then
    kill "$pid" 2>/dev/null
    for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  fi
}
