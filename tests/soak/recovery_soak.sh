#!/bin/bash
# Proof of recovery: kills tqp again and again, lets it finish, and compares with a run that nobody disturbed.
#   recovery_soak.sh BUILD_DIR [KILLS] [STEP] [SEED]
#     KILLS  kills -9 at moments drawn by chance, under load (40)
#     STEP   kills before every STEP-th call that changes a file, over one whole run with a partition switch (1: every one)
#     SEED   of data and moments (1)
# Takes minutes with the defaults; `40 997 1` takes seconds. Exit status 1 with the faults on standard output.
#
# What is asked for, after each kill and a restart that ends by itself:
#   - a flowpath that did not span the saved offset, that is, whose records all lie behind it, or whose last one lies before
#     the last record saved, is there, and its call trees read as in the undisturbed run, names, times and all
#   - one id has one text, and one text of a kind one id
#   - tqshow --check finds nothing: every reference leads to its bytes, every id to its row
# docs/recovery.md tells what else may be lost or stand there twice.
set -euo pipefail
export LC_ALL=C
bin=$(cd "$1/bin" && pwd)
kills=${2:-40} step=${3:-1} seed=${4:-1}
top=$(mktemp -d "${TMPDIR:-/tmp}/tqp_soak.XXXXXX")
trap 'kill -9 $(jobs -p) 2>/dev/null; rm -rf "$top"' EXIT
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
      $1 ~ /^(2|3|4|82|83|84|80|43|44)$/ {
        for (i = 2; i <= 4 && $i !~ /^-?[0-9]+:-?[0-9]+:/; ++i) # the tuple; before it may stand a version and a part
          continue
        n = split($i, t, ":")
        main = n >= 4 && t[4] != 0 ? t[4] : t[1]
        printf "%s %s %.0f %.0f\n", instance, main, part * 1e12 + from, part * 1e12 + at
      }' "$file"
  done | awk '{ k = $1 " " $2; if (!(k in b) || $3 < b[k]) b[k] = $3; if ($4 > e[k]) e[k] = $4 }
    END { for (k in b) printf "%s %.0f %.0f\n", k, b[k], e[k] }'
}

# The how-manyth partition of the test run a raw or offset file lies in.
partition_number() {
  ls -d "$1"/logs/TR1/2* | grep -n "/$(basename "$(dirname "$(dirname "$(dirname "$2")")")")\$" | cut -d: -f1
}

