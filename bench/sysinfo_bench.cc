// Measures the start of the first process on a machine and of later ones, and a sample of the CPUs.
// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/bench.hpp"
#include "vorn_cpuinfo.h"
#include "vorn_init.h"
#include "vorn_log.h"
#include "vorn_sysinfo.h"
#include "vorn_thrd.h"

namespace {

constexpr char kRecord[] = "/dev/shm/cpuinfo_shm";

// Returns the time of work in a new process, after prepare has run there.
template <class Work> bench::Nanoseconds in_process(
    Work work, void (*prepare)() = [] {}) {
  auto *taken = static_cast<bench::Nanoseconds *>(mmap(nullptr, sizeof(bench::Nanoseconds),
                                                       PROT_READ | PROT_WRITE,
                                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const pid_t child = fork();
  if (child == 0) {
    prepare();
    const auto start = bench::Clock::now();
    work();
    *taken = bench::Clock::now() - start;
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  const bench::Nanoseconds result = *taken;
  munmap(taken, sizeof *taken);
  return result;
}

template <bool kCold> bench::Nanoseconds starts(
    std::uint64_t count, void (*work)(), void (*prepare)() = [] {}) {
  bench::Nanoseconds sum{0};
  for (; count > 0; --count) {
    if (kCold) unlink(kRecord);
    sum += in_process(work, prepare);
  }
  return sum;
}

// Takes the samples in a process that counts the CPUs itself.
bench::Nanoseconds samples(std::uint64_t count) {
  return in_process([=] {
    sysinfo_alloc_mem();
    for (std::uint64_t i = 0; i < count; ++i)
      sysinfo_update_all_cpu_usage();
  });
}

// Writes the files of a machine with 256 CPUs after some days.
void record_machine_of_256() {
  std::ofstream stat("/dev/shm/stat");
  stat << "cpu  363733248 43715328 64499712 222022912 1413376 0 1380352 0 0 0\n";
  for (int cpu = 0; cpu < 256; ++cpu)
    stat << "cpu" << cpu << " 1420833 170763 251952 867277 5521 0 5392 0 0 0\n";
  stat << "intr 37512762" << std::string(8192, ' ') << "\nctxt 1\n";
  std::ofstream("/dev/shm/possible") << "0-255\n";
}

bool show(const char *stand_in, const char *file) {
  return mount(stand_in, file, nullptr, MS_BIND, nullptr) == 0;
}

} // namespace

int main(int argc, char **argv) {
  vorn_log_init("sysinfo_bench", "/tmp");
  vorn_log_level_set(VORN_MODULE_ID, 2); // each start would log the missing driver
  const bench::Table table{argc, argv, "The machine"};
  // A private /dev/shm keeps the machine's shared figures unchanged, and no other process takes
  // samples.
  const bool own = unshare(CLONE_NEWNS) == 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("none", "/dev/shm", "tmpfs", 0, nullptr) == 0;
  if (!own) {
    std::puts("needs private mounts, which root may make");
    return 0;
  }
  const auto init = [] { vorn_Init(); };
  const auto registry = [] { vorn_thrd_module_init(); };
  const auto cpuinfo = [] { cpuinfo_init(); };
  const auto sysinfo = [] { sysinfo_init(); };
  table.row("vorn_Init, the first on the machine",
            {bench::ours([=](std::uint64_t n) { return starts<true>(n, init); })});
  table.row("vorn_Init, a later one",
            {bench::ours([=](std::uint64_t n) { return starts<false>(n, init); })});
  table.row("of it: cpuinfo_init, the first",
            {bench::ours([=](std::uint64_t n) { return starts<true>(n, cpuinfo); })});
  table.row("of it: cpuinfo_init, a later one",
            {bench::ours([=](std::uint64_t n) { return starts<false>(n, cpuinfo); })});
  table.row("of it: sysinfo_init",
            {bench::ours([=](std::uint64_t n) { return starts<false>(n, sysinfo, registry); })});
  table.row("of it: vorn_thrd_module_init",
            {bench::ours([=](std::uint64_t n) { return starts<false>(n, registry); })});

  table.row("a sample of this machine", {bench::ours([](std::uint64_t n) { return samples(n); })});
  record_machine_of_256();
  if (!show("/dev/shm/stat", "/proc/stat") ||
      !show("/dev/shm/possible", "/sys/devices/system/cpu/possible"))
    return 0;
  for (const char *object : {"PUICPUUSAGE", "PULLCPULASTIDLE", "PULLCPULASTTOTAL"})
    unlink(("/dev/shm/SYSINFO_" + std::string(object) + "_NOROOT").c_str());
  table.row("a sample of 256 CPUs", {bench::ours([](std::uint64_t n) { return samples(n); })});
  vorn_log_destroy(0);
}
