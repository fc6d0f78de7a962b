// Declares what the tests of partitions and NUMA nodes share. A program includes this once.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_CPU_FILE_HPP
#define VORN_TESTS_CPU_FILE_HPP

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/allocation.hpp"
#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_cfg.h"
#include "vorn_jiffies.h"

using Lines = std::vector<std::string>;
using Cpus = std::vector<unsigned int>;

// Returns the log messages since the last call, errors as "E ...", without those of the INI engine
// about missing items.
inline Lines lines_of(const std::string &source) {
  Lines lines;
  for (const capture::Message &message : capture::take()) {
    if (message.file == "vorn_cfg.c") continue;
    EXPECT_EQ(message.file, source) << message.text;
    EXPECT_TRUE(message.level == EVLOG_ERROR || message.level == EVLOG_INFO) << message.text;
    lines.push_back((message.level == EVLOG_ERROR ? "E " : "") + message.text);
  }
  return lines;
}

inline Cpus cpus_of(const uint64_t *words, unsigned int count) {
  Cpus cpus;
  for (unsigned int cpu = 0; cpu < count; ++cpu)
    if ((words[cpu / 64] >> cpu % 64 & 1) != 0) cpus.push_back(cpu);
  return cpus;
}

// The first use of the rate limiter's clock logs a message: does that before the test.
struct CpuFile : testing::Test {
  CpuFile() {
    failing = 1;
    vorn_get_jiffies();
    capture::take();
  }
  int load(int (*init)(const char *path), const std::string &text) const {
    scratch::write_file(file, text);
    return init(file.c_str());
  }
  const scratch::Directory folder;
  const std::string file = folder / "cpus.ini";
  const std::string none = folder / "none";
};

// A process loads once, so a case runs in a child; its failures fail the case.
template <class Work> void in_child(Work work) {
  EXPECT_EQ(run_in_child([&work] {
              work();
              return static_cast<int>(testing::Test::HasFailure());
            }),
            0);
}

#endif
