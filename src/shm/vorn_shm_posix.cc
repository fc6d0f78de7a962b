// Creates and maps shared memory, of POSIX and of System V.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_shm.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <type_traits>
#include <unistd.h>

#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "base/system.hpp"

namespace vorn::shm {
namespace {

// The header cannot name key_t: strict C does not declare it.
static_assert(std::is_same_v<key_t, int>);

constexpr char kCreate[] = "vorn_shm_create_ext";

// Reserves the pages: without that, the first use of a page that the machine lacks raises SIGBUS.
// If the machine lacks them, logs it and returns false. A read-only object keeps its size and needs
// no reservation.
bool reserve(int fd, off_t size) {
  [[maybe_unused]] const int resized = ftruncate(fd, size);
  const int result = fallocate(fd, 0, 0, size);
  if (result == 0 || errno != ENOSPC) return true;
  VORN_LOG_AS(kCreate, kInfo, "Fallocate shm fail, ret<%d> errno<%d>.", result, errno);
  return false;
}

int protection(int oflag) {
  switch (oflag & O_ACCMODE) {
  case O_RDONLY:
    return PROT_READ;
  case O_WRONLY:
    return PROT_WRITE;
  case O_RDWR:
    return PROT_READ | PROT_WRITE;
  default:
    return VORN_FAIL_AS(kCreate, PROT_NONE, "Oflag open failed, oflag<%d>.", oflag);
  }
}

} // namespace
} // namespace vorn::shm

using namespace vorn::shm;

void *vorn_shm_create_ext(const char *name, int oflag, mode_t mode, size_t size) {
  if (name == nullptr) return nullptr;
  const vorn::CancellationGuard off;
  const vorn::UniqueFd fd = vorn::sys::above_standard(shm_open(name, oflag, mode));
  if (!fd) {
    if (errno != EEXIST) VORN_LOG(vorn::kInfo, "Open shm fail, fd<%d> errno<%d>.", fd.get(), errno);
    return nullptr;
  }
  if (!reserve(fd.get(), static_cast<off_t>(size))) return nullptr;
  void *address = mmap(nullptr, size, protection(oflag), MAP_SHARED, fd.get(), 0);
  if (address != MAP_FAILED) return address;
  VORN_LOG(vorn::kInfo, "Mmap shm mem fail, errno<%d>.", errno);
  return nullptr;
}

void *vorn_shm_create(const char *name, size_t size) {
  return vorn_shm_create_ext(name, O_CREAT | O_RDWR, 0600, size);
}

int vorn_shm_destroy(const char *name) {
  const int result = name == nullptr ? (errno = EINVAL, -1) : shm_unlink(name);
  if (result == 0) return 0;
  VORN_LOG(vorn::kInfo, "Destroy shm fail, ret<%d> errno<%d>.", result, errno);
  return -1;
}

int vorn_shmget_ex(int key, size_t size, int flags) { return shmget(key, size, flags); }

int vorn_shmget(int key, size_t size) { return shmget(key, size, IPC_CREAT | 0600); }

void *vorn_shmat(int id, const void *addr, int flags) { return shmat(id, addr, flags); }

int vorn_shmdel(int id) { return shmctl(id, IPC_RMID, nullptr); }
