// Declares the checksum functions that use the processor's special instructions:
//
//   vorn::arch::CrcProbe       the instructions that a processor has
//   vorn::arch::crc_probe      the instructions that this processor has
//   vorn::arch::has_crc32c()   whether the next two may be called:
//   vorn::arch::crc32c()       returns the register after length more bytes
//   vorn::arch::crc32c_copy()  the same, and copies them; stores each word before it uses the word
//   vorn::arch::has_crc16()    whether the next one may be called:
//   vorn::arch::crc16()        returns the register after length more bytes, at least 16
// SPDX-License-Identifier: Apache-2.0
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
