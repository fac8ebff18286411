# Runs suites of tests and leaves a JUnit report of each. To be sourced behind common.sh.

# Tests begin whose reports go into a directory. What fails sets $status.
begin_tests() {
  results=$1
  status=0
  rm -rf "$results"
  mkdir -p "$results"
}

# Judges the tests of a build, and ends the script.
end_tests() {
  verdict count "$1" "$results"/*.xml || status=1
  exit "$status"
}

verdict() {
  /usr/bin/python3 -B "$top/scripts/lib/verdict.py" "$@"
}

# Puts the failure of a GoogleTest program into a report: a sanitizer's report or a crash belongs to no test case.
report_failure() {
  grep -qs '<failure' "$results/$1.xml" ||
    printf '<testcase name="%s"><failure/></testcase>\n' "$1" >"$results/$1-end.xml"
}

# Runs a GoogleTest program in one process for each processor; a process for each test, as ctest has it,
# takes many times as long under a sanitizer or an emulator. Prints the output of a share that failed.
run_shares() {
  local program=$1 name share shares failed=0 pids=()
  name=$(basename "$program")
  shares=$(nproc)
  for ((share = 0; share < shares; share++)); do
    GTEST_TOTAL_SHARDS=$shares GTEST_SHARD_INDEX=$share timeout 400 "$program" --gtest_brief=1 \
      --gtest_output="xml:$results/$name-$share.xml" >"$results/$name-$share.log" 2>&1 &
    pids+=($!)
  done
  for ((share = 0; share < shares; share++)); do
    if ! wait "${pids[share]}"; then
      failed=1
      cat "$results/$name-$share.log"
      report_failure "$name-$share"
    fi
  done
  return "$failed"
}

# Runs a folder of pytest; options may follow.
run_pytest() {
  local folder=$1
  /usr/bin/python3 -m pytest "$folder" --junit-xml "$results/$(basename "$folder").xml" -q -ra "${@:2}"
}

# The same. Processes compete for the processors while tests run side by side, so a few that failed may have
# their time alone, once. What verdict.py calls no accident may not, and counts as failed at the end.
run_pytest_patiently() {
  local folder=$1 again=() status=0
  local remember=(-o "cache_dir=$results/cache") report="$results/$(basename "$1")"
  run_pytest "$@" "${remember[@]}" || status=$?
  # Any other status does not say which tests failed.
  if [[ $status -eq 1 ]]; then
    mapfile -t again < <(verdict again "$report.xml" "$results/cache")
  fi
  if [[ ${#again[@]} -gt 0 ]]; then
    echo "== what failed, again and alone"
    status=0
    /usr/bin/python3 -m pytest "${again[@]/#/$folder/}" "${remember[@]}" --junit-xml "$report-again.xml" \
      -q -ra || status=$?
  fi
  return "$status"
}
