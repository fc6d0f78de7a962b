// Declares the resources of a process.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SOAK_FOOTPRINT_HPP
#define VORN_SOAK_FOOTPRINT_HPP

#include <cstddef>

struct Footprint {
  std::size_t threads;
  std::size_t descriptors;
  std::size_t mappings;
  std::size_t heap;     // bytes in use
  std::size_t resident; // bytes of the machine's memory
};

Footprint take_footprint();

#endif
