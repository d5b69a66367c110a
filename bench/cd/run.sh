#!/bin/bash
# Ripping and FLAC encoding benchmarks on a generated 40-minute disc image.
# Usage: bench/cd/run.sh [build-dir] [minutes]
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$here/build}
minutes=${2:-40}
cmake --build "$build" --target bench_cd >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$build/bench/cd/bench_cd" rip --minutes "$minutes" --dir "$work" 2>/dev/null
rm -f "$work"/*
"$build/bench/cd/bench_cd" flac --minutes "$minutes" --dir "$work" 2>/dev/null
