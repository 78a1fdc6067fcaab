// ts_to_es_fuzz.cpp - any bytes as the transport packets of an I-frame.
//
// The first three bytes choose the codec and the video PID; the rest is the stretch of stream. A
// picture that comes out must fit into its packets and end where its block ends.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "gst_thumbnail_internal.h"

namespace {

constexpr size_t kSelectors = 3;

// Every byte of the picture is read, so that a size too large is seen.
void check_picture(const plexa::VideoPackets &video, const guint8 *es, guint32 size) {
  if (size == 0 || size > static_cast<guint32>(video.count) * 184) std::abort();
  volatile guint8 sum = 0;
  for (guint32 i = 0; i < size; ++i) sum = static_cast<guint8>(sum + es[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < kSelectors) return 0;
  const gint32 codec = data[0] % 6 - 1;
  const guint16 pid = static_cast<guint16>((data[1] << 8 | data[2]) & 0x1fff);
  const size_t length = size - kSelectors;
  const plexa::HeapPtr<guint8> ts(static_cast<guint8 *>(std::malloc(length == 0 ? 1 : length)));
  if (length != 0) std::memcpy(ts.get(), data + kSelectors, length);

  plexa::VideoPackets video;
  if (!plexa::_gst_thumbnail_filter_video_packets(ts.get(), static_cast<gint32>(length), pid,
                                                  video)) {
    return 0;
  }
  if (static_cast<size_t>(video.count) > length / plexa::kTsPacketSize) std::abort();
  guint8 *es = nullptr;
  guint32 es_size = 0;
  if (plexa::_gst_thumbnail_get_iframe_es(video, codec, &es, &es_size) == 1) {
    check_picture(video, es, es_size);
    std::free(es);
  } else if (es != nullptr || es_size != 0) {
    std::abort();
  }
  return 0;
}
