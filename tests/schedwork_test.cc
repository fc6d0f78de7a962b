// test-wraps: vorn_get_jiffies create_thread_nopreempt_raw
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "schedwork/vorn_sched_work.hpp"
#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "vorn_cfg.h"
#include "vorn_jiffies.h"
#include "vorn_thrd.h"

namespace {

std::atomic<uint64_t> g_tick{0}; // 0: the real one
std::atomic<int> g_threads_left{1000000};

} // namespace

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

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(__aarch64__)
constexpr int kItems = 50000; // at a tenth of the speed and less
#else
constexpr int kItems = 1000000;
#endif

template <class Condition> bool soon(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{8}; // a lost unit: 10
  while (!condition() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::microseconds{200});
  return condition();
}

// Also true while a worker takes an item: wait for the item's run as well.
bool quiet() { return pool.queue.size() == 0 && pool.started == pool.finished; }

struct Item {
  explicit Item(std::function<void()> what = {}, bool handled = true) : run(std::move(what)) {
    vorn_sched_init_work(&work, handled ? handle : nullptr, this);
  }
  static void handle(vorn_sched_work_s *work) {
    auto *item = static_cast<Item *>(work->pData);
    ++item->runs;
    if (item->run) item->run();
  }
  vorn_sched_work_s work;
  std::atomic<int> runs{0};
  std::function<void()> run;
};

// Items that stay in their handlers until they are let go.
struct Crowd {
  explicit Crowd(int size) : count(size) {
    for (int i = 0; i < count; ++i) {
      items.push_back(std::make_unique<Item>([this] {
        ++inside;
        while (!open)
          std::this_thread::sleep_for(std::chrono::milliseconds{1});
      }));
      vorn_sched_add_work(&items.back()->work);
    }
  }
  ~Crowd() {
    open = true;
    EXPECT_TRUE(soon([this] { return inside == count && quiet(); }));
  }
  const int count;
  std::atomic<bool> open{false};
  std::atomic<int> inside{0};
  std::vector<std::unique_ptr<Item>> items;
};

unsigned int free_slots() {
  using vorn::schedwork::slots;
  return static_cast<unsigned int>(
      std::count_if(slots, slots + 64, [](auto &slot) { return !slot.in_use; }));
}

class SchedWork : public testing::Test {
protected:
  void SetUp() override { capture::set_level(6); } // workers end after the test, too
};

// The workers are idle, and each has a slot.
void expect_sound() {
  EXPECT_TRUE(soon([] {
    const auto now = pool.population.counts();
    return pool.queue.size() == 0 && now.total == now.free && free_slots() == 64u - now.total;
  })) << pool.population.counts().total
      << ' ' << pool.population.counts().free << ' ' << free_slots();
}

Lines lines_of(const std::string &part) {
  Lines lines = capture::take_lines();
  std::erase_if(lines, [&](const auto &line) { return line.find(part) == std::string::npos; });
  return lines;
}

