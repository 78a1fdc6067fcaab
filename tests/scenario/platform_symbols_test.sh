#!/usr/bin/env bash
# usage: platform_symbols_test.sh LIBRARY PLATFORM-HEADERS
#
# The library brings no platform along: it defines none of the services that the platform's headers
# declare, leaves the log to whoever links it, and was linked with no platform.
set -euo pipefail

library=$1 headers=$2
faults=0

fault() {
  printf '%s\n' "$*"
  faults=$((faults + 1))
}

# Functions declared in the platform's headers.
declared=$(sed 's|/\*.*\*/||' "$headers"/*.h | grep -oE '[A-Za-z_0-9]+ *\(' | tr -d ' (' |
  grep -vx '__attribute__' | LC_ALL=C sort -u)
defined=$(nm --dynamic --defined-only "$library" | awk '{ sub(/@.*/, "", $3); print $3 }' |
  LC_ALL=C sort -u)
undefined=$(nm --dynamic --undefined-only "$library" | awk '$1 == "U" { print $2 }')

while IFS= read -r symbol; do
  fault "a platform service is defined here: $symbol"
done < <(LC_ALL=C comm -12 <(printf '%s\n' "$declared") <(printf '%s\n' "$defined"))

grep -qx '__dlog_print' <<< "$undefined" || fault 'the platform log is not an undefined symbol'

while IFS= read -r needed; do
  [[ $needed != *platform* ]] || fault "linked with a platform: $needed"
done < <(objdump -p "$library" | awk '$1 == "NEEDED" { print $2 }')

[[ $faults -eq 0 ]]
