# Sets the compile and link options of every target.
# SPDX-License-Identifier: Apache-2.0
add_library(vorn_options INTERFACE)
target_compile_options(vorn_options INTERFACE
  -Wall -Wextra -Werror -Wshadow -Wcast-qual -Wformat=2 -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  -g -fno-omit-frame-pointer -fstack-protector-strong)

# The options of the library. Interposition stays possible, also for calls within a source file: a
# process may replace any of our functions with its own.
add_library(vorn_library_options INTERFACE)
target_link_libraries(vorn_library_options INTERFACE vorn_options)
target_compile_options(vorn_library_options INTERFACE
  -fPIC -fvisibility=hidden -ftls-model=initial-exec -fsemantic-interposition
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fvisibility-inlines-hidden>)

# The options of the shared libraries. Tests that link the library's objects do not use them: the threads
# of a program that has its own unwinder next to the C library's cannot be cancelled. tools/sbom reads
# the linker's maps.
add_library(vorn_shared_options INTERFACE)
target_link_libraries(vorn_shared_options INTERFACE vorn_library_options)
target_link_options(vorn_shared_options INTERFACE
  -static-libgcc -static-libstdc++ LINKER:--exclude-libs,ALL LINKER:--as-needed
  LINKER:-z,relro LINKER:-z,now
  LINKER:-Map=${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/$<TARGET_PROPERTY:NAME>.map
  LINKER:-z,nodelete) # stays loaded: the library cannot withdraw its signal handler, threads and keys

if(VORN_SANITIZE STREQUAL "address")
  set(sanitize -fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(VORN_SANITIZE STREQUAL "thread")
  set(sanitize -fsanitize=thread)
elseif(VORN_SANITIZE STREQUAL "fuzzer")
  set(sanitize -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
elseif(VORN_SANITIZE)
  message(FATAL_ERROR "VORN_SANITIZE is address, thread or fuzzer, not ${VORN_SANITIZE}")
endif()
if(VORN_SANITIZE)
  add_compile_options(${sanitize})
  add_link_options(${sanitize})
else()
  target_link_options(vorn_shared_options INTERFACE LINKER:-z,defs)
endif()

find_package(Threads REQUIRED)
