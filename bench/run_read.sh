#!/bin/sh
# Measures reading a whole test run with all call trees against inflating the same members, in one run.
#   run_read.sh BUILD_DIR [MB]
# MB: megabytes of raw data of each of four instances (20). Builds nothing: wants tqp, tq_sample, tqp_measure, read_floor, tqshow.
# CPU seconds are user and system; each program runs five times by turns, and the middle one counts.
set -eu
export LC_ALL=C
[ $# -ge 1 ] || { sed -n '3,5s/^# *//p' "$0"; exit 1; }
bin=$(cd "$1/bin" && pwd)
mb=${2:-20}
top=$(mktemp -d "${TMPDIR:-/tmp}/tqp_read.XXXXXX")
trap 'rm -rf "$top"' EXIT
trap 'exit 1' HUP INT TERM
cd "$top"

# measure NAME PROGRAM ARGUMENT...: one run, its line "wall cpu maxrss_kb" added to NAME.runs.
measure() {
  name=$1
  shift
  "$bin/tqp_measure" "$@" >>"$name.runs" || { echo "$name: exit status $?" >&2; exit 1; }
}

middle() { # NAME COLUMN
  sort -n -k "$2" "$1.runs" | awk -v c="$2" '{ v[NR] = $c } END { print v[int((NR + 1) / 2)] }'
}

"$bin/tq_sample" --dir work --testrun 1 --mb "$mb" >/dev/null
"$bin/tqp" -t 1 -W "$top/work" -m 0 >/dev/null 2>&1
"$bin/read_floor" plan work 1 >plan
rows=$(find work/logs/TR1 -name TQFlowPath.csv; find work/logs/TR1/tq/csv -name '*.csv')
for _ in 1 2 3 4 5; do
  measure inflate "$bin/read_floor" inflate plan
  # shellcheck disable=SC2086 # one path each
  measure wc wc $rows
  measure every "$bin/tqshow" --dir work --testrun 1 --every
  measure methods "$bin/tqshow" --dir work --testrun 1 --by method
done
echo "$(wc -l <plan) members"
for name in inflate wc every methods; do
  echo "$name: $(middle $name 2) s CPU, peak $(middle $name 3) KB"
done
awk -v every="$(middle every 2)" -v inflate="$(middle inflate 2)" -v wc="$(middle wc 2)" 'BEGIN {
  ratio = every / (inflate + wc)
  printf "bar: --every CPU / CPU of inflating and wc: %.2f, at most 3: %s\n", ratio, ratio <= 3 ? "held" : "missed" }'
