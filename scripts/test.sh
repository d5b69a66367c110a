#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/build.sh"
build=${PELICANE_BUILD_DIR:-$top/build}
set +e
ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)" --timeout 600 | tee "$build/ctest.log"
rc=${PIPESTATUS[0]}
set -e
total=$(ctest --test-dir "$build" -N | sed -n 's/^Total Tests: //p')
echo "Tests run: ${total:-0}"
grep -E 'tests passed' "$build/ctest.log" || true
exit "$rc"