TEST_F(SchedWork, RefusesBadCalls) {
  vorn_get_jiffies(); // which has its own to say
  capture::take();
  capture::set_level(3);
  Item item;
  Item unhandled({}, false);
  const std::string own = "(" + std::to_string(getpid()) + ")";
  vorn_sched_work_heal_task_s *task = nullptr;
  const struct {
    std::function<int()> call;
    int result;
    std::string texts;
  } rows[] = {
      {[] { return vorn_set_sched_work_timeout(nullptr, 15); }, -1, "param (nil), timeout 15."},
      {[&] { return vorn_set_sched_work_timeout(&item.work, 15); }, 0, ""},
      {[&] { return vorn_sched_delete_work(&item.work); }, -1,
       "Deleting work failed, as the sched_work not inited."},
      {[&] { return g_threads_left = 2, vorn_sched_add_work(&item.work); }, -1,
       "Create sched work thread fail.E "
       "Adding work failed, as the result of initing sched_work failed"},
      {[] { return static_cast<int>(pool.population.counts().total); }, 2, ""},
      {[] { return g_threads_left = 1000, sched_work_init(); }, 0, ""},
      {[&] { return vorn_sched_delete_work(&item.work); }, -55, ""},
      {[] { return vorn_sched_add_work(nullptr); }, -1, "The v_pstWork is equal NULL."},
      {[] { return vorn_sched_delete_work(nullptr); }, -1, "The v_pstWork is equal NULL."},
      {[&] {
         return vorn_sched_add_work(&unhandled.work),
                soon([] { return pool.finished == 1; }) ? 0 : 1;
       },
       0, "NULL sched work data handler, PID = " + own + "."},
      {[] { return vorn_add_sched_work_timeout_check(1, nullptr); }, -1,
       "Invalid index, param null."},
      {[] { return vorn_del_sched_work_timeout_check(64), 0; }, 0, "Invalid index (64).\n"},
      {[] { return vorn_update_sched_work_timeout_info(64, 1, 1, 1), 0; }, 0, ""},
      {[] { return vorn_heal_check_callback(nullptr), 0; }, 0, "Invalid param"},
      {[] { return vorn_get_sched_work_heal_task_info(nullptr, nullptr); }, -1,
       "Invalid param, heal_task((nil)), task_num((nil))."},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.call(), row.result);
    std::string texts;
    for (const std::string &line : capture::take_lines())
      texts += line;
    EXPECT_EQ(texts, row.texts.empty() ? "" : "E " + row.texts);
  }
  EXPECT_EQ(vorn_set_sched_work_timeout(&item.work, 14), -1);
  EXPECT_EQ(item.work.timeout, 15u);
  EXPECT_GE(pool.population.counts().total, 4);
  uint32_t count = 0;
  ASSERT_EQ(vorn_get_sched_work_heal_task_info(&task, &count), 0);
  EXPECT_EQ(count, 1u);
  EXPECT_STREQ(task->name, "vorn_schedwork_timeout_check");
  EXPECT_EQ(task->check, vorn_heal_check_callback);
  EXPECT_EQ(task->settings[0] * 100 + task->settings[1] * 10 + task->settings[2], 155u);
}

TEST_F(SchedWork, BoundsComeFromTheConfiguration) {
  capture::set_level(4);
  const scratch::Directory directory;
  const std::string path = directory / "vorn.ini";
  const std::string minimum = "SCHED_THREAD_FREE_NUM_MIN=";
  const std::string maximum = "SCHED_THREAD_FREE_NUM_MAX=";
  const struct {
    std::string text;
    unsigned int minimum, maximum;
  } rows[] = {
      {minimum + "2\n" + maximum + "3\n", 2, 3},
      {minimum + "6\n" + maximum + "2\n", 2, 3},
      {minimum + "10\n" + maximum + "20\n", 4, 8},
      {minimum + "0\n" + maximum + "0x5\n", 1, 5},
      {minimum + "0\n" + maximum + "0\n", 1, 5}, // 0 is 1 already where the two are compared
      {maximum + "3\n", 1, 5},                   // below the minimum's default
      {maximum + "6\n", 4, 6},
      {minimum + "9\n", 4, 6}, // beyond the maximum's
      {minimum + "3\n", 3, 8},
      {minimum + "5\n" + maximum + "5\n", 4, 5},
      {minimum + "1\n" + maximum + "1\n", 1, 1},
      {"", 4, 8},
  };
  for (const auto &row : rows) {
    scratch::write_file(path, "[VORN]\n" + row.text);
    ASSERT_EQ(vorn_cfg_init(path.c_str()), 0);
    sched_work_thread_num_set();
    EXPECT_EQ(pool.free_minimum, row.minimum) << row.text;
    EXPECT_EQ(pool.free_maximum, row.maximum) << row.text;
    const bool zero = row.text.find("=0\n") != std::string::npos;
    EXPECT_EQ(lines_of("is 0").size(), zero && row.minimum == 1 ? 1u : 0u) << row.text;
  }
}

