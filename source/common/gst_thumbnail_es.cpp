// gst_thumbnail_es.cpp - from the transport packets of an I-frame to its coded picture.
//
// ISO/IEC 13818-1 clause 2.4.3: the packet header, the adaptation field and the PES header go, the
// payload stays. The packets are a recording's content and may be anything: a packet whose lengths
// do not fit is logged and left out. A picture is written once, straight from the bytes as they
// were read into the block that the caller gets. No state: any thread may call.
#include <algorithm>
#include <cstring>

#include "gst_thumbnail_internal.h"

#define PLEXA_LOG_AREA "EXT_THM"
#include "plexa_log.h"

namespace plexa {
namespace {

constexpr guint32 kHeaderSize = 4;
constexpr guint32 kMaxPayload = kTsPacketSize - kHeaderSize;
constexpr guint32 kPesHeaderSize = 9;  // up to and with the header data length
constexpr guint32 kMaxPesStarts = 2;

guint32 _pid(const guint8 *packet) { return (packet[1] & 0x1fu) << 8 | packet[2]; }
bool _is_unit_start(const guint8 *packet) { return (packet[1] & 0x40) != 0; }
bool _has_adaptation_field(const guint8 *packet) { return (packet[3] & 0x20) != 0; }

bool _is_plain(const guint8 *packet) {
  return !_is_unit_start(packet) && !_has_adaptation_field(packet);
}

// A heap block of at least one byte, so that null always means that there was no memory.
void *_allocate(size_t size) { return std::malloc(std::max<size_t>(size, 1)); }

// The elementary stream of a picture while it grows.
class Collector {
 public:
  Collector(guint8 *es, gint32 codec) : es_(es), codec_(codec) {}

  // False: the picture is complete, and the packet is not part of it.
  bool take(const guint8 *packet) {
    if (!_is_unit_start(packet)) {
      _take_continuation(packet);
      return true;
    }
    if (!_wants_another_unit()) return false;
    ++pes_starts_;
    _take_unit_start(packet);
    return true;
  }

  // Takes packets that are payload from header to end, as most are, up to the first other one; the
  // number of packets taken. A length known beforehand becomes wide moves in place of a call.
  gint32 take_plain(const guint8 *const *packets, gint32 count) {
    guint8 *to = es_ + size_;
    gint32 taken = 0;
    for (; taken < count && _is_plain(packets[taken]); ++taken) {
      const guint8 *const from = packets[taken] + kHeaderSize;
      std::memcpy(to, from, 64);
      std::memcpy(to + 64, from + 64, 64);
      std::memcpy(to + 128, from + 128, kMaxPayload - 128);
      to += kMaxPayload;
    }
    size_ += static_cast<guint32>(taken) * kMaxPayload;
    return taken;
  }

  guint32 size() const { return size_; }

 private:
  void _append(const guint8 *bytes, guint32 size) {
    std::memcpy(es_ + size_, bytes, size);
    size_ += size;
  }

  // Bytes of the adaptation field with its length byte, in 8 bits: a length of 255 makes 0, and
  // such a packet is read as if it had no adaptation field. False when it leaves no room in the
  // packet.
  static bool _adaptation_size(const guint8 *packet, guint32 *size) {
    *size = 0;
    if (!_has_adaptation_field(packet)) return true;
    const guint8 length = packet[kHeaderSize];
    *size = static_cast<guint8>(length + 1);
    return *size <= kMaxPayload;
  }

  void _take_continuation(const guint8 *packet) {
    guint32 adaptation;
    if (!_adaptation_size(packet, &adaptation)) {
      PLX_ERROR("[PLG_ERR] adapt_len > (PVRSYS_TS_PACKET_SIZE - 4) for es");
      return;
    }
    _append(packet + kHeaderSize + adaptation, kMaxPayload - adaptation);
  }

  void _take_unit_start(const guint8 *packet) {
    guint32 adaptation;
    if (!_adaptation_size(packet, &adaptation)) {
      PLX_ERROR("[PLG_ERR] adapt_len > (PVRSYS_TS_PACKET_SIZE - 4) for pes");
      return;
    }
    const guint8 *const pes = packet + kHeaderSize + adaptation;
    const guint32 payload = kMaxPayload - adaptation;
    // The header data length lies in the header's last byte, which must be there to be read.
    if (payload < kPesHeaderSize || payload - kPesHeaderSize < pes[kPesHeaderSize - 1]) {
      PLX_ERROR("[PLG_ERR] header_size > (PVRSYS_TS_PACKET_SIZE - 4 - adapt_len) for pes");
      return;
    }
    const guint32 header = kPesHeaderSize + pes[kPesHeaderSize - 1];
    _append(pes + header, payload - header);
  }

