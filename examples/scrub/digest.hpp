// Condenses the checksums of a file's blocks, to tell whether two files have the same content.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_DIGEST_HPP
#define SCRUB_DIGEST_HPP

#include <cstdint>

#include "checksums.hpp"
#include "vorn_crc.h"

namespace scrub {

// A CRC of the blocks' CRCs, and one of their guards.
class Digest {
public:
  void add(const Checksums &block) {
    crcs_ = vorn_crc32cContinue(crcs_, &block.crc, sizeof block.crc);
    guards_ =
        vorn_crc32cContinue(guards_, block.guards.data(),
                            static_cast<std::uint32_t>(block.sectors * sizeof block.guards[0]));
  }

  std::uint64_t value() const { return std::uint64_t{crcs_} << 32 | guards_; }

private:
  std::uint32_t crcs_ = 0xFFFFFFFF;
  std::uint32_t guards_ = 0xFFFFFFFF;
};

} // namespace scrub

#endif
