#!/usr/bin/env bash
# Runs one page case: NAME.cvm with optional NAME.env (one VAR=value per line,
# @DIR@ standing for the case's directory), NAME.in (standard input) and
# NAME.args (the arguments, one a line, in place of the page's name; an empty
# file runs without arguments), and compares standard output with NAME.out.
# Timings in the statistics and the case's directory are masked so the
# expected texts are stable.
# A third argument "general" runs the page on the engine's general path
# alone (CVML_GENERAL_PATH=1), which must print exactly the same.
set -u
cvml=$1
page=$2
mode=${3:-compiled}
dir=$(cd "$(dirname "$page")" && pwd)
base=${page%.cvm}
name=$(basename "$page")
expected=$base.out

envs=(PATH=/usr/bin:/bin)
[ "$mode" = general ] && envs+=(CVML_GENERAL_PATH=1)
# The page runs in a cleared environment, but sanitizer settings from the
# test command must still reach it.
for var in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
  [ -n "${!var:-}" ] && envs+=("$var=${!var}")
done
if [ -f "$base.env" ]; then
  while IFS= read -r line || [ -n "$line" ]; do
    [ -z "$line" ] && continue
    envs+=("${line//@DIR@/$dir}")
  done < "$base.env"
fi
input=/dev/null
[ -f "$base.in" ] && input=$dir/${name%.cvm}.in

args=("$name")
if [ -f "$base.args" ]; then
  args=()
  while IFS= read -r line || [ -n "$line" ]; do
    args+=("${line//@DIR@/$dir}")
  done < "$base.args"
fi

actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
if grep -q '^DOCUMENT_ROOT=' "$base.env" 2>/dev/null; then
  (cd "$dir" && env -i "${envs[@]}" timeout 20 "$cvml" < "$input") > "$actual"
else
  (cd "$dir" && env -i "${envs[@]}" timeout 20 "$cvml" ${args[@]+"${args[@]}"} < "$input") > "$actual"
fi
status=$?
if [ $status -ne 0 ]; then
  echo "cvml exited with status $status (expected 0)"
fi
masked=$(mktemp)
trap 'rm -f "$actual" "$masked"' EXIT
sed -e "s#$dir#@DIR@#g" -e 's/ - [0-9][0-9]*ms$/ - Nms/' "$actual" > "$masked"
if ! cmp -s "$masked" "$expected"; then
  echo "output of $page differs from $expected:"
  diff -u "$expected" "$masked" | cat -A | head -n 80
  exit 1
fi
exit $status
