// What a recording is: of every kind of input that can be recorded, and of none that cannot.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

#include "recording_fixture.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Bytes three_gops(Codec codec) {
  TestStream stream(codec);
  stream.tables().gop(5).gop(5).gop(5);
  return stream.bytes();
}

// --- every coding

class CodecTest : public RecordingTest, public ::testing::WithParamInterface<Codec> {};

INSTANTIATE_TEST_SUITE_P(Codecs, CodecTest,
                         ::testing::Values(Codec::kMpeg2, Codec::kH264, Codec::kH265),
                         [](const auto &codec) {
                           return codec.param == Codec::kMpeg2  ? "Mpeg2"
                                  : codec.param == Codec::kH264 ? "H264"
                                                                : "H265";
                         });

TEST_P(CodecTest, EveryIPictureBeginsAGop) {
  TestStream stream(GetParam());
  stream.tables().gop(5).foreign(3).gop(4).gop(6);
  const Outcome outcome = record(stream.bytes());
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(is_usable(this->stream()));
  EXPECT_TRUE(lookups_find_every_gop(this->stream()));

  const IndexFile index = index_file();
  ASSERT_EQ(index.gops.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    const TestStream::Entry &entry = stream.entries()[i];
    EXPECT_EQ(index.gops[i].packet_count, entry.packet) << i;
    EXPECT_EQ(index.gops[i].iframe_size, entry.last_packet - entry.packet + 1) << i;
    EXPECT_EQ(index.gops[i].pts, entry.pts) << i;
    EXPECT_EQ(index.gops[i].video_pid, 0x100) << i;
    EXPECT_EQ(index.gops[i].exist_seq_header, 1) << i;
    EXPECT_EQ(index.gops[i].index_of_channel, 0) << i;
  }
  EXPECT_EQ(index.gops[1].time_code, 200u);
  EXPECT_EQ(index.gops[2].time_code, 360u);
  EXPECT_EQ(index.gops[0].last_frame_time, 160u);
  EXPECT_EQ(index.gops[2].last_frame_time, 560u);
  EXPECT_EQ(index.base.end_time_code, 600u);
  EXPECT_EQ(index.gops[2].next_gop_first_packet_count, stream.count());
}

TEST_P(CodecTest, TheStreamFileIsTheInput) {
  const Bytes bytes = three_gops(GetParam());
  ASSERT_TRUE(record(bytes).ok);
  EXPECT_EQ(read_file(stream()), bytes);
}

TEST_P(CodecTest, ThePiecesInWhichAPipeGivesItDoNotMatter) {
  const Bytes bytes = three_gops(GetParam());
  ASSERT_TRUE(record(bytes).ok);
  const Bytes expected = read_file(index());
  for (const size_t piece : {size_t{1}, size_t{187}, size_t{189}, size_t{1000}}) {
    remove_recording();
    const Outcome outcome = record_pipe(bytes, piece);
    ASSERT_TRUE(outcome.ok) << outcome.error;
    EXPECT_EQ(read_file(stream()), bytes) << piece;
    EXPECT_EQ(read_file(index()), expected) << piece;
  }
}

TEST_P(CodecTest, EveryPrefixIsRecordedOrRefusedAndLeavesNothingTorn) {
  const Bytes bytes = three_gops(GetParam());
  for (size_t size = 0; size < bytes.size(); size += 127) {
    remove_recording();
    const Outcome outcome = record(Bytes(bytes.begin(), bytes.begin() + static_cast<long>(size)));
    if (outcome.ok) {
      ASSERT_TRUE(is_usable(stream())) << size;
    } else {
      ASSERT_FALSE(outcome.error.empty()) << size;
      ASSERT_THAT(files(), IsEmpty()) << size;
    }
  }
}

TEST_P(CodecTest, TheChannelRecordSaysWhatIsRecorded) {
  ASSERT_TRUE(record(three_gops(GetParam())).ok);
  pvr_channel_info_s channel{};
  const Bytes bytes = read_file(index());
  std::memcpy(&channel, bytes.data() + 4088, sizeof channel);
  EXPECT_EQ(channel.video_pid, 0x100);
  EXPECT_EQ(channel.audio_pid, 0x101u);
  EXPECT_EQ(channel.pcr_pid, 0x100);
  EXPECT_EQ(channel.video_encode_type, static_cast<guint8>(GetParam()));
}

// --- layouts

TEST_F(RecordingTest, TheCurrentLayoutHasItsSizesAndPlaces) {
  const Outcome outcome = record(three_gops(Codec::kH264));
  ASSERT_TRUE(outcome.ok);
  const IndexFile index = index_file();
  EXPECT_EQ(index.base.mdb_version, 0x20110916u);
  EXPECT_EQ(index.base.channel_info_size, 232u);
  EXPECT_EQ(index.base.gop_start_offset, 954360u);
  EXPECT_EQ(index.base.start_time_code, 0u);
  EXPECT_EQ(index.base.start_packet_count, 0u);
  EXPECT_EQ(read_file(this->index()).size(), 954360u + 3 * 104);
}

