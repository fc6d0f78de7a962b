// test-wraps: vorn_get_jiffies create_thread_nopreempt_raw
// Tests the pool of scheduled work.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <list>
#include <thread>
#include <unistd.h>

#include "schedwork/vorn_sched_work.hpp"
#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "vorn_cfg.h"
#include "vorn_thrd.h"

static std::atomic<uint64_t> g_tick{0}; // 0: the real one
static std::atomic<int> g_threads_left{1000000};

extern "C" {
uint64_t __real_vorn_get_jiffies();
uint64_t __wrap_vorn_get_jiffies() {
  return g_tick != 0 ? g_tick.load() : __real_vorn_get_jiffies();
}
int __real_create_thread_nopreempt_raw(vorn_thrd_entry_f, void *, pthread_t *);
int __wrap_create_thread_nopreempt_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  return g_threads_left-- > 0 ? __real_create_thread_nopreempt_raw(entry, argument, out) : -1;
}
}

namespace {

using vorn::schedwork::pool;
using Lines = std::vector<std::string>;

// Workers end after the test, too; their log messages are not captured.
[[maybe_unused]] const bool g_level_set = (capture::set_level(6), true);

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(__aarch64__)
constexpr int kItems = 50000; // at a tenth of the speed and less
#else
constexpr int kItems = 1000000;
#endif

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds{ms}); }

// Also true while a worker takes an item: wait for the item's run as well.
bool quiet() { return pool.queue.size() == 0 && pool.started == pool.finished; }

struct Item {
  explicit Item(std::function<void()> what = {}) : run(std::move(what)) {
    vorn_sched_init_work(&work, handle, this);
  }
  static void handle(vorn_sched_work_s *work) {
    auto *item = static_cast<Item *>(work->pData);
    ++item->runs;
    if (item->run) item->run();
  }
  int add() { return vorn_sched_add_work(&work); }
  bool ran(int times) {
    return soon([&] { return runs == times && quiet(); });
  }
  vorn_sched_work_s work;
  std::atomic<int> runs{0};
  std::function<void()> run;
};

// Items that stay in their handlers until they are released.
struct Crowd {
  explicit Crowd(int size, uint32_t limit = 0) {
    while (size-- > 0)
      add(limit);
    EXPECT_TRUE(soon([this] { return inside == items.size(); }));
  }
  ~Crowd() {
    open = true;
    EXPECT_TRUE(soon(quiet));
  }
  void add(uint32_t limit = 0) {
    items.emplace_back([this] {
      ++inside;
      while (!open)
        sleep_ms(1);
    });
    items.back().work.timeout = limit;
    items.back().add();
  }
  std::atomic<bool> open{false};
  std::atomic<std::size_t> inside{0};
  std::list<Item> items;
};

unsigned int free_slots() {
  using vorn::schedwork::slots;
  return static_cast<unsigned int>(
      std::count_if(slots, slots + 64, [](auto &slot) { return !slot.in_use; }));
}

// The workers are idle, and each has a slot.
void expect_sound() {
  EXPECT_TRUE(soon([] {
    const auto now = pool.population.counts();
    return quiet() && now.total == now.free && free_slots() == 64u - now.total;
  })) << pool.population.counts().total
      << ' ' << pool.population.counts().free << ' ' << free_slots();
}

Lines lines_of(const std::string &part) {
  Lines lines = capture::take_lines();
  std::erase_if(lines, [&](const auto &line) { return line.find(part) == std::string::npos; });
  return lines;
}

// What a call returned and logged.
void expect(int result, int wanted, const std::string &texts) {
  EXPECT_EQ(result, wanted) << texts;
  std::string logged;
  for (const std::string &line : capture::take_lines()) {
    // A dump is two lines; the thread's id ends the first.
    if (const auto dump = line.find("...: pid="); dump == line.npos)
      logged += line;
    else if (line.find("SYS_tgkill") == line.npos)
      logged += "dump of " + line.substr(line.find("tid=", dump) + 4);
  }
  EXPECT_EQ(logged, texts);
}

