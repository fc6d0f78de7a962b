// The statistics table that the kernel module hands out.
#ifndef VORN_MEM_STAT_HPP
#define VORN_MEM_STAT_HPP

#include <cstdint>

namespace vorn::mem {

// 1024 counters, of a module's bytes each; NULL while the kernel module has given none.
std::uint64_t *stat_table();

std::uint64_t stat_read(const std::uint64_t *table, unsigned int pid);

} // namespace vorn::mem

#endif
