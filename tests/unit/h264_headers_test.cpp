// SPS, slice header, and the decision between a frame and a field.
#include <gmock/gmock.h>

#include <cerrno>

#include "faults.h"
#include "gst-plexa/gst_thumbnail_util.h"
#include "gst_thumbnail_internal.h"
#include "log_capture.h"
#include "ts_builder.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr gint32 kUnseen = -1;

// ------------------------------------------------------------------------------------ SPS

struct Sps {
  gint32 frame_mbs_only_flag = kUnseen;
  gint32 frame_num_width = kUnseen;
};

Sps decode(Bytes bytes) {
  Sps sps;
  h264_decode_sps_ex(bytes.data(), static_cast<guint32>(bytes.size()), &sps.frame_mbs_only_flag,
                     &sps.frame_num_width);
  return sps;
}

// An SPS up to its id, behind the NAL header byte.
BitWriter sps_of_profile(uint32_t profile) {
  BitWriter bits;
  bits.u(8, profile).u(4, 0xf).u(4, 0xf).u(8, 41).ue(5);
  return bits;
}

// The rest behind pic_order_cnt_type and what it brings.
BitWriter &rest(BitWriter &bits, bool frame_mbs_only) {
  return bits.ue(4).u(1, 1).ue(119).ue(33).u(1, frame_mbs_only ? 1 : 0).u(8, 0xff);
}

Bytes plain_sps(uint32_t profile, uint32_t width, bool frame_mbs_only) {
  BitWriter bits = sps_of_profile(profile);
  bits.ue(width - 4).ue(2);
  return rest(bits, frame_mbs_only).bytes();
}

class SpsTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::clear(); }
};