TEST_F(RecordingTest, TheLegacyLayoutHasItsSizesAndIsReadAlike) {
  Options options;
  options.layout = Layout::kLegacy;
  TestStream stream(Codec::kH264);
  stream.tables().gop(5);
  stream.video_pid = 0x300;
  stream.table_version = 1;
  stream.tables().gop(5).gop(5);
  ASSERT_TRUE(record(stream.bytes(), options).ok);
  const IndexFile index = index_file();
  EXPECT_EQ(index.base.channel_info_size, 256u);
  EXPECT_EQ(index.base.gop_start_offset, 1052664u);
  EXPECT_EQ(read_file(this->index()).size(), 1052664u + 3 * 100);
  EXPECT_EQ(index.gops[1].index_of_channel, 1);
  EXPECT_TRUE(is_usable(this->stream()));
  EXPECT_TRUE(lookups_find_every_gop(this->stream()));
}

TEST_F(RecordingTest, DirectModeWritesTheSameBytes) {
  TestStream stream(Codec::kMpeg2);
  stream.tables();
  for (int i = 0; i < 120; ++i) stream.gop(12, {.size = 1000});
  Options options;
  options.direct = true;
  const Outcome outcome = record(stream.bytes(), options);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(read_file(this->stream()), stream.bytes());
  EXPECT_TRUE(is_usable(this->stream()));
  EXPECT_EQ(outcome.summary.gops, 120u);
}

// --- packets of other sizes, and what stands between them

TEST_F(RecordingTest, PacketsWithTimeStampsInFrontAreStoredWithoutThem) {
  const Bytes bytes = three_gops(Codec::kMpeg2);
  ASSERT_TRUE(record(as_192(bytes)).ok);
  EXPECT_EQ(read_file(stream()), bytes);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(RecordingTest, PacketsWithErrorCorrectionBehindAreStoredWithoutIt) {
  const Bytes bytes = three_gops(Codec::kMpeg2);
  ASSERT_TRUE(record(as_204(bytes)).ok);
  EXPECT_EQ(read_file(stream()), bytes);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(RecordingTest, GarbageBetweenPacketsIsLeftOut) {
  TestStream stream(Codec::kMpeg2);
  stream.tables().gop(5);
  const Bytes first = stream.bytes();
  stream.gop(5).gop(5);
  const Bytes second(stream.bytes().begin() + static_cast<long>(first.size()),
                     stream.bytes().end());
  const Outcome outcome =
      record(join({repeat(0x11, 77), first, repeat(0x22, 1000), second, repeat(0x33, 50)}));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(read_file(this->stream()), stream.bytes());
  EXPECT_EQ(outcome.summary.resyncs, 2u);
  EXPECT_EQ(index_file().gops.size(), 3u);
}

// --- programmes

TEST_F(RecordingTest, TheFirstProgrammeWithVideoIsTaken) {
  TestStream stream(Codec::kH264);
  stream.packets(section_packets(0, pat_section({{7, 0x30}, {8, 0x31}, {9, 0x32}})));
  stream.packets(section_packets(0x32, pmt_section(9, 0x400, {{0x02, 0x400}})));
  stream.packets(section_packets(0x31, pmt_section(8, 0x100, {{0x1b, 0x100}})));
  stream.packets(section_packets(0x30, pmt_section(7, 0x500, {{0x03, 0x500}})));
  stream.gop(5).gop(5);
  ASSERT_TRUE(record(stream.bytes()).ok);
  EXPECT_EQ(index_file().gops[0].video_pid, 0x100);
}

TEST_F(RecordingTest, TheProgrammeAskedForIsTaken) {
  TestStream stream(Codec::kH264);
  stream.packets(section_packets(0, pat_section({{7, 0x30}, {8, 0x31}})));
  stream.packets(section_packets(0x30, pmt_section(7, 0x400, {{0x1b, 0x400}})));
  stream.packets(section_packets(0x31, pmt_section(8, 0x100, {{0x1b, 0x100}})));
  stream.video_pid = 0x400;
  stream.gop(3);
  stream.video_pid = 0x100;
  stream.gop(5).gop(5);
  Options options;
  options.program = 8;
  ASSERT_TRUE(record(stream.bytes(), options).ok);
  const IndexFile index = index_file();
  EXPECT_EQ(index.gops[0].video_pid, 0x100);
  EXPECT_EQ(index.gops[0].packet_count, stream.entries()[1].packet);
}

TEST_F(RecordingTest, PicturesInFrontOfTheTablesAreIndexed) {
  TestStream stream(Codec::kH264);
  stream.gop(3).tables().gop(5);
  ASSERT_TRUE(record(stream.bytes()).ok);
  EXPECT_EQ(index_file().gops[0].packet_count, stream.entries()[0].packet);
}

TEST_F(RecordingTest, AMapThatDoesNotComeKeepsALaterProgrammeWaitingButNotForEver) {
  TestStream stream(Codec::kH264);
  stream.packets(section_packets(0, pat_section({{7, 0x30}, {8, 0x31}})));
  stream.packets(section_packets(0x31, pmt_section(8, 0x100, {{0x1b, 0x100}})));
  stream.gop(5).foreign(10500).gop(5);
  ASSERT_TRUE(record(stream.bytes()).ok);
  EXPECT_EQ(index_file().gops.size(), 2u);
}

// --- changes in mid-stream

TEST_F(RecordingTest, AChangeOfPidMakesANewChannelRecord) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5);
  stream.video_pid = 0x300;
  stream.audio_pid = 0x301;
  stream.table_version = 1;
  stream.tables().gop(5).gop(5);
  const Outcome outcome = record(stream.bytes());
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.channels, 2u);
  const IndexFile index = index_file();
  ASSERT_EQ(index.gops.size(), 3u);
  EXPECT_EQ(index.gops[0].index_of_channel, 0);
  EXPECT_EQ(index.gops[1].index_of_channel, 1);
  EXPECT_EQ(index.gops[1].video_pid, 0x300);
  EXPECT_EQ(index.gops[2].index_of_channel, 1);
  EXPECT_TRUE(lookups_find_every_gop(this->stream()));
  EXPECT_TRUE(is_usable(this->stream()));
}

