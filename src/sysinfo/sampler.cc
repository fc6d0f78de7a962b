// Samples the CPUs: the shared figures, the election of the sampling process, its thread, and the
// samples.
//
// A lock on the file of the figures elects the process. It belongs to the process, which loses it
// when it closes any descriptor of the file. So a process maps the figures once, before it takes
// the lock; and a process that has the lock does not open the file again, even if sysinfo_init runs
// again.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_sysinfo.c"
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <string_view>

#include "base/atomic_word.hpp"
#include "base/cancellation_guard.hpp"
#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "base/mutex.hpp"
#include "base/once.hpp"
#include "base/system.hpp"
#include "sysinfo/usage.hpp"
#include "vorn_cfg.h"
#include "vorn_sched.h"
#include "vorn_shm.h"
#include "vorn_str.h"
#include "vorn_sysinfo.h"
#include "vorn_thrd.h"

namespace vorn::sysinfo {

constinit Slots<std::uint32_t> usage_percent{nullptr};
constinit Slots<std::uint64_t> last_idle{nullptr};
constinit Slots<std::uint64_t> last_total{nullptr};

namespace {

constexpr char kUsageObject[] = "SYSINFO_PUICPUUSAGE_NOROOT";
constexpr char kIdleObject[] = "SYSINFO_PULLCPULASTIDLE_NOROOT";
constexpr char kTotalObject[] = "SYSINFO_PULLCPULASTTOTAL_NOROOT";
constexpr mode_t kObjectMode = 0660;

constexpr char kThreadName[] = "vorn_sysinfo";
constexpr char kStatFile[] = "/proc/stat";
constexpr unsigned int kPeriod = 100; // in 10 ms
constexpr std::size_t kLineSize = 512;

constinit Once initialised{OncePolicy::kRetry};
constinit Once attached{OncePolicy::kRetry};

// The part of the process in the election. Guarded by a mutex, so that no thread opens the file
// while another takes the lock, and a start finds either a candidate that has not yet tried or the
// outcome.
constinit Mutex election;
bool candidate;   // a thread will try to take the lock
int held_fd = -1; // the file while the process has the lock, else -1

// A child of fork() has neither the thread nor the lock.
const ForkChild forget_election{[] {
  candidate = false;
  const UniqueFd inherited(held_fd);
  held_fd = -1;
}};

// --- The shared figures ---

template <class Slot> bool map(Slots<Slot> &slots, const char *object, std::uint32_t count) {
  if (slots.load(std::memory_order_relaxed) != nullptr) return true;
  const std::size_t size = count * sizeof(Slot);
  void *address = vorn_shm_create_ext(object, O_CREAT | O_EXCL | O_RDWR, kObjectMode, size);
  if (address == nullptr && errno == EEXIST)
    address = vorn_shm_create_ext(object, O_RDWR, kObjectMode, size);
  slots.store(static_cast<Slot *>(address), std::memory_order_release);
  return address != nullptr;
}

int attach() {
  constexpr char kFunction[] = "sysinfo_alloc_mem";
  const std::uint32_t present = sysinfo_get_cpu_num();
  if (present == 0) return -1;
  const std::uint32_t count = present + 1;
  if (!map(usage_percent, kUsageObject, count))
    return VORN_FAIL_AS(kFunction, -1, "Vorn sysinfo alloc g_puiCpuUsage mem failed.");
  if (!map(last_idle, kIdleObject, count))
    return VORN_FAIL_AS(kFunction, -1, "Vorn sysinfo alloc g_pullCpuLastIdle mem failed.");
  if (!map(last_total, kTotalObject, count))
    return VORN_FAIL_AS(kFunction, -1, "Vorn sysinfo alloc g_pullCpuLastTotal mem failed.");
  return 0;
}

// --- The thread ---

bool sampling_wanted() {
  char value[VORN_CFG_SHORT_SIZE] = "";
  const int result =
      vorn_cfg_getItemValue("VORN", "SYSINFO_CPUUSAGE_THREAD_FLAG", value, sizeof value);
  return result != 0 || vorn_str_tou64(value) != 0;
}

// Returns false if the process samples already, or is about to.
bool become_candidate() {
  const MutexGuard hold{election};
  if (candidate || held_fd >= 0) return false;
  candidate = true;
  return true;
}

void give_up() {
  const MutexGuard hold{election};
  candidate = false;
}

int start() {
  vorn_get_cache_line_size();
  if (sysinfo_alloc_mem() != 0) return -1;
  if (!sampling_wanted() || !become_candidate()) return 0;
  const int result = create_thread_nopreempt_raw(sysinfo_calc_cpu_usage_thrd, nullptr, nullptr);
  if (result != 0) give_up();
  return result;
}

// --- A sample ---

struct Ticks {
  std::uint64_t idle = 0;
  std::uint64_t total = 0;
};

// Removes a number, and the blanks before it, from the front of text. A number that is too large
// becomes the largest one; with sscanf(3) it would wrap to the number of another CPU.
bool take_number(std::string_view &text, std::uint64_t *number) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  if (error == std::errc::invalid_argument) return false;
  if (error == std::errc::result_out_of_range) *number = UINT64_MAX;
  text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
  return true;
}

bool take_name(std::string_view &text) {
  if (!text.starts_with("cpu")) return false;
  text.remove_prefix(3);
  return true;
}

// Reads user, nice, system, idle and, if the system has them, iowait, irq and softirq.
bool take_ticks(std::string_view text, Ticks *ticks) {
  constexpr int kValues = 7;
  constexpr int kIdle = 3;
  std::uint64_t value = 0;
  int count = 0;
  for (; count < kValues && take_number(text, &value); ++count) {
    ticks->total += value;
    if (count == kIdle) ticks->idle = value;
  }
  return count > kIdle;
}

// Relaxed: a slot publishes no other data, and one thread of the machine writes it.
void update(std::uint32_t slot, const Ticks &now) {
  const auto idle = atomic_word(last_idle.load(std::memory_order_relaxed)[slot]);
  const auto total = atomic_word(last_total.load(std::memory_order_relaxed)[slot]);
  const std::uint64_t elapsed = now.total - total.load(std::memory_order_relaxed);
  if (elapsed != 0) {
    const std::uint64_t busy = elapsed + (idle.load(std::memory_order_relaxed) - now.idle);
    atomic_word(usage_percent.load(std::memory_order_relaxed)[slot])
        .store(static_cast<std::uint32_t>(busy * 100 / elapsed), std::memory_order_relaxed);
  }
  idle.store(now.idle, std::memory_order_relaxed);
  total.store(now.total, std::memory_order_relaxed);
}

bool update_machine(std::string_view line) {
  Ticks ticks;
  if (!take_name(line) || !take_ticks(line, &ticks)) return false;
  update(0, ticks);
  return true;
}

bool update_cpu(std::string_view line, std::uint32_t present) {
  std::uint64_t cpu = 0;
  Ticks ticks;
  if (!take_name(line) || !take_number(line, &cpu) || !take_ticks(line, &ticks)) return false;
  if (cpu < present) update(static_cast<std::uint32_t>(cpu) + 1, ticks);
  return true;
}

} // namespace
} // namespace vorn::sysinfo

