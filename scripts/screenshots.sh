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
shoot() { # SCALE SCREEN OUTDIR
  rm -rf "$home"/config "$home"/data "$home"/cache
  HOME=$home XDG_CONFIG_HOME=$home/config XDG_DATA_HOME=$home/data XDG_CACHE_HOME=$home/cache \
    DBUS_SESSION_BUS_ADDRESS=unix:path=$home/no-bus QT_SCALE_FACTOR=$1 \
    xvfb-run -a -s "-screen 0 $2x24" "$build/tests/screenshots/pelicane-screenshots" "$3" "$samples"
}
shoot 1 1280x900 "$out"
# The file list once more at twice the scale, as a high-density screen shows it.
mkdir -p "$home/scale-2"
shoot 2 2560x1800 "$home/scale-2" > /dev/null
cp "$home/scale-2/05-file-list.png" "$out/15-file-list-scale-2.png"
echo "$out/15-file-list-scale-2.png"
