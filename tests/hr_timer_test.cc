// test-wraps: clock_gettime pthread_mutex_init pthread_condattr_init pthread_create
// The high-resolution timers, on a clock that the test may stop, and the system's.
#include "vorn_hr_timer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/threads.hpp"
#include "vorn_thrd.h"
#include "vorn_timer_posix.h"

static std::atomic<int64_t> g_stopped_at{0}; // nanoseconds; 0: the clock goes
static std::atomic<int> g_readings{0};
static thread_local bool t_no_clock = false;
static std::string g_failing; // the call that fails
static std::atomic<int> g_threads{0};

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now) {
  if (clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, now);
  ++g_readings;
  if (t_no_clock) return errno = EIO, -1;
  const int64_t stopped = g_stopped_at;
  if (stopped == 0) return __real_clock_gettime(clock, now);
  *now = {stopped / 1000000000, stopped % 1000000000};
  return 0;
}
int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
  return g_failing == "mutex" ? ENOMEM : __real_pthread_mutex_init(mutex, attributes);
}
int __real_pthread_condattr_init(pthread_condattr_t *attributes);
int __wrap_pthread_condattr_init(pthread_condattr_t *attributes) {
  return g_failing == "attributes" ? ENOMEM : __real_pthread_condattr_init(attributes);
}
int __real_pthread_create(pthread_t *out, const pthread_attr_t *attributes, void *(*run)(void *),
                          void *argument);
int __wrap_pthread_create(pthread_t *out, const pthread_attr_t *attributes, void *(*run)(void *),
                          void *argument) {
  ++g_threads;
  return g_failing == "thread" ? EAGAIN : __real_pthread_create(out, attributes, run, argument);
}
}

namespace {

using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

int64_t monotonic() {
  timespec now{};
  __real_clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000 + now.tv_nsec;
}

struct Timer : vorn_timer_s {
  explicit Timer(uint64_t ns = 1000, std::function<void()> what = {})
      : vorn_timer_s{}, run(std::move(what)) {
    vorn_timer_set_raw(this, ns, reinterpret_cast<uint64_t>(this), fire, "adder", "file", 3);
  }
  static void fire(uint64_t data) {
    auto *timer = reinterpret_cast<Timer *>(data);
    if (settled && g_stopped_at == 0 &&
        monotonic() < timer->seconds * 1000000000 + timer->nanoseconds)
      ++early;
    const auto what = timer->run; // which may free the timer
    ++timer->fired;
    if (what) what();
  }
  static inline std::atomic<int> early{0};
  static inline std::atomic<bool> settled{true}; // no other thread arms it while it runs
  std::atomic<int> fired{0};
  std::function<void()> run;
};

template <class Condition> bool soon(Condition condition) {
  for (int i = 0; i < 10000 && !condition(); ++i)
    std::this_thread::sleep_for(milliseconds{1});
  return condition();
}

TEST(HrTimerStart, IsTriedOnceAndSharedByAllCallers) {
  for (const auto &[failing, text] : {std::pair{"mutex", "E Mutex init failed, error no 12."},
                                      {"attributes", "E Condattr init failed, error no 12"},
                                      {"thread", "E Create thread failed."}}) {
    EXPECT_EQ(run_in_child([failing = failing, text = text] {
                g_failing = failing;
                Timer timer;
                if (vorn_timer_add_ns(&timer) != -1) return 1;
                const Lines lines = capture::take_lines();
                if (lines.back() != "E vorn hr timer is not inited.") return 2;
                if (lines[lines.size() - 2] != text) return 3;
                g_failing = "";
                if (vorn_timer_add_ns(&timer) != -1) return 4;
                if (vorn_hr_timer_module_init() != -1) return 5;
                return g_threads == (text == std::string("E Create thread failed.") ? 1 : 0) ? 0
                                                                                             : 6;
              }),
              0)
        << failing;
  }
  Timer timer;
  EXPECT_EQ(vorn_hr_timer_modify(&timer, 1), -1);
  EXPECT_EQ(vorn_hr_timer_delete(&timer), -1);
  EXPECT_EQ(vorn_hr_timer_delete_sync(&timer), -1);
  EXPECT_EQ(vorn_hr_timer_diagnose_func(0, nullptr), 0);
  EXPECT_EQ(capture::take_lines(), Lines(4, "E vorn hr timer is not inited."));
  run_threads(4, [&](int thread) {
    if (thread % 2 == 0) {
      EXPECT_EQ(vorn_hr_timer_module_init(), 0);
    } else {
      Timer own;
      EXPECT_EQ(vorn_timer_add_ns(&own), 0);
      EXPECT_EQ(vorn_timer_destroy(&own), 0);
    }
  });
  EXPECT_EQ(g_threads, 1);
  Lines lines = capture::take_lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "vorn hr timer inited OK."), 1);
  capture::take();
  EXPECT_EQ(vorn_hr_timer_module_init(), 0);
  EXPECT_EQ(capture::take_lines(), Lines{"vorn hr timer is already inited."});
}

