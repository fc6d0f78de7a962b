/* Runs scheduled work with a timer: flushes something every 20 ms, and reports a run that takes
 * more than a second.
 *
 *   ./timers                         prints the number of flushes
 *
 * The functions of timers share one thread, so they only pass work on. The work arms the timer
 * again when it is done, so runs neither overlap nor pile up. At most one of timer and work is
 * pending, which makes the end simple. */
/* SPDX-License-Identifier: Apache-2.0 */
#include <stdatomic.h>
#include <stdio.h>

#include <vorn_init.h>
#include <vorn_log.h>
#include <vorn_sched.h>
#include <vorn_sched_work.h>
#include <vorn_sem_enhance.h>
#include <vorn_timer.h>

enum { kPeriodMs = 20, kDeadlineMs = 1000, kLifeMs = 200 };

struct flusher {
  vorn_timer_s period;
  vorn_timer_s deadline;
  vorn_sched_work_s work;
  atomic_int stopping;
  atomic_uint late;
  unsigned int runs;        /* only the work uses it until ended has a unit */
  vorn_sem_enhance_s ended; /* a unit when neither period nor work is pending any more */
};

static void on_period(uint64_t data) {
  struct flusher *flusher = (struct flusher *)(uintptr_t)data;
  const int result = vorn_sched_add_work(&flusher->work);
  if (result < 0) vorn_sem_enhance_up(&flusher->ended); /* it is not queued; the log says why */
}

static void on_deadline(uint64_t data) {
  struct flusher *flusher = (struct flusher *)(uintptr_t)data;
  atomic_fetch_add(&flusher->late, 1);
}

static void flush(vorn_sched_work_s *work) {
  struct flusher *flusher = work->pData;
  vorn_timer_add(&flusher->deadline);
  vorn_msleep(5); /* something that takes long */
  vorn_timer_delete_sync(&flusher->deadline);
  ++flusher->runs;
  if (atomic_load(&flusher->stopping) || vorn_timer_add(&flusher->period) != 0)
    vorn_sem_enhance_up(&flusher->ended);
}

static int start(struct flusher *flusher) {
  const uint64_t data = (uint64_t)(uintptr_t)flusher;
  vorn_sem_enhance_init(&flusher->ended, 0);
  vorn_sched_init_work(&flusher->work, flush, flusher);
  if (vorn_timer_set(&flusher->period, kPeriodMs, data, on_period) != 0 ||
      vorn_timer_set(&flusher->deadline, kDeadlineMs, data, on_deadline) != 0)
    return -1;
  return vorn_timer_add(&flusher->period);
}

/* The run that sees the flag is the last. */
static void stop(struct flusher *flusher) {
  atomic_store(&flusher->stopping, 1);
  vorn_sem_enhance_down(&flusher->ended);
}

static int run(void) {
  static struct flusher flusher; /* a timer starts as zeros */
  if (start(&flusher) != 0) return -1;
  vorn_msleep(kLifeMs); /* the life of the service */
  stop(&flusher);
  printf("flushed %u times, %u of them late\n", flusher.runs, atomic_load(&flusher.late));
  return flusher.runs > 0 ? 0 : -1;
}

int main(void) {
  if (vorn_log_init("timers", ".") != 0 || vorn_Init() != 0) {
    fputs("timers: the library does not start\n", stderr);
    return 1;
  }
  const int result = run();
  vorn_destory();
  vorn_log_destroy((uintptr_t)0);
  return result == 0 ? 0 : 1;
}
