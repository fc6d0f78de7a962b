// Sets and reads the names of threads, of the process and of its executable.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/prctl.h>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "base/system.hpp"
#include "base/thread_id.hpp"
#include "thread/vorn_thrd.hpp"

namespace vorn::thread {
namespace {

using Word = std::uint64_t; // that store_name and load_name access
constexpr std::size_t kNameWords = VORN_THRD_NAME_SIZE / sizeof(Word);
static_assert(offsetof(vorn_thread_s, name) % alignof(Word) == 0);

constexpr std::size_t kProcessNameSize = 32;

// A name of the process, read once under the lock of its flag.
struct ProcessName {
  Once known{OncePolicy::kRetry};
  char text[kProcessNameSize] = "default";
};
constinit ProcessName process_name;
constinit ProcessName executable_name;

int read_process_name() {
  char path[32];
  snprintf_s(path, sizeof path, sizeof path - 1, "/proc/%d/status", getpid());
  const Stream file = sys::open_stream(path);
  if (!file)
    return VORN_FAIL_AS("vorn_get_process_name", -1,
                        "ev log read comm failed fp=%p errno=%d file=%s",
                        static_cast<void *>(file.get()), errno, path);
  char line[128];
  const char *read = sys::read_line(line, sizeof line, file);
  // The first line has the name, of at most 15 characters, or twice as many if escaped. A process
  // may have set an empty name.
  if (read == nullptr || std::sscanf(line, "Name:\t%31[^\n]", process_name.text) != 1)
    return VORN_FAIL_AS("vorn_get_process_name", -1,
                        "ev log get comm failed ret=%p errno=%d file=%s",
                        static_cast<const void *>(read), errno, path);
  return 0;
}

const char *after_last_slash(const char *path) {
  const char *slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// On failure, logs an error and returns false.
bool read_executable_link(char *link, std::size_t size) {
  char path[32];
  snprintf_s(path, sizeof path, sizeof path - 1, "/proc/%d/exe", static_cast<int>(thread_id()));
  const ssize_t length = readlink(path, link, size - 1);
  if (length < 0)
    return VORN_FAIL_AS("vorn_get_process_exe_name", false,
                        "Readlink program path<%s> fail errno<%d>.", path, errno);
  link[length] = '\0';
  return true;
}

int read_executable_name() {
  char link[4096];
  if (!read_executable_link(link, sizeof link))
    return VORN_FAIL_AS("vorn_get_process_exe_name", -1, "Can't get program path info.");
  const char *name = after_last_slash(link);
  const int result = strcpy_s(executable_name.text, kProcessNameSize, name);
  if (result == 0) return 0;
  return name == link ? VORN_FAIL_AS("vorn_get_process_exe_name", -1,
                                     "Set programName failed, ret(%d).", result)
                      : VORN_FAIL_AS("vorn_get_process_exe_name", -1,
                                     "Set exe name failed, ret(%d).", result);
}

} // namespace

void store_name(vorn_thread_s &record, const Name &name) {
  auto *to = reinterpret_cast<Word *>(record.name);
  Word words[kNameWords];
  std::memcpy(words, name.text, sizeof words);
  for (std::size_t i = 0; i < kNameWords; ++i)
    atomic_word(to[i]).store(words[i], std::memory_order_relaxed);
}

Name load_name(const vorn_thread_s &record) {
  const auto *from = reinterpret_cast<const Word *>(record.name);
  Word words[kNameWords];
  for (std::size_t i = 0; i < kNameWords; ++i)
    words[i] = atomic_word(from[i]).load(std::memory_order_relaxed);
  Name name;
  std::memcpy(name.text, words, sizeof words);
  name.text[VORN_THRD_NAME_SIZE - 1] = '\0';
  return name;
}

} // namespace vorn::thread

using namespace vorn::thread;

void vorn_thrd_setname(const char *format, ...) {
  if (format == nullptr) {
    VORN_LOG(vorn::kError, "Vorn set thrd name(NULL) fail.");
    return;
  }
  if (t_record == nullptr) {
    VORN_LOG(vorn::kError, "Vorn set thrd name(%s) fail, please use vorn or Kram create thrd.",
             format);
    return;
  }
  Name name{};
  std::va_list args;
  va_start(args, format);
  const int length =
      vorn::vsnprintf_s(name.text, sizeof name.text, sizeof name.text - 1, format, args);
  va_end(args);
  // A cut name is used too.
  if (length < 0 && name.text[0] == '\0')
    VORN_LOG(vorn::kError, "vsnprintf_s failed, name(%s).", format);
  store_name(*t_record, name);
  if (prctl(PR_SET_NAME, name.text) != 0)
    VORN_LOG(vorn::kError, "Vorn set thrd name fail, errno:%d.", errno);
}

const char *vorn_thrd_getname() { return t_record != nullptr ? t_record->name : nullptr; }

int vorn_get_process_name(char *buf, unsigned int len) {
  if (buf == nullptr) return VORN_FAIL(-1, "processName is NULL.");
  if (process_name.known.run(read_process_name) != 0) return -1;
  if (vorn::strcpy_s(buf, len, process_name.text) != 0)
    return VORN_FAIL(-1, "strncpy_s failed, processName(%s).", process_name.text);
  return 0;
}

int vorn_get_process_exe_name(char *buf, unsigned int len) {
  if (buf == nullptr) return VORN_FAIL(-1, "programName is NULL.");
  if (executable_name.known.run(read_executable_name) != 0) return -1;
  const int result = vorn::strcpy_s(buf, len, executable_name.text);
  if (result != 0) return VORN_FAIL(-1, "Copy program name failed, ret(%d).", result);
  return 0;
}
