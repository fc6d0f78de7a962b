// Prepares the file descriptors of a run.
// SPDX-License-Identifier: Apache-2.0
#include "descriptors.hpp"

#include <algorithm>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace scrub {

void keep_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", O_RDONLY);
  }
}

void raise_descriptor_limit() {
  constexpr rlim_t kWanted = 4096;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWanted) return;
  limit.rlim_cur = std::min(kWanted, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace scrub
