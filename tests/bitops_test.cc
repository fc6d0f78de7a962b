// Tests bit searches and changes.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_bitops.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <endian.h>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/guarded_page.hpp"
#include "support/threads.hpp"

namespace {

using Bytes = std::vector<unsigned char>;

bool bit(const Bytes &bitmap, std::uint64_t nr) { return bitmap[nr / 8] >> nr % 8 & 1; }

// Searches by reading every bit.
std::uint64_t naive(const Bytes &bitmap, std::uint64_t size, std::uint64_t offset, bool wanted) {
  for (std::uint64_t nr = offset; nr < size; ++nr) {
    if (bit(bitmap, nr) == wanted) return nr;
  }
  return size;
}

void expect_searches(const unsigned char *at, const Bytes &model, std::uint64_t size,
                     std::uint64_t offset) {
  SCOPED_TRACE(testing::Message() << "size " << size << " offset " << offset);
  const std::uint64_t set = naive(model, size, offset, true);
  const std::uint64_t clear = naive(model, size, offset, false);
  const auto size32 = static_cast<std::uint32_t>(size);
  // Adapts the searches that return whether there is a bit to those that return the size if there
  // is none.
  const auto found_by = [size32](auto search, auto... arguments) {
    std::uint32_t found = size32;
    const int result = search(arguments..., &found);
    EXPECT_EQ(result, found < size32);
    return found;
  };
  EXPECT_EQ(find_next_bit(at, size, offset), set);
  EXPECT_EQ(vorn_find_next_zero_bit(at, size, offset), clear);
  EXPECT_EQ(found_by(vorn_bitop_findnextsetbit, at, size32, offset), set);
  if (offset != 0) return;
  EXPECT_EQ(find_first_bit(at, size), set);
  EXPECT_EQ(find_first_zero_bit(at, size), clear);
  EXPECT_EQ(found_by(vorn_bitop_findfirstsetbit, at, size32), set);
  EXPECT_EQ(found_by(vorn_bitop_findfirstclrbit, at, size32), clear);
}

// At both ends of the page: at the end, an odd number of bytes has an unaligned start.
void expect_everything(const GuardedPage &page, const Bytes &model, std::uint64_t size) {
  std::uint64_t word = 0;
  for (std::uint64_t nr = 0; nr < std::min<std::uint64_t>(size, 64); ++nr)
    word |= std::uint64_t{bit(model, nr)} << nr;
  for (unsigned char *at : {page.data, page.end() - model.size()}) {
    std::copy(model.begin(), model.end(), at);
    EXPECT_EQ(vorn_bitop_read_u64(at, size), word) << "size " << size;
    for (std::uint64_t offset = 0; offset <= size + 1; ++offset)
      expect_searches(at, model, size, offset);
  }
}

} // namespace

TEST(Bitops, SearchesAgreeWithALookAtEveryBit) {
  const GuardedPage page;
  std::mt19937_64 random(5);
  for (const std::uint64_t size : {0, 1, 7, 8, 9, 12, 31, 63, 64, 65, 70, 127, 128, 129, 193}) {
    Bytes bitmap(static_cast<std::size_t>((size + 7) / 8));
    for (const unsigned one_in : {1, 2, 40, 10000}) {
      for (unsigned nr = 0; nr < 8 * bitmap.size(); ++nr) {
        if ((random() % one_in == 0) != bit(bitmap, nr)) bitmap[nr / 8] ^= 1 << nr % 8;
      }
      expect_everything(page, bitmap, size);
      for (unsigned char &byte : bitmap)
        byte = static_cast<unsigned char>(~byte);
      expect_everything(page, bitmap, size);
    }
  }
}

// The bitmap does not exist: an offset that is not below the size reads nothing.
TEST(Bitops, SearchesOfAnEmptyRangeReadNoMemory) {
  const GuardedPage page;
  std::uint32_t found = 9;
  EXPECT_EQ(find_next_bit(page.end(), 70, 70), 70u);
  EXPECT_EQ(vorn_find_next_zero_bit(page.end(), 70, UINT64_MAX), 70u);
  EXPECT_EQ(vorn_bitop_findnextsetbit(page.end(), INT32_MIN, 0, &found), 0);
  EXPECT_EQ(find_next_bit(nullptr, 70, 3), 70u);
  EXPECT_EQ(vorn_bitop_read_u64(nullptr, 64), 0u);
  EXPECT_EQ(vorn_bitop_findnextsetbit(nullptr, 8, 0, &found), 0);
  EXPECT_EQ(found, 9u);
}

// Each thread owns a bit of a byte and always finds it as it left it, even during a search.
TEST(Bitops, ConcurrentUpdatesOfOneByteAreAllKept) {
  alignas(8) unsigned char bitmap[9] = {};
  std::atomic<int> lost{0};
  std::barrier start(8);
  run_threads(8, [&](int own) {
    const std::uint32_t nr = 64 + static_cast<std::uint32_t>(own);
    start.arrive_and_wait();
    for (int round = 0; round < 20000; ++round) {
      if (vorn_test_and_set_bit(nr, bitmap) != 0) ++lost;
      if (find_next_bit(bitmap, 72, nr) != nr) ++lost;
      if (vorn_test_and_clear_bit(nr, bitmap) != 1) ++lost;
      vorn_set_bit(nr, bitmap);
      if (vorn_find_next_zero_bit(bitmap, 72, nr) == nr) ++lost;
      vorn_clear_bit(nr, bitmap);
    }
    if (own % 2 == 0) vorn_set_bit(nr, bitmap);
  });
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(bitmap[8], 0x55);
}

TEST(Bitops, CountAndByteOrder) {
  constexpr std::uint64_t kValue = 0xFEDCBA9876543210;
  EXPECT_EQ(vorn_hweight32(0x80000011), 3u);
  EXPECT_EQ(vorn_hweight64(~kValue), 32u);
  EXPECT_EQ(vorn_endian_cputobig16(0x3210), htobe16(0x3210));
  EXPECT_EQ(vorn_endian_bigtocpu32(0x76543210), be32toh(0x76543210));
  EXPECT_EQ(vorn_endian_bigtocpu64(kValue), be64toh(kValue));
  EXPECT_EQ(vorn_endian_cputolittle64(kValue), htole64(kValue));
}
