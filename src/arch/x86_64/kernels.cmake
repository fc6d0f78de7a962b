# Special instructions are compiled into their kernel's file alone, which runs after a probe.
set_source_files_properties(arch/x86_64/crc32c_kernel.cc PROPERTIES COMPILE_OPTIONS "-msse4.2;-mpclmul;-momit-leaf-frame-pointer")
set_source_files_properties(arch/x86_64/crc16_kernel.cc PROPERTIES COMPILE_OPTIONS "-msse4.1;-mpclmul;-momit-leaf-frame-pointer")
set_source_files_properties(arch/x86_64/crc16_wide_kernel.cc PROPERTIES
  COMPILE_OPTIONS "-mavx2;-mpclmul;-mvpclmulqdq;-momit-leaf-frame-pointer")
set_source_files_properties(crc/vorn_crc.cc PROPERTIES COMPILE_OPTIONS -momit-leaf-frame-pointer)
