// gst_thumbnail_util.cpp - is a coded H.264 picture a frame or a field?
//
// Parses just enough of the sequence parameter set and of the first slice header (ITU-T H.264
// clause 7.3) to reach field_pic_flag. The input is a recording's content and may be anything:
// every read is bounded by the parse buffer, nothing is allocated from a count in the stream, and
// no loop runs past the buffer's end. Scaling lists are not skipped, so an SPS that carries them is
// misread behind them; that is accepted. No state: any thread may call.
#include "gst-plexa/gst_thumbnail_util.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "gst_thumbnail_internal.h"

#define PLEXA_LOG_AREA "EXT_THM"
#include "plexa_log.h"

namespace plexa {
namespace {

constexpr guint8 kNalSps = 7;

guint32 _bit(std::span<const guint8> buffer, guint32 position) {
  return (buffer[position / 8] >> (7 - position % 8)) & 1u;
}

guint32 _advanced(guint32 position, guint32 bits) {
  return bits > G_MAXUINT32 - position ? G_MAXUINT32 : position + bits;
}

// A header on its way through the parser: a zero-filled copy without emulation prevention bytes,
// and the position reached in it.
class Rbsp {
 public:
  Rbsp(const guint8 *header, guint32 length) : length_(std::min(length, kParseBufferSize)) {
    std::copy_n(header, length_, bytes_.begin());
    de_emulation_prevention(bytes_.data(), &length_);
  }

  guint32 u(guint32 n) { return plexa::u(n, bytes_, position_); }
  guint32 ue() { return Ue(bytes_, length_, position_); }
  gint32 se() { return Se(bytes_, length_, position_); }
  bool at_end() const { return position_ >= guint64{length_} * 8; }

 private:
  std::array<guint8, kParseBufferSize> bytes_{};
  guint32 length_;
  guint32 position_ = 0;
};

// Exactly these profiles are read with chroma fields. Others that carry them too (244, say) are
// parsed as if they did not.
bool _has_chroma_fields(guint32 profile_idc) {
  return profile_idc == 100 || profile_idc == 110 || profile_idc == 122 || profile_idc == 144;
}

void _skip_chroma_fields(Rbsp &sps) {
  if (sps.ue() == 3) sps.u(1);  // chroma_format_idc, separate_colour_plane_flag
  sps.ue();                     // bit_depth_luma_minus8
  sps.ue();                     // bit_depth_chroma_minus8
  sps.u(1);                     // qpprime_y_zero_transform_bypass_flag
  guint32 first_list = 0;
  if (sps.u(1) != 0) {  // seq_scaling_matrix_present_flag
    first_list = sps.u(1);
    sps.u(7);
  }
  PLX_INFO("seq_scaling_list_present_flag [0] [%d]", first_list);
}

void _skip_pic_order_cnt(Rbsp &sps) {
  const guint32 type = sps.ue();
  if (type == 0) sps.ue();  // log2_max_pic_order_cnt_lsb_minus4
  if (type != 1) return;
  sps.u(1);  // delta_pic_order_always_zero_flag
  sps.se();  // offset_for_non_ref_pic
  sps.se();  // offset_for_top_to_bottom_field
  // The count is the stream's word only: behind the buffer's end there is nothing left to skip.
  for (guint32 left = sps.ue(); left > 0 && !sps.at_end(); --left) sps.se();
}

// Index of the NAL header byte behind the next start code at or after at; size when there is none.
guint32 _next_nal_header(const guint8 *es, guint32 size, guint32 at) {
  for (guint32 i = at + 2; i < size; ++i) {
    const void *const one = std::memchr(es + i, 1, size - i);
    if (one == nullptr) break;
    i = static_cast<guint32>(static_cast<const guint8 *>(one) - es);
    if (es[i - 2] == 0 && es[i - 1] == 0) return i + 1;
  }
  return size;
}

// What follows the NAL header byte, and zeros up to the size of the parse buffer.
void _fill_parse_buffer(guint8 *rbsp, const guint8 *es, guint32 size, guint32 from) {
  const guint32 held = std::min(size - from, kParseBufferSize);
  std::memcpy(rbsp, es + from, held);
  std::memset(rbsp + held, 0, kParseBufferSize - held);
}

// A picture comes with one SPS or a few. What comes with more is not honest, and of those only the
// last, which counts, is parsed: the work stays in proportion to the picture.
constexpr gint32 kMostSpsParsed = 64;

bool _is_field_picture(const guint8 *es, guint32 size, guint8 *rbsp) {
  gint32 frame_mbs_only_flag = -1;
  gint32 frame_num_width = -1;
  gint32 sps_seen = 0;
  guint32 sps_left = 0;  // where the SPS begins that is still to be parsed; 0: there is none
  const auto parse_sps = [&](guint32 from) {
    _fill_parse_buffer(rbsp, es, size, from);
    h264_decode_sps_ex(rbsp, kParseBufferSize, &frame_mbs_only_flag, &frame_num_width);
  };
  for (guint32 at = _next_nal_header(es, size, 0); at < size; at = _next_nal_header(es, size, at)) {
    const guint8 header = es[at++];
    const guint8 type = header & 31;
    PLX_INFO("nal_ref_idc: %d, nal_unit_type: %d", (header >> 5) & 3, type);
    if (type == kNalSps) {
      if (++sps_seen <= kMostSpsParsed) {
        parse_sps(at);
      } else {
        sps_left = at;
      }
      ++at;
    } else if ((type & 27) == 1) {  // 1 and 5: a coded slice
      if (sps_left != 0) parse_sps(sps_left);
      if (frame_mbs_only_flag == -1 || frame_num_width == -1) return false;
      _fill_parse_buffer(rbsp, es, size, at);
      return h264_decode_slice_header_ex(rbsp, kParseBufferSize, frame_mbs_only_flag,
                                         frame_num_width) == 1;
    }
  }
  return false;
}

}  // namespace

// The scan runs to the length at entry, also after removals: it then sees the shifted bytes and the
// stale last byte that each shift leaves behind. A byte moved into place i is next looked at as the
// middle of a triple.
void de_emulation_prevention(guint8 *buffer, guint32 *length) {
  const guint32 entry_length = *length;
  if (entry_length < 2) {
    PLX_ERROR(
        "[PLG_ERR] buf_size is less than 2 , so return, otherwise, tmp_buf_size -2 will be very "
        "bigger.");
    return;
  }
  for (guint32 i = 2; i < entry_length; ++i) {
    const void *const three = std::memchr(buffer + i, 3, entry_length - i);
    if (three == nullptr) return;
    i = static_cast<guint32>(static_cast<const guint8 *>(three) - buffer);
    if (buffer[i - 2] != 0 || buffer[i - 1] != 0) continue;
    std::memmove(buffer + i, buffer + i + 1, entry_length - i - 1);
    --*length;
  }
}

guint32 u(guint32 n, std::span<const guint8> buffer, guint32 &position) {
  const guint64 end = guint64{buffer.size()} * 8;
  guint32 value = 0;
  guint32 left = n;
  for (; left > 0 && position < end; --left) value = (value << 1) | _bit(buffer, position++);
  position = _advanced(position, left);
  return left < 32 ? value << left : 0;
}

guint32 Ue(std::span<const guint8> buffer, guint32 length, guint32 &position) {
  const guint64 end = std::min<guint64>(length, buffer.size()) * 8;
  guint32 zeros = 0;
  for (; position < end && _bit(buffer, position) == 0; ++position) ++zeros;
  position = _advanced(position, 1);  // the 1 bit; behind the end one bit is skipped instead
  if (zeros == 0) return 0;
  const guint32 base = zeros < 32 ? guint32{1} << zeros : 0;  // modulo 2^32, as the sum is
  return base - 1 + u(zeros, buffer, position);
}

gint32 Se(std::span<const guint8> buffer, guint32 length, guint32 &position) {
  const gint64 k = Ue(buffer, length, position);
  return static_cast<gint32>(k % 2 != 0 ? (k + 1) / 2 : -(k / 2));
}

gint32 h264_parser_field_encoding(const guint8 *es, guint32 size) {
  PLX_INFO("=== Enter h264_parser_field_encoding ===");
  const HeapPtr<guint8> rbsp(static_cast<guint8 *>(std::calloc(1, kParseBufferSize)));
  if (!rbsp) {
    PLX_ERROR("[PLG_ERR] calloc rbsp buffer failed!");
    return -1;
  }
  const bool field = _is_field_picture(es, size, rbsp.get());
  PLX_INFO("=== Exit h264_parser_field_encoding ===");
  return field ? 1 : 0;
}

}  // namespace plexa

