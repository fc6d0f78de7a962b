// test-wraps: vorn_mallocsubproc vorn_freesub
// Tests CPU partitions and CPU lists.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cpu.h"

#include <numeric>
#include <sys/stat.h>
#include <thread>

#include "support/cpu_file.hpp"
#include "support/shown.hpp"
#include "support/threads.hpp"
#include "vorn_cpufreq.h"

namespace {

const std::string kConf = "/WRK/conf/app_data/kelp/";
const std::string kFail = "E Parse cpu mask fail, ";
const std::string kFormat = kFail + "invalid format:";

std::string product(const std::vector<Lines> &groups) {
  std::string text = "[CPU_PARTITION]\ngroup_num=" + std::to_string(groups.size()) + "\n";
  for (std::size_t group = 0; group < groups.size(); ++group) {
    const std::size_t count = groups[group].size();
    text += "[GROUP_" + std::to_string(group) + "]\npartition_num=" + std::to_string(count) + "\n";
    for (std::size_t i = 0; i < count; ++i)
      text += "partition_" + std::to_string(i) + "=" + groups[group][i] + "\n";
  }
  return text;
}

Lines lines() { return lines_of("vorn_cpu.c"); }

// Returns what text adds to a set that contains CPU 512.
Cpus parsed(const std::string &text, int result = 0) {
  uint64_t mask[VORN_CPUM_MASK_WORDS + 1] = {0, 0, 0, 0, 0, 0, 0, 0, 1};
  EXPECT_EQ(vorn_cpum_parse_cpumask(text.c_str(), mask), result) << text;
  EXPECT_TRUE(mask[8]-- == 1 && mask[VORN_CPUM_MASK_WORDS] == 0) << text;
  return cpus_of(mask, 1024);
}

using Cpu = CpuFile;

TEST_F(Cpu, ListsOfCpus) {
  const std::string name(31, 'n');
  Lines chain; // C1 to C129, each with its number and the next
  for (int i = 1; i <= 129; ++i)
    chain.push_back("C" + std::to_string(i) + ":0:" + std::to_string(i) + ",*/C" +
                    std::to_string(i + 1));
  std::vector<Lines> groups = {
      {"A:0:4-6", "B::9,x", name + "cut:0:7", "N:0:GROUP_1/A,*/B,3"},
      {"A:0:20", "A:0:" + std::string(249, '0') + "21", "A/B:0:30", ":0:31"},
      {"L:0:40,GROUP_2/M,41", "M:0:42,*/L,*/M,GROUP_9/M,43"},
      chain,
      {"IOD_NORMAL:0:4-11", "IOD_NORMAL:0:20-21", "IOD_NORMAL:0:30-32,40-50", "IOD:0:60-70",
       "IOD_NORMAL:0:80", "IOD_NORMAL:0:90-80", "IOD_NORMAL:0:1022-1030",
       "IOD_NORMAL:0:4294967294-4294967295"}};
  // If every partition refers to all, the paths of references are too many to walk.
  groups.resize(64, {"Q:0:*/R,*/R,*/R", "R:0:*/S,*/S,*/S", "S:0:6,*/T", "T:0:*/Q", "E:0:7", "E:0:7",
                     "E:0:7"});
  ASSERT_EQ(load(vorn_cpum_init, product(groups)), 0);
  EXPECT_EQ(lines(), Lines{});
  Cpus to_128(128);
  std::iota(to_128.begin(), to_128.end(), 1);
  const struct {
    std::string text;
    int result;
    Cpus cpus;
    Lines messages;
  } rows[] = {
      {"0,2- 4, 70,+8-+9", 0, {0, 2, 3, 4, 8, 9, 70}, {}},
      {"1022-2000", 0, {1022, 1023}, {}},
      {"1023-4294967295,2000-3000,99999999999,1024", 0, {1023}, {}},
      {"8-4", -1, {}, {"E Parse cpu mask 8-4 fail, end:4 is less than start:8"}},
      {"1025-1024,7-7",
       0,
       {7},
       {"E Parse cpu mask 1025-1024 fail, end:1024 is less than start:1025"}},
      {"A,,5,-6,", 0, {5}, {kFormat + "A", kFormat, kFormat + "-6", kFormat}},
      {"3--5,3- -5", -1, {}, {kFormat + "3--5", kFormat + "3- -5"}},
      {"3-x,6-,8 9", 0, {3, 6, 8}, {}},
      {"", -1, {}, {kFormat}},
      {"*/A", 0, {4, 5, 6, 20, 21}, {}},
      {"GROUP_1/A/B,*/Z,GROUP_10/A,GROUP_0/A,1", 0, {1, 4, 5, 6, 30}, {}},
      {"*/" + name + ",*/" + name + "cut", 0, {7}, {}},
      {"GROUP_0/,/A", -1, {}, {kFormat + "GROUP_0/", kFormat + "/A"}},
      {name + "n/A", 0, {}, {}},
      {name + "nn/A", -1, {}, {kFormat + name + "nn/A"}},
      {"*/N", 0, {3, 9, 20, 21}, {kFormat + "x"}},
      {"*/M", 0, {40, 41, 42, 43}, {kFail + "GROUP_2/M refers to itself."}},
      {"*/Q", 0, {6}, {kFail + "GROUP_5/Q refers to itself."}},
      {"*/C1", 0, to_128, {kFail + "GROUP_3/C129 is referred to too deeply."}},
      {"*/E", 0, {7}, {}}, // many, and none in another
      {"*/C129,*/C128", 0, {128, 129}, {}},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(parsed(row.text, row.result), row.cpus) << row.text;
    EXPECT_EQ(lines(), row.messages) << row.text;
  }
  uint64_t mask[VORN_CPUM_MASK_WORDS];
  EXPECT_TRUE(vorn_cpum_parse_cpumask(nullptr, mask) == -1 &&
              vorn_cpum_parse_cpumask("1", nullptr) == -1);
  EXPECT_NO_MESSAGE();
  parsed("x", -1);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_cpu.c", "vorn_cpum_parse_cpumask_as_list",
                     "Parse cpu mask fail, invalid format:x");
  std::fill_n(mask, VORN_CPUM_MASK_WORDS, ~0ul);
  EXPECT_EQ(vorn_cpum_clear_cpumask_of_iod_poll(mask), 0);
  std::transform(mask, std::end(mask), mask, std::bit_not<uint64_t>());
  EXPECT_EQ(cpus_of(mask, 1024), (Cpus{4, 5, 30, 31, 1022}));
  EXPECT_EQ(vorn_cpum_clear_cpumask_of_iod_poll(nullptr), -1);
  EXPECT_EQ(lines(), Lines{"E Cpu mask is null."});
  until_failure = 0;
  EXPECT_EQ(parsed("*/A", -1), Cpus{});
  EXPECT_EQ(lines(), Lines{"E Malloc for partitions fail"});
}

