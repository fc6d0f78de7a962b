// test-wraps: vorn_mallocsubproc vorn_freesub vorn_cfg_destroy_ex
// Tests the NUMA configuration.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_numa.h"

#include <cstring>

#include "support/cpu_file.hpp"
#include "support/threads.hpp"

static int destroy_result = 0;

extern "C" {
decltype(vorn_cfg_destroy_ex) __real_vorn_cfg_destroy_ex;
int __wrap_vorn_cfg_destroy_ex(const char *path) {
  __real_vorn_cfg_destroy_ex(path);
  return destroy_result;
}
}

namespace {

const std::string kHead = "[NUMA_PARTITION]\ncpu_num=16\nnuma_num=";
const std::string kNodes = kHead + "2\nnuma_0=0-3\nnuma_1=8,9-2,5\n";
const std::string kProcess = "[PROC_PARTITION]\nnuma_enable=";

std::ptrdiff_t named_files = 0;

// Returns the log messages without the names of files, which are counted.
Lines lines() {
  Lines lines = lines_of("vorn_numa.c");
  named_files += static_cast<std::ptrdiff_t>(
      std::erase_if(lines, [](const auto &line) { return line.starts_with("Numa cfg /tmp"); }));
  return lines;
}

// Returns whether the registry still has a file.
bool registered() {
  char value[256];
  return vorn_cfg_getItemValue("NUMA_PARTITION", "cpu_num", value, sizeof value) == 0 ||
         vorn_cfg_getItemValue("PROC_PARTITION", "numa_enable", value, sizeof value) == 0;
}

using Numa = CpuFile;

TEST_F(Numa, AFailedLoadIsTriedAgain) {
  const std::string listed = kNodes + kProcess + "false\nproc_numa_info=";
  const struct {
    std::string content;
    const char *section; // the function of the log message
    std::string message;
    int count;
  } rows[] = {
      {"", "CPU", "E Get cpu num fail, ret:-1", 0},
      {"[NUMA_PARTITION]\ncpu_num=0\n", "CPU", "E Get cpu num fail, ret:0", 0},
      {kHead + "-4\n", "CPU", "E Get numa num fail, ret:-4", 0},
      {kHead + "3\nnuma_0=7\nnuma_2=9\n", "CPU", "Get cores(7) by numaId(0) success.", 3},
      {kNodes, "PROC", "Get cpu_num(16), numa_num(2) success.", 2},
      {kNodes + kProcess + "TRUE\n", "PROC", "E Get proc_numa_info fail, itemValue:TRUE", 2},
      {listed + "2\n", "PROC", "E Get proc_numa_info(2) failed.", 2},
      {listed + "-1\n", "PROC", "E Get proc_numa_info(-1) failed.", 2},
      {listed + "4294967296\n", "PROC", "E Get proc_numa_info(4294967296) failed.", 2},
      {listed + "1,7,0\n", "PROC", "E Get proc_numa_info(1,7,0) failed.", 2},
      {"[NUMA_PARTITION]\ncpu_num=1\nnuma_num=1\nnuma_0=1\n", "CPU", "E Malloc for numaInfo fail",
       1},
  };
  for (const auto &row : rows) {
    until_failure = row.count == 1 ? 0 : LONG_MAX;
    EXPECT_EQ(load(vorn_numam_init, row.content), -1) << row.content;
    const Lines messages = lines();
    ASSERT_GE(messages.size(), 2u) << row.content;
    EXPECT_EQ(messages[messages.size() - 2], row.message);
    EXPECT_EQ(messages.back(), std::string("E Parse numa cfg ") + row.section + "_PARTITION fail.");
    EXPECT_EQ(vorn_numam_num_get(), row.count);
  }
  EXPECT_TRUE(registered()) << "by a load that failed";
  uint64_t mask = ~0ul;
  EXPECT_EQ(vorn_numam_proc_numamask_get(&mask), 0);
  EXPECT_EQ(mask, 2u) << "the node before the bad one stays marked";
  EXPECT_EQ(vorn_numam_init(none.c_str()), -1);
  EXPECT_EQ(lines(), Lines{"Load Numa cfg fail " + none});
  EXPECT_EQ(named_files, 3) << "in a burst";

  vorn_cfg_destroy();
  EXPECT_EQ(load(vorn_numam_init, kNodes + kProcess + "trust\n"), 0);
  EXPECT_FALSE(registered());
  EXPECT_EQ(lines().back(), "Get numa_enable(trust) success.");
  EXPECT_EQ(vorn_numam_status_get(), 1u);
  EXPECT_EQ(load(vorn_numam_init, ""), 0) << "loaded already";
  EXPECT_EQ(vorn_numam_module_init(nullptr), 0);
  EXPECT_NO_MESSAGE();
  uint64_t set[VORN_NUMAM_CPUSET_WORDS];
  EXPECT_EQ(vorn_numam_cpuset_get(0, set), 0);
  EXPECT_EQ(cpus_of(set, 1024), Cpus{7}) << "of the first node 0, which a failed load has read";
}

TEST_F(Numa, AnswersAfterTheLoad) {
  std::string nodes = kHead + "66\n";
  for (int id = 0; id < 66; ++id)
    nodes +=
        "numa_" + std::to_string(id) + "=" + (id == 5 ? "8,x" : std::to_string(id) + ",300") + "\n";
  destroy_result = -1;
  EXPECT_EQ(load(vorn_numam_init, nodes + kProcess + "falsy\nproc_numa_info=,junk,,63,65,\n"), 0);
  EXPECT_EQ(lines().back(), "E Destroy numa cfg fail " + file);
  uint64_t used = 0;
  EXPECT_EQ(vorn_numam_proc_numamask_get(&used), 0);
  EXPECT_EQ(used, 1ul << 63 | 3);
  EXPECT_EQ(vorn_numam_num_get(), 66);
  EXPECT_EQ(vorn_numam_status_get(), 0u);
  EXPECT_TRUE(vorn_numam_status_set(1) == 0 && vorn_numam_status_set(2) == -1);
  EXPECT_EQ(vorn_numam_status_get(), 1u);
  capture::take();

  uint64_t set[VORN_NUMAM_CPUSET_WORDS];
  cpumask mask;
  std::memset(set, 0xFF, sizeof set);
  std::memset(&mask, 0xFF, sizeof mask);
  EXPECT_TRUE(vorn_numam_cpuset_get(65, set) == 0 && vorn_numam_cpumask_get(65, &mask) == 0);
  EXPECT_EQ(cpus_of(set, 1024), (Cpus{65, 300}));
  EXPECT_EQ(cpus_of(mask.words, 256), Cpus{65});
  EXPECT_NO_MESSAGE();
  EXPECT_TRUE(vorn_numam_cpuset_get(5, set) == -1 && vorn_numam_cpumask_get(5, &mask) == -1);
  EXPECT_EQ(cpus_of(set, 1024), Cpus{8});
  capture::take();
  EXPECT_TRUE(vorn_numam_cpuset_get(0, nullptr) == -1 && vorn_numam_cpumask_get(0, nullptr) == -1 &&
              vorn_numam_proc_numamask_get(nullptr) == -1);
  const std::string null = "E Param error, munaMask is NULL.";
  EXPECT_EQ(lines(), (Lines{"E Param error, cpuSet is NULL.", null, null}));
}

TEST_F(Numa, ListsOfCpus) {
  const std::string format = "E Parse CpuSet fail, invalid format:";
  const struct {
    std::string list;
    Cpus cpus;
    std::string message; // about the first wrong item; empty if there is none
  } rows[] = {
      {"0-3,9- 10", {0, 1, 2, 3, 9, 10}, ""},
      {"254-257,4294967295", {254, 255, 256, 257}, ""},
      {"1022-4294967295,99999999999", {1022, 1023}, ""},
      {"1,,2", {1}, format},
      {"1-x,*/A", {1}, format + "*/A"},
      {"8,9-2,5", {8}, "E Parse cpu mask 9-2 fail, end:2 is less than start:9"},
  };
  for (const auto &row : rows) {
    uint64_t set[VORN_NUMAM_CPUSET_WORDS + 1] = {};
    cpumask masks[2] = {};
    const int result = row.message.empty() ? 0 : -1;
    const auto messages = [&](const std::string &what) {
      return result == 0 ? Lines{} : Lines{row.message, "E Parse " + what + row.list + " fail."};
    };
    EXPECT_EQ(vorn_numam_parse_cpuset(row.list.c_str(), set), result);
    EXPECT_EQ(lines(), messages("CpuSet "));
    EXPECT_EQ(vorn_numam_parse_cpumask(row.list.c_str(), masks), result);
    EXPECT_EQ(lines(), messages("cpu mask "));
    Cpus of_mask = row.cpus;
    std::erase_if(of_mask, [](unsigned int cpu) { return cpu >= 256; });
    EXPECT_EQ(cpus_of(set, 1024), row.cpus) << row.list;
    EXPECT_EQ(cpus_of(masks[0].words, 256), of_mask) << row.list;
    EXPECT_EQ(set[16] | masks[1].words[0], 0u) << row.list;
  }
  uint64_t set[VORN_NUMAM_CPUSET_WORDS] = {8}; // bits are added
  cpumask mask = {{8}};
  unsigned int start = 1;
  unsigned int end = 1;
  EXPECT_TRUE(vorn_numam_parse_cpuset(nullptr, set) == 0 &&
              vorn_numam_parse_cpumask(nullptr, &mask) == 0 &&
              vorn_numam_parse_cpuset_as_list("1-2,5", set) == 0 &&
              vorn_numam_parse_cpumask_as_list("255-256", &mask) == 0 &&
              vorn_numam_parse_cpustr("12-13", &start, &end) == 0);
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(cpus_of(set, 1024), (Cpus{1, 2, 3}));
  EXPECT_EQ(cpus_of(mask.words, 256), (Cpus{3, 255}));
  EXPECT_TRUE(vorn_numam_parse_cpustr("7-5", &start, &end) == -1 &&
              vorn_numam_parse_cpuset("1", nullptr) == -1 &&
              vorn_numam_parse_cpumask("1", nullptr) == -1 &&
              vorn_numam_parse_cpuset_as_list(nullptr, set) == -1 &&
              vorn_numam_parse_cpumask_as_list("1", nullptr) == -1 &&
              vorn_numam_parse_cpustr("1", &start, nullptr) == -1);
  EXPECT_TRUE(start == 12 && end == 13);
}

TEST_F(Numa, TwoFiles) {
  const std::string &nodes = file;
  const std::string process = folder / "process";
  const std::string full(256, 'x'); // no room for a NUL
  scratch::write_file(nodes, kNodes);
  scratch::write_file(process, kProcess + "true\n");
  const std::string rows[][3] = {
      {"", process, "E Numa cfg numa_info error."},
      {full, process, "E Numa cfg numa_info error."},
      {nodes, full, "E Numa cfg node_numa error."},
      {none, process, "Load cfg(" + none + ") fail"},
      {nodes, none, "Load cfg(" + none + ") fail"},
      {process, process, "E Parse numa cfg CPU_PARTITION fail."},
  };
  const auto init = [](const std::string &first, const std::string &second) {
    vorn_numam_files_s files = {};
    std::memcpy(files.numa_info, first.data(), first.size());
    std::memcpy(files.node_numa, second.data(), second.size());
    const int result = vorn_numam_module_init(&files);
    const Lines logged = lines();
    EXPECT_FALSE(registered()) << logged.back();
    return std::pair(result, logged);
  };
  for (const auto &[first, second, last] : rows) {
    const auto [result, logged] = init(first, second);
    EXPECT_TRUE(result == -1 && logged.back() == last) << logged.back();
  }
  EXPECT_EQ(vorn_numam_module_init(nullptr), -1);
  EXPECT_EQ(lines(), Lines{"E Numa cfg is NULL."});
  destroy_result = -1;
  EXPECT_EQ(init(nodes, process), std::pair(0, Lines{"Get cores(0-3) by numaId(0) success.",
                                                     "Get cores(8,9-2,5) by numaId(1) success.",
                                                     "Get cpu_num(16), numa_num(2) success.",
                                                     "Get numa_enable(true) success.",
                                                     "E Destroy cfg(" + nodes + ") fail",
                                                     "E Destroy cfg(" + process + ") fail"}));
  EXPECT_EQ(vorn_numam_status_get(), 1u);
  EXPECT_EQ(vorn_numam_init(none.c_str()), 0);
}

TEST_F(Numa, DefaultFile) {
  const std::string path = "/opt/tessera/MorrowNumaConfiguration.ini";
  if (!scratch::cover_directory("/opt")) GTEST_SKIP() << scratch::kNoMounts;
  in_child([&] {
    EXPECT_EQ(vorn_numam_init(nullptr), 0);
    EXPECT_EQ(load(vorn_numam_init, kNodes), 0) << "loaded, though there was no file";
    uint64_t set[VORN_NUMAM_CPUSET_WORDS] = {1};
    cpumask mask = {{1, 1, 1, 1}};
    EXPECT_EQ(vorn_numam_cpuset_get(5, set), 0);
    EXPECT_EQ(vorn_numam_cpumask_get(5, &mask), 0);
    EXPECT_TRUE(cpus_of(set, 1024).empty() && cpus_of(mask.words, 256).empty());
    const std::string unknown = "E NumaId(5) not configured, numa_num(0).";
    EXPECT_EQ(lines(), (Lines{"Numa cfg " + path + " is not access, errno:2", unknown, unknown}));
  });
  scratch::write_file(path, kNodes + kProcess + "true\nproc_numa_info=0\n");
  run_threads(4, [](int thread) {
    for (uint64_t used = 0; thread != 0 && used == 0;) // beside the load
      vorn_numam_proc_numamask_get(&used);
    EXPECT_EQ(vorn_numam_init(nullptr), 0);
    EXPECT_EQ(vorn_numam_num_get(), 2);
  });
  const Lines messages = lines();
  EXPECT_EQ(messages.size(), 6u) << "one load";
  EXPECT_EQ(messages[0], "Numa cfg " + path + ".");
}

} // namespace
