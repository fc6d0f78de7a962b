// test-links: scrub_objects
// Tests the settings of vorn-scrub: what a file may say, and what a run does with it.
// SPDX-License-Identifier: Apache-2.0
#include "settings.hpp"

#include <atomic>
#include <chrono>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "instance.hpp"
#include "pipeline.hpp"
#include "rate_limit.hpp"
#include "scrub.hpp"
#include "support/scratch.hpp"
#include "vorn_init.h"

namespace {

using scrub::RateLimit;
using scrub::Settings;

constexpr std::uint64_t kSecond = 1'000'000'000;
std::atomic<std::size_t> largest_read = 0;

} // namespace

// Replaces the system's.
extern "C" ssize_t read(int fd, void *buffer, size_t size) {
  if (size > largest_read) largest_read = size;
  return syscall(SYS_read, fd, buffer, size);
}

namespace {

class SettingsFile : public testing::Test {
protected:
  // Returns the values in one line, or why they are refused.
  std::string outcome(const std::string &content) const {
    scratch::write_file(path_, content);
    try {
      const Settings settings = scrub::read_settings(path_);
      return std::to_string(settings.read_size_limit) + " " + std::to_string(settings.threads) +
             " " + std::to_string(settings.rate_limit) + " " + std::to_string(settings.nice) + " " +
             settings.cpus;
    } catch (const std::runtime_error &why) {
      return why.what();
    }
  }

