#!/bin/bash
# Proof of recovery: kills tqp again and again, lets it finish, and compares with a run that nobody disturbed.
#   recovery_soak.sh BUILD_DIR [KILLS] [STEP] [SEED]
#     KILLS  kills -9 at moments drawn by chance, under load (40)
#     STEP   kills before every STEP-th call that changes a file: over the reading of one partition, and over a live
#            switch from one partition to the next (1: every one)
#     SEED   of data and moments (1)
# Takes minutes with the defaults; `4 149 1` takes seconds. Exit status 1 with the faults on standard output.
#
# What is asked for, after each kill and a restart that ends by itself:
#   - a flowpath that the kill could not cut is there, and its call trees read as in the undisturbed run, names, times and
#     all. Cut may be one whose records lie on both sides of the saved offset, the last one right before it included
#   - one id has one text, and one text of a kind one id
#   - tqshow --check finds nothing: every reference leads to its bytes, every id to its row, every row is whole
# docs/recovery.md tells what else may be lost or stand there twice.
set -euo pipefail
export LC_ALL=C
export ASAN_OPTIONS="${ASAN_OPTIONS:-}:detect_leaks=0" # leaks cannot be looked for in a process that is watched
bin=$(cd "$1/bin" && pwd)
for program in tqp tq_sample tqshow stop_at_write announce_switch; do
  [ -x "$bin/$program" ] || { echo "$bin/$program is not there; build it first, with -DTQP_TESTS=ON"; exit 1; }
done
kills=${2:-40} step=${3:-1} seed=${4:-1}
top=$(mktemp -d "${TMPDIR:-/tmp}/tqp_soak.XXXXXX")
trap 'kill -9 $(jobs -p) 2>/dev/null || true; rm -rf "$top"' EXIT
trap 'exit 1' HUP INT TERM
cd "$top"
RANDOM=$seed
faults=0

fault() {
  echo "FAULT: $*"
  faults=$((faults + 1))
}

# --- where flowpaths stand in the raw data, and where offsets stand -----------------------------------------------

# spans WORK: "instance flowpath begin end" for each; positions are partition number times 10^12 plus byte.
spans() {
  local file
  for file in "$1"/logs/TR1/2*/tq/raw_data/*.txt; do
    awk -F, -v instance="$(basename "$file" .txt)" -v part="$(partition_number "$1" "$file")" '
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
  done | awk '{ k = $1 " " $2; if (!(k in b) || $3 < b[k]) b[k] = $3; if ($4 > e[k]) e[k] = $4 }
    END { for (k in b) printf "%s %.0f %.0f\n", k, b[k], e[k] }'
}

# The how-manyth partition of the test run a raw or offset file lies in.
partition_number() {
  local dir number=0 own=${2%/tq/raw_data/*}
  for dir in "$1"/logs/TR1/2*; do
    number=$((number + 1))
    [ "$dir" != "$own" ] || echo $number
  done
}

# saved WORK: "instance position" for each instance: its newest offset file.
saved() {
  local raw name offset text
  for raw in "$1"/logs/TR1/2*/tq/raw_data/*.txt; do
    name=${raw##*/} offset=${raw%/*}/.${raw##*/}.offset text=0
    [ -e "$offset" ] || continue
    read -r text <"$offset" || true # it has no newline
    echo "${name%.txt} $(partition_number "$1" "$raw") ${text:-0}"
  done | awk '{ s[$1] = $2 * 1e12 + $3 } END { for (i in s) printf "%s %.0f\n", i, s[i] }'
}

# --- comparing ----------------------------------------------------------------------------------------------------

# trees WORK: "flowpath<TAB>all that is told of it on one line", without where it lies. Captured arguments name their
# method by its norm id, which is another one when instances meet methods in another order: the name takes its place.
trees() {
  "$bin/tqshow" --dir "$1" --testrun 1 --every | awk -F, '
    !from_stdin { if ($2 == 0) { id = $1; sub(/^[^,]*,[^,]*,/, ""); name[id] = $0 } next }
    /^flowpath     / { if (fpi) print fpi "\t" text; fpi = $0; sub(/^flowpath */, "", fpi); text = "" }
    /^$/ || /^list / || /^correlation / { next }
    {
      gsub(/, partition [0-9]+/, "")
      while (match($0, /[0-9]+:(arg[0-9]+|this):/)) {
        text = text "|" substr($0, 1, RSTART - 1) name[substr($0, RSTART) + 0]
        $0 = substr($0, RSTART + index(substr($0, RSTART), ":") - 1)
        sub(/^:(arg[0-9]+|this)/, "")
      }
      text = text "|" $0
    }
    END { if (fpi) print fpi "\t" text }' "$1/logs/TR1/tq/csv/TQMetaData.csv" from_stdin=1 -
}