TEST_F(RecordingTest, AChangeOfCodingMakesANewChannelRecord) {
  TestStream stream(Codec::kMpeg2);
  stream.tables().gop(5);
  stream.codec(Codec::kH264);
  stream.table_version = 1;
  stream.tables().gop(5).gop(5);
  ASSERT_TRUE(record(stream.bytes()).ok);
  const IndexFile index = index_file();
  ASSERT_EQ(index.gops.size(), 3u);
  EXPECT_EQ(index.gops[0].index_of_channel, 0);
  EXPECT_EQ(index.gops[2].index_of_channel, 1);
  EXPECT_TRUE(is_usable(this->stream()));
}

TEST_F(RecordingTest, AChangeOfTheAudioAloneMakesANewChannelRecordAndLosesNoGop) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5);
  stream.audio_pid = 0x555;
  stream.table_version = 1;
  stream.tables().gop(5).gop(5);
  const Outcome outcome = record(stream.bytes());
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.channels, 2u);
  ASSERT_EQ(index_file().gops.size(), 3u);
  EXPECT_EQ(index_file().gops[1].index_of_channel, 1);
}

TEST_F(RecordingTest, AChannelThatComesBackHasItsOldRecord) {
  TestStream stream(Codec::kH264);
  for (int i = 0; i < 4; ++i) {
    stream.video_pid = i % 2 == 0 ? 0x100 : 0x300;
    stream.table_version = static_cast<uint8_t>(i);
    stream.tables().gop(5);
  }
  const Outcome outcome = record(stream.bytes());
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.channels, 2u);
  EXPECT_EQ(index_file().gops[2].index_of_channel, 0);
  EXPECT_EQ(index_file().gops[3].index_of_channel, 1);
}

TEST_F(RecordingTest, AnotherProgrammeIsFollowedWhenTheFirstIsGone) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5);
  stream.programme = 99;
  stream.pmt_pid = 0x44;
  stream.video_pid = 0x300;
  stream.table_version = 1;
  stream.tables().gop(5);
  ASSERT_TRUE(record(stream.bytes()).ok);
  ASSERT_EQ(index_file().gops.size(), 2u);
  EXPECT_EQ(index_file().gops[1].video_pid, 0x300);
}

TEST_F(RecordingTest, AProgrammeThatComesBackOnTheSamePidIsFollowedAgain) {
  // Three recordings behind each other, the third one with the tables of the first.
  TestStream stream(Codec::kH264);
  stream.tables().gop(5).gop(5);
  stream.programme = 2;
  stream.video_pid = 0x200;
  stream.tables().gop(5).gop(5);
  stream.programme = 1;
  stream.video_pid = 0x100;
  stream.tables().gop(5).gop(5);
  ASSERT_TRUE(record(stream.bytes()).ok);
  const IndexFile index = index_file();
  ASSERT_EQ(index.gops.size(), 6u);
  EXPECT_EQ(index.gops[2].video_pid, 0x200);
  EXPECT_EQ(index.gops[4].video_pid, 0x100);
  EXPECT_EQ(index.gops[4].index_of_channel, 0);
}

