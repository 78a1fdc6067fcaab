// h264_parser.cpp - H.264 pictures. ITU-T H.264 clauses 7.3 and 7.4.1.2.3.
//
// The coding type of a picture needs every slice: it is an I-picture only if all of them are I.
// Whether a slice is the first of its picture and of which type it is stands in its first two
// codes, which need no parameter set; field parity and frame number are read by GStreamer's parser
// from the first slice, with the parameter sets seen so far.
#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth264parser.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <utility>

#include "picture_parser.h"

namespace plexa::rec {
namespace {

constexpr size_t kSliceStart = 12;   // the first two codes of a slice header, in any case
constexpr size_t kSliceHeader = 64;  // in any case up to the field parity
constexpr std::array<uint8_t, 3> kPrefix = {0, 0, 1};

unsigned nal_type(uint8_t first_byte) { return first_byte & 0x1f; }

bool is_slice_type(unsigned type) {
  return type == GST_H264_NAL_SLICE || type == GST_H264_NAL_SLICE_DPA ||
         type == GST_H264_NAL_SLICE_IDR;
}

// Exp-Golomb codes of ITU-T H.264 clause 9.1. A code that is not whole reads as none.
class CodeReader {
 public:
  CodeReader(const uint8_t *data, size_t size) : data_(data), bits_(size * 8) {}

  std::optional<unsigned> code() {
    unsigned zeros = 0;
    bool begun = false;  // its first one bit has been seen
    while (zeros < 32 && at_ < bits_ && !(begun = bit())) ++zeros;
    if (!begun || at_ + zeros > bits_) return {};
    uint64_t value = 1;
    for (unsigned i = 0; i < zeros; ++i) value = value << 1 | (bit() ? 1u : 0u);
    return static_cast<unsigned>(value - 1);
  }

 private:
  bool bit() {
    const bool out = (data_[at_ / 8] >> (7 - at_ % 8) & 1) != 0;
    ++at_;
    return out;
  }

  const uint8_t *data_;
  size_t bits_;
  size_t at_ = 0;
};

struct ParserFree {
  void operator()(GstH264NalParser *parser) const { gst_h264_nal_parser_free(parser); }
};

class H264Parser final : public PictureParser {
 public:
  size_t wants(uint8_t code) const override {
    const unsigned type = nal_type(code);
    if (is_slice_type(type)) return picture_.coded ? kSliceStart : kSliceHeader;
    switch (type) {
      case GST_H264_NAL_SEI:
      case GST_H264_NAL_SPS:
      case GST_H264_NAL_PPS:
        // Behind a slice the first byte already shows that a new picture begins.
        return picture_.coded ? 1 : kLongestUnit;
      case GST_H264_NAL_AU_DELIMITER:
        return 1;
      default:
        return 0;
    }
  }

  bool is_opener(const uint8_t *unit, size_t size) const override {
    const unsigned type = nal_type(unit[0]);
    if (!is_slice_type(type)) return true;     // nothing else was asked for
    return size > 1 && (unit[1] & 0x80) != 0;  // first_mb_in_slice is 0
  }

  bool is_slice(uint8_t code) const override { return is_slice_type(nal_type(code)); }

  void take(const uint8_t *unit, size_t size) override {
    const unsigned type = nal_type(unit[0]);
    if (is_slice_type(type)) {
      slice(unit, size);
    } else if (size > 1) {
      parameters(type, nal(unit, size));
    }
    picture_.duration = duration_;
  }

 private:
  // The unit with its start code in front, as GStreamer's parser finds it.
  GstH264NalUnit nal(const uint8_t *unit, size_t size) {
    std::copy(kPrefix.begin(), kPrefix.end(), buffer_.begin());
    std::memcpy(buffer_.data() + kPrefix.size(), unit, size);
    GstH264NalUnit out = {};
    gst_h264_parser_identify_nalu_unchecked(parser_.get(), buffer_.data(), 0, kPrefix.size() + size,
                                            &out);
    return out;
  }

