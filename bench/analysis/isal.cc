// Calls the checksums of ISA-L for the analysis.
// SPDX-License-Identifier: Apache-2.0
#include <cstdint>

#include <isa-l/crc.h>

#include "rows.hpp"

// A loop that crc32_iscsi() of this version selects on no processor. The library exports it, and no
// header declares it.
extern "C" std::uint32_t crc32c_mix_neoverse_n1(const void *from, std::uint64_t length,
                                                std::uint32_t crc);

namespace {

alignas(64) std::uint8_t data[65536];
std::uint32_t crc32c;
std::uint16_t crc16;

} // namespace

extern "C" {

void row_crc32c_512() { crc32c = crc32_iscsi(data, 512, crc32c); }
void row_crc32c_4096() { crc32c = crc32_iscsi(data, 4096, crc32c); }
void row_crc32c_65536() { crc32c = crc32_iscsi(data, 65536, crc32c); }

void row_mixed_512() { crc32c = crc32c_mix_neoverse_n1(data, 512, crc32c); }
void row_mixed_4096() { crc32c = crc32c_mix_neoverse_n1(data, 4096, crc32c); }
void row_mixed_65536() { crc32c = crc32c_mix_neoverse_n1(data, 65536, crc32c); }

void row_crc16_512() { crc16 = crc16_t10dif(crc16, data, 512); }
void row_crc16_4096() { crc16 = crc16_t10dif(crc16, data, 4096); }
void row_crc16_65536() { crc16 = crc16_t10dif(crc16, data, 65536); }
}

int main() {
  run({row_crc32c_512, row_crc32c_4096, row_crc32c_65536});
  run({row_mixed_512, row_mixed_4096, row_mixed_65536});
  run({row_crc16_512, row_crc16_4096, row_crc16_65536});
}
