// test-links: scrub_objects
// Tests the pipeline of vorn-scrub: order, bounds, and failures in each of its threads.
// SPDX-License-Identifier: Apache-2.0
#include "instance.hpp"
#include "pipeline.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "scrub.hpp"
#include "support/scratch.hpp"
#include "vorn_init.h"
#include "vorn_sched_work.h"

namespace {

using scrub::Pipeline;

// Called before a read of the file of that inode number. Returns the errno to fail with, or 0.
ino_t watched = 0;
std::function<int(int fd)> before_read;

bool fails(int fd) {
  struct stat status {};
  if (watched == 0 || fstat(fd, &status) != 0 || status.st_ino != watched) return false;
  errno = before_read(fd);
  return errno != 0;
}

} // namespace

// Replaces the system's.
extern "C" ssize_t read(int fd, void *buffer, size_t size) {
  return fails(fd) ? -1 : syscall(SYS_read, fd, buffer, size);
}
extern "C" ssize_t pread(int fd, void *buffer, size_t size, off_t offset) {
  return fails(fd) ? -1 : syscall(SYS_pread64, fd, buffer, size, offset);
}

namespace {

void expect_checked(const scrub::Blocks &blocks, const std::string &bytes) {
  ASSERT_EQ(blocks.bytes, bytes.size());
  ASSERT_EQ(blocks.checksums.size(), scrub::block_count(bytes.size()));
  const auto all = std::as_bytes(std::span(bytes));
  for (std::size_t i = 0; i < blocks.checksums.size(); ++i) {
    const auto block = all.subspan(i * scrub::kBlockSize, scrub::block_length(bytes.size(), i));
    ASSERT_EQ(blocks.checksums[i], scrub::checksums_of(block)) << "block " << i;
  }
}

constexpr std::size_t kBlocksPerBatch = scrub::kReadSizeLimit / scrub::kBlockSize;

// The parameter is the number of checksum threads.
class PipelineOf : public testing::TestWithParam<unsigned int> {
protected:
  const scrub::Settings settings_{.threads = GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Threads, PipelineOf, testing::Values(1, 3));

TEST_P(PipelineOf, KeepsBlocksAndTasksInOrderManyTimesRound) {
  constexpr std::size_t kCount = 20 * Pipeline::kBatches;
  Pipeline pipeline(settings_);
  std::size_t done = 0;
  pipeline.run([&] {
    for (std::size_t number = 0; number < kCount; ++number) {
      if (number % 3 == 0) {
        pipeline.then([&done, number] { EXPECT_EQ(done++, number); });
        continue;
      }
      const std::span<std::byte> room = pipeline.room();
      ASSERT_GE(room.size(), scrub::kBlockSize);
      // Their number and their content identify them.
      const std::string bytes(number * 4099 % (room.size() + 1), static_cast<char>(number));
      std::memcpy(room.data(), bytes.data(), bytes.size());
      pipeline.then([&done, number, bytes, blocks = pipeline.add_blocks(bytes.size())] {
        EXPECT_EQ(done++, number);
        expect_checked(blocks, bytes);
      });
    }
  });
  EXPECT_EQ(done, kCount);
}

// Until the first task is done, there is room for this many blocks and no more.
TEST_P(PipelineOf, StopsTheReaderWhenNothingIsTakenFromIt) {
  constexpr std::size_t kMost = Pipeline::kBatches * kBlocksPerBatch;
  Pipeline pipeline(settings_);
  std::atomic<std::size_t> added = 0;
  std::size_t ahead = 0;
  pipeline.run([&] {
    for (std::size_t i = 0; i < 4 * kMost; ++i) {
      pipeline.room();
      pipeline.add_blocks(1);
      pipeline.then([&, i] {
        if (i != 0) return;
        while (added < kMost)
          std::this_thread::yield();
        // Long enough for the reader to add more.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ahead = added;
      });
      ++added;
    }
  });
  EXPECT_EQ(ahead, kMost);
  EXPECT_EQ(added, 4 * kMost);
}

std::string what_run_throws(Pipeline &pipeline, const scrub::Task &read) {
  try {
    pipeline.run(read);
  } catch (const std::exception &failure) {
    return failure.what();
  }
  return "nothing";
}

TEST_P(PipelineOf, ThrowsWhatTheReaderThrowsBehindAllThatItPassedOn) {
  for (const unsigned int count : {0u, 1u, 10000u}) {
    Pipeline pipeline(settings_);
    unsigned int done = 0;
    const auto read = [&] {
      for (unsigned int i = 0; i < count; ++i)
        pipeline.then([&] { ++done; });
      pipeline.room();
      throw std::runtime_error("reader");
    };
    EXPECT_EQ(what_run_throws(pipeline, read), "reader");
    EXPECT_EQ(done, count);
  }
}

// The first failure counts, even if the reader fails after it.
TEST_P(PipelineOf, EndsTheReadingWhenATaskThrows) {
  for (const bool reader_fails : {false, true}) {
    Pipeline pipeline(settings_);
    const auto read = [&] {
      pipeline.then([] { throw std::runtime_error("task"); });
      if (reader_fails) throw std::runtime_error("reader");
      while (true)
        pipeline.then([] {});
    };
    EXPECT_EQ(what_run_throws(pipeline, read), "task");
  }
}

// A file that is larger than all batches together, with so many blocks that some of their lines are
// written before the end of the file; and a file after it.
class ScrubRead : public testing::Test {
protected:
  static constexpr std::size_t kSize = 5 * Pipeline::kBatches * scrub::kReadSizeLimit;

