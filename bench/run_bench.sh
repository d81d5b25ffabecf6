#!/bin/sh
# Measures tqp against tools that do far less with the same file, in the same run and on the same machine.
#   run_bench.sh BUILD_DIR [MB] [SCENARIO...]
# Builds nothing: wants BUILD_DIR/bin/tqp, tq_sample, tqp_measure. MB: megabytes of raw data (100).
# Scenarios: discovery (the default), skipped. Each one is a function bench_<name> at the end of this file.
# Speeds are per CPU second (user and system); of three runs the middle one counts.
set -eu
export LC_ALL=C

if [ $# -lt 1 ]; then
  sed -n '3,6s/^# *//p' "$0"
  exit 1
fi
bin=$1/bin
mb=${2:-100}
[ $# -gt 2 ] && shift 2 || set -- discovery
runs='1 2 3'

for program in tqp_measure tq_sample; do
  [ -x "$bin/$program" ] || { echo "$bin/$program is not there; build it first" >&2; exit 1; }
done
bin=$(cd "$bin" && pwd)
top=$(mktemp -d "${TMPDIR:-/tmp}/tqp_bench.XXXXXX")
trap 'rm -rf "$top"' EXIT
trap 'exit 1' HUP INT TERM
cd "$top"

# measure NAME PROGRAM ARGUMENT...: one run, its line "wall cpu maxrss_kb" added to NAME.runs
measure() {
  name=$1
  shift
  "$bin/tqp_measure" "$@" >>"$name.runs" || echo "$name: exit status $?" >&2
}

# The test run anew, without anything that an earlier run left behind; the raw data itself is not copied.
fresh_test_run() {
  rm -rf work
  cp -al "$1" work
}

# run_tqp NAME TEMPLATE: tqp over a whole finished test run; it leaves by itself.
run_tqp() {
  fresh_test_run "$2"
  measure "$1" "$bin/tqp" -t 1 -W "$top/work" -m 0 -r 0
}

# row NAME BYTES LINES: the run with the middle CPU time, and the largest peak of all.
row() {
  sort -n -k2,2 "$1.runs" | awk -v name="$1" -v bytes="$2" -v lines="$3" '
    { cpu[NR] = $2; wall[NR] = $1; if ($3 > peak) peak = $3 }
    END {
      middle = int((NR + 1) / 2)
      seconds = cpu[middle] > 0 ? cpu[middle] : 0.001
      printf "%-12s %10.1f %14.0f %9.3f %9.3f %9.1f\n", name, bytes / 1e6 / seconds, lines / seconds, cpu[middle], wall[middle], peak / 1024
    }'
}

middle_cpu() { sort -n -k2,2 "$1.runs" | awk '{ cpu[NR] = $2 } END { print cpu[int((NR + 1) / 2)] }'; }

# compare FILE TEMPLATE: wc, mawk and tqp by turns over one file.
compare() {
  rm -f ./*.runs
  cat "$1" >/dev/null # the page cache is warm for the first one, too
  for run in $runs; do
    measure wc wc -l "$1"
    [ -z "$mawk" ] || measure mawk mawk -F, '{s+=$3; n+=NF}' "$1"
    [ -z "$tqp" ] || run_tqp tqp "$2"
  done
  bytes=$(wc -c <"$1")
  lines=$(wc -l <"$1")
  echo "$bytes bytes, $lines lines"
  printf '%-12s %10s %14s %9s %9s %9s\n' '' 'MB/s' 'lines/s' 'CPU s' 'wall s' 'peak MB'
  for name in wc mawk tqp; do
    [ ! -f "$name.runs" ] || row "$name" "$bytes" "$lines"
  done
  if [ -n "$mawk" ] && [ -n "$tqp" ]; then
    awk -v m="$(middle_cpu mawk)" -v t="$(middle_cpu tqp)" 'BEGIN { printf "tqp speed / mawk speed: %.2f\n", t > 0 ? m / t : 0 }'
  fi
}

# The peak of starting up and reading nothing but one identity record.
empty_run() {
  [ -n "$tqp" ] || return 0
  rm -rf empty
  cp -a "$1" empty
  raw=$(find empty -name '*.txt' -path '*raw_data*')
  head -n 1 "$raw" >first_line
  cat first_line >"$raw"
  rm -f start-up.runs
  for run in $runs; do
    run_tqp start-up empty
  done
  awk '{ if ($3 > peak) peak = $3 } END { printf "start-up and an empty run: %.1f MB\n", peak / 1024 }' start-up.runs
}

# one_instance MIX: generates a test run of one instance and one partition, and measures over its file.
one_instance() {
  rm -rf template
  "$bin/tq_sample" --dir template --testrun 1 --mix "$1" --instances 1 --partitions 1 --mb "$mb"
  file=$top/$(find template -name '*.txt' -path '*raw_data*')
  compare "$file" template
  [ -z "$tqp" ] || what_came_out
  empty_run template
}

# Shows that the run did its work: the metadata rows that it wrote.
what_came_out() {
  find work/logs/TR1 -name 'TQMetaData.csv' -exec wc -l {} + | awk 'END { print $1 + 0 " metadata rows came out" }'
}

# --- scenarios --------------------------------------------------------------------------------------------------

# Half method announcements out of about 20000 names, half records that are passed over.
bench_discovery() { one_instance discovery; }

# Only records that are passed over: what reading and cutting lines costs by itself.
bench_skipped() { one_instance skipped; }

mawk=$(command -v mawk || true)
[ -n "$mawk" ] || echo 'mawk is not installed; left out'
tqp=
if [ -x "$bin/tqp" ]; then tqp=$bin/tqp; else echo "$bin/tqp is not built; left out"; fi
for scenario in "$@"; do
  echo "== $scenario, $mb MB"
  "bench_$scenario"
done
