#!/usr/bin/env bash
# Measures the tests: changes one line of the product at a time, and counts the changes that some test notices.
#   scripts/mutants.sh [COUNT] [SEED]     200 mutants of seed 1; the result stands in build/mutants/report.txt
# A mutant is a comparison turned or moved by one, an operator exchanged, a constant moved by one, a condition inverted, or a
# statement taken out. It is killed when it does not compile, when a test fails, or when the tests do not end. Those that
# nobody can observe stand in scripts/mutants_equal.txt with the reason, and are not counted.
# Works in a copy of the tree (build/mutants/tree), in the debug preset. Status 1 below 85 %.
set -euo pipefail
cd "$(dirname "$0")/.."
exec python3 scripts/mutants.py "${1:-200}" "${2:-1}"
