#!/usr/bin/env bash
# check-package.sh BUILD SOURCE: installs the build into a scratch root and
# makes the .deb, then checks both hold the programs, icon, desktop entry and
# metainfo in their freedesktop places; validates the metainfo and the
# desktop entry where the tools are present.
set -euo pipefail
build=$1 source=$2
mkdir -p "${TMPDIR:-/tmp}"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
expected=(
  usr/bin/pelicane
  usr/bin/pelicane-cli
  usr/share/applications/com.lyrabox.pelicane.desktop
  usr/share/metainfo/com.lyrabox.pelicane.metainfo.xml
  usr/share/icons/hicolor/scalable/apps/com.lyrabox.pelicane.svg
  usr/share/icons/hicolor/256x256/apps/com.lyrabox.pelicane.png
)
fail=0

cmake --install "$build" --prefix "$scratch/root/usr" > /dev/null
for path in "${expected[@]}"; do
  [[ -f "$scratch/root/$path" ]] || { echo "install: missing $path"; fail=1; }
done

(cd "$scratch" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$scratch/deb" > "$scratch/cpack.log" 2>&1) \
  || { cat "$scratch/cpack.log"; exit 1; }
deb=$(ls "$scratch"/deb/*.deb)
listing=$(dpkg-deb -c "$deb")
for path in "${expected[@]}"; do
  grep -q " \./$path\$" <<< "$listing" || { echo "deb: missing $path"; fail=1; }
done
[[ $(dpkg-deb -f "$deb" Package) == pelicane ]] || { echo "deb: wrong package name"; fail=1; }

if command -v appstreamcli > /dev/null; then
  appstreamcli validate --no-net "$source/packaging/com.lyrabox.pelicane.metainfo.xml" > /dev/null \
    || { echo "metainfo does not validate"; fail=1; }
fi
if command -v desktop-file-validate > /dev/null; then
  desktop-file-validate "$source/packaging/com.lyrabox.pelicane.desktop" || fail=1
fi
if ((fail)); then exit 1; fi
echo "1 passed, 0 failed"
