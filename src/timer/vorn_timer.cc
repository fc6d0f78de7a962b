// Implements the timers of the wheel and the thread that runs them.
//
// Locks. The spin lock of the root guards the wheel, the running timer and the pending timers. The
// mutex and the condition only let the timer thread sleep and wake. Threads write next_wake under
// the spin lock; a thread that arms a timer also holds the mutex, because the timer thread reads it
// with only the mutex held. A thread may take the mutex while it holds the spin lock, never the
// reverse.
//
// fork(). A thread that takes the root's lock does not enter the fork gate: a child drops the whole
// root, in whatever state another thread has left it, and recognises the parent's timers by their
// owner.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_timer.h"

#include <algorithm>
#include <atomic>
#include <ctime>

#include "arch/pause.hpp"
#include "base/atomic_word.hpp"
#include "base/fork_gate.hpp"
#include "base/infra_log.hpp"
#include "base/log.hpp"
#include "base/mutex.hpp"
#include "base/ratelimit.hpp"
#include "base/system.hpp"
#include "base/timespec.hpp"
#include "timer/service.hpp"
#include "timer/wheel.hpp"
#include "vorn_hr_timer.h"
#include "vorn_mtx.h"
#include "vorn_spinlock.h"
#include "vorn_thrd.h"
#include "vorn_time.h"

static_assert(offsetof(vorn_timer_s, seconds) == 24);
static_assert(offsetof(vorn_timer_s, list) == 40);
static_assert(offsetof(vorn_timer_s, func) == 80);
static_assert(offsetof(vorn_timer_s, flags) == 89);
static_assert(offsetof(vorn_timer_s, funcName) == 96);
static_assert(sizeof(vorn_timer_s) == 120);

