// Compiles the CRC-32C loop for the EOR3 instruction too.
// SPDX-License-Identifier: Apache-2.0
#include "arch/aarch64/crc.hpp"

#include "arch/aarch64/crc32c_mix.hpp"

namespace vorn::arch {
namespace {

// A Neoverse V2 begins four vector instructions in a cycle, of which one is EOR3. Folds that all
// add by two instructions take four for a vector. With EOR3 they take three, but then EOR3 alone
// takes a cycle for a vector. Two of three folds use EOR3.
struct Sum {
  template <std::size_t kIndex>
  [[gnu::always_inline]] static uint8x16_t add(uint8x16_t a, uint8x16_t b, uint8x16_t c) {
    if constexpr (kIndex % 3 != 1) return veor3q_u8(a, b, c);
    uint8x16_t sum = veorq_u8(a, b);
    asm("" : "+w"(sum)); // else the compiler makes an EOR3 of both
    return veorq_u8(sum, c);
  }
};

// It begins one step in a cycle. A round makes nine steps, and in the same time 22 multiplications
// and 15 additions.
struct Mix {
  using Step = CrcStep;
  using Vector = CrcVector<Sum>;
  static constexpr std::size_t kVectors = 11;
  static constexpr std::size_t kSteps = 3;
  static constexpr std::size_t kRest = 96; // takes as long as to reduce the stretch
};

using Loop = Crc32cLoop<CrcStep>;
using MixedLoop = Crc32cMixedLoop<Mix>;

static_assert(kCrc32cSha3Min >= MixedLoop::kMin);

} // namespace

std::uint32_t crc32c_sha3(std::uint32_t crc, const void *data, std::size_t length) {
  return MixedLoop::run(crc, Loop::reader(data), length);
}

std::uint32_t crc32c_copy_sha3(std::uint32_t crc, void *to, const void *from, std::size_t length) {
  return MixedLoop::run(crc, Loop::copier(to, from), length);
}

} // namespace vorn::arch