using namespace vorn::sysinfo;

int sysinfo_init() { return initialised.run(start); }

void sysinfo_exit() {
  initialised.reset([] {});
}

int sysinfo_alloc_mem() { return attached.run(attach); }

void sysinfo_free_mem() {}

int sysinfo_lock(int *fd, vorn_file_lock_s *lock) {
  if (fd == nullptr || lock == nullptr) return VORN_FAIL(-1, "Parameter is null.");
  const vorn::MutexGuard hold{election};
  candidate = false;
  *lock = {VORN_FILE_LOCK_WRITE | VORN_FILE_LOCK_NO_WAIT, 0, 0};
  if (held_fd >= 0 || !attached.done()) {
    return VORN_FAIL(-1, "lock file(%s) failed, errno is %d.", kUsageFile,
                     held_fd >= 0 ? EAGAIN : ENXIO);
  }
  vorn::UniqueFd file = vorn::sys::open(kUsageFile, O_RDWR, kObjectMode);
  if (!file) return VORN_FAIL(-1, "open file(%s) failed, errno is %d.", kUsageFile, errno);
  if (vorn_lockfile(file.get(), lock) != 0)
    return VORN_FAIL(-1, "lock file(%s) failed, errno is %d.", kUsageFile, errno);
  *fd = held_fd = file.release();
  return 0;
}

int sysinfo_unlock(int fd, const vorn_file_lock_s *lock) {
  if (lock == nullptr) return VORN_FAIL(-1, "Parameter is null.");
  const vorn::MutexGuard hold{election};
  const vorn::UniqueFd file(fd);
  if (fd == held_fd) held_fd = -1;
  return vorn_unlockfile(fd, lock);
}

int sysinfo_update_all_cpu_usage() {
  if (!attached.done()) return -1;
  const vorn::Stream stream = vorn::sys::open_stream(kStatFile);
  if (stream == nullptr) return VORN_FAIL(-1, "Open cpu stat file %s failed.", kStatFile);
  char line[kLineSize];
  if (vorn::sys::read_line(line, sizeof line, stream) == nullptr)
    return VORN_FAIL(-1, "Get CPU stat (%s) file failed.", kStatFile);
  if (!update_machine(line)) return -1;
  const uint32_t present = sysinfo_get_cpu_num();
  while (vorn::sys::read_line(line, sizeof line, stream) != nullptr) {
    if (!update_cpu(line, present)) break;
  }
  return 0;
}

void *sysinfo_calc_cpu_usage_thrd(void *) {
  const vorn::CancellationGuard off; // a cancelled thread would leave the lock held
  vorn_set_process_name(kThreadName);
  int fd = -1;
  vorn_file_lock_s lock{};
  if (sysinfo_lock(&fd, &lock) != 0) return VORN_FAIL(nullptr, "sysinfo lock failed.");
  vorn_setCurThreadStrategy(VORN_THRD_STRATEGY_BACKGROUND);
  for (;;) {
    sysinfo_update_all_cpu_usage();
    vorn_10msleep(kPeriod);
  }
}
