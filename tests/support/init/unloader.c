/* Opens the library, starts it and closes it again, while its signal handler is installed and one
 * of its threads runs a job. Exits with 0 if both still work. */
/* SPDX-License-Identifier: Apache-2.0 */
#include <dlfcn.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include "vorn_sched.h"
#include "vorn_thrd.h"

static sem_t closed;

static void *job(void *argument) {
  while (sem_wait(&closed) != 0) {
  }
  return argument; /* to the library */
}

int main(void) {
  void *library = dlopen(VORN_LIBRARY, RTLD_NOW);
  if (library == NULL) return 1;
  int (*init)(void) = (int (*)(void))dlsym(library, "vorn_Init");
  int (*create)(vorn_thrd_entry_f, void *, pthread_t *) =
      (int (*)(vorn_thrd_entry_f, void *, pthread_t *))dlsym(library, "vorn_thrd_create");
  pthread_t thread;
  if (sem_init(&closed, 0, 0) != 0 || init() != 0 || create(job, NULL, &thread) != 0) return 2;
  struct sigaction action;
  if (sigaction(SIGWAKEUP, NULL, &action) != 0 || action.sa_handler == SIG_DFL) return 3;

  if (dlclose(library) != 0) return 4;
  if (raise(SIGWAKEUP) != 0 || sem_post(&closed) != 0) return 5;
  usleep(100000); /* the thread goes on in the library meanwhile */
  return 0;
}
