#!/usr/bin/env bash
# Prints the size of the tests against the code they test: non-blank lines of C++, Python and
# JavaScript under tests/ against the same outside tests/, bench/ and fuzz/ (tracked files).
# The project keeps the share at a quarter to a third; exits 1 above 0.33.
#   bash scripts/test-share.sh
set -euo pipefail
cd "$(dirname "$0")/.."
lines() { # non-blank lines of the tracked sources that $1 (an awk condition on the path) picks
  git ls-files | awk "/\\.(cpp|cc|h|hpp|py|js|mjs)\$/ && $1" | tr '\n' '\0' |
    xargs -0 -r cat | grep -cv '^[[:space:]]*$' || true
}
tests=$(lines '/^tests?\//')
code=$(lines '!/^(tests?|bench|benchmarks|fuzz)\//')
awk -v t="$tests" -v c="$code" 'BEGIN {
  share = (c > 0) ? t / c : 0
  printf "test share: %d test lines / %d code lines = %.3f (at most 0.33)\n", t, c, share
  exit (share > 0.33) }'