TEST_F(SchedWork, RunsEachItemOnce) {
  capture::set_level(4);
  constexpr int kThreads = 4;
  std::vector<Item> items(kItems);
  std::atomic<bool> over{false};
  std::thread watcher{[&] {
    while (!over) {
      const uint64_t finished = pool.finished; // in this order none is negative
      ASSERT_LE(finished, pool.started.load());
      const auto now = pool.population.counts();
      ASSERT_LE(now.free, now.total);
      ASSERT_LE(now.total, 64);
    }
  }};
  run_threads(kThreads, [&](int thread) {
    for (int i = thread; i < kItems; i += kThreads)
      ASSERT_EQ(vorn_sched_add_work(&items[static_cast<std::size_t>(i)].work), 0);
  });
  EXPECT_TRUE(soon([] { return quiet() && pool.started == kItems; }));
  over = true;
  watcher.join();
  EXPECT_EQ(std::count_if(items.begin(), items.end(), [](auto &i) { return i.runs != 1; }), 0);
  expect_sound();
}

// Single items with pauses of every length: a unit that meets a worker as it falls asleep counts.
TEST_F(SchedWork, NoItemWaitsForAWorkerThatIsAwake) {
  Item item;
  for (int round = 0; round < 3000; ++round) {
    ASSERT_EQ(vorn_sched_add_work(&item.work), 0);
    ASSERT_TRUE(soon([&] { return item.runs == round + 1 && quiet(); })) << round;
    std::this_thread::sleep_for(std::chrono::microseconds{round % 50});
  }
}

TEST_F(SchedWork, AnItemIsDeletedOrRun) {
  int deleted = 0;
  for (int round = 0; round < kItems / 50; ++round) {
    Item item;
    vorn_sched_add_work(&item.work);
    for (int i = 0; i < round % 64; ++i)
      std::atomic_signal_fence(std::memory_order_seq_cst);
    const int result = vorn_sched_delete_work(&item.work);
    ASSERT_TRUE(result == 0 || result == -55);
    deleted += result == 0;
    ASSERT_TRUE(soon([&] { return quiet() && item.runs == (result == 0 ? 0 : 1); }));
  }
  EXPECT_NE(deleted, 0);
  EXPECT_EQ(pool.queue.size(), 0u);
}

TEST_F(SchedWork, GrowsToTheCeilingStandsStillAndShrinks) {
  capture::set_level(7);
  g_tick = 1000;
  EXPECT_EQ(vorn_is_all_work_timeout(), 0); // the first call
  {
    Crowd crowd(63);
    ASSERT_TRUE(soon([&] { return crowd.inside == 63; }));
    g_tick += 45000;
    EXPECT_EQ(vorn_is_all_work_timeout(), 0); // runs have begun
    g_tick += 45000;
    EXPECT_EQ(vorn_is_all_work_timeout(), 0); // 63 of them
    Item last{[&] {
      while (!crowd.open)
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }};
    Item waiting;
    vorn_sched_add_work(&last.work);
    ASSERT_TRUE(soon([&] { return last.runs == 1; }));
    vorn_sched_add_work(&waiting.work);
    EXPECT_EQ(pool.population.counts().total, 64);
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
    EXPECT_EQ(vorn_is_all_work_timeout(), 1); // goes on
    const auto records = capture::take();
    EXPECT_EQ(std::count_if(records.begin(), records.end(),
                            [](const auto &record) {
                              return record.level == 3 && record.file == "vorn_sched_work.c" &&
                                     record.function == "vorn_dump_partial_sched_work_thread";
                            }),
              8);
    EXPECT_EQ(waiting.runs, 0);
    EXPECT_EQ(free_slots(), 0u);
    uint32_t none = 0;
    EXPECT_EQ(vorn_add_sched_work_timeout_check(1, &none), -1);
    EXPECT_EQ(lines_of("E can not find spare index for tid 1.").size(), 1u);
    crowd.open = true;
    EXPECT_TRUE(soon([&] { return waiting.runs == 1 && quiet(); }));
  }
  EXPECT_EQ(vorn_is_all_work_timeout(), 0);
  EXPECT_TRUE(soon([] { return pool.population.counts().total == 8; }));
  std::size_t exited = 0;
  EXPECT_TRUE(soon([&] { return (exited += lines_of("thread exited.").size()) == 56; })) << exited;
  expect_sound();
}

