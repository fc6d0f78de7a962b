# Special instructions are compiled into their kernel's file alone, which runs after a probe.
# SPDX-License-Identifier: Apache-2.0
set(crc_options -msse4.2 -mpclmul -falign-functions=64 -falign-loops=32)
set_source_files_properties(arch/x86_64/crc32c_kernel.cc arch/x86_64/crc16_kernel.cc
  PROPERTIES COMPILE_OPTIONS "${crc_options}")
set_source_files_properties(arch/x86_64/crc32c_wide_kernel.cc arch/x86_64/crc16_wide_kernel.cc
  PROPERTIES COMPILE_OPTIONS "${crc_options};-mavx2;-mvpclmulqdq")
set(zmm_options ${crc_options} -mvpclmulqdq -mavx512f -mavx512bw -mavx512vl -mavx512vbmi -mgfni)
if(VORN_SANITIZE STREQUAL "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # The compiler gives a checked frame an alignment of 32 bytes, but ZMM variables need 64.
  list(APPEND zmm_options --param=asan-stack=0)
endif()
set_source_files_properties(arch/x86_64/crc32c_zmm_kernel.cc arch/x86_64/crc16_zmm_kernel.cc
  PROPERTIES COMPILE_OPTIONS "${zmm_options}")
