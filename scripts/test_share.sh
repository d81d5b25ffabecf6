#!/usr/bin/env bash
# Prints how many lines of code the tests have beside the product (libraries, src, tools), without blank and comment lines.
# Status 1 when the tests are more than a third: then look for tests that catch nothing others do not.
set -euo pipefail
cd "$(dirname "$0")/.."
lines() {
  git ls-files -- "$@" | grep -E '\.(cpp|h|js|mjs|css|html)$' | xargs cat | grep -cvE '^[[:space:]]*(//.*)?$'
}
product=$(lines src tools 'lib*')
tests=$(lines tests)
percent=$((100 * tests / product))
echo "tests: $tests lines of code beside $product of the product, $percent %"
[ $((3 * tests)) -le "$product" ]