class HrTimers : public testing::Test {
protected:
  HrTimers() {
    EXPECT_EQ(vorn_hr_timer_module_init(), 0);
    capture::take();
  }
  ~HrTimers() override { EXPECT_EQ(Timer::early, 0); }

  // In the future, so that the thread sleeps by the system's clock too.
  static void stop_clock(int64_t ahead, int64_t nanoseconds) {
    g_stopped_at = (monotonic() / 1000000000 + ahead) * 1000000000 + nanoseconds;
  }
};

TEST_F(HrTimers, RefuseBadArguments) {
  stop_clock(30, 0);
  Timer timer{1000000};
  Timer late{1000001};
  EXPECT_EQ(vorn_timer_add_ns(&timer), 0);
  EXPECT_EQ(vorn_timer_is_pending(&timer), 1);
  EXPECT_EQ(timer.isp, 17);
  EXPECT_EQ(vorn_timer_add_ns(&timer), -1);
  EXPECT_EQ(vorn_timer_set(&timer, 1, 0, Timer::fire), -1);
  EXPECT_EQ(vorn_timer_add_ns(&late), -1);
  EXPECT_EQ(vorn_timer_modify(&timer, 1000001), -1);
  EXPECT_EQ(vorn_timer_modify(&timer, 1000000), 0);
  EXPECT_EQ(vorn_hr_timer_add(nullptr), -1);
  EXPECT_EQ(vorn_hr_timer_modify(nullptr, 1), -1);
  EXPECT_EQ(vorn_hr_timer_delete(nullptr), 0);
  t_no_clock = true;
  Timer timeless;
  EXPECT_EQ(vorn_timer_add_ns(&timeless), -1);
  EXPECT_EQ(vorn_timer_modify(&timer, 5), -1);
  t_no_clock = false;
  EXPECT_EQ(timer.isp, 0); // out of the tree
  EXPECT_EQ(vorn_timer_is_pending(&timer) + vorn_timer_is_pending(&timeless), 0);
  EXPECT_EQ(capture::take_lines(),
            (Lines{"E the hr timer is pending.", "E The timer is pending.",
                   "E expire must less than 1 ms.", "E expire must less than 1 ms.",
                   "E Input timer is null.", "E Input timer is null.",
                   "E Get clock time failed, errno 5", "E Get clock time failed, errno 5"}));
  EXPECT_EQ(vorn_timer_add_ns(&timer), 0);
  EXPECT_EQ(vorn_timer_delete(&timer), 0);
  EXPECT_EQ(vorn_timer_is_pending(&timer), 0);
}

// By expiry, and those of one expiry in the order of their arming.
TEST_F(HrTimers, RunInOrder) {
  g_stopped_at = monotonic() + 20000000;
  const uint64_t delays[] = {500, 900, 500, 100, 900, 500, 0};
  const std::vector<std::size_t> wanted = {6, 3, 0, 2, 5, 1, 4};
  std::vector<std::size_t> order;
  std::vector<std::unique_ptr<Timer>> timers;
  for (std::size_t i = 0; i < wanted.size(); ++i)
    timers.push_back(std::make_unique<Timer>(1000 + delays[i], [&, i] { order.push_back(i); }));
  Timer deleted{1300};
  Timer last{2000};
  for (const auto &timer : timers)
    ASSERT_EQ(vorn_timer_add_ns(timer.get()), 0);
  ASSERT_EQ(vorn_timer_add_ns(&deleted), 0);
  ASSERT_EQ(vorn_timer_add_ns(&last), 0);
  ASSERT_EQ(vorn_timer_delete(&deleted), 0);
  g_stopped_at += 2000; // all is due
  ASSERT_TRUE(soon([&] { return last.fired == 1; }));
  EXPECT_EQ(order, wanted);
  EXPECT_EQ(deleted.fired, 0);
}