TEST(SchedWork, RefusesBadCalls) {
  g_tick = 1; // the real clock logs its own messages
  capture::set_level(3);
  Item item;
  vorn_sched_work_s *const work = &item.work;
  expect(vorn_set_sched_work_timeout(nullptr, 15), -1, "E param (nil), timeout 15.");
  expect(vorn_set_sched_work_timeout(work, 15), 0, "");
  expect(vorn_sched_delete_work(work), -1, "E Deleting work failed, as the sched_work not inited.");
  g_threads_left = 2;
  expect(item.add(), -1,
         "E Create sched work thread fail."
         "E Adding work failed, as the result of initing sched_work failed");
  EXPECT_EQ(pool.population.counts().total, 2);
  g_threads_left = 1000;
  expect(sched_work_init(), 0, "");
  EXPECT_EQ(pool.population.counts().total, 4);
  expect(vorn_sched_delete_work(work), -55, "");
  expect(vorn_sched_add_work(nullptr), -1, "E The v_pstWork is equal NULL.");
  expect(vorn_sched_delete_work(nullptr), -1, "E The v_pstWork is equal NULL.");
  Item unhandled;
  unhandled.work.handler = nullptr;
  unhandled.work.pid = -7;
  unhandled.add();
  expect(soon([] { return pool.finished == 1; }), 1, "E NULL sched work data handler, PID = (-7).");
  expect(vorn_add_sched_work_timeout_check(1, nullptr), -1, "E Invalid index, param null.");
  expect((vorn_del_sched_work_timeout_check(64), 0), 0, "E Invalid index (64).\n");
  expect((vorn_update_sched_work_timeout_info(64, 1, 1, 1), 0), 0, "");
  expect((vorn_heal_check_callback(nullptr), 0), 0, "E Invalid param");
  expect(vorn_get_sched_work_heal_task_info(nullptr, nullptr), -1,
         "E Invalid param, heal_task((nil)), task_num((nil)).");
  EXPECT_EQ(vorn_set_sched_work_timeout(work, 14), -1);
  EXPECT_EQ(work->timeout, 15u);
  vorn_sched_work_heal_task_s *task = nullptr;
  uint32_t count = 0;
  EXPECT_EQ(vorn_get_sched_work_heal_task_info(&task, &count), 0);
  ASSERT_EQ(count, 1u);
  EXPECT_STREQ(task->name, "vorn_schedwork_timeout_check");
  EXPECT_EQ(task->check, vorn_heal_check_callback);
  EXPECT_EQ(task->settings[0] * 100 + task->settings[1] * 10 + task->settings[2], 155u);
}

TEST(SchedWork, BoundsComeFromTheConfiguration) {
  const scratch::Directory directory;
  const std::string path = directory / "vorn.ini";
  const struct {
    const char *minimum, *maximum; // configured; "": not
    unsigned int wanted_minimum, wanted_maximum;
  } rows[] = {
      {"2", "3", 2, 3},   {"6", "2", 2, 3},   // not at all
      {"", "3", 2, 3},                        // below the minimum's default
      {"10", "20", 4, 8}, {"0", "0x5", 1, 5}, // clamped; never none
      {"0", "0", 1, 5},                       // 0 is 1 before the two are compared
      {"", "6", 4, 6},    {"9", "", 4, 6},    // beyond the maximum's default
      {"3", "", 3, 8},    {"5", "5", 4, 5},   // compared before they are clamped
      {"1", "1", 1, 1},   {"", "", 4, 8},
  };
  for (const auto &[minimum, maximum, wanted_minimum, wanted_maximum] : rows) {
    std::string text = "[VORN]\n";
    if (*minimum != '\0') text += std::string{"SCHED_THREAD_FREE_NUM_MIN="} + minimum + "\n";
    if (*maximum != '\0') text += std::string{"SCHED_THREAD_FREE_NUM_MAX="} + maximum + "\n";
    scratch::write_file(path, text);
    ASSERT_EQ(vorn_cfg_init(path.c_str()), 0);
    sched_work_thread_num_set();
    EXPECT_EQ(pool.free_minimum, wanted_minimum) << text;
    EXPECT_EQ(pool.free_maximum, wanted_maximum) << text;
    EXPECT_EQ(lines_of("W SCHED_THREAD_FREE_NUM_MIN is 0").size(), *minimum == '0' ? 1u : 0u);
  }
}

