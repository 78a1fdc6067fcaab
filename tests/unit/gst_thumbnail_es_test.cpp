// From transport packets to the coded picture: the video packet filter and the extraction.
#include <gmock/gmock.h>

#include <cerrno>
#include <numeric>

#include "faults.h"
#include "gst_thumbnail_internal.h"
#include "log_capture.h"
#include "ts_builder.h"

namespace plexa_test {
namespace {

using plexa::VideoPackets;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint16_t kVideo = 0x1234;
constexpr uint16_t kAudio = 0x0234;
constexpr gint32 kMpeg2 = 0;
constexpr gint32 kH264 = 1;

constexpr char kBadAdaptationOfPes[] =
    "[EXT_THM] [PLG_ERR] adapt_len > (PVRSYS_TS_PACKET_SIZE - 4) for pes";
constexpr char kBadAdaptationOfEs[] =
    "[EXT_THM] [PLG_ERR] adapt_len > (PVRSYS_TS_PACKET_SIZE - 4) for es";
constexpr char kBadPesHeader[] =
    "[EXT_THM] [PLG_ERR] header_size > (PVRSYS_TS_PACKET_SIZE - 4 - adapt_len) for pes";
constexpr char kThirdUnit[] =
    "[EXT_THM] already got beginning 2 es(some times I-field + I-field, or I-filed + P-field), "
    "just "
    "break!";
constexpr char kCheck[] = "[EXT_THM] h264(1) frame/field encoding check";
constexpr char kField[] = "[EXT_THM] H264 Field picture!! Output 2 field picture combined!!";
constexpr char kFrame[] = "[EXT_THM] H264 Frame picture!! Output 1 picture only!!";

Bytes numbers(size_t count, int first = 1) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), static_cast<uint8_t>(first));
  return bytes;
}

Bytes tail(const Bytes &bytes, size_t from) {
  return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.end());
}

// ------------------------------------------------------------------------------------ filter

class Filter : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::clear(); }

  // The packets that stay, joined.
  Bytes filtered(const Bytes &ts, gint32 length) {
    EXPECT_TRUE(plexa::_gst_thumbnail_filter_video_packets(ts.data(), length, kVideo, video_));
    Bytes out;
    for (gint32 i = 0; i < video_.count; ++i) {
      const guint8 *const packet = video_.packets[static_cast<size_t>(i)];
      out.insert(out.end(), packet, packet + kPacketSize);
    }
    return out;
  }
  Bytes filtered(const Bytes &ts) { return filtered(ts, static_cast<gint32>(ts.size())); }

  VideoPackets video_;
};

TEST_F(Filter, KeepsThePacketsOfTheVideoPidWholeAndInOrder) {
  const Bytes first = ts_packet(kVideo, numbers(184));
  const Bytes second = ts_packet(kVideo, numbers(184, 50), {.unit_start = true, .continuity = 7});
  EXPECT_EQ(filtered(join({ts_packet(kAudio, {}), first, ts_packet(0x1fff, {}), second})),
            join({first, second}));
  EXPECT_THAT(
      LogCapture::messages(kInfo),
      ElementsAre("[EXT_THM] packet_count = [4], video_packet_count = [2], ts_size = [376]"));
}

TEST_F(Filter, OneVideoPacketOfTwoGives188Bytes) {
  filtered(join({ts_packet(kVideo, {}), ts_packet(kAudio, {})}));
  EXPECT_LOGGED(kInfo, "[EXT_THM] packet_count = [2], video_packet_count = [1], ts_size = [188]");
  EXPECT_EQ(video_.ts_size(), 188);
}

TEST_F(Filter, ComparesAllThirteenBitsOfThePidAndNoOthers) {
  Bytes packet = ts_packet(kVideo, {});
  packet[1] |= 0xe0;  // error indicator, unit start, priority
  EXPECT_THAT(filtered(packet), SizeIs(188));
  for (int bit = 0; bit < 13; ++bit) {
    EXPECT_THAT(filtered(ts_packet(static_cast<uint16_t>(kVideo ^ (1 << bit)), {})), IsEmpty());
  }
}

TEST_F(Filter, APidBeyondThirteenBitsMatchesNothing) {
  VideoPackets video;
  const Bytes ts = ts_packet(0, {});
  ASSERT_TRUE(plexa::_gst_thumbnail_filter_video_packets(ts.data(), 188, 0x2000, video));
  EXPECT_EQ(video.count, 0);
}

