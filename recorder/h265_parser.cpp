// h265_parser.cpp - H.265 pictures. ITU-T H.265 clauses 7.3.1, 7.4.2.4.4 and 7.3.6.1.
//
// The NAL unit type alone tells the pictures at which decoding can begin (IRAP: IDR, BLA, CRA).
// Layers above the base layer are passed over. A field is a picture of its own here.
#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth265parser.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "picture_parser.h"

namespace plexa::rec {
namespace {

constexpr size_t kSliceStart = 3;  // NAL header and first_slice_segment_in_pic_flag
constexpr std::array<uint8_t, 3> kPrefix = {0, 0, 1};

unsigned nal_type(uint8_t first_byte) { return (first_byte >> 1) & 0x3f; }

bool is_slice_type(unsigned type) {
  return type <= GST_H265_NAL_SLICE_RASL_R ||
         (type >= GST_H265_NAL_SLICE_BLA_W_LP && type <= GST_H265_NAL_SLICE_CRA_NUT);
}

bool is_irap(unsigned type) {
  return type >= GST_H265_NAL_SLICE_BLA_W_LP && type <= GST_H265_NAL_SLICE_CRA_NUT;
}

bool is_base_layer(const uint8_t *unit, size_t size) {
  return size > 1 && (unit[0] & 1) == 0 && unit[1] >> 3 == 0;
}

struct ParserFree {
  void operator()(GstH265Parser *parser) const { gst_h265_parser_free(parser); }
};

class H265Parser final : public PictureParser {
 public:
  size_t wants(uint8_t code) const override {
    const unsigned type = nal_type(code);
    if (is_slice_type(type)) return kSliceStart;
    switch (type) {
      case GST_H265_NAL_VPS:
      case GST_H265_NAL_SPS:
      case GST_H265_NAL_PREFIX_SEI:
        return picture_.coded ? 2 : kLongestUnit;
      case GST_H265_NAL_PPS:
      case GST_H265_NAL_AUD:
        return 2;
      default:
        return 0;
    }
  }

  bool is_opener(const uint8_t *unit, size_t size) const override {
    if (!is_base_layer(unit, size)) return false;
    if (!is_slice_type(nal_type(unit[0]))) return true;  // nothing else was asked for
    return size > 2 && (unit[2] & 0x80) != 0;
  }

  bool is_slice(uint8_t code) const override { return is_slice_type(nal_type(code)); }

  void take(const uint8_t *unit, size_t size) override {
    if (!is_base_layer(unit, size)) return;
    const unsigned type = nal_type(unit[0]);
    if (is_slice_type(type)) {
      slice(type);
    } else if (size > 2) {
      parameters(type, nal(unit, size));
    }
    picture_.duration = duration_;
  }

 private:
  GstH265NalUnit nal(const uint8_t *unit, size_t size) {
    std::copy(kPrefix.begin(), kPrefix.end(), buffer_.begin());
    std::memcpy(buffer_.data() + kPrefix.size(), unit, size);
    GstH265NalUnit out = {};
    gst_h265_parser_identify_nalu_unchecked(parser_.get(), buffer_.data(), 0, kPrefix.size() + size,
                                            &out);
    return out;
  }

  void parameters(unsigned type, GstH265NalUnit unit) {
    if (unit.size == 0) return;
    if (type == GST_H265_NAL_SPS) sequence(unit);
    if (type == GST_H265_NAL_PREFIX_SEI) supplement(unit);
    if (type == GST_H265_NAL_VPS) {
      GstH265VPS vps = {};
      if (gst_h265_parser_parse_vps(parser_.get(), &unit, &vps) != GST_H265_PARSER_OK) return;
      if (vps.timing_info_present_flag != 0) set_duration(vps.num_units_in_tick, vps.time_scale);
    }
  }

  void sequence(GstH265NalUnit &unit) {
    GstH265SPS sps = {};
    if (gst_h265_parser_parse_sps(parser_.get(), &unit, &sps, TRUE) != GST_H265_PARSER_OK) return;
    picture_.sequence_header = true;
    const GstH265VUIParams &vui = sps.vui_params;
    if (sps.vui_parameters_present_flag != 0 && vui.timing_info_present_flag != 0) {
      set_duration(vui.num_units_in_tick, vui.time_scale);
    }
  }

  void set_duration(unsigned units, unsigned scale) {
    if (scale > 0) duration_ = int64_t{90000} * units / scale;
  }

  void supplement(GstH265NalUnit &unit) {
    GArray *messages = nullptr;
    gst_h265_parser_parse_sei(parser_.get(), &unit, &messages);
    if (messages == nullptr) return;
    for (guint i = 0; i < messages->len; ++i) {
      const auto &message = g_array_index(messages, GstH265SEIMessage, i);
      recovery_ = recovery_ || message.payloadType == GST_H265_SEI_RECOVERY_POINT;
    }
    g_array_free(messages, TRUE);
  }

  void slice(unsigned type) {
    if (picture_.coded) return;
    picture_.coded = true;
    const bool announced = std::exchange(recovery_, false);
    // Leading pictures come out before the picture that they follow.
    picture_.bidirectional = type >= GST_H265_NAL_SLICE_RADL_N && type <= GST_H265_NAL_SLICE_RASL_R;
    if (is_irap(type)) {
      picture_.entry = Entry::kClean;
    } else if (announced) {
      picture_.entry = Entry::kGradual;
    }
  }

  std::unique_ptr<GstH265Parser, ParserFree> parser_{gst_h265_parser_new()};
  std::array<uint8_t, kPrefix.size() + kLongestUnit> buffer_ = {};
  int64_t duration_ = 0;
};

}  // namespace

std::unique_ptr<PictureParser> make_h265_parser() { return std::make_unique<H265Parser>(); }

}  // namespace plexa::rec