TEST_F(RecordingTest, ANewVideoIsIndexedByWhatItOffersFromItsFirstPictureOn) {
  // Behind MPEG-2, whose I-pictures are clean, H.264 that announces none of its I-pictures.
  TestStream stream(Codec::kMpeg2);
  stream.tables().gop(5).gop(5);
  stream.codec(Codec::kH264);
  stream.table_version = 1;
  stream.tables().gop(5, {.idr = false}).gop(5, {.idr = false});
  ASSERT_TRUE(record(stream.bytes()).ok);
  const IndexFile index = index_file();
  ASSERT_EQ(index.gops.size(), 4u);
  EXPECT_EQ(index.gops[1].index_of_channel, 0);
  EXPECT_EQ(index.gops[2].index_of_channel, 1);
  EXPECT_TRUE(is_usable(this->stream()));
}

// --- time

TEST_F(RecordingTest, TheClockGoesOnWhereTimeStampsWrap) {
  TestStream stream(Codec::kH264);
  stream.pts = (uint64_t{1} << 33) - 7 * 3600;
  stream.tables().gop(5).gop(5).gop(5);
  const Outcome outcome = record(stream.bytes());
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.discontinuities, 0u);
  EXPECT_EQ(index_file().gops[1].time_code, 200u);
  EXPECT_EQ(index_file().gops[2].time_code, 400u);
  EXPECT_LT(index_file().gops[2].pts, index_file().gops[0].pts);
  EXPECT_EQ(outcome.summary.duration_ms, 600u);
}

TEST_F(RecordingTest, AJumpOfTheTimeStampsIsPassedOver) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5);
  stream.pts += 90000 * 3600;
  stream.gop(5);
  stream.pts = 12345;
  stream.gop(5);
  const Outcome outcome = record(stream.bytes());
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.discontinuities, 2u);
  EXPECT_EQ(index_file().gops[1].time_code, 200u);
  EXPECT_EQ(index_file().gops[2].time_code, 400u);
  EXPECT_EQ(index_file().gops[2].pts, 12345u);
  EXPECT_TRUE(is_usable(this->stream()));
}

TEST_F(RecordingTest, LeadingPicturesOfAnOpenGopBelongToIt) {
  TestStream stream(Codec::kMpeg2);
  stream.tables();
  // Shown: B B I, B B P. Coded: I B B P B B.
  for (int gop = 0; gop < 3; ++gop) {
    stream.picture({.type = 'I', .number = 2}, 2);
    stream.picture({.type = 'B', .number = 0}, 0);
    stream.picture({.type = 'B', .number = 1}, 1);
    stream.picture({.type = 'P', .number = 5}, 5);
    stream.picture({.type = 'B', .number = 3}, 3);
    stream.picture({.type = 'B', .number = 4}, 4);
    stream.pts += 6 * 3600;
  }
  const Outcome outcome = record(stream.bytes());
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.discontinuities, 0u);
  const IndexFile index = index_file();
  ASSERT_EQ(index.gops.size(), 3u);
  EXPECT_EQ(index.gops[1].time_code, 240u);
  EXPECT_EQ(index.gops[0].last_frame_time, 120u);
  EXPECT_EQ(index.gops[0].iframe_size,
            stream.entries()[0].last_packet - stream.entries()[0].packet + 1);
  EXPECT_EQ(index.gops[2].time_code, 480u);
  EXPECT_EQ(index.base.end_time_code, 640u);
  EXPECT_TRUE(is_usable(this->stream()));
}

// --- I-pictures of every shape

TEST_F(RecordingTest, ForeignPacketsWithinTheIPictureCountAsPartOfIt) {
  TestStream stream(Codec::kH264);
  stream.interleave = 1;
  stream.tables().gop(3).gop(3);
  ASSERT_TRUE(record(stream.bytes()).ok);
  const TestStream::Entry &entry = stream.entries()[0];
  EXPECT_EQ(index_file().gops[0].iframe_size, entry.last_packet - entry.packet + 1);
  EXPECT_GT(index_file().gops[0].iframe_size, 5u);
}

TEST_F(RecordingTest, BothFieldsOfAnH264IPictureAreItsLength) {
  TestStream stream(Codec::kH264);
  stream.field_coding = true;
  stream.tables();
  for (int gop = 0; gop < 3; ++gop) {
    stream.picture({.type = 'I', .field = Field::kTop, .number = 0}, 0);
    stream.picture({.type = 'P', .field = Field::kBottom, .number = 0}, 0);
    stream.picture({.type = 'P', .field = Field::kTop, .number = 1}, 1);
    stream.picture({.type = 'P', .field = Field::kBottom, .number = 1}, 1);
    stream.pts += 2 * 3600;
  }
  ASSERT_TRUE(record(stream.bytes()).ok);
  const IndexFile index = index_file();
  ASSERT_EQ(index.gops.size(), 3u);
  const uint64_t one_field = stream.entries()[1].last_packet - stream.entries()[1].packet + 1;
  EXPECT_GT(index.gops[1].iframe_size, one_field);
  EXPECT_LE(index.gops[1].iframe_size, 2 * one_field);
  EXPECT_EQ(index.gops[1].time_code, 80u);
}

