// Declares the checksums of a block: a CRC-32C over all of it, and a T10-DIF guard (CRC-16) over
// each of its sectors, which show where in the block a fault is.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_CHECKSUMS_HPP
#define SCRUB_CHECKSUMS_HPP

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace scrub {

inline constexpr std::size_t kBlockSize = 4096;
inline constexpr std::size_t kSectorSize = 512;
inline constexpr std::size_t kSectorsPerBlock = kBlockSize / kSectorSize;

using Bytes = std::span<const std::byte>;

struct Checksums {
  std::uint32_t crc = 0;
  std::uint32_t sectors = 0;
  std::array<std::uint16_t, kSectorsPerBlock> guards{}; // 0 beyond the sectors

  bool operator==(const Checksums &) const = default;
};

// block has at most kBlockSize bytes. Its last sector may be short.
Checksums checksums_of(Bytes block);

// Returns the number of blocks of a file of size bytes. The last block may be short.
constexpr std::uint64_t block_count(std::uint64_t size) {
  return size / kBlockSize + (size % kBlockSize != 0);
}

constexpr std::size_t block_length(std::uint64_t size, std::uint64_t block) {
  return static_cast<std::size_t>(std::min<std::uint64_t>(size - block * kBlockSize, kBlockSize));
}

constexpr std::uint32_t sector_count(std::size_t length) {
  return static_cast<std::uint32_t>((length + kSectorSize - 1) / kSectorSize);
}

} // namespace scrub

#endif