namespace vorn::timer {
namespace {

constexpr std::uint64_t kLongestSleep = 20; // milliseconds
constexpr std::uint64_t kSlow = 300;        // milliseconds; a longer call is logged
constexpr std::uint64_t kNanosecondsPerMillisecond = 1000000;

enum State : int {
  kReady = 0,
  kNoThread = 1,
  kInitial = 2,
  kForked = 3,  // started in the parent; the first arming of a timer starts it in this process
  kStopped = 4, // the thread has ended, and no other could start; the next arming tries again
};

struct Root {
  vorn_spinlock_s lock = VORN_SPINLOCK_INIT;
  pthread_mutex_t mutex{};
  pthread_cond_t condition{};
  Wheel wheel;
  std::uint64_t next_wake = 0; // the millisecond at which the thread wakes
  Running running;
};

constinit Root root;
constinit std::atomic<int> state{kInitial};
constinit Mutex start_mutex;

void lock_root(unsigned int line) { vorn_spinlock_take(&root.lock.lock, "lockTimerRoot", line); }
void unlock_root() { vorn_spinlock_unlock(&root.lock); }

class RootGuard {
public:
  explicit RootGuard(unsigned int line = __builtin_LINE()) { lock_root(line); }
  RootGuard(const RootGuard &) = delete;
  RootGuard &operator=(const RootGuard &) = delete;
  ~RootGuard() { unlock_root(); }
};

bool is_pending(const vorn_timer_s *timer) {
  return timer->list.next != nullptr && timer->owner == fork_count();
}

void disarm(vorn_timer_s *timer) {
  if (is_pending(timer)) root.wheel.remove(timer);
}

bool is_high_resolution(const vorn_timer_s *timer) {
  return (atomic_word(timer->flags).load(std::memory_order_relaxed) & VORN_TIMER_HR) != 0;
}

// The flags are also read without a lock.
void mark_high_resolution(vorn_timer_s *timer, bool is) {
  const auto flags = atomic_word(timer->flags);
  const std::uint8_t before = flags.load(std::memory_order_relaxed);
  const auto after =
      static_cast<std::uint8_t>(is ? before | VORN_TIMER_HR : before & ~VORN_TIMER_HR);
  if (after != before) flags.store(after, std::memory_order_relaxed);
}

// --- The thread ---

// The time base and CLOCK_MONOTONIC may run at different rates: a sleep that ends early is
// repeated.
void sleep_until_next_wake() {
  pthread_mutex_lock(&root.mutex);
  for (;;) {
    const std::uint64_t now = vorn_time_getnanosec();
    const std::uint64_t wake = root.next_wake * kNanosecondsPerMillisecond;
    if (now >= wake) break;
    const std::uint64_t wait = std::min(wake - now, kLongestSleep * kNanosecondsPerMillisecond);
    sys::wait_until(&root.condition, &root.mutex, monotonic_after(wait));
  }
  pthread_mutex_unlock(&root.mutex);
}

void report_slow(const Call &call, std::uint64_t milliseconds) {
  const auto timer = reinterpret_cast<unsigned long long>(call.timer());
  const auto function = reinterpret_cast<unsigned long long>(call.function());
  VORN_LOG_RATELIMITED_AS("run_timers", kWarning, kInfo,
                          "Timer 0x%llx func 0x%llx added by %s cost %llu ms.", timer, function,
                          call.added_by(), static_cast<unsigned long long>(milliseconds));
  LogCall{}.after(::evlog(0, kWarning, VORN_FILE, __LINE__, "run_timers", 0,
                          "[Infra]Timer 0x%llx func 0x%llx added by %s cost %llu ms.", timer,
                          function, call.added_by(),
                          static_cast<unsigned long long>(milliseconds)));
}

// Called and returns with the root locked; runs the function without the lock. Returns false in a
// child that the function has forked.
bool run_due() {
  vorn_timer_s *timer = root.wheel.take_due();
  const Call call{*timer};
  root.running.begin(timer);
  unlock_root();
  const std::uint32_t process = fork_count();
  if (call.function() != nullptr) {
    const std::uint64_t milliseconds = call.run();
    if (milliseconds > kSlow) report_slow(call, milliseconds);
  } else {
    vorn_timer_show(&timer->list);
  }
  const bool same_process = process == fork_count();
  lock_root(__LINE__);
  if (same_process) root.running.end(disarm);
  return same_process;
}

// Lets a waiting thread have the lock.
void let_others_in() {
  constexpr int kPauses = 16;
  unlock_root();
  for (int i = 0; i < kPauses; ++i)
    arch::pause();
  lock_root(__LINE__);
}

bool run_all_due() {
  const RootGuard hold;
  for (;;) {
    const std::uint64_t now = vorn_time_getmillisec();
    switch (root.wheel.advance(now)) {
    case Wheel::Progress::kDue:
      if (!run_due()) return false;
      break;
    case Wheel::Progress::kMore:
      let_others_in();
      break;
    case Wheel::Progress::kDone:
      root.next_wake = std::min(root.wheel.next_event(), now + kLongestSleep);
      return true;
    }
  }
}

void run_timers() {
  do {
    sleep_until_next_wake();
  } while (run_all_due());
}

void end_call() {
  const RootGuard hold;
  root.running.end(disarm);
}

constexpr Service kService{"vorn_run_timers", 1,         VORN_THRD_STRATEGY_MANAGE,
                           run_timers,        end_call,  &state,
                           kStopped,          VORN_FILE, "vorn_timer_module_init"};

// --- Start ---

int make_condition() {
  pthread_condattr_t attributes;
  int error = pthread_condattr_init(&attributes);
  if (error != 0) return error;
  error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  if (error == 0) error = pthread_cond_init(&root.condition, &attributes);
  pthread_condattr_destroy(&attributes);
  return error;
}

int start() {
  constexpr const char *kInit = "vorn_timer_module_init";
  if (state.load(std::memory_order_relaxed) == kStopped)
    return start_thread(kService) == 0 ? kReady : -1;
  vorn_gettime_init();
  int error = vorn_mtx_init(&root.mutex, VORN_MTX_NORMAL);
  if (error != 0) return VORN_FAIL_AS(kInit, -1, "Mutex init failed, error no %d.", error);
  error = make_condition();
  if (error != 0) {
    pthread_mutex_destroy(&root.mutex);
    return VORN_FAIL_AS(kInit, -1, "Cond init failed, error no %d", error);
  }
  const std::uint64_t now = vorn_time_getmillisec();
  {
    const RootGuard hold;
    root.wheel.reset(now);
    root.next_wake = now + kLongestSleep;
  }
  if (start_thread(kService) == 0) return kReady;
  pthread_cond_destroy(&root.condition);
  pthread_mutex_destroy(&root.mutex);
  return kNoThread;
}

bool was_started() {
  const int now = state.load(std::memory_order_acquire);
  return now == kReady || now == kForked || now == kStopped;
}

// The next start creates the wheel anew.
void forget_parent() {
  if (was_started()) state.store(kForked, std::memory_order_relaxed);
  vorn_spinlock_init(&root.lock);
  root.running = Running{};
}

const ForkChild forget{forget_parent};

bool started() {
  return state.load(std::memory_order_acquire) == kReady ||
         (was_started() && vorn_timer_module_init() == 0);
}

// --- Arming ---

// Wakes the thread unless it is awake, or wakes early enough by itself.
void wake_at(std::uint64_t expiry) {
  if (expiry >= root.next_wake || root.running.in_function()) return;
  pthread_mutex_lock(&root.mutex);
  root.next_wake = expiry;
  pthread_cond_signal(&root.condition);
  pthread_mutex_unlock(&root.mutex);
}

constexpr std::uint64_t kMask = (std::uint64_t{1} << 61) - 1;

enum class Only { kIdle, kAny };

// Arms the timer, unless it is pending and only idle timers are allowed. Returns whether it was
// armed.
//
// Reading the clock takes as long as the rest, so the thread reads it before it takes the lock. A
// thread that then waits for the lock has an older time. A wheel without timers may go back to that
// time: it has no slot that would be opened twice.
bool arm(vorn_timer_s *timer, std::uint64_t milliseconds, Only which) {
  const std::uint64_t now = vorn_time_getmillisec();
  const std::uint64_t expiry = now + ((milliseconds * 125) & kMask) / 125;
  const RootGuard hold;
  const bool pending = is_pending(timer);
  if (pending && which == Only::kIdle) return false;
  atomic_word(timer->timeOut).store(milliseconds, std::memory_order_relaxed);
  if (pending && timer->expirTime == expiry) return true;
  if (pending) root.wheel.detach(timer);
  if (root.wheel.is_empty()) root.wheel.jump(now);
  timer->owner = fork_count();
  root.wheel.insert(timer, expiry);
  wake_at(expiry);
  return true;
}

const char *text_of(const char *text) { return text != nullptr ? text : "(null)"; }

} // namespace
} // namespace vorn::timer

