// test-links: scrub_objects
// Tests what a run of vorn-scrub does not show: the bounds of its pipeline, its rate limit, and
// reads that fail or meet a change.
// SPDX-License-Identifier: Apache-2.0
#include "pipeline.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "instance.hpp"
#include "scrub.hpp"
#include "support/scratch.hpp"
#include "vorn_init.h"
#include "vorn_sched_work.h"

namespace {

using Clock = std::chrono::steady_clock;
using scrub::Pipeline;
using scrub::Settings;
using std::chrono::milliseconds;

std::atomic<std::size_t> largest_read = 0;

// Called before a read of the file of that inode number. Returns the errno to fail with, or 0.
ino_t watched = 0;
std::function<int()> before_read;

bool fails(int fd) {
  struct stat status {};
  if (watched == 0 || fstat(fd, &status) != 0 || status.st_ino != watched) return false;
  errno = before_read();
  return errno != 0;
}

} // namespace

// Replaces the system's.
extern "C" ssize_t read(int fd, void *buffer, size_t size) {
  if (size > largest_read) largest_read = size;
  return fails(fd) ? -1 : syscall(SYS_read, fd, buffer, size);
}
extern "C" ssize_t pread(int fd, void *buffer, size_t size, off_t offset) {
  return fails(fd) ? -1 : syscall(SYS_pread64, fd, buffer, size, offset);
}

