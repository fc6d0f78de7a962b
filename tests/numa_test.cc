// test-wraps: vorn_mallocsubproc vorn_cfg_destroy_ex
#include "vorn_numa.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "vorn_cfg.h"
#include "vorn_jiffies.h"

static bool no_memory = false;
static int destroy_result = 0;

extern "C" {
void *__real_vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long flags,
                                unsigned int pid, const char *function, unsigned int line);
void *__wrap_vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long flags,
                                unsigned int pid, const char *function, unsigned int line) {
  return no_memory ? nullptr : __real_vorn_mallocsubproc(size, type, flags, pid, function, line);
}

int __real_vorn_cfg_destroy_ex(const char *path);
int __wrap_vorn_cfg_destroy_ex(const char *path) {
  const int result = __real_vorn_cfg_destroy_ex(path);
  return destroy_result != 0 ? destroy_result : result;
}
}

namespace {

using Lines = std::vector<std::string>;
using Cpus = std::vector<unsigned int>;

const std::string kNodes = "[NUMA_PARTITION]\ncpu_num=16\nnuma_num=2\n"
                           "numa_0=0-3,40-43\nnuma_1=8,9-2,5\n";
const std::string kNodeLines[] = {"Get cores(0-3,40-43) by numaId(0) success.",
                                  "Get cores(8,9-2,5) by numaId(1) success.",
                                  "Get cpu_num(16), numa_num(2) success."};

std::size_t named_files = 0;

// What was logged, without the registry's messages, and without the files' names, which are
// counted.
Lines lines() {
  Lines taken = capture::take_lines();
  std::erase_if(taken, [](const auto &line) {
    return line.starts_with("W Get ItemValue by") || line.starts_with("Can't find section=");
  });
  named_files +=
      std::erase_if(taken, [](const auto &line) { return line.starts_with("Numa cfg /tmp"); });
  return taken;
}

Cpus cpus_of(const uint64_t *words, unsigned int count) {
  Cpus cpus;
  for (unsigned int cpu = 0; cpu < count; ++cpu)
    if ((words[cpu / 64] >> cpu % 64 & 1) != 0) cpus.push_back(cpu);
  return cpus;
}

struct Numa : testing::Test {
  void SetUp() override {
    vorn_get_jiffies(); // the rate limiter's clock opens at its first use, and reports that
    capture::take();
  }
  std::string file() const { return folder / "numa.ini"; }
  int load(const std::string &text) const {
    scratch::write_file(file(), text);
    return vorn_numam_init(file().c_str());
  }
  const scratch::Directory folder;
};

TEST_F(Numa, AFailedLoadIsTriedAgain) {
  const std::string no_nodes = "E Parse numa cfg CPU_PARTITION fail.";
  const std::string no_process = "E Parse numa cfg PROC_PARTITION fail.";
  const auto after_nodes = [](Lines rest) {
    rest.insert(rest.begin(), std::begin(kNodeLines), std::end(kNodeLines));
    return rest;
  };
  const auto bad_list = [&](const std::string &list) {
    return after_nodes({"Get numa_enable(false) success.",
                        "E Get proc_numa_info(" + list + ") failed.", no_process});
  };
  const std::string process = kNodes + "[PROC_PARTITION]\nnuma_enable=";
  const std::string listed = process + "false\nproc_numa_info=";
  const struct {
    std::string content;
    Lines records;
    int count;
  } rows[] = {
      {"", {"E Get cpu num fail, ret:-1", no_nodes}, 0},
      {"[NUMA_PARTITION]\ncpu_num=0\n", {"E Get cpu num fail, ret:0", no_nodes}, 0},
      {"[NUMA_PARTITION]\ncpu_num=1\n", {"E Get numa num fail, ret:-1", no_nodes}, 0},
      {"[NUMA_PARTITION]\ncpu_num=1\nnuma_num=-4\n", {"E Get numa num fail, ret:-4", no_nodes}, 0},
      {"[NUMA_PARTITION]\ncpu_num=4294967297\n", {"E Get cpu num fail, ret:-1", no_nodes}, 0},
      {"[NUMA_PARTITION]\ncpu_num=1\nnuma_num=3\nnuma_0=7\nnuma_2=9\n",
       {"Get cores(7) by numaId(0) success.", no_nodes},
       3},
      {kNodes, after_nodes({no_process}), 2},
      {process + "TRUE\n", after_nodes({"E Get proc_numa_info fail, itemValue:TRUE", no_process}),
       2},
      {process + "fal\n", after_nodes({"E Get proc_numa_info fail, itemValue:fal", no_process}), 2},
      {listed + "2\n", bad_list("2"), 2},
      {listed + "-1\n", bad_list("-1"), 2},
      {listed + "4294967296\n", bad_list("4294967296"), 2},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(load(row.content), -1) << row.content;
    EXPECT_EQ(lines(), row.records);
    EXPECT_EQ(vorn_numam_num_get(), row.count);
  }
  char value[8];
  EXPECT_EQ(vorn_cfg_getItemValue("NUMA_PARTITION", "numa_num", value, sizeof value), 0)
      << "the file stays registered";
  EXPECT_EQ(load(listed + "1,7,0\n"), -1);
  EXPECT_EQ(lines().size(), 6u);
  uint64_t mask = ~0ul;
  EXPECT_EQ(vorn_numam_proc_numamask_get(&mask), 0);
  EXPECT_EQ(mask, 2u) << "the node before the bad one stays marked";
  no_memory = true;
  EXPECT_EQ(load(listed), -1);
  EXPECT_EQ(lines(), (Lines{"E Malloc for numaInfo fail", no_nodes}));
  no_memory = false;

  const std::string none = folder / "none";
  EXPECT_EQ(vorn_numam_init(none.c_str()), -1);
  EXPECT_EQ(lines().back(), "Load Numa cfg fail " + none);
  EXPECT_EQ(named_files, 3u) << "in a burst";
  vorn_cfg_destroy();
  EXPECT_EQ(load(process + "truest\n"), 0);
  EXPECT_EQ(lines(), after_nodes({"Get numa_enable(truest) success."}));
  EXPECT_EQ(vorn_numam_status_get(), 1u);
  EXPECT_EQ(vorn_cfg_getItemValue("NUMA_PARTITION", "cpu_num", value, sizeof value), -1)
      << "the file is registered still";
  capture::take();
  EXPECT_EQ(load(""), 0) << "loaded already";
  EXPECT_EQ(vorn_numam_module_init(nullptr), 0);
  EXPECT_NO_RECORD();

  // The first node 0 of all is that of the third load of nodes.
  uint64_t set[VORN_NUMAM_CPUSET_WORDS];
  EXPECT_EQ(vorn_numam_cpuset_get(0, set), 0);
  EXPECT_EQ(cpus_of(set, 1024), Cpus{7});
}

TEST_F(Numa, AnswersAfterTheLoad) {
  destroy_result = -1;
  EXPECT_EQ(load(kNodes + "[PROC_PARTITION]\nnuma_enable=falsehood\nproc_numa_info=,junk,,1\n"), 0);
  destroy_result = 0;
  EXPECT_EQ(lines().back(), "E Destroy numa cfg fail " + file());
  uint64_t mask = 0;
  EXPECT_EQ(vorn_numam_proc_numamask_get(&mask), 0);
  EXPECT_EQ(mask, 3u);
  EXPECT_EQ(vorn_numam_num_get(), 2);

  uint64_t set[VORN_NUMAM_CPUSET_WORDS + 1];
  cpumask masks[2];
  const Cpus node_0 = {0, 1, 2, 3, 40, 41, 42, 43};
  const std::string reversed = "E Parse cpu mask 9-2 fail, end:2 is less than start:9";
  const std::string unknown = "E NumaId(2) not configured, numa_num(2).";
  const struct {
    unsigned int node;
    int result;
    Cpus cpus;
    Lines of_set;
    Lines of_mask;
  } rows[] = {
      {0, 0, node_0, {}, {}},
      {1,
       -1,
       {8},
       {reversed, "E Parse CpuSet 8,9-2,5 fail."},
       {reversed, "E Parse cpu mask 8,9-2,5 fail."}},
      {2, 0, {}, {unknown}, {unknown}},
  };
  for (const auto &row : rows) {
    std::memset(set, 0xFF, sizeof set);
    std::memset(masks, 0xFF, sizeof masks);
    EXPECT_EQ(vorn_numam_cpuset_get(row.node, set), row.result);
    EXPECT_EQ(lines(), row.of_set);
    EXPECT_EQ(vorn_numam_cpumask_get(row.node, masks), row.result);
    EXPECT_EQ(lines(), row.of_mask);
    EXPECT_EQ(cpus_of(set, 1024), row.cpus);
    EXPECT_EQ(cpus_of(masks[0].words, 256), row.cpus);
    EXPECT_TRUE(set[16] == ~0ul && masks[1].words[0] == ~0ul);
  }
  EXPECT_EQ(vorn_numam_cpuset_get(0, nullptr), -1);
  EXPECT_EQ(vorn_numam_cpumask_get(0, nullptr), -1);
  EXPECT_EQ(vorn_numam_proc_numamask_get(nullptr), -1);
  const std::string bad_mask = "E Param error, munaMask is NULL.";
  EXPECT_EQ(lines(), (Lines{"E Param error, cpuSet is NULL.", bad_mask, bad_mask}));

  EXPECT_EQ(vorn_numam_status_get(), 0u);
  EXPECT_EQ(vorn_numam_status_set(1), 0);
  EXPECT_EQ(vorn_numam_status_set(2), -1);
  EXPECT_EQ(vorn_numam_status_get(), 1u);
}

TEST_F(Numa, MaskOfNodesWrapsAt64) {
  std::string nodes = "[NUMA_PARTITION]\ncpu_num=1\nnuma_num=66\n";
  for (int id = 0; id < 66; ++id)
    nodes += "numa_" + std::to_string(id) + "=\n";
  EXPECT_EQ(load(nodes + "[PROC_PARTITION]\nnuma_enable=true\nproc_numa_info=63,,65,\n"), 0);
  uint64_t mask = 0;
  EXPECT_EQ(vorn_numam_proc_numamask_get(&mask), 0);
  EXPECT_EQ(mask, 1ul << 63 | 2);
}

TEST_F(Numa, ListsOfCpus) {
  const std::string format = "E Parse CpuSet fail, invalid format:";
  const struct {
    const char *list;
    int result;
    Cpus cpus;
    std::string record; // of the first wrong item
  } rows[] = {
      {nullptr, 0, {}, ""},
      {"3,9- 10", 0, {3, 9, 10}, ""},
      {"254-257,4294967295", 0, {254, 255, 256, 257}, ""},
      {"1022-4294967295,99999999999", 0, {1022, 1023}, ""},
      {"1,,2", -1, {1}, format},
      {"", -1, {}, format},
      {"1,-2", -1, {1}, format + "-2"},
      {"1-x,*/A", -1, {1}, format + "*/A"},
      {"1,3-2,5", -1, {1}, "E Parse cpu mask 3-2 fail, end:2 is less than start:3"},
  };
  for (const auto &row : rows) {
    uint64_t set[VORN_NUMAM_CPUSET_WORDS + 1] = {};
    cpumask masks[2] = {};
    const std::string list = row.list != nullptr ? row.list : "";
    const auto records = [&](const std::string &what) {
      return row.result == 0 ? Lines{} : Lines{row.record, "E Parse " + what + list + " fail."};
    };
    EXPECT_EQ(vorn_numam_parse_cpuset(row.list, set), row.result);
    EXPECT_EQ(lines(), records("CpuSet "));
    EXPECT_EQ(vorn_numam_parse_cpumask(row.list, masks), row.result);
    EXPECT_EQ(lines(), records("cpu mask "));
    EXPECT_EQ(cpus_of(set, 1024), row.cpus) << list;
    Cpus of_mask = row.cpus;
    std::erase_if(of_mask, [](unsigned int cpu) { return cpu >= 256; });
    EXPECT_EQ(cpus_of(masks[0].words, 256), of_mask) << list;
    EXPECT_TRUE(set[16] == 0 && cpus_of(masks[1].words, 256).empty()) << list;
  }
  uint64_t set[VORN_NUMAM_CPUSET_WORDS] = {};
  cpumask mask = {};
  EXPECT_EQ(vorn_numam_parse_cpuset_as_list("1-2,5", set), 0);
  EXPECT_EQ(vorn_numam_parse_cpumask_as_list("255-256", &mask), 0);
  EXPECT_EQ(cpus_of(set, 1024), (Cpus{1, 2}));
  EXPECT_EQ(cpus_of(mask.words, 256), Cpus{255});
  unsigned int start = 1;
  unsigned int end = 1;
  EXPECT_EQ(vorn_numam_parse_cpustr("7-5", &start, &end), -1);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_numa.c", "vorn_numam_parse_cpustr",
                    "Parse cpu mask 7-5 fail, end:5 is less than start:7");
  EXPECT_TRUE(start == 1 && end == 1);
  EXPECT_EQ(vorn_numam_parse_cpustr("12", &start, &end), 0);
  EXPECT_TRUE(start == 12 && end == 12);
  for (const int result :
       {vorn_numam_parse_cpuset("1", nullptr), vorn_numam_parse_cpumask("1", nullptr),
        vorn_numam_parse_cpuset_as_list(nullptr, set),
        vorn_numam_parse_cpumask_as_list("1", nullptr),
        vorn_numam_parse_cpustr("1", &start, nullptr)})
    EXPECT_EQ(result, -1);
  EXPECT_EQ(lines().size(), 5u);
}

