#include "arch/crc.hpp"

#include <nmmintrin.h>
#include <wmmintrin.h>

#include "arch/crc32c_loop.hpp"

namespace vorn::arch {
namespace {

struct Step {
  // As wide as the instruction's own result, so that nothing is narrowed between two steps.
  using Register = std::uint64_t;

  static Register add(Register crc, std::uint64_t word) { return _mm_crc32_u64(crc, word); }
  static Register add(Register crc, std::uint32_t word) {
    return _mm_crc32_u32(static_cast<std::uint32_t>(crc), word);
  }
  static Register add(Register crc, std::uint16_t word) {
    return _mm_crc32_u16(static_cast<std::uint32_t>(crc), word);
  }
  static Register add(Register crc, std::uint8_t word) {
    return _mm_crc32_u8(static_cast<std::uint32_t>(crc), word);
  }
  static std::uint64_t multiply(Register crc, std::uint32_t constant) {
    const __m128i product =
        _mm_clmulepi64_si128(_mm_cvtsi64_si128(static_cast<long long>(crc)),
                             _mm_cvtsi32_si128(static_cast<int>(constant)), 0x00);
    return static_cast<std::uint64_t>(_mm_cvtsi128_si64(product));
  }
};

using Loop = Crc32cLoop<Step>;

} // namespace

std::uint32_t crc32c(std::uint32_t crc, const void *data, std::size_t length) {
  return Loop::run(crc, Loop::Reader{static_cast<const std::uint8_t *>(data)}, length);
}

std::uint32_t crc32c_copy(std::uint32_t crc, void *to, const void *from, std::size_t length) {
  return Loop::run(
      crc,
      Loop::Copier{static_cast<const std::uint8_t *>(from), static_cast<std::uint8_t *>(to)},
      length);
}

} // namespace vorn::arch
