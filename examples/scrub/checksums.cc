// Computes the checksums of a block.
// SPDX-License-Identifier: Apache-2.0
#include "checksums.hpp"

#include "vorn_crc.h"

namespace scrub {

Checksums checksums_of(Bytes block) {
  Checksums sums;
  sums.crc = vorn_crc32c(block.data(), static_cast<std::uint32_t>(block.size()));
  sums.sectors = sector_count(block.size());
  for (std::size_t i = 0; i < sums.sectors; ++i) {
    const Bytes rest = block.subspan(i * kSectorSize);
    sums.guards[i] = vorn_crc16(0, rest.data(), std::min(rest.size(), kSectorSize));
  }
  return sums;
}

} // namespace scrub