TEST_F(Cpu, TableHoldsCompletePartitions) {
  const auto show = [](int result) {
    return shown::by([result](auto print) { EXPECT_EQ(vorn_cpum_dbg_show(print), result); });
  };
  EXPECT_EQ(show(-1), "Cpu partition is not inited yet\n");
  ASSERT_EQ(load(vorn_cpum_init, product({{"A:1:0", "B:2", "C:-3:1:2", "::"},
                                          {"A:0:1"},
                                          {"A:4294967295:", "long:0:" + std::string(249, '1')},
                                          {},
                                          {"", "A:4z: 5-6", "B:0:7"},
                                          {"A:0:1"},
                                          {"A:0:8"}}) +
                                     "[CPU_PARTITION]\ngroup_num=6\n[GROUP_1]\npartition_num=0\n"
                                     "[GROUP_4]\npartition_num=2\n[GROUP_5]\npartition_num=junk\n"),
            0);
  const std::string fail = "Get cpu partition num fail, GROUP_";
  EXPECT_EQ(lines(), (Lines{fail + "1", fail + "3", fail + "5"}));
  EXPECT_EQ(show(0), "Group            Partition        Type CpuBind\n"
                     "GROUP_0          A                1    0\n"
                     "GROUP_0          C                -3   1:2\n"
                     "GROUP_0                           0    \n"
                     "GROUP_2          A                -1   \n"
                     "GROUP_4          A                4     5-6\n");
  const vorn_cpum_partition_s *partition = vorn_cpum_get_partition("GROUP_4", "A");
  ASSERT_NE(partition, nullptr);
  EXPECT_TRUE(partition->state == 0 && partition->cpubind == std::string(" 5-6"));
  EXPECT_EQ(vorn_cpum_get_partition("GROUP_2", "C"), nullptr);
  EXPECT_NO_MESSAGE();
  EXPECT_TRUE(vorn_cpum_get_partition(nullptr, "A") == nullptr &&
              vorn_cpum_get_partition("GROUP_4", nullptr) == nullptr &&
              vorn_cpum_dbg_show(nullptr) == -1);
}

TEST_F(Cpu, AFailedLoadIsNotRepeated) {
  const std::string parse = "Parse cpu group cfg fail ";
  const std::string good = product({{"A:0:1", "A:0:2"}, {"A:0:3"}});
  const std::string number = "[CPU_PARTITION]\ngroup_num=";
  const std::string missing = "Cpu group cfg " + none + " is not exist, errno:2";
  const struct {
    std::string path;
    std::string content;
    Lines messages;
    Cpus cpus;
    long fails = LONG_MAX; // the allocation that fails
  } rows[] = {
      {none, "", {missing, "Invalid cpu group cfg " + none}, {}},
      {"/", "", {"Load cpu cgroup cfg fail /", parse + "/"}, {}},
      {file, "", {"Get cpu num fail, ret:-1", parse + file}, {}},
      {file, number + "0\n", {"Get cpu num fail, ret:0", parse + file}, {}},
      {file, number + "4294967297\n", {"Get cpu num fail, ret:-1", parse + file}, {}},
      {file, good, {}, {1, 2, 3}},
      {file, good, {"Malloc for group fail"}, {3}, 0},
      {file, good, {}, {1, 3}, 2},
      {file, good, {"Malloc for group fail"}, {1, 2}, 3},
  };
  for (const auto &row : rows) {
    in_child([&] {
      until_failure = row.fails;
      if (row.path == file) scratch::write_file(file, row.content);
      EXPECT_EQ(vorn_cpum_init(row.path.c_str()), row.content == good ? 0 : -1) << row.content;
      EXPECT_EQ(lines(), row.messages);
      EXPECT_EQ(vorn_cpum_init("/no/such/file"), 0);
      EXPECT_EQ(parsed("*/A"), row.cpus);
      EXPECT_NO_MESSAGE();
    });
  }
  until_failure = 3;
  beside_failure = [this] {
    in_child([this] { // during the parent's load
      EXPECT_EQ(vorn_cpum_init(file.c_str()), 0);
      const std::string shown = shown::by(vorn_cpum_dbg_show);
      EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 4) << shown;
    });
  };
  EXPECT_EQ(vorn_cpum_init(file.c_str()), 0);
}