TEST_F(SpsTest, GivesTheFrameNumberWidthAndTheFrameFlag) {
  const Sps frames = decode(plain_sps(77, 9, true));
  EXPECT_EQ(frames.frame_mbs_only_flag, 1);
  EXPECT_EQ(frames.frame_num_width, 9);
  const Sps fields = decode(plain_sps(66, 4, false));
  EXPECT_EQ(fields.frame_mbs_only_flag, 0);
  EXPECT_EQ(fields.frame_num_width, 4);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(SpsTest, HasChromaFieldsInExactlyFourProfiles) {
  for (const uint32_t profile : {100u, 110u, 122u, 144u}) {
    BitWriter bits = sps_of_profile(profile);
    bits.ue(1).ue(2).ue(3).u(1, 1).u(1, 0).ue(7).ue(2);
    const Sps sps = decode(rest(bits, false).bytes());
    EXPECT_EQ(sps.frame_num_width, 11) << profile;
    EXPECT_EQ(sps.frame_mbs_only_flag, 0) << profile;
  }
  for (const uint32_t profile : {44u, 66u, 77u, 83u, 88u, 118u, 128u, 244u}) {
    const Sps sps = decode(plain_sps(profile, 11, false));
    EXPECT_EQ(sps.frame_num_width, 11) << profile;
    EXPECT_EQ(sps.frame_mbs_only_flag, 0) << profile;
  }
}

TEST_F(SpsTest, Profile244IsReadAsIfItHadNoChromaFields) {
  BitWriter bits = sps_of_profile(244);
  bits.ue(3).u(1, 0).ue(0).ue(0).u(1, 0).u(1, 0).ue(7).ue(2);
  EXPECT_EQ(decode(rest(bits, false).bytes()).frame_num_width, 7) << "chroma_format_idc + 4";
}

TEST_F(SpsTest, SeparateColourPlanesBringOneMoreBit) {
  BitWriter bits = sps_of_profile(100);
  bits.ue(3).u(1, 1).ue(2).ue(2).u(1, 0).u(1, 0).ue(1).ue(2);
  const Sps sps = decode(rest(bits, true).bytes());
  EXPECT_EQ(sps.frame_num_width, 5);
  EXPECT_EQ(sps.frame_mbs_only_flag, 1);
}

TEST_F(SpsTest, ReadsTheEightScalingListFlagsAndLogsTheFirst) {
  BitWriter bits = sps_of_profile(100);
  bits.ue(1).ue(0).ue(0).u(1, 0).u(1, 1).u(8, 0x80).ue(6).ue(2);
  const Sps sps = decode(rest(bits, true).bytes());
  EXPECT_EQ(sps.frame_num_width, 10);
  EXPECT_EQ(sps.frame_mbs_only_flag, 1);
  EXPECT_EQ(LogCapture::count(kInfo, "[EXT_THM] seq_scaling_list_present_flag [0] [1]"), 1);
}

TEST_F(SpsTest, LogsAZeroFlagWhenTheFirstListIsAbsentOrAllOfThemAre) {
  BitWriter second_only = sps_of_profile(100);
  second_only.ue(1).ue(0).ue(0).u(1, 0).u(1, 1).u(8, 0x40).ue(6).ue(2);
  decode(rest(second_only, true).bytes());
  EXPECT_EQ(LogCapture::count(kInfo, "[EXT_THM] seq_scaling_list_present_flag [0] [0]"), 1);

  LogCapture::clear();
  BitWriter none = sps_of_profile(122);
  none.ue(1).ue(0).ue(0).u(1, 0).u(1, 0).ue(6).ue(2);
  decode(rest(none, true).bytes());
  EXPECT_EQ(LogCapture::count(kInfo, "[EXT_THM] seq_scaling_list_present_flag [0] [0]"), 1);
}

TEST_F(SpsTest, ScalingListsAreNotSkipped) {
  BitWriter bits = sps_of_profile(100);
  bits.ue(1).ue(0).ue(0).u(1, 0).u(1, 1).u(8, 0x80);
  bits.se(-8);  // the first list, which ends at once
  bits.ue(6).ue(2);
  EXPECT_EQ(decode(rest(bits, true).bytes()).frame_num_width, 16 + 4) << "the list's code + 4";
}

TEST_F(SpsTest, PicOrderCountTypeZeroBringsOneCode) {
  BitWriter bits = sps_of_profile(77);
  bits.ue(0).ue(0).ue(12);
  EXPECT_EQ(decode(rest(bits, true).bytes()).frame_mbs_only_flag, 1);
  BitWriter field_bits = sps_of_profile(77);
  field_bits.ue(0).ue(0).ue(12);
  EXPECT_EQ(decode(rest(field_bits, false).bytes()).frame_mbs_only_flag, 0);
}

TEST_F(SpsTest, PicOrderCountTypeOneBringsAListOfOffsets) {
  for (const bool frame_mbs_only : {true, false}) {
    BitWriter bits = sps_of_profile(77);
    bits.ue(0).ue(1).u(1, 1).se(-3).se(4).ue(3).se(1).se(-100).se(7);
    EXPECT_EQ(decode(rest(bits, frame_mbs_only).bytes()).frame_mbs_only_flag,
              frame_mbs_only ? 1 : 0);
  }
}

TEST_F(SpsTest, AnyOtherPicOrderCountTypeBringsNothing) {
  for (const uint32_t type : {2u, 3u, 1000u}) {
    BitWriter bits = sps_of_profile(77);
    bits.ue(0).ue(type);
    EXPECT_EQ(decode(rest(bits, true).bytes()).frame_mbs_only_flag, 1) << type;
  }
}

TEST_F(SpsTest, AHostileNumberOfOffsetsEndsWithTheBuffer) {
  BitWriter bits = sps_of_profile(77);
  bits.ue(0).ue(1).u(1, 0).se(0).se(0).ue(0xfffffffe).u(32, 0xffffffff);
  Faults faults;
  const Sps sps = decode(bits.bytes());  // a loop over the count would take minutes
  EXPECT_EQ(sps.frame_mbs_only_flag, 0);
  EXPECT_EQ(faults.count("malloc") + faults.count("calloc"), 0) << "nothing is kept of the offsets";
}

TEST_F(SpsTest, EmulationPreventionBytesAreNotRead) {
  // The width and height codes: 00 00 03 appears where the codes are long runs of zeros.
  BitWriter bits = sps_of_profile(77);
  bits.ue(0).ue(2).ue(0).u(1, 0).ue(0x00ffffff).ue(33).u(1, 1).u(8, 0xff);
  Bytes clean = bits.bytes();
  Bytes escaped;
  int zeros = 0;
  for (const uint8_t byte : clean) {
    if (zeros >= 2 && byte <= 3) {
      escaped.push_back(3);
      zeros = 0;
    }
    escaped.push_back(byte);
    zeros = byte == 0 ? zeros + 1 : 0;
  }
  ASSERT_GT(escaped.size(), clean.size()) << "the test needs a byte to remove";
  EXPECT_EQ(decode(escaped).frame_mbs_only_flag, 1);
}

TEST_F(SpsTest, TheCallersBytesStayAsTheyAre) {
  Bytes bytes = join({{77, 0, 0, 3, 0, 0, 3, 1}, repeat(0, 40), {3}});
  const Bytes before = bytes;
  gint32 flag;
  gint32 width;
  h264_decode_sps_ex(bytes.data(), static_cast<guint32>(bytes.size()), &flag, &width);
  EXPECT_EQ(bytes, before);
}

TEST_F(SpsTest, WhatLiesBehind2048BytesIsNotLookedAt) {
  BitWriter bits = sps_of_profile(77);
  bits.ue(0).ue(1).u(1, 0).se(0).se(0).ue(8 * 2048);
  Bytes bytes = bits.bytes();
  bytes.resize(2048, 0xff);  // offsets of one bit each to the end of what is read
  Bytes longer = join({bytes, repeat(0xff, 4096)});
  EXPECT_EQ(decode(bytes).frame_mbs_only_flag, 0);
  EXPECT_EQ(decode(longer).frame_mbs_only_flag, 0);
}

TEST_F(SpsTest, EveryPrefixIsReadToItsEndAndNoFurther) {
  const Bytes whole = plain_sps(77, 8, true);
  for (size_t size = 0; size <= whole.size(); ++size) {
    const plexa::HeapPtr<guint8> exact(static_cast<guint8 *>(std::malloc(size == 0 ? 1 : size)));
    std::copy_n(whole.begin(), size, exact.get());
    gint32 flag = kUnseen;
    gint32 width = kUnseen;
    h264_decode_sps_ex(exact.get(), static_cast<guint32>(size), &flag, &width);
    EXPECT_TRUE(flag == 0 || flag == 1) << size;
    EXPECT_NE(width, kUnseen) << size;
  }
}

TEST_F(SpsTest, NullArgumentsWriteNothing) {
  Bytes bytes = plain_sps(77, 4, true);
  gint32 flag = 7;
  gint32 width = 8;
  h264_decode_sps_ex(nullptr, 5, &flag, &width);
  h264_decode_sps_ex(bytes.data(), 5, nullptr, &width);
  h264_decode_sps_ex(bytes.data(), 5, &flag, nullptr);
  EXPECT_EQ(flag, 7);
  EXPECT_EQ(width, 8);
}

// ------------------------------------------------------------------------------------ slice

Bytes slice_header(uint32_t frame_num, int width, bool field_pic) {
  return BitWriter().ue(0).ue(7).ue(3).u(width, frame_num).u(1, field_pic ? 1 : 0).u(4, 15).bytes();
}

gint32 field_pic_flag(Bytes bytes, gint32 frame_mbs_only_flag, gint32 width) {
  return h264_decode_slice_header_ex(bytes.data(), static_cast<guint32>(bytes.size()),
                                     frame_mbs_only_flag, width);
}

TEST(Slice, GivesTheFieldFlagBehindTheFrameNumber) {
  for (const int width : {4, 9, 16}) {
    const uint32_t all_ones = (1u << width) - 1;
    EXPECT_EQ(field_pic_flag(slice_header(0, width, true), 0, width), 1) << width;
    EXPECT_EQ(field_pic_flag(slice_header(all_ones, width, false), 0, width), 0) << width;
  }
}

TEST(Slice, FramesOnlyMeansThatThereIsNoFlag) {
  EXPECT_EQ(field_pic_flag(slice_header(0, 4, true), 1, 4), -1);
  EXPECT_EQ(field_pic_flag(slice_header(0, 4, true), kUnseen, kUnseen), -1);
}

TEST(Slice, AWidthThatNoHeaderCanHoldReadsZeros) {
  EXPECT_EQ(field_pic_flag(slice_header(0, 4, true), 0, G_MAXINT32), 0);
  EXPECT_EQ(field_pic_flag({0xff, 0xff}, 0, -5), 1) << "below 0 counts as no bits";
}

TEST(Slice, LeavesTheCallersBytesAsTheyAreAndSkipsEmulationPrevention) {
  // Without the 3: nine bits of codes, frame_num in 31 bits, then the flag in the last byte.
  Bytes bytes = {0b10001000, 0x80, 0, 0, 3, 0x01, 0x80};
  const Bytes before = bytes;
  EXPECT_EQ(h264_decode_slice_header_ex(bytes.data(), 7, 0, 31), 1);
  EXPECT_EQ(bytes, before);
}

TEST(Slice, NullBytesAreNoField) { EXPECT_EQ(h264_decode_slice_header_ex(nullptr, 9, 0, 4), -1); }

TEST(Slice, AHeaderOfOneByteIsLoggedAndReadAsItStands) {
  LogCapture::clear();
  EXPECT_EQ(field_pic_flag({0xff}, 0, 4), 1);
  EXPECT_EQ(LogCapture::count(kError,
                              "[EXT_THM] [PLG_ERR] buf_size is less than 2 , so return, otherwise, "
                              "tmp_buf_size -2 will be very bigger."),
            1);
}

// ------------------------------------------------------------------------------------ decision

constexpr char kEnter[] = "[EXT_THM] === Enter h264_parser_field_encoding ===";
constexpr char kExit[] = "[EXT_THM] === Exit h264_parser_field_encoding ===";

std::string nal(int ref_idc, int type) {
  return "[EXT_THM] nal_ref_idc: " + std::to_string(ref_idc) +
         ", nal_unit_type: " + std::to_string(type);
}

class FieldDecision : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::clear(); }

  static gint32 decide(const Bytes &es) {
    return plexa::h264_parser_field_encoding(es.data(), static_cast<guint32>(es.size()));
  }
  static Bytes sps(bool frame_mbs_only) { return h264_sps({77, frame_mbs_only, 0, 2}); }
  static Bytes slice(bool field, uint8_t type = 5) { return h264_slice(type, 0, 4, field); }
};