  // Asked at each PES start.
  bool _wants_another_unit() const {
    if (pes_starts_ >= kMaxPesStarts) {
      PLX_INFO(
          "already got beginning 2 es(some times I-field + I-field, or I-filed + P-field), just "
          "break!");
      return false;
    }
    return pes_starts_ != 1 || codec_ != kCodeH264 || _is_first_of_two_fields();
  }

  bool _is_first_of_two_fields() const {
    PLX_INFO("h264(%d) frame/field encoding check", codec_);
    if (h264_parser_field_encoding(es_, size_) == 1) {
      PLX_INFO("H264 Field picture!! Output 2 field picture combined!!");
      return true;
    }
    PLX_INFO("H264 Frame picture!! Output 1 picture only!!");
    return false;
  }

  guint8 *es_;  // room for all packets
  gint32 codec_;
  guint32 size_ = 0;
  guint32 pes_starts_ = 0;
};

guint32 _collect(const VideoPackets &video, gint32 codec, guint8 *es) {
  Collector collector(es, codec);
  const guint8 *const *const packets = video.packets.get();
  gint32 next = 0;
  while (next < video.count && collector.take(packets[next])) {
    ++next;
    next += collector.take_plain(packets + next, video.count - next);
  }
  return collector.size();
}

}  // namespace

// A list of packets instead of a second copy of them: the extraction reads each packet once, from
// where it was read to.
bool _gst_thumbnail_filter_video_packets(const guint8 *ts, gint32 length, guint16 video_pid,
                                         VideoPackets &out) {
  const gint32 packet_count = std::max(length, 0) / static_cast<gint32>(kTsPacketSize);
  const size_t count = static_cast<size_t>(packet_count);
  out.count = 0;
  out.packets.reset(static_cast<const guint8 **>(_allocate(count * sizeof(const guint8 *))));
  if (!out.packets) {
    PLX_ERROR("[PLG_ERR] video_buf is NULL");
    return false;
  }
  for (size_t i = 0; i < count; ++i) {
    const guint8 *const packet = ts + i * kTsPacketSize;
    out.packets[static_cast<size_t>(out.count)] = packet;  // overwritten unless it is counted
    out.count += _pid(packet) == video_pid ? 1 : 0;
  }
  PLX_INFO("packet_count = [%d], video_packet_count = [%d], ts_size = [%d]", packet_count,
           out.count, out.ts_size());
  return true;
}

gint32 _gst_thumbnail_get_iframe_es(const VideoPackets &video, gint32 codec, guint8 **es_buf,
                                    guint32 *es_size) {
  PLX_INFO("[IN]ts size = [%d]", video.ts_size());
  // Room for the payloads alone, close to the picture's own size. A block of a page more than that
  // would be given back in part below, and malloc, which learns from the blocks it is handed back
  // how large a block it should keep, would never learn this one: every picture of over 128 KB
  // would come as fresh pages from the system.
  const size_t room = static_cast<size_t>(video.count) * kMaxPayload;
  HeapPtr<guint8> es(static_cast<guint8 *>(_allocate(room)));
  if (!es) {
    PLX_ERROR("[PLG_ERR] es_temp_buf is NULL");
    return 0;
  }
  if (video.count == 0) {
    PLX_INFO("[OUT]es size = [%u]", 0u);
    return 0;
  }
  const guint32 size = _collect(video, codec, es.get());
  if (size == 0) {
    PLX_ERROR("[PLG_ERR] wrong es size[%u]", size);
    return 0;
  }
  // Given back to its exact size where it lies, which spares a second copy.
  auto *const exact = static_cast<guint8 *>(std::realloc(es.get(), size));
  if (exact == nullptr) {
    PLX_ERROR("[PLG_ERR] *es_buf is NULL");
    return 0;
  }
  static_cast<void>(es.release());  // realloc has taken it over
  PLX_INFO("[OUT]es size = [%u]", size);
  *es_buf = exact;
  *es_size = size;
  return 1;
}

}  // namespace plexa
