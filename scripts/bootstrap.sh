#!/usr/bin/env bash
# Installs the Debian packages listed in debian-packages.txt that are missing.
# Does nothing when everything is there.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
missing=()
while read -r pkg; do
  [[ -z "$pkg" || "$pkg" == \#* ]] && continue
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$pkg")
done < "$here/debian-packages.txt"
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo=""
  [[ $(id -u) -eq 0 ]] || sudo="sudo"
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