TEST(SchedWork, RunsEachItemOnce) {
  capture::set_level(4);
  constexpr int kThreads = 4;
  std::vector<Item> items(kItems);
  std::atomic<bool> over{false};
  std::thread watcher{[&] {
    while (!over) {
      const uint64_t finished = pool.finished; // in this order none is negative
      ASSERT_LE(finished, pool.started.load());
      const auto now = pool.population.counts();
      ASSERT_TRUE(now.free <= now.total && now.total <= 64);
    }
  }};
  run_threads(kThreads, [&](int thread) {
    for (int i = thread; i < kItems; i += kThreads)
      ASSERT_EQ(items[static_cast<std::size_t>(i)].add(), 0);
  });
  EXPECT_TRUE(soon([] { return quiet() && pool.started == kItems; }));
  over = true;
  watcher.join();
  EXPECT_EQ(std::count_if(items.begin(), items.end(), [](auto &i) { return i.runs != 1; }), 0);
  expect_sound();
}

// With pauses of every length, some items come just as a worker falls asleep.
TEST(SchedWork, ASingleItemRunsUnlessItIsDeleted) {
  Item item;
  int runs = 0;
  for (int round = 0; round < 6000; ++round) {
    ASSERT_EQ(item.add(), 0);
    const int result = round % 2 == 0 ? -55 : vorn_sched_delete_work(&item.work);
    ASSERT_TRUE(result == 0 || result == -55);
    runs += result != 0;
    ASSERT_TRUE(item.ran(runs)) << round;
    std::this_thread::sleep_for(std::chrono::microseconds{round / 2 % 50});
  }
  EXPECT_LT(runs, 6000);
}

TEST(SchedWork, GrowsToItsMaximumReportsAStandstillAndShrinks) {
  capture::set_level(7);
  g_tick = 1000;
  EXPECT_EQ(vorn_is_all_work_timeout(), 0); // the first call
  {
    Crowd crowd(63);
    g_tick += 45000;
    EXPECT_EQ(vorn_is_all_work_timeout(), 0); // runs have begun
    g_tick += 45000;
    EXPECT_EQ(vorn_is_all_work_timeout(), 0); // 63 of them
    crowd.add();
    EXPECT_TRUE(soon([&] { return crowd.inside == 64; }));
    Item waiting;
    waiting.add();
    EXPECT_EQ(lines_of("threads is running"), Lines{"All vorn_sched_work threads is running."});
    EXPECT_EQ(vorn_is_all_work_timeout(), 0);
    vorn_sched_work_heal_result_s result{7};
    g_tick += 44999;
    vorn_heal_check_callback(&result);
    EXPECT_EQ(result.outcome, 1u);
    EXPECT_TRUE(lines_of("work timeout").empty());
    g_tick += 1;
    vorn_heal_check_callback(&result);
    EXPECT_EQ(result.outcome, 0u);
    int dumps = 0;
    for (const auto &message : capture::take())
      dumps += message.level == 3 && message.function == "vorn_dump_partial_sched_work_thread";
    EXPECT_EQ(dumps, 4);
    uint32_t none = 0;
    EXPECT_EQ(vorn_add_sched_work_timeout_check(1, &none), -1);
    EXPECT_EQ(lines_of("E can not find spare index for tid 1.").size(), 1u);
    crowd.open = true;
    EXPECT_TRUE(waiting.ran(1));
  }
  EXPECT_EQ(vorn_is_all_work_timeout(), 0);
  std::size_t exited = 0;
  EXPECT_TRUE(soon([&] { return (exited += lines_of("thread exited.").size()) == 56; })) << exited;
  expect_sound();
}

