// Holds the chain of callbacks that a fatal signal calls, and the watchdog's hook.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_exception.h"

#include <atomic>
#include <mutex>

#include "base/cancellation_guard.hpp"
#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "lock/spin_guard.hpp"
#include "vorn_sig_calltrace.h"

static_assert(offsetof(vorn_exception_data_s, siginfo) == 8);
static_assert(offsetof(vorn_exception_data_s, arg4) == 16);
static_assert(offsetof(vorn_exception_data_s, arg5) == 24);
static_assert(offsetof(vorn_exception_data_s, arg6) == 28);

namespace vorn::exception {
namespace {

constinit vorn_notifier_chain_s chain = VORN_NOTIFIER_CHAIN_INIT("vorn_exception_chain");

// A fault calls the chain outside the fork gate, because a signal handler must not wait for the
// gate. So a child may begin with a lock that a thread of the parent holds, and frees it here.
const ForkChild frees_chain{[] { vorn_spinlock_init(&chain.lock); }};

constinit std::atomic<vorn_watchdog_reset_f> watchdog_reset{nullptr};

} // namespace
} // namespace vorn::exception

using namespace vorn::exception;

using vorn::kInfo;

int vorn_exception_init() {
  vorn_thread_signal_init();
  return 0;
}

int vorn_exception_init_with_list(void *arg, const unsigned int *sigList, unsigned int sigNum) {
  if (sigList == nullptr || sigNum == 0)
    return VORN_FAIL(-1, "parm is invaild, sigList is null or sigNum is not bigger than 0(%u).",
                     sigNum);
  vorn_thread_signal_init_with_list(arg, sigList, sigNum);
  return 0;
}

int vorn_exception_chain_register__(vorn_notifier_block_s *block, const char *file, int line) {
  return vorn_atomic_notifier_chain_register__(&chain, block, file, line);
}

int vorn_exception_chain_unregister__(vorn_notifier_block_s *block, const char *file, int line) {
  return vorn_atomic_notifier_chain_unregister__(&chain, block, file, line);
}

int vorn_exception_call_chain(unsigned long action, void *siginfo, void *regs, uint64_t arg4,
                              uint32_t arg5, uint32_t arg6) {
  VORN_LOG(kInfo, "Exception notifier %s call start: action=%d, siginfo=%p regs=%p.", chain.name,
           static_cast<int>(action), siginfo, regs);
  vorn_exception_data_s data{regs, siginfo, arg4, arg5, arg6};
  int result = 0;
  {
    const vorn::CancellationGuard off;
    const vorn::lock::SpinGuard hold{chain.lock, std::try_to_lock};
    if (!hold) {
      VORN_LOG(kInfo, "Exception notifier %s call end: trylock fail, owner=%lu.", chain.name,
               static_cast<unsigned long>(chain.lock.owner));
      return -1;
    }
    result = VornNotifierCallChain(&chain, action, &data, -1, nullptr);
  }
  VORN_LOG(kInfo, "Exception notifier %s call end: ret %d.", chain.name, result);
  return result;
}

int vorn_exception_watchdog_timer_func_register(vorn_watchdog_reset_f fn) {
  // Release, paired with the acquire below: the function sees what its owner set up before.
  watchdog_reset.store(fn, std::memory_order_release);
  VORN_LOG(kInfo, "Vorn_exception_watchdog_timer_func_register=%p", reinterpret_cast<void *>(fn));
  return 0;
}

int vorn_exception_watchdog_timer_reset(int value) {
  const vorn_watchdog_reset_f reset = watchdog_reset.load(std::memory_order_acquire);
  if (reset == nullptr) return 0;
  VORN_LOG(kInfo, "Vorn_exception_watchdog_timer_reset=%d", value);
  return reset(value);
}
