// Frames are found in the packets of a video, however they are cut, damaged or mixed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "session.h"
#include "test_stream.h"
#include "video_scanner.h"

namespace plexa_test {
namespace {

using plexa::rec::Entry;
using plexa::rec::Frame;
using plexa::rec::VideoScanner;

class VideoScannerTest : public ::testing::Test {
 protected:
  VideoScannerTest() { plexa::rec::prepare_gstreamer(); }

  // The frames in these packets, which are numbered from 0.
  std::vector<Frame> scan(Codec codec, const Bytes &packets) {
    std::vector<Frame> frames;
    VideoScanner scanner(codec, [&](const Frame &frame) { frames.push_back(frame); });
    for (size_t at = 0; at < packets.size(); at += kPacketSize) {
      scanner.packet(packets.data() + at, at / kPacketSize);
    }
    scanner.finish();
    counts_ = scanner.counts();
    return frames;
  }

  plexa::rec::ScannerCounts counts_;
};

// Video in PES packets of one transport packet each, `piece` bytes of video in every packet: every
// place at which a header can be cut comes up.
Bytes in_pieces(const Bytes &video, size_t piece, uint64_t pts) {
  Bytes out;
  uint8_t counter = 0;
  const Bytes unit = pes(0xe0, video, pts);
  for (size_t at = 0; at < unit.size(); at += piece) {
    const size_t size = std::min(piece, unit.size() - at);
    PacketOptions options;
    options.unit_start = at == 0;
    options.continuity = counter++;
    options.adaptation_length = static_cast<uint8_t>(183 - size);
    const auto from = unit.begin() + static_cast<long>(at);
    out = join({out, ts_packet(0x100, Bytes(from, from + static_cast<long>(size)), options)});
  }
  return out;
}

class CutTest : public VideoScannerTest, public ::testing::WithParamInterface<Codec> {};

INSTANTIATE_TEST_SUITE_P(Codecs, CutTest,
                         ::testing::Values(Codec::kMpeg2, Codec::kH264, Codec::kH265));

TEST_P(CutTest, HeadersMayLieAcrossPacketsAtAnyPlace) {
  Bytes video;
  for (const char type : {'I', 'P', 'B', 'I', 'P'}) {
    video = join({video, coded_picture(GetParam(), {.type = type, .size = 40, .slices = 2})});
  }
  for (size_t piece = 1; piece <= 60; ++piece) {
    const std::vector<Frame> frames = scan(GetParam(), in_pieces(video, piece, 90000));
    ASSERT_EQ(frames.size(), 5u) << piece;
    EXPECT_EQ(frames[0].entry, Entry::kClean);
    EXPECT_EQ(frames[0].pts, std::optional<uint64_t>(90000));
    EXPECT_TRUE(frames[0].sequence_header);
    EXPECT_EQ(frames[0].duration, 3600);
    EXPECT_EQ(frames[1].entry, Entry::kNone);
    EXPECT_EQ(frames[1].pts, std::nullopt);
    EXPECT_TRUE(frames[2].bidirectional);
    EXPECT_EQ(frames[3].entry, Entry::kClean);
    EXPECT_TRUE(frames[4].cut_off);
    for (const Frame &frame : frames) EXPECT_EQ(frame.pes_packet, 0u);
  }
}

TEST_P(CutTest, AFrameEndsWithThePacketThatHoldsItsLastByte) {
  for (size_t piece = 1; piece <= 40; ++piece) {
    const Bytes first = coded_picture(GetParam(), {.type = 'I', .size = 50});
    const Bytes second = coded_picture(GetParam(), {.type = 'P', .size = 50});
    const std::vector<Frame> frames =
        scan(GetParam(), in_pieces(join({first, second}), piece, 90000));
    ASSERT_EQ(frames.size(), 2u);
    const size_t last_byte = 14 + first.size() - 1;
    const uint64_t last = last_byte / piece;
    // Packets that end inside the next start code are counted in.
    EXPECT_GE(frames[0].last_packet, last) << piece;
    EXPECT_LE(frames[0].last_packet, last + 4 / piece + 1) << piece;
  }
}

TEST_P(CutTest, ZerosInFrontOfAStartCodeBelongToTheNextPicture) {
  for (size_t zeros = 0; zeros < 400; zeros += 13) {
    TestStream stream(GetParam());
    stream.pes_packet(coded_picture(GetParam(), {.type = 'I'}), 1000);
    const uint64_t end = stream.count();
    stream.pes_packet(join({repeat(0, zeros), coded_picture(GetParam(), {.type = 'P'})}), 4600);
    const std::vector<Frame> frames = scan(GetParam(), stream.bytes());
    ASSERT_EQ(frames.size(), 2u);
    if (zeros < 150) {
      EXPECT_EQ(frames[0].last_packet, end - 1) << zeros;
    }
    EXPECT_EQ(frames[1].pes_packet, end);
  }
}

TEST_P(CutTest, EveryPrefixIsHarmless) {
  TestStream stream(GetParam());
  stream.gop(3, {.size = 300});
  for (size_t size = 0; size <= stream.bytes().size(); size += kPacketSize) {
    const Bytes prefix(stream.bytes().begin(), stream.bytes().begin() + static_cast<long>(size));
    EXPECT_LE(scan(GetParam(), prefix).size(), 3u);
  }
}

TEST_P(CutTest, DamagedBitsAreHarmless) {
  TestStream stream(GetParam());
  stream.gop(6, {.size = 300}).gop(6, {.size = 300});
  std::mt19937 random(3);
  for (int round = 0; round < 300; ++round) {
    Bytes packets = stream.bytes();
    for (int i = 0; i < 20; ++i)
      packets[random() % packets.size()] ^= static_cast<uint8_t>(1 << random() % 8);
    EXPECT_LE(scan(GetParam(), packets).size(), 200u);
  }
}

TEST_P(CutTest, APacketSentTwiceIsTakenOnce) {
  TestStream stream(GetParam());
  stream.gop(3).gop(3);
  const std::vector<Frame> expected = scan(GetParam(), stream.bytes());
  Bytes twice;
  for (size_t at = 0; at < stream.bytes().size(); at += kPacketSize) {
    const auto from = stream.bytes().begin() + static_cast<long>(at);
    const Bytes packet(from, from + static_cast<long>(kPacketSize));
    twice = join({twice, packet, packet});
  }
  const std::vector<Frame> frames = scan(GetParam(), twice);
  ASSERT_EQ(frames.size(), expected.size());
  EXPECT_EQ(counts_.continuity_errors, 0u);
}

TEST_F(VideoScannerTest, AMultiplexerThatNeverCountsIsUnderstood) {
  TestStream stream(Codec::kMpeg2);
  stream.gop(3).gop(3);
  Bytes packets = stream.bytes();
  for (size_t at = 0; at < packets.size(); at += kPacketSize) packets[at + 3] &= 0xf0;
  EXPECT_EQ(scan(Codec::kMpeg2, packets).size(), 6u);
  EXPECT_GT(counts_.continuity_errors, 5u);
}

TEST_F(VideoScannerTest, AnAnnouncedJumpOfTheCounterIsNoError) {
  TestStream stream(Codec::kMpeg2);
  stream.gop(3).gop(3);
  Bytes packets = stream.bytes();
  const size_t second = stream.entries()[1].packet * kPacketSize;
  for (size_t at = second; at < packets.size(); at += kPacketSize) {
    packets[at + 3] = static_cast<uint8_t>((packets[at + 3] & 0xf0) | ((packets[at + 3] + 5) & 15));
  }
  EXPECT_EQ(scan(Codec::kMpeg2, packets).size(), 6u);
  EXPECT_EQ(counts_.continuity_errors, 1u);

  PacketOptions options;
  options.continuity = 9;
  options.adaptation_length = 183;
  Bytes announced = ts_packet(0x100, {}, options);
  announced[5] = 0x80;
  // A packet with a payload has to announce it: give the PES start an adaptation field.
  Bytes start(packets.begin() + static_cast<long>(second),
              packets.begin() + static_cast<long>(second + kPacketSize));
  ASSERT_EQ(start[3] & 0x20, 0);
  PacketOptions jump;
  jump.unit_start = true;
  jump.continuity = start[3] & 15;
  jump.adaptation_length = 1;
  Bytes shorter = ts_packet(0x100, Bytes(start.begin() + 4, start.end() - 2), jump);
  shorter[5] = 0x80;
  std::copy(shorter.begin(), shorter.end(), packets.begin() + static_cast<long>(second));
  scan(Codec::kMpeg2, packets);
  EXPECT_EQ(counts_.continuity_errors, 0u);
}

TEST_F(VideoScannerTest, AJumpAnnouncedByAPacketWithoutPayloadIsNoError) {
  TestStream stream(Codec::kMpeg2);
  stream.gop(3).gop(3);
  const auto second = static_cast<long>(stream.entries()[1].packet * kPacketSize);
  const auto middle = stream.bytes().begin() + second;
  PacketOptions options;
  options.continuity = static_cast<uint8_t>((middle[3] + 4) & 15);
  options.adaptation_length = 183;
  Bytes announcement = ts_packet(0x100, {}, options);
  announcement[3] = static_cast<uint8_t>(0x20 | options.continuity);
  announcement[5] = 0x80;
  Bytes rest(middle, stream.bytes().end());
  for (size_t at = 3; at < rest.size(); at += kPacketSize) {
    rest[at] = static_cast<uint8_t>((rest[at] & 0xf0) | ((rest[at] + 5) & 15));
  }
  const Bytes packets = join({Bytes(stream.bytes().begin(), middle), announcement, rest});
  EXPECT_EQ(scan(Codec::kMpeg2, packets).size(), 6u);
  EXPECT_EQ(counts_.continuity_errors, 0u);
}

TEST_F(VideoScannerTest, AnAnnouncedJumpEndsWhatWasCollected) {
  // The start code would go on behind the jump.
  const Bytes start = pes(0xe0, coded_picture(Codec::kMpeg2, {.type = 'I', .size = 20}), 1000);
  const Bytes first = join({start, repeat(0xaa, 182 - start.size()), {0, 0}});
  const Bytes second = join({{1, 0x00, 0x00, 0x0f, 0xff, 0xf8}, repeat(0xaa, 178)});
  PacketOptions options;
  options.unit_start = true;
  const Bytes packet = ts_packet(0x100, first, options);
  options.unit_start = false;
  options.continuity = 9;
  options.adaptation_length = 183;
  Bytes announcement = ts_packet(0x100, {}, options);
  announcement[3] = 0x20 | 9;
  announcement[5] = 0x80;
  options.adaptation_length.reset();
  options.continuity = 10;
  const Bytes next = ts_packet(0x100, second, options);
  options.continuity = 11;
  const Bytes slice = ts_packet(0x100, join({{0, 0, 1, 1}, repeat(0xaa, 180)}), options);
  EXPECT_EQ(scan(Codec::kMpeg2, join({packet, announcement, next, slice})).size(), 1u);
  EXPECT_EQ(counts_.continuity_errors, 0u);
}

TEST_F(VideoScannerTest, ALostPacketCostsNoOtherFrame) {
  TestStream stream(Codec::kH264);
  stream.gop(3).gop(3);
  Bytes packets = stream.bytes();
  const auto lost = static_cast<long>((stream.entries()[0].packet + 1) * kPacketSize);
  packets.erase(packets.begin() + lost, packets.begin() + lost + 188);
  EXPECT_EQ(scan(Codec::kH264, packets).size(), 6u);
  EXPECT_EQ(counts_.continuity_errors, 1u);
}

TEST_F(VideoScannerTest, WhatStandsBeforeALostPacketDoesNotGoOnBehindIt) {
  const Bytes start = pes(0xe0, coded_picture(Codec::kMpeg2, {.type = 'I', .size = 20}), 1000);
  const Bytes first = join({start, repeat(0xaa, 182 - start.size()), {0, 0}});
  const Bytes second = join({{1, 0x00, 0x00, 0x0f, 0xff, 0xf8}, repeat(0xaa, 178)});
  PacketOptions options;
  options.unit_start = true;
  const Bytes packet = ts_packet(0x100, first, options);
  options.unit_start = false;
  options.continuity = 1;
  const Bytes next = join({packet, ts_packet(0x100, second, options)});
  options.continuity = 2;
  const Bytes after_loss = join({packet, ts_packet(0x100, second, options)});
  const Bytes slice = [&] {
    options.continuity = static_cast<uint8_t>(options.continuity + 1);
    return ts_packet(0x100, join({{0, 0, 1, 1}, repeat(0xaa, 180)}), options);
  }();
  options.continuity = 2;
  const Bytes slice_in_step = ts_packet(0x100, join({{0, 0, 1, 1}, repeat(0xaa, 180)}), options);
  EXPECT_EQ(scan(Codec::kMpeg2, join({next, slice_in_step})).size(), 2u);
  EXPECT_EQ(scan(Codec::kMpeg2, join({after_loss, slice})).size(), 1u);
}

TEST_F(VideoScannerTest, HeadersWhosePictureIsLostDoNotMoveTheNextPicture) {
  // The headers of a P-picture arrive, its slices do not.
  TestStream stream(Codec::kH264);
  const uint64_t first = stream.pes_packet({0, 0, 0, 1, 0x09, 0xf0}, 1000);
  Bytes packets = stream.bytes();
  stream.foreign();
  stream.pes_packet({}, {});  // uses up a number, and is left out
  const Bytes before = stream.bytes();
  stream.gop(2);
  packets.insert(packets.end(), stream.bytes().begin() + static_cast<long>(before.size()),
                 stream.bytes().end());
  const std::vector<Frame> frames = scan(Codec::kH264, packets);
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(first, 0u);
  EXPECT_EQ(frames[0].pes_packet, 1u);
  EXPECT_EQ(frames[0].pts, std::optional<uint64_t>(90000));
}

TEST_F(VideoScannerTest, ASliceThatIsLostBehindItsFirstByteSaysNothing) {
  // Three slices; a packet ends with the first one's NAL header, the next packet is lost.
  const Bytes video = coded_picture(Codec::kH264, {.type = 'I', .size = 300, .slices = 3});
  std::vector<long> slices;
  for (size_t at = 0; at + 3 < video.size(); ++at) {
    const bool code = video[at] == 0 && video[at + 1] == 0 && video[at + 2] == 1;
    if (code && video[at + 3] == 0x65) slices.push_back(static_cast<long>(at));
  }
  ASSERT_EQ(slices.size(), 3u);
  const Bytes first = pes(0xe0, Bytes(video.begin(), video.begin() + slices[0] + 4), 90000);
  PacketOptions options;
  options.unit_start = true;
  options.adaptation_length = static_cast<uint8_t>(183 - first.size());
  const Bytes head = ts_packet(0x100, first, options);
  Bytes rest = packetise(0x100, Bytes(video.begin() + slices[1], video.end()), 2);
  rest[1] &= 0xbf;  // no PES packet begins here
  const std::vector<Frame> frames = scan(Codec::kH264, join({head, rest}));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].entry, Entry::kClean);
  EXPECT_EQ(counts_.continuity_errors, 1u);
}