TEST_F(Numa, TwoFiles) {
  scratch::write_file(folder / "nodes", kNodes);
  scratch::write_file(folder / "process", "[PROC_PARTITION]\nnuma_enable=true\n");
  const std::string nodes = folder / "nodes";
  const std::string process = folder / "process";
  const std::string none = folder / "none";
  const std::string full(256, 'x'); // no room for a NUL
  const struct {
    std::string first;
    std::string second;
    std::string last; // record
  } rows[] = {
      {"", process, "E Numa cfg numa_info error."},
      {full, process, "E Numa cfg numa_info error."},
      {nodes, "", "E Numa cfg node_numa error."},
      {nodes, full, "E Numa cfg node_numa error."},
      {none, process, "Load cfg(" + none + ") fail"},
      {nodes, none, "Load cfg(" + none + ") fail"},
      {process, process, "E Parse numa cfg CPU_PARTITION fail."},
  };
  const auto init = [](const std::string &first, const std::string &second) {
    vorn_numam_files_s files = {};
    std::memcpy(files.numa_info, first.data(), first.size());
    std::memcpy(files.node_numa, second.data(), second.size());
    return vorn_numam_module_init(&files);
  };
  const auto registered = [](const char *section, const char *item) {
    char value[256];
    return vorn_cfg_getItemValue(section, item, value, sizeof value) == 0;
  };
  EXPECT_EQ(vorn_numam_module_init(nullptr), -1);
  EXPECT_EQ(lines(), Lines{"E Numa cfg is NULL."});
  for (const auto &row : rows) {
    EXPECT_EQ(init(row.first, row.second), -1);
    EXPECT_EQ(lines().back(), row.last);
    EXPECT_FALSE(registered("NUMA_PARTITION", "cpu_num")) << row.last;
    EXPECT_FALSE(registered("PROC_PARTITION", "numa_enable")) << row.last;
    capture::take();
  }
  destroy_result = -1;
  EXPECT_EQ(init(nodes, process), 0);
  Lines wanted(std::begin(kNodeLines), std::end(kNodeLines));
  wanted.insert(wanted.end(),
                {"Get numa_enable(true) success.", "E Destroy cfg(" + nodes + ") fail",
                 "E Destroy cfg(" + process + ") fail"});
  EXPECT_EQ(lines(), wanted);
  EXPECT_FALSE(registered("NUMA_PARTITION", "cpu_num"));
  EXPECT_FALSE(registered("PROC_PARTITION", "numa_enable"));
  EXPECT_EQ(vorn_numam_status_get(), 1u);
  EXPECT_EQ(vorn_numam_init(none.c_str()), 0);
}