struct ProductFile : CpuFile {
  void SetUp() override {
    if (!scratch::cover_directory("/WRK")) GTEST_SKIP() << scratch::kNoMounts;
  }
  static void make_script(const std::string &commands) {
    const std::string path = "/WRK/component/pyr/script/gen_product_ini.sh";
    scratch::write_file(path, "#!/bin/sh\n" + commands);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    scratch::write_file(kConf + "template", product({{"A:0:1"}}));
  }
};

TEST_F(ProductFile, WithoutItThereAreNoPartitions) {
  make_script("exit 3");
  const Lines failed = {"Generate default cpu group cfg ret:768", "Invalid cpu group cfg (null)"};
  static uint64_t mask[VORN_CPUM_MASK_WORDS];
  for (const auto call : {+[] { return vorn_cpum_init(nullptr); },
                          +[] { return vorn_cpum_clear_cpumask_of_iod_poll(mask); },
                          +[] { return vorn_cpum_get_partition("GROUP_0", "A") ? 0 : -1; }}) {
    in_child([&] {
      EXPECT_EQ(call(), -1);
      EXPECT_EQ(lines(), failed);
      EXPECT_EQ(vorn_cpum_init(nullptr), 0);
      EXPECT_EQ(vorn_cpum_get_partition("GROUP_0", "A"), nullptr);
      EXPECT_NO_MESSAGE();
    });
  }
  EXPECT_EQ(parsed("*/A,2,*/A"), Cpus{2});
  EXPECT_EQ(lines(), (Lines{failed[0], failed[1], kFormat + "*/A"})) << "only the first";
}

TEST_F(ProductFile, IsMadeOnceAndDelaysNoFork) {
  make_script("echo \"$1\" >> /WRK/runs\nuntil test -e /WRK/go; do sleep 0.01; done\n"
              "cp \"$1\"/template \"$1\"/product.ini\nexit 3\n");
  run_threads(5, [](int thread) {
    if (thread != 0) {
      const vorn_cpum_partition_s *partition = vorn_cpum_get_partition("GROUP_0", "A");
      ASSERT_NE(partition, nullptr);
      EXPECT_STREQ(partition->cpubind, "1");
      return;
    }
    for (struct stat state; stat("/WRK/runs", &state) != 0;)
      std::this_thread::yield();
    const auto start = std::chrono::steady_clock::now();
    if (kMayForkBesideClosing && kMayForkBesideAllocation) {
      in_child([] {
        EXPECT_EQ(vorn_cpum_init((kConf + "template").c_str()), 0);
        EXPECT_NE(vorn_cpum_get_partition("GROUP_0", "A"), nullptr);
      });
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    scratch::write_file("/WRK/go", "");
  });
  EXPECT_EQ(scratch::read_file("/WRK/runs"), kConf + "\n");
  EXPECT_EQ(lines(), Lines{"Generate default cpu group cfg ret:768"}) << "the file counts";
}

TEST(Cpufreq, FindsThePoliciesThatCanBeRead) {
  const std::string root = "/sys/devices/system/cpu/cpufreq/";
  if (!scratch::cover_directory("/sys/devices/system/cpu")) GTEST_SKIP() << scratch::kNoMounts;
  EXPECT_EQ(vorn_cpufreq_init(), 0); // a machine without frequencies
  for (const std::string policy : {"policy0", "policy4"}) {
    scratch::write_file(root + policy + "/cpuinfo_min_freq", "200000\n");
    scratch::write_file(root + policy + "/cpuinfo_max_freq", "2600000\n");
  }
  scratch::write_file(root + "policy8/cpuinfo_min_freq", "junk");
  scratch::write_file(root + "boost", "1");
  EXPECT_EQ(vorn_cpufreq_init(), 0);
  Lines texts = capture::take_lines();
  std::sort(texts.begin(), texts.end());
  const std::string range = ": 200000 to 2600000 kHz.";
  EXPECT_EQ(texts, (Lines{"cpufreq policy0" + range, "cpufreq policy4" + range,
                          "cpufreq: 0 policies can be controlled.",
                          "cpufreq: 2 policies can be controlled."}));
}

} // namespace
