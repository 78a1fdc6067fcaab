#!/usr/bin/env bash
# usage: box_mixed_test.sh BUILD BUILD-I386
#
# A television and its box of different architectures: a 32-bit plexa-pvr with a 64-bit plexa-box, then
# the other way round. What plexa-pvr says, and the files on the box's disk, must be what the same
# commands give without a box. BUILD and BUILD-I386 are build folders, of this machine's 64 bits and of
# scripts/in-i386; both lie in the source tree. Ends with "N passed, N failed": one test a direction.
set -euo pipefail

[[ $# -eq 2 ]] || {
  sed -n 's/^# usage: /usage: /p' "$0" >&2
  exit 2
}
root=$(cd "$(dirname "$0")/../.." && pwd -P)
declare -A build=([64]=$(realpath "$1") [32]=$(realpath "$2"))
work=$(mktemp -d "${build[64]}/box-mixed.XXXXXX")
trap 'rm -rf "$work"' EXIT
# Not before the present direction, and with it its box, has ended.
trap 'exit 130' INT
trap 'exit 143' TERM

# The caller's own box is none of this test's.
unset PLEXA_BOX PLEXA_TEST_BOX_ADDRESS PLEXA_TEST_BOX_PORT LD_PRELOAD
export PLEXA_HOST_TV_YEAR=2013

# Ends one direction.
fail() {
  printf '%s\n' "$*"
  exit 1
}

# Runs a command on a machine of 64 or 32 bits.
on() {
  if [[ $1 == 32 ]]; then
    "$root/scripts/in-i386" "${@:2}"
  else
    "${@:2}"
  fi
}

# A program that were not of its folder's architecture would let the test pass for nothing.
check_architecture() {
  local bits=$1 class
  class=$(od -An -tu1 -j4 -N1 "$2" | tr -d ' ')
  [[ $((class * 32)) -eq $bits ]] || fail "$2 is not a program of $bits bits"
}

# Ten minutes, so that six of them can be kept.
encode() {
  timeout 120 gst-launch-1.0 -q videotestsrc num-buffers=1200 pattern=ball \
    ! video/x-raw,format=I420,width=160,height=120,framerate=2/1 \
    ! x264enc key-int-max=10 bitrate=200 speed-preset=ultrafast option-string=scenecut=0 \
    ! h264parse config-interval=-1 ! mpegtsmux bitrate=400000 ! filesink location="$1"
}

# --- one direction: the box of one architecture, its client of the other; folders of its own

# Waits until the box has written such a line; up to a minute.
await() {
  local tenths=600
  until grep -qs "$1" "$2"; do
    kill -0 "$box" 2> /dev/null || fail "the box has ended: $(cat "$folder/box.log")"
    ((tenths -= 1)) || fail "the box does not start: $(cat "$folder/box.log")"
    sleep 0.1
  done
}

# The box writes its process id down by itself: a shell's child may be a wrapper around it.
start_box() {
  # shellcheck disable=SC2016
  on "$server" bash -c 'echo $$ > "$1" && exec "$2" --root "$3" --port 0' box \
    "$folder/box.pid" "${build[$server]}/tools/plexa-box" "$folder/disk" > "$folder/box.log" 2>&1 &
  box=$!
  await '^[0-9][0-9]*$' "$folder/box.pid"
  box_pid=$(cat "$folder/box.pid")
  await '^listening on .*:[0-9]*$' "$folder/box.log"
  port=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$folder/box.log")
}

# The exit code is the box's: 0 when the signal has ended it in order.
stop_box() {
  local wrapper=$box
  box=
  if kill -0 "$wrapper" 2> /dev/null; then
    kill "${box_pid:-$wrapper}"
  fi
  wait "$wrapper"
}

# The client's program, on its own disk and on the box's. A relative name is, on the box, below its root.
pvr_here() {
  (cd "$folder/here" && on "$client" timeout 120 "${build[$client]}/tools/plexa-pvr" "$@")
}

pvr_there() {
  local tools=${build[$client]}/tools tests=${build[$client]}/tests
  (cd "$folder/there" && on "$client" timeout 120 env PLEXA_BOX=1 PLEXA_TEST_BOX_PORT="$port" \
    LD_PRELOAD="$tools/libplexa-box-detect.so $tests/libplexa-box-redirect.so" \
    "$tools/plexa-pvr" "$@")
}

# The same command, the same names: the same words, and success.
both() {
  pvr_here "$@" > "$folder/here.txt" 2>&1 || fail "$* fails: $(cat "$folder/here.txt")"
  pvr_there "$@" > "$folder/there.txt" 2>&1 || fail "$* fails on the box: $(cat "$folder/there.txt")"
  diff <(sed "s|$folder/here/|/|g" "$folder/here.txt") "$folder/there.txt" ||
    fail "$* says something else on the box"
}

# A recording's files on the two disks.
same_recording() {
  local name
  for name in "$1.kvf" "$1.mdb"; do
    cmp "$folder/here/$name" "$folder/disk/$name" || fail "$name is another file on the box"
  done
}

look_into() {
  both info "$1.kvf"
  both frames "$1.kvf" --from 100 --to 200
  both seek "$1.kvf" --time 300.5
  both seek "$1.kvf" --offset 20000000 --json
  both check "$1.kvf"
}

figure() {
  sed -n "s/^ *\"$1\" : \([0-9]*\),\{0,1\}$/\1/p" "$2"
}

# How much a cut takes hangs on how far the index is at that moment, here as there. What is kept is the
# recording's end.
timeshift() {
  local name removed input kept
  for name in here there; do
    "pvr_$name" timeshift "$work/stream.ts" buffer.kvf --max-time 6 --readers 1 --json \
      > "$folder/$name.txt" 2>&1 || fail "timeshift fails: $(cat "$folder/$name.txt")"
  done
  for name in recorded_ms bytes gops cuts faults; do
    [[ $(figure "$name" "$folder/here.txt") == "$(figure "$name" "$folder/there.txt")" ]] ||
      fail "timeshift: other $name on the box: $(cat "$folder/here.txt" "$folder/there.txt")"
  done
  [[ $(figure cuts "$folder/there.txt") -gt 0 ]] || fail 'timeshift: nothing was cut'
  cmp "$folder/here/buffer.mdb" "$folder/disk/buffer.mdb" || fail 'timeshift: another index on the box'
  removed=$(figure bytes_removed "$folder/there.txt")
  input=$(stat -c %s "$work/stream.ts")
  [[ $removed -gt 0 && $removed -lt $input ]] || fail "timeshift: $removed bytes removed"
  kept=$(($(figure bytes "$folder/there.txt") - removed))
  [[ $(stat -c %s "$folder/disk/buffer.kvf") -eq $kept ]] || fail "timeshift: not $kept bytes on the box"
  # A buffer takes whole units: null packets may follow.
  cmp -n $((input - removed)) -i "$removed:0" "$work/stream.ts" "$folder/disk/buffer.kvf" ||
    fail 'timeshift: the box has not kept the end of the recording'
}

# direction SERVER-BITS CLIENT-BITS
direction() (
  server=$1 client=$2 folder=$work/$1-$2
  mkdir -p "$folder"/{disk,here,there}
  check_architecture "$server" "${build[$server]}/tools/plexa-box"
  check_architecture "$client" "${build[$client]}/tools/plexa-pvr"
  box='' box_pid=''
  trap '[[ -z $box ]] || stop_box' EXIT
  start_box

  both record "$work/stream.ts" film.kvf
  same_recording film
  look_into film
  both export film.kvf film.ts --from 100 --to 200
  cmp "$folder/here/film.ts" "$folder/there/film.ts" || fail 'another export from the box'
  both rename film.kvf holiday.kvf
  same_recording holiday
  [[ ! -e $folder/disk/film.kvf && ! -e $folder/disk/film.mdb ]] || fail 'the old name is still there'
  both info holiday.kvf
  timeshift

  [[ $(ls "$folder/there") == film.ts ]] || fail "not on the box: $(ls "$folder/there")"
  stop_box || fail "the box ends with exit code $?: $(cat "$folder/box.log")"
)

encode "$work/stream.ts"
passed=0 failed=0
for pair in '64 32' '32 64'; do
  read -r server client <<< "$pair"
  if direction "$server" "$client"; then
    printf 'passed: a %d-bit client, a %d-bit box\n' "$client" "$server"
    passed=$((passed + 1))
  else
    printf 'FAILED: a %d-bit client, a %d-bit box\n' "$client" "$server"
    failed=$((failed + 1))
  fi
done
printf '%d passed, %d failed\n' "$passed" "$failed"
[[ $failed -eq 0 ]]
