// Searches, changes and counts bits, and converts byte orders.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_bitops.h"

#include <algorithm>
#include <bit>
#include <cstdint>

#include "base/atomic_word.hpp"

namespace vorn::bitops {
namespace {

static_assert(std::endian::native == std::endian::little);

constexpr std::uint64_t kWordBits = 64;

using Byte = unsigned char;
using Word = std::uint64_t;

// A word is combined with this by exclusive or, so that the bits sought are 1.
constexpr std::uint64_t kSeekSet = 0;
constexpr std::uint64_t kSeekClear = ~std::uint64_t{0};

// Other threads may change bits during a search, so each read is atomic: of the whole word, which
// is an ordinary load, or byte by byte if the word is incomplete or not aligned.
std::uint64_t read_word(const Byte *bytes, std::uint64_t nbits) {
  const bool aligned = reinterpret_cast<std::uintptr_t>(bytes) % sizeof(Word) == 0;
  if (aligned && nbits >= kWordBits)
    return atomic_word(*reinterpret_cast<const Word *>(bytes)).load(std::memory_order_relaxed);

  const std::uint64_t used = std::min(nbits, kWordBits);
  std::uint64_t word = 0;
  for (std::uint64_t shift = 0; shift < used; shift += 8)
    word |= std::uint64_t{atomic_word(bytes[shift / 8]).load(std::memory_order_relaxed)} << shift;
  return used == kWordBits ? word : word & ((std::uint64_t{1} << used) - 1);
}

std::uint64_t find(const void *bitmap, std::uint64_t size, std::uint64_t offset,
                   std::uint64_t flip) {
  if (bitmap == nullptr || offset >= size) return size;
  const auto *bytes = static_cast<const Byte *>(bitmap);
  std::uint64_t at = offset - offset % kWordBits;
  const std::uint64_t below_offset = (std::uint64_t{1} << offset % kWordBits) - 1;
  std::uint64_t word = (read_word(bytes + at / 8, size - at) ^ flip) & ~below_offset;
  while (word == 0) {
    if (size - at <= kWordBits) return size;
    at += kWordBits;
    word = read_word(bytes + at / 8, size - at) ^ flip;
  }
  // The missing bits of an incomplete word are 0: a search for a clear bit ends at them.
  return at + static_cast<std::uint64_t>(std::countr_zero(word));
}

int find_below(const void *bitmap, std::uint32_t nbits, std::uint32_t start, std::uint64_t flip,
               std::uint32_t *out) {
  if (out == nullptr) return 0;
  const std::uint64_t bit = find(bitmap, nbits, start, flip);
  if (bit >= nbits) return 0;
  *out = static_cast<std::uint32_t>(bit);
  return 1;
}

int mask_of(std::uint32_t nr) { return 1 << nr % 8; }

std::atomic_ref<Byte> byte_of(void *bitmap, std::uint32_t nr) {
  return atomic_word(static_cast<Byte *>(bitmap)[nr / 8]);
}

// Return the old value of the bit.
bool set(void *bitmap, std::uint32_t nr) {
  const int old =
      byte_of(bitmap, nr).fetch_or(static_cast<Byte>(mask_of(nr)), std::memory_order_relaxed);
  return (old & mask_of(nr)) != 0;
}

bool clear(void *bitmap, std::uint32_t nr) {
  const int old =
      byte_of(bitmap, nr).fetch_and(static_cast<Byte>(~mask_of(nr)), std::memory_order_relaxed);
  return (old & mask_of(nr)) != 0;
}

} // namespace
} // namespace vorn::bitops

using namespace vorn::bitops;

uint64_t vorn_bitop_read_u64(const void *p, uint64_t nbits) {
  if (p == nullptr) return 0;
  return read_word(static_cast<const unsigned char *>(p), nbits);
}

uint64_t find_first_bit(const void *addr, uint64_t size) { return find(addr, size, 0, kSeekSet); }

uint64_t find_first_zero_bit(const void *addr, uint64_t size) {
  return find(addr, size, 0, kSeekClear);
}

uint64_t find_next_bit(const void *addr, uint64_t size, uint64_t offset) {
  return find(addr, size, offset, kSeekSet);
}

uint64_t vorn_find_next_zero_bit(const void *addr, uint64_t size, uint64_t offset) {
  return find(addr, size, offset, kSeekClear);
}

int vorn_bitop_findfirstsetbit(const void *addr, uint32_t nbits, uint32_t *out) {
  return find_below(addr, nbits, 0, kSeekSet, out);
}

int vorn_bitop_findfirstclrbit(const void *addr, uint32_t nbits, uint32_t *out) {
  return find_below(addr, nbits, 0, kSeekClear, out);
}

int vorn_bitop_findnextsetbit(const void *addr, int32_t nbits, uint32_t start, uint32_t *out) {
  if (nbits < 0) return 0;
  return find_below(addr, static_cast<uint32_t>(nbits), start, kSeekSet, out);
}

void vorn_set_bit(uint32_t nr, void *addr) { set(addr, nr); }

int vorn_clear_bit(uint32_t nr, void *addr) {
  clear(addr, nr);
  return mask_of(nr);
}

int vorn_test_and_set_bit(uint32_t nr, void *addr) { return set(addr, nr); }
int vorn_test_and_clear_bit(uint32_t nr, void *addr) { return clear(addr, nr); }

uint32_t vorn_hweight32(uint32_t x) { return static_cast<uint32_t>(std::popcount(x)); }
uint32_t vorn_hweight64(uint64_t x) { return static_cast<uint32_t>(std::popcount(x)); }

uint16_t vorn_endian_cputolittle16(uint16_t x) { return x; }
uint32_t vorn_endian_cputolittle32(uint32_t x) { return x; }
uint64_t vorn_endian_cputolittle64(uint64_t x) { return x; }
uint16_t vorn_endian_littletocpu16(uint16_t x) { return x; }
uint32_t vorn_endian_littletocpu32(uint32_t x) { return x; }
uint64_t vorn_endian_littletocpu64(uint64_t x) { return x; }
uint16_t vorn_endian_cputobig16(uint16_t x) { return __builtin_bswap16(x); }
uint32_t vorn_endian_cputobig32(uint32_t x) { return __builtin_bswap32(x); }
uint64_t vorn_endian_cputobig64(uint64_t x) { return __builtin_bswap64(x); }
uint16_t vorn_endian_bigtocpu16(uint16_t x) { return __builtin_bswap16(x); }
uint32_t vorn_endian_bigtocpu32(uint32_t x) { return __builtin_bswap32(x); }
uint64_t vorn_endian_bigtocpu64(uint64_t x) { return __builtin_bswap64(x); }
