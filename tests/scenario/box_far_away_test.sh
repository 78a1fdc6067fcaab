#!/usr/bin/env bash
# usage: box_far_away_test.sh BUILD-TREE
#
# A television and its box in two network namespaces, 50 ms apart, on a link that loses one packet
# in a hundred: records over the network, looks into the recording, renames it, and compares it with a
# local one. Without "tc netem" in the kernel the link is a good one, which it says. Exit status 77:
# there are no namespaces to be had here, for want of root, of ip (iproute2) or of the kernel.
set -euo pipefail

[[ $# -eq 1 ]] || { sed -n 's/^# usage: /usage: /p' "$0" >&2; exit 2; }
build=$(realpath "$1")
work=$(cd "$(mktemp -d)" && pwd -P)
box=plexa-box-$$
tv=plexa-tv-$$

clean_up() {
  [[ -z ${server-} ]] || kill "$server" 2> /dev/null || true
  ip netns del "$box" 2> /dev/null || true
  ip netns del "$tv" 2> /dev/null || true
  rm -rf "$work"
}
trap clean_up EXIT

fail() {
  printf 'box_far_away_test: %s\n' "$*"
  exit 1
}

{
  ip netns add "$box" &&
    ip netns add "$tv" &&
    ip link add veth0 netns "$box" type veth peer name veth1 netns "$tv"
} > "$work/namespaces.log" 2>&1 || {
  tail -1 "$work/namespaces.log"
  exit 77
}
ip -n "$box" addr add 192.0.2.1/24 dev veth0
ip -n "$tv" addr add 192.0.2.2/24 dev veth1
ip -n "$box" link set veth0 up
ip -n "$tv" link set veth1 up
ip -n "$tv" link set lo up
distance='50 ms away, one packet in a hundred lost'
for end in "$box veth0" "$tv veth1"; do
  # shellcheck disable=SC2086
  set -- $end
  ip netns exec "$1" tc qdisc add dev "$2" root netem delay 25ms loss 1% 2> /dev/null ||
    distance='nearby: this kernel has no netem'
done

mkdir "$work/disk"
ip netns exec "$box" "$build/tools/plexa-box" --root "$work/disk" --address 192.0.2.1 \
  > "$work/box.log" 2>&1 &
server=$!
until grep -q '^listening on' "$work/box.log"; do
  kill -0 "$server" 2> /dev/null || fail "$(cat "$work/box.log")"
  sleep 0.1
done

pvr() {
  ip netns exec "$tv" env PLEXA_BOX=1 PLEXA_HOST_TV_YEAR=2014 \
    PLEXA_TEST_BOX_PORT=38999 PLEXA_TEST_BOX_ADDRESS=192.0.2.1 \
    LD_PRELOAD="$build/tools/libplexa-box-detect.so $build/tests/libplexa-box-redirect.so" \
    "$build/tools/plexa-pvr" "$@"
}

stream=$work/stream.ts
gst-launch-1.0 -q videotestsrc num-buffers=250 pattern=ball \
  ! video/x-raw,format=I420,width=160,height=120,framerate=25/1 \
  ! x264enc key-int-max=25 bitrate=500 speed-preset=ultrafast ! h264parse config-interval=-1 \
  ! mpegtsmux ! filesink location="$stream" > "$work/encode.log" 2>&1 || fail 'encoding failed'

began=$SECONDS
pvr record "$stream" /film.kvf > /dev/null || fail 'record'
pvr check /film.kvf > /dev/null || fail 'check'
pvr seek /film.kvf --time 1 > /dev/null || fail 'seek'
pvr thumbnail /film.kvf > /dev/null || fail 'thumbnail'
pvr rename /film.kvf /renamed.kvf > /dev/null || fail 'rename'
"$build/tools/plexa-pvr" record "$stream" "$work/local.kvf" > /dev/null
for extension in kvf mdb; do
  cmp "$work/local.$extension" "$work/disk/renamed.$extension" || fail "another .$extension"
done
printf 'the same recording on a box %s; %d s\n' "$distance" $((SECONDS - began))
