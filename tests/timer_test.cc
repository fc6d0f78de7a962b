// test-wraps: vorn_time_getmillisec vorn_time_getnanosec pthread_cond_init pthread_create
// Tests the wheel against a naive model, its timers by a clock that the test may stop and move, and
// what both kinds of timers have in common.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_timer.h"

#include <algorithm>
#include <set>

#include "support/timer.hpp"
#include "timer/wheel.hpp"
#include "vorn_hr_timer.h"
#include "vorn_jiffies.h"

static std::atomic<uint64_t> g_stopped_at{0}; // milliseconds; 0 if the clock runs
static std::atomic<uint64_t> g_step{0};       // nanoseconds that a reading adds to a stopped clock
static std::atomic<uint64_t> g_steps{0};

extern "C" {
uint64_t __real_vorn_time_getnanosec();
uint64_t __wrap_vorn_time_getnanosec() {
  const uint64_t stopped = g_stopped_at;
  return stopped != 0 ? stopped * 1000000 + (g_steps += g_step) : __real_vorn_time_getnanosec();
}
uint64_t __wrap_vorn_time_getmillisec() { return __wrap_vorn_time_getnanosec() / 1000000; }

int __real_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes);
int __wrap_pthread_cond_init(pthread_cond_t *condition, const pthread_condattr_t *attributes) {
  return g_failing == "condition" ? EAGAIN : __real_pthread_cond_init(condition, attributes);
}
}

namespace {

using vorn::timer::Wheel;

std::string shown(const void *address) { return testing::PrintToString(address); }
const std::string kFire = shown(reinterpret_cast<void *>(Timer::fire));

constexpr uint64_t kDay = 86400000;
constexpr uint64_t kSteps[] = {1,         1000,      60000,     3600000,
                               216000000, 60 * kDay, 61 * kDay, 130 * kDay};

// A delay or a jump at one of the borders or between them.
uint64_t some_time(std::mt19937_64 &random) {
  const uint64_t step = kSteps[random() % std::size(kSteps)];
  return random() % 2 == 0 ? step - 1 + random() % 3 : 1 + random() % (step * 60);
}

TEST(Wheel, RunsEachTimerWhenANaiveModelDoes) {
  std::mt19937_64 random{5};
  auto wheel = std::make_unique<Wheel>();
  std::vector<vorn_timer_s> timers(300);
  for (int round = 0; round < 60; ++round) {
    uint64_t now = kSteps[random() % std::size(kSteps)] * (1 + random() % 100) - random() % 2;
    wheel->reset(now);
    std::multiset<uint64_t> model;
    const auto drop = [&](const vorn_timer_s &timer) { model.erase(model.find(timer.expirTime)); };
    for (int turn = 0; turn < 400; ++turn) {
      g_stopped_at = now;
      vorn_timer_s &timer = timers[random() % timers.size()];
      const bool pending = timer.list.next != nullptr;
      if (pending) drop(timer);
      if (pending && random() % 2 == 0) {
        wheel->remove(&timer);
      } else {
        if (pending) wheel->detach(&timer);
        if (wheel->is_empty()) wheel->jump(now);
        wheel->insert(&timer, now + some_time(random));
        model.insert(timer.expirTime);
      }
      if (turn % 3 != 0) continue;
      g_stopped_at = now += random() % 4 == 0 ? some_time(random) : 1 + random() % 1500;
      uint64_t last = 0;
      int steps = 0;
      for (auto progress = wheel->advance(now); progress != Wheel::Progress::kDone;
           progress = wheel->advance(now), ++steps) {
        if (progress != Wheel::Progress::kDue) continue;
        vorn_timer_s *due = wheel->take_due();
        ASSERT_NE(due, nullptr);
        ASSERT_LE(due->expirTime, now);
        ASSERT_GE(due->expirTime + 1, last); // a timer that is already late comes last
        ASSERT_EQ(due->list.next, nullptr);
        last = due->expirTime;
        drop(*due);
      }
      ASSERT_TRUE(model.empty() || *model.begin() > now);
      ASSERT_GT(wheel->next_event(), now);
      ASSERT_LE(wheel->next_event(), model.empty() ? UINT64_MAX : *model.begin());
      ASSERT_EQ(wheel->is_empty(), model.empty());
      ASSERT_LT(steps, 1500 + static_cast<int>(now / (60 * kDay))); // it skips empty slots
    }
    for (vorn_timer_s &timer : timers)
      timer = {};
  }
  EXPECT_NO_MESSAGE();
}

class WheelTimers : public testing::Test {
protected:
  WheelTimers() {
    EXPECT_EQ(vorn_timer_module_init(), 0);
    vorn_get_jiffies(); // logs about its driver once
    capture::take();
  }
  ~WheelTimers() override { EXPECT_EQ(Timer::early, 0); }

