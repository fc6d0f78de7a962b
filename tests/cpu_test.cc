// test-wraps: vorn_mallocsubproc vorn_mallocsubstandard
#include "vorn_cpu.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "evlog.h"
#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/shown.hpp"
#include "support/threads.hpp"
#include "vorn_cfg.h"
#include "vorn_cpufreq.h"
#include "vorn_jiffies.h"

static int records_before_failure = -1; // none fails
static bool no_bits = false;

extern "C" {
void *__real_vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long flags,
                                unsigned int pid, const char *function, unsigned int line);
void *__wrap_vorn_mallocsubproc(unsigned int size, unsigned int *type, unsigned long flags,
                                unsigned int pid, const char *function, unsigned int line) {
  EXPECT_EQ(pid, 381u);
  if (records_before_failure >= 0 && records_before_failure-- == 0) return nullptr;
  return __real_vorn_mallocsubproc(size, type, flags, pid, function, line);
}

void *__real_vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                                    const char *function, unsigned int line);
void *__wrap_vorn_mallocsubstandard(unsigned int pid, unsigned int size, unsigned long flags,
                                    const char *function, unsigned int line) {
  if (no_bits) return nullptr;
  return __real_vorn_mallocsubstandard(pid, size, flags, function, line);
}
}

namespace {

using Lines = std::vector<std::string>;

constexpr char kConf[] = "/WRK/conf/app_data/kelp/";
constexpr char kScript[] = "/WRK/component/pyr/script/gen_product_ini.sh";

std::string group(int index, const std::vector<std::string> &partitions) {
  std::string text = "[GROUP_" + std::to_string(index) +
                     "]\npartition_num=" + std::to_string(partitions.size()) + "\n";
  for (std::size_t i = 0; i < partitions.size(); ++i)
    text += "partition_" + std::to_string(i) + "=" + partitions[i] + "\n";
  return text;
}

std::string product(const std::vector<std::vector<std::string>> &groups) {
  std::string text = "[CPU_PARTITION]\ngroup_num=" + std::to_string(groups.size()) + "\n";
  for (std::size_t i = 0; i < groups.size(); ++i)
    text += group(static_cast<int>(i), groups[i]);
  return text;
}

// What was logged, without the registry's messages on what is missing.
Lines lines() {
  Lines taken = capture::take_lines();
  std::erase_if(taken, [](const auto &line) {
    return line.starts_with("W Get ItemValue by") || line.starts_with("Can't find section=");
  });
  return taken;
}

int load(const std::string &text) {
  const scratch::Directory folder;
  scratch::write_file(folder / "p.ini", text);
  vorn_get_jiffies(); // the rate limiter's clock opens at its first use, and reports that
  capture::take();
  return vorn_cpum_init((folder / "p.ini").c_str());
}

using Cpus = std::vector<int>;

Cpus cpus_of(const cpu_set_t &set) {
  Cpus cpus;
  for (int cpu = 0; cpu < 1024; ++cpu)
    if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
  return cpus;
}

Cpus parsed(const char *text, int wanted = 0) {
  cpu_set_t set;
  CPU_ZERO(&set);
  EXPECT_EQ(vorn_cpum_parse_cpumask(text, set.__bits), wanted) << (text != nullptr ? text : "");
  return cpus_of(set);
}

TEST(Cpu, ListsOfCpus) {
  const std::string format = "E Parse cpu mask fail, invalid format:";
  const std::string name(31, 'n');
  std::vector<std::string> chain; // C1 to C129, each with its number and the next
  for (int i = 1; i <= 129; ++i)
    chain.push_back("C" + std::to_string(i) + ":0:" + std::to_string(i) + ",*/C" +
                    std::to_string(i + 1));
  ASSERT_EQ(load(product({{"A:0:4-6", "B::9,x", name + "cut:0:7", "N:0:GROUP_1/A,*/B,3"},
                          {"A:0:20", "A:0:21", "A/B:0:30", ":0:31"},
                          {"L:0:40,GROUP_2/M,41", "M:0:42,*/L,*/M,GROUP_9/M,43"},
                          chain})),
            0);
  EXPECT_EQ(lines(), Lines{});
  Cpus to_128(128);
  for (int i = 0; i < 128; ++i)
    to_128[static_cast<std::size_t>(i)] = i + 1;
  const struct {
    std::string text;
    int result;
    Cpus cpus;
    Lines records;
  } rows[] = {
      {"0,2- 4, 70", 0, {0, 2, 3, 4, 70}, {}},
      {"1022-2000", 0, {1022, 1023}, {}},
      {"1023-4294967295", 0, {1023}, {}},
      {"1024", 0, {}, {}},
      {"2000-3000,99999999999,1024-4294967295", 0, {}, {}},
      {"8-4", -1, {}, {"E Parse cpu mask 8-4 fail, end:4 is less than start:8"}},
      {"2000-1999", -1, {}, {"E Parse cpu mask 2000-1999 fail, end:1999 is less than start:2000"}},
      {"A,,5,-6,", 0, {5}, {format + "A", format, format + "-6", format}},
      {"3--5", -1, {}, {format + "3--5"}},
      {"3- -5", -1, {}, {format + "3- -5"}},
      {"3-x,6-,8 9", 0, {3, 6, 8}, {}},
      {"", -1, {}, {format}},
      {"*/A", 0, {4, 5, 6, 20, 21}, {}},
      {"GROUP_0/A,1", 0, {1, 4, 5, 6}, {}},
      {"GROUP_1/A/B", 0, {30}, {}},
      {"*/Z", 0, {}, {}},
      {"GROUP_10/A", 0, {}, {}},
      {"*/" + name, 0, {7}, {}},
      {"*/" + name + "cut", 0, {}, {}},
      {"GROUP_0/,/A", -1, {}, {format + "GROUP_0/", format + "/A"}},
      {std::string(32, 'g') + "/A", 0, {}, {}},
      {std::string(33, 'g') + "/A", -1, {}, {format + std::string(33, 'g') + "/A"}},
      {"GROUP_0/B,*/B", 0, {9}, {format + "x"}},
      {"*/N", 0, {3, 9, 20, 21}, {format + "x"}},
      {"*/M", 0, {40, 41, 42, 43}, {"E Parse cpu mask fail, GROUP_2/M refers to itself."}},
      {"*/C1", 0, to_128, {"E Parse cpu mask fail, GROUP_3/C129 is referred to too deeply."}},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(parsed(row.text.c_str(), row.result), row.cpus) << row.text;
    EXPECT_EQ(lines(), row.records);
  }
  EXPECT_EQ(parsed(nullptr, -1), Cpus{});
  EXPECT_EQ(vorn_cpum_parse_cpumask("1", nullptr), -1);
  EXPECT_NO_RECORD();
  uint64_t mask[VORN_CPUM_MASK_WORDS] = {1ul << 9};
  vorn_cpum_parse_cpumask("0,x", mask);
  EXPECT_EQ(mask[0], 0x201u);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_cpu.c", "vorn_cpum_parse_cpumask_as_list",
                    "Parse cpu mask fail, invalid format:x");
  no_bits = true;
  EXPECT_EQ(parsed("*/A", -1), Cpus{});
  EXPECT_EQ(parsed("*/A,2"), Cpus{2});
}

