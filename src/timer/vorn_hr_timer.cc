// Implements the high-resolution timers and the thread that runs them.
//
// The mutex guards the tree, the running timer and the pending timers; threads also read a timer's
// isp and owner without it. A child of fork() drops all of it, in whatever state another thread has
// left it, so a thread that takes the mutex does not enter the fork gate.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_hr_timer.h"

#include <cstring>
#include <ctime>

#include "base/atomic_word.hpp"
#include "base/cancellation_guard.hpp"
#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "base/system.hpp"
#include "base/timespec.hpp"
#include "timer/service.hpp"
#include "vorn_mtx.h"
#include "vorn_rbtree.h"
#include "vorn_sched.h"
#include "vorn_thrd.h"

namespace vorn::timer {
namespace {

constexpr std::uint64_t kIdleSeconds = 10;
constexpr std::int64_t kSecond = 1000000000;
constexpr unsigned long kLinesBetweenSleeps = 50;

enum State : int {
  kReady = 0,
  kNoMutex = 1,
  kNoAttributes = 2,
  kNoClock = 3,
  kNoCondition = 4,
  kNoThread = 5,
  kInitial = 6,
};

struct Root {
  vorn_rb_root_s tree = VORN_RB_ROOT_INIT;
  pthread_mutex_t mutex{};
  pthread_cond_t condition{};
  Running running;
};

constinit Root root;
constinit std::atomic<int> state{kInitial};
constinit std::atomic<bool> was_ready{false}; // in a process that this one was forked from
constinit Once start_once{OncePolicy::kLatch};

// The holder reaches no cancellation point.
class RootGuard {
public:
  RootGuard() { pthread_mutex_lock(&root.mutex); }
  RootGuard(const RootGuard &) = delete;
  RootGuard &operator=(const RootGuard &) = delete;
  ~RootGuard() { pthread_mutex_unlock(&root.mutex); }
};

vorn_timer_s *timer_of(vorn_rb_node_s *node) { return vorn_rb_entry(node, vorn_timer_s, node); }

void set_isp(vorn_timer_s *timer, unsigned int isp) {
  atomic_word(timer->isp).store(static_cast<std::uint8_t>(isp), std::memory_order_relaxed);
}

bool is_pending(const vorn_timer_s *timer) {
  return atomic_word(timer->isp).load(std::memory_order_relaxed) == VORN_TIMER_HR_PENDING &&
         atomic_word(timer->owner).load(std::memory_order_relaxed) == fork_count();
}

// --- The tree ---

bool runs_before(const vorn_timer_s *timer, const vorn_timer_s *other) {
  return timer->seconds < other->seconds ||
         (timer->seconds == other->seconds && timer->nanoseconds < other->nanoseconds);
}

// Returns whether the timer is the first to expire.
bool insert(vorn_timer_s *timer) {
  vorn_rb_node_s **link = &root.tree.node;
  vorn_rb_node_s *parent = nullptr;
  bool first = true;
  while (*link != nullptr) {
    parent = *link;
    const bool before = runs_before(timer, timer_of(parent));
    link = before ? &parent->left : &parent->right;
    if (!before) first = false;
  }
  vorn_rb_link_node(&timer->node, parent, link);
  vorn_rb_insert_color(&timer->node, &root.tree);
  atomic_word(timer->owner).store(fork_count(), std::memory_order_relaxed);
  set_isp(timer, VORN_TIMER_HR_PENDING);
  return first;
}

void disarm(vorn_timer_s *timer) {
  if (!is_pending(timer)) return;
  vorn_rb_erase(&timer->node, &root.tree);
  set_isp(timer, 0);
}

// --- The thread ---

std::uint64_t now() {
  timespec time{};
  while (clock_gettime(CLOCK_MONOTONIC, &time) != 0)
    continue;
  return nanoseconds(time);
}

std::uint64_t expiry_of(const vorn_timer_s *timer) {
  return static_cast<std::uint64_t>(timer->seconds * kSecond + timer->nanoseconds);
}

void sleep_until(std::uint64_t time) {
  sys::wait_until(&root.condition, &root.mutex, timespec_of(time));
}

// Called and returns with the mutex held; runs the function without it. Returns false in a child
// that the function has forked.
bool run_due(vorn_timer_s *timer) {
  disarm(timer);
  const Call call{*timer};
  root.running.begin(timer);
  pthread_mutex_unlock(&root.mutex);
  const std::uint32_t process = fork_count();
  if (call.function() != nullptr) call.run();
  if (process != fork_count()) return false;
  pthread_mutex_lock(&root.mutex);
  root.running.end(disarm);
  return true;
}

void run_hr_timers() {
  pthread_mutex_lock(&root.mutex);
  for (;;) {
    vorn_rb_node_s *first = vorn_rb_first(&root.tree);
    const std::uint64_t time = now();
    if (first == nullptr)
      sleep_until(time + kIdleSeconds * kSecond);
    else if (expiry_of(timer_of(first)) > time)
      sleep_until(expiry_of(timer_of(first)));
    else if (!run_due(timer_of(first)))
      return;
  }
}

void end_call() {
  const RootGuard hold;
  root.running.end(disarm);
}

constexpr Service kService{"vorn_hr_timer", 0,         VORN_THRD_STRATEGY_CRITICAL,
                           run_hr_timers,   end_call,  &state,
                           kNoThread,       VORN_FILE, "vorn_hr_timer_module_init"};

// --- Start ---

// Each returns kReady. On failure, it logs an error and returns the failed step.
int make_condition() {
  constexpr const char *kInit = "vorn_hr_timer_module_init";
  pthread_condattr_t attributes;
  int error = pthread_condattr_init(&attributes);
  if (error != 0)
    return VORN_FAIL_AS(kInit, kNoAttributes, "Condattr init failed, error no %d", error);
  int result = kReady;
  if ((error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC)) != 0)
    result = VORN_FAIL_AS(kInit, kNoClock, "Condattr setclock failed, error no %d", error);
  else if ((error = pthread_cond_init(&root.condition, &attributes)) != 0)
    result = VORN_FAIL_AS(kInit, kNoCondition, "Cond init failed, error no %d", error);
  pthread_condattr_destroy(&attributes);
  return result;
}

int start() {
  constexpr const char *kInit = "vorn_hr_timer_module_init";
  root.tree = VORN_RB_ROOT_INIT;
  const int error = vorn_mtx_init(&root.mutex, VORN_MTX_NORMAL);
  if (error != 0) return VORN_FAIL_AS(kInit, kNoMutex, "Mutex init failed, error no %d.", error);
  int result = make_condition();
  if (result == kReady && start_thread(kService) != 0) {
    pthread_cond_destroy(&root.condition);
    result = kNoThread;
  }
  if (result != kReady) {
    pthread_mutex_destroy(&root.mutex);
    return result;
  }
  VORN_LOG_AS(kInit, kInfo, "vorn hr timer inited OK.");
  return kReady;
}

// Returns whether this call has tried to start the service.
bool start_at_first() {
  bool here = false;
  start_once.run([&] {
    here = true;
    state.store(start(), std::memory_order_release);
    return 0;
  });
  return here;
}

void forget_parent() {
  if (state.load(std::memory_order_relaxed) == kReady)
    was_ready.store(true, std::memory_order_relaxed);
  state.store(kInitial, std::memory_order_relaxed);
  start_once.reset([] {});
  root.running = Running{};
}

const ForkChild forget{forget_parent};

bool is_ready() { return state.load(std::memory_order_acquire) == kReady; }

// A child of fork() starts its service with the first timer that it arms. No timer is pending
// before that.
bool is_unused_child() { return !is_ready() && was_ready.load(std::memory_order_relaxed); }

// --- Arming ---

enum class Only { kIdle, kAny };
enum class Armed { kYes, kPending, kNoTime };

Armed arm(vorn_timer_s *timer, std::uint64_t timeout, Only which) {
  const RootGuard hold;
  if (which == Only::kIdle && is_pending(timer)) return Armed::kPending;
  disarm(timer);
  timer->timeOut = timeout;
  timespec time{};
  if (clock_gettime(CLOCK_MONOTONIC, &time) != 0) return Armed::kNoTime;
  timer->seconds = time.tv_sec;
  timer->nanoseconds = time.tv_nsec + static_cast<std::int64_t>(timeout);
  if (timer->nanoseconds > kSecond) {
    ++timer->seconds;
    timer->nanoseconds -= kSecond;
  }
  if (insert(timer)) pthread_cond_signal(&root.condition);
  return Armed::kYes;
}

const char *text_of(const char *text) { return text != nullptr ? text : "(null)"; }

void list_timers() {
  const CancellationGuard off; // for the sleep
  VORN_LOG_AS("vorn_hr_timer_diagnose_func", kInfo, "list of timer\n%-5s %-24s %-12s %s:%-5s\n",
              "[NO.]", "[Timer Handler]", "[Expire(ms)]", "[file", "line]");
  const RootGuard hold;
  unsigned long number = 0;
  for (auto *node = vorn_rb_first(&root.tree); node != nullptr; node = vorn_rb_next(node)) {
    const vorn_timer_s *timer = timer_of(node);
    VORN_LOG_AS("vorn_hr_timer_diagnose_func", kInfo, "%-5lu %-24s %-12lu %s:%-5d\n", ++number,
                text_of(timer->funcName), timer->timeOut, text_of(timer->file), timer->line);
    if (number % kLinesBetweenSleeps == 0) vorn_10msleep(100);
  }
}

} // namespace
} // namespace vorn::timer

