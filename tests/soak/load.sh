#!/bin/bash
# The whole program under load, best in a build that watches its threads and memory.
#   load.sh BUILD_DIR [SECONDS] [SEED]
#     SECONDS  of raw data, in runs of 6 to 12 seconds each (60); 12 is one run
#     SEED     of data, of what happens in each run and of the moments of signals (1)
# Takes a few seconds a run more than SECONDS. Exit status 1 with the faults on standard output.
#
# In each run eight instances are written, partitions begin, an instance comes and one goes, agents are asked for what they
# left out, both monitors sample every second, the upload child follows, and every few tenths of a second somebody asks for
# dumps, for the status, for another trace level, or looks in. Every second run, from the first on, is stopped in the middle
# and started again. A partition that begins while tqp starts is never told to it: such a run is left out and done again.
# What is asked for at the end of each:
#   - tqp leaves by itself within two seconds, with status 0 and without a word of a sanitizer
#   - every partition but the newest was finished, and once: the monitor tells of none that is not, and of none too many
#   - tqshow --check finds nothing, and the upload child's journal covers every byte of every row file once
set -euo pipefail
export LC_ALL=C
bin=$(cd "$1/bin" && pwd)
seconds=${2:-60} seed=${3:-1}
top=$(mktemp -d "${TMPDIR:-/tmp}/tqp_load.XXXXXX")
export TQP_OUTSIDE_ROOT=$top/outside
requests=$TQP_OUTSIDE_ROOT/tmp/tqp_dump_loc2norm_maps.txt levels=$TQP_OUTSIDE_ROOT/tmp/trace_level.conf
trap 'kill -9 $(jobs -p) 2>/dev/null || true; rm -rf "$top"' EXIT
trap 'exit 1' HUP INT TERM
cd "$top"
mkdir -p "$TQP_OUTSIDE_ROOT/tmp" buffer/used # else whoever comes marks the partitions before its own as done
RANDOM=$seed
faults=0

fault() {
  echo "FAULT: run $run: $*"
  faults=$((faults + 1))
}

# ask SIGNAL: of tqp, which must be there.
ask() {
  kill "-$1" $tqp 2>/dev/null && return
  tail -40 errors.txt
  fault "tqp is gone"
  exit 1
}

# draw WORD...: one of them, into $drawn.
draw() {
  shift $((RANDOM % $#))
  drawn=$1
}

# within SECONDS COMMAND...: tries until it succeeds.
within() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt $end ] || return 1
    sleep 0.05
  done
}

# --- a run --------------------------------------------------------------------------------------------------------

# told WORDS: by the agents, how often.
told() {
  grep -ac "^$1" agents.txt || true
}

has_told() {
  [ "$(told "$1")" -gt 0 ]
}

# start_agents LENGTH: made-up agents, the collector and the parent's port, until they are told to leave.
start_agents() {
  local rate switch add remove replies
  draw 200000 600000 1500000 && rate=$drawn
  draw 2 3 4 && switch=$drawn
  draw active enable discovery && add=$drawn
  draw inactive disable remove && remove=$drawn
  draw good split wrong && replies=$drawn
  echo "run $run: $1 s of $rate bytes, a partition every $switch s, instances $add and $remove, replies $replies"
  : >agents.txt
  "$bin/tq_sample" --dir work --testrun 1 --seed $((seed * 100 + run)) --instances 8 --partitions 1 --rate $rate \
    --online --seconds "$1" --end --linger 600 --switch-every $switch --forget 7 --metadata-replies $replies \
    --add-after 2 --add-with $add --remove-after 3 --remove-with $remove --keywords "$keywords" >agents.txt 2>&1 &
  agents=$!
  within 20 has_told 'monitor port' || fault "no ports"
}
keywords="ENABLE_FP_STAT_MONITOR 1;TQP_MONITORS 1 1;TQP_NEW_RAW_DATA_POLL_INTERVAL 50"

begun() {
  told 'partition .* begins'
}

start_tqp() {
  local before
  before=$(begun)
  "$bin/tqp" -t 1 -W "$top/work" -m 1 -N $$ -l "$(sed -n 's/^collector port //p' agents.txt)" -i 1000 \
    >>tqp.txt 2>>errors.txt &
  tqp=$!
  within 20 has_told "tqp with pid $tqp has announced itself" || { fault "did not start"; exit 1; }
  [ "$(begun)" -eq "$before" ] || missed=1
}

