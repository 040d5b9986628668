#!/usr/bin/env bash
# Starts and stops a private lighttpd that serves a directory with .cvm pages
# run by cvml through CGI, on 127.0.0.1 and a free port.
#
# As a library (source it):
#   lighttpd_start DOCROOT CVML   sets LIGHTTPD_PORT, LIGHTTPD_PID, LIGHTTPD_DIR
#                                 (LIGHTTPD_DIR/cgi-stderr.log collects what the
#                                 pages write to standard error)
#   lighttpd_stop                 stops it and removes the generated files
# As a command:
#   scripts/lighttpd.sh serve DOCROOT CVML   serves until Ctrl-C
#
# LIGHTTPD_CGI_TIMEOUT (seconds, default 30) bounds a page that never ends.
# LIGHTTPD_EXTRA_CONF, when set, holds configuration lines appended to the
# generated configuration (a test's own CGI handlers or parser options).

LIGHTTPD_PORT=
LIGHTTPD_PID=
LIGHTTPD_DIR=
LIGHTTPD_SNIPPET=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/packaging/lighttpd/10-cvml.conf

# Writes the configuration and the mime map into LIGHTTPD_DIR: the packaged
# snippet (packaging/lighttpd/10-cvml.conf) with this program in place of
# /usr/bin/cvml, as an administrator would include it.
lighttpd_configure() {
  local docroot=$1 cvml=$2 port=$3 env_lines="" var
  sed "s#/usr/bin/cvml#$cvml#" "$LIGHTTPD_SNIPPET" > "$LIGHTTPD_DIR/10-cvml.conf"

  # lighttpd gives CGI programs a clean environment; sanitizer settings of the
  # caller are handed on so a sanitizer build behaves the same under the server,
  # and so is the ODBC configuration that names the pages' data sources.
  for var in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS ODBCSYSINI ODBCINI; do
    [ -n "${!var:-}" ] && env_lines+="${env_lines:+, }\"$var\" => \"${!var}\""
  done

  cat > "$LIGHTTPD_DIR/lighttpd.conf" <<EOF
server.document-root = "$docroot"
server.bind = "127.0.0.1"
server.port = $port
server.errorlog = "$LIGHTTPD_DIR/error.log"
server.pid-file = "$LIGHTTPD_DIR/lighttpd.pid"
server.upload-dirs = ( "$LIGHTTPD_DIR" )
# What the pages write to standard error.
server.breakagelog = "$LIGHTTPD_DIR/cgi-stderr.log"
server.modules = ( "mod_indexfile", "mod_setenv", "mod_staticfile" )
index-file.names = ( "index.html" )
include "$LIGHTTPD_DIR/10-cvml.conf"
# A page that never ends is stopped when it has not answered for this long.
cgi.limits = ( "read-timeout" => ${LIGHTTPD_CGI_TIMEOUT:-30} )
setenv.add-environment = ( $env_lines )
mimetype.assign = (
  ".html" => "text/html", ".css" => "text/css", ".js" => "text/javascript",
  ".png" => "image/png", ".gif" => "image/gif", ".jpg" => "image/jpeg",
  ".svg" => "image/svg+xml", ".txt" => "text/plain", "" => "application/octet-stream"
)
EOF
  if [ -n "${LIGHTTPD_EXTRA_CONF:-}" ]; then
    printf '%s\n' "$LIGHTTPD_EXTRA_CONF" >> "$LIGHTTPD_DIR/lighttpd.conf"
  fi
}

# Succeeds when something already listens on 127.0.0.1:$1.
lighttpd_port_busy() {
  (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

lighttpd_start() {
  local docroot cvml attempt port i
  docroot=$(cd "$1" && pwd) || { echo "lighttpd.sh: no directory $1" >&2; return 1; }
  cvml=$(cd "$(dirname "$2")" && pwd)/$(basename "$2")
  [ -x "$cvml" ] || { echo "lighttpd.sh: $cvml is not an executable" >&2; return 1; }
  command -v lighttpd >/dev/null || { echo "lighttpd.sh: lighttpd is not installed" >&2; return 1; }
  LIGHTTPD_DIR=$(mktemp -d "${TMPDIR:-/tmp}/cvml-lighttpd.XXXXXX")

  # A random port may be taken between the check and the bind; then lighttpd
  # exits at once and another port is tried.
  for attempt in 1 2 3 4 5 6 7 8 9 10; do
    port=$(( 20000 + (RANDOM * 32768 + RANDOM) % 40000 ))
    lighttpd_port_busy "$port" && continue
    lighttpd_configure "$docroot" "$cvml" "$port"
    lighttpd -D -f "$LIGHTTPD_DIR/lighttpd.conf" < /dev/null > "$LIGHTTPD_DIR/stdout.log" 2>&1 &
    LIGHTTPD_PID=$!
    # Ready when it answers; bounded at about ten seconds.
    for i in $(seq 1 100); do
      if ! kill -0 "$LIGHTTPD_PID" 2>/dev/null; then break; fi
      if curl -s -o /dev/null --max-time 1 "http://127.0.0.1:$port/"; then
        LIGHTTPD_PORT=$port
        return 0
      fi
      sleep 0.1
    done
    kill "$LIGHTTPD_PID" 2>/dev/null
    wait "$LIGHTTPD_PID" 2>/dev/null
    LIGHTTPD_PID=
  done
  echo "lighttpd.sh: lighttpd did not start; its log:" >&2
  cat "$LIGHTTPD_DIR/stdout.log" "$LIGHTTPD_DIR/error.log" >&2 2>/dev/null
  rm -rf "$LIGHTTPD_DIR"
  LIGHTTPD_DIR=
  return 1
}

lighttpd_stop() {
  if [ -n "$LIGHTTPD_PID" ]; then
    kill "$LIGHTTPD_PID" 2>/dev/null
    wait "$LIGHTTPD_PID" 2>/dev/null
    LIGHTTPD_PID=
  fi
  if [ -n "$LIGHTTPD_DIR" ]; then
    rm -rf "$LIGHTTPD_DIR"
    LIGHTTPD_DIR=
  fi
  LIGHTTPD_PORT=
  return 0
}

# Command use: serve DOCROOT CVML.
if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  case ${1:-} in
    serve)
      [ $# -eq 3 ] || { echo "usage: $0 serve DOCROOT CVML" >&2; exit 2; }
      trap 'lighttpd_stop' EXIT
      trap 'exit 0' INT TERM
      lighttpd_start "$2" "$3" || exit 1
      echo "Serving $2 at http://127.0.0.1:$LIGHTTPD_PORT/  (Ctrl-C stops)"
      wait "$LIGHTTPD_PID"
      ;;
    *)
      echo "usage: $0 serve DOCROOT CVML  (or source it for lighttpd_start/lighttpd_stop)" >&2
      exit 2
      ;;
  esac
fi
