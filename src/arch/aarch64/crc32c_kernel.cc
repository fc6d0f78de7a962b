// Compiles the CRC-32C loop for the CRC32C instructions.
// SPDX-License-Identifier: Apache-2.0
#include "arch/aarch64/crc.hpp"

#include <arm_acle.h>
#include <arm_neon.h>

#include "arch/crc32c_loop.hpp"

namespace vorn::arch {
namespace {

struct Step {
  using Register = std::uint32_t;

  static Register add(Register crc, std::uint64_t word) { return __crc32cd(crc, word); }
  static Register add(Register crc, std::uint32_t word) { return __crc32cw(crc, word); }
  static Register add(Register crc, std::uint16_t word) { return __crc32ch(crc, word); }
  static Register add(Register crc, std::uint8_t word) { return __crc32cb(crc, word); }
  static std::uint64_t multiply(Register crc, std::uint32_t constant) {
    return vgetq_lane_u64(vreinterpretq_u64_p128(vmull_p64(crc, constant)), 0);
  }
};

using Loop = Crc32cLoop<Step>;

} // namespace

std::uint32_t crc32c(std::uint32_t crc, const void *data, std::size_t length) {
  return Loop::run(crc, Loop::reader(data), length);
}

std::uint32_t crc32c_copy(std::uint32_t crc, void *to, const void *from, std::size_t length) {
  return Loop::run(crc, Loop::copier(to, from), length);
}

} // namespace vorn::arch
