// test-objects: the table of threads is not exported
// Tests the cancellation of threads that wait in the library, and the end of cancelled threads.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <unistd.h>

#include "thread/vorn_thrd.hpp"
#include "vorn_rwlock.h"
#include "vorn_sem_enhance.h"
#include "vorn_wait.h"

namespace {

constexpr int kRounds = 150;

struct Family {
  std::function<int()> wait; // not 0 if a signal ended it; it is repeated then
  std::function<void()> release;
  std::function<void()> prepare = [] {}; // before the thread starts
};

std::atomic<bool> begun;
std::atomic<bool> returned;

void *wait_and_end(void *family) {
  begun = true;
  while (static_cast<const Family *>(family)->wait() != 0)
    sched_yield();
  returned = true;
  pthread_testcancel();
  return nullptr;
}

// The wait goes on after a cancellation at any moment, and the next round succeeds.
TEST(Cancellation, ActsAfterTheWait) {
  vorn_sem_enhance_s sem;
  vorn_sem_enhance_init(&sem, 0);
  const auto up = [&] { vorn_sem_enhance_up(&sem); };
  vorn_wait_queue_head_s queue;
  __init_waitqueue_head(&queue);
  std::atomic<bool> ready;
  const auto wait_in_queue = [&] {
    vorn_wait_entry_s entry;
    vorn_wait_entry_init(&entry, static_cast<uint32_t>(gettid()));
    while (prepare_to_wait(&queue, &entry), !ready)
      sched_wait_timeout(&entry, INT64_MAX);
    finish_wait(&queue, &entry);
    return 0;
  };
  vorn_spinlock_s spin = VORN_SPINLOCK_INIT;
  vorn_rwlock_s lock = VORN_RWLOCK_INIT;
  Family families[] = {
      {[&] { return vorn_sem_enhance_down(&sem), 0; }, up},
      {[&] { return vorn_sem_enhance_down_interruptible(&sem); }, up},
      {[&] { return vorn_sem_enhance_down_timeout(&sem, 1000000); }, up},
      {wait_in_queue, [&] { ready = true, __wake_up(&queue); }, [&] { ready = false; }},
      {[&] { return vorn_spinlock_lock(&spin), vorn_spinlock_unlock(&spin), 0; },
       [&] { vorn_spinlock_unlock(&spin); }, [&] { vorn_spinlock_lock(&spin); }},
      {[&] { return vorn_rwlock_read_lock_mayblock(&lock), vorn_rwlock_read_unlock(&lock), 0; },
       [&] { vorn_rwlock_write_unlock(&lock); }, [&] { vorn_rwlock_write_lock(&lock); }},
      {[&] { return vorn_rwlock_write_lock_mayblock(&lock), vorn_rwlock_write_unlock(&lock), 0; },
       [&] { vorn_rwlock_read_unlock(&lock); }, [&] { vorn_rwlock_read_lock(&lock); }},
  };
  std::minstd_rand random(1);
  for (int round = 0; round < kRounds * static_cast<int>(std::size(families)); ++round) {
    Family &family = families[round / kRounds];
    SCOPED_TRACE(round / kRounds);
    begun = returned = false;
    family.prepare();
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, wait_and_end, &family), 0);
    while (!begun)
      sched_yield();
    usleep(random() % 300);
    pthread_cancel(thread);
    usleep(random() % 300);
    EXPECT_FALSE(returned);
    family.release();
    void *result = nullptr;
    pthread_join(thread, &result);
    ASSERT_TRUE(returned && result == PTHREAD_CANCELED);
  }
  EXPECT_EQ(sem.cnt, 0);
  EXPECT_TRUE(vorn_list_is_empty(&sem.wait_list) && vorn_list_is_empty(&queue.queue));
}

// Without the title line.
int test_cancellation(const char *format, ...) {
  if (format[1] == '5') pthread_testcancel();
  return 0;
}

std::atomic<long> latest;
pthread_key_t adopting_key;

// Starts more threads than there are slots, which end in all ways, while others look them up and
// list them. A lookup finds the right thread, and every slot is free at the end.
TEST(Cancellation, ThreadThatEndsFreesItsSlot) {
  static const vorn_thrd_entry_f ends[] = {
      [](void *of) { return of; },
      [](void *) -> void * {
        pthread_cancel(pthread_self());
        vorn_thrd_list(test_cancellation);
        pthread_exit(nullptr);
      },
      [](void *) -> void * { pthread_exit(nullptr); },
      // Its destructor adopts the thread again after the library has handled the thread's end.
      [](void *of) { return pthread_setspecific(adopting_key, &latest), of; },
      [](void *of) { return vorn_thrd_clearcurthreadinfo(), vorn_thrd_setcurthreadinfo(), of; },
  };
  vorn_thrd_module_init();
  pthread_key_create(&adopting_key, [](void *) { EXPECT_EQ(vorn_thrd_setcurthreadinfo(), 0); });
  const auto entry = [](void *way) -> void * {
    EXPECT_EQ(vorn_thrd_setcurthreadinfo(), 0);
    latest = gettid();
    return (*static_cast<const vorn_thrd_entry_f *>(way))(nullptr);
  };
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::thread seeker([&] {
    for (; !done; vorn_thrd_list(test_cancellation)) {
      const long tid = latest;
      vorn_thread_s *record = vorn_thrd_getthreadinfobytid(tid);
      if (record == nullptr) continue;
      if (record->tid != tid || record->slot->count == 0) ++wrong;
      vorn_thrd_putthreadinfo(record);
    }
  });
  for (unsigned int i = 0; i < VORN_THRD_SLOT_COUNT + 76; ++i) {
    void *way = const_cast<vorn_thrd_entry_f *>(&ends[i / 2 % 5]);
    pthread_t adopted{};
    if (i % 2 == 0) {
      ASSERT_EQ(vorn_thrd_create(entry, way, nullptr), 0);
    } else {
      ASSERT_EQ(pthread_create(&adopted, nullptr, entry, way), 0);
      pthread_join(adopted, nullptr);
    }
  }
  done = true;
  seeker.join();
  EXPECT_EQ(wrong, 0);
  int used = 0;
  for (const vorn::thread::Slot &slot : vorn::thread::slots()) {
    for (int i = 0; slot.count != 0 && i < 1000; ++i)
      usleep(1000);
    used += slot.count != 0 ? 1 : 0;
    ASSERT_EQ(used, 0);
  }
}

} // namespace
