# Sets VORN_ARCH to the folder under src/arch that has the sources for the processor of this build.
# SPDX-License-Identifier: Apache-2.0
string(TOLOWER "${CMAKE_SYSTEM_PROCESSOR}" VORN_ARCH)
if(VORN_ARCH STREQUAL "amd64")
  set(VORN_ARCH x86_64)
elseif(VORN_ARCH STREQUAL "arm64")
  set(VORN_ARCH aarch64)
endif()
if(NOT IS_DIRECTORY ${PROJECT_SOURCE_DIR}/src/arch/${VORN_ARCH})
  message(FATAL_ERROR "No src/arch/${VORN_ARCH}: Vorn runs on aarch64 and x86_64")
endif()
