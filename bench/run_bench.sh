#!/bin/sh
# Measures tqp against tools that do far less with the same file, in the same run and on the same machine.
#   run_bench.sh BUILD_DIR [MB] [SCENARIO...]
# Builds nothing: wants BUILD_DIR/bin/tqp, tq_sample, tqp_measure, tqp_floor. MB: megabytes of raw data (100).
# Scenarios: discovery (the default), skipped, flowpaths, in_flight, restart, sums, exports; all: every one. README.md tells what each shows.
# Each one is a function bench_<name> at the end of this file.
# Speeds are per CPU second (user and system); of three runs the middle one counts.
# TQP_BENCH_KEYWORDS: more lines of the keyword file for flowpaths and in_flight, parted by semicolons.
set -eu
export LC_ALL=C
scenarios='discovery skipped flowpaths in_flight restart sums exports'

if [ $# -lt 1 ]; then
  sed -n '3,5s/^# *//p' "$0"
  exit 1
fi
bin=$1/bin
mb=${2:-100}
[ $# -gt 2 ] && shift 2 || set -- discovery
runs='1 2 3'
# shellcheck disable=SC2086 # one word each
[ "$*" != all ] || set -- $scenarios
for scenario in "$@"; do
  case " $scenarios " in
    *" $scenario "*) ;;
    *) echo "There is no scenario $scenario, only: $scenarios" >&2; exit 1 ;;
  esac
done

for program in tqp_measure tqp_floor tq_sample; do
  [ -x "$bin/$program" ] || { echo "$bin/$program is not there; build it first" >&2; exit 1; }
done
bin=$(cd "$bin" && pwd)
top=$(mktemp -d "${TMPDIR:-/tmp}/tqp_bench.XXXXXX")
trap 'rm -rf "$top"' EXIT
trap 'exit 1' HUP INT TERM
cd "$top"

# --- runs -------------------------------------------------------------------------------------------------------

# measure NAME PROGRAM ARGUMENT...: one run, its line "wall cpu maxrss_kb" added to NAME.runs. A failed run counts for
# nothing, not for a fast one.
measure() {
  name=$1
  shift
  "$bin/tqp_measure" "$@" >>"$name.runs" || { echo "$name: exit status $?" >&2; exit 1; }
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

# run_floor NAME deflate|write: what zlib alone takes for what the last run has deflated, or the system calls alone for
# what it has written; in the form of `measure`.
run_floor() {
  "$bin/tqp_floor" "$2" work/logs/TR1 >floor || { echo "$1: nothing to $2" >&2; exit 1; }
  awk '{ print $1, $1, 0 }' floor >>"$1.runs"
}

# generate NAME OPTION...: a test run of one instance and one partition; sets `file`, its raw data.
generate() {
  template=$1
  shift
  rm -rf "$template"
  "$bin/tq_sample" --dir "$template" --testrun 1 --instances 1 --partitions 1 --mb "$mb" "$@"
  file=$top/$(find "$template" -name '*.txt' -path '*raw_data*')
}

# --- figures ----------------------------------------------------------------------------------------------------

# row NAME BYTES LINES: the run with the middle CPU time, and the largest peak of all (-: not measured).
row() {
  sort -n -k2,2 "$1.runs" | awk -v name="$1" -v bytes="$2" -v lines="$3" '
    { cpu[NR] = $2; wall[NR] = $1; if ($3 > peak) peak = $3 }
    END {
      middle = int((NR + 1) / 2)
      seconds = cpu[middle] > 0 ? cpu[middle] : 0.001
      shown = peak > 0 ? sprintf("%.1f", peak / 1024) : "-"
      printf "%-12s %10.1f %14.0f ", name, bytes / 1e6 / seconds, lines / seconds
      printf "%9.3f %9.3f %9s\n", cpu[middle], wall[middle], shown
    }'
}

# rows NAME...: of those that were measured over `file`.
rows() {
  bytes=$(wc -c <"$file")
  lines=$(wc -l <"$file")
  echo "$bytes bytes, $lines lines"
  printf '%-12s %10s %14s %9s %9s %9s\n' '' 'MB/s' 'lines/s' 'CPU s' 'wall s' 'peak MB'
  for name in "$@"; do
    [ ! -f "$name.runs" ] || row "$name" "$bytes" "$lines"
  done
}

middle_wall() { sort -n -k1,1 "$1.runs" | awk '{ wall[NR] = $1 } END { print wall[int((NR + 1) / 2)] }'; }

middle_cpu() { sort -n -k2,2 "$1.runs" | awk '{ cpu[NR] = $2 } END { print cpu[int((NR + 1) / 2)] }'; }

peak_mb() { awk '{ if ($3 > peak) peak = $3 } END { print peak / 1024 }' "$1.runs"; }

# ratio A B: 0 when B is.
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { print (b > 0 ? a / b : 0) }'; }

# bar WHAT FIGURE most|least LIMIT [UNIT]: says whether the figure keeps to its limit; shown again at the end. A figure
# of 0 was not measured and keeps to nothing.
bar() {
  awk -v what="$1" -v figure="$2" -v side="$3" -v limit="$4" -v unit="${5:-}" 'BEGIN {
    held = figure > 0 && (side == "most" ? figure + 0 <= limit + 0 : figure + 0 >= limit + 0)
    printf "%-62s %6.2f%s   bar at %s %s%s: %s\n", what, figure, unit, side, limit, unit, held ? "held" : "missed"
  }' >bar
  cat bar
  cat bar >>bars
}