class AnnouncementTest : public VideoScannerTest, public ::testing::WithParamInterface<Codec> {};

INSTANTIATE_TEST_SUITE_P(Codecs, AnnouncementTest, ::testing::Values(Codec::kH264, Codec::kH265));

TEST_P(AnnouncementTest, ARecoveryPointWhosePictureIsLostDoesNotAnnounceTheNext) {
  const Bytes whole = coded_picture(GetParam(), {.type = 'P', .recovery_point = true});
  // The message arrives with the beginning of the slice's start code, the slice does not.
  const Bytes code = {0, 0, 1, static_cast<uint8_t>(GetParam() == Codec::kH264 ? 0x0c : 0x4c)};
  const Bytes message = GetParam() == Codec::kH264 ? Bytes(whole.begin(), whole.begin() + 6 + 8)
                                                   : Bytes(whole.begin(), whole.begin() + 7 + 9);
  TestStream stream(GetParam());
  stream.gop(2);
  stream.pes_packet(join({message, code}), 200000);
  Bytes packets = stream.bytes();
  const size_t before = packets.size() + kPacketSize;
  stream.pes_packet({}, {});  // lost
  stream.picture({.type = 'P', .number = 2}, 2);
  packets.insert(packets.end(), stream.bytes().begin() + static_cast<long>(before),
                 stream.bytes().end());
  const std::vector<Frame> frames = scan(GetParam(), packets);
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[2].entry, Entry::kNone);
  EXPECT_EQ(counts_.continuity_errors, 1u);
}

