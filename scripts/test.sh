#!/usr/bin/env bash
# Runs every test: a normal build with all unit, page and system tests, then a
# sanitizer build (AddressSanitizer, UBSan, LeakSanitizer where it works) with
# the same tests and a bounded run of every fuzz target.
# Environment: FUZZ_SECONDS (per fuzz target, default 45), JOBS (default 2),
# BUILD_DIR and ASAN_BUILD_DIR (default build and build-asan).
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${JOBS:-2}
fuzz_seconds=${FUZZ_SECONDS:-45}
build=${BUILD_DIR:-build}
asan=${ASAN_BUILD_DIR:-build-asan}
failures=()
started=$(date +%s)

step() { printf '\n==== %s ====\n' "$*"; }
fail() { failures+=("$1"); echo "FAILED: $1"; }

step "set-up"
"$root/scripts/setup.sh" test || { echo "set-up failed"; exit 1; }

# configure <dir> [cmake args...]: configures once; later runs reuse the cache
# (CMake re-globs sources itself on the next build).  A directory that
# scripts/run.sh configured without the tests gets them turned on.
configure() {
  local dir=$1; shift
  if [ -f "$dir/build.ninja" ]; then
    grep -q '^CVML_TESTS:BOOL=OFF' "$dir/CMakeCache.txt" 2>/dev/null || return 0
    cmake -S "$root" -B "$dir" -DCVML_TESTS=ON
    return
  fi
  cmake -S "$root" -B "$dir" -G Ninja -DCVML_TESTS=ON "$@"
}

# ---- normal build --------------------------------------------------------
step "build (RelWithDebInfo, $build/)"
if configure "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo && ninja -C "$build" -j "$jobs"; then
  step "tests ($build/)"
  (cd "$build" && ctest --output-on-failure -j "$jobs") || fail "tests in $build/"
else
  fail "build in $build/"
fi

# ---- sanitizer build -----------------------------------------------------
# LeakSanitizer needs to stop the process's threads with ptrace; where the
# sandbox forbids that it aborts every run, so probe it once with a program
# that leaks on purpose and fall back to running without leak checks.
probe_leaks() {
  local dir out
  dir=$(mktemp -d)
  printf '#include <stdlib.h>\nint main(void){void*volatile p=malloc(7);p=0;return 0;}\n' > "$dir/leak.c"
  if clang -fsanitize=address -g "$dir/leak.c" -o "$dir/leak" 2>/dev/null; then
    out=$(ASAN_OPTIONS=detect_leaks=1 "$dir/leak" 2>&1)
  else
    out=""
  fi
  rm -rf "$dir"
  case $out in *"detected memory leaks"*) return 0 ;; esac
  return 1
}

if probe_leaks; then
  leaks=1
else
  leaks=0
  echo "note: LeakSanitizer does not work here (ptrace restricted?); running with detect_leaks=0"
fi
export ASAN_OPTIONS="detect_leaks=$leaks:abort_on_error=0:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

step "build (AddressSanitizer + UBSan + fuzzers, $asan/)"
asan_built=0
if configure "$asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
     -DCVML_SANITIZE=ON -DCVML_FUZZ=ON && ninja -C "$asan" -j "$jobs"; then
  asan_built=1
  step "tests ($asan/)"
  (cd "$asan" && ctest --output-on-failure -j "$jobs") || fail "tests in $asan/"
else
  fail "build in $asan/"
fi

# ---- fuzzing ------------------------------------------------------------
# fuzzer_path <name>: where the build put the target (tests/ is a CMake
# subdirectory, so it lands there).
fuzzer_path() {
  local candidate
  for candidate in "$asan/tests/$1" "$asan/$1"; do
    [ -x "$candidate" ] && { echo "$candidate"; return 0; }
  done
  return 1
}

# run_fuzzer <name>: runs the target for FUZZ_SECONDS on a scratch copy
# of its seed corpus (so the tree is never written) with its dictionary.
run_fuzzer() {
  local name=$1 short=${1%_fuzz} work corpus dict args log rc
  work=$(mktemp -d)
  mkdir -p "$work/corpus"
  for corpus in "tests/fuzz/corpus/$name" "tests/fuzz/corpus/$short"; do
    [ -d "$corpus" ] && cp -R "$corpus/." "$work/corpus/"
  done
  # Whole requests and pages run under the engine's memory budget (128 MiB
  # by default), so they must stay far below 512 MB; the other targets keep
  # libFuzzer's usual bound.
  local rss=2048
  case $short in request|page|tokenizer) rss=512 ;; esac
  args=(-max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb="$rss"
        -artifact_prefix="$work/" -print_final_stats=1)
  for dict in "tests/fuzz/$name.dict" "tests/fuzz/$short.dict"; do
    if [ -f "$dict" ]; then args+=(-dict="$dict"); break; fi
  done
  log=$work/log
  timeout $((fuzz_seconds + 120)) "$(fuzzer_path "$name")" "${args[@]}" "$work/corpus" > "$log" 2>&1
  rc=$?
  if [ $rc -eq 0 ]; then
    echo "fuzz $name: PASS ($(grep -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$') runs)"
  else
    echo "fuzz $name: FAIL (exit $rc)"
    tail -n 60 "$log"
    local found
    for found in "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-*; do
      [ -f "$found" ] || continue
      mkdir -p "$asan/fuzz-artifacts"
      cp "$found" "$asan/fuzz-artifacts/${name}-$(basename "$found")"
      echo "fuzz $name: input kept as $asan/fuzz-artifacts/${name}-$(basename "$found")"
    done
  fi
  rm -rf "$work"
  return $rc
}

if [ $asan_built -eq 1 ]; then
  fuzzers=()
  for src in tests/fuzz/*_fuzz.cpp; do
    [ -f "$src" ] || continue
    name=$(basename "$src" .cpp)
    if fuzzer_path "$name" >/dev/null; then
      fuzzers+=("$name")
    else
      fail "fuzz target $name was not built"
    fi
  done
  if [ ${#fuzzers[@]} -gt 0 ]; then
    step "fuzzing ${#fuzzers[@]} target(s), ${fuzz_seconds}s each, $jobs at a time"
    # Each target runs as a background job writing its own result file, so
    # two cores fuzz two targets at once.
    results=$(mktemp -d)
    running=0
    for name in "${fuzzers[@]}"; do
      ( run_fuzzer "$name" > "$results/$name.out" 2>&1; echo $? > "$results/$name.rc" ) &
      running=$((running + 1))
      if [ $running -ge "$jobs" ]; then wait -n; running=$((running - 1)); fi
    done
    wait
    for name in "${fuzzers[@]}"; do
      cat "$results/$name.out"
      [ "$(cat "$results/$name.rc" 2>/dev/null)" = 0 ] || fail "fuzz target $name"
    done
    rm -rf "$results"
  fi
fi

elapsed=$(( $(date +%s) - started ))
echo
if [ ${#failures[@]} -eq 0 ]; then
  echo "==== SUMMARY: ALL PASSED (normal build, sanitizer build, fuzzing) in ${elapsed}s ===="
  exit 0
fi
echo "==== SUMMARY: ${#failures[@]} FAILURE(S) in ${elapsed}s: ${failures[*]} ===="
exit 1
