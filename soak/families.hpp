// Declares the uses of the library that the soak repeats.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SOAK_FAMILIES_HPP
#define VORN_SOAK_FAMILIES_HPP

#include <atomic>
#include <span>
#include <string>

struct Family {
  const char *name;
  bool (*use)(); // uses it once; returns false if a result was wrong
  std::atomic<unsigned long> uses{0};
};

// Returns the families; use each in one thread. The library must be started, with ini_file
// registered, which contains [A] ITEM=1.
std::span<Family> families(const std::string &ini_file);

#endif
