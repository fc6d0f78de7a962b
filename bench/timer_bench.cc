// bench-links: uv event
// Compares the timers with those of event loops and of the system. Each peer is used as its rules
// require: the timers of an event loop only by the thread that owns the loop, without a lock; ours
// and those of Boost.Asio by any thread.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_timer.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <event2/event.h>
#include <memory>
#include <poll.h>
#include <random>
#include <string>
#include <sys/timerfd.h>
#include <thread>
#include <unistd.h>
#include <uv.h>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "support/bench.hpp"
#include "vorn_hr_timer.h"
#include "vorn_init.h"
#include "vorn_time.h"

namespace {

// --- Arm and cancel, with a number of pending timers ---

constexpr std::size_t kAtHand = 4096; // timers that are armed and cancelled in turn

// Random delays, none of which expires during a measurement: ten minutes to an hour, or ten seconds
// to a minute.
class Delays {
public:
  std::uint64_t next() { return 600000 + random_() % 3000000; }
  std::uint64_t next_short() { return 10000 + random_() % 50000; }

private:
  std::minstd_rand random_{1};
};

enum class Length { kAlike, kShort };

struct Ours {
  struct Timer : vorn_timer_s {
    Timer() : vorn_timer_s{} {
      vorn_timer_set(this, 1, 0, [](std::uint64_t) {});
    }
    ~Timer() { vorn_timer_delete_sync(this); }
  };
  void make(std::size_t count) { timers = std::vector<Timer>(count); }
  void arm(std::size_t at, std::uint64_t ms) { vorn_timer_modify(&timers[at], ms); }
  void cancel(std::size_t at) { vorn_timer_delete(&timers[at]); }
  std::vector<Timer> timers;
};

struct Libuv {
  Libuv() { uv_loop_init(&loop); }
  void make(std::size_t count) {
    timers = std::vector<uv_timer_t>(count);
    for (uv_timer_t &timer : timers)
      uv_timer_init(&loop, &timer);
  }
  void arm(std::size_t at, std::uint64_t ms) {
    uv_timer_start(
        &timers[at], [](uv_timer_t *) {}, ms, 0);
  }
  void cancel(std::size_t at) { uv_timer_stop(&timers[at]); }
  uv_loop_t loop;
  std::vector<uv_timer_t> timers;
};

struct Libevent {
  Libevent() : base(event_base_new()) {}
  void make(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
      timers.push_back(evtimer_new(
          base, [](evutil_socket_t, short, void *) {}, nullptr));
  }
  void arm(std::size_t at, std::uint64_t ms) {
    const timeval time{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    event_add(timers[at], &time);
  }
  void cancel(std::size_t at) { event_del(timers[at]); }
  event_base *base;
  std::vector<event *> timers;
};

struct Asio {
  void make(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
      timers.emplace_back(context);
  }
  void arm(std::size_t at, std::uint64_t ms) {
    timers[at].expires_after(std::chrono::milliseconds{ms});
    timers[at].async_wait([](const boost::system::error_code &) {});
  }
  void cancel(std::size_t at) {
    timers[at].cancel();
    if (at % 64 == 0) context.poll(); // runs the handlers of cancelled timers
  }
  boost::asio::io_context context;
  std::vector<boost::asio::steady_timer> timers;
};

// Our timers are deleted after the row, so that a later row has no more pending ones than it says.
template <class Timers>
bench::Contender arm_and_cancel(const char *name, std::size_t pending, Length length) {
  const auto timers = std::make_shared<Timers>();
  timers->make(pending + kAtHand);
  Delays delays;
  for (std::size_t i = 0; i < pending; ++i)
    timers->arm(i, delays.next());
  return bench::contender(name, [=, at = std::size_t{0}]() mutable {
    at = (at + 1) % kAtHand;
    timers->arm(pending + at, length == Length::kShort ? delays.next_short() : delays.next());
    timers->cancel(pending + at);
  });
}

// Cancels a random pending timer and arms it again.
template <class Timers> bench::Contender rearm(const char *name, std::size_t pending) {
  const auto timers = std::make_shared<Timers>();
  timers->make(pending);
  Delays delays;
  for (std::size_t i = 0; i < pending; ++i)
    timers->arm(i, delays.next());
  return bench::contender(name, [=, random = std::minstd_rand{7}]() mutable {
    const std::size_t at = random() % pending;
    timers->cancel(at);
    timers->arm(at, delays.next());
  });
}

// --- Lateness ---

std::uint64_t monotonic() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 +
         static_cast<std::uint64_t>(now.tv_nsec);
}

using Samples = std::vector<double>; // microseconds

void print_lateness(const char *name, Samples samples) {
  std::sort(samples.begin(), samples.end());
  const auto at = [&](double part) {
    return samples[static_cast<std::size_t>(part * static_cast<double>(samples.size() - 1))];
  };
  std::printf("  %-28s median %8.1f us   99 %% %8.1f us   worst %8.1f us\n", name, at(0.5),
              at(0.99), samples.back());
  std::fflush(stdout);
}

std::atomic<std::uint64_t> fired_at;

void wait_until_fired() {
  while (fired_at.load() == 0)
    usleep(200);
}

// Measures the lateness with respect to the expiry of the timer, on the timer's own clock.
Samples wheel_lateness(const std::vector<std::uint64_t> &delays) {
  Samples samples;
  vorn_timer_s timer{};
  vorn_timer_set(&timer, 1, 0, [](std::uint64_t) { fired_at = vorn_time_getnanosec(); });
  for (const std::uint64_t delay : delays) {
    fired_at = 0;
    vorn_timer_modify(&timer, delay);
    const std::uint64_t due = timer.expirTime * 1000000;
    wait_until_fired();
    samples.push_back((static_cast<double>(fired_at.load()) - static_cast<double>(due)) / 1e3);
  }
  vorn_timer_delete_sync(&timer);
  return samples;
}

Samples hr_lateness(int count, std::uint64_t nanoseconds) {
  Samples samples;
  vorn_timer_s timer{};
  vorn_timer_set(&timer, nanoseconds, 0, [](std::uint64_t) { fired_at = monotonic(); });
  for (int i = 0; i < count; ++i) {
    fired_at = 0;
    vorn_timer_add_ns(&timer);
    const auto due =
        static_cast<double>(timer.seconds) * 1e9 + static_cast<double>(timer.nanoseconds);
    wait_until_fired();
    samples.push_back((static_cast<double>(fired_at.load()) - due) / 1e3);
  }
  vorn_timer_delete_sync(&timer);
  return samples;
}

Samples timerfd_lateness(const std::vector<std::uint64_t> &nanoseconds) {
  Samples samples;
  const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  for (const std::uint64_t delay : nanoseconds) {
    const std::uint64_t due = monotonic() + delay;
    itimerspec time{};
    time.it_value = {static_cast<time_t>(due / 1000000000), static_cast<long>(due % 1000000000)};
    timerfd_settime(fd, TFD_TIMER_ABSTIME, &time, nullptr);
    std::uint64_t count = 0;
    if (read(fd, &count, sizeof count) != sizeof count) std::abort();
    samples.push_back(static_cast<double>(monotonic() - due) / 1e3);
    usleep(200);
  }
  close(fd);
  return samples;
}

// Measures the lateness on the loop's own clock, whose current millisecond also counts as a whole
// one.
Samples libuv_lateness(const std::vector<std::uint64_t> &delays) {
  Samples samples;
  uv_loop_t loop;
  uv_loop_init(&loop);
  uv_timer_t timer;
  uv_timer_init(&loop, &timer);
  for (const std::uint64_t delay : delays) {
    uv_update_time(&loop);
    const std::uint64_t due = (uv_now(&loop) + delay) * 1000000;
    uv_timer_start(
        &timer, [](uv_timer_t *) { fired_at = uv_hrtime(); }, delay, 0);
    uv_run(&loop, UV_RUN_DEFAULT);
    samples.push_back((static_cast<double>(fired_at.load()) - static_cast<double>(due)) / 1e3);
    usleep(200);
  }
  return samples;
}

void lateness(const char *state) {
  std::vector<std::uint64_t> delays;
  std::vector<std::uint64_t> in_nanoseconds;
  std::minstd_rand random{3};
  for (int i = 0; i < 100; ++i)
    delays.push_back(1 + random() % 100);
  for (const std::uint64_t delay : delays)
    in_nanoseconds.push_back(delay * 1000000);
  std::printf("\nLateness, 1 to 100 ms, %s\n", state);
  print_lateness("ours", wheel_lateness(delays));
  print_lateness("timerfd", timerfd_lateness(in_nanoseconds));
  print_lateness("libuv", libuv_lateness(delays));
  std::printf("\nLateness, 100 us, %s\n", state);
  print_lateness("ours", hr_lateness(1000, 100000));
  print_lateness("timerfd", timerfd_lateness(std::vector<std::uint64_t>(1000, 100000)));
}

void lateness_when_busy() {
  std::atomic<bool> over{false};
  std::thread busy{[&] {
    while (!over.load(std::memory_order_relaxed))
      continue;
  }};
  lateness("one CPU busy");
  over = true;
  busy.join();
}

void idle_cpu() {
  constexpr unsigned int kSeconds = 5;
  const auto cpu = [] {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  };
  const double before = cpu();
  sleep(kSeconds);
  std::printf("\nCPU of an idle process: %.3f %%\n", (cpu() - before) / kSeconds * 100);
}

void measure_curves(const bench::Table &table) {
  const bench::Curve arm{table,
                         {"timer", "Timers: arm and cancel one", "pending timers", "operation"}};
  const bench::Curve again{
      table, {"timer-rearm", "Timers: cancel and arm any one", "pending timers", "operation"}};
  for (std::size_t pending = 1; pending <= 1000000; pending *= 10) {
    arm.point(pending, 1,
              {arm_and_cancel<Ours>("ours", pending, Length::kAlike),
               arm_and_cancel<Libuv>("libuv", pending, Length::kAlike),
               arm_and_cancel<Libevent>("libevent", pending, Length::kAlike)});
    again.point(pending, 1,
                {rearm<Ours>("ours", pending), rearm<Libuv>("libuv", pending),
                 rearm<Libevent>("libevent", pending)});
  }
}

} // namespace

