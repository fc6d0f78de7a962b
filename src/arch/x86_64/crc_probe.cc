#include "arch/crc.hpp"

namespace vorn::arch {
namespace {

CrcProbe ask() {
  __builtin_cpu_init();
  const bool multiplies = __builtin_cpu_supports("pclmul");
  const bool sse = __builtin_cpu_supports("sse4.2");
  const bool wide = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("vpclmulqdq");
  return {.crc32c = sse && multiplies,
          .crc16 = sse && multiplies,
          .crc16_wide = sse && multiplies && wide};
}

} // namespace

const CrcProbe crc_probe = ask();

} // namespace vorn::arch
