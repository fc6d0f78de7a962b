// Compiles the CRC-16 loop for SSE registers.
// SPDX-License-Identifier: Apache-2.0
#include "arch/x86_64/crc.hpp"

#include "arch/x86_64/crc16_vector.hpp"

namespace vorn::arch {

std::uint16_t crc16_narrow(std::uint16_t crc, const void *data, std::size_t length) {
  return Crc16Loop<Vector16>::run(crc, static_cast<const std::uint8_t *>(data), length);
}

} // namespace vorn::arch
