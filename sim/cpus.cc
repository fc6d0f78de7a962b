// Answers requests about CPUs: their common frequency, the idle setting of each, and the thread
// that each runs. There are always 1024, so that a service for a larger machine can be developed on
// a small one.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdint>
#include <cstring>

#include "answers.hpp"
#include "proc.hpp"
#include "vornsim.h"

namespace vornsim {
namespace {

// In kHz.
constexpr unsigned int kLowest = 1000000;
constexpr unsigned int kHighest = 2600000;
constexpr unsigned int kStep = 200000;

constinit std::atomic<unsigned int> frequency{kHighest};
constinit std::atomic<std::uint32_t> idle_no_cstates[VORNSIM_CPU_COUNT] = {};

// The data that replace the stand-in's own answer; there are none while the size is 0.
constinit unsigned char given_record[VORNSIM_CPU_TASK_INFO_MAX] = {};
constinit std::atomic<unsigned long> given_size{0};

long move_frequency(int step) {
  unsigned int old = frequency.load();
  unsigned int wanted;
  do {
    if (old == (step > 0 ? kHighest : kLowest)) return 0;
    wanted = step > 0 ? old + kStep : old - kStep;
  } while (!frequency.compare_exchange_weak(old, wanted));
  return 0;
}

} // namespace

long lowest_frequency(const Arguments &) {
  frequency = kLowest;
  return 0;
}

long highest_frequency(const Arguments &) {
  frequency = kHighest;
  return 0;
}

long frequency_up(const Arguments &) { return move_frequency(1); }
long frequency_down(const Arguments &) { return move_frequency(-1); }
long read_frequency(const Arguments &) { return static_cast<long>(frequency.load()); }

long read_idle(const Arguments &arguments) {
  auto *value = pointer<std::uint32_t>(arguments[1]);
  if (value == nullptr) return refuse(EFAULT);
  if (arguments[0] >= VORNSIM_CPU_COUNT) return refuse(EINVAL);
  *value = idle_no_cstates[arguments[0]].load();
  return 0;
}

long write_idle(const Arguments &arguments) {
  const auto *value = pointer<const std::uint32_t>(arguments[1]);
  if (value == nullptr) return refuse(EFAULT);
  if (arguments[0] >= VORNSIM_CPU_COUNT) return refuse(EINVAL);
  idle_no_cstates[arguments[0]] = *value;
  return 0;
}

long cpu_task_info(const Arguments &arguments) {
  void *record = pointer<void>(arguments[1]);
  if (record == nullptr) return refuse(EFAULT);
  if (arguments[0] >= VORNSIM_CPU_COUNT) return refuse(EINVAL);
  const unsigned long size = given_size.load(std::memory_order_acquire);
  if (size != 0) {
    std::memcpy(record, given_record, size);
    return 0;
  }
  vornsim_cpu_task_info_s info{};
  info.cpu = static_cast<std::uint32_t>(arguments[0]);
  ThreadState thread;
  if (find_thread_on(static_cast<int>(arguments[0]), &thread)) {
    info.tid = thread.tid;
    std::memcpy(info.name, thread.name, sizeof info.name);
  }
  std::memcpy(record, &info, sizeof info);
  return 0;
}

void set_cpu_task_info(const void *record, unsigned long size) {
  if (size != 0) std::memcpy(given_record, record, size);
  given_size.store(size, std::memory_order_release);
}

void reset_cpus() {
  frequency = kHighest;
  for (auto &value : idle_no_cstates)
    value = 0;
  set_cpu_task_info(nullptr, 0);
}

} // namespace vornsim