TEST_F(Filter, DropsATailOfUnderAPacket) {
  const Bytes packet = ts_packet(kVideo, {});
  EXPECT_EQ(filtered(join({packet, packet}), 375), packet);
  EXPECT_LOGGED(kInfo, "[EXT_THM] packet_count = [1], video_packet_count = [1], ts_size = [188]");
}

TEST_F(Filter, ALengthOf187GivesNoPackets) {
  EXPECT_THAT(filtered(ts_packet(kVideo, {}), 187), IsEmpty());
  EXPECT_LOGGED(kInfo, "[EXT_THM] packet_count = [0], video_packet_count = [0], ts_size = [0]");
}

TEST_F(Filter, NoLengthIsNoAllocationFailure) {
  EXPECT_THAT(filtered({}, 0), IsEmpty());
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(Filter, WithoutMemoryFails) {
  const Bytes ts = ts_packet(kVideo, {});
  Faults faults;
  faults.fail("malloc", ENOMEM);
  EXPECT_FALSE(plexa::_gst_thumbnail_filter_video_packets(ts.data(), 188, kVideo, video_));
  EXPECT_EQ(video_.count, 0);
  EXPECT_THAT(LogCapture::messages(), ElementsAre("[EXT_THM] [PLG_ERR] video_buf is NULL"));
  EXPECT_LOGGED(kError, "[EXT_THM] [PLG_ERR] video_buf is NULL");
}

// ------------------------------------------------------------------------------------ extraction

class Extraction : public ::testing::Test {
 protected:
  ~Extraction() override { std::free(es_); }

  // The packets in a block of exactly their size, so that a read too far is seen.
  void given(const Bytes &ts) {
    ts_.reset(static_cast<guint8 *>(std::malloc(std::max<size_t>(ts.size(), 1))));
    std::copy(ts.begin(), ts.end(), ts_.get());
    ASSERT_TRUE(plexa::_gst_thumbnail_filter_video_packets(
        ts_.get(), static_cast<gint32>(ts.size()), kVideo, video_));
    LogCapture::clear();
  }
  gint32 extract(gint32 codec) {
    std::free(es_);
    es_ = nullptr;
    return plexa::_gst_thumbnail_get_iframe_es(video_, codec, &es_, &size_);
  }
  Bytes picture(const Bytes &ts, gint32 codec = kMpeg2) {
    given(ts);
    EXPECT_EQ(extract(codec), 1);
    return es_ == nullptr ? Bytes{} : Bytes(es_, es_ + size_);
  }
  void expect_refused(const Bytes &ts) {
    given(ts);
    EXPECT_EQ(extract(kMpeg2), 0);
    EXPECT_EQ(es_, nullptr);
    EXPECT_LOGGED(kError, "[EXT_THM] [PLG_ERR] wrong es size[0]");
  }

  plexa::HeapPtr<guint8> ts_;
  VideoPackets video_;
  guint8 *es_ = nullptr;
  guint32 size_ = 0;
};

Bytes unit(const Bytes &data) { return packetise(kVideo, pes(0xe0, data, 90000)); }

TEST_F(Extraction, GivesThePayloadBehindThePesHeader) {
  const Bytes data = numbers(1000);
  EXPECT_EQ(picture(unit(data)), data);
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre("[EXT_THM] [IN]ts size = [1128]", "[EXT_THM] [OUT]es size = [1000]"));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(Extraction, ThePesHeaderIsNineBytesAndItsDataLong) {
  const Bytes data = numbers(100);
  for (const uint8_t header_data : {uint8_t{0}, uint8_t{5}, uint8_t{60}}) {
    EXPECT_EQ(picture(packetise(kVideo, pes(0xe0, data, {}, header_data))), data);
  }
}

TEST_F(Extraction, OtherCodecsGetTwoUnits) {
  const Bytes first = numbers(300);
  const Bytes second = numbers(200, 99);
  for (const gint32 codec : {-1, 0, 2, 3, 4}) {
    EXPECT_EQ(picture(join({unit(first), unit(second)}), codec), join({first, second})) << codec;
    EXPECT_NOT_LOGGED(kInfo, kThirdUnit);
    EXPECT_NOT_LOGGED(kInfo, kFrame);
  }
}

TEST_F(Extraction, AThirdUnitStartEndsThePicture) {
  const Bytes first = numbers(300);
  const Bytes second = numbers(200, 99);
  const Bytes more = join({unit(numbers(10)), unit(numbers(10))});
  EXPECT_EQ(picture(join({unit(first), unit(second), more})), join({first, second}));
  EXPECT_EQ(LogCapture::count(kInfo, kThirdUnit), 1);
}

TEST_F(Extraction, WhatStandsBeforeTheFirstUnitStartComesFirst) {
  const Bytes rest = numbers(184, 7);
  const Bytes data = numbers(50);
  EXPECT_EQ(picture(join({ts_packet(kVideo, rest), unit(data)})), join({rest, data}));
}

TEST_F(Extraction, AStretchWithoutAnyUnitStartIsItsPayload) {
  const Bytes packet = ts_packet(kVideo, numbers(184));
  EXPECT_EQ(picture(join({packet, packet}), kH264), join({numbers(184), numbers(184)}));
}

// ---- adaptation fields

TEST_F(Extraction, SkipsTheAdaptationFieldOfAContinuation) {
  const Bytes packet = ts_packet(kVideo, numbers(100), {.adaptation_length = 83});
  EXPECT_EQ(picture(packet), numbers(100));
}

TEST_F(Extraction, AnAdaptationFieldOfNoBytesIsItsLengthByte) {
  const Bytes packet = ts_packet(kVideo, numbers(183), {.adaptation_length = 0});
  EXPECT_EQ(picture(packet), numbers(183));
}

TEST_F(Extraction, AnAdaptationFieldOf183LeavesNothing) {
  const Bytes full = ts_packet(kVideo, {}, {.adaptation_length = 183});
  EXPECT_EQ(picture(join({full, ts_packet(kVideo, numbers(184))})), numbers(184));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
  expect_refused(full);
}

TEST_F(Extraction, AnAdaptationFieldThatLeavesThePacketIsRefused) {
  for (const int length : {184, 200, 254}) {
    const Bytes bad = ts_packet(kVideo, {}, {.adaptation_length = static_cast<uint8_t>(length)});
    EXPECT_EQ(picture(join({bad, ts_packet(kVideo, numbers(184))})), numbers(184)) << length;
    EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kBadAdaptationOfEs)) << length;
  }
}