// A nanosecond field of 10^9 is kept, and no deadline of the system's.
TEST_F(HrTimers, SleepUntilAFullSecond) {
  stop_clock(30, 999999000);
  Timer timer{1000};
  ASSERT_EQ(vorn_timer_add_ns(&timer), 0);
  EXPECT_EQ(timer.nanoseconds, 1000000000);
  const int before = g_readings;
  std::this_thread::sleep_for(milliseconds{50});
  EXPECT_LT(g_readings - before, 5);
  Timer next{1001};
  ASSERT_EQ(vorn_timer_add_ns(&next), 0);
  EXPECT_EQ(next.seconds, timer.seconds + 1);
  EXPECT_EQ(next.nanoseconds, 1);
  std::this_thread::sleep_for(milliseconds{5});
  Timer earlier{0}; // for which the thread is woken
  ASSERT_EQ(vorn_timer_add_ns(&earlier), 0);
  EXPECT_TRUE(soon([&] { return earlier.fired == 1; }));
  vorn_timer_delete_sync(&timer);
  vorn_timer_delete_sync(&next);
}

TEST_F(HrTimers, RunOnceAndNeverEarlyInAStorm) {
  constexpr int kThreads = 4;
  std::vector<std::unique_ptr<Timer>> timers;
  for (int i = 0; i < 2000; ++i)
    timers.push_back(std::make_unique<Timer>());
  Timer::settled = false;
  run_threads(kThreads, [&](int thread) {
    std::mt19937 random(static_cast<unsigned int>(thread));
    for (int i = 0; i < 20000; ++i) {
      Timer *timer = timers[random() % timers.size()].get();
      if (random() % 4 == 0)
        vorn_hr_timer_delete(timer);
      else
        vorn_hr_timer_modify(timer, random() % 1000000);
    }
  });
  for (const auto &timer : timers)
    ASSERT_EQ(vorn_hr_timer_delete_sync(timer.get()), 0);
  Timer::settled = true;
  run_threads(kThreads, [&](int thread) {
    for (std::size_t i = static_cast<std::size_t>(thread); i < timers.size(); i += kThreads) {
      timers[i]->fired = 0;
      ASSERT_EQ(vorn_timer_add_ns(timers[i].get()), 0);
    }
  });
  for (const auto &timer : timers)
    ASSERT_TRUE(soon([&] { return timer->fired == 1; }));
  std::this_thread::sleep_for(milliseconds{5});
  for (const auto &timer : timers)
    ASSERT_EQ(timer->fired, 1);
  EXPECT_NO_RECORD();
}

TEST_F(HrTimers, DeleteSyncWaitsForTheCallAlone) {
  std::atomic<bool> inside{false};
  auto freed = std::make_unique<Timer>();
  freed->run = [&] { freed.reset(); };
  ASSERT_EQ(vorn_timer_add_ns(freed.get()), 0);
  Timer timer;
  timer.run = [&] {
    inside = true;
    vorn_timer_modify(&timer, 1); // again and again, with no time between
    std::this_thread::sleep_for(milliseconds{3});
    vorn_timer_modify(&timer, 1);
    inside = false;
  };
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(i == 0 ? vorn_timer_add_ns(&timer) : vorn_timer_modify(&timer, 1), 0);
    ASSERT_TRUE(soon([&] { return inside.load(); }));
    ASSERT_EQ(vorn_timer_delete_sync(&timer), 0);
    ASSERT_FALSE(inside);
    const int fired = timer.fired;
    std::this_thread::sleep_for(milliseconds{5});
    ASSERT_EQ(timer.fired, fired);
  }
  std::atomic<int> result{0};
  timer.run = [&] { result = vorn_timer_destroy(&timer); };
  ASSERT_EQ(vorn_timer_add_ns(&timer), 0);
  ASSERT_TRUE(soon([&] { return result == -1; }));
  EXPECT_EQ(capture::take_lines(), Lines{"E The timer's own function must not wait for its end."});
  Timer fatal{1, [] {
                vorn_thrd_clearcurthreadinfo();
                pthread_exit(nullptr);
              }};
  Timer next;
  ASSERT_EQ(vorn_timer_add_ns(&fatal), 0);
  ASSERT_EQ(vorn_timer_add_ns(&next), 0);
  EXPECT_TRUE(soon([&] { return next.fired == 1; })); // in another thread
}

TEST_F(HrTimers, OfTheParentAreNotPendingInAChild) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the thread sanitizer ends a child that starts a thread";
#endif
  stop_clock(30, 0);
  Timer timer;
  ASSERT_EQ(vorn_timer_add_ns(&timer), 0);
  EXPECT_EQ(run_in_child([&] {
              if (vorn_timer_is_pending(&timer) != 0) return 1;
              if (vorn_timer_delete(&timer) != 0) return 2;
              g_stopped_at = 0;
              std::this_thread::sleep_for(milliseconds{20});
              if (timer.fired != 0) return 3;
              if (vorn_timer_modify(&timer, 1000) != 0) return 4;
              return soon([&] { return timer.fired == 1; }) ? 0 : 5;
            }),
            0);
  EXPECT_EQ(vorn_timer_is_pending(&timer), 1);
  EXPECT_EQ(vorn_timer_delete_sync(&timer), 0);
}