  static void stop_clock() { g_stopped_at = vorn_time_getmillisec() / 1000 * 1000 + 1000000; }
};

TEST(TimerStart, RefusesUntilStartedAndTriesAgainAfterAFailure) {
  Timer timer;
  const int results = vorn_timer_add(&timer) + vorn_timer_modify(&timer, 1) +
                      vorn_timer_delete(&timer) + vorn_timer_delete_sync(&timer);
  EXPECT_EQ(results, -4);
  EXPECT_EQ(vorn_timer_is_pending(&timer), 0);
  EXPECT_EQ(capture::take_lines(), Lines(4, "E vorn timer is not inited."));
  for (const auto &[failing, text] : {std::pair{"condition", "E Cond init failed, error no 11"},
                                      {"thread", "E Create thread failed."}}) {
    g_failing = failing;
    EXPECT_EQ(vorn_timer_module_init(), -1);
    EXPECT_EQ(capture::take_lines().back(), text);
    EXPECT_EQ(vorn_timer_delete(&timer), -1);
    capture::take();
  }
  g_failing = "";
  EXPECT_EQ(vorn_timer_module_init(), 0);
  EXPECT_EQ(vorn_timer_module_init(), 0);
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(vorn_timer_add(&timer), 0);
  EXPECT_TRUE(soon([&] { return timer.fired == 1; }));
}

TEST_F(WheelTimers, RefuseBadArguments) {
  stop_clock();
  Timer timer;
  vorn_timer_s none{};
  Timer untimed;
  untimed.timeOut = 0;
  EXPECT_EQ(vorn_timer_add(&timer), 0);
  const auto set = [](vorn_timer_s *it, vorn_timer_f func) {
    return vorn_timer_set_raw(it, 1, 0, func, "", "", 0);
  };
  for (const int result :
       {set(nullptr, Timer::fire), set(&none, nullptr), vorn_timer_modify(nullptr, 1),
        vorn_timer_modify(&timer, 0), vorn_timer_modify(&none, 1), vorn_timer_add(&untimed),
        set(&timer, Timer::fire), vorn_timer_add(&timer), vorn_timer_add_ns(&timer),
        vorn_timer_add(nullptr), vorn_timer_add(&none), vorn_timer_add_ns(nullptr),
        vorn_timer_add_ns(&none), vorn_timer_init(nullptr), vorn_timer_delete(nullptr),
        vorn_timer_delete_sync(nullptr), vorn_timer_destroy(nullptr),
        vorn_timer_is_pending(nullptr) - 1})
    EXPECT_EQ(result, -1);
  Lines wanted(6, "E Input para is invalid.");
  wanted.insert(wanted.end(), 3, "E The timer is pending.");
  wanted.insert(wanted.end(), 4, "E Input timer is null or not initiated.");
  wanted.insert(wanted.end(), 5, "E Input timer is null.");
  EXPECT_EQ(capture::take_lines(), wanted);
  EXPECT_EQ(vorn_timer_delete(&timer), 0);
  EXPECT_EQ(vorn_timer_delete(&timer), 0); // not pending any more
  EXPECT_EQ(timer.list.prev, VORN_LIST_POISON_PREV);
  // The range of a time-out, modulo 2^61 / 125; 2^61 + 1 times 125 exceeds it.
  for (const auto &[ms, counted] : {std::pair{(uint64_t{1} << 61) / 125, (uint64_t{1} << 61) / 125},
                                    {(uint64_t{1} << 61) / 125 + 1, uint64_t{0}},
                                    {(uint64_t{1} << 61) + 7, uint64_t{7}}}) {
    EXPECT_EQ(vorn_timer_modify(&timer, ms), 0);
    EXPECT_EQ(timer.timeOut, ms);
    EXPECT_EQ(timer.expirTime, g_stopped_at + counted);
    vorn_timer_delete_sync(&timer);
  }
}

TEST_F(WheelTimers, ShowTheirFieldsTwice) {
  Timer timer;
  timer.expirTime = 9;
  timer.data = 7;
  timer.isp = 17;
  timer.flags = 1;
  vorn_timer_show(&timer.list);
  const std::string text = "Timer entry:" + shown(&timer.list) +
                           ", expirTime:9, timeOut:5, data:7, func:" + kFire +
                           "         isp:11 flags:1 in funcName:adder file:file line:3";
  const auto messages = capture::take();
  ASSERT_EQ(messages.size(), 2u);
  for (const auto &message : messages) {
    const bool infra = &message == &messages[0];
    EXPECT_EQ(message.module, infra ? 0u : 381u);
    EXPECT_EQ(message.level, 6);
    EXPECT_EQ(message.text, (infra ? "[Infra]" : "") + text);
  }
}

// The thread sleeps at most 20 ms at a time, less if an earlier timer wakes it, and never beyond an
// expiry, however late it is between two readings. A busy machine gets four tries.
TEST_F(WheelTimers, WakeTheirThreadInTime) {
  for (const uint64_t step : {0, 600000}) {
    if (step != 0) stop_clock();
    g_step = step;
    int slow = 40;
    Timer timer;
    for (int round = 0; round < 4 && slow >= 10; ++round) {
      slow = 0;
      for (int i = 0; i < 40; ++i) {
        const int before = timer.fired;
        const uint64_t start = __real_vorn_time_getnanosec();
        vorn_timer_modify(&timer, 1);
        while (timer.fired == before)
          std::this_thread::yield();
        if (__real_vorn_time_getnanosec() - start > 8000000) ++slow;
      }
    }
    EXPECT_LT(slow, 10) << step;
    vorn_timer_delete_sync(&timer);
  }
}

TEST_F(WheelTimers, AreCheckedWhenTheyFire) {
  stop_clock();
  Timer first;
  Timer second;
  ASSERT_EQ(vorn_timer_add(&first) + vorn_timer_add(&second), 0);
  vorn_list_head_s stranger{};
  second.list.prev = &stranger;
  g_stopped_at += 5;
  ASSERT_TRUE(soon([&] { return first.fired + second.fired == 2; }));
  const auto messages = capture::take();
  ASSERT_EQ(messages.size(), 5u); // two timers are shown
  EXPECT_EQ(messages[0].function, "detachTimerFromList");
  EXPECT_EQ(messages[0].level, 3);
  EXPECT_TRUE(messages[0].text.starts_with("Abnormal list node next:"));
}

TEST_F(WheelTimers, FunctionsMayFreeMoveAndArmAnyTimer) {
  stop_clock();
  auto freed = std::make_unique<Timer>();
  auto itself = std::make_unique<Timer>();
  Timer moved;
  Timer again;
  again.run = [&] {
    if (again.fired == 1) vorn_timer_modify(&again, 2);
  };
  Timer first{[&] {
    EXPECT_EQ(vorn_timer_is_pending(&first), 0);
    vorn_timer_delete(freed.get());
    freed.reset();
    vorn_timer_modify(&moved, 2);
  }};
  itself->run = [&] {
    vorn_timer_add(itself.get());
    vorn_timer_delete(itself.get());
    itself->funcName = "freed";
    itself.reset();
    g_stopped_at += 301; // so that the report of a slow function looks for it
  };
  for (Timer *timer : {&first, freed.get(), &moved, itself.get(), &again})
    ASSERT_EQ(vorn_timer_add(timer), 0);
  Timer *const gone = itself.get();
  g_stopped_at += 5;
  ASSERT_TRUE(soon([&] { return moved.fired == 1 && again.fired == 1; }));
  EXPECT_EQ(moved.expirTime, first.expirTime + 2);
  g_stopped_at += 2;
  ASSERT_TRUE(soon([&] { return again.fired == 2; }));
  const std::string text =
      "Timer " + shown(gone) + " func " + kFire + " added by adder cost 301 ms.";
  EXPECT_EQ(capture::take_lines(), (Lines{"W " + text, "W [Infra]" + text}));
}

TEST_F(WheelTimers, ReportThoseThatTakeMoreThan300Milliseconds) {
  stop_clock();
  for (int i = 0; i < 6; ++i) {
    Timer timer{[i] { g_stopped_at += i == 0 ? 300 : 301; }};
    ASSERT_EQ(vorn_timer_add(&timer), 0);
    g_stopped_at += 5;
    ASSERT_TRUE(soon([&] { return timer.fired == 1; }));
    ASSERT_EQ(vorn_timer_delete_sync(&timer), 0); // after the report
    const auto messages = capture::take();
    const std::size_t wanted[] = {0, 2, 2, 2, 1, 1}; // the last are rate-limited
    ASSERT_EQ(messages.size(), wanted[i]) << i;
    for (const auto &message : messages) {
      EXPECT_EQ(message.function, "run_timers");
      EXPECT_EQ(message.module == 0, message.text.starts_with("[Infra]"));
    }
  }
}

struct Kind {
  const char *name;
  int (*add)(vorn_timer_s *timer);
  uint64_t longest;
  bool waits; // long enough to be changed before it runs
};

class AnyTimers : public testing::TestWithParam<Kind> {
protected:
  AnyTimers() {
    EXPECT_EQ(vorn_timer_module_init() + vorn_hr_timer_module_init(), 0);
    capture::take();
  }
  ~AnyTimers() override { EXPECT_EQ(Timer::early, 0); }