using namespace vorn::timer;

int vorn_hr_timer_module_init() {
  if (!start_at_first() && is_ready()) {
    VORN_LOG(vorn::kInfo, "vorn hr timer is already inited.");
    return 0;
  }
  return is_ready() ? 0 : -1;
}

int vorn_hr_timer_add(vorn_timer_s *timer) {
  start_at_first();
  if (!is_ready()) return VORN_FAIL(-1, "vorn hr timer is not inited.");
  if (timer == nullptr) return VORN_FAIL(-1, "Input timer is null.");
  if (is_pending(timer)) return VORN_FAIL(-1, "the hr timer is pending.");
  if (timer->timeOut > VORN_HR_TIMER_MAX) return VORN_FAIL(-1, "expire must less than 1 ms.");
  switch (arm(timer, timer->timeOut, Only::kIdle)) {
  case Armed::kYes:
    return 0;
  case Armed::kPending:
    return VORN_FAIL(-1, "the hr timer is pending.");
  default:
    return VORN_FAIL(-1, "Get clock time failed, errno %d", errno);
  }
}

int vorn_hr_timer_modify(vorn_timer_s *timer, uint64_t ns) {
  if (is_unused_child()) start_at_first();
  if (!is_ready()) return VORN_FAIL(-1, "vorn hr timer is not inited.");
  if (timer == nullptr) return VORN_FAIL(-1, "Input timer is null.");
  if (ns > VORN_HR_TIMER_MAX) return VORN_FAIL(-1, "expire must less than 1 ms.");
  if (arm(timer, ns, Only::kAny) == Armed::kYes) return 0;
  return VORN_FAIL(-1, "Get clock time failed, errno %d", errno);
}

