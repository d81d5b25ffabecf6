#!/usr/bin/env bash
# Builds the program, makes a sample test run, runs the program over it and shows what came out.
#   scripts/try.sh [directory]     the test run stays in the directory (default: build/try)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_dependencies.sh
cmake --preset release -DTQP_TESTS=OFF >/dev/null
cmake --build --preset release --target tqp tq_sample tqshow tqu_db_upload -- --quiet
bin=$PWD/build/release/bin
dir=${1:-$PWD/build/try}
rm -rf "$dir"
mkdir -p "$dir"
run=1001
test_run=$dir/logs/TR$run

echo; echo "== a sample test run: two partitions, four application instances"
"$bin/tq_sample" --dir "$dir" --testrun $run --keywords "TQP_BINARY_FORMAT_FOR_METHOD_TIMING 0;TQP_PRINT_SUMMARY_REPORT 1"
wc -l "$test_run"/2*/tq/raw_data/*.txt

echo; echo "== tqp over it"
"$bin/tqp" -t $run -W "$dir" -m 0

echo; echo "== what was counted (first instance, first report)"
grep -v ': 0$' "$(find "$test_run" -name tqp_summary_report.txt | sort | sed -n 1p)" | sed '/^$/q'

echo "== names that got global ids"
wc -l "$test_run"/tq/csv/*.csv | grep -v ' 0 '
echo; head -6 "$test_run/tq/csv/TQMetaData.csv"

echo; echo "== flowpaths"
"$bin/tqshow" --dir "$dir" --testrun $run | sed -n '1,12p'

echo; echo "== one of them as a call tree"
"$bin/tqshow" --dir "$dir" --testrun $run --first | sed -n '1,40p'

echo; echo "== every reference checked"
"$bin/tqshow" --dir "$dir" --testrun $run --check
echo; echo "== all of it in a database (docs/database.md)"
load=("$bin/tqu_db_upload" --dir "$dir" --testrun "$run")
"${load[@]}"
echo; echo "Which transactions are the slowest, and why?"
"${load[@]}" --ask "SELECT url, tier_name, flowpaths, p95_ms, average_ms, db_ms / flowpaths AS db_ms_each,
  backend_ms / flowpaths AS backends_ms_each FROM transactions WHERE testrun = $run AND flowpaths >= 3
  ORDER BY p95_ms DESC, url LIMIT 5"
echo; echo "Which queries cost most?"
"${load[@]}" --ask "SELECT query, tier_name, executions, total_ms, average_ms, longest_ms FROM queries
  WHERE testrun = $run ORDER BY total_ms DESC, query LIMIT 5"

echo; echo "All files: $test_run"