# --- discovery and skipped --------------------------------------------------------------------------------------

# wc, mawk and tqp by turns over one file.
compare() {
  rm -f ./*.runs
  cat "$file" >/dev/null # the page cache is warm for the first one, too
  for _ in $runs; do
    measure wc wc -l "$file"
    [ -z "$mawk" ] || measure mawk mawk -F, '{s+=$3; n+=NF}' "$file"
    [ -z "$tqp" ] || run_tqp tqp "$1"
  done
  rows wc mawk tqp
  if [ -n "$mawk" ] && [ -n "$tqp" ]; then
    printf 'tqp speed / mawk speed: %.2f\n' "$(ratio "$(middle_cpu mawk)" "$(middle_cpu tqp)")"
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
  for _ in $runs; do
    run_tqp start-up empty
  done
  printf 'start-up and an empty run: %.1f MB\n' "$(peak_mb start-up)"
}

# one_instance MIX: measures over a file of this mix.
one_instance() {
  generate template --mix "$1"
  compare template
  [ -z "$tqp" ] || what_came_out
  empty_run template
}

# Shows that the run did its work: the metadata rows that it wrote.
what_came_out() {
  find work/logs/TR1 -name 'TQMetaData.csv' -exec wc -l {} + | awk 'END { print $1 + 0 " metadata rows came out" }'
}

# --- flowpaths --------------------------------------------------------------------------------------------------

# No trace lines: of those that the exit form calls for there are many. No files of captured bodies: making thousands of
# files measures the file system.
flowpath_keywords="TQP_TRACE_LEVEL 0;TQP_DISABLE_DUMPING_CAPTURED_HTTP_BODY 1${TQP_BENCH_KEYWORDS:+;$TQP_BENCH_KEYWORDS}"

# generate_flowpaths NAME METHODS FORM IN_FLIGHT
generate_flowpaths() {
  generate "$1" --mix all --flowpath-methods "$2" --form "$3" --in-flight "$4" \
    --keywords "$flowpath_keywords"
}

# The same test run with plain texts in the blob file.
make_plain_template() {
  rm -rf "$2"
  cp -al "$1" "$2"
  conf=$(find "$2" -name TQKeywords.conf)
  rm "$conf"
  echo "$flowpath_keywords;TQP_SEQ_BLOB_IN_FILE_FLAG 1 A" | tr ';' '\n' >"$conf"
}

# The last run's flowpath rows and the methods entered that they tell: "rows methods".
flowpath_totals() {
  find work/logs/TR1 -name TQFlowPath.csv -exec cat {} + | awk -F, '{ ++n; s += $16 } END { print n + 0, s + 0 }'
}

# rates NAME "ROWS METHODS": how much of a flowpath's work goes into a CPU second.
rates() {
  echo "$2" | awk -v name="$1" -v made="$(grep -c '^2,' "$file")" -v cpu="$(middle_cpu "$1")" '{
    printf "%s: %.0f flowpaths/s, %.0f method records/s; ", name, $1 / cpu, $2 / cpu
    printf "%d flowpaths of %d came out, %d method records\n", $1, made, $2
  }'
}

flowpath_turns() {
  rm -f ./*.runs
  cat "$file" >/dev/null
  for _ in $runs; do
    measure wc wc -l "$file"
    [ -z "$mawk" ] || measure mawk mawk -F'[,_]' '{for(i=1;i<=NF;i++) s+=$i} END{print s}' "$file"
    run_tqp tqp_A plain
    plain_totals=$(flowpath_totals)
    run_floor deflate_A deflate # the lists of segments: they are compressed in every version
    run_floor write_A write
    run_tqp tqp_B template
    totals=$(flowpath_totals)
    run_floor deflate_B deflate
  done
}

# flowpath_load METHODS FORM: version B beside deflate alone, version A beside mawk, over one file.
flowpath_load() {
  echo "-- $1 methods, $2 form"
  generate_flowpaths template "$1" "$2" 100
  make_plain_template template plain
  flowpath_turns
  rows wc deflate_B tqp_B mawk deflate_A write_A tqp_A
  rates tqp_B "$totals"
  rates tqp_A "$plain_totals"
  bar "$1 methods, $2: version B CPU / deflate CPU" "$(ratio "$(middle_cpu tqp_B)" "$(middle_cpu deflate_B)")" most 1.6
  [ -n "$mawk" ] || return 0
  bar "$1 methods, $2: mawk CPU / version A CPU" "$(ratio "$(middle_cpu mawk)" "$(middle_cpu tqp_A)")" least 1.5
  floors=$(awk -v a="$(middle_cpu deflate_A)" -v b="$(middle_cpu write_A)" 'BEGIN { print a + b }')
  printf '%s methods, %s: mawk CPU / (deflate_A + write_A), which nobody can be above: %.2f\n' "$1" "$2" \
    "$(ratio "$(middle_cpu mawk)" "$floors")" | tee -a bars
}

# --- in_flight --------------------------------------------------------------------------------------------------

# Flowpaths of which a record stands in the file and another is still to come: the most, and the mean over its lines.
in_flight_of_file() {
  awk '
    BEGIN { # the event, and the word that names the flowpath
      split("2 5 3 5 4 5 43 6 44 6 80 6 82 6 83 7 84 7", pair, " ")
      for (i = 1; i < 18; i += 2) main_at[pair[i]] = pair[i + 1]
    }
    { split(substr($0, 1, 120), f, /[,:]/) }
    f[1] in main_at { main = f[main_at[f[1]]]; if (!(main in last)) ++begun[NR]; last[main] = NR }
    END {
      for (main in last) ++ended[last[main]]
      for (n = 1; n <= NR; ++n) { open += begun[n]; sum += open; if (open > most) most = open; open -= ended[n] }
      printf "in flight: %d at most, %.0f in the mean\n", most, sum / NR
    }' "$1"
}

# in_flight_row LEVEL BYTES: CPU for a megabyte, also beside the first level's.
in_flight_row() {
  per_mb=$(ratio "$(middle_cpu "in_flight_$1")" "$(ratio "$2" 1000000)")
  [ "$1" != 10 ] || first_per_mb=$per_mb
  printf '%-10s %12.4f %10.2f %9.1f\n' "$1" "$per_mb" "$(ratio "$per_mb" "$first_per_mb")" "$(peak_mb "in_flight_$1")"
  [ "$1" = 10 ] || echo "$1 $(ratio "$per_mb" "$first_per_mb")" >>in_flight_ratios
}

in_flight_table() {
  rm -f in_flight_ratios
  printf '%-10s %12s %10s %9s\n' 'in flight' 'CPU s / MB' 'to 10' 'peak MB'
  for level in $levels; do
    in_flight_row "$level" "$(find "load_$level" -name '*.txt' -path '*raw_data*' -exec cat {} + | wc -c)"
  done
}

# in_flight_form FORM: all levels by turns, so that a change of the machine's speed meets them alike.
in_flight_form() {
  echo "-- 100 methods, $1 form"
  rm -f ./*.runs
  levels='10 100 1000 5000'
  for level in $levels; do
    generate_flowpaths "load_$level" 100 "$1" "$level"
    in_flight_of_file "$file"
  done
  for _ in $runs; do
    for level in $levels; do
      run_tqp "in_flight_$level" "load_$level"
    done
  done
  in_flight_table
  while read -r level figure; do
    bar "$level in flight, $1: CPU for a MB / that of 10 in flight" "$figure" most 1.2
  done <in_flight_ratios
  bar "5000 in flight, $1: peak" "$(peak_mb in_flight_5000)" most 150 ' MB'
}

# --- restart ----------------------------------------------------------------------------------------------------

last_method='com.acme.m62.Service25000.handle500000(Ljava/lang/String;J)V'

# A million rows of metadata in the current directory, as a run of long ago has left them.
make_metadata() {
  awk 'BEGIN {
    for (i = 1; i <= 500000; ++i)
      print i ",0,com.acme.m" i % 97 ".Service" int(i / 20) ".handle" i "(Ljava/lang/String;J)V" >"TQMetaData.csv"
    for (i = 1; i <= 100000; ++i)
      print i ",1,com.acme.m" i % 97 ".Service" i >"TQMetaData.csv"
    for (i = 1; i <= 200000; ++i)
      print "0," i ",1,SELECT id FROM table" i % 500 " WHERE code = ? AND state = ? AND kind = " i >"TQSQL.csv"
    for (i = 1; i <= 150000; ++i)
      print "1," 1073741824 + i ",-1,0,0,0,/shop/m" i % 97 "/page" i ",0,\047-\047" >"TQURLTable.csv"
    for (i = 1; i <= 50000; ++i)
      print "X-Header-" i "," i >"TQHTTPHeaderMetaData.csv"
  }'
}

# make_restart_template NAME: the instance has nothing to read but its identity and a method that is known already.
make_restart_template() {
  generate "$1" --mix discovery
  head -n 1 "$file" >first_line
  { cat first_line; echo "5,$last_method,1"; } >"$file"
  mkdir -p "$1/logs/TR1/tq/csv"
  (cd "$1/logs/TR1/tq/csv" && make_metadata)
}

# The files are added to, hence real copies.
run_restart() {
  rm -rf work
  cp -a template work
  measure restart taskset -c 0 "$bin/tqp" -t 1 -W "$top/work" -m 0
  grep -q 'Going in epoll' "$(find work -name tqp_trace.log)" || { echo 'restart: was not ready' >&2; exit 1; }
  [ "$(grep -cF "$last_method" work/logs/TR1/tq/csv/TQMetaData.csv)" = 1 ] ||
    { echo 'restart: a known method was not known' >&2; exit 1; }
}

# --- scenarios --------------------------------------------------------------------------------------------------

# Half method announcements out of about 20000 names, half records that are passed over.
bench_discovery() { one_instance discovery; }

# Only records that are passed over: what reading and cutting lines costs by itself.
bench_skipped() { one_instance skipped; }

# Flowpaths of whole agents, short and long ones, in both forms.
bench_flowpaths() {
  [ -n "$tqp" ] || return 0
  for methods in 20 200 2000; do
    for form in classic exit; do flowpath_load "$methods" "$form"; done
  done
}

# What it costs when the records of more flowpaths interleave.
bench_in_flight() {
  [ -n "$tqp" ] || return 0
  asked_mb=$mb
  if [ "$mb" -lt 100 ]; then
    echo '100 MB: a smaller file does not keep 5000 flowpaths in flight'
    mb=100
  fi
  for form in classic exit; do in_flight_form "$form"; done
  mb=$asked_mb
}

# Sums by method: tqshow over the binary timing rows, mawk over the same rows as text.
bench_sums() {
  [ -n "$tqp" ] && [ -n "$mawk" ] || return 0
  sums_keywords=$flowpath_keywords
  for form in binary text; do
    [ "$form" = binary ] || sums_keywords="$sums_keywords;TQP_BINARY_FORMAT_FOR_METHOD_TIMING 0"
    generate "sums_$form" --mix all --flowpath-methods 100 --keywords "$sums_keywords"
    "$bin/tqp" -t 1 -W "$top/sums_$form" -m 0 >/dev/null
  done
  timing=$(find sums_text -name TQMethodTiming.csv)
  cat "$timing" "$(find sums_binary -name '*_MethodTiming.dat')" >/dev/null
  rm -f ./*.runs
  for _ in $runs; do
    measure mawk mawk -F, '{ self[$1] += $5; cpu[$1] += $6; calls[$1] += $7; wall[$1] += $12 }
      END { for (m in self) { s += self[m]; n += calls[m] } print s, n }' "$timing"
    measure tqshow "$bin/tqshow" --dir sums_binary --testrun 1 --by method --json
  done
  sums_agree "$timing"
  file=$timing
  rows mawk tqshow
  bar 'sums by method: mawk CPU / tqshow CPU' "$(ratio "$(middle_cpu mawk)" "$(middle_cpu tqshow)")" least 5
}

# Both have added up the same rows.
sums_agree() {
  by_mawk=$(mawk -F, '{ s += $5; n += $7 } END { printf "%d %d", s, n }' "$1")
  by_tqshow=$("$bin/tqshow" --dir sums_binary --testrun 1 --by method --json |
    mawk '{ match($0, /"self":[0-9]+/); s += substr($0, RSTART + 7, RLENGTH - 7)
            match($0, /"calls":[0-9]+/); n += substr($0, RSTART + 8, RLENGTH - 8) } END { printf "%d %d", s, n }')
  [ "$by_mawk" = "$by_tqshow" ] || { echo "sums differ: mawk $by_mawk, tqshow $by_tqshow" >&2; exit 1; }
}

# A whole test run in each format: how fast, and that memory stays what it is however long the run was.
bench_exports() {
  [ -n "$tqp" ] || return 0
  generate exported --mix all --flowpath-methods 100 --keywords "$flowpath_keywords"
  "$bin/tqp" -t 1 -W "$top/exported" -m 0 >/dev/null
  rm -f ./*.runs
  for _ in $runs; do
    for format in chrome speedscope folded otlp; do
      measure "$format" "$bin/tqshow" --dir exported --testrun 1 --export "$format" --output "$top/out"
      wc -c <"$top/out" >"$format.bytes"
    done
  done
  rm -f "$top/out"
  rows chrome speedscope folded otlp
  for format in chrome speedscope folded otlp; do
    printf '%-12s %10d bytes written\n' "$format" "$(cat "$format.bytes")"
    bar "export to $format: peak" "$(peak_mb "$format")" most 80 ' MB'
  done
}

# How long a restart with a full set of metadata takes on one core: to its end, which comes at once without a parent.
bench_restart() {
  [ -n "$tqp" ] || return 0
  make_restart_template template
  csv=$top/template/logs/TR1/tq/csv
  rm -f ./*.runs
  for _ in $runs; do
    [ -z "$mawk" ] || measure mawk taskset -c 0 mawk -F, '{s+=$3; n+=NF}' "$csv"/*.csv
    run_restart
  done
  cat "$csv"/*.csv >metadata
  file=metadata
  rows mawk restart
  bar 'restart with 1000000 rows of metadata: CPU' "$(middle_cpu restart)" most 3 ' s'
  bar 'restart with 1000000 rows of metadata: wall' "$(middle_wall restart)" most 3 ' s'
  [ -z "$mawk" ] || printf 'restart CPU / mawk CPU: %.2f\n' "$(ratio "$(middle_cpu restart)" "$(middle_cpu mawk)")"
}

mawk=$(command -v mawk || true)
[ -n "$mawk" ] || echo 'mawk is not installed; left out'
tqp=
if [ -x "$bin/tqp" ]; then tqp=$bin/tqp; else echo "$bin/tqp is not built; left out"; fi
for scenario in "$@"; do
  echo "== $scenario, $mb MB"
  "bench_$scenario"
done
if [ -f bars ]; then
  echo '== all bars'
  cat bars
fi
