#!/usr/bin/env bash
# Times cvml against PHP as whole processes in CGI-like conditions and prints
# one table of every benchmark, with the machine it ran on.
#
# Usage: bench/run.sh [name...]     (no name: all of them, in this order)
#   hello      a small page; also against a C program printing the same bytes
#   loop       100,000 loop passes          loop1m   1,000,000 passes
#   variables  assignments, elements, hash entries, substrings
#   rows       a 1,000-row SQLite table read through ODBC and printed as an
#              HTML table (PHP: PDO SQLite)
#   strings    replace, find, case, HTML-safe and URL encoding in a loop
#   memory     peak RSS of a page that fills a 1,000,000-element list (it
#              makes the list at its full length, then sets every element
#              to a number)
#   depth      1,000 / 10,000 / 100,000 nested CVIF blocks (generated pages)
#   append     10,000 / 100,000 / 1,000,000 list appends in a loop
# Any other bench/<name>.cvm with a bench/<name>.php beside it is timed as a
# pair too.
#
# Environment:
#   CVML              the binary (default build/cvml, built when missing)
#   BENCH_SECONDS     time to spend on each timed command (default 10): the
#                     run count is this divided by the slower command's time,
#                     bounded by BENCH_MIN_RUNS (default 3) and BENCH_RUNS
#                     (default 300)
#   BENCH_WARMUP      at most this many warm-up runs (default 20; a tenth of
#                     the run count, at least 1)
#   BENCH_TIMEOUT     seconds after which one run is stopped (default 60); a
#                     size of depth or append that takes longer is shown as
#                     "> 60 s" and its larger sizes are not run
#   BENCH_SCALE_RUNS  runs of each memory, depth and append page, the best
#                     kept (default 1)
#   BENCH_KEEP        when set, the run's directory (outputs, hyperfine's CSV
#                     files, generated pages) is kept and named
#
# Both engines run in CGI mode, as a web server would start them: no
# arguments, the request in the environment (DOCUMENT_ROOT, REQUEST_METHOD=GET,
# QUERY_STRING), each finding its page through SCRIPT_FILENAME, php-cgi
# with REDIRECT_STATUS set (php-cgi refuses CGI requests
# without it).  php-cgi reads the system's php.ini, as it would when deployed.
# Each pair's bodies are compared before it is timed; a difference is shown in
# the table and makes the exit status 1.  The table goes to standard output,
# hyperfine's own reports and progress to standard error.
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
. "$here/common.sh"

budget=${BENCH_SECONDS:-10}
runs_min=${BENCH_MIN_RUNS:-3}
runs_max=${BENCH_RUNS:-300}
warmup_max=${BENCH_WARMUP:-20}
limit=${BENCH_TIMEOUT:-60}
scale_runs=${BENCH_SCALE_RUNS:-1}
query="name=World"

"$root/scripts/setup.sh" >&2 || { echo "set-up failed" >&2; exit 1; }
cvml=${CVML:-$root/build/cvml}
if [ -z "${CVML:-}" ]; then
  if [ ! -f "$root/build/build.ninja" ]; then
    cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2 || exit 1
  fi
  nice -n 10 ninja -C "$root/build" cvml >&2 || { echo "build failed" >&2; exit 1; }
fi
[ -x "$cvml" ] || { echo "no cvml binary at $cvml" >&2; exit 1; }
cvml=$(cd "$(dirname "$cvml")" && pwd)/$(basename "$cvml")
php=$(command -v php-cgi) || { echo "php-cgi is not installed" >&2; exit 1; }
for tool in hyperfine cc sqlite3 awk; do
  command -v "$tool" >/dev/null || { echo "$tool is not installed" >&2; exit 1; }
done

special=(memory depth append)
order=(hello loop loop1m variables rows strings memory depth append)
is_special() { local s; for s in "${special[@]}"; do [ "$s" = "$1" ] && return 0; done; return 1; }
known() {
  is_special "$1" && return 0
  [ -f "$here/$1.cvm" ] && [ -f "$here/$1.php" ]
}

