#!/usr/bin/env bash
# Writes the pages that programs know best: docs/keywords.md.
#   scripts/make_docs.sh [build directory]     default: build/release
set -euo pipefail
cd "$(dirname "$0")/.."
bin=${1:-build/release}/bin
{
  cat <<'END'
# Keywords

The keyword file is `TQKeywords.conf` (or `tq.conf`) of the profile below `<run>/tq/conf/tqprof/` that changed last. It is
read once, at start: a line for each keyword with its values, separated by blanks; a line that begins with `#` is a comment.
If a keyword is set twice, the later line holds. A value that is not accepted gives the default.

`tqcheck --dir DIR --testrun N` says what is wrong with a test run's keyword file, and `tqp` warns of the same at start, on
standard error and in its trace log. This page is made by `scripts/make_docs.sh` from `tqcheck --list`. KB are 1024 bytes,
MB 1024 KB; "number and unit" means one word such as `3d`.

END
  "$bin/tqcheck" --list --form markdown
} > docs/keywords.md