instance_name() {
  draw work/logs/TR1/2*/tq/raw_data/*.txt
  name=$(basename "$drawn" .txt)
}

# One thing that somebody may ask of a running daemon.
disturb() {
  local signal name level
  draw dump dump_some status level level_of look && case $drawn in
    dump) rm -f "$requests" && signal=RTMIN+5 ;;
    dump_some) instance_name && printf '%s,5,6,21,37\nNobody_S_A,5\n' "$name" >"$requests" && signal=RTMIN+5 ;;
    status) signal=RTMIN+6 ;;
    level) draw 0 1 2 3 4 && echo "TQP_TRACE_LOGLEVEL $drawn 1" >"$levels" && signal=RTMIN+4 ;;
    level_of) draw 1 4 && level=$drawn && instance_name &&
      printf 'TQP_TRACE_LOGLEVEL %s 1\n%s\n' "$level" "$name" >"$levels" && signal=RTMIN+4 ;;
    look) rm -f "$requests" &&
      { "$bin/tqtop" --dir work --testrun 1 --once --open >look.txt 2>>errors.txt || fault "tqtop"; } && return ;;
  esac
  ask $signal
}

# disturb_until TIME [BEGUN]: of $SECONDS; or until more than so many partitions have begun.
disturb_until() {
  while [ $SECONDS -lt "$1" ] && [ "$(begun)" -le "${2:-999}" ]; do
    disturb
    sleep "0.$((15 + RANDOM % 25))"
  done
}

# --- the end of a run ---------------------------------------------------------------------------------------------

# The newest sample of the process's health.
health() {
  grep -a '^health of TQP' agents.txt | tail -1
}

# Everything is written, read, and told so. Whoever has gone leaves a file without an end.
is_caught_up() {
  local newest gone file
  newest=$(sed -n 's/^CurPartitionIdx=//p' work/logs/TR1/.curPartition)
  gone=$(sed -n 's/^instance \(.*\) goes$/\1/p' agents.txt)
  for file in "work/logs/TR1/$newest"/tq/raw_data/*.txt; do
    [ "$(basename "$file" .txt)" = "$gone" ] || [ "$(tail -n 1 "$file" 2>&1)" = 10, ] || return 1
  done
  ask RTMIN+6
  sleep 0.2
  awk -F'|' -v newest="$newest" '!/^#/ { n++; behind += $2 != newest || $3 != $4 || $5 != 0 }
    END { exit n == 0 || behind > 0 }' work/logs/TR1/tq/logs/tqp_current_processing_status 2>/dev/null || return 1
  case $(health) in *", partitions not done 0,"*) ;; *) return 1 ;; esac
}

# Two seconds; on a machine that has more to do than it can, as many times longer.
ms_to_leave() {
  awk -v cores="$(nproc)" '{ busy = $1 / cores; printf "%d", 2000 * (busy > 1 ? busy : 1) }' /proc/loadavg
}

# leave SIGNAL: tqp is told to, and does. Its last words count: a sanitizer's look for leaks comes behind them.
leave() {
  local status=0 began=${EPOCHREALTIME/./} took
  ask "$1"
  wait $tqp || status=$?
  took=$(($(stat -c %.3Y tqp.txt | tr -d .) - began / 1000))
  [ $status -eq 0 ] || fault "exit status $status after $1"
  [ $took -ge 0 ] && [ $took -lt "$(ms_to_leave)" ] || fault "took $took ms to leave after $1"
}

# Lines of the journal tile each file of rows, in order, up to its end.
check_journal() {
  local journal=work/logs/TR1/tq/logs/tqu_db_upload.journal
  [ -s "$journal" ] || { fault "no journal"; return; }
  (cd work/logs/TR1 && find . -name '*.csv' -size +0 -printf '%P %s\n') >sizes.txt
  awk 'FILENAME == "sizes.txt" { size[$1] = $2; next }
    { n = split($0, f, ","); path = f[n]
      if (f[2] != to[path] + 0) print "  not in a row:", $0
      to[path] = f[3] }
    END { for (p in size) if (to[p] != size[p]) print "  not all of", p ":", to[p] + 0, "of", size[p] }' \
    sizes.txt "$journal" >journal.txt
  [ ! -s journal.txt ] || { head -5 journal.txt; fault "the journal"; }
}

check_run() {
  local partition
  [ "$(grep -c '^registered' agents.txt)" -ge 3 ] || fault "monitors are missing"
  grep -q '^metadata: .* is asked for id' agents.txt || fault "no agent was asked for anything"
  for partition in work/logs/TR1/2*; do
    [ -e "$partition/tq/csv/.tqp_process_done_v2.txt" ] || fault "no done file in $(basename "$partition")"
  done
  if grep -aE 'Sanitizer|runtime error' errors.txt >/dev/null; then
    grep -aE -m 1 -A 40 'Sanitizer|runtime error' errors.txt
    fault "a sanitizer's report"
  fi
  "$bin/tqshow" --dir work --testrun 1 --check >check.txt 2>&1 || { head -5 check.txt; fault "tqshow --check"; }
  check_journal
}

one_run() {
  rm -rf work "$requests" "$levels" ./*.txt
  start_agents "$1"
  mkdir -p work/bin
  ln -s "$bin/tqu_db_upload" work/bin
  export TQU_DATABASE=journal: # a dry run: the load of a database is measured elsewhere
  echo 'ENABLE_AUTO_MONITOR_REGISTRATION 1' >work/logs/TR1/sorted_scenario.conf
  local end=$((SECONDS + $1))
  missed=0
  start_tqp
  if [ $missed -eq 0 ] && [ $((run % 2)) -eq 1 ]; then
    disturb_until $((end - $1 / 2))
    disturb_until $end "$(begun)"
    leave TERM
    start_tqp
  fi
  [ $missed -eq 0 ] || return 0
  disturb_until $end
  within 60 is_caught_up || { fault "not through: $(health)"; cat work/logs/TR1/tq/logs/tqp_current_processing_status; }
  leave RTMIN+3
  kill $agents
  wait $agents || fault "the agents"
  check_run
  tail -1 check.txt
}

run=0 left=$seconds
while [ "$left" -gt 0 ]; do
  run=$((run + 1))
  length=$((left < 13 ? left : 6 + RANDOM % 7))
  for try in 1 2 3 4; do
    one_run $length
    [ $missed -eq 1 ] || break
    echo "run $run: left out, a partition began while tqp started"
    kill -9 $tqp $agents
    wait $tqp $agents || true
    [ $try -lt 4 ] || { fault "too slow a machine"; exit 1; }
  done
  left=$((left - length))
done
[ $faults -eq 0 ] && echo "no faults" || { echo "$faults faults"; exit 1; }