TEST_F(Extraction, TheSameAtAUnitStartHasAMessageOfItsOwn) {
  for (const int length : {184, 200, 254}) {
    const Bytes bad = ts_packet(
        kVideo, {}, {.unit_start = true, .adaptation_length = static_cast<uint8_t>(length)});
    EXPECT_EQ(picture(join({bad, ts_packet(kVideo, numbers(184))})), numbers(184)) << length;
    EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kBadAdaptationOfPes)) << length;
  }
}

TEST_F(Extraction, AnAdaptationFieldOf255IsNone) {
  Bytes packet = ts_packet(kVideo, {}, {.adaptation_length = 255});
  EXPECT_EQ(picture(packet), tail(packet, 4)) << "its length byte is the payload's first byte";

  Bytes start = ts_packet(kVideo, pes(0xe0, numbers(170), 1), {.unit_start = true});
  start[3] |= 0x20;
  start[4] = 255;  // spoils the PES start code, which nobody looks at
  EXPECT_EQ(picture(start), numbers(170));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

// ---- PES headers

TEST_F(Extraction, APesHeaderLongerThanThePayloadIsRefused) {
  const Bytes good = ts_packet(kVideo, numbers(184));
  Bytes header = {0, 0, 1, 0xe0, 0, 0, 0x80, 0, 176};
  Bytes bad = ts_packet(kVideo, header, {.unit_start = true});
  EXPECT_EQ(picture(join({bad, good})), numbers(184));
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kBadPesHeader));
  header[8] = 255;
  bad = ts_packet(kVideo, header, {.unit_start = true});
  EXPECT_EQ(picture(join({bad, good})), numbers(184));
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kBadPesHeader));
}

