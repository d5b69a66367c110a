#!/bin/bash
# Scan and fingerprint benchmarks; each prints its ratio against the standard tool.
# Usage: bench/scan/run.sh [build-dir] [files] [megabytes]
# The List page alone: bench/scan/window.sh [build-dir] [rows]
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$here/build}
files=${2:-100000}
megabytes=${3:-2048}
cmake --build "$build" --target bench_scan >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -m 700 "$work/runtime"
export XDG_RUNTIME_DIR="$work/runtime"
bench="$build/bench/scan/bench_scan"
echo "== scan of $files files against find"
"$bench" scan --dir "$work" --files "$files"
echo "== first-time MD5 of $megabytes MB against md5sum"
"$bench" digest --dir "$work" --mb "$megabytes"
rm -f "$work"/digest-*.bin
echo "== re-check of $files cached files"
"$bench" recheck --dir "$work" --files "$files"
echo "== GUI stall during a scan of $files files"
XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config" "$bench" stall --dir "$work" --files "$files" 2>/dev/null
echo "== List page with 100,000 rows: arrival, reload, select, Delete"
XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config" "$bench" window --dir "$work" --rows 100000 2>/dev/null
