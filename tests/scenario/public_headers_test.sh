#!/usr/bin/env bash
# usage: public_headers_test.sh CC CXX HEADER-OR-FOLDER...
#
# Each header (or each header of a folder) compiles alone and twice in a row, as C11 and as C++20,
# without a warning, with nothing but its own parent folder and GLib's in the search path.
set -euo pipefail

cc=$1 cxx=$2
shift 2
flags=(-fsyntax-only -Wall -Wextra -Wpedantic -Werror)
# GLib's folders as system folders: its headers are not the ones under test.
read -r -a glib <<< "$(pkg-config --cflags gstreamer-1.0 | sed 's/-I/-isystem /g')"
faults=0 compiled=0

compile() {
  local header=$1
  shift
  local folder name
  folder=$(cd "$(dirname "$header")/.." && pwd)
  name=$(basename "$(dirname "$header")")/$(basename "$header")
  compiled=$((compiled + 1))
  if ! printf '#include <%s>\n#include <%s>\nextern int nothing_else;\n' "$name" "$name" |
    "$@" "${flags[@]}" -I "$folder" "${glib[@]}" -; then
    printf 'does not compile alone: %s (%s)\n' "$header" "$*"
    faults=$((faults + 1))
  fi
}

for argument in "$@"; do
  headers=("$argument")
  [[ ! -d $argument ]] || headers=("$argument"/*.h)
  for header in "${headers[@]}"; do
    compile "$header" "$cc" -x c -std=c11
    compile "$header" "$cxx" -x c++ -std=c++20
  done
done

printf '%d compilations, %d failed\n' "$compiled" "$faults"
[[ $faults -eq 0 && $compiled -gt 0 ]]
