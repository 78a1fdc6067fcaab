// media.h - the words that the parts of the recorder have in common.
#ifndef PLEXA_RECORDER_MEDIA_H_
#define PLEXA_RECORDER_MEDIA_H_

#include <cstddef>
#include <cstdint>
#include <optional>

namespace plexa::rec {

inline constexpr size_t kPacketSize = 188;  // ISO/IEC 13818-1 clause 2.4.3.2
inline constexpr uint8_t kSyncByte = 0x47;
inline constexpr unsigned kPids = 8192;
inline constexpr uint16_t kNoPid = 0x1fff;  // the null packets' PID: "there is none"
inline constexpr int64_t kTicksPerMs = 90;  // PTS and DTS count 90 kHz ticks

inline unsigned packet_pid(const uint8_t *packet) {
  return (static_cast<unsigned>(packet[1]) << 8 | packet[2]) & 0x1fffu;
}

// The payload of a transport packet; size 0 when it carries none or its adaptation field is wrong.
struct Payload {
  const uint8_t *data = nullptr;
  size_t size = 0;
};
Payload packet_payload(const uint8_t *packet);
bool packet_starts_unit(const uint8_t *packet);
bool packet_is_damaged(const uint8_t *packet);    // the receiver says so
bool packet_is_scrambled(const uint8_t *packet);  // its payload, that is
unsigned packet_counter(const uint8_t *packet);
bool packet_may_jump(const uint8_t *packet);  // discontinuity_indicator
void make_null_packet(uint8_t *packet);       // stuffing; ISO/IEC 13818-1 clause 2.4.1

// Video coding, with the numbers that the index uses for it.
enum class Codec : uint8_t { kMpeg2 = 0, kH264 = 1, kH265 = 4 };

// What a channel record says about the recorded programme.
struct Channel {
  uint16_t video_pid = kNoPid;
  uint16_t pcr_pid = kNoPid;
  uint32_t audio_pid = kNoPid;
  Codec codec = Codec::kMpeg2;

  bool operator==(const Channel &) const = default;
};

// How well decoding can begin at a picture.
enum class Entry : uint8_t {
  kNone,
  kGradual,  // recovery point or sequence header in front of a predicted picture
  kIntra,    // I-picture that nothing announces
  kClean,    // I-picture made for it: MPEG-2 I, H.264 IDR or I with recovery point, H.265 IRAP
};

// One frame of the video in coding order: a frame picture, or both fields of a frame.
struct Frame {
  Entry entry = Entry::kNone;
  bool sequence_header = false;  // a sequence header or SPS stands in front of it
  bool bidirectional = false;    // a B-picture
  bool cut_off = false;          // nothing follows it: whether it is whole cannot be told
  uint64_t pes_packet = 0;       // number of the packet in which its PES packet begins
  uint64_t last_packet = 0;      // number of the packet that holds its last byte
  std::optional<uint64_t> pts;   // as carried, 33 bits
  std::optional<uint64_t> dts;
  int64_t duration = 0;  // ticks, as the sequence header says; 0: it does not
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_MEDIA_H_