// Where every partition refers to all, the ways through them are without number.
TEST(Cpu, MeetingReferencesAreFollowedOnce) {
  ASSERT_EQ(load(product(std::vector<std::vector<std::string>>(
                64, {"P:0:5,*/P", "Q:0:*/R,*/R,*/R", "R:0:*/S,*/S,*/S", "S:0:6,*/T", "T:0:*/Q"}))),
            0);
  EXPECT_EQ(parsed("*/P"), Cpus{5});
  EXPECT_EQ(lines(), Lines{"E Parse cpu mask fail, GROUP_0/P refers to itself."});
  EXPECT_EQ(parsed("*/Q"), Cpus{6});
  EXPECT_EQ(lines(), Lines{"E Parse cpu mask fail, GROUP_0/Q refers to itself."});
}

TEST(Cpu, TableHoldsWhatIsWhole) {
  EXPECT_EQ(shown::by([](vorn_print_f print) { EXPECT_EQ(vorn_cpum_dbg_show(print), -1); }),
            "Cpu partition is not inited yet\n");
  ASSERT_EQ(load("[CPU_PARTITION]\ngroup_num=6\n" + group(0, {"A:1:0", "B:2", "C:-3:1:2", "::"}) +
                 "[GROUP_1]\npartition_num=0\npartition_0=A:0:1\n" +
                 group(2, {"A:4294967295:", "long:0:" + std::string(249, '1')}) +
                 "[GROUP_4]\npartition_num=2\npartition_1=A:4z: "
                 "5-6\npartition_2=B:0:7\n[GROUP_5]\npartition_num=junk\n" +
                 group(6, {"A:0:8"})),
            0);
  const Lines records = lines();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0], "Get cpu partition num fail, GROUP_1");
  EXPECT_TRUE(records[1].starts_with("E Invalid Buffer size, inputSize(256)")) << records[1];
  EXPECT_EQ(records[2], "Get cpu partition num fail, GROUP_3");
  EXPECT_EQ(records[3], "Get cpu partition num fail, GROUP_5");
  EXPECT_EQ(shown::by(vorn_cpum_dbg_show), "Group            Partition        Type CpuBind\n"
                                           "GROUP_0          A                1    0\n"
                                           "GROUP_0          C                -3   1:2\n"
                                           "GROUP_0                           0    \n"
                                           "GROUP_2          A                -1   \n"
                                           "GROUP_4          A                4     5-6\n");
  const vorn_cpum_partition_s *partition = vorn_cpum_get_partition("GROUP_4", "A");
  ASSERT_NE(partition, nullptr);
  EXPECT_STREQ(partition->cpubind, " 5-6");
  EXPECT_EQ(partition->state, 0u);
  EXPECT_EQ(vorn_cpum_get_partition("GROUP_2", "C"), nullptr);
  EXPECT_EQ(vorn_cpum_get_partition("GROUP_1", "A"), nullptr);
  EXPECT_NO_RECORD();
  EXPECT_EQ(vorn_cpum_get_partition(nullptr, "A"), nullptr);
  EXPECT_EQ(vorn_cpum_get_partition("GROUP_4", nullptr), nullptr);
  EXPECT_EQ(vorn_cpum_dbg_show(nullptr), -1);
  EXPECT_EQ(lines().size(), 3u);
}

