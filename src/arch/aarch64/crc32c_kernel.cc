// Compiles the CRC-32C loops for the CRC32C and PMULL instructions.
// SPDX-License-Identifier: Apache-2.0
#include "arch/aarch64/crc.hpp"

#include "arch/aarch64/crc32c_mix.hpp"

namespace vorn::arch {
namespace {

struct Sum {
  template <std::size_t>
  [[gnu::always_inline]] static uint8x16_t add(uint8x16_t a, uint8x16_t b, uint8x16_t c) {
    return veorq_u8(veorq_u8(a, b), c);
  }
};

// A Neoverse N1 begins one multiplication and one step in a cycle. Eight multiplications of a round
// take longer than its six steps; still, with fewer vectors for the steps (6 for 4, 5 for 3) a byte
// takes more, because additions get in the way of more multiplications.
struct Mix {
  using Step = CrcStep;
  using Vector = CrcVector<Sum>;
  static constexpr std::size_t kVectors = 4;
  static constexpr std::size_t kSteps = 2;
  static constexpr std::size_t kRest = 96; // takes as long as to reduce the stretch
};

using Loop = Crc32cLoop<CrcStep>;
using MixedLoop = Crc32cMixedLoop<Mix>;

// The length of a disk sector.
constexpr std::size_t kSector = 512;

// Not inlined, so that short inputs save no registers.
template <class Source>
[[gnu::noinline]] std::uint32_t run_long(std::uint32_t crc, Source source, std::size_t length) {
  if (length == kSector) return MixedLoop::run_exactly<kSector>(crc, source);
  return MixedLoop::run(crc, source, length);
}

template <class Source> [[gnu::always_inline]] inline std::uint32_t
run(std::uint32_t crc, Source source, std::size_t length) {
  if (length >= kCrc32cMixedMin) [[unlikely]]
    return run_long(crc, source, length);
  return Loop::run(crc, source, length);
}

static_assert(kCrc32cMixedMin >= MixedLoop::kMin);

} // namespace

std::uint32_t crc32c_plain(std::uint32_t crc, const void *data, std::size_t length) {
  return run(crc, Loop::reader(data), length);
}

std::uint32_t crc32c_copy_plain(std::uint32_t crc, void *to, const void *from, std::size_t length) {
  return run(crc, Loop::copier(to, from), length);
}

} // namespace vorn::arch