int vorn_hr_timer_delete(vorn_timer_s *timer) {
  if (is_unused_child()) return 0;
  if (!is_ready()) return VORN_FAIL(-1, "vorn hr timer is not inited.");
  if (timer == nullptr) return 0;
  const RootGuard hold;
  disarm(timer);
  return 0;
}

int vorn_hr_timer_delete_sync(vorn_timer_s *timer) {
  if (is_unused_child()) return 0;
  if (!is_ready()) return VORN_FAIL(-1, "vorn hr timer is not inited.");
  if (timer == nullptr) return 0;
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

int vorn_hr_timer_is_pending(vorn_timer_s *timer) {
  if (timer == nullptr) return VORN_FAIL(0, "Input timer is null.");
  return is_pending(timer) ? 1 : 0;
}

int vorn_hr_timer_diagnose_func(int argc, char **argv) {
  constexpr char kList[] = "list";
  if (!is_ready()) return VORN_FAIL(0, "vorn hr timer is not inited.");
  const bool is_list = argc == 3 && argv != nullptr && argv[2] != nullptr &&
                       std::strncmp(argv[2], kList, sizeof kList - 1) == 0;
  if (is_list)
    list_timers();
  else
    VORN_LOG(vorn::kInfo, "cmd input wrong.\n");
  return 0;
}
