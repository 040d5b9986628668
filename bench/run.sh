#!/usr/bin/env bash
# Times cvml against PHP on equivalent pages, as whole processes in CGI-like
# conditions.  Every bench/<name>.cvm with a bench/<name>.php beside it is one
# benchmark; a bench/<name>.c, when present, is a program that prints the same
# response without doing any work, the floor set by process start-up.
#
# Usage: bench/run.sh [name]     (no name: every pair)
# Environment: CVML (binary, default build/cvml, built when missing),
#              BENCH_RUNS (default 300), BENCH_WARMUP (default 20).
#
# Both engines run in CGI mode, as a web server would start them: no
# arguments, the request in the environment (DOCUMENT_ROOT, REQUEST_METHOD=GET,
# QUERY_STRING), cvml finding its page through PATH_TRANSLATED and php-cgi
# through SCRIPT_FILENAME with REDIRECT_STATUS set (php-cgi refuses CGI requests
# without it).  php-cgi reads the system's php.ini, as it would when deployed.
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
runs=${BENCH_RUNS:-300}
warmup=${BENCH_WARMUP:-20}
query="name=World"

"$root/scripts/setup.sh" >&2 || { echo "set-up failed" >&2; exit 1; }
cvml=${CVML:-$root/build/cvml}
if [ -z "${CVML:-}" ]; then
  if [ ! -f "$root/build/build.ninja" ]; then
    cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2 || exit 1
  fi
  ninja -C "$root/build" cvml >&2 || { echo "build failed" >&2; exit 1; }
fi
[ -x "$cvml" ] || { echo "no cvml binary at $cvml" >&2; exit 1; }
php=$(command -v php-cgi) || { echo "php-cgi is not installed" >&2; exit 1; }

if [ $# -ge 1 ]; then
  names=("$1")
  [ -f "$here/$1.cvm" ] && [ -f "$here/$1.php" ] ||
    { echo "no benchmark pair bench/$1.cvm + bench/$1.php" >&2; exit 1; }
else
  names=()
  for page in "$here"/*.cvm; do
    name=$(basename "$page" .cvm)
    [ -f "$here/$name.php" ] && names+=("$name")
  done
fi
[ ${#names[@]} -gt 0 ] || { echo "no benchmark pairs in bench/" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

export DOCUMENT_ROOT=$here REQUEST_METHOD=GET QUERY_STRING=$query REDIRECT_STATUS=200

# body_of FILE: the response without its header block (CRLF or LF lines).
body_of() { sed '1,/^\r\{0,1\}$/d' "$1"; }

# mean_of CSV NAME: the mean time in seconds of the command named NAME.
mean_of() { awk -F, -v n="$2" '$1 == n { print $2 }' "$1"; }

# ratio A B: A/B to two places.
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "n/a" }'; }
ms() { awk -v s="$1" 'BEGIN { printf "%.3f ms", s * 1000 }'; }

summary=()
for name in "${names[@]}"; do
  export PATH_TRANSLATED=$here/$name.cvm SCRIPT_FILENAME=$here/$name.php
  commands=(--command-name cvml "$cvml" --command-name php "$php")
  "$cvml" > "$work/$name.cvml.out" 2>&1
  "$php" > "$work/$name.php.out" 2>&1
  if ! cmp -s <(body_of "$work/$name.cvml.out") <(body_of "$work/$name.php.out"); then
    echo "WARNING: $name.cvm and $name.php produce different bodies:" >&2
    diff <(body_of "$work/$name.cvml.out") <(body_of "$work/$name.php.out") | head -n 20 >&2
  fi
  has_c=0
  if [ -f "$here/$name.c" ]; then
    cc -O2 -o "$work/$name-c" "$here/$name.c" || { echo "cannot compile $name.c" >&2; exit 1; }
    "$work/$name-c" > "$work/$name.c.out"
    if ! cmp -s <(body_of "$work/$name.cvml.out") <(body_of "$work/$name.c.out"); then
      echo "WARNING: $name.c prints a different body from $name.cvm" >&2
    fi
    commands+=(--command-name c "$work/$name-c")
    has_c=1
  fi

  echo "==== $name ===="
  hyperfine -N --warmup "$warmup" --runs "$runs" --export-csv "$work/$name.csv" \
    --export-json "$work/$name.json" "${commands[@]}" || { echo "hyperfine failed" >&2; exit 1; }
  t_cvml=$(mean_of "$work/$name.csv" cvml)
  t_php=$(mean_of "$work/$name.csv" php)
  line="$name: cvml $(ms "$t_cvml"), php $(ms "$t_php"), php/cvml $(ratio "$t_php" "$t_cvml")"
  if [ $has_c -eq 1 ]; then
    t_c=$(mean_of "$work/$name.csv" c)
    line+=", c $(ms "$t_c"), cvml/c $(ratio "$t_cvml" "$t_c")"
  fi
  summary+=("$line")
done

echo
echo "==== mean times (php/cvml > 1: cvml is faster; cvml/c: cost over a bare process) ===="
printf '%s\n' "${summary[@]}"