TEST(Cpu, PollingCpusAreTakenOut) {
  ASSERT_EQ(load(product({{"IOD_NORMAL:0:4-11", "IOD_NORMAL:0:20-21", "IOD_NORMAL:0:30-32,40-50",
                           "IOD:0:60-70", "IOD_NORMAL:0:80", "IOD_NORMAL:0:90-80"},
                          {"IOD_NORMAL:0:1022-1030", "IOD_NORMAL:0:4294967294-4294967295",
                           "IOD_NORMAL:0:100-102", "IOD_NORMAL:0:110--5"}})),
            0);
  cpu_set_t set;
  std::fill_n(set.__bits, VORN_CPUM_MASK_WORDS, ~0ul);
  EXPECT_EQ(vorn_cpum_clear_cpumask_of_iod_poll(set.__bits), 0);
  Cpus missing;
  for (int cpu = 0; cpu < 1024; ++cpu)
    if (!CPU_ISSET(cpu, &set)) missing.push_back(cpu);
  EXPECT_EQ(missing, (Cpus{4, 5, 30, 31, 100, 101, 1022}));
  EXPECT_EQ(vorn_cpum_clear_cpumask_of_iod_poll(nullptr), -1);
  EXPECT_EQ(lines(), Lines{"E Cpu mask is null."});
}