using namespace vorn::timer;

int vorn_timer_module_init() {
  if (state.load(std::memory_order_acquire) == kReady) return 0;
  const vorn::MutexGuard hold{start_mutex};
  if (state.load(std::memory_order_relaxed) == kReady) return 0;
  const int result = start();
  if (result >= 0) state.store(result, std::memory_order_release);
  return result == 0 ? 0 : -1;
}

int vorn_timer_init(vorn_timer_s *timer) {
  if (timer == nullptr) return VORN_FAIL(-1, "Input timer is null.");
  *timer = {};
  return 0;
}

int vorn_timer_set_raw(vorn_timer_s *timer, uint64_t timeOut, uint64_t data, vorn_timer_f func,
                       const char *funcName, const char *file, int line) {
  if (timer == nullptr || func == nullptr) return VORN_FAIL(-1, "Input para is invalid.");
  if (vorn_timer_is_pending(timer) != 0) return VORN_FAIL(-1, "The timer is pending.");
  *timer = {};
  timer->timeOut = timeOut;
  timer->data = data;
  timer->func = func;
  timer->funcName = funcName;
  timer->file = file;
  timer->line = line;
  return 0;
}

int vorn_timer_add(vorn_timer_s *timer) {
  if (!started()) return VORN_FAIL(-1, "vorn timer is not inited.");
  if (timer == nullptr || timer->func == nullptr)
    return VORN_FAIL(-1, "Input timer is null or not initiated.");
  if (is_high_resolution(timer)) {
    if (vorn_hr_timer_is_pending(timer) != 0) return VORN_FAIL(-1, "The timer is pending.");
    mark_high_resolution(timer, false);
  }
  const uint64_t milliseconds = vorn::atomic_word(timer->timeOut).load(std::memory_order_relaxed);
  if (milliseconds == 0) return VORN_FAIL_AS("vorn_timer_modify", -1, "Input para is invalid.");
  return arm(timer, milliseconds, Only::kIdle) ? 0 : VORN_FAIL(-1, "The timer is pending.");
}