  ScrubRead() {
    EXPECT_EQ(vorn_Init(), 0);
    scrub::prepare_instances(1);
    scratch::write_file(path("z"), "behind");
    job_.root = directory_.path();
    job_.paths = {directory_.path(), "m", directory_.path()};
  }
  ~ScrubRead() override { watched = 0; }

  std::string path(const char *name) const { return directory_ / name; }

  // Returns what the job prints if this is called before that read of a file of this content.
  std::string output(scrub::ExitStatus (*job)(const scrub::Job &), scrub::ExitStatus wanted,
                     std::function<int(int fd)> happens, const char *name = "large",
                     const std::string &content = std::string(kSize, 'x'),
                     int read = Pipeline::kBatches / 2) {
    scratch::write_file(path(name), content);
    struct stat status {};
    EXPECT_EQ(stat(path(name).c_str(), &status), 0);
    watched = status.st_ino;
    before_read = [&, reads = 0](int fd) mutable { return ++reads == read ? happens(fd) : 0; };
    testing::internal::CaptureStdout();
    scrub::Instance("test", [&] { EXPECT_EQ(job(job_), wanted); }).wait();
    watched = 0;
    return testing::internal::GetCapturedStdout();
  }

  scratch::Directory directory_;
  scrub::Job job_;
};

#define EXPECT_CONTAINS(text, part)                                                                \
  EXPECT_NE((text).find(part), std::string::npos) << "wanted: " << (part) << "\n" << (text)

TEST_F(ScrubRead, AFileThatFailsOrChangesIsReportedOnceAndTheRunGoesOn) {
  const auto fails = [](int) { return EIO; };
  const auto shrinks = [this](int) { return truncate(path("large").c_str(), 5000); };
  const auto grows = [this](int) { return truncate(path("large").c_str(), kSize + 1); };
  const char *changed = "SKIPPED     large: changed while it was read\n";
  const struct {
    std::function<int(int fd)> happens;
    const char *created;
    scrub::ExitStatus status;
    const char *verified;
  } rows[] = {
      {grows, changed, scrub::kClean, changed},
      {fails, "SKIPPED     large: Input/output error\n", scrub::kDamage,
       "UNREADABLE  large: Input/output error\n"},
      {shrinks, changed, scrub::kClean, changed},
  };
  for (const auto &row : rows) {
    const std::string created = output(scrub::create, scrub::kClean, row.happens);
    EXPECT_CONTAINS(created, row.created);
    EXPECT_CONTAINS(created, "1 read, 1 skipped");
    EXPECT_LT(scratch::read_file(path("m")).size(), 1000u) << "lines of its blocks are left";
    output(scrub::create, scrub::kClean, [](int) { return 0; });
    const std::string verified = output(scrub::verify, row.status, row.happens);
    EXPECT_CONTAINS(verified, row.verified);
    EXPECT_CONTAINS(verified, "6 (6 B) in 1 block");
  }
}

TEST_F(ScrubRead, WhatIsWrongIsReadOnceMoreASecondLater) {
  output(scrub::create, scrub::kClean, [](int) { return 0; });
  const auto repair = [&](int) { return scratch::write_file(path("z"), "behind"), 0; };
  const std::tuple<std::function<int(int)>, scrub::ExitStatus, const char *> rows[] = {
      {repair, scrub::kPassingFault, "  passing   1 block right at the second read alone\n"},
      {[](int) { return EIO; }, scrub::kDamage, "2 read, 1 damaged\n"},
      {[&](int) { return truncate(path("z").c_str(), 5); }, scrub::kDamage, "1 damaged\n"},
  };
  const auto started = std::chrono::steady_clock::now();
  for (const auto &[happens, status, text] : rows)
    EXPECT_CONTAINS(output(scrub::verify, status, happens, "z", "Behind", 2), text);
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(2990));
}

// The supervision sees that all runs have begun at the first tick.
TEST_F(ScrubRead, AStallIsWaitedForAndTold) {
  job_.stall = true;
  const auto age = [](int) {
    for (unsigned int slot = 0; slot < VORN_SCHED_WORK_THREAD_COUNT; ++slot)
      vorn_update_sched_work_timeout_info(slot, 1, 1, 1);
    return 0;
  };
  EXPECT_CONTAINS(output(scrub::create, scrub::kClean, age), "\nOVERRUN     ");
}

} // namespace
