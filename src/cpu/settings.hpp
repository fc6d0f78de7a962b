// Reads values of the registered INI files.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CPU_SETTINGS_HPP
#define VORN_CPU_SETTINGS_HPP

#include <climits>
#include <cstdlib>

#include "vorn_cfg.h"

namespace vorn::cpu {

using Value = char[256];

// Returns false if the item is missing or its value is longer.
inline bool read_value(const char *section, const char *item, Value &value) {
  return vorn_cfg_getItemValue(section, item, value, sizeof value) == 0;
}

// Returns a decimal number; -1 if the item is missing or the number does not fit an int.
inline int read_number(const char *section, const char *item) {
  Value value;
  if (!read_value(section, item, value)) return -1;
  const long number = std::strtol(value, nullptr, 10);
  return number < INT_MIN || number > INT_MAX ? -1 : static_cast<int>(number);
}

} // namespace vorn::cpu

#endif