TEST_F(VideoScannerTest, PesPacketsThatAreScrambledAreCountedAndPassedOver) {
  TestStream stream(Codec::kMpeg2);
  stream.gop(2);
  const uint64_t clear = stream.count();
  stream.gop(2);
  const uint64_t end = stream.count();
  stream.gop(1);
  Bytes packets = stream.bytes();
  for (size_t at = clear * kPacketSize; at < end * kPacketSize; at += kPacketSize) {
    if ((packets[at + 1] & 0x40) == 0) continue;
    ASSERT_EQ(packets[at + 3] & 0x20, 0);
    packets[at + 4 + 6] |= 0x20;  // PES_scrambling_control
  }
  EXPECT_EQ(scan(Codec::kMpeg2, packets).size(), 3u);
  EXPECT_EQ(counts_.scrambled, end - clear);
  EXPECT_EQ(counts_.clear, stream.count() - counts_.scrambled);
}

TEST_F(VideoScannerTest, ScrambledPacketsAreCountedAndPassedOver) {
  TestStream stream(Codec::kMpeg2);
  stream.gop(2);
  const uint64_t clear = stream.count();
  stream.scrambling = 2;
  stream.gop(2);
  EXPECT_EQ(scan(Codec::kMpeg2, stream.bytes()).size(), 2u);
  EXPECT_EQ(counts_.clear, clear);
  EXPECT_EQ(counts_.scrambled, stream.count() - clear);
}

