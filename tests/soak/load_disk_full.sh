#!/usr/bin/env bash
# A disk that fills up under the loader: it reports this once, waits at rest, goes on when there is room, and every table is the
# same as one that was loaded in one go.
#   load_disk_full.sh BUILD_DIR
# Needs a file system of its own: as root, or where user namespaces are allowed. Elsewhere it says so and ends with 77.
set -euo pipefail
if [ "${1:-}" != inside ]; then
  [ $# -eq 1 ] || { sed -n '2,5s/^# *//p' "$0"; exit 1; }
  unshare -m true 2>/dev/null && exec unshare -m "$0" inside "$@"
  unshare -rm true 2>/dev/null && exec unshare -rm "$0" inside "$@"
  echo "no file system can be mounted here: skipped"
  exit 77
fi
bin=$(cd "$2/bin" && pwd)
command -v sqlite3 >/dev/null || { echo "sqlite3 is not installed: skipped"; exit 77; }
top=$(mktemp -d "${TMPDIR:-/tmp}/load_disk.XXXXXX")
trap 'kill -9 $(jobs -p) 2>/dev/null || true; umount -l "$top/disk" 2>/dev/null || true; rm -rf "$top"' EXIT
cd "$top"
mkdir disk
mount -t tmpfs -o size=3m tmpfs disk || { echo "tmpfs cannot be mounted here: skipped"; exit 77; }
"$bin/tq_sample" --dir work --testrun 1 --flowpaths 200 >/dev/null
"$bin/tqp" -t 1 -W work -m 0 >/dev/null
load=("$bin/tqu_db_upload" --dir work --testrun 1 --database)

eventually() {
  for ((tries = 0; tries < 600; ++tries)); do
    ! "$@" || return 0
    sleep 0.1
  done
  return 1
}

times() { grep -c "$1" said.txt || true; }
goes_on() { [ "$(times waiting)" -eq "$(times 'goes on')" ]; }

for how in finished following; do
  rm -f disk/* said.txt
  mount -o remount,size=3m disk
  more=()
  [ $how = finished ] || more=(--follow)
  "${load[@]}" "sqlite:$top/disk/t.sqlite" "${more[@]}" >said.txt 2>&1 &
  loader=$!
  eventually grep -qs waiting said.txt || { echo "$how: a full disk is not reported"; cat said.txt; exit 1; }
  sleep 1 # several attempts
  # A unit that still fits may go in between: then it goes on for a moment, and the next full disk is a new one.
  [ "$(times waiting)" -le 2 ] && [ "$(times waiting)" -le $(($(times 'goes on') + 1)) ] ||
    { echo "$how: reported more than once"; cat said.txt; exit 1; }
  mount -o remount,size=200m disk
  eventually goes_on || { echo "$how: it does not go on"; cat said.txt; exit 1; }
  [ $how = finished ] || kill -s RTMIN+3 $loader
  wait $loader || { echo "$how: status $?"; cat said.txt; exit 1; }
  "${load[@]}" sqlite:whole.sqlite >/dev/null 2>&1
  for table in $(sqlite3 whole.sqlite "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%'"); do
    cmp <(sqlite3 disk/t.sqlite "SELECT * FROM $table" | LC_ALL=C sort) \
      <(sqlite3 whole.sqlite "SELECT * FROM $table" | LC_ALL=C sort) || { echo "$how: $table differs"; exit 1; }
  done
  echo "$how: $(grep -m1 waiting said.txt)"
done
