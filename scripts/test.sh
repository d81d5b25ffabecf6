#!/usr/bin/env bash
# Builds everything and runs all tests, by default under the address and undefined behaviour sanitizers.
#   scripts/test.sh [preset]       asan (default), tsan, release or debug
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-asan}
scripts/install_dependencies.sh build test
cmake --preset "$preset" -DTQP_WERROR="${TQP_WERROR:-OFF}" >/dev/null
cmake --build --preset "$preset"
exec ctest --preset "$preset" -j "$(nproc)" --output-on-failure