TEST_F(VideoScannerTest, DamagedPacketsArePassedOver) {
  TestStream stream(Codec::kMpeg2);
  stream.gop(2).gop(2);
  Bytes packets = stream.bytes();
  packets[stream.entries()[1].packet * kPacketSize + 1] |= 0x80;
  const std::vector<Frame> frames = scan(Codec::kMpeg2, packets);
  EXPECT_LT(frames.size(), 5u);
  for (const Frame &frame : frames) EXPECT_NE(frame.pes_packet, stream.entries()[1].packet);
}

TEST_F(VideoScannerTest, DecodeStampsAreRead) {
  TestStream stream(Codec::kMpeg2);
  stream.pes_packet(coded_picture(Codec::kMpeg2, {}), 0x1ffffffffULL, 0x1fffff0f0ULL);
  const std::vector<Frame> frames = scan(Codec::kMpeg2, stream.bytes());
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].pts, std::optional<uint64_t>(0x1ffffffffULL));
  EXPECT_EQ(frames[0].dts, std::optional<uint64_t>(0x1fffff0f0ULL));
}

TEST_F(VideoScannerTest, APesPacketThatIsNoVideoIsPassedOver) {
  TestStream stream(Codec::kMpeg2);
  const Bytes picture = coded_picture(Codec::kMpeg2, {});
  stream.packets(packetise(0x100, join({{0, 0, 1, 0xbe, 0, 20}, repeat(0xff, 20), picture})));
  EXPECT_TRUE(scan(Codec::kMpeg2, stream.bytes()).empty());
  TestStream other(Codec::kMpeg2);
  other.packets(packetise(0x100, join({{9, 9, 9, 0xe0, 0, 0, 0x80, 0, 0}, picture})));
  EXPECT_TRUE(scan(Codec::kMpeg2, other.bytes()).empty());
}

