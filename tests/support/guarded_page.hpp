// Maps a page between two inaccessible ones: a read or a write beyond its ends faults.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_GUARDED_PAGE_HPP
#define VORN_TESTS_GUARDED_PAGE_HPP

#include <cstddef>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

class GuardedPage {
public:
  GuardedPage() {
    void *map = mmap(nullptr, 3 * size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) std::abort();
    data = static_cast<unsigned char *>(map) + size;
    if (mprotect(data, size, PROT_READ | PROT_WRITE) != 0) std::abort();
  }
  GuardedPage(const GuardedPage &) = delete;
  GuardedPage &operator=(const GuardedPage &) = delete;
  ~GuardedPage() { munmap(data - size, 3 * size); }

  unsigned char *end() const { return data + size; }

  const std::size_t size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  unsigned char *data;
};

#endif