TEST_F(SchedWork, ReportsTheFirstRunBeyondItsLimit) {
  uint32_t slots[3];
  for (uint32_t i = 0; i < 3; ++i)
    ASSERT_EQ(vorn_add_sched_work_timeout_check(i + 10, &slots[i]), 0);
  vorn_update_sched_work_timeout_info(slots[1], 1000, 3750, 21);
  vorn_update_sched_work_timeout_info(slots[2], 1001, 3750, 22);
  const struct {
    uint64_t tick;
    Lines lines;
  } rows[] = {{999, {}}, // a clock that is behind
              {4750, {}},
              {4751, {"W sched work timeout: tid 11, pid 21."}},
              {9999, {"W sched work timeout: tid 11, pid 21."}}};
  for (const auto &row : rows) {
    g_tick = row.tick;
    EXPECT_EQ(vorn_sched_work_timeout_theck(), row.lines.empty() ? 0 : 1);
    EXPECT_EQ(capture::take_lines(), row.lines);
  }
  vorn_del_sched_work_timeout_check(slots[1]);
  EXPECT_EQ(vorn_sched_work_timeout_theck(), 1);
  EXPECT_EQ(capture::take_lines(), Lines{"W sched work timeout: tid 12, pid 22."});
  vorn_update_sched_work_timeout_info(slots[2], 0, 0, 0);
  EXPECT_EQ(vorn_sched_work_timeout_theck(), 0);
}

TEST_F(SchedWork, ARunIsWatchedWhileItLasts) {
  g_tick = 500;
  std::atomic<uint64_t> limit{15 * 250};
  std::atomic<int> step{0};
  int runs = 1;
  Item item{[&] {
    g_tick = 500 + limit;
    EXPECT_EQ(vorn_sched_work_timeout_theck(), 0);
    g_tick = 501 + limit;
    EXPECT_EQ(vorn_sched_work_timeout_theck(), 1);
    ++step;
  }};
  item.work.pid = 77;
  for (const uint32_t seconds : {15u, UINT32_MAX}) {
    g_tick = 500;
    limit = std::min<uint64_t>(seconds * 250ul, UINT32_MAX);
    ASSERT_EQ(vorn_set_sched_work_timeout(&item.work, seconds), 0);
    vorn_sched_add_work(&item.work);
    EXPECT_TRUE(soon([&] { return quiet() && step == runs; }));
    ++runs;
    EXPECT_EQ(vorn_sched_work_timeout_theck(), 0);
    EXPECT_EQ(lines_of(", pid 77.").size(), 1u);
    EXPECT_EQ(lines_of("name vorn_schedwork").size(), 0u);
  }
}

TEST_F(SchedWork, AHandlerMayDoAnythingWithItsRecord) {
  std::atomic<int> freed{0};
  for (int i = 0; i < 100; ++i) {
    auto *work = new Item;
    ASSERT_EQ(vorn_set_sched_work_timeout(&work->work, 20), 0);
    work->run = [&freed, work] {
      auto &count = freed; // the closure goes too
      delete work;
      ++count;
    };
    vorn_sched_add_work(&work->work);
  }
  Item again;
  again.run = [&] {
    if (again.runs < 1000) {
      EXPECT_EQ(vorn_sched_add_work(&again.work), 0);
    }
  };
  vorn_sched_add_work(&again.work);
  EXPECT_TRUE(soon([&] { return freed == 100 && again.runs == 1000; }));

  Crowd crowd(64);
  Item twice;
  ASSERT_TRUE(soon([&] { return crowd.inside == 64; }));
  capture::take();
  EXPECT_EQ(vorn_sched_add_work(&twice.work), 0);
  EXPECT_EQ(vorn_sched_add_work(&twice.work), -1);
  EXPECT_EQ(lines_of("not initial"),
            Lines{"E Work in list is not initial, PID = (" + std::to_string(getpid()) + ")"});
  EXPECT_EQ(vorn_sched_delete_work(&twice.work), 0);
  EXPECT_EQ(vorn_sched_delete_work(&twice.work), -55);
}

