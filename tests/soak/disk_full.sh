#!/bin/bash
# A disk that fills up: tqp must neither crash, hang, leave, spin nor grow; it must tell, and go on when there is room.
#   disk_full.sh BUILD_DIR [MB]
#     MB     of raw data of each of two instances (6); the first disk takes less than tqp makes of half of it
# Needs a file system of its own: as root, or where user namespaces are allowed. Elsewhere it says so and ends with 0.
# Exit status 1 with the faults on standard output.
#
# Three runs, with a parent that keeps tqp going. Half of the raw data comes while the disk is full or fills up, the other
# half when there is room:
#   midway     the disk fills up while tqp writes; then it grows
#   restarted  as midway, but tqp is stopped while the disk is full, and started again when there is room
#   at start   the disk is full before tqp starts; then a filler is removed
# Asked for: while the disk is full tqp lives on at rest, without growing, and says so; rows appear again when there is
# room, and tqp ends with 0; tqshow --check finds fault only with flowpaths whose bytes were lost: no row is torn, every id
# has its row.
set -euo pipefail
export LC_ALL=C
if [ "${1:-}" != inside ]; then
  unshare -m true 2>/dev/null && exec unshare -m "$0" inside "$@"
  unshare -rm true 2>/dev/null && exec unshare -rm "$0" inside "$@"
  echo "disk_full: no file system can be mounted here, left out"
  exit 0
fi
shift
bin=$(cd "$1/bin" && pwd)
mb=${2:-6}
top=$(mktemp -d "${TMPDIR:-/tmp}/tqp_disk_full.XXXXXX")
trap 'kill -9 $(jobs -p) 2>/dev/null || true; umount -l "$top/disk" 2>/dev/null || true; rm -rf "$top"' EXIT
trap 'exit 1' HUP INT TERM
cd "$top"
faults=0
pid=0

fault() {
  echo "FAULT: $*"
  faults=$((faults + 1))
}

# --- the disk -----------------------------------------------------------------------------------------------------

# make_disk KB: an empty disk with a test run. The raw files lie elsewhere and show through links: what fills the disk is
# output.
make_disk() {
  local file link
  umount -l disk 2>/dev/null || true
  rm -rf disk raw
  mkdir disk raw
  mount -t tmpfs -o size="$1"k,mode=755 tmpfs disk || { echo "disk_full: tmpfs cannot be mounted here, left out"; exit 0; }
  cp -a template/. disk
  for file in template_raw/*/*.txt; do
    cp "$file" raw/
    link=disk/logs/TR1/$(basename "$(dirname "$file")")/tq/raw_data
    mkdir -p "$link"
    ln -s "$top/raw/$(basename "$file")" "$link"
  done
}

fill_disk() {
  cat /dev/zero >disk/filler 2>/dev/null || true
}

is_full() {
  [ "$(df --output=avail -k disk | tail -1)" -eq 0 ]
}

# --- tqp ----------------------------------------------------------------------------------------------------------

start_tqp() {
  sleep 1000 &
  parent=$!
  "$bin/tqp" -t 1 -W "$top/disk" -m 0 -l 1 -N $parent >out.txt 2>>err.txt &
  pid=$!
}

lives() {
  [ -d /proc/$pid ] && ! grep -q '^State:.*zombie' /proc/$pid/status
}

# end_tqp SIGNAL WORDS: it leaves with 0 within half a minute.
end_tqp() {
  local i status=0
  kill -"$1" $pid 2>/dev/null || true
  for ((i = 0; i < 300; ++i)); do
    lives || break
    sleep 0.1
  done
  lives && { fault "$2: tqp hangs"; kill -9 $pid; }
  wait $pid || status=$?
  [ $status -eq 0 ] || { fault "$2: tqp ends with $status"; tail -5 err.txt; }
  kill $parent
  wait $parent 2>/dev/null || true
}

rows() {
  cat disk/logs/TR1/2*/tq/csv/*/TQFlowPath.csv 2>/dev/null | wc -l
}

# wait_until SECONDS COMMAND...: false when it never came true.
wait_until() {
  local i
  for ((i = 0; i < $1 * 10; ++i)); do
    "${@:2}" && return 0
    lives || return 1
    sleep 0.1
  done
  return 1
}

ticks() { # hundredths of CPU time so far
  awk '{ print $14 + $15 }' /proc/$pid/stat
}

rests() {
  local before
  before=$(ticks)
  sleep 0.5
  [ $(($(ticks) - before)) -le 10 ]
}

# When all is read and the disk is full: alive, at rest, and no larger after a while than before.
look_at_rest() { # WORDS
  local before
  wait_until 60 rests || { fault "$1: tqp is gone, or never rests"; tail -5 err.txt; return 0; }
  before=$(awk '/^VmRSS/ { print $2 }' /proc/$pid/status)
  sleep 1.5
  rests || fault "$1: tqp does not stay at rest"
  [ "$(awk '/^VmRSS/ { print $2 }' /proc/$pid/status)" -le $((before + 4096)) ] || fault "$1: tqp grows at rest"
}

told() {
  grep -qs 'No space left on device' err.txt disk/logs/TR1/2*/tq/logs/tqp_trace.log
}

