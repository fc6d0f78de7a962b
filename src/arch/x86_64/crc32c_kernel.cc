// Compiles the CRC-32C loop for the SSE4.2 instruction.
// SPDX-License-Identifier: Apache-2.0
#include "arch/x86_64/crc.hpp"

#include "arch/x86_64/crc32c_step.hpp"

namespace vorn::arch {
namespace {

using Loop = Crc32cLoop<Step>;

} // namespace

std::uint32_t crc32c_narrow(std::uint32_t crc, const void *data, std::size_t length) {
  return Loop::run(crc, Loop::reader(data), length);
}

std::uint32_t crc32c_copy_narrow(std::uint32_t crc, void *to, const void *from,
                                 std::size_t length) {
  return Loop::run(crc, Loop::copier(to, from), length);
}

} // namespace vorn::arch