int main(int argc, char **argv) {
  if (vorn_Init() != 0) return 1;
  if (bench::wants_curves()) {
    measure_curves(bench::Table{argc, argv, "Timers"});
    return 0;
  }
  const auto wanted = [&](const char *what) {
    return argc == 1 ||
           std::any_of(argv + 1, argv + argc, [&](const char *word) { return strstr(what, word); });
  };
  if (wanted("idle")) idle_cpu();
  if (wanted("lateness")) {
    lateness("idle");
    lateness_when_busy();
  }
  const bench::Table table{argc, argv, "Timers"};
  for (const std::size_t pending : {std::size_t{0}, std::size_t{10000}, std::size_t{1000000}}) {
    const std::string beside = std::to_string(pending) + " pending";
    for (const Length length : {Length::kAlike, Length::kShort}) {
      const std::string delay = length == Length::kShort ? ", a shorter delay" : "";
      table.row(("arm and cancel, " + beside + delay).c_str(),
                {arm_and_cancel<Ours>("ours", pending, length),
                 arm_and_cancel<Libuv>("libuv", pending, length),
                 arm_and_cancel<Libevent>("libevent", pending, length),
                 arm_and_cancel<Asio>("Boost.Asio", pending, length)});
      if (pending == 0) break;
    }
    if (pending == 0) continue;
    table.row(("cancel and arm any one, " + beside).c_str(),
              {rearm<Ours>("ours", pending), rearm<Libuv>("libuv", pending),
               rearm<Libevent>("libevent", pending), rearm<Asio>("Boost.Asio", pending)});
  }
}
