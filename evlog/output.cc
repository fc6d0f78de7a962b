// Opens, writes, rotates and closes the log file.
//
// The log file has one descriptor number, the slot. The first opening reserves the slot, and
// nothing closes it again. Writers load the number and write, without a lock, also in signal
// handlers. To move, rotate or close the log, a thread puts another file into the slot with dup3.
// The kernel does this in one step: a write goes to the old file or to the new one, never to a
// number that is free or that another file got meanwhile. Files are opened for appending, so
// simultaneous texts do not overwrite each other.
//
// The slot of a closed log holds a descriptor that refuses writes. A writer that loaded the number
// just before the closing gets -1 and writes to the console.
//
// A thread that changes the slot holds `switching`. Threads that open or close the log wait for it.
// A writer that finds the file full only tries to take it. If another thread holds it, or the code
// that this signal handler interrupted, the text goes to the full file. Rotation only makes system
// calls that are safe in signal handlers. Every writer asks the kernel how full the file is,
// because other processes may write to the file or may have replaced it, and a text must not go to
// a file that is about to be deleted.
//
// fork() waits for a thread that opens or closes the log, because a child would find a half-done
// change. It cannot wait for a thread that rotates: that thread may be in a signal handler and must
// not wait for fork() in turn. So a child assumes that `switching` is free, and its next writer
// completes a rotation that was in progress at the fork.
// SPDX-License-Identifier: Apache-2.0
#include "output.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

#include "base/fork_gate.hpp"
#include "base/system.hpp"
#include "base/unique_fd.hpp"
#include "pipe.hpp"
#include "same_file.hpp"

namespace logging {

namespace {

using vorn::UniqueFd;

constexpr off_t kFileBytes = 8 << 20;
constexpr int kFiles = 4; // the current file and three old ones
constexpr off_t kAllBytes = kFiles * kFileBytes;

class SwitchLock {
public:
  bool try_lock() { return !taken_.test_and_set(std::memory_order_acquire); }

  void lock() {
    constexpr timespec kPause{0, 1'000'000};
    while (!try_lock())
      vorn::sys::sleep(kPause); // not yield: the holder may have a lower priority
  }

  void unlock() { taken_.clear(std::memory_order_release); }

private:
  std::atomic_flag taken_;
};

struct Paths {
  char of[kFiles][PATH_MAX]; // the current file first, then from the youngest to the oldest
};

constinit SwitchLock switching;
Paths paths;                            // under switching
constinit int slot = -1;                // under switching
constinit std::atomic<int> log_fd = -1; // the slot while a log file is open
constinit std::atomic<off_t> full_size = kFileBytes;

const vorn::ForkChild frees_switching{[] { switching.unlock(); }};

// Guards opening and closing. Signal handlers do neither.
class SwitchGuard {
public:
  SwitchGuard() {
    vorn::enter_fork_gate();
    switching.lock();
  }
  SwitchGuard(const SwitchGuard &) = delete;
  SwitchGuard &operator=(const SwitchGuard &) = delete;
  ~SwitchGuard() {
    switching.unlock();
    vorn::leave_fork_gate();
  }
};

int fail(int error) {
  errno = error;
  return -1;
}

// Makes absolute paths, because the process may change its working directory.
int compose_paths(const char *program, const char *directory, Paths &out) {
  if (program == nullptr) program = program_invocation_short_name;
  if (directory == nullptr) directory = ".";
  const std::string_view name{program};
  if (name.empty() || name.find('/') != name.npos) return fail(EINVAL);

  if (mkdir(directory, 0755) != 0 && errno != EEXIST) return -1;
  char absolute[PATH_MAX];
  if (realpath(directory, absolute) == nullptr) return -1;
  for (int age = 0; age < kFiles; ++age) {
    char suffix[8] = "";
    if (age > 0) snprintf(suffix, sizeof suffix, ".%d", age);
    const int length =
        snprintf(out.of[age], sizeof out.of[age], "%s/%s.log%s", absolute, program, suffix);
    if (length < 0 || length >= PATH_MAX) return fail(ENAMETOOLONG);
  }
  return 0;
}

UniqueFd open_to_append(const char *path) {
  return vorn::sys::open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY, 0640);
}

// The first file creates the slot.
bool put_into_slot(const UniqueFd &file) {
  if (slot < 0) {
    slot = vorn::sys::duplicate(file.get()).release();
    if (slot < 0) return false;
  } else if (dup3(file.get(), slot, O_CLOEXEC) < 0) {
    return false;
  }
  full_size = kFileBytes;
  return true;
}

// Several processes may share the file, such as a parent and its children. The process that gets
// the lock on the full file ages it; the others try again with their next text. The lock belongs to
// the process, because children share the open file description. It ends when the file leaves the
// slot.
bool lock_full_file(short type) {
  struct flock whole = {};
  whole.l_type = type;
  whole.l_whence = SEEK_SET;
  return fcntl(slot, F_SETLK, &whole) == 0 || (errno != EAGAIN && errno != EACCES);
}

// Keeps the file that another process has put in place after it aged the old one.
void age_files(const struct stat &full) {
  struct stat present;
  if (stat(paths.of[0], &present) != 0 || !same_file(present, full)) return;
  for (int age = kFiles - 1; age > 0; --age)
    rename(paths.of[age - 1], paths.of[age]);
}

bool begin_next_file(const struct stat &full) {
  const UniqueFd next = open_to_append(paths.of[0]);
  struct stat info;
  if (!next || fstat(next.get(), &info) != 0 || same_file(info, full)) return false;
  return put_into_slot(next);
}

void rotate() {
  std::unique_lock hold{switching, std::try_to_lock};
  if (!hold.owns_lock() || log_fd < 0) return;
  struct stat full;
  if (fstat(slot, &full) != 0 || full.st_size < full_size || !lock_full_file(F_WRLCK)) return;
  age_files(full);
  if (begin_next_file(full)) return;
  lock_full_file(F_UNLCK);
  // The rotation failed. Tries again after kFileBytes more, and truncates a file of kAllBytes.
  if (full.st_size >= kAllBytes) std::ignore = ftruncate(slot, 0);
  full_size =
      full.st_size < kAllBytes ? std::min(full.st_size + kFileBytes, kAllBytes) : kFileBytes;
}

} // namespace

int open_log_file(const char *program, const char *directory) {
  Paths wanted;
  if (compose_paths(program, directory, wanted) != 0) return -1;
  const UniqueFd file = open_to_append(wanted.of[0]);
  if (!file) return -1;

  const SwitchGuard hold; // after the calls to the file system, for which fork() must not wait
  if (!put_into_slot(file)) return -1;
  paths = wanted;
  log_fd = slot;
  return 0;
}

void close_log_file() {
  const SwitchGuard hold;
  if (log_fd.exchange(-1) < 0) return;
  // An epoll instance refuses writes and keeps no file system busy. If there is none, the file
  // stays in the slot.
  const UniqueFd refusing = vorn::sys::above_standard(epoll_create1(EPOLL_CLOEXEC));
  if (refusing) dup3(refusing.get(), slot, O_CLOEXEC);
}

bool has_log_file() { return log_fd >= 0; }

ssize_t write_log_file(std::string_view text) {
  const int fd = log_fd;
  if (fd < 0) return -1;
  const off_t size = lseek(fd, 0, SEEK_END); // every write appends, whatever the offset
  if (size < 0) return write_pipe(fd, text); // or another file without a size
  if (size >= full_size) rotate();
  return vorn::sys::write(fd, text.data(), text.size());
}

} // namespace logging