TEST_F(RecordingTest, TwoFieldsInOnePesPacketAreOneIPicture) {
  TestStream stream(Codec::kMpeg2);
  stream.tables();
  std::vector<uint64_t> begins;
  for (int gop = 0; gop < 3; ++gop) {
    const Bytes top = coded_picture(Codec::kMpeg2, {.type = 'I', .field = Field::kTop});
    const Bytes bottom = coded_picture(Codec::kMpeg2, {.type = 'P', .field = Field::kBottom});
    begins.push_back(stream.pes_packet(join({top, bottom}), stream.pts));
    begins.push_back(stream.count());
    stream.picture({.type = 'P', .number = 1}, 1);
    stream.pts += 2 * 3600;
  }
  ASSERT_TRUE(record(stream.bytes()).ok);
  const IndexFile index = index_file();
  ASSERT_EQ(index.gops.size(), 3u);
  EXPECT_EQ(index.gops[1].packet_count, begins[2]);
  EXPECT_EQ(index.gops[1].iframe_size, begins[3] - begins[2]);
}

TEST_F(RecordingTest, AGopInOnePesPacketEndsItsIPictureWhereTheNextBegins) {
  TestStream stream(Codec::kMpeg2);
  stream.tables();
  for (int gop = 0; gop < 3; ++gop) {
    Bytes video = coded_picture(Codec::kMpeg2, {.type = 'I'});
    for (unsigned i = 1; i < 5; ++i) {
      video = join({video, coded_picture(Codec::kMpeg2, {.type = 'P', .number = i})});
    }
    stream.pes_packet(video, stream.pts);
    stream.pts += 5 * 3600;
  }
  ASSERT_TRUE(record(stream.bytes()).ok);
  const IndexFile index = index_file();
  ASSERT_EQ(index.gops.size(), 3u);
  const size_t picture = coded_picture(Codec::kMpeg2, {.type = 'I'}).size();
  EXPECT_EQ(index.gops[0].iframe_size, (picture + 14) / 184 + 1);
  EXPECT_EQ(index.gops[1].time_code, 200u);
  EXPECT_EQ(index.gops[0].last_frame_time, 160u);  // without a time stamp of its own
}

TEST_F(RecordingTest, APictureCutOffByTheEndOfTheInputBeginsNoGop) {
  TestStream stream(Codec::kMpeg2);
  stream.tables().gop(5).gop(5).picture({.type = 'I'}, 0);
  ASSERT_TRUE(record(stream.bytes()).ok);
  EXPECT_EQ(index_file().gops.size(), 2u);
  EXPECT_EQ(index_file().gops[1].next_gop_first_packet_count, stream.count());
}

TEST_F(RecordingTest, H264WithoutIdrIsIndexedByItsRecoveryPoints) {
  TestStream stream(Codec::kH264);
  stream.tables();
  for (int i = 0; i < 4; ++i) stream.gop(5, {.idr = false, .recovery_point = true});
  ASSERT_TRUE(record(stream.bytes()).ok);
  EXPECT_EQ(index_file().gops.size(), 4u);
}

TEST_F(RecordingTest, H264WithNothingButIPicturesIsIndexedByThem) {
  TestStream stream(Codec::kH264);
  stream.tables();
  for (int i = 0; i < 4; ++i) stream.gop(5, {.idr = false});
  ASSERT_TRUE(record(stream.bytes()).ok);
  EXPECT_EQ(index_file().gops.size(), 4u);
}

TEST_F(RecordingTest, AnIPictureBetweenIdrPicturesSplitsNoGop) {
  TestStream stream(Codec::kH264);
  stream.tables();
  for (int i = 0; i < 3; ++i) stream.gop(5).gop(5, {.idr = false});
  ASSERT_TRUE(record(stream.bytes()).ok);
  EXPECT_EQ(index_file().gops.size(), 3u);
}

TEST_F(RecordingTest, OneSliceThatIsNotIntraMakesNoIPicture) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(3);
  stream.gop(3, {.idr = false, .recovery_point = true, .slices = 4, .last_slice_type = 'P'});
  stream.gop(3, {.idr = false, .recovery_point = true, .slices = 4});
  ASSERT_TRUE(record(stream.bytes()).ok);
  EXPECT_EQ(index_file().gops.size(), 2u);
}

// --- what is refused

