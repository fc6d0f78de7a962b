// Detects the special instructions of this processor.
// SPDX-License-Identifier: Apache-2.0
#include "arch/x86_64/crc.hpp"

namespace vorn::arch {
namespace {

// Support includes the operating system's: that it saves the registers.
CrcProbe probe() {
  __builtin_cpu_init();
  if (!__builtin_cpu_supports("sse4.2") || !__builtin_cpu_supports("pclmul")) return {};
  if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("vpclmulqdq")) return kCrcNarrow;
  const bool zmm = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                   __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi") &&
                   __builtin_cpu_supports("gfni");
  return zmm ? kCrcZmm : kCrcWide;
}

} // namespace

const CrcProbe crc_probe = probe();

} // namespace vorn::arch
