// Declares the table of settings.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SETTING_TABLE_HPP
#define SCRUB_SETTING_TABLE_HPP

#include <span>
#include <string>

#include "scrub.hpp"

namespace scrub {

struct KnownSetting {
  const char *name;
  const char *options[2]; // names of the options that set the same; null: none
  void (*take)(Options &options, const char *name, const std::string &value);
  // Throws std::invalid_argument.
};

// In the order in which values must be taken.
std::span<const KnownSetting> known_settings();

} // namespace scrub

#endif
