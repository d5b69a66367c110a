#!/bin/bash
# Uploads many small files through the session's whole run to the local
# service and prints files per second over the first and the last tenth.
# Usage: bench/scale/run.sh [build-dir] [files]
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$here/build}
files=${2:-100000}
cmake --build "$build" --target bench_scale lyrabox-devserver >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset http_proxy https_proxy HTTP_PROXY HTTPS_PROXY
"$build/bench/scale/bench_scale" --dir "$work" --files "$files"
