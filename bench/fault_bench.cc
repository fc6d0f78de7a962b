// Measures a fault in a stack of 50 frames: the time from the fault until the parent sees the end
// of the process, with the report and without handlers; the size of the report; and the symbol
// table that start-up builds for this process.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sig_calltrace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <link.h>
#include <malloc.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/bench.hpp"
#include "vorn_log.h"
#include "vorn_symbol.h"

namespace {

constexpr int kFrames = 50;
constexpr char kDirectory[] = "/tmp";
constexpr char kProgram[] = "fault_bench";
constexpr char kLog[] = "/tmp/fault_bench.log";

struct Shared {
  bench::Clock::time_point start;
};
Shared *shared;

[[gnu::noinline]] std::uintptr_t descend(int frames, volatile std::uintptr_t *at) {
  if (frames > 1) return descend(frames - 1, at) + 1;
  shared->start = bench::Clock::now();
  return *reinterpret_cast<volatile std::uintptr_t *>(*at);
}

// Returns the time from the fault in a child to the end of the child.
bench::Nanoseconds die() {
  static volatile std::uintptr_t nowhere = 0x10;
  const pid_t child = fork();
  if (child == 0) _exit(static_cast<int>(descend(kFrames, &nowhere)));
  int status = 0;
  waitpid(child, &status, 0);
  const bench::Nanoseconds time = bench::Clock::now() - shared->start;
  if (child < 0 || !WIFSIGNALED(status) || WTERMSIG(status) != SIGSEGV) std::abort();
  return time;
}

bench::Nanoseconds die_often(std::uint64_t count) {
  bench::Nanoseconds all{0};
  for (; count > 0; --count)
    all += die();
  return all;
}

bench::Nanoseconds die_plainly(std::uint64_t count) {
  struct sigaction plain {};
  struct sigaction handled;
  plain.sa_handler = SIG_DFL;
  sigaction(SIGSEGV, &plain, &handled);
  const bench::Nanoseconds time = die_often(count);
  sigaction(SIGSEGV, &handled, nullptr);
  return time;
}

off_t log_size() {
  struct stat file {};
  return stat(kLog, &file) == 0 ? file.st_size : 0;
}

std::size_t count_symbols(std::uintptr_t begin, std::uintptr_t end) {
  std::size_t count = 0;
  std::string last;
  for (std::uintptr_t at = begin; at < end; at += 4) {
    char text[8192];
    if (vorn_symbol_addr_to_string(at, text, sizeof text) != 0) continue;
    const std::string name(text, std::string(text).rfind("+0x"));
    if (name != last) ++count;
    last = name;
  }
  return count;
}

std::size_t count_all_symbols() {
  std::size_t count = 0;
  const auto visit = [](dl_phdr_info *info, std::size_t, void *argument) {
    for (int i = 0; i < info->dlpi_phnum; ++i) {
      const auto &segment = info->dlpi_phdr[i];
      if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
      const std::uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
      *static_cast<std::size_t *>(argument) += count_symbols(begin, begin + segment.p_memsz);
    }
    return 0;
  };
  dl_iterate_phdr(visit, &count);
  return count;
}

std::size_t heap_bytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

} // namespace

int main(int argc, char **argv) {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  void *map =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) return 1;
  shared = static_cast<Shared *>(map);
  unlink(kLog);
  vorn_log_init(kProgram, kDirectory);

  const std::size_t before = heap_bytes();
  const auto start = bench::Clock::now();
  vorn_symbol_init();
  const std::chrono::duration<double, std::milli> time = bench::Clock::now() - start;
  const std::size_t bytes = heap_bytes() - before;
  vorn_thread_signal_init();
  std::printf("Symbol table of this process: %zu symbols, %.1f ms, %zu bytes\n",
              count_all_symbols(), time.count(), bytes);
  const off_t size = log_size();
  die();
  std::printf("Report of a fault in frame %d: %ld bytes\n", kFrames,
              static_cast<long>(log_size() - size));
  const bench::Table table{argc, argv, "A fault to the end of its process"};
  table.row("50 frames deep", {bench::ours(die_often), bench::peer("no handler", die_plainly)});
  std::fflush(stdout);
  _exit(0); // without the dump at exit
}
