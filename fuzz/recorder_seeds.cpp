// recorder_seeds.cpp - small streams of every coding, behind the two bytes that choose programme
// and pieces.
#include "seeds.h"
#include "test_stream.h"

namespace {

using plexa_test::Bytes;
using plexa_test::Codec;
using plexa_test::Field;
using plexa_test::join;
using plexa_test::TestPicture;
using plexa_test::TestStream;

Bytes input(uint8_t programme, uint8_t piece, const Bytes &stream) {
  return join({{programme, piece}, stream});
}

Bytes gops(Codec codec) {
  TestStream stream(codec);
  stream.tables().gop(4, {.size = 200}).gop(4, {.size = 200});
  return stream.bytes();
}

Bytes fields() {
  TestStream stream(Codec::kH264);
  stream.field_coding = true;
  stream.tables();
  for (int i = 0; i < 3; ++i) {
    stream.picture({.type = 'I', .field = Field::kTop, .size = 100}, i);
    stream.picture({.type = 'P', .field = Field::kBottom, .size = 100}, i);
  }
  return stream.bytes();
}

Bytes channel_change() {
  TestStream stream(Codec::kH264);
  stream.tables().gop(3, {.idr = false, .recovery_point = true, .size = 100});
  stream.video_pid = 0x300;
  stream.table_version = 1;
  stream.codec(Codec::kMpeg2);
  stream.tables().gop(3, {.size = 100}).gop(2, {.size = 100});
  return stream.bytes();
}

}  // namespace

std::vector<plexa_fuzz::Bytes> plexa_fuzz::seeds() {
  return {
      input(0, 255, gops(Codec::kMpeg2)),
      input(1, 7, gops(Codec::kH264)),
      input(0, 12, gops(Codec::kH265)),
      input(0, 100, plexa_test::as_192(gops(Codec::kMpeg2))),
      input(0, 101, plexa_test::as_204(gops(Codec::kH264))),
      input(0, 255, fields()),
      input(0, 50, channel_change()),
      input(9, 255, gops(Codec::kMpeg2)),
  };
}
