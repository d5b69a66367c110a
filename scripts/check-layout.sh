#!/usr/bin/env bash
# check-layout.sh [SOURCE]: checks every folder's includes of project folders
# against the layout table in README.md ("| folder | what | includes from |").
# The table is the only list: a folder may include itself and what its row
# names. Prints the folders each folder includes; fails naming each file and
# include the table does not allow, and each folder the table has no row for.
set -euo pipefail
top=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$top"

# The folders checked, by the name the table and the includes use: every
# library folder under src/ (a folder with a CMakeLists.txt), cli and devserver.
mapfile -t folders < <(
  find src -mindepth 2 -name CMakeLists.txt -printf '%h\n' | sed 's|^src/||'
  echo cli
  echo devserver
)
folders=($(printf '%s\n' "${folders[@]}" | sort))
is_folder() {
  local f
  for f in "${folders[@]}"; do [[ $f == "$1" ]] && return 0; done
  return 1
}
path_of() { if [[ $1 == cli || $1 == devserver ]]; then echo "$1"; else echo "src/$1"; fi; }

# The table's rows: "name<TAB>allowed, allowed" for every folder a row names.
declare -A allowed
fail=0
rows=$(awk '/^\| folder \| what \| includes from \|/ { table = 1; next }
            table && !/^\|/ { exit }
            table && !/^\|---/ { print }' README.md)
if [[ -z $rows ]]; then
  echo "README.md: no layout table (| folder | what | includes from |)"
  exit 1
fi
while IFS= read -r row; do
  IFS='|' read -r _ names _ uses _ <<< "$row"
  for name in $(grep -o '`[^`]*`' <<< "$names" | tr -d '`'); do
    name=${name#src/}
    is_folder "$name" || continue
    list=$(sed 's/—//; s/ //g' <<< "$uses")
    for use in ${list//,/ }; do
      if ! is_folder "$use"; then
        echo "README.md: the row of $name names $use, which is no folder"
        fail=1
      fi
    done
    allowed[$name]=",$list,"
  done
done <<< "$rows"

for folder in "${folders[@]}"; do
  dir=$(path_of "$folder")
  if [[ -z ${allowed[$folder]+set} ]]; then
    echo "$dir: no row in README.md's layout table"
    fail=1
    continue
  fi
  # The folder's own files, without those of a library folder inside it (session/ui).
  prune=()
  for other in "${folders[@]}"; do
    if [[ $other == "$folder"/* ]]; then prune+=(-path "$(path_of "$other")" -prune -o); fi
  done
  mapfile -t files < <(find "$dir" "${prune[@]}" -type f \( -name '*.h' -o -name '*.cpp' \) -print | sort)
  used=("")
  while IFS=: read -r file line include; do
    [[ -n $file ]] || continue
    target=${include#\#include \"}
    target=${target%/*}
    is_folder "$target" || continue
    [[ $target == "$folder" ]] && continue
    used+=("$target")
    if [[ ${allowed[$folder]} != *",$target,"* ]]; then
      echo "$file:$line: $include: $folder may not include $target (README.md's layout table)"
      fail=1
    fi
  done < <(((${#files[@]})) && grep -HnoE '^#include "[^"]+/[^"/]+"' "${files[@]}" || true)
  list=$(printf '%s\n' "${used[@]}" | sort -u | paste -sd, - | sed 's/^,//; s/,/, /g')
  echo "$dir: ${list:-—}"
  # Allowed but not used: not a fault, but the table says more than the code does.
  for use in $(tr ',' ' ' <<< "${allowed[$folder]}"); do
    if [[ ",$list," != *", $use,"* && ",$list," != *",$use,"* ]]; then
      echo "  note: $dir is allowed $use but does not include it"
    fi
  done
done
exit "$fail"
