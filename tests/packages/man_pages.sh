#!/usr/bin/env bash
# Every manual page is free of what mandoc finds wrong, and every program has one.
#   man_pages.sh BUILD_DIR
set -euo pipefail
command -v mandoc >/dev/null || { echo "SKIPPED: mandoc is not installed"; exit 77; }
build=$1
for program in "$build"/bin/{tqp,tqu_db_upload,tqcheck,tq_reset,tqshow,tqtop,tq_sample,tqweb}; do
  [ -x "$program" ] || continue
  compgen -G "$build/man/$(basename "$program").[18]" >/dev/null || { echo "no page for $(basename "$program")"; exit 1; }
done
[ -f "$build/man/tqkeywords.5" ]
# Pages of this source tree refer to each other; whether they are installed is not asked here.
found=$(mandoc -Tlint "$build"/man/*.[158] | grep -v 'referenced manual not found' || true)
if [ -n "$found" ]; then
  echo "$found"
  exit 1
fi
ls "$build"/man
