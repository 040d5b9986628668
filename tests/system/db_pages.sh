# Runs the database pages of tests/system/db/ against one server (sourced,
# not run): the pages in db/common/ and those in db/<server>/.
#
# A page is a template: @PORT@, @DATABASE@, @DRIVER@ (the driver library)
# and @DRIVERNAME@ (its name in odbcinst.ini) are replaced for the run, and
# it runs from a copy in $work/pages (masked as @DIR@ in its output), with
# ODBCSYSINI and ODBCINI pointing at $work.  Beside NAME.cvm:
#   NAME.out or NAME.<server>.out: the exact output expected;
#   NAME.lines or NAME.<server>.lines: lines that must appear in it;
#   NAME.env: VAR=value lines added to the page's environment;
#   NAME.seconds: "MIN MAX", the bounds of the run's wall time.
# Pages run in name order (LC_ALL=C), so a page may check what the one
# before it left behind.
#
# Needs: $cvml, $work, $db_cases (tests/system/db); sets $failures.

# run_db_page SERVER PAGE
run_db_page() {
  local server=$1 page=$2 name dir actual start elapsed status expected lines seconds line
  local -a env_lines=()
  name=$(basename "$page" .cvm)
  dir=$(dirname "$page")
  mkdir -p "$work/pages"
  sed -e "s#@PORT@#$DB_PORT#g" -e "s#@DATABASE@#$DB_DATABASE#g" -e "s#@DRIVER@#$DB_DRIVER#g" \
      -e "s#@DRIVERNAME@#$DB_DRIVERNAME#g" "$page" > "$work/pages/$name.cvm"
  if [ -f "$dir/$name.env" ]; then mapfile -t env_lines < "$dir/$name.env"; fi
  actual=$work/pages/$name.actual
  start=$(date +%s%N)
  (cd "$work/pages" && env -i PATH=/usr/bin:/bin ODBCSYSINI="$work" ODBCINI="$work/odbc.ini" \
     "${env_lines[@]}" timeout 60 "$cvml" "$name.cvm") > "$actual"
  status=$?
  elapsed=$(( ($(date +%s%N) - start) / 1000000 ))
  printf '%s/%s: %d ms\n' "$server" "$name" "$elapsed"
  if [ $status -ne 0 ]; then
    echo "$server/$name: cvml exited with status $status"
    failures=$((failures + 1))
    return
  fi
  sed -i -e "s#$work/pages#@DIR@#g" -e 's/ - [0-9][0-9]*ms$/ - Nms/' -e 's/^Time = [0-9][0-9]*ms$/Time = Nms/' "$actual"
  expected=$dir/$name.$server.out
  [ -f "$expected" ] || expected=$dir/$name.out
  if [ -f "$expected" ] && ! cmp -s "$actual" "$expected"; then
    echo "$server/$name: output differs from $(basename "$expected"):"
    diff -u "$expected" "$actual" | cut -c1-300 | head -n 60
    failures=$((failures + 1))
  fi
  lines=$dir/$name.$server.lines
  [ -f "$lines" ] || lines=$dir/$name.lines
  if [ -f "$lines" ]; then
    while IFS= read -r line || [ -n "$line" ]; do
      if ! grep -qxF -- "$line" "$actual"; then
        echo "$server/$name: missing line: $line"
        failures=$((failures + 1))
      fi
    done < "$lines"
  fi
  seconds=$dir/$name.seconds
  if [ -f "$seconds" ]; then
    read -r min max < "$seconds"
    if [ "$elapsed" -lt $((min * 1000)) ] || [ "$elapsed" -gt $((max * 1000)) ]; then
      echo "$server/$name: took $elapsed ms, outside $min to $max s"
      failures=$((failures + 1))
    fi
  fi
}

# run_db_pages SERVER: every page of db/common and db/SERVER.
run_db_pages() {
  local server=$1 page
  for page in $(LC_ALL=C ls "$db_cases"/common/*.cvm "$db_cases/$server"/*.cvm 2>/dev/null |
                awk -F/ '{ print $NF "\t" $0 }' | LC_ALL=C sort | cut -f2); do
    run_db_page "$server" "$page"
  done
}

# peak_rss_kb COMMAND...: the command's peak resident memory in KiB, its
# output thrown away (GNU time, from the Debian package "time").
peak_rss_kb() {
  /usr/bin/time -f %M -o "$work/rss" "$@" > /dev/null 2>&1
  cat "$work/rss"
}

# check_result_memory SERVER DATA_BYTES LIMIT: runs db/big_rows.cvm and
# db/one_row.cvm and fails when the 100,000-row result costs more than
# LIMIT times its data (LIMIT in tenths).
check_result_memory() {
  local server=$1 data=$2 limit=$3 big small cost name
  for name in big_rows one_row; do
    sed -e "s#@PORT@#$DB_PORT#g" "$db_cases/$name.cvm" > "$work/pages/$name.cvm"
  done
  big=$(cd "$work/pages" && peak_rss_kb env -i PATH=/usr/bin:/bin ODBCSYSINI="$work" ODBCINI="$work/odbc.ini" "$cvml" big_rows.cvm)
  small=$(cd "$work/pages" && peak_rss_kb env -i PATH=/usr/bin:/bin ODBCSYSINI="$work" ODBCINI="$work/odbc.ini" "$cvml" one_row.cvm)
  cost=$(( (big - small) * 1024 ))
  echo "$server: 100000 rows of $data bytes: peak memory $big KiB against $small KiB for one row," \
       "$cost bytes ($(( cost * 100 / data ))% of the data)"
  # AddressSanitizer's allocator keeps freed memory aside, so its figures
  # say nothing about the engine's.
  if grep -q -a __asan_init "$cvml"; then
    echo "$server: (sanitizer build: the figure is not checked)"
  elif [ $(( cost * 10 )) -gt $(( data * limit )) ]; then
    echo "$server: the result costs more than $limit/10 times its data"
    failures=$((failures + 1))
  fi
}
