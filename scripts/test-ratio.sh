#!/usr/bin/env bash
# The size of the tests against the code they test: non-blank lines of every
# tracked file under tests/, and under src/, cli/ and devserver/. Fails when
# the tests pass 0.35 of the code: every test line must earn its place.
set -euo pipefail
cd "$(dirname "$0")/.."
limit=0.35
lines() { git ls-files -z -- "$@" | xargs -0 cat | grep -cv '^[[:space:]]*$'; }
tests=$(lines tests)
code=$(lines src cli devserver)
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.3f", t / c }')
echo "tests/ $tests lines, src+cli+devserver $code lines, ratio $ratio"
if ! awk -v t="$tests" -v c="$code" -v l="$limit" 'BEGIN { exit !(t <= l * c) }'; then
    echo "test-ratio: above $limit; shrink the tests (about $(awk -v c="$code" -v l="$limit" 'BEGIN { printf "%d", l * c }') lines at most)" >&2
    exit 1
fi