TEST(Cpu, AFailedLoadCounts) {
  const scratch::Directory folder;
  const std::string file = folder / "p.ini";
  const std::string parse = "Parse cpu group cfg fail " + file;
  const std::string good = product({{"A:0:1", "B:0:2"}, {"A:0:3"}});
  const std::string head =
      "GROUP_0          A                0    1\nGROUP_0          B                0    2\n";
  const std::string tail = "GROUP_1          A                0    3\n";
  const struct {
    std::string content;
    int fails; // the record that there is no memory for
    int result;
    Lines records;
    std::string shown;
  } rows[] = {
      {"", -1, -1, {"Get cpu num fail, ret:-1", parse}, ""},
      {"[CPU_PARTITION]\ngroup_num=0\n", -1, -1, {"Get cpu num fail, ret:0", parse}, ""},
      {"[CPU_PARTITION]\ngroup_num=-7\n", -1, -1, {"Get cpu num fail, ret:-7", parse}, ""},
      {"[CPU_PARTITION]\ngroup_num=4294967297\n", -1, -1, {"Get cpu num fail, ret:-1", parse}, ""},
      {good, -1, 0, {}, head + tail},
      {good, 0, 0, {"Malloc for group fail"}, tail},
      {good, 2, 0, {}, "GROUP_0          A                0    1\n" + tail},
      {good, 3, 0, {"Malloc for group fail"}, head},
  };
  vorn_get_jiffies();
  for (const auto &row : rows) {
    scratch::write_file(file, row.content);
    EXPECT_EQ(run_in_child([&] {
                capture::take();
                records_before_failure = row.fails;
                EXPECT_EQ(vorn_cpum_init(file.c_str()), row.result);
                EXPECT_EQ(lines(), row.records);
                EXPECT_EQ(vorn_cpum_init("/no/such/file"), 0);
                EXPECT_NO_RECORD();
                const std::string shown = shown::by(vorn_cpum_dbg_show);
                EXPECT_EQ(shown.substr(shown.find('\n') + 1), row.shown);
                return static_cast<int>(testing::Test::HasFailure());
              }),
              0)
        << row.content;
  }
  EXPECT_EQ(run_in_child([&] {
              capture::take();
              EXPECT_EQ(vorn_cpum_init("/"), -1);
              const Lines records = lines();
              EXPECT_EQ(Lines(records.end() - 2, records.end()),
                        (Lines{"Load cpu cgroup cfg fail /", "Parse cpu group cfg fail /"}));
              return static_cast<int>(testing::Test::HasFailure());
            }),
            0);
  capture::take();
  const std::string none = folder / "none";
  EXPECT_EQ(vorn_cpum_init(none.c_str()), -1);
  EXPECT_EQ(lines(), (Lines{"Cpu group cfg " + none + " is not exist, errno:2",
                            "Invalid cpu group cfg " + none}));
}

struct ProductFile : testing::Test {
  void SetUp() override {
    if (!scratch::cover_directory("/WRK")) GTEST_SKIP() << scratch::kNoMounts;
    vorn_get_jiffies();
    capture::take();
  }
  static void make_script(const std::string &commands) {
    scratch::write_file(kScript, "#!/bin/sh\n" + commands);
    ASSERT_EQ(chmod(kScript, 0755), 0);
    scratch::write_file(std::string(kConf) + "template", product({{"A:0:1"}}));
  }
};

