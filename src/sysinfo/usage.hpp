// The CPUs' figures that the processes of the machine share: arrays with a slot for the whole
// machine and one for each present CPU after it.
#ifndef VORN_SYSINFO_USAGE_HPP
#define VORN_SYSINFO_USAGE_HPP

#include <atomic>
#include <cstdint>

namespace vorn::sysinfo {

inline constexpr char kUsageFile[] = "/dev/shm/SYSINFO_PUICPUUSAGE_NOROOT";

// Mapped once and for the life of the process: readers take no lock. NULL until then; who finds one
// with acquire finds the present CPUs counted.
template <class Slot> using Slots = std::atomic<Slot *>;
extern Slots<std::uint32_t> usage_percent;
extern Slots<std::uint64_t> last_idle;  // ticks at the last sample
extern Slots<std::uint64_t> last_total; // the same

} // namespace vorn::sysinfo

#endif