namespace {

// Until the first task is done, there is room for this many blocks and no more.
TEST(ScrubPipeline, StopsTheReaderIfNoBatchIsFree) {
  constexpr std::size_t kMost = Pipeline::kBatches * (scrub::kReadSizeLimit / scrub::kBlockSize);
  for (const unsigned int threads : {1u, 3u}) {
    Pipeline pipeline({.threads = threads});
    std::atomic<std::size_t> added = 0;
    std::size_t most = 0;
    pipeline.run([&] {
      for (std::size_t i = 0; i < 4 * kMost; ++i) {
        pipeline.room();
        pipeline.add_blocks(1);
        pipeline.then([&, i] {
          if (i != 0) return;
          while (added < kMost)
            std::this_thread::yield();
          std::this_thread::sleep_for(milliseconds(20)); // long enough for the reader to add more
          most = added;
        });
        ++added;
      }
    });
    EXPECT_EQ(most, kMost);
    EXPECT_EQ(added, 4 * kMost);
  }
}

// The first failure counts. A task that fails ends the reading, even if the reader waits for the
// rate limit: a megabyte takes a second.
TEST(ScrubPipeline, ThrowsWhatAThreadThrows) {
  const auto fail = [](const char *why) { throw std::runtime_error(why); };
  constexpr std::size_t kMegabyte = 1 << 20;
  for (const Settings &settings : {Settings{}, Settings{.threads = 3},
                                   Settings{.read_size_limit = kMegabyte, .rate_limit = 1}}) {
    const auto expect = [&](const char *why, auto read) {
      Pipeline pipeline(settings);
      const auto started = Clock::now();
      try {
        pipeline.run([&] { read(pipeline); });
        ADD_FAILURE() << "nothing is thrown";
      } catch (const std::exception &failure) {
        EXPECT_STREQ(failure.what(), why);
      }
      EXPECT_LT(Clock::now() - started, std::chrono::seconds(10));
    };
    for (const int count : {0, 1, 10000}) {
      int done = 0;
      expect("reader", [&](Pipeline &pipeline) {
        for (int i = 0; i < count; ++i)
          pipeline.then([&] { ++done; });
        pipeline.room();
        fail("reader");
      });
      EXPECT_EQ(done, count);
    }
    for (const bool reader_fails : {false, true}) {
      expect("task", [&](Pipeline &pipeline) {
        for (int i = 0; i < 1000; ++i) // enough to be passed on without blocks
          pipeline.then([&] { fail("task"); });
        if (reader_fails) fail("reader");
        while (true)
          pipeline.add_blocks(pipeline.room().size());
      });
    }
  }
}

TEST(ScrubPipeline, BindsItsThreadsToAPartition) {
  ASSERT_EQ(vorn_Init(), 0);
  const scratch::Directory directory;
  const std::string product = directory / "product.ini", settings = directory / "s.ini";
  scratch::write_file(product, "[CPU_PARTITION]\ngroup_num=1\n"
                               "[GROUP_0]\npartition_num=1\npartition_0=FIRST:1:0\n");
  scratch::write_file(settings, "[SCRUB]\nCPUS=*/FIRST\nPRODUCT=" + product + "\n");
  Pipeline pipeline(scrub::read_settings(settings));
  cpu_set_t cpus;
  pipeline.run([&cpus] { EXPECT_EQ(sched_getaffinity(0, sizeof cpus, &cpus), 0); });
  EXPECT_TRUE(CPU_COUNT(&cpus) == 1 && CPU_ISSET(0, &cpus));
}

TEST(ScrubRate, IsKeptByUnevenReads) {
  constexpr std::uint64_t kRate = 1'000'000, kSecond = 1'000'000'000, kStart = 7 * kSecond;
  std::uint64_t now = kStart;
  scrub::RateLimit limit(kRate, now);
  std::uint64_t bytes = 0;
  for (std::uint64_t i = 0; i < 10000; ++i) {
    now += i * 7919 % 40 * 1'000'000; // the time of the device, 20 ms on average
    const std::uint64_t size = i * 104729 % 131073;
    bytes += size;
    limit.add(size, now);
    now += limit.delay(now) + i % 50 * 1000; // and the delay of the wake-up
    ASSERT_LE(bytes, (now - kStart) * kRate / kSecond);
  }
  EXPECT_GE(bytes, (now - kStart) / 100 * 99 * kRate / kSecond);
}

TEST(ScrubRate, IsWaitedForAndCountsOtherReads) {
  ASSERT_EQ(vorn_Init(), 0);
  const auto started = Clock::now();
  scrub::FineSleep().sleep(5'500'000);
  Pipeline pipeline({.rate_limit = 1});
  pipeline.charge(300'000);
  pipeline.run([&] { pipeline.room(), pipeline.add_blocks(1); });
  EXPECT_GE(Clock::now() - started, std::chrono::microseconds(305'500));
}

// A file that is larger than all batches together, with so many blocks that some of their lines are
// written before the end of the file; and a file after it.
class ScrubRead : public testing::Test {
protected:
  static constexpr std::size_t kSize = 5 * Pipeline::kBatches * scrub::kReadSizeLimit;

  ScrubRead() {
    EXPECT_EQ(vorn_Init(), 0);
    scrub::prepare_instances(1);
    scratch::write_file(path("z"), "second");
    job_.root = directory_.path();
    job_.paths = {directory_.path(), "m", directory_.path()};
  }
  ~ScrubRead() override { watched = 0; }

  std::string path(const char *name) const { return directory_ / name; }

  // Runs the job, and calls this before that read of a file of this content. Expects the texts in
  // what the job prints.
  void expect(const std::vector<const char *> &texts, scrub::ExitStatus wanted,
              scrub::ExitStatus (*job)(const scrub::Job &), std::function<int()> happens = {},
              const char *name = "large", const std::string &content = std::string(kSize, 'x'),
              int read = Pipeline::kBatches / 2) {
    scratch::write_file(path(name), content);
    struct stat status {};
    EXPECT_EQ(stat(path(name).c_str(), &status), 0);
    watched = status.st_ino;
    before_read = [&, reads = 0]() mutable { return ++reads == read && happens ? happens() : 0; };
    testing::internal::CaptureStdout();
    scrub::Instance("test", [&] { EXPECT_EQ(job(job_), wanted); }).wait();
    watched = 0;
    const std::string printed = testing::internal::GetCapturedStdout();
    for (const char *text : texts)
      EXPECT_NE(printed.find(text), std::string::npos) << "wanted: " << text << "\n" << printed;
  }

  scratch::Directory directory_;
  scrub::Job job_;
};

TEST_F(ScrubRead, FileThatFailsOrChangesIsReportedOnceAndTheRunGoesOn) {
  const auto fails = [] { return EIO; };
  const auto shrinks = [this] { return truncate(path("large").c_str(), 5000); };
  const auto grows = [this] { return truncate(path("large").c_str(), kSize + 1); };
  const char *changed = "SKIPPED     large: changed while it was read\n";
  const struct {
    std::function<int()> happens;
    const char *created;
    scrub::ExitStatus status;
    const char *verified;
  } rows[] = {
      {grows, changed, scrub::kClean, changed},
      {fails, "SKIPPED     large: Input/output error\n", scrub::kDamage,
       "UNREADABLE  large: Input/output error\n"},
      {shrinks, changed, scrub::kClean, changed},
  };
  for (const auto &[happens, created, status, verified] : rows) {
    expect({created, "1 read, 1 skipped"}, scrub::kClean, scrub::create, happens);
    EXPECT_LT(scratch::read_file(path("m")).size(), 1000u) << "lines of its blocks are left";
    expect({}, scrub::kClean, scrub::create);
    expect({verified, "6 (6 B) in 1 block"}, status, scrub::verify, happens);
  }
  for (const unsigned int limit : {4096u, 12288u, 1048576u}) {
    largest_read = 0;
    job_.settings.read_size_limit = limit;
    expect({}, scrub::kClean, scrub::create);
    EXPECT_EQ(largest_read, limit);
  }
}

TEST_F(ScrubRead, WrongBlockIsReadAgainASecondLater) {
  expect({}, scrub::kClean, scrub::create);
  const auto repair = [&] { return scratch::write_file(path("z"), "second"), 0; };
  const std::tuple<std::function<int()>, scrub::ExitStatus, const char *> rows[] = {
      {repair, scrub::kPassingFault, "  passing   1 block right at the second read"},
      {[] { return EIO; }, scrub::kDamage, "2 read, 1 damaged\n"},
      {[&] { return truncate(path("z").c_str(), 5); }, scrub::kDamage, "1 damaged\n"},
  };
  const auto started = Clock::now();
  for (const auto &[happens, status, text] : rows)
    expect({text}, status, scrub::verify, happens, "z", "Second", 2);
  EXPECT_GE(Clock::now() - started, milliseconds(2990));
}

// The supervision sees that all runs have begun at the first tick.
TEST_F(ScrubRead, StallIsWaitedForAndReported) {
  job_.stall = true;
  expect({"\nOVERRUN     "}, scrub::kClean, scrub::create, [] {
    for (unsigned int slot = 0; slot < VORN_SCHED_WORK_THREAD_COUNT; ++slot)
      vorn_update_sched_work_timeout_info(slot, 1, 1, 1);
    return 0;
  });
}

} // namespace
