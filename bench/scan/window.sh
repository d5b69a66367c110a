#!/bin/bash
# The List page's longest main-thread slices while rows arrive, are selected
# and removed; the generated tree is kept in the work folder for the next run.
# Usage: bench/scan/window.sh [build-dir] [rows] [work-dir]
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$here/build}
rows=${2:-100000}
work=${3:-${TMPDIR:-/tmp}/pelicane-bench-window}
cmake --build "$build" --target bench_scan lyrabox-devserver >/dev/null
mkdir -p "$work"
state=$(mktemp -d)
trap 'rm -rf "$state"' EXIT
mkdir -m 700 "$state/runtime"
XDG_RUNTIME_DIR="$state/runtime" XDG_DATA_HOME="$state/data" XDG_CONFIG_HOME="$state/config" \
    "$build/bench/scan/bench_scan" window --dir "$work" --rows "$rows" 2>/dev/null
