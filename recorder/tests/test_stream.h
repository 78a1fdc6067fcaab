// test_stream.h - small transport streams with real headers, for the recorder's tests.
//
//   TestStream stream(Codec::kH264);
//   stream.tables();                       // PAT and PMT
//   stream.gop(4);                         // I, P, P, P: 40 ms each
//   record(stream.bytes());
//
// Pictures have valid headers and meaningless contents. What a test wants to know about them (the
// packet in which an I-picture begins, the packets that it takes, its PTS) is kept in entries().
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "media.h"
#include "ts_builder.h"

namespace plexa_test {

using plexa::rec::Codec;

enum class Field { kNone, kTop, kBottom };

struct TestPicture {
  char type = 'I';              // I, P or B
  bool headers = true;          // sequence header or parameter sets in front of an I
  bool idr = true;              // H.264: an I is an IDR picture; H.265: IDR, else CRA
  bool recovery_point = false;  // H.264, H.265: message in front
  bool delimiter = true;        // H.264: access unit delimiter
  Field field = Field::kNone;
  unsigned number = 0;  // temporal reference, frame number
  size_t size = 600;    // bytes of picture data, at least
  unsigned slices = 1;
  std::optional<char> last_slice_type = {};  // H.264: type of the last slice when it differs
};

// The elementary stream of a picture.
Bytes coded_picture(Codec codec, const TestPicture &picture, bool field_coding = false);

// A section with its CRC, and the packets that carry it.
Bytes with_crc(Bytes section);
Bytes section_packets(uint16_t pid, const Bytes &section, uint8_t first_counter = 0);

struct PatEntry {
  uint16_t programme;
  uint16_t pid;
};
Bytes pat_section(const std::vector<PatEntry> &entries, uint8_t version = 0, bool current = true,
                  uint8_t number = 0, uint8_t last = 0);

struct PmtEntry {
  uint8_t stream_type;
  uint16_t pid;
  Bytes descriptors = {};
};
Bytes pmt_section(uint16_t programme, uint16_t pcr_pid, const std::vector<PmtEntry> &entries,
                  uint8_t version = 0, bool current = true);

uint8_t stream_type(Codec codec);

class TestStream {
 public:
  struct Entry {
    uint64_t packet;       // where its PES packet begins
    uint64_t last_packet;  // where it ends
    uint64_t pts;
  };

  explicit TestStream(Codec codec = Codec::kMpeg2) : codec_(codec) {}

  // What follows is made like this.
  uint16_t programme = 1;
  uint16_t pmt_pid = 0x20;
  uint16_t video_pid = 0x100;
  uint16_t audio_pid = 0x101;
  uint64_t pts = 90000;       // of the next picture in presentation order
  uint64_t duration = 3600;   // of a picture
  bool field_coding = false;  // H.264: the sequence may have fields
  uint8_t scrambling = 0;     // of video packets
  bool stamps = true;         // PES packets carry time stamps
  unsigned interleave = 0;    // a foreign packet after every so many video packets; 0: none
  uint8_t table_version = 0;

  void codec(Codec codec) { codec_ = codec; }
  TestStream &tables();
  TestStream &packets(const Bytes &packets);
  TestStream &foreign(unsigned count = 1);
  // A PES packet with these bytes of video. The result is the number of its first packet.
  uint64_t pes_packet(const Bytes &video, std::optional<uint64_t> stamp,
                      std::optional<uint64_t> decode_stamp = {});
  // One picture in a PES packet of its own, shown `shown` durations after `pts`; `pts` stays.
  TestStream &picture(const TestPicture &picture, int shown);
  // I and then P-pictures, in the order in which they are shown.
  TestStream &gop(unsigned pictures, const TestPicture &first = {});

  uint64_t count() const { return bytes_.size() / kPacketSize; }
  const Bytes &bytes() const { return bytes_; }
  const std::vector<Entry> &entries() const { return entries_; }

 private:
  Codec codec_;
  Bytes bytes_;
  std::vector<Entry> entries_;
  uint8_t video_counter_ = 0;
  uint8_t table_counter_ = 0;
};

// The same packets, 192 bytes apart (four in front of each) or 204 (sixteen behind each).
Bytes as_192(const Bytes &packets);
Bytes as_204(const Bytes &packets);

}  // namespace plexa_test
