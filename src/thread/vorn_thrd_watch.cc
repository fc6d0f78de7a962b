// Names the one thread that is watched in a word of shared memory, and writes both halves together.
//
//   bits 63..32  kernel id of the watched thread; 0 if there is none
//   bits 31..0   marker, once a process has written
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include <atomic>

#include "base/atomic_word.hpp"
#include "base/once.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_shm.h"

namespace vorn::thread {
namespace {

constexpr char kObject[] = "vornThreadWatch";
constexpr std::uint32_t kMarker = 0xEADD7741;

constinit Once mapped{OncePolicy::kRetry};
std::uint64_t *shared_word; // written once, under the flag

int map() {
  shared_word = static_cast<std::uint64_t *>(vorn_shm_create(kObject, sizeof *shared_word));
  return shared_word != nullptr ? 0 : -1;
}

// Returns NULL if the object cannot be created.
std::uint64_t *word() { return mapped.run(map) == 0 ? shared_word : nullptr; }

bool watch(std::uint32_t tid) {
  std::uint64_t *at = word();
  if (at == nullptr) return false;
  vorn::atomic_word(*at).store(static_cast<std::uint64_t>(tid) << 32 | kMarker);
  return true;
}

} // namespace
} // namespace vorn::thread

using namespace vorn::thread;

int vorn_thread_watch_add(unsigned int tid) { return watch(tid) ? 0 : -1; }

int vorn_thread_watch_del() {
  watch(0);
  return 0;
}

unsigned int vorn_thread_watch_get() {
  std::uint64_t *at = word();
  if (at == nullptr) return 0;
  const std::uint64_t value = vorn::atomic_word(*at).load();
  const bool marked = static_cast<std::uint32_t>(value) == kMarker;
  return marked ? static_cast<unsigned int>(value >> 32) : 0;
}
