// Detects the special instructions of this processor.
// SPDX-License-Identifier: Apache-2.0
#include "arch/aarch64/crc.hpp"

#include <sys/auxv.h>

#include <asm/hwcap.h>

namespace vorn::arch {

const CrcProbe crc_probe{(getauxval(AT_HWCAP) & HWCAP_SHA3) != 0};

} // namespace vorn::arch
