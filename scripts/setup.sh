#!/usr/bin/env bash
# Installs the Debian packages CVML needs to build, test, serve and benchmark.
# Idempotent: when everything is present it only checks and changes nothing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build clang libclang-rt-14-dev libgtest-dev
  libgmp-dev libmpfr-dev libpcre2-dev unixodbc-dev odbcinst libsqliteodbc
  sqlite3 lighttpd php-cgi hyperfine curl valgrind python3
  postgresql odbc-postgresql mariadb-server odbc-mariadb time  # database system tests
  # network clients (TLS) and their real-server tests:
  libssl-dev openssl ca-certificates nginx-light apache2 postfix dovecot-core dovecot-pop3d vsftpd
)
# --- benchmark tools (bench/run.sh, bench/fastcgi.sh) ---
packages+=(php-sqlite3 php-fpm wrk time)
# --- end of benchmark tools ---

missing=()
for pkg in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$pkg")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)

# Package scripts would start lighttpd as a system service on port 80; the
# project runs its own instances on free ports, so keep daemons from starting
# during the install (only when the machine has no policy of its own).
policy=/usr/sbin/policy-rc.d
own_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | "${sudo[@]}" tee "$policy" >/dev/null
  "${sudo[@]}" chmod 755 "$policy"
  own_policy=1
fi
cleanup() { [ $own_policy -eq 1 ] && "${sudo[@]}" rm -f "$policy"; true; }
trap cleanup EXIT

export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y --no-install-recommends "${missing[@]}"
echo "setup: done"