TEST_F(RecordingTest, AnEmptyInputIsRefused) {
  const Outcome outcome = record({});
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "the input is empty");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordingTest, BytesThatAreNoTransportStreamAreRefused) {
  const Outcome outcome = record(counting_bytes(100000));
  EXPECT_EQ(outcome.error, "the input is not an MPEG transport stream");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordingTest, PacketsWithoutAProgrammeTableAreRefused) {
  TestStream stream;
  stream.gop(5).gop(5);
  EXPECT_EQ(record(stream.bytes()).error, "the input has no programme table");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordingTest, AProgrammeWithoutItsMapIsRefused) {
  TestStream stream;
  stream.packets(section_packets(0, pat_section({{1, 0x20}}))).gop(5);
  EXPECT_EQ(record(stream.bytes()).error, "the input has no map of the programme");
}

TEST_F(RecordingTest, AudioAloneIsRefused) {
  TestStream stream;
  stream.packets(section_packets(0, pat_section({{1, 0x20}})));
  stream.packets(section_packets(0x20, pmt_section(1, 0x101, {{0x03, 0x101}}))).foreign(50);
  EXPECT_EQ(record(stream.bytes()).error, "the input has no MPEG-2, H.264 or H.265 video");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordingTest, AProgrammeThatIsNotThereIsRefusedWithThoseThatAre) {
  Options options;
  options.program = 5;
  EXPECT_EQ(record(three_gops(Codec::kMpeg2), options).error,
            "the input has no programme 5 (it has 1)");
}

TEST_F(RecordingTest, ScrambledVideoIsRefused) {
  TestStream stream(Codec::kH264);
  stream.scrambling = 2;
  stream.tables().gop(5).gop(5);
  EXPECT_EQ(record(stream.bytes()).error, "the input is scrambled: the video of programme 1");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordingTest, VideoScrambledInItsPesPacketsIsRefused) {
  TestStream stream(Codec::kH264);
  stream.tables();
  const size_t video = stream.bytes().size();
  stream.gop(5).gop(5);
  Bytes packets = stream.bytes();
  for (size_t at = video; at < packets.size(); at += kPacketSize) {
    if ((packets[at + 1] & 0x40) != 0) packets[at + 4 + 6] |= 0x20;  // PES_scrambling_control
  }
  EXPECT_EQ(record(packets).error, "the input is scrambled: the video of programme 1");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordingTest, AnnouncedVideoThatDoesNotComeIsRefused) {
  TestStream stream;
  stream.tables().foreign(20);
  EXPECT_EQ(record(stream.bytes()).error, "the input announces video in programme 1, but has none");
}

TEST_F(RecordingTest, VideoWithoutAnIPictureIsRefused) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5, {.type = 'P'});
  EXPECT_EQ(record(stream.bytes()).error, "the input has no I-picture in the video of programme 1");
}

TEST_F(RecordingTest, AnInputThatShowsNoIPictureForLongIsRefused) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5, {.type = 'P'});
  Bytes bytes = stream.bytes();
  const Bytes null_packet = ts_packet(0x1fff, {});
  while (bytes.size() < (size_t{65} << 20)) {
    bytes.insert(bytes.end(), null_packet.begin(), null_packet.end());
  }
  const Bytes good = three_gops(Codec::kH264);
  bytes.insert(bytes.end(), good.begin(), good.end());
  bytes.insert(bytes.end(), good.begin(), good.end());
  EXPECT_EQ(record(join({bytes, repeat(0, 1 << 20)})).error,
            "the input has no I-picture in the video of programme 1");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordingTest, StopBeforeTheFirstIPictureLeavesNothing) {
  const std::atomic<bool> stop = true;
  Options options;
  options.stop = &stop;
  EXPECT_EQ(record(three_gops(Codec::kH264), options).error,
            "stopped before the first I-picture had come");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordingTest, VideoThatBecomesScrambledIsRecordedUpToThere) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5).gop(5);
  stream.scrambling = 3;
  stream.gop(5);
  const Outcome outcome = record(stream.bytes());
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(index_file().gops.size(), 2u);
  EXPECT_THAT(outcome.summary.note, HasSubstr("scrambled video packets"));
  EXPECT_TRUE(is_usable(this->stream()));
}

TEST_F(RecordingTest, AnExistingStreamFileIsRefusedAndKept) {
  write_file(stream(), {1, 2, 3});
  const Outcome outcome = record(three_gops(Codec::kMpeg2));
  EXPECT_EQ(outcome.error, "'" + stream() + "' exists already");
  EXPECT_THAT(read_file(stream()), ElementsAre(1, 2, 3));
  EXPECT_THAT(files(), ElementsAre("rec.kvf"));
}

TEST_F(RecordingTest, AnExistingIndexIsRefusedAndKept) {
  write_file(index(), {1, 2, 3});
  EXPECT_EQ(record(three_gops(Codec::kMpeg2)).error, "'" + index() + "' exists already");
  EXPECT_THAT(read_file(index()), ElementsAre(1, 2, 3));
  EXPECT_THAT(files(), ElementsAre("rec.mdb"));
}

