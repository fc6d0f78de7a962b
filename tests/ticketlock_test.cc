#include "vorn_ticketlock.h"

#include <barrier>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/lock_stress.hpp"
#include "support/log_capture.hpp"

namespace {

constexpr uint64_t kNobody = UINT64_MAX;

void expect_fields(const vorn_tspinlock_s &lock, uint32_t serving, uint32_t next, uint64_t owner) {
  EXPECT_EQ(lock.serving, serving);
  EXPECT_EQ(lock.next, next);
  EXPECT_EQ(lock.owner, owner);
}

TEST(Ticketlock, BothInitialisersGiveAFreeLock) {
  vorn_tspinlock_s started;
  std::memset(&started, 0x5A, sizeof started);
  vorn_tspinlock_init(&started);
  const vorn_tspinlock_s constant = VORN_TSPINLOCK_INIT;
  for (const vorn_tspinlock_s &lock : {started, constant}) {
    expect_fields(lock, 0, 0, kNobody);
    EXPECT_EQ(lock.magic, 0xDEAD5EADu);
    EXPECT_EQ(lock.other, UINT32_MAX);
  }
  vorn_tspinlock_destroy(&started);
  EXPECT_EQ(started.magic, 0x5EADDEADu);
  EXPECT_NO_RECORD();
}

TEST(Ticketlock, HandsOutAndServesNumbersThatWrap) {
  vorn_tspinlock_s lock = VORN_TSPINLOCK_INIT;
  const auto self = static_cast<uint64_t>(gettid());
  lock.serving = lock.next = UINT32_MAX;
  vorn_tspinlock_lock(&lock);
  expect_fields(lock, UINT32_MAX, 0, self);
  vorn_tspinlock_unlock(&lock); // serving wraps, and next stays
  expect_fields(lock, 0, 0, kNobody);
  lock.serving = lock.next = UINT32_MAX;
  EXPECT_EQ(vorn_tspinlock_trylock(&lock), 1);
  expect_fields(lock, UINT32_MAX, 0, self);
  std::thread([&] { EXPECT_EQ(vorn_tspinlock_trylock(&lock), 0); }).join();
  expect_fields(lock, UINT32_MAX, 0, self);
  vorn_tspinlock_unlock(&lock);
  expect_fields(lock, 0, 0, kNobody);
  EXPECT_NO_RECORD();
}

// The operations as a caller of that name at line 7, which the reports are to name.
struct Operation {
  const char *name;
  std::function<void(vorn_tspinlock_s *)> run;
};

const Operation kInit{"do_vorn_tspinlock_init",
                      [](auto *lock) { do_vorn_tspinlock_init(lock, "caller", 7); }};
const Operation kDestroy{"do_vorn_tspinlock_destroy",
                         [](auto *lock) { do_vorn_tspinlock_destroy(lock, "caller", 7); }};
const Operation kLock{"do_vorn_tspinlock_lock",
                      [](auto *lock) { do_vorn_tspinlock_lock(lock, "caller", 7); }};
const Operation kTrylock{"do_vorn_tspinlock_trylock",
                         [](auto *lock) { do_vorn_tspinlock_trylock(lock, "caller", 7); }};
const Operation kUnlock{"do_vorn_tspinlock_unlock",
                        [](auto *lock) { do_vorn_tspinlock_unlock(lock, "caller", 7); }};

constexpr char kFreeText[] =
    "lock:0x0 magic:0xdead5ead owner:18446744073709551615 other:4294967295";
constexpr char kZeroText[] = "lock:0x0 magic:0x0 owner:0 other:0";

struct Misuse {
  const Operation &operation;
  vorn_tspinlock_s before;
  std::vector<std::string> texts;
  vorn_tspinlock_s after;
};

TEST(Ticketlock, ReportsMisuseAndGoesOn) {
  const auto self = static_cast<uint64_t>(gettid());
  const std::string own = std::to_string(self);
  const uint64_t other = self + 1;
  const vorn_tspinlock_s zero{};
  const vorn_tspinlock_s start = VORN_TSPINLOCK_INIT;
  const auto lock = [](uint32_t serving, uint32_t next, uint64_t owner) {
    return vorn_tspinlock_s{serving, next, VORN_TSPINLOCK_MAGIC, 9, owner};
  };
  const Misuse rows[] = {
      {kInit, start, {std::string("ReInited lock in caller:7 ") + kFreeText}, start},
      {kInit,
       lock(2, 5, 77),
       {"ReInited lock in caller:7 lock:0x500000002 magic:0xdead5ead owner:77 other:9"},
       start},
      {kInit, zero, {}, start},
      {kDestroy,
       zero,
       {std::string("UnInited lock in caller:7 ") + kZeroText},
       {0, 0, VORN_TSPINLOCK_DESTROYED, 0, 0}},
      {kDestroy,
       {0, 0, VORN_TSPINLOCK_DESTROYED, 0, 0},
       {"UnInited lock in caller:7 lock:0x0 magic:0x5eaddead owner:0 other:0"},
       {0, 0, VORN_TSPINLOCK_DESTROYED, 0, 0}},
      {kLock, zero, {std::string("UnInited lock in caller:7 ") + kZeroText}, {0, 1, 0, 0, self}},
      {kLock, // the owner is all that tells
       lock(4, 4, self),
       {"AA lock in caller:7 lock:0x400000004 magic:0xdead5ead owner:" + own + " other:9"},
       lock(4, 5, self)},
      {kTrylock, zero, {std::string("UnInited lock in caller:7 ") + kZeroText}, {0, 1, 0, 0, self}},
      {kTrylock,
       lock(4, 5, self),
       {"AA lock in caller:7 lock:0x500000004 magic:0xdead5ead owner:" + own + " other:9"},
       lock(4, 5, self)},
      {kTrylock, lock(4, 5, other), {}, lock(4, 5, other)},
      {kTrylock, lock(5, 4, other), {}, lock(5, 4, other)},
      {kUnlock,
       lock(4, 5, other),
       {"AB lock in caller:7 lock:0x500000004 magic:0xdead5ead owner:" + std::to_string(other) +
        " other:9"},
       lock(5, 5, kNobody)},
      {kUnlock, // the thread id is compared as 32 bits wide, the owner as a whole
       lock(4, 5, self + (uint64_t{1} << 32)),
       {"AB lock in caller:7 lock:0x500000004 magic:0xdead5ead owner:" +
        std::to_string(self + (uint64_t{1} << 32)) + " other:9"},
       lock(5, 5, kNobody)},
      {kUnlock,
       {4, 5, 0, 0, self},
       {"UnInited lock in caller:7 lock:0x500000004 magic:0x0 owner:" + own + " other:0"},
       {5, 5, 0, 0, kNobody}},
      {kUnlock, // a double release
       lock(5, 5, kNobody),
       {"AB lock in caller:7 lock:0x500000005 magic:0xdead5ead owner:18446744073709551615 other:9",
        "ReUnlock in ticket_unlock:7 lock:0x500000005 magic:0xdead5ead owner:18446744073709551615 "
        "other:9"},
       lock(6, 5, kNobody)},
  };
  for (const Misuse &row : rows) {
    vorn_tspinlock_s used = row.before;
    row.operation.run(&used);
    const std::string where =
        std::string(row.operation.name) + " row " + std::to_string(&row - rows);
    EXPECT_EQ(std::memcmp(&used, &row.after, sizeof used), 0) << where;
    const auto records = capture::take();
    ASSERT_EQ(records.size(), row.texts.size()) << where;
    for (std::size_t i = 0; i < records.size(); ++i) {
      EXPECT_EQ(records[i].text, row.texts[i]);
      EXPECT_EQ(records[i].module, 381u);
      EXPECT_EQ(records[i].level, 6);
      EXPECT_EQ(records[i].file, "vorn_ticketlock.c");
      EXPECT_EQ(records[i].function, row.operation.name);
    }
  }
}

TEST(Ticketlock, TheMacrosNameTheCaller) {
  vorn_tspinlock_s lock{};
  const auto text = [](unsigned int line) {
    return "UnInited lock in TestBody:" + std::to_string(line) + " ";
  };
  vorn_tspinlock_lock(&lock);
  EXPECT_EQ(capture::take_texts().at(0).rfind(text(__LINE__ - 1), 0), 0u);
  EXPECT_EQ(vorn_tspinlock_trylock(&lock), 0);
  EXPECT_EQ(capture::take_texts().at(0).rfind(text(__LINE__ - 1), 0), 0u);
  vorn_tspinlock_unlock(&lock);
  EXPECT_EQ(capture::take_texts().at(0).rfind(text(__LINE__ - 1), 0), 0u);
  vorn_tspinlock_destroy(&lock);
  EXPECT_EQ(capture::take_texts().at(0).rfind(text(__LINE__ - 1), 0), 0u);
}

// The last number before the wrap is the holder's, those who wait have wrapped ones.
TEST(Ticketlock, ServesInTheOrderOfArrival) {
  constexpr uint32_t kThreads = 4;
  vorn_tspinlock_s lock = VORN_TSPINLOCK_INIT;
  lock.serving = lock.next = UINT32_MAX - 1;
  vorn_tspinlock_lock(&lock);
  std::vector<uint32_t> served;
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      vorn_tspinlock_lock(&lock);
      EXPECT_EQ(lock.owner, static_cast<uint64_t>(gettid()));
      served.push_back(i);
      vorn_tspinlock_unlock(&lock);
    });
    while (__atomic_load_n(&lock.next, __ATOMIC_RELAXED) !=
           i) // i more than the holder's UINT32_MAX
      usleep(100);
  }
  EXPECT_TRUE(served.empty());
  vorn_tspinlock_unlock(&lock);
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(served, (std::vector<uint32_t>{0, 1, 2, 3}));
  EXPECT_NO_RECORD();
}

