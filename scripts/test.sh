#!/usr/bin/env bash
# Builds everything and runs all tests, by default under the address and undefined behaviour sanitizers.
#   scripts/test.sh [preset [ctest's options]]       asan (default), tsan, release or debug
# TQP_TEST_TRIES: how often a test may run until it passes, for machines that others use as well (1).
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-asan}
[ $# -eq 0 ] || shift
scripts/install_dependencies.sh build test
cmake --preset "$preset" -DTQP_WERROR="${TQP_WERROR:-OFF}" >/dev/null
cmake --build --preset "$preset"
exec ctest --preset "$preset" -j "$(nproc)" --output-on-failure --repeat "until-pass:${TQP_TEST_TRIES:-1}" "$@"
