#include "vorn_bitops.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstring>
#include <endian.h>
#include <random>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<unsigned char>;

std::size_t covered(std::uint64_t bits) { return static_cast<std::size_t>((bits + 7) / 8); }

bool bit(const unsigned char *bitmap, std::uint64_t nr) { return bitmap[nr / 8] >> nr % 8 & 1; }

// The search by looking at every bit.
std::uint64_t naive(const Bytes &bitmap, std::uint64_t size, std::uint64_t offset, bool wanted) {
  for (std::uint64_t nr = offset; nr < size; ++nr) {
    if (bit(bitmap.data(), nr) == wanted) return nr;
  }
  return size;
}

// A page between two that cannot be touched.
class GuardedPage {
public:
  GuardedPage() : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
    void *start = mmap(nullptr, 3 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    begin_ = static_cast<unsigned char *>(start) + page_;
    mprotect(begin_, page_, PROT_READ | PROT_WRITE);
  }
  GuardedPage(const GuardedPage &) = delete;
  GuardedPage &operator=(const GuardedPage &) = delete;
  ~GuardedPage() { munmap(begin_ - page_, 3 * page_); }

  unsigned char *at_begin(const Bytes &bytes) const { return place(begin_, bytes); }
  unsigned char *at_end(const Bytes &bytes) const { return place(end() - bytes.size(), bytes); }
  unsigned char *end() const { return begin_ + page_; }

private:
  static unsigned char *place(unsigned char *at, const Bytes &bytes) {
    if (!bytes.empty()) std::memcpy(at, bytes.data(), bytes.size());
    return at;
  }

  std::size_t page_;
  unsigned char *begin_;
};

void expect_searches(const unsigned char *at, const Bytes &model, std::uint64_t size,
                     std::uint64_t offset) {
  const std::uint64_t set = naive(model, size, offset, true);
  const std::uint64_t clear = naive(model, size, offset, false);
  SCOPED_TRACE(testing::Message() << "size " << size << " offset " << offset);
  EXPECT_EQ(find_next_bit(at, size, offset), set);
  EXPECT_EQ(vorn_find_next_zero_bit(at, size, offset), clear);

  std::uint32_t found = 12345;
  EXPECT_EQ(vorn_bitop_findnextsetbit(at, static_cast<std::int32_t>(size),
                                      static_cast<std::uint32_t>(offset), &found),
            set < size);
  EXPECT_EQ(found, set < size ? set : 12345);
  if (offset != 0) return;

  EXPECT_EQ(find_first_bit(at, size), set);
  EXPECT_EQ(find_first_zero_bit(at, size), clear);
  const auto size32 = static_cast<std::uint32_t>(size);
  found = 12345;
  EXPECT_EQ(vorn_bitop_findfirstsetbit(at, size32, &found), set < size);
  EXPECT_EQ(found, set < size ? set : 12345);
  found = 12345;
  EXPECT_EQ(vorn_bitop_findfirstclrbit(at, size32, &found), clear < size);
  EXPECT_EQ(found, clear < size ? clear : 12345);
}

void expect_read(const unsigned char *at, const Bytes &model, std::uint64_t size) {
  std::uint64_t word = 0;
  for (std::uint64_t nr = 0; nr < std::min<std::uint64_t>(size, 64); ++nr)
    word |= std::uint64_t{bit(model.data(), nr)} << nr;
  EXPECT_EQ(vorn_bitop_read_u64(at, size), word) << "size " << size;
}

void expect_everything(const GuardedPage &page, const Bytes &model, std::uint64_t size) {
  for (const unsigned char *at : {page.at_begin(model), page.at_end(model)}) {
    expect_read(at, model, size);
    for (std::uint64_t offset = 0; offset <= size + 1; ++offset)
      expect_searches(at, model, size, offset);
  }
}

} // namespace

