// ts_to_es_seeds.cpp - a stretch of stream with one picture, behind the three bytes that choose the
// codec and the PID.
#include "seeds.h"
#include "ts_builder.h"

namespace {

using plexa_test::Bytes;
using plexa_test::join;
using plexa_test::repeat;

constexpr uint16_t kPid = 0x100;

Bytes input(uint8_t codec, const Bytes &packets) { return join({{codec, 0x01, 0x00}, packets}); }

Bytes picture(size_t size) {
  return plexa_test::packetise(kPid, plexa_test::pes(0xe0, repeat(0xab, size), 90000));
}

}  // namespace

std::vector<plexa_fuzz::Bytes> plexa_fuzz::seeds() {
  const Bytes h264 = join({plexa_test::h264_sps(), plexa_test::h264_slice(5, 0, 4, {})});
  const Bytes other = plexa_test::ts_packet(0x200, repeat(0x11, 184), {});
  return {
      input(1, picture(10)),
      input(1, join({picture(700), picture(10)})),
      input(2, plexa_test::packetise(kPid, plexa_test::pes(0xe0, h264, 90000))),
      input(2, join({other, picture(400), other, picture(1)})),
      input(0, join({repeat(0x47, 5), picture(400)})),
      input(5, plexa_test::packetise(kPid, plexa_test::pes(0xe0, repeat(1, 300), {}, 40))),
  };
}
