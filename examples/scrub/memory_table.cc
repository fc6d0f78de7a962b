// Reads the library's table of memory by module.
// SPDX-License-Identifier: Apache-2.0
#include "memory_table.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "vorn_process.h"

namespace scrub {
namespace {

char shown[32 * 1024]; // room for a cell of each of the 1024 ids
std::size_t shown_length = 0;

int keep(const char *format, ...) VORN_PRINTF(1, 2);

int keep(const char *format, ...) {
  std::va_list args;
  va_start(args, format);
  const std::size_t room = sizeof shown - shown_length;
  const int length = std::vsnprintf(shown + shown_length, room, format, args);
  va_end(args);
  if (length > 0) shown_length += std::min(static_cast<std::size_t>(length), room - 1);
  return length;
}

} // namespace

// vorn_mem_show prints a headline of words, then cells of a module id and its bytes. A '|' precedes
// each cell.
Vector<ModuleMemory> memory_by_module() {
  shown_length = 0;
  vorn_mem_show(keep);

  Vector<ModuleMemory> modules;
  std::string_view text(shown, shown_length);
  for (std::size_t bar = text.find('|'); bar != std::string_view::npos; bar = text.find('|')) {
    text.remove_prefix(bar + 1);
    unsigned int id = 0;
    std::int64_t bytes = 0;
    if (std::sscanf(text.data(), "%u %" SCNd64, &id, &bytes) == 2)
      modules.push_back({vorn_pid_get_name(id), bytes});
  }
  return modules;
}

} // namespace scrub
