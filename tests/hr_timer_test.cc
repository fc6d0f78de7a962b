// test-wraps: clock_gettime pthread_mutex_init pthread_condattr_init pthread_create
// Tests the high-resolution timers, by a clock that the test may stop and by the system's clock.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_hr_timer.h"

#include <algorithm>
#include <csignal>

#include "support/timer.hpp"
#include "vorn_timer_posix.h"

static std::atomic<int64_t> g_stopped_at{0}; // nanoseconds; 0 if the clock runs
static std::atomic<int> g_readings{0};
static thread_local bool t_no_clock = false;

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
}

namespace {

int64_t monotonic() {
  timespec now{};
  __real_clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000 + now.tv_nsec;
}

TEST(HrTimerStart, IsTriedOnceForAllCallers) {
  const std::string refused = "E vorn hr timer is not inited.";
  for (const auto &[failing, text] : {std::pair{"mutex", "E Mutex init failed, error no 12."},
                                      {"attributes", "E Condattr init failed, error no 12"},
                                      {"thread", "E Create thread failed."}}) {
    const auto in_child = [&, failing = failing, text = text] {
      g_failing = failing;
      Timer timer;
      if (vorn_timer_add_ns(&timer) != -1) return 1;
      const Lines lines = capture::take_lines();
      if (lines.back() != refused || lines[lines.size() - 2] != text) return 2;
      const int threads = g_threads;
      g_failing = "";
      if (vorn_timer_add_ns(&timer) + vorn_hr_timer_module_init() != -2) return 3;
      return g_threads == threads ? 0 : 4;
    };
    EXPECT_EQ(run_in_child(in_child), 0) << failing;
  }
  Timer timer;
  EXPECT_EQ(vorn_hr_timer_modify(&timer, 1), -1);
  EXPECT_EQ(vorn_hr_timer_delete(&timer), -1);
  EXPECT_EQ(vorn_hr_timer_delete_sync(&timer), -1);
  EXPECT_EQ(vorn_hr_timer_diagnose_func(0, nullptr), 0);
  EXPECT_EQ(capture::take_lines(), Lines(4, refused));
  run_threads(4, [&](int thread) {
    Timer own;
    EXPECT_EQ(thread % 2 == 0 ? vorn_hr_timer_module_init() : 0, 0);
    EXPECT_EQ(vorn_timer_add_ns(&own), 0);
    EXPECT_EQ(vorn_timer_destroy(&own), 0);
  });
  EXPECT_EQ(g_threads, 1);
  EXPECT_EQ(std::ranges::count(capture::take_lines(), "vorn hr timer inited OK."), 1);
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

  // In the future, so that the thread also sleeps by the system's clock.
  static void stop_clock(int64_t nanoseconds) {
    g_stopped_at = (monotonic() / 1000000000 + 30) * 1000000000 + nanoseconds;
  }
};

TEST_F(HrTimers, RefuseBadArguments) {
  stop_clock(0);
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

// In the order of expiry, and of arming for equal expiries.
TEST_F(HrTimers, RunInOrder) {
  g_stopped_at = monotonic() + 20000000;
  const uint64_t delays[] = {500, 900, 500, 100, 900, 500, 0};
  const std::vector<std::size_t> wanted = {6, 3, 0, 2, 5, 1, 4};
  std::vector<std::size_t> order;
  Timers timers;
  for (std::size_t i = 0; i < wanted.size(); ++i)
    timers.push_back(std::make_unique<Timer>([&, i] { order.push_back(i); }, 1000 + delays[i]));
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

// A nanosecond field of 10^9 is kept; the system takes no such deadline.
TEST_F(HrTimers, SleepUntilAFullSecond) {
  stop_clock(999999000);
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
  Timer earlier{0}; // wakes the thread
  ASSERT_EQ(vorn_timer_add_ns(&earlier), 0);
  EXPECT_TRUE(soon([&] { return earlier.fired == 1; }));
  vorn_timer_delete_sync(&timer);
  vorn_timer_delete_sync(&next);
}

TEST_F(HrTimers, AreListedByACommand) {
  stop_clock(0);
  Timers timers;
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
  const auto null = [](const char *call, const char *name, const void *one, const char *other,
                       const void *address) {
    const auto shown = [](const void *at) { return testing::PrintToString(at); };
    return std::string("-22; E Argument NULL in vorn_timer_") + call + "_posix, " + name + ": " +
           (one ? shown(one) : "(nil)") + ", " + other + ": " +
           (address ? shown(address) : "(nil)") + "!\n";
  };
  const auto create = [&](clockid_t clock, sigevent *to, timer_t *out) {
    return capture::outcome(vorn_timer_create_posix(clock, to, out));
  };
  EXPECT_EQ(create(CLOCK_MONOTONIC, nullptr, &timer),
            null("create", "evp", nullptr, "timerid", &timer));
  EXPECT_EQ(create(CLOCK_MONOTONIC, &event, nullptr),
            null("create", "evp", &event, "timerid", nullptr));
  for (const clockid_t clock : {4, -1})
    EXPECT_EQ(create(clock, &event, &timer), "-22; E Argument clockid: " + std::to_string(clock) +
                                                 " is out of range in vorn_timer_create_posix!\n");
  EXPECT_EQ(capture::outcome(vorn_timer_settime_posix(timer, 0, nullptr, &time)),
            null("settime", "timerid", nullptr, "new_value", nullptr));
  EXPECT_EQ(capture::outcome(vorn_timer_gettime_posix(timer, nullptr)),
            null("gettime", "timerid", nullptr, "curr_value", nullptr));
  ASSERT_EQ(vorn_timer_create_posix(CLOCK_THREAD_CPUTIME_ID, &event, &timer), 0);
  EXPECT_EQ(vorn_timer_settime_posix(timer, 0, &time, nullptr), 0);
  EXPECT_EQ(vorn_timer_gettime_posix(timer, &time), 0);
  EXPECT_GE(time.it_value.tv_sec, 999);
  EXPECT_EQ(vorn_timer_getoverrun_posix(timer), 0);
  EXPECT_EQ(vorn_timer_delete_posix(timer), 0);
  EXPECT_NO_MESSAGE();
}

} // namespace
