// h264_fuzz.cpp - any bytes as a coded H.264 picture, as an SPS and as a slice header.
//
// The exported parsers must leave their input as it is; the target checks that.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "gst-plexa/gst_thumbnail_util.h"
#include "gst_thumbnail_internal.h"

namespace {

using Block = plexa::HeapPtr<guint8>;

// A block of exactly size bytes, so that one byte too many is seen.
Block exact_copy(const uint8_t *data, size_t size) {
  Block block(static_cast<guint8 *>(std::calloc(size, 1)));
  if (size != 0) std::memcpy(block.get(), data, size);
  return block;
}

void check_unchanged(const Block &block, const uint8_t *data, size_t size) {
  if (size != 0 && std::memcmp(block.get(), data, size) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const Block block = exact_copy(data, size);
  const guint32 length = static_cast<guint32>(size);

  const gint32 field = plexa::h264_parser_field_encoding(block.get(), length);
  if (field != 0 && field != 1) std::abort();
  check_unchanged(block, data, size);

  gint32 frame_mbs_only_flag = -1;
  gint32 frame_num_width = -1;
  h264_decode_sps_ex(block.get(), length, &frame_mbs_only_flag, &frame_num_width);
  if (frame_mbs_only_flag != 0 && frame_mbs_only_flag != 1) std::abort();
  check_unchanged(block, data, size);

  const gint32 slice = h264_decode_slice_header_ex(block.get(), length, 0, frame_num_width);
  if (slice != 0 && slice != 1) std::abort();
  check_unchanged(block, data, size);

  guint32 left = length;
  plexa::de_emulation_prevention(block.get(), &left);
  if (left > length) std::abort();
  return 0;
}
