// picture_parser.cpp - what the three parsers have in common. Not thread-safe.
#include "picture_parser.h"

#include <utility>

namespace plexa::rec {

bool is_field_pair(const Picture &first, const Picture &second) {
  using Structure = Picture::Structure;
  return first.structure != Structure::kFrame && second.structure != Structure::kFrame &&
         first.structure != second.structure && first.frame_id == second.frame_id &&
         second.can_be_second;
}

Picture PictureParser::finish() {
  recovery_ = false;
  return std::exchange(picture_, Picture{});
}

std::unique_ptr<PictureParser> make_picture_parser(Codec codec) {
  switch (codec) {
    case Codec::kH264:
      return make_h264_parser();
    case Codec::kH265:
      return make_h265_parser();
    case Codec::kMpeg2:
      break;
  }
  return make_mpeg2_parser();
}

}  // namespace plexa::rec
