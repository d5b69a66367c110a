#!/bin/sh
# Downloads and extracts a 120-track, 600 MB library from the local service
# with Pelicane's library download, and with curl fetching the same segments
# followed by unzip; prints both throughputs and their ratio.
#   bench/library/run.sh [BUILD_DIR] [-- bench options: --tracks N --megabytes M --rounds R]
set -e
BUILD=${1:-build}
[ $# -gt 0 ] && shift
[ "$1" = "--" ] && shift
cmake --build "$BUILD" --target bench_library lyrabox-devserver
export QT_QPA_PLATFORM=offscreen http_proxy= https_proxy= HTTP_PROXY= HTTPS_PROXY=
HOME_DIR=$(mktemp -d)
trap 'rm -rf "$HOME_DIR"' EXIT
XDG_DATA_HOME=$HOME_DIR/data XDG_CONFIG_HOME=$HOME_DIR/config "$BUILD/bench/library/bench_library" "$@"
