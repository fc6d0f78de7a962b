// Declares the figures of the CPUs that the processes of the machine share: arrays with a slot for
// the whole machine, then one for each present CPU.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SYSINFO_USAGE_HPP
#define VORN_SYSINFO_USAGE_HPP

#include <atomic>
#include <cstdint>

namespace vorn::sysinfo {

inline constexpr char kUsageFile[] = "/dev/shm/SYSINFO_PUICPUUSAGE_NOROOT";

// Mapped once, for the life of the process, and NULL before that. Readers take no lock: a thread
// that loads a pointer with acquire also sees the count of the present CPUs.
template <class Slot> using Slots = std::atomic<Slot *>;
extern Slots<std::uint32_t> usage_percent;
extern Slots<std::uint64_t> last_idle;  // idle ticks at the last sample
extern Slots<std::uint64_t> last_total; // total ticks at the last sample

} // namespace vorn::sysinfo

#endif
