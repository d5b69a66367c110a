#!/usr/bin/env bash
# Walks every page and window of the program against the local service under
# a virtual display and writes PNGs into docs/screenshots/ (or the folder
# given). Needs Xvfb (xvfb-run); regenerate after a page changes.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$top/docs/screenshots}
build=${PELICANE_BUILD_DIR:-$top/build}
"$top/scripts/build.sh" pelicane-screenshots lyrabox-devserver
samples="$build/sample-music"
"$top/scripts/make-samples.sh" "$samples" > /dev/null
mkdir -p "$out"
# A home of its own, so no settings or log of the user's are touched.
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
# No session bus either: the user's keyring is not touched.
HOME=$home XDG_CONFIG_HOME=$home/config XDG_DATA_HOME=$home/data XDG_CACHE_HOME=$home/cache \
  DBUS_SESSION_BUS_ADDRESS=unix:path=$home/no-bus \
  xvfb-run -a -s '-screen 0 1280x900x24' "$build/tests/screenshots/pelicane-screenshots" "$out" "$samples"