names=()
if [ $# -ge 1 ]; then
  for name in "$@"; do
    known "$name" || { echo "no benchmark $name (see the list at the top of $0)" >&2; exit 1; }
    names+=("$name")
  done
else
  for name in "${order[@]}"; do known "$name" && names+=("$name"); done
  for page in "$here"/*.cvm; do
    name=$(basename "$page" .cvm)
    case " ${order[*]} " in *" $name "*) continue ;; esac
    [ -f "$here/$name.php" ] && names+=("$name")
  done
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/cvml-bench.XXXXXX")
if [ -n "${BENCH_KEEP:-}" ]; then
  echo "keeping the outputs, hyperfine's CSV files and the generated pages in $work" >&2
else
  trap 'rm -rf "$work"' EXIT
fi
mkdir -p "$work/pages"
cc -O2 -o "$work/measure" "$here/measure.c" || { echo "cannot compile bench/measure.c" >&2; exit 1; }

export REQUEST_METHOD=GET QUERY_STRING=$query REDIRECT_STATUS=200
machine=$(bench_machine)
versions=$(bench_versions)
status=0
rows=()     # table rows, in order
notes=()    # lines printed under the table

# ---- formatting -------------------------------------------------------------

# fmt_time SECONDS [STDDEV]: "285 ms ± 9", "3.12 s ± 0.05", "0.95 ms".
fmt_time() {
  awk -v t="$1" -v d="${2:-}" 'BEGIN {
    if (t >= 10)       { u = 1;    f = "%.1f"; n = "s" }
    else if (t >= 1)   { u = 1;    f = "%.2f"; n = "s" }
    else if (t >= 0.1) { u = 1000; f = "%.0f"; n = "ms" }
    else if (t >= 0.01){ u = 1000; f = "%.1f"; n = "ms" }
    else               { u = 1000; f = "%.2f"; n = "ms" }
    s = sprintf(f " %s", t * u, n)
    if (d != "") s = s sprintf(" ± " f, d * u)
    print s }'
}
# per_unit SECONDS COUNT: the time per unit, in ns or µs.
per_unit() {
  awk -v t="$1" -v n="$2" 'BEGIN { p = t / n
    if (p < 1e-6) printf "%.0f ns", p * 1e9; else if (p < 1e-4) printf "%.2f µs", p * 1e6
    else if (p < 1e-3) printf "%.0f µs", p * 1e6; else printf "%.2f ms", p * 1e3 }'
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "n/a" }'; }
mib() { awk -v k="$1" 'BEGIN { printf "%.1f MiB", k / 1024 }'; }
grouped() { echo "$1" | sed ':a; s/\([0-9]\)\([0-9]\{3\}\)\($\|,\)/\1,\2\3/; ta'; }
# goal_cell VALUE LIMIT TEXT: TEXT with "met" or "missed".
goal_cell() {
  if awk -v v="$1" -v l="$2" 'BEGIN { exit !(v != "n/a" && v <= l) }'; then
    echo "$3: met"
  else
    echo "$3: missed"
  fi
}
row() { local line="|" cell; for cell in "$@"; do line+=" $cell |"; done; rows+=("$line"); }

# ---- running ----------------------------------------------------------------

# run_once OUT ENV... -- CMD...: runs CMD once with the extra environment and
# the time-out (bench/measure.c); sets RC (124: time-out), T (wall seconds),
# CPU (user + system seconds) and RSS (peak KiB).
run_once() {
  local out=$1; shift
  local envs=()
  while [ "$1" != "--" ]; do envs+=("$1"); shift; done
  shift
  RC=2; T=0; CPU=0; RSS=0
  env "${envs[@]}" "$work/measure" "$limit" "$work/report" "$@" > "$out" 2>"$out.err"
  read -r RC T CPU RSS < "$work/report"
}

# check_bodies NAME A B: compares two responses' bodies; prints nothing and
# succeeds when they match.
check_bodies() {
  if cmp -s <(bench_body "$2") <(bench_body "$3"); then return 0; fi
  echo "WARNING: $1: the bodies differ:" >&2
  diff <(bench_body "$2") <(bench_body "$3") | head -n 20 >&2
  status=1
  return 1
}

# cgi_env NAME: sets env_cvml and env_php to the request environments for
# bench/NAME.cvm and bench/NAME.php, each as a web server would give it to a
# handler of its page (SCRIPT_FILENAME naming the page).
cgi_env() {
  env_cvml=("DOCUMENT_ROOT=$here" "SCRIPT_FILENAME=$here/$1.cvm")
  env_php=("DOCUMENT_ROOT=$here" "SCRIPT_FILENAME=$here/$1.php")
}

what_of() {
  case $1 in
    hello) echo "small page, one variable and one condition" ;;
    loop) echo "100,000 loop passes" ;;
    loop1m) echo "1,000,000 loop passes" ;;
    variables) echo "20,000 passes of assignments, elements, hash entries, substrings" ;;
    rows) echo "1,000 SQLite rows (ODBC / PDO) as an HTML table" ;;
    strings) echo "10,000 passes of replace, find, case, HTML-safe, URL encoding" ;;
    *) echo "bench/$1.cvm against bench/$1.php" ;;
  esac
}
goal_of() {
  case $1 in loop|loop1m|variables|rows|strings) echo 1.0 ;; *) echo "" ;; esac
}

# A pair: both pages once (their bodies compared, their times a probe for the
# run count), then hyperfine with both in one run.
bench_pair() {
  local name=$1 env_cvml env_php t_c t_p slow runs warm mismatch="" extra=() common=()
  cgi_env "$name"
  [ "$name" = rows ] && common=("BENCH_SQLITE=$BENCH_SQLITE" "ODBCSYSINI=$ODBCSYSINI" "ODBCINI=$ODBCINI")
  env_cvml+=("${common[@]}"); env_php+=("${common[@]}")
  echo "== $name" >&2
  run_once "$work/$name.cvml.out" "${env_cvml[@]}" -- "$cvml"; t_c=$T
  if [ $RC -eq 124 ]; then
    row "$name" "$(what_of "$name")" "> $limit s (time-out)" "" "" "" "≤ $(goal_of "$name"): not measured" 1
    status=1; return
  fi
  run_once "$work/$name.php.out" "${env_php[@]}" -- "$php"; t_p=$T
  check_bodies "$name" "$work/$name.cvml.out" "$work/$name.php.out" || mismatch=" (bodies differ)"
  if [ -f "$here/$name.c" ]; then
    cc -O2 -o "$work/$name-c" "$here/$name.c" || { echo "cannot compile $name.c" >&2; exit 1; }
    "$work/$name-c" > "$work/$name.c.out"
    check_bodies "$name.c" "$work/$name.cvml.out" "$work/$name.c.out"
    extra=(--command-name c "$work/$name-c")
  fi
  slow=$(awk -v a="$t_c" -v b="$t_p" 'BEGIN { print (a > b ? a : b) }')
  runs=$(awk -v b="$budget" -v s="$slow" -v lo="$runs_min" -v hi="$runs_max" \
    'BEGIN { n = int(b / (s > 0 ? s : 0.001)); if (n < lo) n = lo; if (n > hi) n = hi; print n }')
  warm=$(( runs / 10 )); [ $warm -lt 1 ] && warm=1; [ $warm -gt "$warmup_max" ] && warm=$warmup_max
  # hyperfine gives every command one environment: one run for each side,
  # back to back, with one table of results.
  env "${env_cvml[@]}" hyperfine -N --style basic --warmup "$warm" --runs "$runs" \
    --export-csv "$work/$name.cvml.csv" --command-name cvml "$cvml" "${extra[@]}" >&2 &&
  env "${env_php[@]}" hyperfine -N --style basic --warmup "$warm" --runs "$runs" \
    --export-csv "$work/$name.php.csv" --command-name php "$php" >&2 ||
    { echo "hyperfine failed on $name" >&2; status=1; return; }
  { cat "$work/$name.cvml.csv"; tail -n +2 "$work/$name.php.csv"; } > "$work/$name.csv"
  local mc sc cc mp sp cp r goal csv=$work/$name.csv
  mc=$(awk -F, '$1 == "cvml" { print $2 }' "$csv"); sc=$(awk -F, '$1 == "cvml" { print $3 }' "$csv")
  cc=$(awk -F, '$1 == "cvml" { print $5 + $6 }' "$csv")
  mp=$(awk -F, '$1 == "php" { print $2 }' "$csv"); sp=$(awk -F, '$1 == "php" { print $3 }' "$csv")
  cp=$(awk -F, '$1 == "php" { print $5 + $6 }' "$csv")
  r=$(ratio "$mc" "$mp")
  goal=$(goal_of "$name")
  if [ -n "$goal" ]; then goal=$(goal_cell "$r" "$goal" "≤ $goal"); else goal="–"; fi
  row "$name" "$(what_of "$name")" "$(fmt_time "$mc" "$sc")" "$(fmt_time "$mp" "$sp")" "$r$mismatch" \
    "$(ratio "$cc" "$cp")" "$goal" "$runs"
  if [ ${#extra[@]} -gt 0 ]; then
    local m0
    m0=$(awk -F, '$1 == "c" { print $2 }' "$work/$name.csv")
    notes+=("$name: a C program printing the same response takes $(fmt_time "$m0"), the floor set by process start-up (cvml/c $(ratio "$mc" "$m0")).")
  fi
}

# best_of N OUT ENV... -- CMD...: run_once N times (stopping at a time-out),
# keeping the lowest wall time, CPU time and peak RSS; OUT gets the first
# run's output.
best_of() {
  local n=$1 out=$2 i bt="" bc="" brss=""
  shift 2
  for i in $(seq 1 "$n"); do
    run_once "$out.$i" "$@"
    [ "$i" -eq 1 ] && cp "$out.1" "$out"
    [ "$RC" -eq 124 ] && return
    if [ -z "$bt" ] || awk -v a="$T" -v b="$bt" 'BEGIN { exit !(a < b) }'; then bt=$T; fi
    if [ -z "$bc" ] || awk -v a="$CPU" -v b="$bc" 'BEGIN { exit !(a < b) }'; then bc=$CPU; fi
    if [ -z "$brss" ] || [ "$RSS" -lt "$brss" ]; then brss=$RSS; fi
  done
  T=$bt; CPU=$bc; RSS=$brss
}

bench_memory() {
  local env_cvml env_php t_c c_c rss_c t_p c_p rss_p mismatch="" r
  cgi_env memory
  echo "== memory" >&2
  best_of "$scale_runs" "$work/memory.cvml.out" "${env_cvml[@]}" -- "$cvml"
  if [ $RC -eq 124 ]; then
    row memory "peak RSS, a 1,000,000-element list of numbers" "> $limit s (time-out)" "" "" "" "≤ 64 MiB: not measured" "$scale_runs"
    status=1; return
  fi
  t_c=$T; c_c=$CPU; rss_c=$RSS
  best_of "$scale_runs" "$work/memory.php.out" "${env_php[@]}" -- "$php"
  t_p=$T; c_p=$CPU; rss_p=$RSS
  check_bodies memory "$work/memory.cvml.out" "$work/memory.php.out" || mismatch=" (bodies differ)"
  r=$(ratio "$rss_c" "$rss_p")
  row memory "peak RSS, a 1,000,000-element list of numbers" "$(mib "$rss_c") ($(fmt_time "$t_c"))" \
    "$(mib "$rss_p") ($(fmt_time "$t_p"))" "$r$mismatch" "$(ratio "$c_c" "$c_p")" \
    "$(goal_cell "$(awk -v k="$rss_c" 'BEGIN { print k / 1024 }')" 64 "≤ 64 MiB")" "$scale_runs"
}

# The generated pages: depth N nests N CVIF blocks around one line; append N
# appends N numbers to a list with CV-LIST.  Each prints a line that shows it
# ran to the end.
make_depth_page() {
  awk -v n="$1" 'BEGIN {
    printf "<CVDEBUG type=\"off\"><CVVAR var=\"d\" value=\"1\">"
    for (i = 0; i < n; i++) printf "<CVIF condition=\"<d> == 1\">"
    printf "depth %d\n", n
    for (i = 0; i < n; i++) printf "</CVIF>"
    printf "done\n" }' > "$2"
  printf 'depth %d\ndone\n' "$1" > "$3"
}
make_append_page() {
  printf '<CVDEBUG type="off"><CVFOR var="i" initial="0" condition="<i> < %d" increment="1"><CV-LIST operation="insert" listvar="l" location="last" var="i"></CVFOR>n=<l getsizex> last=<l element=[%d]>\n' \
    "$1" $(( $1 - 1 )) > "$2"
  printf 'n=%d last=%d.000000000000000\n' "$1" $(( $1 - 1 )) > "$3"
}

# bench_scale KIND UNIT WHAT SIZE...: one row per size, with the time per unit.
bench_scale() {
  local kind=$1 unit=$2 what=$3 size page expect first_t="" first_n="" last_t="" last_n="" over="" skipped=""
  shift 3
  echo "== $kind" >&2
  for size in "$@"; do
    page=$work/pages/$kind$size.cvm
    expect=$work/$kind$size.expected
    if [ -n "$over" ]; then
      skipped=1
      row "$kind $(grouped "$size")" "$what" "not run ($over took > $limit s)" "" "" "" "flat" 0
      continue
    fi
    "make_${kind}_page" "$size" "$page" "$expect"
    best_of "$scale_runs" "$work/$kind$size.out" "DOCUMENT_ROOT=$work/pages" "SCRIPT_FILENAME=$page" -- "$cvml"
    if [ $RC -eq 124 ]; then
      row "$kind $(grouped "$size")" "$what" "> $limit s (time-out)" "" "" "" "flat" "$scale_runs"
      over=$(grouped "$size")
      continue
    fi
    local bad=""
    if ! cmp -s <(bench_body "$work/$kind$size.out") "$expect"; then
      echo "WARNING: $kind $size: unexpected output:" >&2
      bench_body "$work/$kind$size.out" | head -c 2000 >&2
      bad=" (wrong output)"; status=1
    fi
    row "$kind $(grouped "$size")" "$what" \
      "$(fmt_time "$T") (CPU $(fmt_time "$CPU")), $(per_unit "$CPU" "$size") CPU/$unit, $(mib "$RSS")$bad" \
      "" "" "" "flat" "$scale_runs"
    if [ -z "$first_t" ]; then first_t=$CPU; first_n=$size; fi
    last_t=$CPU; last_n=$size
  done
  if [ -n "$last_n" ] && [ "$last_n" != "$first_n" ]; then
    notes+=("$kind: the CPU time per $unit at $(grouped "$last_n") is $(awk -v a="$last_t" -v an="$last_n" -v b="$first_t" -v bn="$first_n" \
      'BEGIN { printf "%.1f", (a / an) / (b / bn) }') times that at $(grouped "$first_n") (flat: about 1)${over:+; $over did not finish within $limit s}${skipped:+, larger sizes were not run}.")
  elif [ -n "$over" ]; then
    notes+=("$kind: $over did not finish within $limit s${skipped:+, larger sizes were not run}.")
  fi
}

# ---- the run ----------------------------------------------------------------

for name in "${names[@]}"; do
  case $name in
    rows)
      bench_make_database "$work/db" || { echo "cannot make the rows database" >&2; exit 1; }
      bench_pair rows ;;
    memory) bench_memory ;;
    depth) bench_scale depth block "nested CVIF blocks" 1000 10000 100000 ;;
    append) bench_scale append append "CV-LIST appends in a loop" 10000 100000 1000000 ;;
    *) bench_pair "$name" ;;
  esac
done

echo
echo "Machine: $machine"
echo "Versions: $versions"
echo
echo "| benchmark | what | cvml | php | cvml/php | CPU cvml/php | goal | runs |"
echo "|---|---|---|---|---|---|---|---|"
printf '%s\n' "${rows[@]}"
echo
echo "Times: wall time, mean ± standard deviation over the runs shown (hyperfine, whole"
echo "processes in CGI mode); cvml/php compares these, CPU cvml/php the user + system"
echo "time, which a busy machine disturbs less.  memory, depth and append: one run each"
echo "(the best of the runs shown) with its wall time, CPU time and peak RSS; the time"
echo "per block or append is CPU time."
[ ${#notes[@]} -gt 0 ] && printf '%s\n' "${notes[@]}"
exit $status