TEST_F(RecordingTest, WhatIsOverwrittenIsNotTouchedBeforeTheInputHasProvedGood) {
  Options options;
  options.overwrite = true;
  write_file(stream(), {1, 2, 3});
  write_file(index(), {4, 5, 6});
  EXPECT_FALSE(record(counting_bytes(5000), options).ok);
  EXPECT_THAT(read_file(stream()), ElementsAre(1, 2, 3));
  EXPECT_THAT(read_file(index()), ElementsAre(4, 5, 6));
  EXPECT_TRUE(record(three_gops(Codec::kMpeg2), options).ok);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(RecordingTest, TheInputIsNotOverwrittenByItsOwnRecording) {
  Options options;
  options.overwrite = true;
  const Bytes bytes = three_gops(Codec::kMpeg2);
  write_file(stream(), bytes);
  const OpenFile in(stream());
  const Outcome outcome = plexa::rec::record(in.fd(), stream(), options);
  EXPECT_EQ(outcome.error, "'" + stream() + "' is the input itself");
  EXPECT_EQ(read_file(stream()), bytes);
}

TEST_F(RecordingTest, NamesThatCannotBeARecordingAreRefused) {
  write_file(input(), three_gops(Codec::kMpeg2));
  const OpenFile in(input());
  EXPECT_EQ(plexa::rec::record(in.fd(), dir_.file("rec"), {}).error,
            "'" + dir_.file("rec") + "' has no extension; call it rec.kvf, for example");
  EXPECT_EQ(plexa::rec::record(in.fd(), index(), {}).error,
            "'" + index() + "' is the name of an index; name the stream file");
  EXPECT_EQ(plexa::rec::record(in.fd(), dir_.path() + "/", {}).error,
            "'" + dir_.path() + "/' is not the name of a file");
  EXPECT_EQ(plexa::rec::record(in.fd(), dir_.file("none/rec.kvf"), {}).error,
            "folder '" + dir_.file("none/") + "': No such file or directory");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RecordingTest, AFolderIsNotOverwritten) {
  Options options;
  options.overwrite = true;
  ASSERT_EQ(mkdir(stream().c_str(), 0755), 0);
  EXPECT_EQ(record(three_gops(Codec::kMpeg2), options).error,
            "'" + stream() + "' is not a regular file");
}

TEST_F(RecordingTest, AnInputThatCannotBeReadIsRefused) {
  const OpenFile folder(dir_.path());
  const Outcome outcome = plexa::rec::record(folder.fd(), stream(), {});
  EXPECT_EQ(outcome.error, "the input cannot be read: Is a directory");
  EXPECT_THAT(files(), IsEmpty());
}

// --- while it runs

TEST_F(RecordingTest, StopEndsTheRecordingCleanly) {
  TestStream stream(Codec::kH264);
  stream.tables();
  for (int i = 0; i < 200; ++i) stream.gop(10, {.size = 2000});
  std::atomic<bool> stop = false;
  Options options;
  options.stop = &stop;
  options.progress = [&](const plexa::rec::Progress &progress) {
    if (progress.gops > 0) stop = true;
  };
  const Outcome outcome = record(stream.bytes(), options);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(is_usable(this->stream()));
}

TEST_F(RecordingTest, AStalledPipeDoesNotKeepStopWaiting) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5).gop(5);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], stream.bytes().data(), stream.bytes().size()),
            static_cast<ssize_t>(stream.bytes().size()));
  std::atomic<bool> stop = false;
  Options options;
  options.stop = &stop;
  std::thread stopper([&] {
    while (!exists(index()) || index_file().gops.empty()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    stop = true;
  });
  const Outcome outcome = plexa::rec::record(ends[0], this->stream(), options);
  stopper.join();
  close(ends[0]);
  close(ends[1]);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.summary.gops, 2u);
  EXPECT_TRUE(is_usable(this->stream()));
}

TEST_F(RecordingTest, ASignalInTheWaitForAPipeDoesNotKeepStopWaiting) {
  struct sigaction quiet = {};
  struct sigaction before = {};
  quiet.sa_handler = [](int) {};
  quiet.sa_flags = SA_RESTART;  // a read() that waits goes on behind the signal
  ASSERT_EQ(sigaction(SIGUSR1, &quiet, &before), 0);
  TestStream stream(Codec::kH264);
  stream.tables().gop(5).gop(5);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], stream.bytes().data(), stream.bytes().size()),
            static_cast<ssize_t>(stream.bytes().size()));
  std::atomic<bool> stop = false;
  Options options;
  options.stop = &stop;
  Outcome outcome;
  std::thread recorder([&] { outcome = plexa::rec::record(ends[0], this->stream(), options); });
  while (!exists(index()) || index_file().gops.empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (int i = 0; i < 20; ++i) {
    pthread_kill(recorder.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  stop = true;
  recorder.join();  // the pipe stays open, and silent
  sigaction(SIGUSR1, &before, nullptr);
  close(ends[0]);
  close(ends[1]);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.summary.gops, 2u);
}

TEST_F(RecordingTest, AFileThatGrowsIsFollowedUntilStop) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5).gop(5);
  const size_t half = stream.bytes().size() / 2;
  write_file(input(),
             Bytes(stream.bytes().begin(), stream.bytes().begin() + static_cast<long>(half)));
  std::atomic<bool> stop = false;
  Options options;
  options.stop = &stop;
  options.follow = true;
  std::thread grower([&] {
    while (!exists(index())) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    write_file(input(), stream.bytes());
    while (index_file().gops.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    stop = true;
  });
  const OpenFile in(input());
  const Outcome outcome = plexa::rec::record(in.fd(), this->stream(), options);
  grower.join();
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.summary.gops, 2u);
  EXPECT_TRUE(is_usable(this->stream()));
}