TEST(Ticketlock, StrayReleasesAtOneMomentAllAdvanceIt) {
  constexpr uint32_t kReleases = 500000;
  capture::set_level(3); // the reports are known
  vorn_tspinlock_s lock = VORN_TSPINLOCK_INIT;
  std::barrier start{2};
  const auto release = [&] {
    start.arrive_and_wait();
    for (uint32_t i = 0; i < kReleases; ++i)
      vorn_tspinlock_unlock(&lock);
  };
  std::thread other(release);
  release();
  other.join();
  EXPECT_EQ(lock.serving, 2 * kReleases);
}

// No more threads than wait well on two CPUs. The numbers wrap on the way.
TEST(Ticketlock, Stress) {
  vorn_tspinlock_s lock = VORN_TSPINLOCK_INIT;
  lock.serving = lock.next = UINT32_MAX - 5000;
  const auto unlock = [&] { vorn_tspinlock_unlock(&lock); };
  const stress::Role waits{[&] { return vorn_tspinlock_lock(&lock), true; }, unlock};
  const stress::Role tries{[&] { return vorn_tspinlock_trylock(&lock) != 0; }, unlock};
  EXPECT_NO_DAMAGE(stress::run({waits, waits}));
  EXPECT_NO_DAMAGE(stress::run({waits, tries}));
  EXPECT_NO_DAMAGE(stress::run({waits, tries, tries}));
  EXPECT_EQ(lock.serving, lock.next);
  EXPECT_NO_RECORD();
}

} // namespace
