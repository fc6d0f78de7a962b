// Detects the special instructions of this processor.
// SPDX-License-Identifier: Apache-2.0
#include "arch/x86_64/crc.hpp"

namespace vorn::arch {
namespace {

CrcProbe probe() {
  __builtin_cpu_init();
  if (!__builtin_cpu_supports("sse4.2") || !__builtin_cpu_supports("pclmul")) return {};
  const bool wide = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("vpclmulqdq");
  return wide ? kCrcWide : kCrcNarrow;
}

} // namespace

const CrcProbe crc_probe = probe();

} // namespace vorn::arch