TEST_F(RecordingTest, WhatIsBeingRecordedCannotBeIndexedOrOverwritten) {
  TestStream stream(Codec::kH264);
  stream.tables().gop(5).gop(5);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_GT(write(ends[1], stream.bytes().data(), stream.bytes().size()), 0);
  std::thread recorder([&] { plexa::rec::record(ends[0], this->stream(), {}); });
  while (!exists(index()) || index_file().gops.empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const std::string busy = "'" + this->stream() + "' is being recorded or indexed";
  EXPECT_EQ(plexa::rec::rebuild_index(this->stream(), {}).error, busy.substr(0));
  EXPECT_EQ(plexa::rec::repair_index(this->stream(), {}).error, busy);
  write_file(input(), stream.bytes());
  const OpenFile in(input());
  Options options;
  options.overwrite = true;
  EXPECT_EQ(plexa::rec::record(in.fd(), this->stream(), options).error, busy);
  close(ends[1]);
  recorder.join();
  close(ends[0]);
  EXPECT_TRUE(is_usable(this->stream()));
}

TEST_F(RecordingTest, TheSummaryTellsWhatWasRecorded) {
  TestStream stream(Codec::kMpeg2);
  stream.tables().gop(5).gop(5);
  Bytes bytes = stream.bytes();
  // A video packet in the middle of the second GOP gets lost.
  const auto lost = static_cast<long>((stream.entries()[1].last_packet + 2) * kPacketSize);
  bytes.erase(bytes.begin() + lost, bytes.begin() + lost + static_cast<long>(kPacketSize));
  const Outcome outcome = record(bytes);
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.packets, stream.count() - 1);
  EXPECT_EQ(outcome.summary.bytes, bytes.size());
  EXPECT_EQ(outcome.summary.gops, 2u);
  EXPECT_EQ(outcome.summary.duration_ms, 400u);
  EXPECT_EQ(outcome.summary.channels, 1u);
  EXPECT_EQ(outcome.summary.continuity_errors, 1u);
  EXPECT_EQ(outcome.summary.resyncs, 0u);
  EXPECT_FALSE(outcome.summary.disk_full);
  EXPECT_EQ(outcome.summary.note, "");
}

TEST_F(RecordingTest, TheLongestTimeAnIndexHoldsEndsTheRecording) {
  TestStream stream(Codec::kMpeg2);
  stream.tables();
  // Nine and a half seconds a step: just a gap, not a jump. 2^31 ms are reached after 226051 steps;
  // so that the input stays small, each step is one picture of one packet.
  stream.duration = 0;
  Bytes one;
  {
    TestStream picture(Codec::kMpeg2);
    picture.picture({.type = 'I', .size = 20}, 0);
    one = picture.bytes();
  }
  ASSERT_EQ(one.size(), kPacketSize);
  Bytes bytes = stream.bytes();
  uint64_t pts = 0;
  for (int i = 0; i < 227000; ++i, pts = (pts + 855000) & 0x1ffffffffULL) {
    // The PTS stands behind the PES header's nine bytes, at the end of the adaptation field.
    const size_t at = 4 + 1 + one[4] + 9;
    const Bytes stamp = pes(0xe0, {}, pts);
    std::copy(stamp.begin() + 9, stamp.begin() + 14, one.begin() + static_cast<long>(at));
    one[3] = static_cast<uint8_t>((one[3] & 0xf0) | (i & 15));
    bytes.insert(bytes.end(), one.begin(), one.end());
  }
  const Outcome outcome = record(bytes);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_THAT(outcome.summary.note, HasSubstr("longest time that an index can hold"));
  EXPECT_LT(outcome.summary.gops, 227000u);
  EXPECT_GT(outcome.summary.duration_ms, uint32_t{INT32_MAX} - 20000);
  EXPECT_LE(outcome.summary.duration_ms, uint32_t{INT32_MAX});
  EXPECT_TRUE(is_usable(this->stream()));
}

}  // namespace
}  // namespace plexa_test