TEST_F(FieldDecision, AFieldFlagBehindAnInterlacedSpsIsAField) {
  EXPECT_EQ(decide(join({sps(false), slice(true)})), 1);
  EXPECT_EQ(decide(join({sps(false), slice(false)})), 0);
}

TEST_F(FieldDecision, AFramesOnlySpsMakesItAFrame) {
  EXPECT_EQ(decide(join({sps(true), slice(true)})), 0);
}

TEST_F(FieldDecision, LogsItsWayThroughThePicture) {
  decide(join({{0, 0, 0, 1, 9, 0xf0}, sps(false), {0, 0, 1, 0x68, 0xee, 0x80}, slice(true)}));
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre(kEnter, nal(0, 9), nal(3, 7), nal(3, 8), nal(3, 5), kExit));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(FieldDecision, StopsAtTheFirstSliceOfEitherKind) {
  for (const uint8_t type : {uint8_t{1}, uint8_t{5}}) {
    LogCapture::clear();
    EXPECT_EQ(decide(join({sps(false), slice(true, type), {0, 0, 1, 9, 0xf0}})), 1);
    EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre(kEnter, nal(3, 7), nal(3, type), kExit));
  }
}

TEST_F(FieldDecision, PassesOverEveryOtherType) {
  for (int type = 0; type < 32; ++type) {
    if (type == 1 || type == 5 || type == 7) continue;
    const Bytes other = {0, 0, 1, static_cast<uint8_t>(0x20 | type), 0xff};
    LogCapture::clear();
    EXPECT_EQ(decide(join({sps(false), other, slice(true)})), 1) << type;
    EXPECT_EQ(LogCapture::count(kInfo, nal(1, type)), 1);
  }
}

