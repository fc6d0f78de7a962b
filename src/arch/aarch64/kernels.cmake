# Special instructions are compiled into their kernel's file alone.
# SPDX-License-Identifier: Apache-2.0
set_source_files_properties(arch/aarch64/crc32c_kernel.cc arch/aarch64/crc16_kernel.cc PROPERTIES
  COMPILE_OPTIONS "-march=armv8-a+crc+crypto")
