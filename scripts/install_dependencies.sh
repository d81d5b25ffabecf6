#!/usr/bin/env bash
# Installs what is not there yet on Debian 12. Reasons: docs/dependencies.md.
#   scripts/install_dependencies.sh [build|test|browser|databases|check]...
# build (default): what building the programs takes; test: also what tests use; browser: also what tests in a browser use;
# databases: also the servers that tests start; check: also what CI's checks use.
set -euo pipefail

build=(g++ cmake ninja-build zlib1g-dev libtbb-dev libjansson-dev libsqlite3-dev libpq-dev libcurl4-openssl-dev ccache mold at)
test=(libgtest-dev mawk sqlite3)
browser=(nodejs npm chromium)
databases=(postgresql clickhouse-server clickhouse-client)
check=(clang clang-format clang-tidy shellcheck)

packages=("${build[@]}")
for list in "${@:-build}"; do
  case $list in
    build) ;;
    test) packages+=("${test[@]}") ;;
    browser) packages+=("${browser[@]}") ;;
    databases) packages+=("${databases[@]}") ;;
    check) packages+=("${check[@]}") ;;
    *) echo "install_dependencies.sh: there is no list $list" >&2; exit 1 ;;
  esac
done
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
echo "Installing: ${missing[*]}"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