  static int add(Timer &timer) { return GetParam().add(&timer); }
};

INSTANTIATE_TEST_SUITE_P(All, AnyTimers,
                         testing::Values(Kind{"Wheel", vorn_timer_add, 30, true},
                                         Kind{"Hr", vorn_timer_add_ns, 1000000, false}),
                         [](const auto &kind) { return kind.param.name; });

// Four threads arm 10000 timers at the same time. Then each has a share; of timers that wait, it
// deletes every third one and modifies every second one.
TEST_P(AnyTimers, RunOnceAndNeverEarlyInAStorm) {
  constexpr int kThreads = 4;
  Timers timers;
  Timer::settled = false;
  for (int i = 0; i < 10000; ++i) {
    timers.push_back(std::make_unique<Timer>());
    ASSERT_EQ(add(*timers.back()), 0);
  }
  run_threads(kThreads, [&](int thread) {
    std::mt19937 random(static_cast<unsigned int>(thread));
    for (int i = 0; i < 40000; ++i) {
      Timer *timer = timers[random() % timers.size()].get();
      const auto what = random() % 4;
      if (what == 0)
        vorn_timer_delete(timer);
      else if (what == 1)
        vorn_timer_is_pending(timer);
      else
        vorn_timer_modify(timer, 1 + random() % GetParam().longest);
    }
  });
  for (const auto &timer : timers)
    ASSERT_EQ(vorn_timer_delete_sync(timer.get()), 0);
  Timer::settled = true;
  const bool waits = GetParam().waits;
  const auto wanted = [=](std::size_t i) { return waits && i % 3 == 0 ? 0 : 1; };
  run_threads(kThreads, [&](int thread) {
    std::mt19937 random(static_cast<unsigned int>(thread));
    const auto some_time = [&] {
      return waits ? 200 + random() % 1300 : 1 + random() % GetParam().longest;
    };
    for (std::size_t i = static_cast<std::size_t>(thread); i < timers.size(); i += kThreads) {
      timers[i]->fired = 0;
      ASSERT_EQ(vorn_timer_modify(timers[i].get(), some_time()), 0);
      if (waits && i % 2 == 0) vorn_timer_modify(timers[i].get(), some_time());
      if (wanted(i) == 0) vorn_timer_delete(timers[i].get());
    }
  });
  for (std::size_t i = 0; i < timers.size(); ++i)
    ASSERT_TRUE(soon([&] { return timers[i]->fired == wanted(i); })) << i;
  std::this_thread::sleep_for(milliseconds{50});
  for (std::size_t i = 0; i < timers.size(); ++i)
    ASSERT_EQ(timers[i]->fired, wanted(i)) << i;
  EXPECT_NO_MESSAGE();
}

TEST_P(AnyTimers, DeleteSyncWaitsForTheCallAlone) {
  std::atomic<bool> inside{false};
  Timer timer;
  timer.run = [&] {
    inside = true;
    vorn_timer_modify(&timer, 1); // again and again, without a pause
    std::this_thread::sleep_for(milliseconds{3});
    vorn_timer_modify(&timer, 1);
    inside = false;
  };
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(i == 0 ? add(timer) : vorn_timer_modify(&timer, 1), 0);
    ASSERT_TRUE(soon([&] { return inside.load(); }));
    run_threads(2, [&](int) { EXPECT_EQ(vorn_timer_destroy(&timer), 0); });
    ASSERT_FALSE(inside);
    ASSERT_EQ(vorn_timer_is_pending(&timer), 0);
    const int fired = timer.fired;
    std::this_thread::sleep_for(milliseconds{5});
    ASSERT_EQ(timer.fired, fired);
  }
  std::atomic<int> result{0};
  timer.run = [&] { result = vorn_timer_destroy(&timer); };
  ASSERT_EQ(add(timer), 0);
  ASSERT_TRUE(soon([&] { return result == -1; }));
  EXPECT_EQ(capture::take_lines(), Lines{"E The timer's own function must not wait for its end."});
}

