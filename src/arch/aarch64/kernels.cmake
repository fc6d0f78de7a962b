# Special instructions are compiled into their kernel's file alone. The last one runs after a
# probe.
# SPDX-License-Identifier: Apache-2.0
set_source_files_properties(arch/aarch64/crc32c_kernel.cc arch/aarch64/crc16_kernel.cc PROPERTIES
  COMPILE_OPTIONS "-march=armv8-a+crc+crypto")
set_source_files_properties(arch/aarch64/crc32c_sha3_kernel.cc PROPERTIES
  COMPILE_OPTIONS "-march=armv8.2-a+crc+crypto+sha3")
