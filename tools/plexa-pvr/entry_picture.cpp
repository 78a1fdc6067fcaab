// entry_picture.cpp - see entry_picture.h.
#include "entry_picture.h"

#define GST_USE_UNSTABLE_API
#include <gst/base/gstbitreader.h>
#include <gst/codecparsers/gsth264parser.h>
#include <gst/codecparsers/gsth265parser.h>
#include <gst/codecparsers/gstmpegvideoparser.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

namespace plexa::pvr {
namespace {

// Codec identifiers of a channel record.
constexpr int kMpeg2 = 0;
constexpr int kH264 = 1;
constexpr int kH265 = 4;

// Gathers what is seen of the pictures of one PES packet, in order.
class PictureList {
 public:
  // What stands in front of the next picture.
  void announce() { announced_ = true; }

  // Slices in front of the first beginning belong to a picture of the PES packet before.
  void slice(bool begins_picture, std::optional<bool> intra) {
    if (begins_picture) begin();
    if (!open_) return;
    if (!intra) {
      unknown_ = true;
    } else if (!*intra) {
      all_intra_ = false;
    }
  }

  Entry result() {
    close();
    return best_;
  }

 private:
  void begin() {
    close();
    open_ = true;
    ++count_;
    all_intra_ = true;
    unknown_ = false;
    picture_announced_ = announced_;
    announced_ = false;
  }

  void close() {
    if (open_ && kind() < best_.kind) best_ = {kind(), count_ == 1};
    open_ = false;
  }

  EntryPicture kind() const {
    if (all_intra_ && !unknown_) return EntryPicture::kIntra;
    if (picture_announced_) return EntryPicture::kAnnounced;
    return all_intra_ ? EntryPicture::kUnknown : EntryPicture::kPredicted;
  }

  Entry best_;
  int count_ = 0;
  bool open_ = false;
  bool all_intra_ = true;
  bool unknown_ = false;
  bool announced_ = false;
  bool picture_announced_ = false;
};

void scan_mpeg2(std::span<const uint8_t> data, PictureList &pictures) {
  GstMpegVideoPacket unit{};
  guint offset = 0;
  while (gst_mpeg_video_parse(&unit, data.data(), data.size(), offset)) {
    // The last unit has no end in sight.
    if (unit.size < 0) unit.size = static_cast<gint>(data.size() - unit.offset);
    if (unit.type == GST_MPEG_VIDEO_PACKET_SEQUENCE) pictures.announce();
    if (unit.type == GST_MPEG_VIDEO_PACKET_PICTURE) {
      GstMpegVideoPictureHdr header{};
      const bool parsed = gst_mpeg_video_packet_parse_picture_header(&unit, &header) != FALSE;
      pictures.slice(true,
                     parsed ? std::optional<bool>(header.pic_type == GST_MPEG_VIDEO_PICTURE_TYPE_I)
                            : std::nullopt);
    }
    offset = unit.offset;
  }
}

// An Exp-Golomb code (ITU-T H.264 clause 9.1) of up to 20 bits behind its zeros.
std::optional<guint32> exp_golomb(GstBitReader &bits) {
  constexpr guint kMostZeros = 20;
  guint8 bit = 0;
  guint zeros = 0;
  while (gst_bit_reader_get_bits_uint8(&bits, &bit, 1) && bit == 0) {
    if (++zeros > kMostZeros) return {};
  }
  guint32 rest = 0;
  if (bit == 0 || !gst_bit_reader_get_bits_uint32(&bits, &rest, zeros)) return {};
  return (guint32{1} << zeros) - 1 + rest;
}

// The beginning of a slice, long enough for two codes, without emulation prevention bytes (ITU-T
// H.264 clause 7.4.1).
std::vector<uint8_t> slice_beginning(const GstH264NalUnit &unit) {
  constexpr size_t kEnough = 12;
  std::vector<uint8_t> out;
  guint zeros = 0;
  for (guint at = unit.header_bytes; at < unit.size && out.size() < kEnough; ++at) {
    const uint8_t byte = unit.data[unit.offset + at];
    const bool prevention = zeros >= 2 && byte == 3;
    zeros = byte == 0 ? zeros + 1 : 0;
    if (!prevention) out.push_back(byte);
  }
  return out;
}

struct SliceStart {
  bool first = false;
  std::optional<bool> intra;
};

// The first two codes of an H.264 slice need no parameter set.
SliceStart h264_slice_start(const GstH264NalUnit &unit) {
  const std::vector<uint8_t> bytes = slice_beginning(unit);
  GstBitReader bits;
  gst_bit_reader_init(&bits, bytes.data(), static_cast<guint>(bytes.size()));
  const auto first_macroblock = exp_golomb(bits);
  const auto type = exp_golomb(bits);
  if (!first_macroblock || !type || *type > 9) return {};
  const bool intra = *type % 5 == GST_H264_I_SLICE || *type % 5 == GST_H264_SI_SLICE;
  return {*first_macroblock == 0, intra};
}

// Calls `take` for every NAL unit. `identify` is the parser's function for that.
template <class Unit, class Identify, class Take>
void for_each_nal(std::span<const uint8_t> data, Identify identify, Take take) {
  guint offset = 0;
  while (offset < data.size()) {
    Unit unit{};
    if (!identify(offset, &unit)) return;
    const guint next = unit.offset + unit.size;
    if (unit.size > unit.header_bytes) take(unit);
    offset = std::max(next, offset + 1);
  }
}

template <class Message>
bool says_recovery_point(GArray *messages, int recovery_point) {
  if (messages == nullptr) return false;
  bool found = false;
  for (guint i = 0; i < messages->len; ++i) {
    // Read as a number: the stream may hold types that the enumeration does not have.
    int type = 0;
    static_assert(sizeof type == sizeof(Message::payloadType));
    std::memcpy(&type, &g_array_index(messages, Message, i).payloadType, sizeof type);
    found = found || type == recovery_point;
  }
  g_array_unref(messages);
  return found;
}

void take_h264(GstH264NalParser *parser, GstH264NalUnit &unit, PictureList &pictures) {
  switch (unit.type) {
    case GST_H264_NAL_SLICE:
    case GST_H264_NAL_SLICE_DPA:
    case GST_H264_NAL_SLICE_IDR: {
      const SliceStart slice = h264_slice_start(unit);
      pictures.slice(slice.first, slice.intra);
      break;
    }
    case GST_H264_NAL_SEI: {
      GArray *messages = nullptr;
      gst_h264_parser_parse_sei(parser, &unit, &messages);
      if (says_recovery_point<GstH264SEIMessage>(messages, GST_H264_SEI_RECOVERY_POINT)) {
        pictures.announce();
      }
      break;
    }
    case GST_H264_NAL_SPS:
    case GST_H264_NAL_PPS:
      gst_h264_parser_parse_nal(parser, &unit);
      break;
    default:
      break;
  }
}

bool is_h265_irap(const GstH265NalUnit &unit) {
  return unit.type >= GST_H265_NAL_SLICE_BLA_W_LP && unit.type <= GST_H265_NAL_SLICE_CRA_NUT;
}

void take_h265_slice(GstH265Parser *parser, GstH265NalUnit &unit, PictureList &pictures) {
  const bool first = (unit.data[unit.offset + unit.header_bytes] & 0x80) != 0;
  if (is_h265_irap(unit)) return pictures.slice(first, true);
  GstH265SliceHdr header{};
  const bool parsed = gst_h265_parser_parse_slice_hdr(parser, &unit, &header) == GST_H265_PARSER_OK;
  if (parsed && header.dependent_slice_segment_flag == 0) {
    pictures.slice(first, GST_H265_IS_I_SLICE(&header));
  } else if (first || !parsed) {
    pictures.slice(first, std::nullopt);
  }
  gst_h265_slice_hdr_free(&header);
}

void take_h265(GstH265Parser *parser, GstH265NalUnit &unit, PictureList &pictures) {
  if (unit.type <= GST_H265_NAL_SLICE_RASL_R || is_h265_irap(unit)) {
    return take_h265_slice(parser, unit, pictures);
  }
  if (unit.type == GST_H265_NAL_PREFIX_SEI) {
    GArray *messages = nullptr;
    gst_h265_parser_parse_sei(parser, &unit, &messages);
    if (says_recovery_point<GstH265SEIMessage>(messages, GST_H265_SEI_RECOVERY_POINT)) {
      pictures.announce();
    }
  }
  if (unit.type >= GST_H265_NAL_VPS && unit.type <= GST_H265_NAL_PPS) {
    gst_h265_parser_parse_nal(parser, &unit);
  }
}

}  // namespace

struct EntryInspector::Parsers {
  GstH264NalParser *h264 = gst_h264_nal_parser_new();
  GstH265Parser *h265 = gst_h265_parser_new();