TEST(SchedWork, ReportsTheFirstRunBeyondItsLimit) {
  uint64_t limit = 0;
  Item item{[&] { // ends one tick beyond
    g_tick = 500 + limit;
    EXPECT_EQ(vorn_sched_work_timeout_theck(), 0);
    g_tick = 501 + limit;
    EXPECT_EQ(vorn_sched_work_timeout_theck(), 1);
  }};
  item.work.pid = 77;
  int runs = 0;
  for (const uint32_t seconds : {15u, UINT32_MAX}) {
    g_tick = 500;
    limit = std::min<uint64_t>(seconds * 250ul, UINT32_MAX);
    item.work.timeout = seconds;
    item.add();
    EXPECT_TRUE(item.ran(++runs));
    EXPECT_EQ(vorn_sched_work_timeout_theck(), 0);
    EXPECT_EQ(lines_of(", pid 77.").size(), 1u);
  }
  uint32_t slots[2];
  for (uint32_t i = 0; i < 2; ++i) {
    vorn_add_sched_work_timeout_check(i + 10, &slots[i]);
    vorn_update_sched_work_timeout_info(slots[i], 1000 + i, 3750, i + 20);
  }
  capture::take();
  g_tick = 999; // a clock before the start
  EXPECT_EQ(vorn_sched_work_timeout_theck(), 0);
  g_tick = 9999;
  expect(vorn_sched_work_timeout_theck(), 1, "W sched work timeout: tid 10, pid 20.dump of 10.");
  vorn_del_sched_work_timeout_check(slots[0]);
  expect(vorn_sched_work_timeout_theck(), 1, "W sched work timeout: tid 11, pid 21.dump of 11.");
}

TEST(SchedWork, HandlerMayFreeOrAddItsItem) {
  static std::atomic<int> freed{0};
  for (int i = 0; i < 100; ++i) {
    auto *item = new Item;
    vorn_set_sched_work_timeout(&item->work, 20);
    item->run = [item] { delete item, ++freed; };
    item->add();
  }
  Item again;
  again.run = [&] { EXPECT_EQ(again.runs < 1000 ? again.add() : 0, 0); };
  again.add();
  EXPECT_TRUE(soon([&] { return freed == 100 && again.runs == 1000 && quiet(); }));
}

TEST(SchedWork, HandlerMayEndItsThread) {
  pthread_t idle{};
  const std::function<void()> ends[] = {
      [] { pthread_exit(nullptr); },
      [] { pthread_cancel(pthread_self()), pthread_testcancel(); },
      [] { pthread_cancel(pthread_self()); }, // acts after the run: not in the next one
      [&] { idle = pthread_self(); },
  };
  for (int round = 0; round < 40; ++round) {
    Item item{ends[round % 4]};
    Item next{[] { pthread_testcancel(); }};
    vorn_set_sched_work_timeout(&item.work, 15);
    item.add();
    ASSERT_TRUE(item.ran(1)) << round;
    if (round % 4 == 3) pthread_cancel(idle);
    next.add();
    ASSERT_TRUE(next.ran(1)) << round;
    ASSERT_TRUE(soon([] { return pool.population.counts().free >= 4; }));
  }
  expect_sound();
}

TEST(SchedWork, StartsEmptyAfterADestroy) {
  capture::set_level(7);
  Item dropped;
  {
    Crowd crowd(64, 15);
    dropped.add();
    EXPECT_EQ(sched_work_destroy(), 0);
    EXPECT_EQ(lines_of("abnormally"),
              Lines{"some sched work thread exited abnormally. totalThread = 64"});
    EXPECT_EQ(free_slots(), 64u);
    EXPECT_EQ(vorn_sched_delete_work(&dropped.work), -1);
    sched_work_init();
    EXPECT_TRUE(soon([] { return free_slots() == 60; }));
    for (uint32_t slot = 0; slot < 4; ++slot) // which were late workers'
      vorn_update_sched_work_timeout_info(slot, 1, 0, 5);
  }
  sleep_ms(5);
  EXPECT_EQ(pool.population.counts().total, 4);
  for (uint32_t slot = 0; slot < 4; ++slot)
    EXPECT_EQ(vorn::schedwork::slots[slot].start, 1u) << slot;
  expect_sound();
  EXPECT_EQ(dropped.runs, 0);
  EXPECT_EQ(dropped.add(), 0);
  EXPECT_TRUE(dropped.ran(1));
  EXPECT_EQ(sched_work_destroy(), 0);
  EXPECT_TRUE(lines_of("abnormally").empty());
  EXPECT_EQ(free_slots(), 64u);
}

