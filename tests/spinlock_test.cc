// Tests the spin lock and the dump of its caller.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_spinlock.h"

#include <cstdio>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "support/lock_stress.hpp"
#include "support/log_capture.hpp"
#include "vorn_sched.h"
#include "vorn_symbol.h"
#include "vorn_thrd.h"
#include "vorn_time.h"

namespace {

// The clock and the yield that the library sees.
std::function<uint64_t()> g_clock = [] {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
};
std::function<void()> g_yield = [] { usleep(1000); };

} // namespace

extern "C" {

uint64_t vorn_time_getnanosec() { return g_clock(); }
void vorn_schedule() { g_yield(); }
}

namespace {

// The test gives the readings of the clock: for each spin, the start, one that is a nanosecond too
// early, and one that is late enough. The holder releases the lock at the third yield.
[[gnu::noinline]] void wants_the_lock() {
  vorn_spinlock_s lock = VORN_SPINLOCK_INIT;
  vorn_spinlock_lock(&lock);
  int readings = 0, yields = 0;
  g_clock = [&readings] {
    const int reading = readings++;
    const uint64_t elapsed[] = {0, 99999, 100000};
    return 5000 + static_cast<uint64_t>(reading / 3) * 1000000 + elapsed[reading % 3];
  };
  g_yield = [&] {
    if (++yields == 3) vorn_spinlock_unlock(&lock);
  };
  EXPECT_EQ(vorn_spinlock_trylock(&lock), 0);
  vorn_spinlock_lock(&lock);
  EXPECT_EQ(yields, 3);
  EXPECT_EQ(readings, 9);
}

TEST(Spinlock, YieldsAfter100MicrosecondsAndDumpsTheStackIfTheFlagIsSet) {
  ASSERT_EQ(vorn_symbol_init(), 0);
  capture::take();
  vorn_spinlock_set_flags(~VORN_SPINLOCK_DUMP_STACK);
  wants_the_lock();
  EXPECT_NO_MESSAGE();
  vorn_spinlock_set_flags(VORN_SPINLOCK_DUMP_STACK);
  wants_the_lock();
  const auto messages = capture::take();
  ASSERT_EQ(messages.size(), 3u);
  for (const auto &message : messages) {
    EXPECT_EQ(message.level, capture::kOriginal);
    // The function that wants the lock comes first, its caller second.
    EXPECT_LT(message.text.find("wants_the_lock"), message.text.find(" << ")) << message.text;
  }
}

// The time base reads 0: nothing in this test starts it.
TEST(Spinlock, YieldsWithoutATimeBase) {
  vorn_spinlock_s lock = {1, 0, 0, 0};
  g_clock = [] { return 0; };
  g_yield = [&] { vorn_spinlock_unlock(&lock); };
  vorn_spinlock_lock(&lock);
}

TEST(Spinlock, Stress) {
  vorn_spinlock_s lock = VORN_SPINLOCK_INIT;
  const auto unlock = [&] { vorn_spinlock_unlock(&lock); };
  const stress::Role waits{[&] { return vorn_spinlock_lock(&lock), true; }, unlock};
  const stress::Role tries{[&] { return vorn_spinlock_trylock(&lock) != 0; }, unlock};
  EXPECT_NO_DAMAGE(stress::run({waits, waits, waits, tries}));
  EXPECT_EQ(lock.lock, 0u);
}

// The return addresses of the calls below, from the innermost outwards, as the compiler gives them.
uintptr_t g_returns[3];

uintptr_t number(const volatile void *address) { return reinterpret_cast<uintptr_t>(address); }

// Replaces the caller's frame pointer in inner(); NULL does not.
using Damage = uintptr_t (*)(uintptr_t frame);

[[gnu::noinline]] void inner(unsigned int skip, Damage damage) {
  g_returns[0] = number(__builtin_return_address(0));
  auto *frame = static_cast<volatile uintptr_t *>(__builtin_frame_address(0));
  const uintptr_t saved = *frame;
  if (damage != nullptr) *frame = damage(number(frame));
  debug_dump_stack(skip);
  *frame = saved;
}

[[gnu::noinline]] void middle(unsigned int skip, Damage damage) {
  g_returns[1] = number(__builtin_return_address(0));
  inner(skip, damage);
  capture::set_level(7); // the last call would be a jump otherwise
}

[[gnu::noinline]] void outer(unsigned int skip, Damage damage) {
  g_returns[2] = number(__builtin_return_address(0));
  middle(skip, damage);
  capture::set_level(7);
}

std::string place(uintptr_t address) {
  char name[64] = "";
  vorn_symbol_addr_to_string(address, name, sizeof name);
  char text[128];
  std::snprintf(text, sizeof text, "%p(%s)", reinterpret_cast<void *>(address), name);
  return text;
}

std::string the_record() { return capture::take_lines().at(0); }

std::string stack_text(const std::string &first, uintptr_t second, uintptr_t third) {
  return "current tid:" + std::to_string(gettid()) + ", stack:" + first + " << " + place(second) +
         " << " + place(third) + ".";
}

class DumpStack : public testing::Test {
  void SetUp() override {
    ASSERT_EQ(vorn_symbol_init(), 0);
    capture::take();
  }
};

TEST_F(DumpStack, SkipCountsCallsFromItsOwnCaller) {
  outer(0, nullptr);
  const std::string text = the_record();
  const std::string here = text.substr(text.find("0x"), text.find(" << ") - text.find("0x"));
  EXPECT_NE(here.find("inner"), std::string::npos) << text;
  EXPECT_EQ(text, stack_text(here, g_returns[0], g_returns[1]));
  outer(1, nullptr);
  EXPECT_EQ(the_record(), stack_text(place(g_returns[0]), g_returns[1], g_returns[2]));
  outer(4000000000, nullptr);
  EXPECT_EQ(the_record(), stack_text(place(0), 0, 0));
}

constexpr uintptr_t kFarUp = 12288; // more than the assumed size of an unknown stack
volatile uintptr_t *g_on_stack;

// Has a frame that far up, on the stack even if a sanitizer keeps other locals elsewhere.
[[gnu::noinline, gnu::no_sanitize_address]] std::string dump_with_frame_far_up() {
  volatile uintptr_t words[2048] = {};
  g_on_stack = words + kFarUp / sizeof(uintptr_t);
  g_on_stack[1] = 0x1234;
  outer(1, [](uintptr_t) { return number(g_on_stack); });
  return the_record();
}

TEST_F(DumpStack, FollowsNoFrameOutsideTheStack) {
  const Damage outside[] = {
      [](uintptr_t) { return uintptr_t{0}; },
      [](uintptr_t frame) { return frame + kFarUp; },
      [](uintptr_t frame) { return frame + 2 * sizeof frame + 1; }, // not aligned
      [](uintptr_t) { return UINTPTR_MAX - 7; },
  };
  for (const Damage damage : outside) {
    outer(1, damage);
    EXPECT_EQ(the_record(), stack_text(place(g_returns[0]), 0, 0)) << &damage - outside;
  }
  // The registry knows the stack of a thread that it has started.
  ASSERT_EQ(vorn_thrd_setcurthreadinfo(), 0);
  EXPECT_EQ(dump_with_frame_far_up(), stack_text(place(g_returns[0]), 0x1234, 0));
}

} // namespace
