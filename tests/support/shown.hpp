// Stores what a show routine prints.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_SHOWN_HPP
#define VORN_TESTS_SHOWN_HPP

#include <cstdarg>
#include <cstdio>
#include <string>

#include "vorn_api.h"

namespace shown {

inline std::string text;

// A vorn_print_f.
VORN_PRINTF(1, 2) inline int print(const char *format, ...) {
  char line[256];
  std::va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  text += line;
  return length;
}

// Calls show with print, and returns what it printed.
template <class Show> std::string by(Show show) {
  text.clear();
  show(print);
  return text;
}

} // namespace shown

#endif
