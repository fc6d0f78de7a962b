// Reads the resources of the process from /proc and from the allocator.
// SPDX-License-Identifier: Apache-2.0
#include "footprint.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <malloc.h>
#include <string>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
static std::size_t heap_in_use() { return __sanitizer_get_current_allocated_bytes(); }
#else
static std::size_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}
#endif

namespace {

std::size_t entries(const char *folder) {
  const std::filesystem::directory_iterator all(folder);
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::size_t lines(const char *file) {
  std::ifstream in(file);
  return static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(in), {}, '\n'));
}

std::size_t resident() {
  std::size_t size = 0;
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> size >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace

Footprint take_footprint() {
  return {entries("/proc/self/task"), entries("/proc/self/fd"), lines("/proc/self/maps"),
          heap_in_use(), resident()};
}