TEST_F(VideoScannerTest, AStampBelongsToThePictureThatBeginsInItsPesPacket) {
  // The first picture ends in the second PES packet, where the second one begins.
  const Bytes first = coded_picture(Codec::kH264, {.type = 'I', .size = 400});
  const Bytes second = coded_picture(Codec::kH264, {.type = 'P', .size = 100});
  TestStream stream(Codec::kH264);
  stream.pes_packet(Bytes(first.begin(), first.begin() + 300), 1000);
  stream.pes_packet(join({Bytes(first.begin() + 300, first.end()), second}), 4600);
  const std::vector<Frame> frames = scan(Codec::kH264, stream.bytes());
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].pts, std::optional<uint64_t>(1000));
  EXPECT_EQ(frames[1].pts, std::optional<uint64_t>(4600));
  EXPECT_GE(frames[0].last_packet, frames[1].pes_packet);
}

// --- fields

class FieldTest : public VideoScannerTest, public ::testing::WithParamInterface<Codec> {
 protected:
  size_t frames_of(const TestPicture &first, const TestPicture &second) {
    TestStream stream(GetParam());
    stream.field_coding = true;
    stream.picture({.type = 'I', .field = Field::kTop, .number = 9}, 0);
    stream.picture({.type = 'P', .field = Field::kBottom, .number = 9}, 0);
    stream.picture(first, 1).picture(second, 1);
    return scan(GetParam(), stream.bytes()).size() - 1;
  }
};

