// Tests CPU masks and their lists.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cpumask.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

namespace {

using Cpus = std::vector<unsigned int>;

Cpus cpus_of(const cpumask *mask) {
  Cpus cpus;
  for (unsigned int cpu = vorn_first_cpu(mask); cpu < 256; cpu = vorn_next_cpu(cpu, mask))
    cpus.push_back(cpu);
  return cpus;
}

TEST(Cpumask, ListFiles) {
  std::string cut = "9";
  for (int i = 0; i < 64; ++i)
    cut += ",100"; // the 255th character is the last 1
  const struct {
    std::string text;
    int result;
    Cpus cpus;
    std::vector<std::string> messages;
  } rows[] = {
      {"0-3,8-11\n", 11, {0, 1, 2, 3, 8, 9, 10, 11}, {}},
      {"63-64,255,5\n7", 255, {5, 63, 64, 255}, {}},
      {"7-3\n", 3, {}, {}},
      {"\n", 0, {}, {}},
      {"1,,2\n", 2, {1, 2}, {"E sscanf_s failed.ret is -1."}},
      {"junk,3-\n", 0, {}, {}},
      {"254-300,4294967297\n", 2147483647, {254, 255}, {}},
      {"-3-1\n", 1, {0, 1}, {}},
      {cut, 100, {1, 9, 100}, {}},
      {"", -1, {}, {}},
  };
  const scratch::Directory folder;
  for (const auto &row : rows) {
    scratch::write_file(folder / "list", row.text);
    cpumask masks[2] = {};
    EXPECT_EQ(load_cpumask(masks, (folder / "list").c_str(), 0), row.result) << row.text;
    EXPECT_EQ(cpus_of(&masks[0]), row.cpus) << row.text;
    EXPECT_EQ(cpus_of(&masks[1]), Cpus{}) << row.text;
    EXPECT_EQ(capture::take_lines(), row.messages);
  }
}

TEST(Cpumask, SearchEndsAtTheLastCpu) {
  cpumask mask = {{1, 0, 0, 1ul << 63}};
  EXPECT_EQ(cpus_of(&mask), (Cpus{0, 255}));
  EXPECT_EQ(vorn_next_cpu(~0u, &mask), 0u);
  EXPECT_EQ(vorn_next_cpu(255, &mask), 256u);
  EXPECT_EQ(vorn_next_cpu(5000, &mask), 256u);
  init_cpumask_bit(&mask, 3);
  EXPECT_EQ(cpus_of(&mask), Cpus{255});
}

TEST(Cpumask, AFailedLoadIsTriedAgainAndASuccessIsKept) {
  const std::string root = "/sys/devices/system/cpu/";
  if (!scratch::cover_directory(root)) GTEST_SKIP() << scratch::kNoMounts;
  const int descriptor = scratch::next_descriptor();
  scratch::write_file(root + "possible", "0-5\n");
  scratch::write_file(root + "present", "0-3\n");
  EXPECT_EQ(cpumask_init(), -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_cpumask.c", "cpumask_init",
                     "Load_cpumask failed. possible_cpu = 5, online_cpu = -1, max_cpu=3\n");
  scratch::write_file(root + "present", "2\n");
  for (const char *online : {"1\n", "3\n"}) {
    scratch::write_file(root + "online", online);
    EXPECT_EQ(cpumask_init(), 0);
  }
  EXPECT_EQ(cpus_of(cpu_possible_mask).size(), 6u);
  EXPECT_EQ(cpus_of(cpu_online_mask), Cpus{1});
  EXPECT_EQ(cpus_of(cpu_present_mask), Cpus{2});
  EXPECT_EQ(scratch::next_descriptor(), descriptor);
}

} // namespace
