#!/usr/bin/env bash
# Installs what building and testing needs on Debian 12 and is not there yet. Reasons: docs/dependencies.md.
set -euo pipefail
packages=(g++ cmake ninja-build zlib1g-dev libtbb-dev libjansson-dev libsqlite3-dev libgtest-dev ccache clang-format at mawk)
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