TEST_F(HrTimers, AreListedByACommand) {
  stop_clock(30, 0);
  std::vector<std::unique_ptr<Timer>> timers;
  for (uint64_t i = 0; i < 51; ++i) {
    timers.push_back(std::make_unique<Timer>(900000 - i));
    ASSERT_EQ(vorn_timer_add_ns(timers.back().get()), 0);
  }
  char word[] = "listing";
  char other[] = "lis";
  char *list[] = {word, word, word};
  char *wrong[] = {word, word, other};
  const int64_t start = monotonic();
  EXPECT_EQ(vorn_hr_timer_diagnose_func(3, list), 0);
  EXPECT_GT(monotonic() - start, 990000000);
  const Lines lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 52u);
  EXPECT_EQ(lines[0], "list of timer\n[NO.] [Timer Handler]          [Expire(ms)] [file:line]\n");
  EXPECT_EQ(lines[1], "1     adder                    899950       file:3    \n");
  EXPECT_EQ(lines[51], "51    adder                    900000       file:3    \n");
  vorn_timer_delete(timers[0].get());
  vorn_timer_delete(timers[1].get());
  EXPECT_EQ(vorn_hr_timer_diagnose_func(3, list), 0); // 49 lines, and no sleep
  EXPECT_EQ(capture::take().size(), 50u);
  EXPECT_LT(monotonic() - start, 1900000000);
  EXPECT_EQ(vorn_hr_timer_diagnose_func(2, list), 0);
  EXPECT_EQ(vorn_hr_timer_diagnose_func(3, wrong), 0);
  EXPECT_EQ(capture::take_lines(), Lines(2, "cmd input wrong.\n"));
  for (const auto &timer : timers)
    vorn_timer_delete_sync(timer.get());
}

TEST(PosixTimers, CheckTheirArguments) {
  sigevent event{};
  event.sigev_notify = SIGEV_NONE;
  timer_t timer{};
  itimerspec time{{}, {1000, 0}};
  EXPECT_EQ(vorn_timer_create_posix(CLOCK_MONOTONIC, nullptr, &timer), -22);
  EXPECT_EQ(vorn_timer_create_posix(CLOCK_MONOTONIC, &event, nullptr), -22);
  EXPECT_EQ(vorn_timer_create_posix(4, &event, &timer), -22);
  EXPECT_EQ(vorn_timer_create_posix(-1, &event, &timer), -22);
  EXPECT_EQ(vorn_timer_settime_posix(timer, 0, nullptr, &time), -22);
  EXPECT_EQ(vorn_timer_gettime_posix(timer, nullptr), -22);
  char text[128];
  const Lines lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 6u);
  std::snprintf(text, sizeof text,
                "E Argument NULL in vorn_timer_create_posix, evp: %p, timerid: %p!\n",
                static_cast<void *>(nullptr), static_cast<void *>(&timer));
  EXPECT_EQ(lines[0], text);
  EXPECT_EQ(lines[2], "E Argument clockid: 4 is out of range in vorn_timer_create_posix!\n");
  EXPECT_EQ(lines[3], "E Argument clockid: -1 is out of range in vorn_timer_create_posix!\n");
  std::snprintf(text, sizeof text,
                "E Argument NULL in vorn_timer_settime_posix, timerid: %p, new_value: %p!\n", timer,
                static_cast<void *>(nullptr));
  EXPECT_EQ(lines[4], text);
  std::snprintf(text, sizeof text,
                "E Argument NULL in vorn_timer_gettime_posix, timerid: %p, curr_value: %p!\n",
                timer, static_cast<void *>(nullptr));
  EXPECT_EQ(lines[5], text);

  ASSERT_EQ(vorn_timer_create_posix(CLOCK_THREAD_CPUTIME_ID, &event, &timer), 0);
  EXPECT_EQ(vorn_timer_settime_posix(timer, 0, &time, nullptr), 0);
  EXPECT_EQ(vorn_timer_gettime_posix(timer, &time), 0);
  EXPECT_GE(time.it_value.tv_sec, 999);
  EXPECT_EQ(vorn_timer_getoverrun_posix(timer), 0);
  EXPECT_EQ(vorn_timer_delete_posix(timer), 0);
  EXPECT_NO_RECORD();
}

} // namespace
