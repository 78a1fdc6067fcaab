// h264_seeds.cpp - coded H.264 pictures: an SPS and the first slice header.
#include "seeds.h"
#include "ts_builder.h"

std::vector<plexa_fuzz::Bytes> plexa_fuzz::seeds() {
  using namespace plexa_test;
  SpsOptions interlaced;
  interlaced.frame_mbs_only = false;
  SpsOptions high;
  high.profile = 100;
  high.frame_mbs_only = false;
  high.log2_max_frame_num_minus4 = 12;
  high.poc_type = 1;
  return {
      h264_sps(),
      h264_slice(5, 0, 4, {}),
      join({h264_sps(), h264_slice(5, 0, 4, {})}),
      join({h264_sps(interlaced), h264_slice(5, 0, 4, true, repeat(0x55, 40))}),
      join({h264_sps(interlaced), h264_slice(1, 3, 4, false)}),
      join({h264_sps(high), h264_slice(5, 0, 16, true)}),
      join({{0, 0, 1, 9, 0xf0},
            h264_sps(interlaced),
            {0, 0, 0, 1, 0x68, 0xce, 0x3c, 0x80},
            h264_slice(5, 0, 4, true)}),
      repeat(0, 64),
      join({repeat(0, 8), {3, 0, 0, 3, 1}}),
  };
}
