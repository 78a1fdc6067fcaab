// gst_index_legacy_test.cpp - legacy records become current ones, byte by byte.
#include <gmock/gmock.h>

#include <cstring>
#include <memory>
#include <numeric>
#include <vector>

#include "gst-plexa/gst_index_parser.h"
#include "log_capture.h"

namespace plexa_test {
namespace {

using Bytes = std::vector<uint8_t>;

template <class Record>
Bytes bytes_of(const Record &record) {
  Bytes bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

// Byte i is i + 1: every byte tells where it came from, and none is what the target held.
template <class Record>
Record counting() {
  Bytes bytes(sizeof(Record));
  std::iota(bytes.begin(), bytes.end(), uint8_t{1});
  Record record;
  std::memcpy(&record, bytes.data(), sizeof record);
  return record;
}

template <class Record>
Record filled(int value) {
  Record record;
  std::memset(&record, value, sizeof record);
  return record;
}

Bytes range(int first, int last) {
  Bytes bytes;
  for (int i = first; i <= last; ++i) bytes.push_back(static_cast<uint8_t>(i + 1));
  return bytes;
}

struct Move {
  size_t from;
  size_t width;
  size_t to;
};

// The target after these moves, everything else as it was.
Bytes moved(const Bytes &source, Bytes target, const std::vector<Move> &moves) {
  for (const Move &move : moves) {
    std::memcpy(target.data() + move.to, source.data() + move.from, move.width);
  }
  return target;
}

class LegacyTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::clear(); }
};

TEST_F(LegacyTest, GopKeepsItsOffsetsUpToByte95) {
  const auto pelko = counting<pvr_pelko_gop_info_s>();
  auto nolva = filled<pvr_gop_info_s>(0xEE);
  gst_index_parser_convert_pelko_gop_info_to_nolva(&pelko, &nolva);
  Bytes expected = range(0, 95);
  expected.resize(104, 0xEE);
  expected[74] = 1;     // a flag, whatever the legacy value
  expected[75] = 0xEE;  // padding, not written
  EXPECT_EQ(bytes_of(nolva), expected);
}

TEST_F(LegacyTest, AnySequenceHeaderMarkButZeroIsOne) {
  for (const int mark : {0, 1, 2, 0x80, 0xFF}) {
    auto pelko = filled<pvr_pelko_gop_info_s>(0);
    pelko.exist_seq_header = static_cast<guint8>(mark);
    auto nolva = filled<pvr_gop_info_s>(0xEE);
    gst_index_parser_convert_pelko_gop_info_to_nolva(&pelko, &nolva);
    EXPECT_EQ(nolva.exist_seq_header, mark != 0) << mark;
  }
}

TEST_F(LegacyTest, GopIsTold) {
  pvr_pelko_gop_info_s pelko{};
  pelko.pts = 1;
  pelko.time_code = 2;
  pelko.packet_count = 3;
  pelko.iframe_size = 4;
  pelko.last_frame_time = 5;
  pelko.last_frame_packet_count = 6;
  pelko.index_of_channel = 7;
  pelko.exist_seq_header = 8;
  pelko.next_gop_first_time = 9;
  pelko.next_gop_first_packet_count = 10;
  pelko.next_gop_pts = 11;
  pvr_gop_info_s nolva{};
  gst_index_parser_convert_pelko_gop_info_to_nolva(&pelko, &nolva);
  EXPECT_LOGGED(kInfo,
                "[EXT_PAR] pts = [1], time_code = [2], packet_count = [3], iframe_size = [4], "
                "last_frame_time = [5]\nlast_frame_packet_count = [6], index_of_channel = [7], "
                "exist_seq_header = [1], next_gop_first_time = [9], next_gop_first_packet_count = "
                "[10], next_gop_pts = [11]");
}

TEST_F(LegacyTest, ChannelFieldsMoveToTheirPlaces) {
  const auto pelko = counting<pvr_pelko_channel_info_s>();
  auto nolva = filled<pvr_channel_info_s>(0xEE);
  gst_index_parser_convert_pelko_channel_info_to_nolva(&pelko, &nolva);
  Bytes expected = moved(
      bytes_of(pelko), Bytes(232, 0xEE),
      {{0, 4, 0},     {4, 2, 4},     {6, 2, 6},     {8, 2, 10},    {10, 2, 8},    {12, 2, 12},
       {14, 2, 14},   {16, 128, 16}, {144, 4, 144}, {148, 4, 156}, {152, 4, 160}, {156, 4, 148},
       {160, 4, 164}, {164, 4, 152}, {168, 4, 168}, {172, 2, 172}, {174, 2, 174}, {176, 1, 176},
       {177, 1, 177}, {180, 2, 178}, {182, 2, 180}, {210, 1, 184}});
  expected[185] = expected[186] = expected[187] = 0;
  EXPECT_EQ(bytes_of(nolva), expected);
}

TEST_F(LegacyTest, ThirdAndFourthHalfwordChangePlaces) {
  pvr_pelko_channel_info_s pelko{};
  pelko.carried_4[2] = 1;
  pelko.carried_4[3] = 2;
  pvr_channel_info_s nolva{};
  gst_index_parser_convert_pelko_channel_info_to_nolva(&pelko, &nolva);
  EXPECT_EQ(nolva.carried_4[2], 2);
  EXPECT_EQ(nolva.carried_4[3], 1);
}

TEST_F(LegacyTest, LastByteIsWidenedWithZeros) {
  auto pelko = filled<pvr_pelko_channel_info_s>(0xFF);
  pelko.carried_210 = 0xAB;
  auto nolva = filled<pvr_channel_info_s>(0xEE);
  gst_index_parser_convert_pelko_channel_info_to_nolva(&pelko, &nolva);
  EXPECT_EQ(nolva.carried_184, 0x000000ABu);
}

TEST_F(LegacyTest, ChannelIsTold) {
  pvr_pelko_channel_info_s pelko{};
  pelko.video_pid = 1;
  pelko.audio_pid = 2;
  pelko.pcr_pid = 3;
  pelko.video_encode_type = 4;
  pvr_channel_info_s nolva{};
  gst_index_parser_convert_pelko_channel_info_to_nolva(&pelko, &nolva);
  EXPECT_LOGGED(kInfo,
                "[EXT_PAR] channel info: video_pid = [1], audio_pid = [2], pcr_pid = [3], "
                "video_encode_type = [4]");
}

TEST_F(LegacyTest, MissingRecordIsNoCrash) {
  const auto pelko_gop = counting<pvr_pelko_gop_info_s>();
  auto nolva_gop = filled<pvr_gop_info_s>(0xEE);
  gst_index_parser_convert_pelko_gop_info_to_nolva(nullptr, &nolva_gop);
  gst_index_parser_convert_pelko_gop_info_to_nolva(&pelko_gop, nullptr);
  EXPECT_EQ(bytes_of(nolva_gop), Bytes(104, 0xEE));
  const auto pelko_channel = counting<pvr_pelko_channel_info_s>();
  auto nolva_channel = filled<pvr_channel_info_s>(0xEE);
  gst_index_parser_convert_pelko_channel_info_to_nolva(nullptr, &nolva_channel);
  gst_index_parser_convert_pelko_channel_info_to_nolva(&pelko_channel, nullptr);
  EXPECT_EQ(bytes_of(nolva_channel), Bytes(232, 0xEE));
  EXPECT_TRUE(LogCapture::messages().empty());
}

// A record that starts anywhere and ends at the end of its memory: the sanitizer build watches.
TEST_F(LegacyTest, RecordsNeedNoAlignmentAndNoByteBehindThem) {
  const auto block = std::make_unique<uint8_t[]>(sizeof(pvr_pelko_gop_info_s) + 1);
  const auto record = counting<pvr_pelko_gop_info_s>();
  std::memcpy(block.get() + 1, &record, sizeof record);
  const auto *pelko = reinterpret_cast<const pvr_pelko_gop_info_s *>(block.get() + 1);
  const auto nolva = std::make_unique<pvr_gop_info_s>();
  gst_index_parser_convert_pelko_gop_info_to_nolva(pelko, nolva.get());
  EXPECT_EQ(nolva->time_code, 0x100F0E0Du);
}

}  // namespace
}  // namespace plexa_test
