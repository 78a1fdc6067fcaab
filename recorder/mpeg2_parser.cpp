// mpeg2_parser.cpp - MPEG-1 and MPEG-2 video pictures. ISO/IEC 13818-2 clause 6.2.
//
// Every I-picture is an entry. A stream that refreshes its pictures gradually has none; there a
// sequence header in front of a P-picture marks the places where decoding can begin.
#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gstmpegvideoparser.h>

#include "picture_parser.h"

namespace plexa::rec {
namespace {

constexpr uint8_t kPicture = 0x00;
constexpr uint8_t kFirstSlice = 0x01;
constexpr uint8_t kLastSlice = 0xaf;
constexpr uint8_t kSequence = 0xb3;
constexpr uint8_t kExtension = 0xb5;
constexpr uint8_t kGroup = 0xb8;

bool is_slice_code(uint8_t code) { return code >= kFirstSlice && code <= kLastSlice; }

GstMpegVideoPacket packet_of(const uint8_t *unit, size_t size) {
  GstMpegVideoPacket packet = {};
  packet.data = unit;
  packet.type = unit[0];
  packet.offset = 1;
  packet.size = static_cast<gint>(size) - 1;
  return packet;
}

class Mpeg2Parser final : public PictureParser {
 public:
  size_t wants(uint8_t code) const override {
    if (is_slice_code(code)) return picture_.coded ? 0 : 1;
    if (code == kPicture || code == kExtension) return 24;
    if (code == kSequence) return 1 + 8 + 64 + 64;
    return code == kGroup ? 1 : 0;
  }

  bool is_opener(const uint8_t *unit, size_t) const override {
    return unit[0] == kPicture || unit[0] == kSequence || unit[0] == kGroup;
  }

  bool is_slice(uint8_t code) const override { return is_slice_code(code); }

  void take(const uint8_t *unit, size_t size) override {
    if (is_slice_code(unit[0])) picture_.coded = true;
    if (unit[0] == kPicture) picture_header(unit, size);
    if (unit[0] == kSequence) sequence_header(unit, size);
    if (unit[0] == kExtension) extension(unit, size);
    picture_.duration = duration_;
  }

 private:
  void sequence_header(const uint8_t *unit, size_t size) {
    const GstMpegVideoPacket packet = packet_of(unit, size);
    GstMpegVideoSequenceHdr header = {};
    if (gst_mpeg_video_packet_parse_sequence_header(&packet, &header) == FALSE) return;
    picture_.sequence_header = true;
    if (header.fps_n > 0) duration_ = int64_t{90000} * header.fps_d / header.fps_n;
  }

  void picture_header(const uint8_t *unit, size_t size) {
    const GstMpegVideoPacket packet = packet_of(unit, size);
    GstMpegVideoPictureHdr header = {};
    if (gst_mpeg_video_packet_parse_picture_header(&packet, &header) == FALSE) return;
    picture_.frame_id = header.tsn;
    picture_.can_be_second = true;
    picture_.bidirectional = header.pic_type == GST_MPEG_VIDEO_PICTURE_TYPE_B;
    if (header.pic_type == GST_MPEG_VIDEO_PICTURE_TYPE_I) {
      picture_.entry = Entry::kClean;
    } else if (picture_.sequence_header && !picture_.bidirectional) {
      picture_.entry = Entry::kGradual;
    }
  }

  void extension(const uint8_t *unit, size_t size) {
    const GstMpegVideoPacket packet = packet_of(unit, size);
    GstMpegVideoPictureExt extension = {};
    const bool is_picture = size > 1 && unit[1] >> 4 == GST_MPEG_VIDEO_PACKET_EXT_PICTURE;
    if (!is_picture) return;
    if (gst_mpeg_video_packet_parse_picture_extension(&packet, &extension) == FALSE) return;
    switch (extension.picture_structure) {
      case GST_MPEG_VIDEO_PICTURE_STRUCTURE_TOP_FIELD:
        picture_.structure = Picture::Structure::kTopField;
        break;
      case GST_MPEG_VIDEO_PICTURE_STRUCTURE_BOTTOM_FIELD:
        picture_.structure = Picture::Structure::kBottomField;
        break;
      default:
        picture_.structure = Picture::Structure::kFrame;
    }
  }

  int64_t duration_ = 0;
};

}  // namespace

std::unique_ptr<PictureParser> make_mpeg2_parser() { return std::make_unique<Mpeg2Parser>(); }

}  // namespace plexa::rec
