#!/usr/bin/env bash
# Kills the loader again and again while a live run writes, and compares what it has brought in with one load of the
# finished files.
#   load_kills.sh BUILD_DIR [KILLS [SECONDS [POINTS [SEED]]]]
# KILLS: SIGKILLs at random moments (200). SECONDS: of the live run, with a switch every 3 s, an instance that comes and one
# that goes, and late rows (40). POINTS: then a small finished run is loaded, and the loader is killed before one of its writes, at
# so many of them (all). SEED: of the moments; printed, so that a run can be repeated as far as a machine allows.
# Every table must be the same, row by row.
set -euo pipefail
[ $# -ge 1 ] || { sed -n '2,8s/^# *//p' "$0"; exit 1; }
bin=$(cd "$1/bin" && pwd)
kills=${2:-200}
seconds=${3:-40}
points=${4:-100000}
seed=${5:-$RANDOM}
if ! command -v sqlite3 >/dev/null; then
  echo "sqlite3 is not installed: skipped"
  exit 77
fi
top=$(mktemp -d "${TMPDIR:-/tmp}/load_kills.XXXXXX")
children=()
leave() {
  for child in "${children[@]}"; do kill -9 "$child" 2>/dev/null || true; done
  rm -rf "$top"
}
trap leave EXIT
cd "$top"
RANDOM=$seed
echo "seed $seed"

# --- a live run ---------------------------------------------------------------------------------------------------

"$bin/tq_sample" --dir work --testrun 1 --partitions 1 --online --quiet --rate 400000 --seconds "$seconds" --end \
  --switch-every 3 --add-after 4 --remove-after 6 >agents.txt 2>&1 &
agents=$!
children+=("$agents")
for ((i = 0; i < 200; ++i)); do
  [ "$(grep -cs port agents.txt || true)" != 2 ] || break
  sleep 0.1
done
port=$(awk '{ for (i = 1; i < NF; ++i) if ($i ~ /port/) { print $(i + 1); exit } }' agents.txt | tr -dc 0-9)
"$bin/tqp" -t 1 -W "$top/work" -l "$port" -m 0 -N "$agents" >tqp.txt 2>&1 &
tqp=$!
children+=("$tqp")

# --- kills --------------------------------------------------------------------------------------------------------

killed="sqlite:$top/killed.sqlite"
export WL_WDIR=$top/work
load=("$bin/tqu_db_upload" --testrun 1 --running_mode 1 --vector_separator : --idle_time 1 --num_cycles 1 --resume 1 --database)
done_kills=0
for ((i = 0; i < kills; ++i)); do
  "${load[@]}" "$killed" --ppid $$ >>loader.txt 2>&1 &
  loader=$!
  sleep "0.$(printf %03d $((RANDOM % 400)))"
  if kill -9 "$loader" 2>/dev/null; then
    done_kills=$((done_kills + 1))
  fi
  wait "$loader" 2>/dev/null || true
done
wait "$agents" || { echo "the agents failed"; cat agents.txt; exit 1; }
kill -s RTMIN+3 "$tqp" 2>/dev/null || true
wait "$tqp" || { echo "tqp failed"; cat tqp.txt; exit 1; }
"${load[@]}" "$killed" --ppid 0 >last.txt 2>&1 || { cat last.txt loader.txt; exit 1; }
"${load[@]}" "sqlite:$top/whole.sqlite" --ppid 0 >whole.txt 2>&1 || { cat whole.txt; exit 1; }
cat whole.txt

# --- the comparison -----------------------------------------------------------------------------------------------

# All rows of a table in one order. Positions know the order of files' first rows, which is another one.
rows_of() {
  local columns='*'
  [ "$2" != load_position ] || columns='path, taken, row_count, rejected, mended'
  sqlite3 "$1" "SELECT $columns FROM $2" | LC_ALL=C sort
}

# compare ONE OTHER: says which tables differ; sets `faults`.
compare() {
  local table
  faults=0
  for table in $(sqlite3 "$2" "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%'"); do
    rows_of "$1" "$table" >killed.rows
    rows_of "$2" "$table" >whole.rows
    if ! cmp -s killed.rows whole.rows; then
      echo "$table: $(wc -l <killed.rows) rows after kills, $(wc -l <whole.rows) in one go; first differences:"
      diff killed.rows whole.rows | head -6 | cut -c1-300
      faults=$((faults + 1))
    fi
  done
}

compare killed.sqlite whole.sqlite
flowpaths=$(sqlite3 whole.sqlite 'SELECT count(*) FROM flowpath')
partitions=$(find work/logs/TR1 -maxdepth 1 -name '2*' | wc -l)
late=$(find work/logs/TR1 -name .tqp_process_done_v2.txt -exec cat {} + | wc -l)
rejected=$(sqlite3 whole.sqlite 'SELECT count(*) FROM load_reject')
elsewhere=$(sqlite3 whole.sqlite 'SELECT count(*) FROM segment s JOIN flowpath f ON f.fpi = s.main_fpi WHERE s.partition <> f.list_partition')
echo "$elsewhere segments with their texts in an earlier file, $rejected notes in load_reject"
echo "$done_kills kills, $flowpaths flowpaths in $partitions partitions, $late notes of late rows, $faults tables differ"
[ "$flowpaths" -gt 0 ] && [ "$done_kills" -gt 0 ] && [ "$faults" -eq 0 ] || exit 1

# --- kills at writes ----------------------------------------------------------------------------------------------

rm -rf work ./*.sqlite*
"$bin/tq_sample" --dir work --testrun 1 --flowpaths 8 --instances 2 >/dev/null
"$bin/tqp" -t 1 -W "$top/work" -m 0 >/dev/null
if ! "$bin/stop_at_write" 0 "${load[@]}" "sqlite:$top/whole.sqlite" --ppid 0 >/dev/null 2>calls.txt; then
  echo "processes cannot be watched here: no kills at writes"
  exit 0
fi
calls=$(awk 'END { print $2 }' calls.txt)
[ "$points" -le "$calls" ] || points=$calls
for ((i = 0; i < points; ++i)); do
  n=$((1 + (i * calls + RANDOM % calls) / points))
  rm -f killed.sqlite*
  "$bin/stop_at_write" $n "${load[@]}" "$killed" --ppid 0 >/dev/null 2>&1 || { echo "no kill at write $n"; exit 1; }
  "${load[@]}" "$killed" --ppid 0 >last.txt 2>&1 || { echo "after a kill at write $n:"; cat last.txt; exit 1; }
  compare killed.sqlite whole.sqlite
  [ "$faults" -eq 0 ] || { echo "after a kill at write $n of $calls"; exit 1; }
done
echo "$points kills at writes of $calls, nothing differs"
