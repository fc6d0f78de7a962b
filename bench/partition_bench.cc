// bench-links: vornsim inih
// Measures the load of a product file with 64 groups of 32 partitions. A process loads the file
// only once, so each load runs in a child. The peer, also in a child, only passes the same items to
// a callback.
// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ini.h>

#include "support/bench.hpp"
#include "vorn_cfg.h"
#include "vorn_cpu.h"

namespace {

constexpr int kGroups = 64;
constexpr int kPartitions = 32;

// Puts IOD_NORMAL in the middle of each group.
std::string product_text() {
  std::string text = "[CPU_PARTITION]\ngroup_num=" + std::to_string(kGroups) + "\n";
  for (int group = 0; group < kGroups; ++group) {
    text += "[GROUP_" + std::to_string(group) + "]\npartition_num=" + std::to_string(kPartitions) +
            "\n";
    for (int i = 0; i < kPartitions; ++i) {
      const int first = group * 16 % 1000;
      text += "partition_" + std::to_string(i) + "=" +
              (i == kPartitions / 2 ? "IOD_NORMAL" : "PARTITION_" + std::to_string(i)) +
              ":1:" + std::to_string(first) + "-" + std::to_string(first + 7) + "\n";
    }
  }
  return text;
}

// Writes a file in memory and returns its path.
std::string make_file(const std::string &text) {
  const int fd = memfd_create("bench", 0);
  if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
  return "/proc/self/fd/" + std::to_string(fd);
}

// Returns the time that work takes in a child of fork().
template <class Work> bench::Nanoseconds time_in_child(Work work) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  const pid_t child = fork();
  if (child == 0) {
    const auto start = bench::Clock::now();
    work();
    const double time = bench::Nanoseconds(bench::Clock::now() - start).count();
    _exit(write(ends[1], &time, sizeof time) == sizeof time ? 0 : 1);
  }
  double time = 0;
  close(ends[1]);
  if (read(ends[0], &time, sizeof time) != sizeof time) std::abort();
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return bench::Nanoseconds(time);
}

template <class Work> auto in_children(Work work) {
  return [work](std::uint64_t count) {
    bench::Nanoseconds sum{0};
    for (; count > 0; --count)
      sum += time_in_child(work);
    return sum;
  };
}

int count_item(void *user, const char *, const char *, const char *) {
  ++*static_cast<int *>(user);
  return 1;
}

struct Reading {
  std::uint64_t mask[VORN_CPUM_MASK_WORDS] = {};
};

int take_partition(void *user, const char *, const char *, const char *value) {
  if (std::strncmp(value, "IOD_NORMAL:", 11) != 0) return 1;
  char *rest = nullptr;
  const char *cpus = std::strchr(value + 11, ':') + 1;
  const unsigned long first = std::strtoul(cpus, &rest, 10);
  const unsigned long last = std::strtoul(rest + 1, nullptr, 10);
  for (unsigned long cpu = first; cpu <= std::min(last, 1023ul); ++cpu)
    static_cast<Reading *>(user)->mask[cpu / 64] |= std::uint64_t{1} << cpu % 64;
  return 1;
}

} // namespace

int main(int argc, char **argv) {
  const bench::Table table{argc, argv, "CPU partitions"};
  const std::string text = product_text();
  const std::string path = make_file(text);
  table.row({"load 64 groups of 32", text.size()},
            {bench::ours(in_children([&path] {
               if (vorn_cpum_init(path.c_str()) != 0) std::abort();
             })),
             bench::peer("inih", in_children([&path] {
                           int items = 0;
                           if (ini_parse(path.c_str(), count_item, &items) != 0) std::abort();
                         }))});
  table.row({"of which the INI engine reads the file", text.size()},
            {bench::ours(in_children([&path] {
              if (vorn_cfg_init(path.c_str()) != 0) std::abort();
            }))});
  if (vorn_cpum_init(path.c_str()) != 0) std::abort();
  table.row("resolve \"*/IOD_NORMAL\"", {bench::ours([] {
                                           Reading reading;
                                           vorn_cpum_parse_cpumask("*/IOD_NORMAL", reading.mask);
                                           bench::keep(reading.mask);
                                         }),
                                         bench::peer("inih", [&path] {
                                           Reading reading;
                                           ini_parse(path.c_str(), take_partition, &reading);
                                           bench::keep(reading.mask);
                                         })});
  table.row("resolve \"GROUP_63/IOD_NORMAL\"", {bench::ours([] {
              Reading reading;
              vorn_cpum_parse_cpumask("GROUP_63/IOD_NORMAL", reading.mask);
              bench::keep(reading.mask);
            })});
  table.row("parse \"0-3,8-11\"", {bench::ours([] {
              Reading reading;
              vorn_cpum_parse_cpumask("0-3,8-11", reading.mask);
              bench::keep(reading.mask);
            })});
}
