// The bit reader of the H.264 headers, and the removal of emulation prevention bytes.
#include <gmock/gmock.h>

#include <algorithm>

#include "gst_thumbnail_internal.h"
#include "log_capture.h"
#include "ts_builder.h"

namespace plexa_test {
namespace {

using plexa::de_emulation_prevention;
using plexa::Se;
using plexa::u;
using plexa::Ue;
using ::testing::ElementsAre;

constexpr char kTooShort[] =
    "[EXT_THM] [PLG_ERR] buf_size is less than 2 , so return, otherwise, tmp_buf_size -2 will be "
    "very bigger.";

// What is left of the bytes, and the bytes behind it.
Bytes without_emulation(Bytes bytes) {
  guint32 length = static_cast<guint32>(bytes.size());
  de_emulation_prevention(bytes.data(), &length);
  bytes.resize(length);
  return bytes;
}

class EmulationPrevention : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::clear(); }
};

TEST_F(EmulationPrevention, TheThreeBehindTwoZerosGoes) {
  EXPECT_THAT(without_emulation({0, 0, 3, 1}), ElementsAre(0, 0, 1));
  EXPECT_THAT(without_emulation({9, 0, 0, 3, 0, 5}), ElementsAre(9, 0, 0, 0, 5));
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(EmulationPrevention, AThreeAtTheVeryEndGoesToo) {
  EXPECT_THAT(without_emulation({0, 0, 3}), ElementsAre(0, 0));
}

TEST_F(EmulationPrevention, OtherThreesStay) {
  EXPECT_THAT(without_emulation({3, 0, 3, 1, 0, 3}), ElementsAre(3, 0, 3, 1, 0, 3));
  EXPECT_THAT(without_emulation({0, 1, 3, 1, 0, 3}), ElementsAre(0, 1, 3, 1, 0, 3));
}

TEST_F(EmulationPrevention, AByteMovedIntoPlaceIsOnlyTheMiddleOfTheNextTriple) {
  EXPECT_THAT(without_emulation({0, 0, 3, 3}), ElementsAre(0, 0, 3));
  EXPECT_THAT(without_emulation({0, 0, 3, 0, 3}), ElementsAre(0, 0, 0));
}

TEST_F(EmulationPrevention, EachShiftLeavesTheLastByteBehind) {
  Bytes bytes = {0, 0, 3, 1, 2};
  guint32 length = 5;
  de_emulation_prevention(bytes.data(), &length);
  EXPECT_EQ(length, 4u);
  EXPECT_THAT(bytes, ElementsAre(0, 0, 1, 2, 2));
}

TEST_F(EmulationPrevention, ALengthOfTwoChangesNothing) {
  EXPECT_THAT(without_emulation({0, 0}), ElementsAre(0, 0));
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(EmulationPrevention, ALengthBelowTwoIsLoggedAndChangesNothing) {
  for (guint32 given : {0u, 1u}) {
    LogCapture::clear();
    Bytes bytes = {0, 0, 3, 1};
    guint32 length = given;
    de_emulation_prevention(bytes.data(), &length);
    EXPECT_EQ(length, given);
    EXPECT_THAT(bytes, ElementsAre(0, 0, 3, 1));
    EXPECT_EQ(LogCapture::count(kError, kTooShort), 1);
  }
}

// The removal, byte by byte and without shortcuts.
guint32 remove_slowly(Bytes &bytes) {
  guint32 length = static_cast<guint32>(bytes.size());
  for (size_t i = 2; i < bytes.size(); ++i) {
    if (bytes[i - 2] != 0 || bytes[i - 1] != 0 || bytes[i] != 3) continue;
    std::copy(bytes.begin() + static_cast<std::ptrdiff_t>(i) + 1, bytes.end(),
              bytes.begin() + static_cast<std::ptrdiff_t>(i));
    --length;
  }
  return length;
}

TEST_F(EmulationPrevention, EverySequenceOfEightCriticalBytesComesOutAsTheSlowWayDoesIt) {
  for (int number = 0; number < 3 * 3 * 3 * 3 * 3 * 3 * 3 * 3; ++number) {
    Bytes bytes;
    for (int i = 0, rest = number; i < 8; ++i, rest /= 3) {
      bytes.push_back(static_cast<uint8_t>(rest % 3 == 2 ? 3 : rest % 3));
    }
    Bytes slow = bytes;
    const guint32 slow_length = remove_slowly(slow);
    guint32 length = 8;
    de_emulation_prevention(bytes.data(), &length);
    ASSERT_EQ(length, slow_length) << number;
    ASSERT_EQ(bytes, slow) << number;
  }
}

// A header under the reader's eyes.
struct Reader {
  Bytes bytes;
  guint32 position = 0;

  guint32 u(guint32 n) { return plexa::u(n, bytes, position); }
  guint32 ue() { return Ue(bytes, static_cast<guint32>(bytes.size()), position); }
  gint32 se() { return Se(bytes, static_cast<guint32>(bytes.size()), position); }
};

TEST(BitReader, ReadsTheMostSignificantBitFirst) {
  Reader reader{{0b10110011, 0b01000000}};
  EXPECT_EQ(reader.u(1), 1u);
  EXPECT_EQ(reader.u(3), 0b011u);
  EXPECT_EQ(reader.u(6), 0b001101u) << "across the byte border";
  EXPECT_EQ(reader.position, 10u);
}

TEST(BitReader, ReadsThirtyTwoBitsAtOnce) {
  Reader reader{{0x81, 0x23, 0x45, 0x67, 0x89}, 4};
  EXPECT_EQ(reader.u(32), 0x12345678u);
  EXPECT_EQ(reader.position, 36u);
}

TEST(BitReader, ZeroBitsAreZeroAndMoveNothing) {
  Reader reader{{0xff}, 3};
  EXPECT_EQ(reader.u(0), 0u);
  EXPECT_EQ(reader.position, 3u);
}

TEST(BitReader, BitsBehindTheEndAreZeros) {
  Reader reader{{0xff}, 6};
  EXPECT_EQ(reader.u(4), 0b1100u);
  EXPECT_EQ(reader.position, 10u);
  EXPECT_EQ(reader.u(32), 0u);
  EXPECT_EQ(reader.position, 42u);
}

TEST(BitReader, AHostileNumberOfBitsGivesTheLastThirtyTwo) {
  Reader reader{{0x12, 0x34, 0x56, 0x78, 0x9a}};
  EXPECT_EQ(reader.u(40), 0x3456789au);
  reader.position = 0;
  EXPECT_EQ(reader.u(G_MAXUINT32), 0u);
  EXPECT_EQ(reader.position, G_MAXUINT32);
  EXPECT_EQ(reader.u(8), 0u);
  EXPECT_EQ(reader.position, G_MAXUINT32) << "a position never wraps round";
}

TEST(ExpGolomb, UnsignedCodesCountUp) {
  Reader reader{BitWriter().u(1, 1).u(3, 0b010).u(3, 0b011).u(5, 0b00100).u(5, 0b00111).bytes()};
  for (guint32 expected : {0u, 1u, 2u, 3u, 6u}) EXPECT_EQ(reader.ue(), expected);
  EXPECT_EQ(reader.position, 17u);
}

TEST(ExpGolomb, LargeUnsignedCodesComeBack) {
  for (guint32 value : {254u, 255u, 65535u, 0x7ffffffeu, 0xfffffffeu}) {
    Reader reader{BitWriter().ue(value).bytes()};
    EXPECT_EQ(reader.ue(), value);
  }
}

TEST(ExpGolomb, SignedCodesAlternate) {
  Reader reader{BitWriter().ue(0).ue(1).ue(2).ue(3).ue(4).bytes()};
  for (gint32 expected : {0, 1, -1, 2, -2}) EXPECT_EQ(reader.se(), expected);
}

TEST(ExpGolomb, TheLargestSignedCodeDoesNotOverflow) {
  Reader odd{BitWriter().ue(0xfffffffd).bytes()};
  EXPECT_EQ(odd.se(), G_MAXINT32);
  Reader even{BitWriter().ue(0xfffffffe).bytes()};
  EXPECT_EQ(even.se(), -G_MAXINT32);
}

TEST(ExpGolomb, AtTheEndTheCodeIsZeroAndThePositionMovesByOne) {
  Reader reader{{0xff}, 8};
  EXPECT_EQ(reader.ue(), 0u);
  EXPECT_EQ(reader.position, 9u);
  reader.position = 100;
  EXPECT_EQ(reader.ue(), 0u);
  EXPECT_EQ(reader.position, 101u);
}

TEST(ExpGolomb, ZerosUpToTheEndSkipOneBitMoreThanTheirLength) {
  Reader reader{{0xf0}, 4};
  EXPECT_EQ(reader.ue(), 15u) << "2^4 - 1, and no bits";
  EXPECT_EQ(reader.position, 4u + 4 + 1 + 4);
}

TEST(ExpGolomb, ZerosAreCountedInTheGivenLengthOnly) {
  const Bytes bytes = {0x00, 0x5a, 0xff};  // the buffer goes on behind its first byte
  guint32 position = 4;
  EXPECT_EQ(Ue(bytes, 1, position), 15u + 0b1011u) << "bits 9 to 12 lie behind the length";
  EXPECT_EQ(position, 13u);
}

TEST(ExpGolomb, MoreThanThirtyTwoZerosAreTakenModulo) {
  Reader reader{BitWriter().u(32, 0).u(8, 0).u(1, 1).u(32, 0).u(8, 7).bytes()};
  EXPECT_EQ(reader.ue(), 6u) << "2^40 - 1 + 7, of which 32 bits remain";
  EXPECT_EQ(reader.position, 40u + 1 + 40);
}

TEST(ExpGolomb, ALengthBeyondTheBufferIsTheBuffers) {
  const Bytes bytes = {0x00};
  guint32 position = 0;
  EXPECT_EQ(Ue(bytes, G_MAXUINT32, position), 255u);
  EXPECT_EQ(position, 17u);
}

}  // namespace
}  // namespace plexa_test