TEST_F(SchedWork, AHandlerMayEndItsThread) {
  pthread_t idle{};
  const std::function<void()> ends[] = {
      [] { pthread_exit(nullptr); },
      [] {
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
        pthread_cancel(pthread_self());
        pthread_testcancel();
      },
      [] { pthread_cancel(pthread_self()); }, // acts behind the run: not in the next one
      [&] { idle = pthread_self(); },
  };
  for (int round = 0; round < 40; ++round) {
    Item item{ends[round % 4]};
    Item next{[] { pthread_testcancel(); }};
    vorn_set_sched_work_timeout(&item.work, 15);
    vorn_sched_add_work(&item.work);
    ASSERT_TRUE(soon([&] { return item.runs == 1 && quiet(); })) << round;
    if (round % 4 == 3) pthread_cancel(idle);
    vorn_sched_add_work(&next.work);
    ASSERT_TRUE(soon([&] { return next.runs == 1 && quiet(); })) << round;
    ASSERT_TRUE(soon([] { return pool.population.counts().free >= 4; }));
  }
  expect_sound();
}

TEST_F(SchedWork, ADestroyLeavesNothingToTheNextLife) {
  capture::set_level(7);
  Item dropped;
  {
    Crowd crowd(64);
    ASSERT_TRUE(soon([&] { return crowd.inside == 64; }));
    vorn_sched_add_work(&dropped.work);
    EXPECT_EQ(sched_work_destroy(), 0);
    EXPECT_EQ(lines_of("abnormally"),
              Lines{"some sched work thread exited abnormally. totalThread = 64"});
    EXPECT_EQ(free_slots(), 64u);
    EXPECT_EQ(sched_work_destroy(), 0); // at once
    EXPECT_TRUE(lines_of("abnormally").empty());
    EXPECT_EQ(vorn_sched_delete_work(&dropped.work), -1);
    EXPECT_TRUE(vorn_list_is_poisoned(&dropped.work.node));
    sched_work_init();
    expect_sound();
  }
  EXPECT_EQ(dropped.runs, 0);
  EXPECT_EQ(vorn_sched_add_work(&dropped.work), 0);
  EXPECT_TRUE(soon([&] { return dropped.runs == 1; }));
  expect_sound();

  sched_work_destroy(); // so that the workers have slots 0 to 3
  sched_work_init();
  expect_sound();
  std::atomic<bool> open{false};
  Item late{[&] { EXPECT_TRUE(soon([&] { return open.load(); })); }};
  vorn_set_sched_work_timeout(&late.work, 15);
  vorn_sched_add_work(&late.work);
  ASSERT_TRUE(soon([&] { return late.runs == 1; }));
  EXPECT_EQ(sched_work_destroy(), 0);
  sched_work_init();
  expect_sound();
  for (uint32_t slot = 0; slot < 4; ++slot) // one of them was the late worker's
    vorn_update_sched_work_timeout_info(slot, 1, 0, 5);
  open = true;
  EXPECT_TRUE(soon(quiet));
  std::this_thread::sleep_for(std::chrono::milliseconds{5});
  for (uint32_t slot = 0; slot < 4; ++slot)
    EXPECT_EQ(vorn::schedwork::slots[slot].start, 1u) << slot;
  EXPECT_EQ(pool.population.counts().total, 4);
  expect_sound();
}