// Bitmaps between guard pages: the end of an odd number of bytes is an unaligned start as well.
TEST(Bitops, SearchesAgreeWithALookAtEveryBit) {
  const GuardedPage page;
  std::mt19937_64 random(5);
  const std::uint64_t sizes[] = {0,  1,  7,  8,   9,   12,  31,  63, 64,
                                 65, 70, 72, 127, 128, 129, 193, 256};
  for (const std::uint64_t size : sizes) {
    const std::size_t bytes = covered(size);
    expect_everything(page, Bytes(bytes, 0x00), size);
    expect_everything(page, Bytes(bytes, 0xFF), size);
    for (const unsigned one_in : {2, 40}) {
      Bytes sparse(bytes, 0);
      for (std::uint64_t nr = 0; nr < bytes * 8; ++nr) {
        if (random() % one_in == 0) sparse[nr / 8] |= static_cast<unsigned char>(1 << nr % 8);
      }
      expect_everything(page, sparse, size);
      for (unsigned char &byte : sparse)
        byte = static_cast<unsigned char>(~byte);
      expect_everything(page, sparse, size);
    }
  }
}

TEST(Bitops, BitsBehindTheSizeDoNotCount) {
  const unsigned char set_behind[2] = {0x00, 0xF0};
  EXPECT_EQ(find_first_bit(set_behind, 12), 12u);
  EXPECT_EQ(vorn_bitop_read_u64(set_behind, 12), 0u);
  const unsigned char clear_behind[2] = {0xFF, 0x0F};
  EXPECT_EQ(find_first_zero_bit(clear_behind, 12), 12u);
  EXPECT_EQ(vorn_bitop_read_u64(clear_behind, 12), 0x0FFFu);
}

TEST(Bitops, NothingIsReadFromAnOffsetNotBelowTheSize) {
  const GuardedPage page;
  const unsigned char *forbidden = page.end();
  std::uint32_t found = 9;
  EXPECT_EQ(find_next_bit(forbidden, 70, 70), 70u);
  EXPECT_EQ(vorn_find_next_zero_bit(forbidden, 70, UINT64_MAX), 70u);
  EXPECT_EQ(find_first_bit(forbidden, 0), 0u);
  EXPECT_EQ(find_first_zero_bit(forbidden, 0), 0u);
  EXPECT_EQ(vorn_bitop_read_u64(forbidden, 0), 0u);
  EXPECT_EQ(vorn_bitop_findnextsetbit(forbidden, -1, 0, &found), 0);
  EXPECT_EQ(vorn_bitop_findnextsetbit(forbidden, INT32_MIN, 0, &found), 0);
  EXPECT_EQ(vorn_bitop_findnextsetbit(forbidden, 8, UINT32_MAX, &found), 0);
  EXPECT_EQ(found, 9u);
}

TEST(Bitops, NullFindsNothing) {
  const unsigned char all[1] = {0xFF};
  std::uint32_t found = 9;
  EXPECT_EQ(vorn_bitop_read_u64(nullptr, 64), 0u);
  EXPECT_EQ(find_first_bit(nullptr, 70), 70u);
  EXPECT_EQ(find_first_zero_bit(nullptr, 70), 70u);
  EXPECT_EQ(find_next_bit(nullptr, 70, 3), 70u);
  EXPECT_EQ(vorn_find_next_zero_bit(nullptr, 70, 3), 70u);
  EXPECT_EQ(vorn_bitop_findfirstsetbit(nullptr, 8, &found), 0);
  EXPECT_EQ(vorn_bitop_findfirstclrbit(nullptr, 8, &found), 0);
  EXPECT_EQ(vorn_bitop_findnextsetbit(nullptr, 8, 0, &found), 0);
  EXPECT_EQ(found, 9u);
  EXPECT_EQ(vorn_bitop_findfirstsetbit(all, 8, nullptr), 0);
  EXPECT_EQ(vorn_bitop_findfirstclrbit(all, 8, nullptr), 0);
  EXPECT_EQ(vorn_bitop_findnextsetbit(all, 8, 0, nullptr), 0);
}

