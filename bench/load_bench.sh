#!/usr/bin/env bash
# Measures loading into SQLite beside SQLite's own loader, in one run: the same rows as CSV into the same tables with the same
# indexes, by `sqlite3 .import`.
#   load_bench.sh BUILD_DIR [MB [RUNS]]      MB of raw data (1000); RUNS of each, by turns (3): the middle ones count
# Wants BUILD_DIR/bin/tqp, tq_sample, tqu_db_upload, tqp_measure. README.md tells what the figures mean.
set -euo pipefail
export LC_ALL=C
[ $# -ge 1 ] || { sed -n '2,5s/^# *//p' "$0"; exit 1; }
bin=$(cd "$1/bin" && pwd)
mb=${2:-1000}
runs=${3:-3}
for program in tqp tq_sample tqu_db_upload tqp_measure; do
  [ -x "$bin/$program" ] || { echo "$bin/$program is not there; build it first" >&2; exit 1; }
done
command -v sqlite3 >/dev/null || { echo "sqlite3 is not installed" >&2; exit 1; }
top=$(mktemp -d "${TMPDIR:-/tmp}/load_bench.XXXXXX")
trap 'rm -rf "$top"' EXIT
trap 'exit 1' HUP INT TERM
cd "$top"

# measure NAME PROGRAM ARGUMENT...: a line "wall cpu maxrss_kb" more in NAME.runs.
measure() {
  local name=$1
  shift
  "$bin/tqp_measure" "$@" >>"$name.runs" || { echo "$name: exit status $?" >&2; exit 1; }
}

# middle NAME COLUMN: the middle one of the runs' figures.
middle() { sort -n -k"$2,$2" "$1.runs" | awk -v c="$2" '{ v[NR] = $c } END { print v[int((NR + 1) / 2)] }'; }

peak_mb() { awk '{ if ($3 > peak) peak = $3 } END { printf "%.0f", peak / 1024 }' "$1.runs"; }

# --- the test run ---------------------------------------------------------------------------------------------------

"$bin/tq_sample" --dir work --testrun 1 --instances 4 --partitions 2 --mb $((mb / 4)) >/dev/null
measure tqp "$bin/tqp" -t 1 -W work -m 0
load=("$bin/tqu_db_upload" --dir work --testrun 1 --database)
"${load[@]}" sqlite:first.sqlite >first.txt 2>&1
tail -1 first.txt

# --- the same rows for .import ----------------------------------------------------------------------------------------

{
  echo "PRAGMA page_size = 8192; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -24576;"
  sqlite3 first.sqlite "SELECT sql || ';' FROM sqlite_master WHERE type IN ('table', 'index') AND sql IS NOT NULL
    AND name NOT LIKE 'sqlite_%'"
  echo ".mode csv"
} >import.sql
for table in $(sqlite3 first.sqlite "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%'"); do
  sqlite3 -csv first.sqlite "SELECT * FROM $table" >"$table.csv"
  [ ! -s "$table.csv" ] || echo ".import $table.csv $table" >>import.sql
done
rows=$(sqlite3 first.sqlite "SELECT sum(row_count) FROM load_position")
rm -f first.sqlite*

# --- by turns ---------------------------------------------------------------------------------------------------------

cat >follow.sh <<'END'
"$@" --follow & loader=$!
sleep 0.3 # until its signals are blocked
kill -s RTMIN+3 $loader
wait $loader
END
for ((run = 0; run < runs; ++run)); do
  rm -f ./*.sqlite*
  measure import sqlite3 import.sqlite ".read import.sql"
  measure finished "${load[@]}" sqlite:finished.sqlite
  measure following bash follow.sh "${load[@]}" sqlite:following.sqlite
done >measured.txt 2>&1 || { cat measured.txt; exit 1; }

printf '%-12s %9s %9s %9s\n' "$rows rows" 'wall s' 'CPU s' 'peak MB'
for name in tqp import finished following; do
  printf '%-12s %9.2f %9.2f %9s\n' "$name" "$(middle $name 1)" "$(middle $name 2)" "$(peak_mb $name)"
done
bar() {
  awk -v what="$1" -v one="$2" -v other="$3" -v limit="$4" 'BEGIN {
    ratio = one / other
    printf "%-50s %5.2f   bar at least %.2f: %s\n", what, ratio, limit, (ratio >= limit ? "held" : "missed") }'
}
bar "a finished run, wall time of .import / the loader's" "$(middle import 1)" "$(middle finished 1)" 1.9
bar "following, wall time of .import / the loader's" "$(middle import 1)" "$(middle following 1)" 1.25
awk -v a="$(middle import 2)" -v b="$(middle finished 2)" -v c="$(middle following 2)" \
  'BEGIN { printf "CPU time of .import / the loader'"'"'s: finished %.2f, following %.2f\n", a / b, a / c }'
echo "peak memory of the loader, finished: $(peak_mb finished) MB, bar at most 128"
