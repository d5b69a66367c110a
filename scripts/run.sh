#!/usr/bin/env bash
# Installs what is missing, builds, starts the local Lyrabox-compatible service
# with the demo account and runs the program against it: the desktop program
# when there is a display, pelicane-cli when there is none.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/build.sh"
build=${PELICANE_BUILD_DIR:-$top/build}

data=${PELICANE_DEVSERVER_DATA:-$build/devserver-data}
mkdir -p "$data"
log="$build/devserver.log"
"$build/devserver/lyrabox-devserver" --port 0 --data "$data" > "$log" 2>&1 &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  url=$(sed -n 's/^listening on //p' "$log" | head -n 1)
  [[ -n "$url" ]] && break
  sleep 0.1
done
[[ -n "${url:-}" ]] || { echo "the local service did not start; see $log" >&2; exit 1; }

export PELICANE_API_URL="$url/s/JSON/"
export PELICANE_UPLOAD_URL="$url/upload/"
export PELICANE_DOWNLOAD_URL="$url/download/"
# The same process stands in for MusicBrainz, the Cover Art Archive and Discogs.
export PELICANE_MUSICBRAINZ_SERVER="${url#http://}"
export PELICANE_COVERART_URL="$url"
export PELICANE_DISCOGS_URL="$url"
echo "Local Lyrabox service: $url (data in $data)"
echo "Demo account: demo@lyrabox.test / demo"

samples="$build/sample-music"
if [[ -x "$top/scripts/make-samples.sh" ]]; then
  "$top/scripts/make-samples.sh" "$samples" "$data"
fi

# The sample audio CD image, which the stand-ins know.
disc="$samples/Sample CD/sample-cd.cue"

if [[ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]]; then
  echo "Sign in with the demo account; the folder page offers $samples: Search, then Upload."
  if [[ -f "$disc" ]]; then
    echo "The sample CD shows as a disc there too: Begin Uploading CD rips it to FLAC and uploads it."
    "$build/src/app/pelicane" "$samples" "$disc" "$@"
  else
    "$build/src/app/pelicane" "$samples" "$@"
  fi
else
  echo "No display: uploading $samples with pelicane-cli."
  export PELICANE_EMAIL=demo@lyrabox.test PELICANE_PASSWORD=demo
  status=0
  "$build/cli/pelicane-cli" upload "$samples" "$@" || status=$?
  if [[ -f "$disc" ]]; then
    echo
    echo "Ripping and uploading the sample CD image with pelicane-cli upload-cd."
    "$build/cli/pelicane-cli" upload-cd --yes "$disc" || status=$?
  fi
  exit "$status"
fi
