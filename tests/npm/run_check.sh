#!/bin/sh
# Checks the exports of a sample test run with other people's programs.
#   run_check.sh BUILD_DIR profiles|otlp|page|push
# Exit status 77, counted as skipped: node, npm or Chromium are not installed, or npm cannot install (no network).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
check=$2
skip() { echo "skipped: $1"; exit 77; }
{ command -v node && command -v npm; } >/dev/null || skip 'node and npm are not installed'
CHROMIUM=${CHROMIUM:-$(command -v chromium || true)}
export CHROMIUM
case $check in profiles | page) [ -n "$CHROMIUM" ] || skip 'Chromium is not installed' ;; esac

# The packages of the lock file, once for each build directory. Scripts of packages do not run.
modules=$build/npm
mkdir -p "$modules"
(
  flock 9
  if ! cmp -s "$here/package-lock.json" "$modules/installed"; then
    cp "$here/package.json" "$here/package-lock.json" "$modules"
    (cd "$modules" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error) || exit 1
    cp "$here/package-lock.json" "$modules/installed"
  fi
  cp "$here"/*.mjs "$modules"
) 9>"$modules/lock" || skip 'npm could not install the packages'

top=$(mktemp -d)
trap 'rm -rf "$top"' EXIT
tqshow() { "$build/bin/tqshow" --dir "$top/run" --testrun 1 "$@"; }
base=$top/run/logs/TR1

# Timing rows in text are what the checks compare with; they read them without our library.
"$build/bin/tq_sample" --dir "$top/run" --testrun 1 --flowpaths 50 \
  --keywords 'TQP_BINARY_FORMAT_FOR_METHOD_TIMING 0' >/dev/null
"$build/bin/tqp" -t 1 -W "$top/run" -m 0 >/dev/null

case $check in
  profiles)
    tqshow --export chrome --output "$top/profile.chrome"
    tqshow --export speedscope --output "$top/profile.speedscope"
    tqshow --export folded --output "$top/profile.self"
    tqshow --export folded --weight calls --output "$top/profile.calls"
    node "$modules/speedscope_check.mjs" "$base" "$top"
    ;;
  otlp)
    tqshow --export otlp --output "$top/first"
    tqshow --export otlp >"$top/second"
    node "$modules/otlp_check.mjs" "$base" "$top/first" "$top/second"
    ;;
  page)
    # The flowpath with an exception and a URL that was called by nobody, so that there is something of everything.
    fpi=$(cat "$base"/2*/tq/csv/*/TQExceptions.csv | cut -d, -f1 | sort -u >"$top/with" &&
      cat "$base"/2*/tq/csv/*/TQFlowPath.csv | awk -F, 'NR == FNR { with[$1]; next } ($1 in with) && $6 == 1' "$top/with" - |
      head -n 1 | cut -d, -f1)
    for texts in '' hostile; do
      [ -z "$texts" ] || node "$modules/hostile.mjs" "$base"
      tqshow --flowpath "$fpi" --export html --output "$top/page.html"
      tqshow --flowpath "$fpi" --export otlp --output "$top/page.otlp"
      node "$modules/page_check.mjs" "$top/page.html" "$top/page.otlp" $texts
    done
    ;;
  push)
    tqshow --errors --export otlp --output "$top/otlp"
    node "$modules/push_check.mjs" "$build/bin/tqshow" "$top/run" "$top/otlp"
    ;;
esac
