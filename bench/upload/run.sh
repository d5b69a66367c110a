#!/bin/bash
# Upload benchmarks against curl sending the same multipart bodies to the same
# local service; each prints its ratio.
# Usage: bench/upload/run.sh [build-dir] [large-MB] [files] [memory-MB]
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$here/build}
large=${2:-1024}
files=${3:-1000}
memory=${4:-2048}
cmake --build "$build" --target bench_upload lyrabox-devserver >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
bench="$build/bench/upload/bench_upload"
# The operation's log goes to a data folder of the run's own.
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
unset http_proxy https_proxy HTTP_PROXY HTTPS_PROXY
echo "== one file of $large MB"
"$bench" large --dir "$work/large" --mb "$large" 2>/dev/null
rm -rf "$work/large"
for parallel in 3 6; do
  echo "== $files files of 1 MB, $parallel at once"
  "$bench" many --dir "$work/many$parallel" --files "$files" --kb 1024 --parallel "$parallel" 2>/dev/null
  rm -rf "$work/many$parallel"
done
echo "== peak memory while one file of $memory MB goes out"
"$bench" memory --dir "$work/memory" --mb "$memory" 2>/dev/null