TEST_F(Extraction, APesHeaderThatFillsThePayloadLeavesNothing) {
  const Bytes header = {0, 0, 1, 0xe0, 0, 0, 0x80, 0, 175};
  const Bytes start = ts_packet(kVideo, header, {.unit_start = true});
  EXPECT_EQ(picture(join({start, ts_packet(kVideo, numbers(184))})), numbers(184));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(Extraction, APayloadTooShortForAPesHeaderIsRefusedWithoutLookingBehindIt) {
  // 0 to 8 bytes of payload: the header's length byte would lie behind the packet, and behind the
  // block for the last of them.
  for (int payload = 0; payload <= 8; ++payload) {
    const auto length = static_cast<uint8_t>(183 - payload);
    expect_refused(
        ts_packet(kVideo, repeat(0, 8), {.unit_start = true, .adaptation_length = length}));
    EXPECT_EQ(LogCapture::count(kError, kBadPesHeader), 1) << payload;
  }
}

TEST_F(Extraction, TheHeaderIsMeasuredAgainstWhatTheAdaptationFieldLeaves) {
  const Bytes header = {0, 0, 1, 0xe0, 0, 0, 0x80, 0, 30};  // 39 bytes
  const Bytes good = ts_packet(kVideo, numbers(184));
  const Bytes fits = ts_packet(kVideo, header, {.unit_start = true, .adaptation_length = 183 - 39});
  EXPECT_EQ(picture(join({fits, good})), numbers(184));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
  const Bytes too_long =
      ts_packet(kVideo, header, {.unit_start = true, .adaptation_length = 183 - 38});
  EXPECT_EQ(picture(join({too_long, good})), numbers(184));
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(kBadPesHeader));
}

TEST_F(Extraction, ARefusedUnitStartStillCounts) {
  const Bytes bad = ts_packet(kVideo, {}, {.unit_start = true, .adaptation_length = 200});
  const Bytes data = numbers(50);
  EXPECT_EQ(picture(join({bad, unit(data), unit(numbers(60))})), data);
  EXPECT_EQ(LogCapture::count(kInfo, kThirdUnit), 1);
}

// ---- H.264 frames and fields

Bytes h264_picture(bool field, int salt) {
  return join({h264_sps({77, !field, 0, 2}), h264_slice(5, 0, 4, field), numbers(300, salt)});
}

TEST_F(Extraction, AnH264FrameIsItsFirstUnitOnly) {
  const Bytes frame = h264_picture(false, 1);
  EXPECT_EQ(picture(join({unit(frame), unit(numbers(400))}), kH264), frame);
  EXPECT_TRUE(logged_in_order({kCheck, "[EXT_THM] === Enter h264_parser_field_encoding ===",
                               "[EXT_THM] === Exit h264_parser_field_encoding ===", kFrame}));
  EXPECT_EQ(LogCapture::count(kInfo, kCheck), 1);
  EXPECT_EQ(LogCapture::count(kInfo, kFrame), 1);
  EXPECT_NOT_LOGGED(kInfo, kField);
}

TEST_F(Extraction, AnH264FieldTakesTheSecondFieldAlong) {
  const Bytes first = h264_picture(true, 1);
  const Bytes second = h264_picture(true, 2);
  EXPECT_EQ(picture(join({unit(first), unit(second), unit(numbers(9))}), kH264),
            join({first, second}));
  EXPECT_TRUE(
      logged_in_order({kCheck, "[EXT_THM] === Enter h264_parser_field_encoding ===",
                       "[EXT_THM] === Exit h264_parser_field_encoding ===", kField, kThirdUnit}));
  EXPECT_EQ(LogCapture::count(kInfo, kCheck), 1) << "the second field is not looked at";
  EXPECT_EQ(LogCapture::count(kInfo, kField), 1);
  EXPECT_NOT_LOGGED(kInfo, kFrame);
}

TEST_F(Extraction, AnH264UnitAloneIsNotLookedAt) {
  const Bytes first = h264_picture(true, 1);
  EXPECT_EQ(picture(unit(first), kH264), first);
  EXPECT_NOT_LOGGED(kInfo, kCheck);
}

TEST_F(Extraction, AFailedCheckCountsAsAFrame) {
  const Bytes first = h264_picture(true, 1);
  given(join({unit(first), unit(h264_picture(true, 2))}));
  Faults faults;
  faults.fail("calloc", ENOMEM);
  ASSERT_EQ(extract(kH264), 1);
  EXPECT_EQ(Bytes(es_, es_ + size_), first);
  EXPECT_TRUE(logged_in_order({kCheck, "[EXT_THM] [PLG_ERR] calloc rbsp buffer failed!", kFrame}));
}

TEST_F(Extraction, AnH264UnitThatWasRefusedLeavesNothingToShow) {
  const Bytes bad = ts_packet(kVideo, {}, {.unit_start = true, .adaptation_length = 200});
  given(join({bad, unit(h264_picture(false, 1))}));
  EXPECT_EQ(extract(kH264), 0);
  EXPECT_TRUE(
      logged_in_order({kBadAdaptationOfPes, kFrame, "[EXT_THM] [PLG_ERR] wrong es size[0]"}));
}

// ---- the result