  scratch::Directory directory_;
  const std::string path_ = directory_ / "s.ini";
};

TEST_F(SettingsFile, SetsWhatItSaysAndLeavesTheRest) {
  const struct {
    const char *content, *values;
  } rows[] = {
      {"[SCRUB]\nREAD_SIZE_LIMIT=4096\nTHREADS=1\nRATE_LIMIT=0\n", "4096 1 0 0 0-1023"},
      {"[SCRUB]\nREAD_SIZE_LIMIT=1048576\nTHREADS=16\nRATE_LIMIT=100000",
       "1048576 16 100000 0 0-1023"},
      {"\r\n; of us\r\n[SCRUB]\r\n\t RATE_LIMIT = 20 \r\nNICE=19\nCPUS=1,4-7\r\n",
       "131072 1 20 19 1,4-7"},
      {"[OTHER]\nTHREADS=9\nCOLOUR=red\n[SCRUB]\nTHREADS=2\n[MORE]\nno item\n",
       "131072 2 0 0 0-1023"},
  };
  for (const auto &row : rows)
    EXPECT_EQ(outcome(row.content), row.values) << row.content;
}

TEST_F(SettingsFile, NamesPartitionsOfAProductFile) {
  const std::string product = "[SCRUB]\nPRODUCT=" VORN_SAMPLE_PRODUCT "\n";
  EXPECT_EQ(outcome(product + "CPUS=GROUP_1/IDLE,*/CTRL\n"), "131072 1 0 0 GROUP_1/IDLE,*/CTRL");
  EXPECT_NE(outcome(product + "CPUS=GROUP_2/CTRL\n").find("CPUS is 'GROUP_2/CTRL'"),
            std::string::npos);
}

TEST_F(SettingsFile, BindsThreadsToAPartition) {
  ASSERT_EQ(vorn_Init(), 0);
  scratch::write_file(directory_ / "product.ini",
                      "[CPU_PARTITION]\ngroup_num=1\n"
                      "[GROUP_0]\npartition_num=1\npartition_0=FIRST:1:0\n");
  scratch::write_file(path_,
                      "[SCRUB]\nCPUS=*/FIRST\nPRODUCT=" + (directory_ / "product.ini") + "\n");
  scrub::Pipeline pipeline(scrub::read_settings(path_));
  cpu_set_t cpus;
  pipeline.run([&cpus] { EXPECT_EQ(sched_getaffinity(0, sizeof cpus, &cpus), 0); });
  EXPECT_EQ(CPU_COUNT(&cpus), 1);
  EXPECT_TRUE(CPU_ISSET(0, &cpus));
}

TEST_F(SettingsFile, RefusesFilesWithoutPartitionsOrNodes) {
  for (const auto &[name, what] : {std::pair{"PRODUCT", "partitions"}, {"NUMA", "NUMA nodes"}})
    EXPECT_NE(outcome("[SCRUB]\n" + std::string(name) + "=" + path_ + "\n")
                  .find(std::string("', which has no ") + what),
              std::string::npos);
}

TEST_F(SettingsFile, IsRefusedWithTheReason) {
  const struct {
    std::string content;
    const char *why;
  } rows[] = {
      {"THREADS=2\n[SCRUBBER]\nTHREADS=2\n; [SCRUB]\n", "there is no section [SCRUB]"},
      {"[SCRUB]\n\nTHREAD=2\n", "line 3: there is no setting THREAD"},
      {"[SCRUB]\nTHREADS 2\n", "line 2: neither NAME=value nor a comment, which begins with ';'"},
      {"[SCRUB]\nTHREADS=\n", "THREADS is '', wanted: 1 to 16"},
      {"[SCRUB]\nTHREADS=17\n", "THREADS is '17', wanted: 1 to 16"},
      {"[SCRUB]\nTHREADS=" + std::string(1000, '1'), "THREADS is too long, wanted: 1 to 16"},
      {"[SCRUB]\nREAD_SIZE_LIMIT=5000\n",
       "READ_SIZE_LIMIT is '5000', wanted: 4096 to 1048576, a multiple of 4096"},
      {"[SCRUB]\nCPUS=all\n",
       "CPUS is 'all', wanted: numbers, ranges and partitions, as 0-3,GROUP_0/CTRL"},
  };
  for (const auto &row : rows)
    EXPECT_EQ(outcome(row.content), "settings " + path_ + ": " + row.why);

  EXPECT_THROW(scrub::read_settings(directory_ / "missing.ini"), std::runtime_error);
  EXPECT_THROW(scrub::read_settings(directory_.path()), std::runtime_error);
}

// The sample has every setting with its default.
TEST_F(SettingsFile, TheSampleHoldsTheDefaults) {
  std::string content = scratch::read_file(VORN_SAMPLE_SETTINGS);
  EXPECT_EQ(outcome(content), outcome("[SCRUB]\n"));
  for (const auto &[from, to] :
       {std::pair("=131072", "=8192"), std::pair("=1\n", "=5\n"), std::pair("=0\n", "=6\n")})
    content.replace(content.find(from), std::string(from).size(), to);
  EXPECT_EQ(outcome(content), "8192 5 6 0 0-1023");
}

TEST(ReadRate, NeverAllowsMoreThanTheRateInARunOfUnevenReads) {
  constexpr std::uint64_t kRate = 1'000'000;
  std::uint64_t now = 7 * kSecond;
  const std::uint64_t start = now;
  RateLimit limit(kRate, now);
  std::uint64_t bytes = 0;
  for (std::uint64_t i = 0; i < 10000; ++i) {
    now += i * 7919 % 40 * 1'000'000; // the time of the device, 20 ms on average
    const std::uint64_t size = i * 104729 % 131073;
    bytes += size;
    limit.add(size, now);
    now += limit.delay(now) + i % 50 * 1000; // and the delay of the wake-up
    ASSERT_LE(bytes, (now - start) * kRate / kSecond);
  }
  EXPECT_GE(bytes, (now - start) / 100 * 99 * kRate / kSecond);
  EXPECT_EQ(RateLimit(0, start).delay(start), 0u);
}

TEST(ScrubWith, AnySettingsTheManifestIsTheSameAndNoReadTooLarge) {
  ASSERT_EQ(vorn_Init(), 0);
  constexpr std::size_t kLarge = 3'000'000;
  constexpr std::uint64_t kRate = 20; // MB a second
  const scratch::Directory directory;
  std::string content;
  for (std::size_t i = 0; i < kLarge; ++i)
    content += static_cast<char>(i * i >> 7);
  scratch::write_file(directory / "tree/large", content);
  for (std::size_t i = 0; i < 100; ++i)
    scratch::write_file(directory / ("tree/" + std::to_string(i)), content.substr(i, i * 97));
  const auto run = [&](scrub::ExitStatus (*job)(const scrub::Job &), const Settings &settings) {
    testing::internal::CaptureStdout();
    const scrub::Job tree{directory / "tree", {directory.path(), "m", directory.path()}, settings};
    scrub::Instance("tree", [&] { EXPECT_EQ(job(tree), scrub::kClean); }).wait();
    testing::internal::GetCapturedStdout();
  };

  scrub::prepare_instances(1);
  const auto started = std::chrono::steady_clock::now();
  run(scrub::create, {.rate_limit = kRate});
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::microseconds(kLarge / kRate));
  const std::string manifest = scratch::read_file(directory / "m");
  for (const auto &[limit, threads] : {std::pair{4096u, 1u}, {12288u, 3u}, {1048576u, 4u}}) {
    largest_read = 0;
    run(scrub::create, {.read_size_limit = limit, .threads = threads});
    EXPECT_EQ(largest_read, limit);
    EXPECT_EQ(scratch::read_file(directory / "m"), manifest);
    run(scrub::verify, {.threads = threads});
  }
}

TEST(RateWait, IsNeverShortAndCountsWhatIsReadElsewhere) {
  ASSERT_EQ(vorn_Init(), 0);
  const auto started = std::chrono::steady_clock::now();
  scrub::FineSleep().sleep(5'500'000);
  scrub::Pipeline pipeline({.rate_limit = 1});
  pipeline.charge(300'000);
  pipeline.run([&] { pipeline.room(), pipeline.add_blocks(1); });
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::microseconds(305'500));
}

// A megabyte takes a second at this rate. No batch waits for the rate after the end of the run.
TEST(RateWait, EndsWithTheRun) {
  ASSERT_EQ(vorn_Init(), 0);
  const auto started = std::chrono::steady_clock::now();
  constexpr std::size_t kMegabyte = 1 << 20;
  scrub::Pipeline pipeline({.read_size_limit = kMegabyte, .rate_limit = 1});
  const auto read_all = [&pipeline] {
    for (int i = 0; i < 1000; ++i) // enough to be passed on without blocks
      pipeline.then([] { throw std::runtime_error("task"); });
    for (int i = 0; i < 100; ++i) {
      pipeline.room();
      pipeline.add_blocks(kMegabyte);
    }
  };
  EXPECT_THROW(pipeline.run(read_all), std::runtime_error);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
}

} // namespace