TEST_P(AnyTimers, FunctionsMayFreeTheirTimerAndEndTheirThread) {
  auto freed = std::make_unique<Timer>();
  freed->run = [&] { freed.reset(); };
  Timer fatal{[] { pthread_exit(nullptr); }};
  Timer next;
  ASSERT_EQ(add(*freed) + add(fatal), 0);
  ASSERT_TRUE(soon([&] { return fatal.fired == 1; }));
  EXPECT_EQ(vorn_timer_delete_sync(&fatal), 0);
  ASSERT_EQ(add(next), 0);
  EXPECT_TRUE(soon([&] { return next.fired == 1; })); // in another thread
}

// Forks while a function runs and other timers wait for its end.
TEST_P(AnyTimers, OfTheParentAreNotPendingInAChild) {
  if (!kMayStartThreadsInChild) GTEST_SKIP() << "the thread sanitizer would end the child";
  std::atomic<int> step{0};
  Timer running{[&] {
    for (step = 1; step == 1;)
      std::this_thread::yield();
  }};
  Timer timer;
  Timer other;
  ASSERT_EQ(add(running), 0);
  ASSERT_TRUE(soon([&] { return step == 1; }));
  ASSERT_EQ(add(timer) + add(other), 0);
  EXPECT_EQ(run_in_child([&] {
              if (vorn_timer_is_pending(&timer) != 0) return 1;
              if (vorn_timer_delete_sync(&running) + vorn_timer_delete(&other) != 0) return 2;
              std::this_thread::sleep_for(milliseconds{30});
              if (timer.fired != 0) return 3;
              if (vorn_timer_modify(&timer, GetParam().longest) != 0) return 4;
              if (GetParam().waits && vorn_timer_is_pending(&timer) != 1) return 6;
              return soon([&] { return timer.fired == 1; }) && other.fired == 0 ? 0 : 5;
            }),
            0);
  EXPECT_EQ(vorn_timer_is_pending(&timer), 1);
  step = 2;
  EXPECT_TRUE(soon([&] { return timer.fired == 1 && other.fired == 1; }));
}

} // namespace