int vorn_timer_add_ns(vorn_timer_s *timer) {
  if (timer == nullptr || timer->func == nullptr)
    return VORN_FAIL(-1, "Input timer is null or not initiated.");
  if (!is_high_resolution(timer) && vorn_timer_is_pending(timer) != 0)
    return VORN_FAIL(-1, "The timer is pending.");
  mark_high_resolution(timer, true);
  return vorn_hr_timer_add(timer);
}

int vorn_timer_modify(vorn_timer_s *timer, uint64_t ms) {
  if (timer == nullptr || ms == 0 || timer->func == nullptr)
    return VORN_FAIL(-1, "Input para is invalid.");
  if (is_high_resolution(timer)) return vorn_hr_timer_modify(timer, ms);
  if (!started()) return VORN_FAIL(-1, "vorn timer is not inited.");
  arm(timer, ms, Only::kAny);
  return 0;
}

int vorn_timer_delete(vorn_timer_s *timer) {
  if (timer == nullptr) return VORN_FAIL(-1, "Input timer is null.");
  if (is_high_resolution(timer)) return vorn_hr_timer_delete(timer);
  if (!was_started()) return VORN_FAIL(-1, "vorn timer is not inited.");
  const RootGuard hold;
  disarm(timer);
  return 0;
}

int vorn_timer_delete_sync(vorn_timer_s *timer) {
  if (timer == nullptr) return VORN_FAIL(-1, "Input timer is null.");
  if (is_high_resolution(timer)) return vorn_hr_timer_delete_sync(timer);
  if (!was_started()) return VORN_FAIL(-1, "vorn timer is not inited.");
  Running::Waiter waiter;
  bool from_itself = false;
  {
    const RootGuard hold;
    from_itself = root.running.in_function_of(timer);
    if (!from_itself) {
      disarm(timer);
      if (!root.running.is(timer)) return 0;
      root.running.add(waiter);
    }
  }
  if (from_itself) return VORN_FAIL(-1, "The timer's own function must not wait for its end.");
  wait_for(waiter);
  return 0;
}

int vorn_timer_destroy(vorn_timer_s *timer) { return vorn_timer_delete_sync(timer); }

int vorn_timer_is_pending(vorn_timer_s *timer) {
  if (timer == nullptr) return VORN_FAIL(0, "Input timer is null.");
  if (is_high_resolution(timer)) return vorn_hr_timer_is_pending(timer);
  const RootGuard hold;
  return is_pending(timer) ? 1 : 0;
}

void vorn_timer_show(vorn_list_head_s *node) {
  // The report of a corrupt list may show its head, which is not inside a timer.
  static constexpr vorn_timer_s kHead{{}, 0, 0, {}, 0, 0, 0, nullptr, 0, 0, 0, "list head", "", 0};
  const bool is_head = node == nullptr || root.wheel.is_head(node);
  const vorn_timer_s &timer = is_head ? kHead : *vorn_list_entry(node, vorn_timer_s, list);
  VORN_LOG_INFRA_AS(__func__,
                    "Timer entry:%p, expirTime:%lu, timeOut:%lu, data:%lu, func:%p"
                    "         isp:%x flags:%x in funcName:%s file:%s line:%d",
                    static_cast<void *>(node), timer.expirTime, timer.timeOut, timer.data,
                    reinterpret_cast<void *>(timer.func), static_cast<unsigned int>(timer.isp),
                    static_cast<unsigned int>(timer.flags), text_of(timer.funcName),
                    text_of(timer.file), timer.line);
}
