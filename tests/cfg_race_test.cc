// Tests concurrent editors and readers, in threads and processes.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cfg.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"

namespace {

struct CfgRace : testing::Test {
  scratch::Directory directory;
  const std::string path = directory / "f.ini";
  const char *const file = path.c_str();

  CfgRace() { capture::set_level(0); }
};

pid_t in_child(const std::function<bool()> &work) {
  const pid_t child = fork();
  if (child == 0) _exit(work() ? 0 : 1);
  return child;
}

// Each worker adds its own items: the even workers in place, the odd ones through a temporary file.
TEST_F(CfgRace, ProcessesLoseNoEdit) {
  constexpr int kWorkers = 4;
  constexpr int kEdits = 10; // of each worker
  const auto item = [](int worker, int edit) {
    return "k" + std::to_string(worker) + "_" + std::to_string(edit);
  };
  scratch::write_file(path, "");
  for (int worker = 0; worker < kWorkers; ++worker) {
    const auto add = worker % 2 == 0 ? vorn_cfg_write_item_to_file : vorn_cfg_file_addItem;
    in_child([&] {
      bool is_added = true;
      for (int edit = 0; edit < kEdits; ++edit)
        is_added = add(file, "s", item(worker, edit).c_str(), "v") == 0 && is_added;
      return is_added;
    });
  }
  for (int status = 1; wait(&status) > 0;)
    EXPECT_EQ(status, 0);
  vorn_cfg_item_s out;
  for (int i = 0; i < kWorkers * kEdits; ++i) {
    const std::string name = item(i / kEdits, i % kEdits);
    EXPECT_EQ(vorn_cfg_getItemFromFile(file, "s", name.c_str(), &out), 0) << name;
  }
}

// All lookups and setters, while the file is edited, registered again and dropped. No thread may
// see a value that was not written.
TEST_F(CfgRace, ReadersGoOnDuringEdits) {
  scratch::write_file(path, "[s]\nk=aaaa\n");
  ASSERT_EQ(vorn_cfg_init(file), 0);
  std::atomic<bool> stop{false};
  std::atomic<int> strange{0};
  const auto check = [&](int result, const char *value) {
    if (result == 0 && value[0] != 'a' && value[0] != 'b') ++strange;
  };
  const std::function<void()> loops[] = {
      [&] {
        char value[64] = "";
        check(vorn_cfg_getItemValue("s", "k", value, sizeof value), value);
        check(vorn_cfg_getItemValue_ex(file, "s", "k", value, sizeof value), value);
      },
      [&] {
        vorn_cfg_setItemValue("s", "k", "bbbbbbbbbbbbbbbbbbbbbb");
        vorn_cfg_setItemValue_ex(file, "s", "k", "aaaaaa");
      },
      [&] {
        vorn_cfg_init(file);
        vorn_cfg_destroy_ex(file);
      },
      [&] {
        vorn_cfg_destroy();
        vorn_cfg_init(file);
      },
      [&] { vorn_cfg_file_setItemValue(file, "s", "k", "a"); },
  };
  {
    std::vector<std::jthread> threads;
    for (const auto &loop : loops) {
      threads.emplace_back([&] {
        for (; !stop; std::this_thread::yield())
          loop();
      });
    }
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(vorn_cfg_file_setItemValue(file, "s", "k", i % 2 == 0 ? "a" : "b"), 0);
      EXPECT_EQ(vorn_cfg_file_addItem(file, "t", "l", "x"), 0);
      EXPECT_EQ(vorn_cfg_file_delSection(file, "t"), 0);
    }
    stop = true;
  }
  EXPECT_EQ(strange, 0);
  EXPECT_EQ(g_stCfgRwlock.word, 0);
  vorn_cfg_destroy();
}

// Otherwise the first write takes seconds.
TEST_F(CfgRace, ReadersLetWritersIn) {
  using namespace std::chrono;
  scratch::write_file(path, "[s]\nk=1\nlong=" + std::string(60000, 'v'));
  ASSERT_EQ(vorn_cfg_init(file), 0);
  std::atomic<int> readers{0};
  std::atomic<bool> stop{false};
  const auto is_fast = [start = steady_clock::now()] { return steady_clock::now() - start < 2s; };
  run_threads(9, [&](int thread) {
    char value[65536];
    for (readers += thread != 0; thread != 0 && !stop;)
      vorn_cfg_getItemValue("s", "long", value, sizeof value);
    while (readers < 8)
      std::this_thread::yield();
    for (int i = 0; i < 20 && !stop; ++i)
      vorn_cfg_setItemValue("s", "k", "2");
    stop = true;
  });
  EXPECT_TRUE(is_fast());

  // A thread that holds the lock makes a lookup while a writer waits; a lookup does not wait for a
  // writer that is gone.
  const pid_t parent = getpid();
  vorn_rwlock_read_lock(&g_stCfgRwlock);
  std::thread writer([] { vorn_cfg_setItemValue("s", "k", "3"); });
  usleep(20000);
  char value[64];
  EXPECT_EQ(vorn_cfg_getItemValue("s", "k", value, sizeof value), 0);
  EXPECT_STREQ(value, "2");
  const auto look_up_at_once = [&] {
    vorn_rwlock_read_unlock(&g_stCfgRwlock);
    if (getpid() == parent) writer.join();
    const auto start = steady_clock::now();
    for (int i = 0; i < 200; ++i)
      vorn_cfg_getItemValue("s", "k", value, sizeof value);
    return steady_clock::now() - start < 1s ? 0 : 1;
  };
  EXPECT_EQ(run_in_child(look_up_at_once), 0);
  EXPECT_EQ(look_up_at_once(), 0);
  vorn_cfg_destroy();
}

} // namespace