TEST(SchedWork, ItemsAddedDuringADestroyRun) {
  capture::set_level(3);
  std::vector<Item> items(64);
  std::atomic<bool> over{false};
  std::atomic<int> added{0};
  std::thread storm{[&] {
    for (std::size_t i = 0; !over; i = (i + 1) % items.size())
      added += items[i].add() == 0;
  }};
  for (int round = 0; round < 10; ++round) {
    sched_work_destroy();
    const int before = added;
    ASSERT_TRUE(soon([&] { return added > before + 1000; }));
  }
  over = true;
  storm.join();
  EXPECT_TRUE(soon(quiet));
  EXPECT_NE(lines_of("E In destroying, adding v_pstWork failed.").size(), 0u);

  // The last item comes after the queue was emptied.
  Item lasts[5];
  for (int round = 0; round < 5; ++round) {
    std::thread destroy{sched_work_destroy};
    EXPECT_TRUE(soon([] { return pool.population.counts().destroying(); }));
    sleep_ms(20 + 4 * round);
    lasts[round].add();
    destroy.join();
    EXPECT_TRUE(soon(quiet)) << round;
    sched_work_init();
  }
  EXPECT_TRUE(std::any_of(lasts, lasts + 5, [](auto &last) { return last.runs == 1; }));
  Item item{[] { sched_work_destroy(); }}; // a handler may, too
  Item other{[&] { item.add(), sched_work_destroy(), sched_work_init(); }};
  for (Item *each : {&item, &other}) {
    each->add();
    EXPECT_TRUE(soon([&] { return each->runs > 0 && quiet(); }));
  }
  expect_sound();
}

TEST(SchedWork, ChildHasItsOwnPool) {
  if (!kMayStartThreadsInChild) GTEST_SKIP() << "the thread sanitizer would end the child";
  Crowd crowd(64);
  Item queued;
  queued.add();
  const auto in_child = [&] {
    const bool was_empty = vorn_sched_delete_work(&queued.work) == -1;
    const bool ran = queued.add() == 0 && soon([&] { return queued.runs == 1; });
    return was_empty && ran && pool.population.counts().total <= 5 ? 0 : 1;
  };
  EXPECT_EQ(run_in_child(in_child), 0);
  EXPECT_EQ(vorn_sched_delete_work(&queued.work), 0); // still the parent's
  crowd.open = true;
  // A handler's child goes on in the handler.
  int result = -1;
  Item forks{[&] { result = run_in_child(in_child); }};
  forks.add();
  EXPECT_TRUE(forks.ran(1));
  EXPECT_EQ(result, 0);
}

TEST(SchedWork, ReportsACorruptQueueAndAnItemThatIsQueued) {
  VornSchedWorkShow(nullptr);
  Crowd crowd(64);
  Item items[2];
  for (Item &queued : items)
    queued.add();
  capture::take();
  expect(items[1].add(), -1,
         "E Work in list is not initial, PID = (" + std::to_string(getpid()) + ")");
  items[0].work.pid = -3;
  items[0].work.node.next = nullptr;
  EXPECT_EQ(vorn_sched_delete_work(&items[1].work), 0);
  const Lines lines = capture::take_lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].find("E Abnormal list node prev:"), 0u);
  const std::string wanted = ", schedWork pid:-3, sched work pData:unknown+0x";
  EXPECT_EQ(lines[2].find("Sched work entry:unknown+0x"), 0u) << lines[2];
  EXPECT_LT(lines[2].find(wanted), lines[2].find(", sched work process         function: "));
}

} // namespace
