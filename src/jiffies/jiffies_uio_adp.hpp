// The mapping of the jiffies driver's counter.
#ifndef VORN_JIFFIES_UIO_ADP_HPP
#define VORN_JIFFIES_UIO_ADP_HPP

#include <cstdint>

namespace vorn::jiffies {

// Zeroes the record and maps the counter. 0, or -1 after an error message. The caller holds the
// mutex of the mapping's once.
int open_map();

// The mapped counter, NULL when there is none.
const volatile std::uint64_t *mapped_counter();

} // namespace vorn::jiffies

#endif
