/* Tests a part of a service on the stand-in for the kernel module, away from a node.
 *
 *   ./stand_in                               prints the results
 *   VORNSIM_ANSWER=0x306=EPERM ./stand_in    the module refuses the idle settings
 *
 * The part keeps CPUs out of their sleep states while the service polls. If a CPU refuses, the part
 * restores the settings of the CPUs before it. The tests make the stand-in refuse. */
/* SPDX-License-Identifier: Apache-2.0 */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <vorn_cpu.h>
#include <vorn_init.h>
#include <vorn_log.h>
#include <vorn_syscall.h>
#include <vornsim.h>

enum { kCpus = 4 };

/* --- The part of the service --- */

static void restore(const uint32_t *before, unsigned int cpus) {
  for (unsigned int cpu = 0; cpu < cpus; ++cpu)
    vorn_set_idle_no_cstates(cpu, before[cpu]); /* the library logs a refusal */
}

/* Keeps the CPUs 0 to cpus - 1 awake, and stores their old settings in before. If a CPU refuses,
 * restores all settings and returns -1 with errno. Otherwise returns 0. */
static int keep_awake(unsigned int cpus, uint32_t *before) {
  for (unsigned int cpu = 0; cpu < cpus; ++cpu) {
    if (vorn_get_idle_no_cstates(cpu, &before[cpu]) == 0 && vorn_set_idle_no_cstates(cpu, 1) == 0)
      continue;
    const int error = errno;
    restore(before, cpu);
    errno = error;
    return -1;
  }
  return 0;
}

/* --- The tests --- */

static unsigned int awake(void) {
  unsigned int count = 0;
  for (unsigned int cpu = 0; cpu < kCpus; ++cpu) {
    uint32_t value = 0;
    if (vorn_get_idle_no_cstates(cpu, &value) == 0 && value != 0) ++count;
  }
  return count;
}

/* Returns 0 if the result is as expected. */
static int try_to_keep_awake(int expected_error) {
  uint32_t before[kCpus];
  const int error = keep_awake(kCpus, before) == 0 ? 0 : errno;
  const unsigned int now = awake();
  printf("keep_awake: %s, %u of %d CPUs are awake\n", error == 0 ? "done" : strerror(error), now,
         kCpus);
  if (error == 0) restore(before, kCpus);
  return error == expected_error && now == (error == 0 ? kCpus : 0) && awake() == 0 ? 0 : -1;
}

static int run(void) {
  if (try_to_keep_awake(0) != 0) return -1;

  vornsim_fail_call(VORN_SYSCALL_SET_IDLE_NO_CSTATES, 3, EIO); /* at the third CPU */
  if (try_to_keep_awake(EIO) != 0) return -1;

  vornsim_fail(VORN_SYSCALL_GET_IDLE_NO_CSTATES, EOPNOTSUPP); /* a module without idle states */
  const unsigned long set = vornsim_count(VORN_SYSCALL_SET_IDLE_NO_CSTATES);
  if (try_to_keep_awake(EOPNOTSUPP) != 0) return -1;
  return vornsim_count(VORN_SYSCALL_SET_IDLE_NO_CSTATES) == set ? 0 : -1;
}

int main(void) {
  if (vorn_log_init("stand_in", ".") != 0 || vorn_Init() != 0) {
    fputs("stand_in: the library does not start\n", stderr);
    return 1;
  }
  const int result = run();
  vorn_destory();
  vorn_log_destroy((uintptr_t)0);
  puts(result == 0 ? "all is as expected" : "something is not as expected");
  return result == 0 ? 0 : 1;
}
