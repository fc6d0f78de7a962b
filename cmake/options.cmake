# What every target is compiled and linked with.
# SPDX-License-Identifier: Apache-2.0
add_library(vorn_options INTERFACE)
target_compile_options(vorn_options INTERFACE
  -Wall -Wextra -Werror -Wshadow -Wcast-qual -Wformat=2 -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  -g -fno-omit-frame-pointer -fstack-protector-strong)

# The library's own rules. Interposition stays open, in calls within one source file too:
# a process may put its own function in front of any of ours.
add_library(vorn_library_options INTERFACE)
target_link_libraries(vorn_library_options INTERFACE vorn_options)
target_compile_options(vorn_library_options INTERFACE
  -fPIC -fvisibility=hidden -ftls-model=initial-exec -fsemantic-interposition
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fvisibility-inlines-hidden>)

# How the shared libraries are linked. Not the tests that take the library's objects: a program with
# an unwinder of its own beside the C library's cannot have its threads cancelled. The linker's maps
# tell tools/sbom what was linked.
add_library(vorn_shared_options INTERFACE)
target_link_libraries(vorn_shared_options INTERFACE vorn_library_options)
target_link_options(vorn_shared_options INTERFACE
  -static-libgcc -static-libstdc++ LINKER:--exclude-libs,ALL LINKER:--as-needed
  LINKER:-z,relro LINKER:-z,now
  LINKER:-Map=${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/$<TARGET_PROPERTY:NAME>.map
  LINKER:-z,nodelete) # stays loaded: its signal handler, threads and keys have no way to be recalled

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