# --- raw data that goes on coming ---------------------------------------------------------------------------------

# Each instance's file comes in two parts: the second one stands beside, and is appended later.
split_raw_files() {
  local file half
  for file in raw/*.txt; do
    half=$(($(wc -l <"$file") / 2))
    tail -n +$((half + 1)) "$file" >"$file.rest"
    head -n $half "$file" >"$file.begin"
    mv "$file.begin" "$file"
  done
}

append_rest() {
  local file
  for file in raw/*.txt; do
    cat "$file.rest" >>"$file"
    rm "$file.rest"
  done
}

# --- what came out ------------------------------------------------------------------------------------------------

# Each fault is a flowpath that leads to lost bytes: no fault of another file, and none of names.
check_output() { # WORDS ROWS_WHEN_FULL
  local after
  after=$(($(rows) - $2))
  [ $after -gt 20 ] || fault "$1: only $after rows since there was room"
  "$bin/tqshow" --dir disk --testrun 1 --check >check.txt || true
  grep -v -e 'TQFlowPath.csv row .*does not inflate' -e ' faults$' -e '^\.\.\. and' check.txt >other.txt || true
  echo "$1: $2 rows when full, $after since, $(tail -1 check.txt)"
  [ ! -s other.txt ] || { sed 's/^/  /; 8q' other.txt; fault "$1: tqshow --check finds more than lost bytes"; }
}

midway() { # WORDS STOP
  local full_rows
  make_disk $((raw_kb / 3 + 512))
  split_raw_files
  : >err.txt
  start_tqp
  wait_until 60 is_full || fault "$1: the disk does not fill"
  look_at_rest "$1"
  told || fault "$1: nothing is told"
  full_rows=$(rows)
  [ "$2" = on ] || end_tqp TERM "$1, stopped"
  mount -o remount,size=$((raw_kb * 4 + 8192))k disk
  [ "$2" = on ] || start_tqp
  append_rest
  wait_until 60 more_rows_than $((full_rows + 20)) || fault "$1: no rows since there is room"
  end_tqp RTMIN+3 "$1"
  check_output "$1" "$full_rows"
}

more_rows_than() {
  [ "$(rows)" -gt "$1" ]
}

at_start() {
  make_disk $((raw_kb * 4 + 8192))
  split_raw_files
  fill_disk
  : >err.txt
  start_tqp
  look_at_rest "at start"
  told || fault "at start: nothing is told"
  rm disk/filler
  append_rest
  wait_until 60 more_rows_than 20 || fault "at start: no rows since there is room"
  end_tqp RTMIN+3 "at start"
  check_output "at start" 0
}

"$bin/tq_sample" --dir template --testrun 1 --instances 2 --partitions 1 --mb "$mb" >/dev/null
for partition in template/logs/TR1/2*; do
  mkdir -p "template_raw/${partition##*/}"
  mv "$partition"/tq/raw_data/*.txt "template_raw/${partition##*/}"
done
raw_kb=$((mb * 2 * 1024))
midway midway on
midway restarted off
at_start
[ $faults -eq 0 ] && echo "no faults" || { echo "$faults faults"; exit 1; }