void h264_decode_sps_ex(guint8 *buffer, guint32 length, gint32 *frame_mbs_only_flag,
                        gint32 *frame_num_width) {
  if (buffer == nullptr || frame_mbs_only_flag == nullptr || frame_num_width == nullptr) return;
  plexa::Rbsp sps(buffer, length);
  const guint32 profile_idc = sps.u(8);
  sps.u(4);  // constraint_set0_flag to constraint_set3_flag
  sps.u(4);  // the remaining constraint flags and reserved bits
  sps.u(8);  // level_idc
  sps.ue();  // seq_parameter_set_id
  if (plexa::_has_chroma_fields(profile_idc)) plexa::_skip_chroma_fields(sps);
  *frame_num_width = static_cast<gint32>(sps.ue() + 4);  // log2_max_frame_num_minus4
  plexa::_skip_pic_order_cnt(sps);
  sps.ue();  // max_num_ref_frames
  sps.u(1);  // gaps_in_frame_num_value_allowed_flag
  sps.ue();  // pic_width_in_mbs_minus1
  sps.ue();  // pic_height_in_map_units_minus1
  *frame_mbs_only_flag = static_cast<gint32>(sps.u(1));
}

gint32 h264_decode_slice_header_ex(guint8 *buffer, guint32 length, gint32 frame_mbs_only_flag,
                                   gint32 frame_num_width) {
  if (buffer == nullptr) return -1;
  plexa::Rbsp slice(buffer, length);
  if (frame_mbs_only_flag != 0) return -1;
  slice.ue();                                                   // first_mb_in_slice
  slice.ue();                                                   // slice_type
  slice.ue();                                                   // pic_parameter_set_id
  slice.u(static_cast<guint32>(std::max(frame_num_width, 0)));  // frame_num
  return static_cast<gint32>(slice.u(1));                       // field_pic_flag
}
