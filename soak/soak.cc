// soak SECONDS [FAMILY]: uses every family of the library at once, or only FAMILY, each in its own
// thread. Reports the resources of which the process holds more at the end than after the first
// fifth of the time. Exits with 0 if there are none, 1 if there are some or a family failed, and 2
// for a wrong argument.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <vector>

#include "families.hpp"
#include "footprint.hpp"
#include "support/scratch.hpp"
#include "vorn.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

// A sanitizer keeps freed memory for a while; an emulator keeps translated code.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VORN_TEST_EMULATED)
constexpr bool kRunsInTool = true;
#else
constexpr bool kRunsInTool = false;
#endif

std::atomic<bool> stop{false};
std::atomic<int> failures{0};

void use(Family &family) {
  while (!stop) {
    if (!family.use()) {
      std::printf("FAILED: %s, use %lu\n", family.name, family.uses.load());
      ++failures;
      return;
    }
    ++family.uses;
  }
}

// Joins the threads. If a family hangs, prints the uses of each family and ends the process.
void end_in_time(std::vector<std::thread> &threads, std::span<Family> all) {
  std::atomic<bool> done{false};
  std::thread watch([&] {
    const auto limit = steady_clock::now() + seconds(120);
    while (!done && steady_clock::now() < limit)
      usleep(10000);
    if (done) return;
    for (const Family &family : all)
      std::printf("%-12s %10lu uses\n", family.name, family.uses.load());
    std::puts("FAILED: a family did not return");
    std::fflush(stdout);
    _exit(1);
  });
  for (std::thread &thread : threads)
    thread.join();
  done = true;
  watch.join();
}

// Returns the footprint after everything that ends on its own, such as a finished thread, has
// ended.
Footprint settled() {
  Footprint now = take_footprint();
  for (int same = 0, waited = 0; same < 20 && waited < 300; ++waited) {
    usleep(100000);
    const Footprint next = take_footprint();
    same = next.threads == now.threads && next.heap == now.heap ? same + 1 : 0;
    now = next;
  }
  return now;
}

// Starts more threads than ever run later. The library keeps a thread record for the next thread,
// so the number of thread records would otherwise depend on the largest number of threads at any
// moment.
bool make_records() {
  static vorn_sem_enhance_s begun;
  static vorn_sem_enhance_s over;
  vorn_sem_enhance_init(&begun, 0);
  vorn_sem_enhance_init(&over, 0);
  const auto entry = [](void *) -> void * {
    vorn_sem_enhance_up(&begun);
    vorn_sem_enhance_down(&over);
    return nullptr;
  };
  constexpr int kThreads = 64;
  for (int i = 0; i < kThreads; ++i) {
    if (create_thread_raw(entry, nullptr, nullptr) != 0) return false;
  }
  for (int i = 0; i < kThreads; ++i)
    vorn_sem_enhance_down(&begun);
  for (int i = 0; i < kThreads; ++i)
    vorn_sem_enhance_up(&over);
  return true;
}

Footprint use_all(std::span<Family> all, seconds duration) {
  stop = false;
  std::vector<std::thread> threads;
  for (Family &family : all)
    threads.emplace_back([&family] { use(family); });
  const auto end = steady_clock::now() + duration;
  while (failures == 0 && steady_clock::now() < end)
    usleep(100000);
  stop = true;
  end_in_time(threads, all);
  return settled();
}

void compare(const char *what, std::size_t before, std::size_t after, std::size_t allowed) {
  const bool is_flat = after <= before + allowed;
  std::printf("%-12s %10zu before %10zu after%s\n", what, before, after, is_flat ? "" : "  GROWN");
  if (!is_flat) ++failures;
}

bool start(const std::string &ini, const std::string &log) {
  scratch::write_file(ini, "[A]\nITEM=1\n[VORN]\nSYSINFO_CPUUSAGE_THREAD_FLAG=0\n");
  return vorn_log_init("soak", log.c_str()) == 0 && vorn_cfg_init(ini.c_str()) == 0 &&
         vorn_Init() == 0 && make_records();
}

int run(seconds duration, const char *only) {
  scratch::cover_directory(
      "/dev/shm"); // keeps the CPU figures private, if private mounts are permitted
  const scratch::Directory directory;
  if (!start(directory / "soak.ini", directory.path())) {
    std::puts("FAILED: the library does not start");
    return 1;
  }
  std::span<Family> all = families(directory / "soak.ini");
  if (only != nullptr) {
    const auto is_it = [=](const Family &family) { return std::string_view(only) == family.name; };
    const auto found = std::find_if(all.begin(), all.end(), is_it);
    all = all.subspan(static_cast<std::size_t>(found - all.begin()), found == all.end() ? 0 : 1);
  }
  const Footprint before = use_all(all, duration / 5);
  const Footprint after = use_all(all, duration - duration / 5);
  for (const Family &family : all) {
    std::printf("%-12s %10lu uses\n", family.name, family.uses.load());
    if (family.uses == 0) ++failures;
  }
  compare("threads", before.threads, after.threads, 0);
  compare("descriptors", before.descriptors, after.descriptors, 0);
  compare("heap", before.heap, after.heap, 4 << 10);
  if (!kRunsInTool) {
    compare("mappings", before.mappings, after.mappings, 16); // the allocator's arenas
    compare("resident", before.resident, after.resident, 8 << 20);
  }
  vorn_destory();
  return failures == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
  char *end = nullptr;
  const long duration = argc == 2 || argc == 3 ? std::strtol(argv[1], &end, 10) : 0;
  if (duration < 5 || duration > 86400 || *end != '\0') {
    std::fputs("usage: soak SECONDS [FAMILY], from 5 to 86400 seconds\n", stderr);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const int result = run(seconds(duration), argc == 3 ? argv[2] : nullptr);
  std::puts(result == 0 ? "No resource has leaked." : "The soak failed.");
  return result;
}
