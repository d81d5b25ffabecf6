#!/bin/bash
# Proof of recovery over many short partitions: agents write live, with late flowpaths, a collector switches partitions
# every 3 seconds, and tqp is killed and started again all the time. What came out is compared flowpath by flowpath with
# what a run makes of the same raw data that nobody disturbed.
#   partition_kills.sh BUILD_DIR [KILLS] [SEED]
#     KILLS  kills -9 at moments drawn by chance (500); a kill takes about half a second
#     SEED   of data and moments (1)
# Exit status 1 with the faults on standard output. What is asked for:
#   - each flowpath that no kill could cut has its row, in the file of the same partition, with the same times and counts.
#     Cut may be one whose records lie on both sides of an offset that a kill has left, the last one right before it
#     included; and what an instance had still to read in a partition that was marked on the walk back
#   - no row stands there twice
#   - tqshow --check finds nothing
set -euo pipefail
export LC_ALL=C
export ASAN_OPTIONS="${ASAN_OPTIONS:-}:detect_leaks=0"
bin=$(cd "$1/bin" && pwd)
kills=${2:-500} seed=${3:-1}
tqp=${TQP:-$bin/tqp}
top=$(mktemp -d "${TMPDIR:-/tmp}/tqp_kills.XXXXXX")
trap 'kill -9 $(jobs -p) 2>/dev/null || true; rm -rf "$top"' EXIT
trap 'exit 1' HUP INT TERM
cd "$top"
RANDOM=$seed
faults=0

fault() {
  echo "FAULT: $*"
  faults=$((faults + 1))
}

