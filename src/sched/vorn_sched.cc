#include "vorn_sched.h"

#include <ctime>
#include <sched.h>
#include <sys/select.h>

void vorn_usleep(unsigned int microseconds) {
  timeval timeout{microseconds / 1000000, microseconds % 1000000};
  select(0, nullptr, nullptr, nullptr, &timeout);
}

void vorn_schedule() {
  const timespec millisecond{0, 1000000};
  nanosleep(&millisecond, nullptr);
}

int vorn_yield() { return sched_yield(); }
