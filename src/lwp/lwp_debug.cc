// Traces a thread's switches between instances, and counts the places that take and give back
// references.
// SPDX-License-Identifier: Apache-2.0
#include "lwp/lwp.hpp"

#include "base/log.hpp"
#include "base/thread_id.hpp"
#include "evlog.h"
#include "lock/spin_guard.hpp"
#include "vorn_exception.h"
#include "vorn_spinlock.h"
#include "vorn_symbol.h"
#include "vorn_thrd.h"

namespace vorn::lwp {
namespace {

// --- Trace ---

constexpr unsigned int kFramesLeftOut = 2; // LwpCtxDbgSwitch and its caller
constexpr unsigned int kAddressesOfLine = 3;
static_assert(VORN_THRD_SWITCH_DEPTH % kAddressesOfLine == 0);

constinit vorn_notifier_block_s exception_block{LwpExceptNotifyFn, nullptr, 0};
constinit std::atomic<bool> on_chain{false};

class Place {
public:
  explicit Place(unsigned long address) : address_(address) {
    vorn_symbol_addr_to_string(address, name_, sizeof name_);
  }
  unsigned long address() const { return address_; }
  const char *name() const { return name_; }

private:
  unsigned long address_;
  char name_[64] = "";
};

void show_stack(vorn_print_f print, const vorn_thrd_switch_s &entry) {
  for (unsigned int at = 0; at < VORN_THRD_SWITCH_DEPTH; at += kAddressesOfLine) {
    const Place first{entry.addresses[at]};
    const Place second{entry.addresses[at + 1]};
    const Place third{entry.addresses[at + 2]};
    print("<%u> ... stack:%u <<0x%lx(%s) <<0x%lx(%s) <<0x%lx(%s)", thread_id(), at, first.address(),
          first.name(), second.address(), second.name(), third.address(), third.name());
  }
}

void show_trace(vorn_print_f print, const vorn_thrd_switch_trace_s &trace) {
  const std::uint64_t count = atomic_word(trace.count).load(std::memory_order_acquire);
  const std::uint64_t first = count > VORN_THRD_SWITCH_COUNT ? count - VORN_THRD_SWITCH_COUNT : 0;
  for (std::uint64_t number = first; number < count; ++number) {
    const vorn_thrd_switch_s &entry = trace.entries[number % VORN_THRD_SWITCH_COUNT];
    print("<%u> LwpCtxSwitch:%lu instId old:0x%lx new:0x%lx", thread_id(), number, entry.old_id,
          entry.new_id);
    show_stack(print, entry);
  }
}

// --- Statistics ---

constexpr std::uint32_t kEntries = 1024;

struct AutoStat {
  const char *name;
  vorn_spinlock_s lock = VORN_SPINLOCK_INIT; // guards used and the setting of slots
  std::uint32_t used = 0;                    // incremented after the entry is written
  lwp_auto_stat_s entries[kEntries] = {};

  explicit constexpr AutoStat(const char *table) : name(table) {}
};

constinit AutoStat get_stat{"LWP_GET_INST"};
constinit AutoStat put_stat{"LWP_PUT_INST"};

lwp_auto_stat_s *next_entry(AutoStat &stat, const void *address) {
  if (stat.used >= kEntries) return &stat.entries[kEntries - 1];
  lwp_auto_stat_s *entry = &stat.entries[stat.used];
  *entry = {reinterpret_cast<std::uint64_t>(address), 0};
  atomic_word(stat.used).store(stat.used + 1, std::memory_order_release);
  return entry;
}

// The usual case, a place that has its entry, takes no lock.
void give_entry(AutoStat &stat, lwp_auto_stat_s **slot, const void *address) {
  if (slot == nullptr) return;
  const auto place = atomic_word(*slot);
  if (place.load(std::memory_order_acquire) != nullptr) return;
  const lock::GatedSpinGuard hold{stat.lock, "LwpAllocAutoStat"};
  if (place.load(std::memory_order_relaxed) != nullptr) return;
  place.store(next_entry(stat, address), std::memory_order_release);
}

void show_stat(vorn_print_f print, const AutoStat &stat, const char *suffix) {
  const std::uint32_t used = atomic_word(stat.used).load(std::memory_order_acquire);
  if (used == 0) return;
  print("Lwp show auto statistic info of %s, size:%u used:%u%s", stat.name, kEntries, used, suffix);
  for (std::uint32_t at = 0; at < used; ++at) {
    const lwp_auto_stat_s &entry = stat.entries[at];
    const Place place{entry.address};
    print("Lwp autostat id:%2u cnt:%6lu rip:0x%lx,%s%s", at,
          atomic_word(entry.count).load(std::memory_order_relaxed), place.address(), place.name(),
          suffix);
  }
}

} // namespace
} // namespace vorn::lwp

using namespace vorn::lwp;

int LwpDebugInit() {
  if (on_chain.exchange(true)) return 0;
  return vorn_exception_chain_register__(&exception_block, "lwp/lwp_debug", __LINE__);
}

void LwpCtxDbgSwitch(uint64_t oldId, uint64_t newId) {
  vorn_thread_s *thread = vorn_thrd_currentthreadinfo();
  if (thread == nullptr) return;
  vorn_thrd_switch_s entry{oldId, newId, {}};
  if (vorn_thrd_backtrace(entry.addresses, VORN_THRD_SWITCH_DEPTH, kFramesLeftOut) != 0) return;
  vorn_thrd_switch_trace_s &trace = thread->switch_trace;
  trace.entries[trace.count % VORN_THRD_SWITCH_COUNT] = entry;
  // Written after the entry: a signal handler of this thread may show the trace at any moment.
  vorn::atomic_word(trace.count).store(trace.count + 1, std::memory_order_release);
}

void LwpCtxSwitchShow(vorn_print_f print) {
  if (print == nullptr || !tracing()) return;
  const vorn_thread_s *thread = vorn_thrd_currentthreadinfo();
  if (thread == nullptr)
    print("<%u> Lwp this is not a thread create by kram or vorn", vorn::thread_id());
  else
    show_trace(print, thread->switch_trace);
}

int LwpExceptNotifyFn(vorn_notifier_block *, unsigned long, void *) {
  LwpCtxSwitchShow(evlog_original);
  return 1;
}

void LwpAutoStatGetInst(lwp_auto_stat_s **slot) {
  give_entry(get_stat, slot, __builtin_return_address(0));
}

void LwpAutoStatPutInst(lwp_auto_stat_s **slot) {
  give_entry(put_stat, slot, __builtin_return_address(0));
}

void LwpShowAutoStatAll(vorn_print_f print, const char *suffix) {
  if (print == nullptr) return;
  for (const AutoStat *stat : {&get_stat, &put_stat})
    show_stat(print, *stat, suffix);
}