TEST_F(ProductFile, ThatCannotBeMadeMeansNoPartitions) {
  make_script("exit 3");
  const std::function<int()> first[] = {
      [] { return vorn_cpum_init(nullptr); },
      [] { return vorn_cpum_get_partition("GROUP_0", "A") == nullptr ? -1 : 0; },
      [] {
        uint64_t mask[VORN_CPUM_MASK_WORDS] = {~0ul};
        const int result = vorn_cpum_clear_cpumask_of_iod_poll(mask);
        return mask[0] == ~0ul ? result : 1;
      },
  };
  for (const auto &call : first) {
    EXPECT_EQ(run_in_child([&call] {
                EXPECT_EQ(call(), -1);
                EXPECT_EQ(lines(), (Lines{"Generate default cpu group cfg ret:768",
                                          "Invalid cpu group cfg (null)"}));
                EXPECT_EQ(vorn_cpum_init(nullptr), 0);
                EXPECT_EQ(vorn_cpum_get_partition("GROUP_0", "A"), nullptr);
                EXPECT_NO_RECORD();
                return static_cast<int>(testing::Test::HasFailure());
              }),
              0);
  }
  EXPECT_EQ(parsed("*/A,2,*/A"), Cpus{2});
  EXPECT_EQ(lines().back(), "E Parse cpu mask fail, invalid format:*/A") << "only the first";
}

TEST_F(ProductFile, IsMadeOnceAndFoundByEveryThread) {
  make_script("echo \"$1\" >> /WRK/runs\ncp \"$1\"/template \"$1\"/product.ini\nexit 3\n");
  run_threads(4, [](int) {
    const vorn_cpum_partition_s *partition = vorn_cpum_get_partition("GROUP_0", "A");
    ASSERT_NE(partition, nullptr);
    EXPECT_STREQ(partition->cpubind, "1");
  });
  EXPECT_EQ(scratch::read_file("/WRK/runs"), std::string(kConf) + "\n");
  EXPECT_EQ(lines(), Lines{"Generate default cpu group cfg ret:768"}) << "the file counts";
}

TEST_F(ProductFile, ScriptHoldsUpNoFork) {
  if (!kMayForkBesideClosing || !kMayForkBesideAllocation) GTEST_SKIP();
  make_script("touch /WRK/runs\nuntil test -e /WRK/go; do sleep 0.01; done\nexit 1\n");
  std::thread loader([] { EXPECT_EQ(vorn_cpum_init(nullptr), -1); });
  struct stat state;
  while (stat("/WRK/runs", &state) != 0)
    std::this_thread::yield();
  const auto start = std::chrono::steady_clock::now();
  const int result = run_in_child([] {
    if (vorn_cpum_init("/WRK/conf/app_data/kelp/template") != 0) return 1;
    return vorn_cpum_get_partition("GROUP_0", "A") != nullptr ? 0 : 2;
  });
  EXPECT_EQ(result, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
  scratch::write_file("/WRK/go", "");
  loader.join();
}

TEST(Cpufreq, FindsThePoliciesThatCanBeRead) {
  const std::string root = "/sys/devices/system/cpu/cpufreq/";
  if (!scratch::cover_directory("/sys/devices/system/cpu")) GTEST_SKIP() << scratch::kNoMounts;
  EXPECT_EQ(vorn_cpufreq_init(), 0); // a machine that offers none

  for (const std::string policy : {"policy0", "policy4"}) {
    scratch::write_file(root + policy + "/cpuinfo_min_freq", "200000\n");
    scratch::write_file(root + policy + "/cpuinfo_max_freq", "2600000\n");
  }
  scratch::write_file(root + "policy8/cpuinfo_min_freq", "junk");
  scratch::write_file(root + "boost", "1");
  EXPECT_EQ(vorn_cpufreq_init(), 0);
  auto texts = capture::take_lines();
  std::sort(texts.begin(), texts.end());
  const std::string range = ": 200000 to 2600000 kHz.";
  EXPECT_EQ(texts, (std::vector<std::string>{"cpufreq policy0" + range, "cpufreq policy4" + range,
                                             "cpufreq: 0 policies can be controlled.",
                                             "cpufreq: 2 policies can be controlled."}));
}

} // namespace