  void parameters(unsigned type, GstH264NalUnit unit) {
    if (unit.size == 0) return;
    if (type == GST_H264_NAL_SPS) sequence(unit);
    if (type == GST_H264_NAL_SEI) supplement(unit);
    if (type == GST_H264_NAL_PPS) {
      GstH264PPS pps = {};
      if (gst_h264_parser_parse_pps(parser_.get(), &unit, &pps) == GST_H264_PARSER_OK) {
        gst_h264_pps_clear(&pps);
      }
    }
  }

  void sequence(GstH264NalUnit &unit) {
    GstH264SPS sps = {};
    if (gst_h264_parser_parse_sps(parser_.get(), &unit, &sps) != GST_H264_PARSER_OK) return;
    picture_.sequence_header = true;
    const GstH264VUIParams &vui = sps.vui_parameters;
    const bool timed = sps.vui_parameters_present_flag != 0 && vui.timing_info_present_flag != 0;
    if (timed && vui.time_scale > 0) {
      duration_ = int64_t{90000} * 2 * vui.num_units_in_tick / vui.time_scale;
    }
    gst_h264_sps_clear(&sps);
  }

  void supplement(GstH264NalUnit &unit) {
    GArray *messages = nullptr;
    gst_h264_parser_parse_sei(parser_.get(), &unit, &messages);
    if (messages == nullptr) return;
    for (guint i = 0; i < messages->len; ++i) {
      const auto &message = g_array_index(messages, GstH264SEIMessage, i);
      recovery_ = recovery_ || message.payloadType == GST_H264_SEI_RECOVERY_POINT;
    }
    g_array_free(messages, TRUE);
  }

  void slice(const uint8_t *unit, size_t size) {
    CodeReader codes(unit + 1, size - 1);
    const std::optional<unsigned> first_macroblock = codes.code();
    const std::optional<unsigned> type = codes.code();
    if (!first_macroblock || !type || *type > 9) return;
    const bool intra = *type % 5 == GST_H264_I_SLICE || *type % 5 == GST_H264_SI_SLICE;
    if (!picture_.coded) first_slice(unit, size);
    intra_ = intra && (intra_ || !picture_.coded);
    picture_.coded = true;
    picture_.bidirectional = picture_.bidirectional || *type % 5 == GST_H264_B_SLICE;
    picture_.entry = entry();
  }

  void first_slice(const uint8_t *unit, size_t size) {
    idr_ = nal_type(unit[0]) == GST_H264_NAL_SLICE_IDR;
    announced_ = std::exchange(recovery_, false);
    GstH264NalUnit whole = nal(unit, size);
    GstH264SliceHdr header = {};
    // A header that goes beyond what was collected fails late, behind the fields that count.
    gst_h264_parser_parse_slice_hdr(parser_.get(), &whole, &header, TRUE, TRUE);
    picture_.frame_id = header.frame_num;
    picture_.can_be_second = !idr_;
    if (header.field_pic_flag != 0) {
      picture_.structure = header.bottom_field_flag != 0 ? Picture::Structure::kBottomField
                                                         : Picture::Structure::kTopField;
    }
  }

  Entry entry() const {
    if (intra_) return idr_ || announced_ ? Entry::kClean : Entry::kIntra;
    return announced_ ? Entry::kGradual : Entry::kNone;
  }

  std::unique_ptr<GstH264NalParser, ParserFree> parser_{gst_h264_nal_parser_new()};
  std::array<uint8_t, kPrefix.size() + kLongestUnit> buffer_ = {};
  int64_t duration_ = 0;
  bool announced_ = false;  // of the current picture
  bool idr_ = false;
  bool intra_ = false;
};

}  // namespace

std::unique_ptr<PictureParser> make_h264_parser() { return std::make_unique<H264Parser>(); }

}  // namespace plexa::rec
