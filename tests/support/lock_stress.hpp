// Stresses any lock: threads change plain data under it, and threads read the data. If the lock
// lets two threads in at the same time, or does not order the writes of one holder before the reads
// of the next, the data are wrong, and the thread sanitizer reports a race.
//
//   EXPECT_NO_DAMAGE(stress::run({{lock, unlock, stress::kChange}, {lock, unlock,
//   stress::kChange}}));
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_LOCK_STRESS_HPP
#define VORN_TESTS_LOCK_STRESS_HPP

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "support/threads.hpp"

namespace stress {

enum Use { kChange, kRead };

// The work of a thread; acquire returns false if it did not get the lock.
struct Role {
  std::function<bool()> acquire;
  std::function<void()> release;
  Use use = kChange;
};

struct Outcome {
  std::uint64_t changes = 0;  // the changes made
  std::uint64_t recorded = 0; // the changes that the data show at the end
  std::uint64_t torn = 0;     // how often a thread saw a partial change
};

struct Data {
  std::uint64_t words[8] = {};

  bool whole() const { return std::count(words, words + 8, words[0]) == 8; }
  void change() {
    for (std::uint64_t &word : words)
      word = word + 1;
  }
};

// Enough rounds for the threads to meet, but a limited time: a lock that spins is slow if the
// threads share a CPU.
inline constexpr int kRounds = 16000;
inline constexpr int kTurnsOfARound = 16;
inline constexpr std::chrono::milliseconds kLongest{200};

inline void turn(const Role &role, Data &data, Outcome &mine) {
  if (!role.acquire()) return;
  if (!data.whole()) ++mine.torn;
  if (role.use == kChange) {
    data.change();
    ++mine.changes;
  }
  role.release();
}

inline void play(const Role &role, Data &data, Outcome &mine) {
  const auto end = std::chrono::steady_clock::now() + kLongest;
  int round = 0;
  do {
    for (int i = 0; i < kTurnsOfARound; ++i)
      turn(role, data, mine);
  } while (++round < kRounds && std::chrono::steady_clock::now() < end);
}

inline Outcome run(const std::vector<Role> &roles) {
  Data data;
  const int count = static_cast<int>(roles.size());
  std::vector<Outcome> outcomes(roles.size());
  std::barrier start{count};
  run_threads(count, [&](int thread) {
    const auto at = static_cast<std::size_t>(thread);
    start.arrive_and_wait();
    play(roles[at], data, outcomes[at]);
  });
  Outcome all;
  for (const Outcome &one : outcomes) {
    all.changes += one.changes;
    all.torn += one.torn;
  }
  all.recorded = data.words[0];
  return all;
}

} // namespace stress

#define EXPECT_NO_DAMAGE(outcome)                                                                  \
  do {                                                                                             \
    const stress::Outcome was = (outcome);                                                         \
    EXPECT_GT(was.changes, 0u);                                                                    \
    EXPECT_EQ(was.recorded, was.changes);                                                          \
    EXPECT_EQ(was.torn, 0u);                                                                       \
  } while (false)

#endif
