// video_scanner.h - follows the packets of one video PID and reports its frames.
//
// Every byte of the video is looked at, so that nothing depends on how a multiplexer cuts it: a PES
// packet may hold one picture, several, or a field; headers may lie across packets. The scanner
// keeps only the first bytes of the unit that it is in, never a picture. Damaged, scrambled and
// repeated packets are passed over. One object serves one thread.
#ifndef PLEXA_RECORDER_VIDEO_SCANNER_H_
#define PLEXA_RECORDER_VIDEO_SCANNER_H_

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "media.h"
#include "picture_parser.h"

namespace plexa::rec {

struct ScannerCounts {
  uint64_t clear = 0;  // packets with video
  uint64_t scrambled = 0;
  uint64_t continuity_errors = 0;
};

class VideoScanner {
 public:
  // `sink` receives the frames in coding order, each when the next one has begun.
  using Sink = std::function<void(const Frame &)>;
  VideoScanner(Codec codec, Sink sink);

  // A packet of the video PID, whole, and its number in the recording.
  void packet(const uint8_t *packet, uint64_t number);
  // The video ends here: report what is under way.
  void finish();

  const ScannerCounts &counts() const { return counts_; }

 private:
  struct Pes {
    uint64_t serial = 0;  // 0: none has begun
    uint64_t packet = 0;
    std::optional<uint64_t> pts;
    std::optional<uint64_t> dts;
  };
  // Where a unit begins.
  struct Place {
    uint64_t packet_before = 0;  // the last packet with anything in front of the unit
    Pes pes;
  };

  bool in_sequence(const uint8_t *packet, Payload payload);
  void take_announcement(const uint8_t *packet);
  void pass_over_scrambled();
  void lose();
  void begin_pes(uint64_t number);
  Payload pes_header(Payload payload);
  void read_time_stamps();
  void video(Payload payload, uint64_t number);
  size_t straddling_start_code(Payload payload);
  void begin_unit(uint8_t first_byte, uint64_t packet_before);
  void collect(const uint8_t *data, size_t size);
  void end_unit(size_t excess);
  void judge(bool complete);
  bool opens_picture() const;
  void begin_picture();
  void finish_picture(uint64_t last_packet);
  void report(const Picture &picture, const Frame &frame);

  Sink sink_;
  std::unique_ptr<PictureParser> parser_;
  ScannerCounts counts_;

  std::optional<unsigned> counter_;
  bool in_pes_ = false;  // inside the payload of a PES packet
  bool in_header_ = false;
  bool pes_scrambled_ = false;  // inside a PES packet that says so of itself
  std::vector<uint8_t> header_;
  Pes pes_;
  uint64_t last_packet_ = 0;  // the last packet with video

  uint32_t window_ = 0xffffffff;  // the last four bytes of the video
  std::array<uint8_t, PictureParser::kLongestUnit> unit_ = {};
  size_t unit_size_ = 0;
  size_t unit_wanted_ = 0;  // 0: not collecting
  Place unit_place_;

  bool in_picture_ = false;
  bool ending_ = false;
  bool lost_ = false;  // packets were lost since the picture began
  Place picture_place_;
  uint64_t stamped_pes_ = 0;  // serial of the PES packet whose time stamps have been given away

  std::optional<Picture> held_picture_;  // a first field that waits for its second
  Frame held_;
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_VIDEO_SCANNER_H_
