// The checksums by special instructions:
//   vorn::arch::CrcProbe       which of them a processor has
//   vorn::arch::crc_probe      which of them this one has
//   vorn::arch::has_crc32c()   whether these may be called:
//   vorn::arch::crc32c()       the register carried on over length bytes
//   vorn::arch::crc32c_copy()  the same while copying them, each word stored before it is used
//   vorn::arch::has_crc16()    whether this may be called:
//   vorn::arch::crc16()        the register carried on over length bytes, 16 at least
#ifndef VORN_ARCH_CRC_HPP
#define VORN_ARCH_CRC_HPP

#if defined(__aarch64__)
#include "arch/aarch64/crc.hpp"
#elif defined(__x86_64__)
#include "arch/x86_64/crc.hpp"
#else
#error "no checksum kernels for this processor"
#endif

#endif
