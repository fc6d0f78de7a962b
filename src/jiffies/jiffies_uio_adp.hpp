// Declares the mapping of the jiffies driver's counter.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_JIFFIES_UIO_ADP_HPP
#define VORN_JIFFIES_UIO_ADP_HPP

#include <cstdint>

namespace vorn::jiffies {

// Zeroes the mapping's description and maps the counter. Returns 0; on failure, logs an error
// and returns -1. The caller holds the mutex of the mapping's once.
int open_map();

// Returns the mapped counter, or NULL.
const volatile std::uint64_t *mapped_counter();

} // namespace vorn::jiffies

#endif
