#!/usr/bin/env bash
# usage: exported_symbols_test.sh LIBRARY VERSION-SCRIPT [WEAK-SYMBOL...]
#
# The library's dynamic symbols against its version script, both ways: it exports every function
# that the script lists, under the script's version, and nothing else. The named symbols, and only
# they, are weak. Prints every difference.
set -euo pipefail

library=$1 version_script=$2
shift 2
faults=0

fault() {
  printf '%s\n' "$*"
  faults=$((faults + 1))
}

# "symbol@@VERSION" for each function that the version script lists.
listed_symbols() {
  awk '
    { sub(/#.*/, "") }
    /^[A-Za-z0-9_.]+ *\{/ { version = $1; sub(/\{.*/, "", version) }
    /global:/ { listing = 1; next }
    /local:/ || /}/ { listing = 0 }
    listing && /;/ { gsub(/[ \t;]/, ""); if ($0 != "") print $0 "@@" version }
  ' "$version_script" | LC_ALL=C sort
}

# "type symbol@@VERSION" for each dynamic symbol that the library defines; the version's own symbol
# is no function.
exported_symbols() {
  nm --dynamic --defined-only "$library" | awk '$2 != "A" { print $2, $3 }' | LC_ALL=C sort -k 2
}

listed=$(listed_symbols)
exported=$(exported_symbols)
[[ -n $listed ]] || fault "no symbol is listed in $version_script"

while IFS= read -r symbol; do
  fault "listed but not exported: $symbol"
done < <(LC_ALL=C comm -23 <(printf '%s\n' "$listed") <(cut -d ' ' -f 2 <<< "$exported"))
while IFS= read -r symbol; do
  fault "exported but not listed: $symbol"
done < <(LC_ALL=C comm -13 <(printf '%s\n' "$listed") <(cut -d ' ' -f 2 <<< "$exported"))
if repeated=$(uniq -d <<< "$listed") && [[ -n $repeated ]]; then
  fault "listed twice: $repeated"
fi

while read -r type symbol; do
  name=${symbol%%@*} weak=no
  [[ " $* " == *" $name "* ]] && weak=yes
  case $type in
    T) [[ $weak == no ]] || fault "not weak: $name" ;;
    W) [[ $weak == yes ]] || fault "weak: $name" ;;
    *) fault "not a function (type $type): $name" ;;
  esac
done <<< "$exported"

[[ $faults -eq 0 ]] && printf '%d symbols exported and listed\n' "$(wc -l <<< "$exported")"
