#!/usr/bin/env bash
# usage: all_headers_test.sh FOLDER
#
# gst_plexa.h includes every other public header of the folder, and no other file.
set -euo pipefail

folder=$1
included=$(sed -n 's/^#include "\(.*\)"$/\1/p' "$folder/gst_plexa.h" | LC_ALL=C sort)
present=$(cd "$folder" && printf '%s\n' *.h | grep -vx 'gst_plexa.h' | LC_ALL=C sort)
diff --label 'included by gst_plexa.h' --label "headers in $folder" -u \
  <(printf '%s\n' "$included") <(printf '%s\n' "$present")