# saved WORK: "instance position" for each instance: its newest offset file.
saved() {
  local raw name offset
  for raw in "$1"/logs/TR1/2*/tq/raw_data/*.txt; do
    name=$(basename "$raw") offset=$(dirname "$raw")/.$(basename "$raw").offset
    [ -e "$offset" ] || continue
    awk -v instance="${name%.txt}" -v part="$(partition_number "$1" "$raw")" '
      { at = $1 } END { printf "%s %.0f\n", instance, part * 1e12 + at }' "$offset"
  done | awk '{ s[$1] = $2 } END { for (i in s) print i, s[i] }'
}

# --- comparing ----------------------------------------------------------------------------------------------------

# trees WORK: "flowpath<TAB>all that is told of it on one line", without where it lies.
trees() {
  "$bin/tqshow" --dir "$1" --testrun 1 --every | awk '
    /^flowpath     / { if (fpi) print fpi "\t" text; fpi = $2; text = "" }
    /^list / || /^correlation / { next }
    { gsub(/, partition [0-9]+/, ""); text = text "|" $0 }
    END { if (fpi) print fpi "\t" text }'
}

# compare WORK KILLED: the run's trees beside those of the undisturbed run; KILLED holds lines of saved().
compare() {
  trees "$1" >trees.txt || fault "a flowpath cannot be read"
  awk -F'\t' -v killed="$2" '
    FILENAME == killed { split($0, k, " "); at[++n] = k[2]; who[n] = k[1]; next }
    FILENAME == "spans.txt" { split($0, s, " "); of[s[2]] = s[1]; begin[s[2]] = s[3]; end[s[2]] = s[4]; next }
    FILENAME == "reference.txt" { wanted[$1] = $2; next }
    { seen[$1] = 1; if ($2 == wanted[$1]) same[$1] = 1 }
    END {
      for (f in wanted) {
        free = 1
        for (i = 1; i <= n; ++i)
          if (who[i] == of[f] && begin[f] < at[i] && at[i] <= end[f])
            free = 0
        checked += free
        if (free && !(f in seen)) print "missing", f, of[f], begin[f], end[f]
        else if (free && !(f in same)) print "changed", f, of[f], begin[f], end[f]
      }
      print "checked", checked + 0
    }' "$2" spans.txt reference.txt trees.txt >compared.txt
  grep -v '^checked' compared.txt >differences.txt || true
  sed 's/^/  /; 5q' differences.txt
  [ ! -s differences.txt ] || fault "$3: flowpaths are missing or changed"
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
  } | sort -u | awk -F'\t' '
    (($1, $2) in text) && text[$1, $2] != $3 { print "  two texts:", $0 }
    (($1, $3) in id) && id[$1, $3] != $2 { print "  two ids:", $0 }
    { text[$1, $2] = $3; id[$1, $3] = $2 }' >ids.txt
  [ ! -s ids.txt ] || { head -5 ids.txt; fault "$2: ids and texts"; }
}

# --- runs ---------------------------------------------------------------------------------------------------------

# make NAME OPTION...: a finished test run, and what tqp makes of it undisturbed.
make_template() {
  rm -rf template reference
  "$bin/tq_sample" --dir template --testrun 1 --seed "$seed" "$@" >/dev/null
  cp -a template reference
  "$bin/tqp" -t 1 -W "$top/reference" -m 0 >/dev/null 2>&1
  spans template >spans.txt
  trees reference >reference.txt
  "$bin/tqshow" --dir reference --testrun 1 --check >/dev/null || fault "the undisturbed run"
}

fresh() {
  rm -rf work
  cp -a template work
  : >killed.txt
}

finish() {
  timeout 120 "$bin/tqp" -t 1 -W "$top/work" -m 0 >/dev/null 2>errors.txt || { cat errors.txt; fault "$1: restart"; }
}

kills_by_chance() {
  make_template --instances 3 --partitions 1 --mb $((kills / 2 + 4))
  fresh
  local i
  for ((i = 0; i < kills; ++i)); do
    "$bin/tqp" -t 1 -W "$top/work" -m 0 >/dev/null 2>&1 &
    local pid=$!
    sleep "0.0$((10 + RANDOM % 40))"
    kill -9 $pid 2>/dev/null || true
    ! wait $pid 2>/dev/null || break # it was through
    saved work >>killed.txt
  done
  finish "kills by chance"
  compare work killed.txt "kills by chance"
  echo "kills by chance: $i kills, $(tail -1 compared.txt) of $(wc -l <reference.txt) flowpaths"
}

kills_at_calls() {
  make_template --instances 2 --partitions 2 --flowpaths 6
  fresh
  local calls n
  "$bin/stop_at_write" 0 "$bin/tqp" -t 1 -W "$top/work" -m 0 >/dev/null 2>calls.txt || {
    echo "kills at calls: processes cannot be watched here, left out"
    return 0
  }
  calls=$(sed -n 's/^calls //p' calls.txt)
  for ((n = 1; n <= calls; n += step)); do
    fresh
    "$bin/stop_at_write" $n "$bin/tqp" -t 1 -W "$top/work" -m 0 >/dev/null 2>&1
    saved work >killed.txt
    finish "killed at call $n"
    compare work killed.txt "killed at call $n"
  done
  echo "kills at calls: $calls calls, step $step"
}

[ "$kills" -eq 0 ] || kills_by_chance
[ "$step" -eq 0 ] || kills_at_calls
[ $faults -eq 0 ] && echo "no faults" || { echo "$faults faults"; exit 1; }
