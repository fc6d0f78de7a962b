// Declares the uses of the library that the soak repeats.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SOAK_FAMILIES_HPP
#define VORN_SOAK_FAMILIES_HPP

#include <atomic>
#include <span>
#include <string>

struct Family {
  const char *name;
  bool (*use)(); // once; returns false if a result was wrong
  std::atomic<unsigned long> uses{0};
};

// One thread uses each. The library is up, with this INI file registered: [A] ITEM=1.
std::span<Family> families(const std::string &ini_file);

#endif
