#ifndef VORN_ARCH_X86_64_CRC_PROBE_HPP
#define VORN_ARCH_X86_64_CRC_PROBE_HPP

#include <cstddef>
#include <cstdint>

namespace vorn::arch {

// What this processor has. Written once, when the library is loaded; until then nothing.
struct CrcProbe {
  bool crc32c;     // SSE4.2 and PCLMULQDQ
  bool crc16;      // SSSE3, SSE4.1 and PCLMULQDQ
  bool crc16_wide; // the same on 256 bits: AVX2 and VPCLMULQDQ
};

extern const CrcProbe crc_probe;

inline bool has_crc32c() { return crc_probe.crc32c; }
inline bool has_crc16() { return crc_probe.crc16; }

// The two kernels behind crc16(), for at least 16 and at least 32 bytes.
std::uint16_t crc16_narrow(std::uint16_t crc, const void *data, std::size_t length);
std::uint16_t crc16_wide(std::uint16_t crc, const void *data, std::size_t length);

} // namespace vorn::arch

#endif
