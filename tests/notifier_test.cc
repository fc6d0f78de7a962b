// Tests notifier chains, and the chain that a fatal signal calls.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_notifier.h"

#include <functional>
#include <gtest/gtest.h>
#include <latch>

#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/threads.hpp"
#include "vorn_exception.h"
#include "vorn_sig_calltrace.h"

namespace {

using Lines = std::vector<std::string>;
using Numbers = std::vector<int>;

Numbers g_called; // the numbers of the blocks that were, in order

struct Block : vorn_notifier_block_s {
  Block(int its_number, uint32_t its_priority, int its_result = 0)
      : vorn_notifier_block_s{run, nullptr, its_priority}, number(its_number), result(its_result) {}
  static int run(vorn_notifier_block_s *block, unsigned long, void *data) {
    const Block &self = *static_cast<Block *>(block);
    g_called.push_back(self.number);
    if (self.what) self.what(data);
    return self.result;
  }
  int number, result;
  std::function<void(void *data)> what;
};

std::string pointer(const void *address) { return testing::PrintToString(address); }

struct Chain : testing::Test {
  int call(int most = -1, int *calls = nullptr) {
    g_called.clear();
    return vorn_atomic_notifier_call_chain__(&chain, 3, &chain, most, calls);
  }
  vorn_notifier_chain_s chain = VORN_NOTIFIER_CHAIN_INIT("events");
};

TEST_F(Chain, CallsTheBlocksInTheOrderOfTheirPriorities) {
  Block blocks[] = {{0, 5}, {1, 10}, {2, 5}, {3, 0xffffffff, 0x7fff}, {4, 0, -7}};
  for (Block &block : blocks)
    EXPECT_EQ(vorn_atomic_notifier_chain_register(&chain, &block), 0);
  const struct {
    int stops; // the number of the block that does
    int most;
    Numbers called;
    int result;
  } rows[] = {{4, -1, {3, 1, 0, 2, 4}, 0x8001},
              {4, 4, {3, 1, 0, 2}, 0},
              {4, 1, {3}, 0x7fff},
              {4, 0, {}, 0},
              {0, -1, {3, 1, 0}, 0x8001}};
  for (const auto &row : rows) {
    const int kept = std::exchange(blocks[row.stops].result, 0x8001);
    int calls = 40;
    EXPECT_EQ(call(row.most, &calls), row.result);
    EXPECT_EQ(g_called, row.called);
    EXPECT_EQ(calls, 40 + static_cast<int>(row.called.size()));
    blocks[row.stops].result = kept;
  }
  // A block can be removed at any position.
  Block stranger{5, 5};
  Numbers left{3, 1, 0, 2, 4};
  for (const int number : {1, 3, 4, 0, 2}) {
    EXPECT_EQ(vorn_atomic_notifier_chain_unregister(&chain, &stranger), -2);
    const auto *const next = blocks[number].next;
    EXPECT_EQ(vorn_atomic_notifier_chain_unregister(&chain, &blocks[number]), 0);
    EXPECT_EQ(blocks[number].next, next);
    std::erase(left, number);
    call();
    EXPECT_EQ(g_called, left);
  }
  EXPECT_EQ(vorn_atomic_notifier_chain_unregister(&chain, &stranger), -2);
  capture::take();
  EXPECT_TRUE(vorn_atomic_notifier_chain_register(nullptr, &stranger) == 0 &&
              vorn_atomic_notifier_chain_register(&chain, nullptr) == 0 &&
              vorn_atomic_notifier_chain_unregister(nullptr, &stranger) == 0 &&
              vorn_atomic_notifier_chain_unregister(&chain, nullptr) == 0 &&
              vorn_atomic_notifier_call_chain__(nullptr, 0, nullptr, -1, nullptr) == 0);
  EXPECT_NO_MESSAGE();
}

TEST_F(Chain, LogsItsCalls) {
  Block block{0, 9, 0xab};
  const std::string run = pointer(reinterpret_cast<void *>(Block::run));
  const std::string at = pointer(&block);
  const std::string data = "action=3, data=" + pointer(&chain);
  vorn_atomic_notifier_chain_register__(&chain, &block, "b.c", 7);
  EXPECT_ONE_MESSAGE(6, "vorn_notifier.c", "vorn_atomic_notifier_chain_register__",
                     "Notifier chain events register (b.c:7, " + at + ", " + run + ", 9), ret=0");
  EXPECT_EQ(call(), 0xab);
  vorn_atomic_notifier_chain_unregister__(&chain, &block, "b.c", 8);
  EXPECT_EQ(capture::take_lines(),
            (Lines{"Chain name events call chain start: " + data + ", nrToCall=-1, nrCalls=(nil).",
                   "Exception chain node " + at + " called start: function:" + run + ", " + data +
                       ", pri=9, next=(nil).",
                   "Exception chain node " + at + " called end: " + data + ", ret=0xAB.",
                   "Notifier chain events unregister (b.c:8, 0x" + run + "), ret=0"}));
}

TEST_F(Chain, HoldsItsLockWhileItCallsButNotInTheCore) {
  Block gone{0, 5}, stays{1, 4};
  int state = -1;
  uint64_t lock = 2;
  stays.what = [&](void *) {
    lock = chain.lock.lock;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    pthread_setcancelstate(state, nullptr);
  };
  vorn_atomic_notifier_chain_register(&chain, &gone);
  vorn_atomic_notifier_chain_register(&chain, &stays);
  call();
  EXPECT_TRUE(lock == 1 && state == PTHREAD_CANCEL_DISABLE);
  gone.what = [&](void *) {
    vorn_atomic_notifier_chain_unregister(&chain, &gone);
    gone.next = nullptr; // what the call has remembered counts
  };
  VornNotifierCallChain(&chain, 0, nullptr, -1, nullptr);
  EXPECT_EQ(g_called, (Numbers{0, 1, 0, 1}));
  EXPECT_EQ(lock, 0u);
}

TEST_F(Chain, StaysWholeUnderManyThreads) {
  capture::set_level(3);
  static int in_call = 0; // plain: the chain's lock guards it
  int calls[4] = {};
  run_threads(4, [&](int thread) {
    vorn_notifier_block_s block{
        [](vorn_notifier_block_s *, unsigned long, void *) { return ++in_call, 0; }, nullptr, 1};
    for (int i = 0; i < 20000; ++i) {
      vorn_atomic_notifier_chain_register(&chain, &block);
      vorn_atomic_notifier_call_chain__(&chain, 0, nullptr, -1, &calls[thread]);
      EXPECT_EQ(vorn_atomic_notifier_chain_unregister(&chain, &block), 0);
    }
  });
  EXPECT_EQ(chain.head, nullptr);
  EXPECT_EQ(in_call, calls[0] + calls[1] + calls[2] + calls[3]);
}

int call_exception_chain() { return vorn_exception_call_chain(5, nullptr, nullptr, 0, 0, 0); }

TEST(ExceptionChain, PassesItsArgumentsOnAndNeverWaits) {
  int regs = 0, info = 0;
  Lines lines;
  Block block{0, 1, 77};
  block.what = [&](void *data) {
    const auto &seen = *static_cast<vorn_exception_data_s *>(data);
    EXPECT_TRUE(seen.regs == &regs && seen.siginfo == &info);
    EXPECT_TRUE(seen.arg4 == 1ull << 40 && seen.arg5 == 2 && seen.arg6 == 3);
    capture::take();
    EXPECT_EQ(call_exception_chain(), -1);
    lines = capture::take_lines();
  };
  EXPECT_EQ(call_exception_chain(), 0);
  vorn_exception_chain_register(&block);
  EXPECT_EQ(vorn_exception_call_chain(5, &info, &regs, 1ull << 40, 2, 3), 77);
  const std::string name = "Exception notifier vorn_exception_chain call ";
  EXPECT_EQ(lines, (Lines{name + "start: action=5, siginfo=(nil) regs=(nil).",
                          name + "end: trylock fail, owner=18446744073709551615."}));
  EXPECT_EQ(capture::take_lines().back(), name + "end: ret 77.");
  // The chain is free in a child, although a thread of the parent holds it.
  std::latch held{1}, done{1};
  block.what = [&, parent = getpid()](void *) {
    if (getpid() != parent) return;
    held.count_down();
    done.wait();
  };
  std::thread holder{call_exception_chain};
  held.wait();
  EXPECT_EQ(call_exception_chain(), -1);
  EXPECT_EQ(run_in_child(call_exception_chain), 77);
  done.count_down();
  holder.join();
  EXPECT_TRUE(vorn_exception_chain_unregister(&block) == 0 &&
              vorn_exception_chain_unregister(&block) == -2);
}

TEST(Exception, InstallsTheHandlersOfFatalSignals) {
  const unsigned int list[] = {SIGTERM};
  EXPECT_TRUE(vorn_exception_init_with_list(nullptr, nullptr, 1) == -1 &&
              vorn_exception_init_with_list(nullptr, list, 0) == -1);
  const std::string text = "E parm is invaild, sigList is null or sigNum is not bigger than 0(";
  EXPECT_EQ(capture::take_lines(), (Lines{text + "1).", text + "0)."}));
  EXPECT_EQ(vorn_thread_signal_flag_get(), 0);
  const auto in_child = [&] {
    if (vorn_exception_init_with_list(nullptr, list, 1) != 0) return 1;
    // The handler of a signal that is not in the list stays as it was.
    return signal(SIGTERM, SIG_DFL) != SIG_DFL && signal(SIGILL, SIG_DFL) == SIG_DFL ? 0 : 2;
  };
  EXPECT_EQ(run_in_child(in_child), 0);
  EXPECT_EQ(vorn_exception_init(), 0);
  EXPECT_EQ(vorn_thread_signal_flag_get(), 1);
}

TEST(Watchdog, IsResetByItsHook) {
  const vorn_watchdog_reset_f hook = [](int value) { return value - 10; };
  for (const auto &[set, result] : {std::pair{hook, -7}, {nullptr, 0}})
    EXPECT_TRUE(vorn_exception_watchdog_timer_func_register(set) == 0 &&
                vorn_exception_watchdog_timer_reset(3) == result);
  const std::string text = "Vorn_exception_watchdog_timer_";
  EXPECT_EQ(capture::take_lines(),
            (Lines{text + "func_register=" + pointer(reinterpret_cast<void *>(hook)),
                   text + "reset=3", text + "func_register=(nil)"}));
}

} // namespace