TEST_F(FieldDecision, FindsBothLengthsOfStartCode) {
  const Bytes zero = {0};
  EXPECT_EQ(decide(join({zero, sps(false), zero, slice(true)})), 1);
  EXPECT_EQ(decide(join({{0xff, 0}, sps(false), {0xff}, slice(true)})), 1);
}

TEST_F(FieldDecision, ASliceBeforeAnySpsIsAFrame) {
  EXPECT_EQ(decide(join({slice(true), sps(false), slice(true)})), 0);
  EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre(kEnter, nal(3, 5), kExit));
}

TEST_F(FieldDecision, TheLastSpsBeforeTheSliceCounts) {
  EXPECT_EQ(decide(join({sps(true), sps(false), slice(true)})), 1);
  EXPECT_EQ(decide(join({sps(false), sps(true), slice(true)})), 0);
}

TEST_F(FieldDecision, TheScanResumesBehindTheHeaderByte) {
  EXPECT_EQ(decide(join({sps(false), {0, 0, 1, 9}, slice(true)})), 1) << "a NAL unit of one byte";
}

TEST_F(FieldDecision, TheScanResumesTwoBytesBehindTheHeaderByteOfAnSps) {
  decide(join({{0, 0, 1, 0x67}, {0, 0, 1, 9}, {0xff}, slice(false)}));
  EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre(kEnter, nal(3, 7), nal(3, 5), kExit))
      << "a start code right behind the header byte is not seen";
  LogCapture::clear();
  decide(join({{0, 0, 1, 0x67, 0xff}, {0, 0, 1, 9}, slice(false)}));
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre(kEnter, nal(3, 7), nal(0, 9), nal(3, 5), kExit));
}

