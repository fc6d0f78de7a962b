// test-objects: the table of threads is not exported
// Cancellation: of threads that wait in the library, and of those that end by it.
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <random>
#include <unistd.h>

#include "thread/vorn_thrd.hpp"
#include "vorn_rwlock.h"
#include "vorn_sched.h"
#include "vorn_sem_enhance.h"
#include "vorn_wait.h"

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kRounds = 60;
#else
constexpr int kRounds = 200;
#endif

struct Family {
  std::function<void()> prepare; // before the thread starts
  std::function<void()> wait;
  std::function<void()> release; // ends the wait
};

std::atomic<bool> begun;
std::atomic<bool> returned;

void *wait_and_end(void *family) {
  begun = true;
  static_cast<const Family *>(family)->wait();
  returned = true;
  pthread_testcancel();
  return nullptr;
}

// The wait goes on, whenever the cancellation comes, and what was released is found as it should be
// in the next round.
void cancel_at_random_moments(Family family) {
  std::minstd_rand random(1);
  for (int round = 0; round < kRounds; ++round) {
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
    ASSERT_TRUE(returned);
    ASSERT_EQ(result, PTHREAD_CANCELED) << "it acts after the wait";
  }
}

TEST(Cancellation, ActsAfterTheWait) {
  const auto nothing = [] {};
  vorn_sem_enhance_s sem;
  vorn_sem_enhance_init(&sem, 0);
  const auto up = [&] { vorn_sem_enhance_up(&sem); };
  vorn_wait_queue_head_s queue;
  __init_waitqueue_head(&queue);
  vorn_wait_entry_s queued;
  std::atomic<bool> ready;
  std::atomic<uint32_t> tid;
  uint32_t word = 0;
  vorn_spinlock_s spin = VORN_SPINLOCK_INIT;
  vorn_rwlock_s lock = VORN_RWLOCK_INIT;
  const Family families[] = {
      {nothing, [&] { vorn_sem_enhance_down(&sem); }, up},
      {nothing,
       [&] {
         while (vorn_sem_enhance_down_interruptible(&sem) != 0) {
         }
       },
       up},
      {nothing,
       [&] {
         while (vorn_sem_enhance_down_timeout(&sem, 1000000) != 0) {
         }
       },
       up},
      {[&] { ready = false; },
       [&] {
         vorn_wait_entry_s entry;
         vorn_wait_entry_init(&entry, static_cast<uint32_t>(gettid()));
         for (;;) {
           prepare_to_wait(&queue, &entry);
           if (ready) break;
           sched_wait(&entry);
         }
         finish_wait(&queue, &entry);
       },
       [&] {
         ready = true;
         __wake_up(&queue);
       }},
      {[&] {
         vorn_wait_entry_init(&queued, 0);
         prepare_to_wait(&queue, &queued);
         vorn_spinlock_lock(&queue.lock);
       },
       [&] { finish_wait(&queue, &queued); }, [&] { vorn_spinlock_unlock(&queue.lock); }},
      {[&] {
         tid = 0;
         word = 1;
       },
       [&] {
         tid = static_cast<uint32_t>(gettid());
         while (__atomic_load_n(&word, __ATOMIC_ACQUIRE) != 0)
           vorn_wait_comm(&word, VORN_WAIT_FOREVER);
       },
       [&] {
         while (tid == 0)
           sched_yield();
         __atomic_store_n(&word, 0, __ATOMIC_RELEASE);
         vorn_wake_up_process(tid);
       }},
      {[&] { vorn_spinlock_lock(&spin); },
       [&] {
         vorn_spinlock_lock(&spin);
         vorn_spinlock_unlock(&spin);
       },
       [&] { vorn_spinlock_unlock(&spin); }},
      {[&] { vorn_rwlock_write_lock(&lock); },
       [&] {
         vorn_rwlock_read_lock_mayblock(&lock);
         vorn_rwlock_read_unlock(&lock);
       },
       [&] { vorn_rwlock_write_unlock(&lock); }},
      {[&] { vorn_rwlock_read_lock(&lock); },
       [&] {
         vorn_rwlock_write_lock_mayblock(&lock);
         vorn_rwlock_write_unlock(&lock);
       },
       [&] { vorn_rwlock_read_unlock(&lock); }},
  };
  for (const Family &family : families) {
    SCOPED_TRACE(&family - families);
    cancel_at_random_moments(family);
  }
  EXPECT_EQ(sem.cnt, 0);
  EXPECT_TRUE(vorn_list_is_empty(&sem.wait_list));
  EXPECT_TRUE(vorn_list_is_empty(&queue.queue));
}

pthread_key_t adopting_key;

// More threads than there are slots, none of which returns from its entry with its record cleared.
TEST(Cancellation, ThreadThatEndsGivesItsRecordBack) {
  const vorn_thrd_entry_f ends[] = {
      [](void *) -> void * {
        pthread_cancel(pthread_self());
        pthread_testcancel();
        return nullptr;
      },
      [](void *) -> void * { pthread_exit(nullptr); },
      [](void *) -> void * { // is adopted again, after the library has looked at its end
        pthread_setspecific(adopting_key, &adopting_key);
        pthread_exit(nullptr);
      },
      [](void *) -> void * {
        vorn_thrd_clearcurthreadinfo();
        vorn_thrd_setcurthreadinfo();
        return nullptr;
      },
  };
  vorn_thrd_module_init();
  pthread_key_create(&adopting_key, [](void *) { EXPECT_EQ(vorn_thrd_setcurthreadinfo(), 0); });
  vorn_thread_s *looked_at = nullptr;
  for (unsigned int i = 0; i < VORN_THRD_SLOT_COUNT + 76; ++i) {
    ASSERT_EQ(vorn_thrd_create(ends[i % 4], nullptr, nullptr), 0);
    pthread_t adopted{};
    const auto adopt = [](void *found) -> void * {
      vorn_thrd_setcurthreadinfo();
      auto **record = static_cast<vorn_thread_s **>(found);
      if (*record == nullptr) *record = vorn_thrd_getthreadinfobytid(gettid());
      return nullptr;
    };
    ASSERT_EQ(pthread_create(&adopted, nullptr, adopt, &looked_at), 0);
    pthread_join(adopted, nullptr);
  }
  ASSERT_NE(looked_at, nullptr);
  EXPECT_EQ(looked_at->slot->count, 1u) << "what another has taken is its to give back";
  EXPECT_EQ(vorn_thrd_putthreadinfo(looked_at), 0);
  for (const vorn::thread::Slot &slot : vorn::thread::slots()) {
    for (int i = 0; slot.count != 0 && i < 5000; ++i)
      usleep(1000);
    ASSERT_EQ(slot.count, 0u) << &slot - vorn::thread::slots().data();
  }
}

} // namespace