INSTANTIATE_TEST_SUITE_P(Codecs, FieldTest, ::testing::Values(Codec::kMpeg2, Codec::kH264));

TEST_P(FieldTest, TwoFieldsOfOppositeParityAndTheSameNumberAreOneFrame) {
  EXPECT_EQ(frames_of({.type = 'P', .field = Field::kTop, .number = 3},
                      {.type = 'P', .field = Field::kBottom, .number = 3}),
            1u);
  EXPECT_EQ(frames_of({.type = 'P', .field = Field::kBottom, .number = 3},
                      {.type = 'P', .field = Field::kTop, .number = 3}),
            1u);
}

TEST_P(FieldTest, FieldsOfTheSameParityAreTwoFrames) {
  EXPECT_EQ(frames_of({.type = 'P', .field = Field::kTop, .number = 3},
                      {.type = 'P', .field = Field::kTop, .number = 3}),
            2u);
}

TEST_P(FieldTest, FieldsOfDifferentNumbersAreTwoFrames) {
  EXPECT_EQ(frames_of({.type = 'P', .field = Field::kTop, .number = 3},
                      {.type = 'P', .field = Field::kBottom, .number = 4}),
            2u);
}

TEST_P(FieldTest, AFrameAndAFieldAreTwoFrames) {
  EXPECT_EQ(
      frames_of({.type = 'P', .number = 3}, {.type = 'P', .field = Field::kBottom, .number = 3}),
      2u);
}

TEST_P(FieldTest, AnIFieldAndAPFieldAreAnEntry) {
  TestStream stream(GetParam());
  stream.field_coding = true;
  stream.picture({.type = 'I', .field = Field::kTop}, 0);
  stream.picture({.type = 'P', .field = Field::kBottom}, 0);
  const uint64_t end = stream.count();
  stream.picture({.type = 'P', .number = 1}, 1);
  const std::vector<Frame> frames = scan(GetParam(), stream.bytes());
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].entry, Entry::kClean);
  EXPECT_EQ(frames[0].last_packet, end - 1);
}

