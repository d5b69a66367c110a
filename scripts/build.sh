#!/usr/bin/env bash
# Configures and builds into ./build (git-ignored). Extra arguments are targets.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/bootstrap.sh"
build=${PELICANE_BUILD_DIR:-$top/build}
if [[ ! -f "$build/CMakeCache.txt" ]]; then
  cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
if (($#)); then
  cmake --build "$build" --parallel "$(nproc)" --target "$@"
else
  cmake --build "$build" --parallel "$(nproc)"
fi
