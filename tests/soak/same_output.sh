#!/usr/bin/env bash
# Compares what two builds of tqp make of the same sample test runs, byte by byte: for a change that must change nothing.
#   same_output.sh OLD_BIN_DIR NEW_BIN_DIR [SEEDS]     the sample data is made by the old build's tq_sample
# One instance a run, since the ids of several depend on which thread comes first. Trace logs hold times and are left out.
# Status 1, and the first differences, when a file differs.
set -euo pipefail
old=$(cd "$1" && pwd)
new=$(cd "$2" && pwd)
seeds=${3:-3}
top=$(mktemp -d "${TMPDIR:-/tmp}/same_output.XXXXXX")
trap 'rm -rf "$top"' EXIT

# What may differ between two runs of one build: logs, and the times that extended metadata carries.
comparable() {
  (cd "$1/logs" && find . -type f ! -path '*/tq/logs/*' ! -name TQMetaDataEx.csv ! -path '*/.pidfiles/*' ! -name '.*.pid' -print0 | sort -z |
    xargs -0 md5sum; find . -name 'tqp_summary_report.txt' | sort | xargs -r md5sum)
}

run() { # BIN_DIR DIR
  "$1/tqp" -t 1 -W "$2" -m 0 -e "$(cat "$2/logs/TR1/.vex_epoch.diff")" >"$2.out" 2>&1
}

runs=0
differing=0
for seed in $(seq "$seeds"); do
  for form in classic exit; do
    for agents in new old; do
      for keywords in "" "TQP_BINARY_FORMAT_FOR_METHOD_TIMING 0;TQP_PRINT_SUMMARY_REPORT 1"; do
        rm -rf "$top/old" "$top/new"
        "$old/tq_sample" --dir "$top/old" --testrun 1 --seed "$seed" --form "$form" --agents "$agents" --instances 1 \
          --flowpaths 400 --partitions 3 ${keywords:+--keywords "$keywords"} >/dev/null
        cp -a "$top/old" "$top/new"
        run "$old" "$top/old"
        run "$new" "$top/new"
        runs=$((runs + 1))
        comparable "$top/old" >"$top/old.sums"
        comparable "$top/new" >"$top/new.sums"
        if ! cmp -s "$top/old.sums" "$top/new.sums"; then
          differing=$((differing + 1))
          echo "seed $seed, $form form, $agents agents, keywords '$keywords':"
          diff "$top/old.sums" "$top/new.sums" | head -6 || true
        fi
      done
    done
  done
done
echo "$runs test runs compared, $differing with differences"
[ "$differing" -eq 0 ]