TEST(Bitops, UpdatesChangeOneBitAndTellWhatItWas) {
  Bytes bitmap(3, 0);
  EXPECT_EQ(vorn_test_and_set_bit(9, bitmap.data()), 0);
  EXPECT_EQ(vorn_test_and_set_bit(9, bitmap.data()), 1);
  EXPECT_EQ(bitmap, (Bytes{0, 2, 0}));
  vorn_set_bit(23, bitmap.data());
  EXPECT_EQ(bitmap, (Bytes{0, 2, 0x80}));
  EXPECT_EQ(vorn_clear_bit(9, bitmap.data()), 2);
  EXPECT_EQ(vorn_clear_bit(9, bitmap.data()), 2);
  EXPECT_EQ(vorn_clear_bit(7, bitmap.data()), 0x80);
  EXPECT_EQ(bitmap, (Bytes{0, 0, 0x80}));
  EXPECT_EQ(vorn_test_and_clear_bit(23, bitmap.data()), 1);
  EXPECT_EQ(vorn_test_and_clear_bit(23, bitmap.data()), 0);
  EXPECT_EQ(bitmap, Bytes(3, 0));
}

// Every thread owns one bit of a byte and always finds it as it left it; a search may run
// meanwhile.
TEST(Bitops, UpdatesOfOneByteLoseNothing) {
  alignas(8) unsigned char bitmap[9] = {};
  std::atomic<int> lost{0};
  std::barrier start(8);
  std::vector<std::thread> threads;
  for (std::uint32_t own = 0; own < 8; ++own) {
    threads.emplace_back([&bitmap, &lost, &start, own] {
      const std::uint32_t nr = 64 + own;
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
  }
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(bitmap[8], 0x55);
}

TEST(Bitops, CountsSetBits) {
  std::mt19937_64 random(7);
  std::vector<std::uint64_t> values = {0, 1, 0x80000000, 0xFFFFFFFF, 1ull << 63, UINT64_MAX};
  for (int i = 0; i < 1000; ++i)
    values.push_back(random());
  for (const std::uint64_t value : values) {
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    for (int nr = 0; nr < 32; ++nr) {
      low += value >> nr & 1;
      high += value >> (nr + 32) & 1;
    }
    EXPECT_EQ(vorn_hweight32(static_cast<std::uint32_t>(value)), low) << value;
    EXPECT_EQ(vorn_hweight64(value), low + high) << value;
  }
}

TEST(Bitops, ByteOrder) {
  for (const std::uint64_t value : {0x0102030405060708ull, 0xFEDCBA9876543210ull, 0x80ull}) {
    const auto value16 = static_cast<std::uint16_t>(value);
    const auto value32 = static_cast<std::uint32_t>(value);
    EXPECT_EQ(vorn_endian_cputolittle16(value16), htole16(value16));
    EXPECT_EQ(vorn_endian_cputolittle32(value32), htole32(value32));
    EXPECT_EQ(vorn_endian_cputolittle64(value), htole64(value));
    EXPECT_EQ(vorn_endian_littletocpu16(value16), le16toh(value16));
    EXPECT_EQ(vorn_endian_littletocpu32(value32), le32toh(value32));
    EXPECT_EQ(vorn_endian_littletocpu64(value), le64toh(value));
    EXPECT_EQ(vorn_endian_cputobig16(value16), htobe16(value16));
    EXPECT_EQ(vorn_endian_cputobig32(value32), htobe32(value32));
    EXPECT_EQ(vorn_endian_cputobig64(value), htobe64(value));
    EXPECT_EQ(vorn_endian_bigtocpu16(value16), be16toh(value16));
    EXPECT_EQ(vorn_endian_bigtocpu32(value32), be32toh(value32));
    EXPECT_EQ(vorn_endian_bigtocpu64(value), be64toh(value));
  }
}