TEST_F(SchedWork, ItemsAddedDuringADestroyRun) {
  capture::set_level(3);
  std::vector<Item> items(64);
  std::atomic<bool> over{false};
  std::atomic<int> added{0};
  std::thread storm{[&] {
    for (std::size_t i = 0; !over; i = (i + 1) % items.size())
      added += vorn_sched_add_work(&items[i].work) == 0;
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

  // One that comes after the queue was emptied, and nothing after it.
  Item lasts[5];
  for (int round = 0; round < 5; ++round) {
    std::thread destroy{sched_work_destroy};
    EXPECT_TRUE(soon([] { return pool.population.counts().destroying(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds{20 + 4 * round});
    vorn_sched_add_work(&lasts[round].work);
    destroy.join();
    EXPECT_TRUE(soon(quiet)) << round;
    sched_work_init();
  }
  expect_sound();
  sched_work_destroy();
  EXPECT_EQ(free_slots(), 64u);
  EXPECT_TRUE(std::any_of(lasts, lasts + 5, [](auto &last) { return last.runs == 1; }));
}

TEST_F(SchedWork, AHandlerMayDestroyThePool) {
  Item item{[] { sched_work_destroy(); }};
  Item other{[&] { vorn_sched_add_work(&item.work), sched_work_destroy(), sched_work_init(); }};
  for (Item *each : {&item, &other, &item}) {
    const int before = each->runs;
    vorn_sched_add_work(&each->work);
    EXPECT_TRUE(soon([&] { return each->runs > before && quiet(); }));
  }
  Item after;
  vorn_sched_add_work(&after.work);
  EXPECT_TRUE(soon([&] { return after.runs == 1; }));
  expect_sound();
}

TEST_F(SchedWork, AChildHasAPoolOfItsOwn) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer lets no child start threads";
#endif
  Crowd crowd(64);
  ASSERT_TRUE(soon([&] { return crowd.inside == 64; }));
  Item queued;
  vorn_sched_add_work(&queued.work);
  const auto in_child = [&] {
    if (vorn_sched_delete_work(&queued.work) != -1) return 1;
    if (vorn_sched_add_work(&queued.work) != 0) return 2;
    if (!soon([&] { return queued.runs == 1; })) return 3;
    return pool.population.counts().total == 4 || pool.population.counts().total == 5 ? 0 : 4;
  };
  EXPECT_EQ(run_in_child(in_child), 0);
  EXPECT_EQ(vorn_sched_delete_work(&queued.work), 0); // still the parent's
  crowd.open = true;
  // A handler's child goes on in the handler.
  int result = -1;
  Item forks{[&] { result = run_in_child(in_child); }};
  vorn_sched_add_work(&forks.work);
  EXPECT_TRUE(soon([&] { return forks.runs == 1 && quiet(); }));
  EXPECT_EQ(result, 0);
}

TEST_F(SchedWork, ShowsRecordsAndReportsACorruptQueue) {
  Item item;
  item.work.pid = -3;
  VornSchedWorkShow(nullptr);
  VornSchedWorkShow(&item.work.node);
  const auto records = capture::take();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, 6);
  EXPECT_EQ(records[0].text.find("Sched work entry:unknown+0x"), 0u) << records[0].text;
  EXPECT_NE(records[0].text.find(", schedWork pid:-3, sched work pData:unknown+0x"),
            std::string::npos);
  EXPECT_NE(records[0].text.find(", sched work process         function: "), std::string::npos);

  Crowd crowd(64);
  ASSERT_TRUE(soon([&] { return crowd.inside == 64; }));
  Item items[3];
  for (Item &queued : items)
    vorn_sched_add_work(&queued.work);
  capture::take();
  items[0].work.node.next = nullptr;
  EXPECT_EQ(vorn_sched_delete_work(&items[1].work), 0);
  EXPECT_EQ(lines_of("E Abnormal list node prev:").size(), 1u);
}

} // namespace
