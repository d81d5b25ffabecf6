#!/usr/bin/env bash
# Checks the text of the code without running it: formatting, shell scripts, the share of tests, locks (clang's thread safety
# analysis) and clang-tidy, which the preset `lint` runs on every file of the product that it builds.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_dependencies.sh build check
if ! git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror; then
  echo "clang-format: the files above are not formatted; run clang-format -i on them" >&2
  exit 1
fi
git ls-files '*.sh' '*.bash' .ci/run packaging/postinst packaging/postrm | xargs shellcheck --severity=warning
scripts/test_share.sh || echo "The tests are more than a third of the product."
cmake --preset lint >/dev/null
cmake --build --preset lint
