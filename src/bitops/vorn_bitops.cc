#include "vorn_bitops.h"

#include <algorithm>
#include <bit>
#include <cstdint>

namespace vorn::bitops {
namespace {

static_assert(std::endian::native == std::endian::little);

constexpr std::uint64_t kWordBits = 64;

using Byte = unsigned char;
using Word [[gnu::may_alias]] = std::uint64_t;

// What a word is flipped with, so that the bits sought are 1.
constexpr std::uint64_t kSeekSet = 0;
constexpr std::uint64_t kSeekClear = ~std::uint64_t{0};

// Updates may run beside a search, so every read is an atomic one: of the whole word, which is an
// ordinary load, or byte by byte where the word is cut or not aligned.
std::uint64_t read_word(const Byte *bytes, std::uint64_t nbits) {
  const bool aligned = reinterpret_cast<std::uintptr_t>(bytes) % sizeof(Word) == 0;
  if (aligned && nbits >= kWordBits)
    return __atomic_load_n(reinterpret_cast<const Word *>(bytes), __ATOMIC_RELAXED);

  const std::uint64_t used = std::min(nbits, kWordBits);
  std::uint64_t word = 0;
  for (std::uint64_t shift = 0; shift < used; shift += 8)
    word |= std::uint64_t{__atomic_load_n(bytes + shift / 8, __ATOMIC_RELAXED)} << shift;
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
  // A cut word is 0 behind the size: a search for a clear bit that finds none ends just there.
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

// Both return the bit's old value.
bool set(void *bitmap, std::uint32_t nr) {
  Byte *byte = static_cast<Byte *>(bitmap) + nr / 8;
  const int old = __atomic_fetch_or(byte, static_cast<Byte>(mask_of(nr)), __ATOMIC_RELAXED);
  return (old & mask_of(nr)) != 0;
}

bool clear(void *bitmap, std::uint32_t nr) {
  Byte *byte = static_cast<Byte *>(bitmap) + nr / 8;
  const int old = __atomic_fetch_and(byte, static_cast<Byte>(~mask_of(nr)), __ATOMIC_RELAXED);
  return (old & mask_of(nr)) != 0;
}

} // namespace
} // namespace vorn::bitops

uint64_t vorn_bitop_read_u64(const void *p, uint64_t nbits) {
  if (p == nullptr) return 0;
  return vorn::bitops::read_word(static_cast<const unsigned char *>(p), nbits);
}

uint64_t find_first_bit(const void *addr, uint64_t size) {
  return vorn::bitops::find(addr, size, 0, vorn::bitops::kSeekSet);
}

uint64_t find_first_zero_bit(const void *addr, uint64_t size) {
  return vorn::bitops::find(addr, size, 0, vorn::bitops::kSeekClear);
}

uint64_t find_next_bit(const void *addr, uint64_t size, uint64_t offset) {
  return vorn::bitops::find(addr, size, offset, vorn::bitops::kSeekSet);
}

uint64_t vorn_find_next_zero_bit(const void *addr, uint64_t size, uint64_t offset) {
  return vorn::bitops::find(addr, size, offset, vorn::bitops::kSeekClear);
}

int vorn_bitop_findfirstsetbit(const void *addr, uint32_t nbits, uint32_t *out) {
  return vorn::bitops::find_below(addr, nbits, 0, vorn::bitops::kSeekSet, out);
}

int vorn_bitop_findfirstclrbit(const void *addr, uint32_t nbits, uint32_t *out) {
  return vorn::bitops::find_below(addr, nbits, 0, vorn::bitops::kSeekClear, out);
}

int vorn_bitop_findnextsetbit(const void *addr, int32_t nbits, uint32_t start, uint32_t *out) {
  if (nbits < 0) return 0;
  return vorn::bitops::find_below(addr, static_cast<uint32_t>(nbits), start, vorn::bitops::kSeekSet,
                                  out);
}

void vorn_set_bit(uint32_t nr, void *addr) { vorn::bitops::set(addr, nr); }

int vorn_clear_bit(uint32_t nr, void *addr) {
  vorn::bitops::clear(addr, nr);
  return vorn::bitops::mask_of(nr);
}

int vorn_test_and_set_bit(uint32_t nr, void *addr) { return vorn::bitops::set(addr, nr); }
int vorn_test_and_clear_bit(uint32_t nr, void *addr) { return vorn::bitops::clear(addr, nr); }

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
