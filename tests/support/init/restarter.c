/* restarter FILE ROUNDS: starts the library, uses it and ends it, ROUNDS times. FILE is an INI
 * file with an item "k" in a section "s". */
/* SPDX-License-Identifier: Apache-2.0 */
#include <stdlib.h>

#include "vorn.h"

static void *run(void *done) {
  vorn_sem_enhance_up(done);
  return NULL;
}

static void work(vorn_sched_work_s *work) { vorn_sem_enhance_up(work->pData); }

static void fire(uint64_t data) { vorn_sem_enhance_up((vorn_sem_enhance_s *)data); }

static int use(const char *ini) {
  static vorn_sched_work_s item;
  static vorn_timer_s timer;
  vorn_sem_enhance_s done;
  char value[16];
  int results;
  vorn_sem_enhance_init(&done, 0);
  vorn_sched_init_work(&item, work, &done);
  results = vorn_thrd_create(run, &done, NULL);
  results |= vorn_sched_add_work(&item);
  results |= vorn_timer_set(&timer, 5, (uint64_t)&done, fire);
  results |= vorn_timer_add(&timer);
  results |= vorn_cfg_init(ini) | vorn_cfg_file_setItemValue(ini, "s", "k", "2");
  results |= vorn_cfg_getItemValue("s", "k", value, sizeof value) | vorn_cfg_destroy();
  for (int i = 0; i < 3; ++i)
    vorn_sem_enhance_down(&done); /* the thread, the work and the timer */
  return results;
}

int main(int argc, char **argv) {
  int rounds = argc == 3 ? atoi(argv[2]) : 0;
  if (rounds == 0) return 2;
  for (; rounds > 0; --rounds) {
    if (vorn_Init() != 0 || use(argv[1]) != 0) return 1;
    vorn_destory();
  }
  return 0;
}
