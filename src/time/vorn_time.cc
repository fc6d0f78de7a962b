// Starts and reads the time base, and finds the frequency of the CPU.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_time.h"

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <ctime>

#include "arch/counter.hpp"
#include "base/atomic_word.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "base/system.hpp"
#include "base/timespec.hpp"
#include "fileops/first_line.hpp"
#include "time/vorn_time.hpp"

namespace vorn::time {
namespace {

constexpr double kNominalGHz = 2.6;

constinit Once start{OncePolicy::kRetry};

// Written only by the start. Relaxed: readers may see 0 or the value, and it publishes no other
// data.
constinit std::atomic<std::uint64_t> multiplier{0};

std::uint64_t raw_monotonic() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return nanoseconds(now);
}

void set_cpu_ghz(double value) { atomic_word(currCpuGHz).store(value, std::memory_order_relaxed); }

// Reads the first line that the command prints, empty if it prints none. Returns false if the
// command cannot run.
template <int kSize>
bool read_first_line(const char *command, const char *whitelist, char (&line)[kSize]) {
  return fileops::first_line(command, whitelist, line, kSize) != fileops::FirstLine::kNotRun;
}

// Returns the number that text begins with, for any locale of the caller.
double leading_number(const char *text) {
  const locale_t c_locale = newlocale(LC_NUMERIC_MASK, "C", nullptr);
  const double value = strtod_l(text, nullptr, c_locale);
  freelocale(c_locale);
  return value;
}

} // namespace
} // namespace vorn::time

using namespace vorn::time;

double currCpuGHz;

uint64_t vorn_gettime_init() { return static_cast<uint64_t>(start.run(vorn_CheckCurrCpu)); }

int vorn_CheckCurrCpu() {
  set_cpu_ghz(kNominalGHz);
  multiplier.store(tick_nanoseconds(vorn::arch::counter_frequency()), std::memory_order_relaxed);
  return 0;
}

uint64_t vorn_time_getnanosec() {
  return vorn::arch::counter() * multiplier.load(std::memory_order_relaxed);
}

uint64_t vorn_time_getmillisec() { return vorn_time_getnanosec() / 1000000; }

uint64_t vorn_time_cycles2ns(uint64_t cycles) {
  return cycles * multiplier.load(std::memory_order_relaxed);
}

int vorn_get_tsc_freq() {
  char line[256];
  if (!read_first_line("cat /proc/cpuinfo | grep -o constant_tsc | uniq", "|", line))
    return VORN_FAIL(-1, "Cat /proc/cpuinfo for constant_tsc fail");
  if (line[0] == '\0') return VORN_FAIL(-1, "There is no constant_tsc flag in /proc/cpuinfo");
  if (!read_first_line("cat /proc/cpuinfo | grep @ | uniq | awk '{print $NF}'", "|$", line))
    return VORN_FAIL(-1, "Cat /proc/cpuinfo fail for cpufreq fail");
  if (line[0] == '\0') {
    vorn_estimate_tsc_freq();
  } else {
    set_cpu_ghz(leading_number(line));
  }
  return 0;
}

void vorn_estimate_tsc_freq() {
  const timespec pause{0, 50000000};
  const uint64_t started = raw_monotonic();
  const uint64_t first = vorn::arch::counter();
  vorn::sys::sleep(pause);
  const uint64_t ended = raw_monotonic();
  const uint64_t last = vorn::arch::counter();

  const double seconds = static_cast<double>(ended - started) / 1e9;
  const auto frequency = static_cast<uint64_t>(static_cast<double>(last - first) / seconds);
  const double ghz = static_cast<double>(round_frequency(frequency)) / 1e9;
  set_cpu_ghz(ghz);
  VORN_LOG(vorn::kInfo, "cpu standard hz is %f.", ghz);
}
