// Requests the stack of a thread, in the log or in a file, and writes the file.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_sig_calltrace.c"
#include "vorn_sig_calltrace.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/mutex.hpp"
#include "base/once.hpp"
#include "base/system.hpp"
#include "vorn_thrd.h"

namespace vorn::thread {
namespace {

constexpr unsigned int kRequestModule = 999;
constexpr int kMostFrames = 128;

constinit Once file_dumps{OncePolicy::kRetry};
constinit char process_name[32] = ""; // written before the handler is installed

constinit Mutex tag_mutex; // held to append; the handler reads character by character without it

// The result of a call, and its errno for a log message: 0 if the call succeeded.
struct Answer {
  long result;
  int error;
};

Answer send(pid_t pid, pid_t tid, int signal) {
  const long result = syscall(SYS_tgkill, pid, tid, signal);
  return {result, result == 0 ? 0 : errno};
}

int finish(const Answer &answer) {
  if (answer.result != 0) errno = answer.error;
  return static_cast<int>(answer.result);
}

// Acquire: after a character of a new tag, it finds those that append_to_tag stored before.
class Tag {
public:
  Tag() {
    for (std::size_t i = 0; i + 1 < sizeof text_; ++i)
      text_[i] = atomic_word(g_tag_buf[i]).load(std::memory_order_acquire);
  }
  const char *text() const { return text_; }

private:
  char text_[sizeof g_tag_buf] = "";
};

// Writes from the end backwards: a handler finds the old tag or the complete new one.
void append_to_tag(const char *text) {
  const MutexGuard hold{tag_mutex};
  const std::size_t length = std::strlen(g_tag_buf);
  const std::size_t size = std::strlen(text);
  if (length + size >= sizeof g_tag_buf) return;
  for (std::size_t i = size + 1; i-- > 0;)
    atomic_word(g_tag_buf[length + i]).store(text[i], std::memory_order_release);
}

void note_time() {
  char text[64];
  snprintf_s(text, sizeof text, sizeof text - 1, "dump_time:%ld\n", std::time(nullptr));
  append_to_tag(text);
}

Answer ask_for_log(pid_t pid, pid_t tid) {
  const ErrnoGuard errno_stays; // the logging library may change it
  const CancellationGuard off;
  evlog_original("<%d>Show task context by signal ...: pid=%d, tid=%d.", gettid(), pid, tid);
  const Answer answer = send(pid, tid, SIGTASKTRACK);
  evlog_original("<%d>SYS_tgkill Show task context by signal end ...: pid=%d, tid=%d, ret=%ld, "
                 "errno=%d.",
                 gettid(), pid, tid, answer.result, answer.error);
  return answer;
}

bool request_is_logged() { return evlog_level_check(kRequestModule, kInfo) == 0; }

Answer ask_for_file(pid_t pid, pid_t tid) {
  constexpr char kFunction[] = "dump_thread_stack_sig_roc";
  const ErrnoGuard errno_stays;
  const CancellationGuard off;
  if (request_is_logged())
    evlog(kRequestModule, kInfo, VORN_FILE, __LINE__, kFunction, 0,
          "Show backtrace pid=%d, tid=%d, %s", pid, tid, Tag().text());
  const Answer answer = send(pid, tid, VORN_SIGNAL_BACKTRACE);
  if (request_is_logged())
    evlog(kRequestModule, kInfo, VORN_FILE, __LINE__, kFunction, 0,
          "Show backtrace pid=%d, tid=%d, ret=%ld, errno=%d.", pid, tid, answer.result,
          answer.error);
  return answer;
}

int install_file_dumps() {
  if (vorn_get_process_name(process_name, sizeof process_name) != 0) return -1;
  void *frame;
  backtrace(&frame, 1); // loads the unwinder, which is not allowed in a handler
  struct sigaction action {};
  action.sa_handler = dump_stack_by_sig;
  if (sigaction(VORN_SIGNAL_BACKTRACE, &action, nullptr) == 0) return 0;
  return VORN_FAIL_AS("dump_signal_init", -1, "Install handler of signal %d failed, errno=%d.",
                      VORN_SIGNAL_BACKTRACE, errno);
}

} // namespace
} // namespace vorn::thread

using namespace vorn::thread;

char g_tag_buf[64] = "";

int dump_thread_stack_sig(pid_t pid, pid_t tid) {
  auto_install_dump_stack_signal();
  return finish(ask_for_log(pid, tid));
}

int dump_signal_init() { return file_dumps.run(install_file_dumps) == 0 ? 0 : -1; }

int dump_thread_stack_sig_roc(pid_t pid, pid_t tid) {
  note_time();
  return finish(ask_for_file(pid, tid));
}

void dump_stack_by_sig(int) {
  const vorn::ErrnoGuard errno_stays;
  const vorn::CancellationGuard off;
  char text[128];
  vorn::snprintf_s(text, sizeof text, sizeof text - 1, "/var/log/dr/block-stack-%s-%d",
                   process_name, gettid());
  const vorn::UniqueFd file = vorn::sys::open(text, O_WRONLY | O_CREAT | O_APPEND, 0700);
  if (!file) return;
  const int length =
      vorn::snprintf_s(text, sizeof text, sizeof text - 1, "---%s---\n", Tag().text());
  vorn::sys::write_all(file.get(), text, static_cast<std::size_t>(length));
  void *frames[kMostFrames];
  backtrace_symbols_fd(frames, backtrace(frames, kMostFrames), file.get());
}