TEST_F(Numa, DefaultFile) {
  const std::string path = "/opt/tessera/MorrowNumaConfiguration.ini";
  if (!scratch::cover_directory("/opt")) GTEST_SKIP() << scratch::kNoMounts;
  EXPECT_EQ(vorn_numam_init_inner(nullptr), 0);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_numa.c", "vorn_numam_init_inner",
                    "Numa cfg " + path + " is not access, errno:2");
  scratch::write_file(path, kNodes + "[PROC_PARTITION]\nnuma_enable=true\nproc_numa_info=1\n");
  run_threads(4, [](int) {
    uint64_t used = 0;
    vorn_numam_proc_numamask_get(&used); // beside the load
    EXPECT_EQ(vorn_numam_init(nullptr), 0);
    EXPECT_EQ(vorn_numam_num_get(), 2);
  });
  EXPECT_EQ(lines().size(), 6u) << "one load";
}

TEST_F(Numa, WithoutTheDefaultFileThereAreNoNodes) {
  if (!scratch::cover_directory("/opt")) GTEST_SKIP() << scratch::kNoMounts;
  EXPECT_EQ(vorn_numam_init(nullptr), 0);
  EXPECT_EQ(load(kNodes), 0) << "that load counts";
  EXPECT_EQ(vorn_numam_num_get(), 0);
  capture::take();
  cpumask mask = {{1, 1, 1, 1}};
  EXPECT_EQ(vorn_numam_cpumask_get(0, &mask), 0);
  EXPECT_EQ(cpus_of(mask.words, 256), Cpus{});
  EXPECT_EQ(lines(), Lines{"E NumaId(0) not configured, numa_num(0)."});
}

} // namespace
