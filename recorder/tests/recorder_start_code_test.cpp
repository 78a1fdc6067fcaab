// The search for start codes finds what a plain loop finds, whatever the length and the place.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "start_code.h"

namespace plexa_test {
namespace {

using plexa::rec::find_start_code;

size_t plainly(const std::vector<uint8_t> &data, size_t from) {
  for (size_t i = from; i + 3 < data.size(); ++i) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
  }
  return data.size();
}

// A block of exactly this size, so that a sanitizer sees a read beyond it.
size_t search(const std::vector<uint8_t> &data, size_t from) {
  const auto block = std::make_unique<uint8_t[]>(data.size());
  std::copy(data.begin(), data.end(), block.get());
  return find_start_code(block.get(), from, data.size());
}

TEST(StartCodeTest, IsFoundAtEveryPlaceInDataOfEveryLength) {
  for (size_t size = 0; size <= 70; ++size) {
    std::vector<uint8_t> data(size, 0xff);
    ASSERT_EQ(search(data, 0), size);
    for (size_t at = 0; at + 3 < size; ++at) {
      data.assign(size, 0xff);
      data[at] = data[at + 1] = 0;
      data[at + 2] = 1;
      for (size_t from = 0; from <= size; ++from) {
        ASSERT_EQ(search(data, from), plainly(data, from)) << size << ' ' << at << ' ' << from;
      }
    }
  }
}

TEST(StartCodeTest, NeedsTheByteBehindIt) {
  EXPECT_EQ(search({0, 0, 1}, 0), 3u);
  EXPECT_EQ(search({0, 0, 1, 9}, 0), 0u);
  EXPECT_EQ(search({7, 0, 0, 1}, 0), 4u);
}

TEST(StartCodeTest, TheFirstOfSeveralIsFound) {
  EXPECT_EQ(search({0, 0, 0, 1, 0, 0, 1, 0, 0, 1, 5}, 0), 1u);
  EXPECT_EQ(search({0, 0, 0, 1, 0, 0, 1, 0, 0, 1, 5}, 2), 4u);
}

TEST(StartCodeTest, AgreesWithThePlainSearchOnDataFullOfZerosAndOnes) {
  std::mt19937 random(1);
  for (int round = 0; round < 2000; ++round) {
    std::vector<uint8_t> data(random() % 200);
    for (uint8_t &byte : data) byte = static_cast<uint8_t>(random() % 3);
    for (size_t from = 0; from < data.size(); from += 7) {
      ASSERT_EQ(search(data, from), plainly(data, from));
    }
  }
}

}  // namespace
}  // namespace plexa_test