// --- what is an entry

TEST_F(VideoScannerTest, H264EntriesAreGraded) {
  TestStream stream(Codec::kH264);
  stream.picture({.type = 'I'}, 0);
  stream.picture({.type = 'I', .idr = false}, 1);
  stream.picture({.type = 'I', .idr = false, .recovery_point = true}, 2);
  stream.picture({.type = 'P', .recovery_point = true}, 3);
  stream.picture({.type = 'P'}, 4);
  stream.picture({.type = 'I', .idr = false, .slices = 3, .last_slice_type = 'P'}, 5);
  std::vector<Entry> entries;
  for (const Frame &frame : scan(Codec::kH264, stream.bytes())) entries.push_back(frame.entry);
  EXPECT_THAT(entries, ::testing::ElementsAre(Entry::kClean, Entry::kIntra, Entry::kClean,
                                              Entry::kGradual, Entry::kNone, Entry::kNone));
}

TEST_F(VideoScannerTest, H265EntriesAreGraded) {
  TestStream stream(Codec::kH265);
  stream.picture({.type = 'I'}, 0);
  stream.picture({.type = 'I', .idr = false}, 1);
  stream.picture({.type = 'P', .recovery_point = true}, 3);
  stream.picture({.type = 'P'}, 4);
  std::vector<Entry> entries;
  for (const Frame &frame : scan(Codec::kH265, stream.bytes())) entries.push_back(frame.entry);
  EXPECT_THAT(entries,
              ::testing::ElementsAre(Entry::kClean, Entry::kClean, Entry::kGradual, Entry::kNone));
}

TEST_F(VideoScannerTest, H264WithoutDelimitersIsCutAtFirstMacroblocks) {
  Bytes video;
  for (int i = 0; i < 4; ++i) {
    video = join({video, coded_picture(Codec::kH264, {.type = i == 0 ? 'I' : 'P',
                                                      .delimiter = false,
                                                      .number = static_cast<unsigned>(i),
                                                      .slices = 3})});
  }
  TestStream stream(Codec::kH264);
  stream.pes_packet(video, 1000);
  EXPECT_EQ(scan(Codec::kH264, stream.bytes()).size(), 4u);
}

TEST_F(VideoScannerTest, UnitsOfOtherH265LayersArePassedOver) {
  Bytes video = coded_picture(Codec::kH265, {.type = 'I'});
  video = join({video, {0, 0, 1, 0x02, 0x09, 0x80, 0xaa, 0xaa}});  // layer 1
  video = join({video, coded_picture(Codec::kH265, {.type = 'P'})});
  TestStream stream(Codec::kH265);
  stream.pes_packet(video, 1000);
  EXPECT_EQ(scan(Codec::kH265, stream.bytes()).size(), 2u);
}

TEST_F(VideoScannerTest, Mpeg2WithoutIPicturesIsEnteredAtItsSequenceHeaders) {
  const Bytes intra = coded_picture(Codec::kMpeg2, {.type = 'I', .size = 0, .slices = 1});
  const Bytes headers(intra.begin(), intra.begin() + 12 + 14 + 8);
  TestStream stream(Codec::kMpeg2);
  stream.pes_packet(join({headers, coded_picture(Codec::kMpeg2, {.type = 'P'})}), 1000);
  stream.pes_packet(coded_picture(Codec::kMpeg2, {.type = 'P'}), 4600);
  const std::vector<Frame> frames = scan(Codec::kMpeg2, stream.bytes());
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].entry, Entry::kGradual);
  EXPECT_TRUE(frames[0].sequence_header);
  EXPECT_EQ(frames[1].entry, Entry::kNone);
}

}  // namespace
}  // namespace plexa_test
