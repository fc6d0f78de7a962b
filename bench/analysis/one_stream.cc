// Computes CRC-32C by one chain of the instruction, eight bytes at a step, for the analysis.
// SPDX-License-Identifier: Apache-2.0
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <arm_acle.h>

#include "rows.hpp"

namespace {

alignas(64) std::uint8_t data[65536];
std::uint32_t crc32c;

// The length is a multiple of eight.
[[gnu::noinline]] std::uint32_t one_stream(std::uint32_t crc, const void *from,
                                           std::size_t length) {
  const auto *bytes = static_cast<const std::uint8_t *>(from);
  for (std::size_t at = 0; at < length; at += 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes + at, sizeof word);
    crc = __crc32cd(crc, word);
  }
  return crc;
}

} // namespace

extern "C" {

void row_crc32c_512() { crc32c = one_stream(crc32c, data, 512); }
void row_crc32c_4096() { crc32c = one_stream(crc32c, data, 4096); }
void row_crc32c_65536() { crc32c = one_stream(crc32c, data, 65536); }
}

int main() { run({row_crc32c_512, row_crc32c_4096, row_crc32c_65536}); }
