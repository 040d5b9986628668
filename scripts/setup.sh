#!/usr/bin/env bash
# Installs the Debian packages a job needs, and only those:
#   scripts/setup.sh run     build cvml and serve the demo site (scripts/run.sh)
#   scripts/setup.sh test    the above and the test tools (scripts/test.sh)
#   scripts/setup.sh bench   the above and the benchmark tools (bench/run.sh)
#   scripts/setup.sh         all of them
# Idempotent: when everything is present it only checks and changes nothing.
# As root it installs with apt-get, otherwise through sudo; without either it
# prints the apt-get command to run and stops.
set -euo pipefail

# Package lists: one package a line, each block for one purpose.  Add new
# packages to the block that needs them (or a new block, named in
# packages_for below), one a line.

# ==== run: building cvml ====
run_build="
build-essential
cmake
ninja-build
libgmp-dev
libmpfr-dev
libpcre2-dev
unixodbc-dev
libssl-dev
libfcgi-dev
"

# ==== run: serving the demo site ====
run_serve="
lighttpd
curl
odbcinst
libsqliteodbc
sqlite3
"

# ==== test: building and running the tests ====
test_tools="
clang
libclang-rt-14-dev
libgtest-dev
valgrind
python3
"

# ==== test: stock web servers and the package ====
test_servers="
apache2
nginx
fcgiwrap
lintian
man-db
"

# ==== test: real database servers ====
test_databases="
postgresql
odbc-postgresql
mariadb-server
odbc-mariadb
time
"

# ==== test: real mail, web and file servers for the network clients ====
test_network="
openssl
ca-certificates
nginx-light
postfix
dovecot-core
dovecot-pop3d
vsftpd
"

# ==== test: screenshots of the demo site ====
test_browser="
chromium
fonts-dejavu-core
"

# ==== bench: benchmarks ====
bench_tools="
php-cgi
php-sqlite3
php-fpm
wrk
time
hyperfine
"

packages_for() {
  case $1 in
    run) echo "$run_build $run_serve" ;;
    test) echo "$run_build $run_serve $test_tools $test_servers $test_databases $test_network $test_browser" ;;
    bench) echo "$run_build $run_serve $bench_tools" ;;
    all) echo "$run_build $run_serve $test_tools $test_servers $test_databases $test_network $test_browser $bench_tools" ;;
    *) echo "usage: $0 [run|test|bench]" >&2; return 2 ;;
  esac
}

job=${1:-all}
list=$(packages_for "$job") || exit 2
read -r -a packages <<< "$(echo $list)"

missing=()
for pkg in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$pkg")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages for '$job' present"
  exit 0
fi

apt_options=(-o DPkg::Lock::Timeout=900)
install_line="apt-get ${apt_options[*]} install -y --no-install-recommends ${missing[*]}"
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "setup: missing packages for '$job': ${missing[*]}" >&2
    echo "setup: not root and no sudo; as root, run:" >&2
    echo "  apt-get ${apt_options[*]} update && $install_line" >&2
    exit 1
  fi
  sudo=(sudo)
fi
echo "setup: installing ${missing[*]}"

# Package scripts would start lighttpd, Apache or nginx as system services
# on port 80; the project runs its own instances on free ports, so keep
# daemons from starting during the install (only when the machine has no
# policy of its own).
policy=/usr/sbin/policy-rc.d
own_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | "${sudo[@]}" tee "$policy" >/dev/null
  "${sudo[@]}" chmod 755 "$policy"
  own_policy=1
fi
cleanup() { [ $own_policy -eq 1 ] && "${sudo[@]}" rm -f "$policy"; true; }
trap cleanup EXIT

"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${apt_options[@]}" update
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get "${apt_options[@]}" install -y --no-install-recommends "${missing[@]}"
echo "setup: done"