checked=0 left_out=0 # of all comparisons

# compare WORK KILLED WORDS: the run's trees beside those of the undisturbed run; KILLED holds lines of saved().
compare() {
  local pair
  trees "$1" >trees.txt || fault "$3: a flowpath cannot be read"
  awk -F'\t' -v killed="$2" '
    FILENAME == killed { split($0, k, " "); at[++n] = k[2] + 0; who[n] = k[1]; next }
    FILENAME == "spans.txt" { split($0, s, " "); of[s[2]] = s[1]; begin[s[2]] = s[3] + 0; end[s[2]] = s[4] + 0; next }
    FILENAME == "reference.txt" { wanted[$1] = $2; next }
    { seen[$1] = 1; if ($2 == wanted[$1]) same[$1] = 1 }
    END {
      for (f in wanted) {
        free = 1
        for (i = 1; i <= n; ++i)
          if (who[i] == of[f] && begin[f] < at[i] && at[i] <= end[f])
            free = 0
        checked += free
        left_out += !free
        if (free && !(f in seen)) printf "missing %s %s %.0f %.0f\n", f, of[f], begin[f], end[f]
        else if (free && !(f in same)) printf "changed %s %s %.0f %.0f\n", f, of[f], begin[f], end[f]
      }
      print "pair", checked + 0, left_out + 0
    }' "$2" spans.txt reference.txt trees.txt >compared.txt
  pair=$(sed -n 's/^pair //p' compared.txt)
  checked=$((checked + ${pair% *})) left_out=$((left_out + ${pair#* }))
  sed -i '/^pair /d' compared.txt
  [ ! -s compared.txt ] || { sed 's/^/  /; 5q' compared.txt; fault "$3: flowpaths are missing or changed"; }
  one_text_an_id "$1" "$3"
  "$bin/tqshow" --dir "$1" --testrun 1 --check >check.txt || { head -5 check.txt; fault "$3: tqshow --check"; }
}

# one_text_an_id WORK WORDS: rows may stand there twice, but never with another text or another id.
one_text_an_id() {
  local common=$1/logs/TR1/tq/csv
  {
    awk -F, '{ t = $3; for (i = 4; i <= NF; ++i) t = t "," $i; print "method " $2 "\t" $1 "\t" t }' "$common/TQMetaData.csv"
    awk -F, '{ t = $4; for (i = 5; i <= NF; ++i) t = t "," $i; print "sql\t" $2 "\t" t }' "$common/TQSQL.csv"
    awk -F, 'NF == 9 { print "url\t" $2 "\t" $7 }' "$common/TQURLTable.csv" # a comma in a name ends it at a restart
    awk -F, '{ print "header\t" $2 "\t" $1 }' "$common/TQHTTPHeaderMetaData.csv"
    sed 's/,/\t/; s/^/tags\t/' "$common/TQTags.csv"
    awk -F, 'FNR == 1 { n = split(FILENAME, p, "/") } { t = $2; for (i = 3; i <= NF; ++i) t = t "," $i; print p[n] "\t" $1 "\t" t }' \
      "$common"/TQException{Class,Message,Cause,ThrowingClass,ThrowingMethod}.csv "$common/TQIPResourceMetaData.csv"
  } | sort -u | awk -F'\t' '
    (($1, $2) in text) && text[$1, $2] != $3 { print "  two texts:", $0 }
    (($1, $3) in id) && id[$1, $3] != $2 { print "  two ids:", $0 }
    { text[$1, $2] = $3; id[$1, $3] = $2 }' >ids.txt
  [ ! -s ids.txt ] || { head -5 ids.txt; fault "$2: ids and texts"; }
}

# --- runs ---------------------------------------------------------------------------------------------------------

now_ms() {
  echo $((${EPOCHREALTIME/./} / 1000))
}

run_to_end() { # WORK
  timeout 120 "$bin/tqp" -t 1 -W "$top/$1" -m 0 >/dev/null 2>errors.txt
}

# make_template OPTION...: a finished test run, and what tqp makes of it undisturbed; takes took_ms, idle_ms.
make_template() {
  local began
  rm -rf template reference
  "$bin/tq_sample" --dir template --testrun 1 --seed "$seed" "$@" >/dev/null
  cp -a template reference
  began=$(now_ms)
  run_to_end reference
  took_ms=$(($(now_ms) - began))
  spans template >spans.txt
  trees reference >reference.txt
  "$bin/tqshow" --dir reference --testrun 1 --check >/dev/null || fault "the undisturbed run"
  began=$(now_ms)
  run_to_end reference # nothing is left to be read
  idle_ms=$(($(now_ms) - began))
  checked=0 left_out=0
}

fresh() {
  rm -rf work
  cp -a template work
  : >killed.txt
}

finish() {
  run_to_end work || { cat errors.txt; fault "$1: restart"; }
}

# Kills come while tqp reads: its start takes as long as a run that finds nothing new. A run that gets through is compared,
# and the next one begins.
kills_by_chance() {
  local done=0 runs=0 pid wait_ms
  make_template --instances 3 --partitions 1 --mb $((kills / 2 + 1))
  while ((done < kills && runs < 12)); do
    fresh
    runs=$((runs + 1))
    while ((done < kills)); do
      wait_ms=$((idle_ms / 2 + RANDOM % (2 * (took_ms - idle_ms) / kills + 5)))
      "$bin/tqp" -t 1 -W "$top/work" -m 0 >/dev/null 2>&1 &
      pid=$!
      sleep "$(printf '%d.%03d' $((wait_ms / 1000)) $((wait_ms % 1000)))"
      kill -9 $pid 2>/dev/null || true
      ! wait $pid 2>/dev/null || break # it was through
      done=$((done + 1))
      saved work >>killed.txt
    done
    finish "kills by chance, run $runs"
    compare work killed.txt "kills by chance, run $runs"
  done
  echo "kills by chance: $done kills in $runs runs, $checked flowpaths compared, $left_out left out"
}

# kills_at_calls WORDS COMMAND...: COMMAND runs tqp over the run "work", behind stop_at_write and its number.
kills_at_calls() {
  local words=$1 calls n
  shift
  fresh
  "$@" "$bin/stop_at_write" 0 "$bin/tqp" -t 1 -W "$top/work" -m 0 >/dev/null 2>calls.txt || {
    echo "$words: processes cannot be watched here, left out"
    return 0
  }
  compare work killed.txt "$words, undisturbed"
  calls=$(sed -n 's/^calls //p' calls.txt)
  for ((n = 1; n <= calls; n += step)); do
    fresh
    "$@" "$bin/stop_at_write" $n "$bin/tqp" -t 1 -W "$top/work" -m 0 >/dev/null 2>errors.txt ||
      { cat errors.txt; fault "$words, killed before call $n: the end"; }
    saved work >killed.txt
    finish "$words, killed before call $n"
    compare work killed.txt "$words, killed before call $n"
  done
  echo "$words: $calls calls, every $step. is a kill, $checked flowpaths compared, $left_out left out"
}

kills_in_a_partition() {
  make_template --instances 2 --partitions 1 --flowpaths 6 --keywords "TQP_TRACE_LEVEL 0"
  kills_at_calls "one partition" env
}

# The switch is live: of a stretch of several partitions that is caught up with after a kill, more may be lost.
kills_in_a_switch() {
  local first second
  make_template --instances 2 --partitions 2 --flowpaths 8 --keywords "TQP_TRACE_LEVEL 0"
  cd template/logs/TR1
  first=$(echo 2* | cut -d' ' -f1) second=$(echo 2* | cut -d' ' -f2)
  mv .curPartition .curPartition.next
  sed "s/$second/$first/" .curPartition.next >.curPartition
  cp "$first/.partition_info.txt" "$first/.partition_info.txt.next"
  sed -i 's/^NextPartition=.*/NextPartition=0/' "$first/.partition_info.txt"
  cd "$top"
  kills_at_calls "a live switch" "$bin/announce_switch" "$top/work/logs/TR1" "$first" "$second"
}

[ "$kills" -eq 0 ] || kills_by_chance
[ "$step" -eq 0 ] || kills_in_a_partition
[ "$step" -eq 0 ] || kills_in_a_switch
[ $faults -eq 0 ] && echo "no faults" || { echo "$faults faults"; exit 1; }
