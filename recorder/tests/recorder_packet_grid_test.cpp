// Packets are found in whatever stands around them, in pieces of any size.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "packet_grid.h"
#include "temp_dir.h"
#include "test_stream.h"

namespace plexa_test {
namespace {

using plexa::rec::PacketGrid;
using ::testing::ElementsAre;

// Packets that can be told apart by their payload.
Bytes numbered(unsigned first, unsigned count) {
  Bytes out;
  for (unsigned i = first; i < first + count; ++i) {
    out = join({out, ts_packet(0x100, repeat(static_cast<uint8_t>(i % 0x40 + 1), 184))});
  }
  return out;
}

struct Found {
  Bytes packets;
  uint64_t resyncs = 0;
  size_t stride = 0;
  size_t most_kept = 0;
};

// Hands the input over in pieces, as a reader does, and gathers what comes out.
Found find_packets(const Bytes &input, size_t piece) {
  Found out;
  PacketGrid grid;
  Bytes kept;
  for (size_t at = 0;; at += piece) {
    const size_t size = at < input.size() ? std::min(piece, input.size() - at) : 0;
    Bytes block = kept;
    const auto from = input.begin() + static_cast<long>(std::min(at, input.size()));
    block.insert(block.end(), from, from + static_cast<long>(size));
    const PacketGrid::Packets found = grid.scan(block.data(), block.size(), size == 0);
    out.packets.insert(out.packets.end(), found.data, found.data + found.count * kPacketSize);
    kept.assign(block.begin() + static_cast<long>(found.consumed), block.end());
    out.most_kept = std::max(out.most_kept, kept.size());
    if (size == 0) break;
  }
  out.resyncs = grid.resyncs();
  out.stride = grid.stride();
  return out;
}

void expect_found(const Bytes &input, const Bytes &packets, uint64_t resyncs, size_t stride) {
  for (const size_t piece :
       {size_t{1}, size_t{100}, size_t{188}, size_t{204}, size_t{1009}, size_t{100000}}) {
    const Found found = find_packets(input, piece);
    EXPECT_EQ(found.packets, packets) << piece;
    EXPECT_EQ(found.resyncs, resyncs) << piece;
    EXPECT_EQ(found.stride, stride) << piece;
    EXPECT_LE(found.most_kept, PacketGrid::kMostKept) << piece;
  }
}

TEST(PacketGridTest, PacketsBackToBackAreFound) {
  expect_found(numbered(0, 20), numbered(0, 20), 0, 188);
}

TEST(PacketGridTest, PacketsWithTimeStampsAreFound) {
  expect_found(as_192(numbered(0, 20)), numbered(0, 20), 0, 192);
}

TEST(PacketGridTest, PacketsWithErrorCorrectionAreFound) {
  expect_found(as_204(numbered(0, 20)), numbered(0, 20), 0, 204);
}

TEST(PacketGridTest, TheBeginningNeedNotBeAPacket) {
  const Bytes junk = join({repeat(0x47, 3), counting_bytes(333), {0x47}});
  expect_found(join({junk, numbered(0, 20)}), numbered(0, 20), 0, 188);
}

TEST(PacketGridTest, GarbageBetweenPacketsIsLeftOutAndNoPacketWithIt) {
  const Bytes input = join(
      {numbered(0, 10), repeat(0x10, 50), numbered(10, 10), repeat(0x10, 5000), numbered(20, 10)});
  expect_found(input, numbered(0, 30), 2, 188);
}

TEST(PacketGridTest, ADamagedSyncByteCostsItsPacketOnly) {
  Bytes input = numbered(0, 20);
  input[7 * kPacketSize] = 0x46;
  expect_found(input, join({numbered(0, 7), numbered(8, 12)}), 1, 188);
}

TEST(PacketGridTest, ADamagedSyncByteIsNotMistakenForAShiftOfTheGrid) {
  Bytes input;
  for (uint8_t i = 1; i <= 20; ++i) {
    input = join({input, ts_packet(0x100, join({{i}, repeat(0x47, 100), repeat(i, 83)}))});
  }
  Bytes expected = input;
  expected.erase(expected.begin() + 7 * 188, expected.begin() + 8 * 188);
  input[7 * kPacketSize] = 0x46;
  expect_found(input, expected, 1, 188);
}

TEST(PacketGridTest, APacketThatLacksBytesIsLeftOut) {
  Bytes input = numbered(0, 20);
  input.erase(input.begin() + 7 * 188 + 50, input.begin() + 7 * 188 + 90);
  expect_found(input, join({numbered(0, 7), numbered(8, 12)}), 1, 188);
}

TEST(PacketGridTest, AnotherDistanceInMidStreamIsFound) {
  expect_found(join({numbered(0, 10), as_204(numbered(10, 10))}), numbered(0, 20), 1, 204);
}

TEST(PacketGridTest, APacketCutOffAtTheEndIsLeftOut) {
  Bytes input = numbered(0, 20);
  input.pop_back();
  expect_found(input, numbered(0, 19), 0, 188);
}

TEST(PacketGridTest, AFewPacketsAreEnoughWhenThereAreNoMore) {
  for (unsigned count = 1; count < 5; ++count) {
    expect_found(numbered(0, count), numbered(0, count), 0, 188);
  }
}

TEST(PacketGridTest, BytesWithoutPacketsGiveNone) {
  for (const size_t piece : {size_t{1}, size_t{777}}) {
    EXPECT_TRUE(find_packets(counting_bytes(5000), piece).packets.empty());
    EXPECT_TRUE(find_packets(repeat(0x11, 5000), piece).packets.empty());
    EXPECT_TRUE(find_packets({}, piece).packets.empty());
  }
}

TEST(PacketGridTest, RandomDamageNeverTearsAPacketApart) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    Bytes input = numbered(0, 40);
    for (int cut = 0; cut < 3; ++cut) {
      const auto at = static_cast<long>(random() % input.size());
      if (random() % 2 == 0) {
        const Bytes junk = repeat(static_cast<uint8_t>(random()), random() % 300);
        input = join({Bytes(input.begin(), input.begin() + at), junk,
                      Bytes(input.begin() + at, input.end())});
      } else {
        const auto end =
            std::min<long>(at + static_cast<long>(random() % 300), static_cast<long>(input.size()));
        input.erase(input.begin() + at, input.begin() + end);
      }
    }
    const Found whole = find_packets(input, input.size());
    ASSERT_EQ(whole.packets.size() % kPacketSize, 0u);
    for (size_t at = 0; at < whole.packets.size(); at += kPacketSize) {
      ASSERT_EQ(whole.packets[at], 0x47) << round;
    }
    ASSERT_GT(whole.packets.size(), 20 * kPacketSize) << round;
    ASSERT_EQ(find_packets(input, 97).packets, whole.packets) << round;
  }
}

}  // namespace
}  // namespace plexa_test