  Parsers() = default;
  ~Parsers() {
    gst_h264_nal_parser_free(h264);
    gst_h265_parser_free(h265);
  }
  Parsers(const Parsers &) = delete;
  Parsers &operator=(const Parsers &) = delete;

  void scan_h264(std::span<const uint8_t> data, PictureList &pictures) {
    for_each_nal<GstH264NalUnit>(
        data,
        [&](guint offset, GstH264NalUnit *unit) {
          const auto result =
              gst_h264_parser_identify_nalu(h264, data.data(), offset, data.size(), unit);
          return result == GST_H264_PARSER_OK || result == GST_H264_PARSER_NO_NAL_END;
        },
        [&](GstH264NalUnit &unit) { take_h264(h264, unit, pictures); });
  }

  void scan_h265(std::span<const uint8_t> data, PictureList &pictures) {
    for_each_nal<GstH265NalUnit>(
        data,
        [&](guint offset, GstH265NalUnit *unit) {
          const auto result =
              gst_h265_parser_identify_nalu(h265, data.data(), offset, data.size(), unit);
          return result == GST_H265_PARSER_OK || result == GST_H265_PARSER_NO_NAL_END;
        },
        [&](GstH265NalUnit &unit) { take_h265(h265, unit, pictures); });
  }
};

EntryInspector::EntryInspector() : parsers_(std::make_unique<Parsers>()) {}
EntryInspector::~EntryInspector() = default;

Entry EntryInspector::inspect(int code, std::span<const uint8_t> data) {
  PictureList pictures;
  switch (code) {
    case kMpeg2:
      scan_mpeg2(data, pictures);
      break;
    case kH264:
      parsers_->scan_h264(data, pictures);
      break;
    case kH265:
      parsers_->scan_h265(data, pictures);
      break;
    default:
      return {EntryPicture::kUnknown, false};
  }
  return pictures.result();
}

}  // namespace plexa::pvr
