// Reads files of /proc, only with descriptors and buffers of the calling thread.
// SPDX-License-Identifier: Apache-2.0
#include "proc.hpp"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vornsim {
namespace {

bool read_file(const char *path, char *text, std::size_t size) {
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  ssize_t length = read(file, text, size - 1);
  close(file);
  if (length <= 0) return false;
  if (text[length - 1] == '\n') --length;
  text[length] = '\0';
  return length != 0;
}

// Parses "TID (NAME) STATE ...". A name may hold parentheses. The CPU is field 39; counted from the
// state, it is field 37.
bool parse_stat(const char *text, ThreadState *out) {
  const char *name = std::strchr(text, '(');
  const char *end = std::strrchr(text, ')');
  if (name == nullptr || end == nullptr || end < name || end[1] != ' ') return false;
  const std::size_t length = static_cast<std::size_t>(end - name) - 1;
  const std::size_t most = sizeof out->name - 1;
  std::memset(out->name, 0, sizeof out->name);
  std::memcpy(out->name, name + 1, length < most ? length : most);
  out->tid = std::atoi(text);
  out->state = end[2];
  const char *field = end + 2;
  for (int skipped = 0; skipped < 36 && field != nullptr; ++skipped) {
    field = std::strchr(field, ' ');
    if (field != nullptr) ++field;
  }
  out->cpu = field == nullptr ? -1 : std::atoi(field);
  return true;
}

// Calls visit with the kernel id of each thread of the process until it returns true.
template <class Visit> bool any_thread(Visit visit) {
  const int directory = open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) return false;
  bool found = false;
  alignas(dirent64) char entries[4096];
  for (;;) {
    const long size = syscall(SYS_getdents64, directory, entries, sizeof entries);
    if (size <= 0 || found) break;
    for (long at = 0; at < size && !found;) {
      const auto *entry = reinterpret_cast<const dirent64 *>(entries + at);
      const int tid = std::atoi(entry->d_name); // 0 for "." and ".."
      found = tid > 0 && visit(tid);
      at += entry->d_reclen;
    }
  }
  close(directory);
  return found;
}

} // namespace

// Tries the process's own threads first, because those of others may be unreadable.
bool read_thread_file(int tid, const char *file, char *text, std::size_t size) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/task/%d/%s", tid, file);
  if (read_file(path, text, size)) return true;
  std::snprintf(path, sizeof path, "/proc/%d/%s", tid, file);
  return read_file(path, text, size);
}

bool find_thread(int tid, ThreadState *out) {
  char text[512];
  return tid > 0 && read_thread_file(tid, "stat", text, sizeof text) && parse_stat(text, out);
}

bool find_thread_on(int cpu, ThreadState *out) {
  if (sched_getcpu() == cpu) return find_thread(static_cast<int>(syscall(SYS_gettid)), out);
  return any_thread(
      [&](int tid) { return find_thread(tid, out) && out->state == 'R' && out->cpu == cpu; });
}

} // namespace vornsim