# Where a restart will go on: "instance partition offset newest-done-partition" for each instance.
note_offsets() {
  local partitions=(work/logs/TR1/2*) found=' ' newest_done=0 i offset name text
  for ((i = ${#partitions[@]} - 1; i >= 0; --i)); do
    if [ -e "${partitions[i]}/tq/csv/.tqp_process_done_v2.txt" ]; then
      newest_done=${partitions[i]##*/}
      break
    fi
  done
  for ((i = ${#partitions[@]} - 1; i >= 0; --i)); do
    for offset in "${partitions[i]}"/tq/raw_data/.*.txt.offset; do
      name=${offset##*/.} name=${name%.txt.offset}
      [[ -e $offset && $found != *" $name "* ]] || continue
      found+="$name "
      read -r text <"$offset" || true # it has no newline
      echo "$name ${partitions[i]##*/} ${text:-0} $newest_done"
    done
    [[ $found != *' '*' '*' '*' '* ]] || break # all three
  done >>killed.txt
}

# spans: "instance flowpath begin end" for each flowpath; positions are partition number times 10^12 plus byte.
spans() {
  local number=0 partition file
  for partition in work/logs/TR1/2*; do
    number=$((number + 1))
    echo "$number ${partition##*/}" >>numbers.txt
    for file in "$partition"/tq/raw_data/*.txt; do
      awk -F, -v instance="$(basename "$file" .txt)" -v part="$number" '
        { from = at; at += length($0) + 1 }
        $1 ~ /^[0-9]+$/ { # any record of a flowpath: also details and bodies that come ahead of its header
          for (i = 2; i <= 4 && $i !~ /^-?[0-9]+:-?[0-9]+:/; ++i) # the tuple; before it may stand a version and a part
            continue
          if (i > 4)
            next
          n = split($i, t, ":")
          main = n >= 4 && t[4] != 0 ? t[4] : t[1]
          printf "%s %s %.0f %.0f\n", instance, main, part * 1e12 + from, part * 1e12 + at
        }' "$file"
    done
  done | awk '{ k = $1 " " $2; if (!(k in b) || $3 < b[k]) b[k] = $3; if ($4 > e[k]) e[k] = $4 }
    END { for (k in b) printf "%s %.0f %.0f\n", k, b[k], e[k] }'
}

# rows WORK: "instance/flowpath/partition<TAB>times and counts": what does not depend on ids and places.
rows() {
  local partition file
  for partition in "$1"/logs/TR1/2*; do
    for file in "$partition"/tq/csv/*/TQFlowPath.csv; do
      awk -F, -v where="${partition##*/}" -v instance="$(basename "$(dirname "$file")")" '{
        print instance "/" $1 "/" where "\t" $2 "," $3 "," $4 "," $6 "," $9 "," $12 "," $13 "," $16 "," $17 "," $19 }' "$file"
    done
  done
}

# --- the disturbed run --------------------------------------------------------------------------------------------

"$bin/tq_sample" --dir work --testrun 1 --seed "$seed" --instances 3 --partitions 1 --online --quiet --rate 150000 --in-flight 2 \
  --flowpath-methods 10 --switch-every 3 --late 3 --end --keywords "TQP_NEW_RAW_DATA_POLL_INTERVAL 20;TQP_TRACE_LEVEL 1" >told.txt &
agents=$!
while ! grep -q '^monitor port' told.txt 2>/dev/null; do
  kill -0 $agents || { echo "the agents did not start"; exit 1; }
  sleep 0.02
done
port=$(sed -n 's/^collector port //p' told.txt)
for ((done = 0; done < kills; ++done)); do
  "$tqp" -t 1 -W "$top/work" -m 0 -N $agents -l "$port" >/dev/null 2>>errors.txt &
  pid=$!
  sleep "0.$((100 + RANDOM % 800))"
  kill -9 $pid || fault "tqp had ended by itself before kill $((done + 1))"
  wait $pid 2>/dev/null || true
  note_offsets
done
kill -TERM $agents
wait $agents || true
timeout 300 "$tqp" -t 1 -W "$top/work" -m 0 >/dev/null 2>>errors.txt || fault "the last start"

# --- the undisturbed one, and comparing ---------------------------------------------------------------------------

cp -a work reference
rm -rf reference/logs/TR1/tq/{csv,recovery,logs} reference/logs/TR1/2*/tq/{csv,dat,sqb,logs}
rm -f reference/logs/TR1/2*/tq/raw_data/.*.offset
timeout 300 "$tqp" -t 1 -W "$top/reference" -m 0 >/dev/null 2>errors_reference.txt || fault "the undisturbed run"
spans >spans.txt
rows reference | sort >wanted.txt
rows work | sort >seen.txt
uniq -d <(cut -f 1 seen.txt) >twice.txt
[ ! -s twice.txt ] || { head -5 twice.txt; fault "$(wc -l <twice.txt) rows stand there twice"; }
awk -F'\t' '
  FILENAME == "numbers.txt" { split($0, s, " "); number[s[2]] = s[1]; next }
  FILENAME == "killed.txt" {
    split($0, k, " ")
    who[++n] = k[1]; at[n] = number[k[2]] * 1e12 + k[3]
    unread_to[n] = k[4] >= k[2] ? (number[k[4]] + 1) * 1e12 : 0
    next
  }
  FILENAME == "spans.txt" { split($0, s, " "); begin[s[1] "/" s[2]] = s[3] + 0; end[s[1] "/" s[2]] = s[4] + 0; next }
  FILENAME == "seen.txt" { seen[$1] = $2; next }
  {
    split($1, w, "/")
    f = w[1] "/" w[2]
    cut = skipped = 0
    for (i = 1; i <= n; ++i)
      if (who[i] == w[1]) {
        cut += begin[f] < at[i] && at[i] <= end[f]
        skipped += begin[f] < unread_to[i] && end[f] > at[i]
      }
    late += number[w[3]] * 1e12 + 1e12 <= begin[f]
    ++all
    left_out += cut > 0
    passed_over += !cut && skipped > 0
    lost += !cut && skipped > 0 && !($1 in seen)
    if (cut || skipped)
      next
    if (!($1 in seen)) print "missing", $1, begin[f], end[f]
    else if (seen[$1] != $2) print "changed", $1, $2, seen[$1]
  }
  END { printf "%d flowpaths, %d of them late; cut by a kill: %d; in partitions passed over: %d, lost there: %d\n", all, late, left_out, passed_over, lost >"sums.txt" }
' numbers.txt killed.txt spans.txt seen.txt wanted.txt >compared.txt
[ ! -s compared.txt ] || { head -5 compared.txt; fault "$(wc -l <compared.txt) flowpaths are missing or changed"; }
"$bin/tqshow" --dir work --testrun 1 --check >check.txt || { head -5 check.txt; fault "tqshow --check"; }
partitions=(work/logs/TR1/2*)
unmarked=0
for partition in "${partitions[@]::${#partitions[@]}-1}"; do
  [ -e "$partition/tq/csv/.tqp_process_done_v2.txt" ] || unmarked=$((unmarked + 1))
done
echo "$kills kills over ${#partitions[@]} partitions, $unmarked not marked as done: $(cat sums.txt)"
[ $faults -eq 0 ] && echo "no faults" || { echo "$faults faults"; exit 1; }