TEST_F(FieldDecision, NoSliceIsAFrame) {
  EXPECT_EQ(decide({}), 0);
  EXPECT_EQ(decide(sps(false)), 0);
  EXPECT_EQ(decide(join({sps(false), {0, 0, 1}})), 0) << "a start code without a header byte";
  EXPECT_EQ(decide(repeat(0, 5000)), 0);
  EXPECT_EQ(decide(repeat(1, 5000)), 0);
}

TEST_F(FieldDecision, ASliceWhoseBytesAreMissingReadsZeros) {
  EXPECT_EQ(decide(join({sps(false), {0, 0, 1, 0x65}})), 0);
}

TEST_F(FieldDecision, NothingOfAnEarlierHeaderIsReadAsPartOfALaterOne) {
  // An SPS whose first byte would make a slice header with the field flag set.
  const Bytes sps_like_a_slice = h264_sps({0b11100001, false, 0, 2});
  EXPECT_EQ(decide(join({sps_like_a_slice, {0, 0, 1, 0x65}})), 0);
  EXPECT_EQ(decide(join({sps_like_a_slice, {0, 0, 1, 0x65, 0b11100001}})), 1);
}

TEST_F(FieldDecision, AWidthThatLooksLikeNoneIsAFrame) {
  BitWriter bits = sps_of_profile(77);
  bits.ue(0xfffffffb).ue(2);  // - 1 in 32 bits
  const Bytes hostile = join({{0, 0, 1, 0x67}, rest(bits, false).bytes()});
  EXPECT_EQ(decide(join({hostile, {0, 0, 1, 0x65, 0xff}})), 0);
}

TEST_F(FieldDecision, OneZeroAndAOneAreNoStartCode) {
  decide(join({{0xff, 0, 1, 9, 0, 1, 9}, slice(true)}));
  EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre(kEnter, nal(3, 5), kExit));
}

TEST_F(FieldDecision, ThePictureStaysAsItIs) {
  Bytes es = join({sps(false), {0, 0, 3, 0, 0, 3}, slice(true), {0, 0, 3, 1}});
  const Bytes before = es;
  decide(es);
  EXPECT_EQ(es, before);
}

TEST_F(FieldDecision, EveryPrefixOfAPictureIsAFrameOrAField) {
  const Bytes whole = join({{0, 0, 0, 1, 9, 0xf0}, sps(false), {0, 0, 1, 0x68, 0xee}, slice(true)});
  for (size_t size = 0; size <= whole.size(); ++size) {
    const plexa::HeapPtr<guint8> exact(static_cast<guint8 *>(std::malloc(size == 0 ? 1 : size)));
    std::copy_n(whole.begin(), size, exact.get());
    const gint32 field = plexa::h264_parser_field_encoding(exact.get(), static_cast<guint32>(size));
    EXPECT_TRUE(field == 0 || field == 1) << size;
  }
}

// Whatever their number, the last SPS before the slice counts.
TEST_F(FieldDecision, TheLastOfManySpsCounts) {
  for (const int frames : {1, 63, 64, 65, 500}) {
    Bytes es;
    for (int i = 0; i < frames; ++i) es = join({es, sps(true)});
    EXPECT_EQ(decide(join({es, sps(false), slice(true)})), 1) << frames;
    EXPECT_EQ(decide(join({sps(false), es, slice(true)})), 0) << frames;
  }
}

TEST_F(FieldDecision, WithoutMemoryThereIsNoDecision) {
  Faults faults;
  faults.fail("calloc", ENOMEM);
  EXPECT_EQ(decide(join({sps(false), slice(true)})), -1);
  EXPECT_EQ(LogCapture::count(kError, "[EXT_THM] [PLG_ERR] calloc rbsp buffer failed!"), 1);
}

}  // namespace
}  // namespace plexa_test