TEST_F(Extraction, TheResultEndsWhereItsBlockEnds) {
  picture(join({unit(numbers(300)), unit(numbers(1))}));
  EXPECT_EQ(size_, 301u);
  EXPECT_LT(size_, static_cast<guint32>(video_.ts_size()));
  Faults faults;
  std::vector<long long> sizes;
  faults.watch("realloc", [&](int, const char *, long long size) { sizes.push_back(size); });
  ASSERT_EQ(extract(kMpeg2), 1);
  EXPECT_THAT(sizes, ElementsAre(301));
}

// The nearer the block is to the picture's size, the less is given back: see the allocation.
TEST_F(Extraction, ThePictureGetsRoomForItsPayloadsAlone) {
  given(unit(numbers(1000)));
  ASSERT_EQ(video_.count, 6);
  Faults faults;
  std::vector<long long> sizes;
  faults.watch("malloc", [&](int, const char *, long long size) { sizes.push_back(size); });
  ASSERT_EQ(extract(kMpeg2), 1);
  EXPECT_THAT(sizes, ::testing::Contains(6 * 184));
  EXPECT_THAT(sizes, ::testing::Not(::testing::Contains(6 * 188)));
}

TEST_F(Extraction, NoPacketsFail) {
  given({});
  EXPECT_EQ(extract(kMpeg2), 0);
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_THM] [IN]ts size = [0]", "[EXT_THM] [OUT]es size = [0]"));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(Extraction, WithoutMemoryForThePictureFails) {
  given(unit(numbers(10)));
  Faults faults;
  faults.fail("malloc", ENOMEM);
  EXPECT_EQ(extract(kMpeg2), 0);
  EXPECT_EQ(es_, nullptr);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre("[EXT_THM] [PLG_ERR] es_temp_buf is NULL"));
}

TEST_F(Extraction, WithoutMemoryForTheResultFails) {
  given(unit(numbers(10)));
  Faults faults;
  faults.fail("realloc", ENOMEM);
  EXPECT_EQ(extract(kMpeg2), 0);
  EXPECT_EQ(es_, nullptr);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre("[EXT_THM] [PLG_ERR] *es_buf is NULL"));
}

TEST_F(Extraction, TheLinesHaveTheirPriorities) {
  given({});
  extract(kMpeg2);
  EXPECT_LOGGED(kInfo, "[EXT_THM] [IN]ts size = [0]");
  EXPECT_LOGGED(kInfo, "[EXT_THM] [OUT]es size = [0]");
}

// What the steps give, one packet at a time, without any of the shortcuts.
Bytes extract_slowly(const Bytes &ts) {
  Bytes es;
  int starts = 0;
  for (size_t at = 0; at < ts.size(); at += kPacketSize) {
    const uint8_t *const packet = ts.data() + at;
    const bool start = (packet[1] & 0x40) != 0;
    if (start && ++starts > 2) break;
    const bool adapted = (packet[3] & 0x20) != 0;
    if (adapted && packet[4] >= 184 && packet[4] < 255) continue;
    const size_t skip = adapted ? static_cast<uint8_t>(packet[4] + 1) : 0;
    size_t begin = 4 + skip;
    if (start) {
      if (begin + 9 > kPacketSize || begin + 9 + packet[begin + 8] > kPacketSize) continue;
      begin += 9u + packet[begin + 8];
    }
    es.insert(es.end(), packet + begin, packet + kPacketSize);
  }
  return es;
}

TEST_F(Extraction, RandomPacketsComeOutAsTheSlowWayDoesIt) {
  uint32_t seed = 12345;
  const auto random = [&seed](uint32_t below) {
    seed = seed * 1664525u + 1013904223u;
    return (seed >> 8) % below;
  };
  for (int round = 0; round < 300; ++round) {
    Bytes ts;
    for (uint32_t left = 1 + random(30); left > 0; --left) {
      PacketOptions options;
      options.unit_start = random(12) == 0;
      if (random(3) == 0) options.adaptation_length = static_cast<uint8_t>(random(256));
      Bytes payload(184);
      for (uint8_t &byte : payload) byte = static_cast<uint8_t>(random(256));
      ts = join({ts, ts_packet(kVideo, payload, options)});
    }
    const Bytes expected = extract_slowly(ts);
    given(ts);
    ASSERT_EQ(extract(kMpeg2), expected.empty() ? 0 : 1) << round;
    const Bytes got = es_ == nullptr ? Bytes{} : Bytes(es_, es_ + size_);
    ASSERT_EQ(got, expected) << round;
  }
}

}  // namespace
}  // namespace plexa_test
