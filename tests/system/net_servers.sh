#!/usr/bin/env bash
# Shared by the real-server network tests (net_*_test.sh): a private work
# directory, free ports, a test certificate authority made with the openssl
# command, bounded readiness waits, running a page, and the manual's
# "cvml-live" examples rewritten for the servers of the run.
#
# Source it after setting `cvml` (the program) and `root` (the repository).

# A work directory the servers' own users can enter (mktemp gives 0700).
net_work_dir() {
  NET_WORK=$(mktemp -d /tmp/cvml-net.XXXXXX)
  chmod 755 "$NET_WORK"
}

# Prints COUNT ports that were free a moment ago, one a line.
net_free_ports() {
  python3 - "$1" <<'PY'
import socket, sys
held = []
for _ in range(int(sys.argv[1])):
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    held.append(s)
    print(s.getsockname()[1])
PY
}

# Waits (at most 20 seconds) until 127.0.0.1:PORT accepts; gives up at once
# when the process PID, if given, has ended.
net_wait_port() {
  local port=$1 pid=${2:-} i
  for ((i = 0; i < 200; i++)); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return 0
    if [ -n "$pid" ] && ! kill -0 "$pid" 2>/dev/null; then
      echo "the server for port $port has ended" >&2
      return 1
    fi
    sleep 0.1
  done
  echo "nothing listens on port $port after 20s" >&2
  return 1
}

# Makes DIR/ca.pem (a test CA) and DIR/server.pem + DIR/server.key, a
# certificate it signed for localhost, 127.0.0.1 and the example names the
# manual uses.
net_make_ca() {
  local dir=$1
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
    -subj "/CN=CVML test CA" -keyout "$dir/ca.key" -out "$dir/ca.pem" 2>/dev/null || return 1
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj "/CN=localhost" \
    -keyout "$dir/server.key" -out "$dir/server.csr" 2>/dev/null || return 1
  printf '%s\n' "subjectAltName=DNS:localhost,IP:127.0.0.1,DNS:www.example.com,DNS:mail.example.com,DNS:ftp.example.com" \
    "basicConstraints=CA:FALSE" "extendedKeyUsage=serverAuth" > "$dir/server.ext"
  openssl x509 -req -in "$dir/server.csr" -CA "$dir/ca.pem" -CAkey "$dir/ca.key" -CAcreateserial -days 2 \
    -extfile "$dir/server.ext" -out "$dir/server.pem" 2>/dev/null || return 1
  chmod 644 "$dir/server.key" "$dir/server.pem" "$dir/ca.pem"
}

# Runs the page FILE with cvml in a clean environment plus any VAR=value
# arguments; its output goes to standard output.
net_run_page() {
  local page=$1 envs=(PATH=/usr/bin:/bin) var
  shift
  for var in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
    [ -n "${!var:-}" ] && envs+=("$var=${!var}")
  done
  (cd "$(dirname "$page")" && env -i "${envs[@]}" "$@" timeout 60 "$cvml" "$(basename "$page")")
}

NET_FAILURES=0
# net_expect NAME TEXT FILE: FILE must contain TEXT (a fixed string).
net_expect() {
  if ! grep -qF -- "$2" "$3"; then
    echo "$1: '$2' not found in $(basename "$3"):"
    head -c 3000 "$3" | cat -A | head -n 40
    NET_FAILURES=$((NET_FAILURES + 1))
  fi
}
# net_refuse NAME TEXT FILE: FILE must not contain TEXT.
net_refuse() {
  if grep -qF -- "$2" "$3"; then
    echo "$1: '$2' found in $(basename "$3")"
    NET_FAILURES=$((NET_FAILURES + 1))
  fi
}
# A page's output must hold no error report.
net_expect_clean() {
  if grep -qE "^Error|^Error in " "$2"; then
    echo "$1: the page reported an error:"
    head -c 3000 "$2" | head -n 30
    NET_FAILURES=$((NET_FAILURES + 1))
  fi
}

# Writes each ```cvml-live block of the manual (every .md file below DOCS)
# whose text holds protocol="PROTOCOL" (any case) as OUTDIR/PROTOCOL-N.cvm
# and prints the file names, one a line.
net_live_examples() {
  local docs=$1 protocol=$2 outdir=$3
  find "$docs" -name '*.md' | sort | xargs cat | awk -v dir="$outdir" -v protocol="$protocol" '
    /^```cvml-live/ { inside = 1; text = ""; next }
    /^```/ && inside {
      inside = 0
      if (index(tolower(text), "protocol=\"" tolower(protocol) "\"")) {
        n++
        file = dir "/" protocol "-" n ".cvm"
        printf "%s", text > file
        close(file)
        print file
      }
      next
    }
    inside { text = text $0 "\n" }
  '
}
