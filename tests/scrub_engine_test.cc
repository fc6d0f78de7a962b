// test-links: scrub_objects
// Tests what a script cannot show of vorn-scrub: reads that fail, change or hang, files that change
// between reads, the ways of reading, and the parts of a manifest.
// SPDX-License-Identifier: Apache-2.0
#include "engine.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "console.hpp"
#include "damaged_list.hpp"
#include "instance.hpp"
#include "moves.hpp"
#include "pace.hpp"
#include "report.hpp"
#include "scrub.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
#include "vorn_init.h"
#include "window.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Called before a read of the file of that inode number, with the number of the read. Returns the
// errno to fail with, or 0.
std::atomic<ino_t> watched = 0;
std::atomic<int> reads = 0;
std::function<int(int)> before_read;
std::atomic<int> wrong_reads = 0; // so many reads of the file return a wrong byte
std::atomic<std::size_t> largest_read = 0;
std::atomic<bool> refuse_direct = false; // when a file is opened

} // namespace

// Replace the system's.
extern "C" ssize_t pread(int fd, void *buffer, size_t size, off_t offset) {
  struct stat status {};
  if (watched != 0 && fstat(fd, &status) == 0 && status.st_ino == watched) {
    if (size > largest_read) largest_read = size;
    errno = before_read(++reads);
    if (errno != 0) return -1;
  }
  const ssize_t got = syscall(SYS_pread64, fd, buffer, size, offset);
  if (watched != 0 && got > 0 && fstat(fd, &status) == 0 && status.st_ino == watched &&
      wrong_reads-- > 0)
    static_cast<char *>(buffer)[0] ^= 1;
  return got;
}
extern "C" int openat(int directory, const char *name, int flags, ...) {
  std::va_list args;
  va_start(args, flags);
  const auto mode = va_arg(args, mode_t);
  va_end(args);
  if (refuse_direct && (flags & O_DIRECT) != 0) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(syscall(SYS_openat, directory, name, flags, mode));
}

namespace {

// A large file, which is read in pieces, between two small ones.
class ScrubRead : public testing::Test {
protected:
  static constexpr std::size_t kSize = 4'000'000;

  ScrubRead() {
    EXPECT_EQ(vorn_Init(), 0);
    scrub::prepare_instances(1);
    scratch::write_file(path("tree/a"), "first");
    scratch::write_file(path("tree/z"), "second");
    options_.settings.read_size_limit = 65536;
  }
  ~ScrubRead() override { watched = 0; }

  std::string path(const char *name) const { return directory_ / name; }

  using Command = void (*)(const scrub::Job &, scrub::Report &);

  // Runs the command on the tree. happens is called before each read of the file. Returns what the
  // run prints.
  std::string run(
      Command command, scrub::ExitStatus wanted, const char *name = "tree/large",
      std::function<int(int)> happens = [](int) { return 0; }) {
    struct stat status {};
    EXPECT_EQ(stat(path(name).c_str(), &status), 0);
    before_read = std::move(happens);
    reads = 0;
    watched = status.st_ino;
    testing::internal::CaptureStdout();
    scrub::Instance("test", [&] {
      const scrub::Job job{path("tree"), {directory_.path(), "m", directory_.path()}, options_};
      scrub::Report report(job, name_of(command), {console_, nullptr, nullptr, false});
      command(job, report);
      EXPECT_EQ(report.status(), wanted);
    }).wait();
    watched = 0;
    return testing::internal::GetCapturedStdout();
  }

  void expect(const std::string &printed, const std::vector<const char *> &texts) const {
    for (const char *text : texts)
      EXPECT_NE(printed.find(text), std::string::npos) << "wanted: " << text << "\n" << printed;
  }

  void write_large(char content = 'x') const {
    scratch::write_file(path("tree/large"), std::string(kSize, content));
  }

  static scrub::Command name_of(Command command) {
    if (command == scrub::create) return scrub::Command::kCreate;
    return command == scrub::verify ? scrub::Command::kVerify : scrub::Command::kUpdate;
  }

  scratch::Directory directory_;
  scrub::Console console_;
  scrub::Options options_;
};

TEST_F(ScrubRead, FileThatFailsOrChangesIsReportedOnceAndTheRunGoesOn) {
  const auto at = [](int number, std::function<int()> act) {
    return [number, act](int read) { return read == number ? act() : 0; };
  };
  const auto fail = [] { return EIO; };
  const auto cut = [this] { return truncate(path("tree/large").c_str(), 5000); };
  const auto grow = [this] { return truncate(path("tree/large").c_str(), kSize + 1); };
  const struct {
    std::function<int()> act;
    const char *created;
    const char *verified;
  } rows[] = {
      {fail, "SKIPPED     large: Input/output error",
       "UNREADABLE  large: Input/output error, block"},
      {cut, "CHANGED     large: ", "CHANGED     large: "},
      {grow, "CHANGED     large: ", "CHANGED     large: "},
  };
  for (const auto &[act, created, verified] : rows) {
    write_large();
    expect(run(scrub::create, scrub::kIncomplete, "tree/large", at(5, act)), {created, "2 read"});
    EXPECT_LT(scratch::read_file(path("m")).size(), 1000u) << "blocks of the file are left";
    write_large();
    run(scrub::create, scrub::kClean);
    expect(run(scrub::verify, scrub::kIncomplete, "tree/large", at(5, act)), {verified});
    // What update cannot read stays as it was recorded.
    write_large('y');
    expect(run(scrub::update, scrub::kIncomplete, "tree/large", at(5, act)), {"large: "});
    write_large();
    EXPECT_EQ(run(scrub::verify, scrub::kClean).find("NEW"), std::string::npos);
  }
  expect(run(scrub::verify, scrub::kIncomplete, "tree/a", [](int) { return EIO; }),
         {"UNREADABLE  a: Input/output error"});
  const auto grow_small = [this](int) { return truncate(path("tree/a").c_str(), 6); };
  for (const Command command : {scrub::verify, scrub::create}) {
    expect(run(command, scrub::kIncomplete, "tree/a", grow_small), {"CHANGED     a: "});
    scratch::write_file(path("tree/a"), "first");
  }
  run(scrub::create, scrub::kClean);

  // The blocks before the failed read are compared.
  options_.settings.threads = 1;
  wrong_reads = 1;
  expect(run(scrub::verify, scrub::kIncomplete, "tree/large", at(5, fail)),
         {"PASSING     large: block 0", "UNREADABLE  large: Input/output error, block 64"});

  // The file after one that fails is not taken for it, and a renamed one that changes is not moved.
  std::filesystem::rename(path("tree/large"), path("tree/moved"));
  scratch::write_file(path("tree/next"), std::string(kSize, 'n'));
  const auto grow_moved = [this] { return truncate(path("tree/moved").c_str(), kSize + 1); };
  expect(run(scrub::verify, scrub::kIncomplete, "tree/moved", at(5, grow_moved)),
         {"UNREADABLE  moved: "});
  run(scrub::create, scrub::kIncomplete, "tree/moved", at(5, fail));
  expect(run(scrub::verify, scrub::kDifferent, "tree/next"), {"NEW         moved"});
}

TEST_F(ScrubRead, WrongBlockIsReadAgainASecondLater) {
  write_large();
  run(scrub::create, scrub::kClean);
  const auto started = Clock::now();
  for (const char *name : {"tree/z", "tree/large"}) {
    wrong_reads = 1;
    expect(run(scrub::verify, scrub::kIncomplete, name),
           {"PASSING     ", ": block ", "right at the second read"});
    wrong_reads = 1'000'000;
    expect(run(scrub::verify, scrub::kDamage, name), {"DAMAGED     ", "silent damage"});
  }
  EXPECT_GE(Clock::now() - started, std::chrono::seconds(4));

  // What is written or removed between the reads is no damage.
  wrong_reads = 0;
  for (const bool removed : {false, true}) {
    run(scrub::create, scrub::kClean);
    wrong_reads = 1;
    std::thread writer([&] {
      while (reads == 0)
        std::this_thread::sleep_for(milliseconds(1));
      std::this_thread::sleep_for(milliseconds(300));
      if (removed) std::filesystem::remove(path("tree/z"));
      if (!removed) scratch::write_file(path("tree/z"), "second");
    });
    expect(run(scrub::verify, scrub::kIncomplete, "tree/z"), {"CHANGED     z: written after"});
    writer.join();
  }

  // Neither is what is written during the second.
  scratch::write_file(path("tree/z"), "first");
  run(scrub::create, scrub::kClean);
  wrong_reads = 1;
  const auto second = Clock::now() + milliseconds(700);
  expect(run(scrub::verify, scrub::kIncomplete, "tree/z",
             [&](int) {
               if (Clock::now() > second) scratch::write_file(path("tree/z"), "second");
               return 0;
             }),
         {"CHANGED     z: written after"});
}

TEST_F(ScrubRead, EndsAfterTheMostErrors) {
  write_large();
  run(scrub::create, scrub::kClean);
  // In a copy the time of change says nothing.
  std::filesystem::rename(path("tree"), path("original"));
  std::filesystem::copy(path("original"), path("tree"));
  options_.any_tree = true;
  scratch::write_file(path("tree/a"), "other");
  scratch::write_file(path("tree/z"), "others");
  const std::filesystem::path original = path("original");
  const std::filesystem::path copy = path("tree");
  for (const char *name : {"a", "large", "z"})
    last_write_time(copy / name, last_write_time(original / name));
  options_.settings.rate_limit = 2; // a was read a second time long before z is read
  options_.max_errors = 2;
  std::string printed = run(scrub::verify, scrub::kDamage);
  expect(printed, {"DAMAGED     a: ", "DAMAGED     z: "});
  EXPECT_EQ(printed.find("--max-errors"), std::string::npos) << "everything was read\n" << printed;
  options_.max_errors = 1;
  printed = run(scrub::verify, scrub::kDamage);
  expect(printed, {"DAMAGED     a: ", "--max-errors"});
  EXPECT_EQ(printed.find("DAMAGED     z: "), std::string::npos) << printed;
}

TEST_F(ScrubRead, FallsBackToThePageCache) {
  write_large();
  run(scrub::create, scrub::kClean);
  refuse_direct = true;
  const std::string printed = run(scrub::verify, scrub::kClean);
  refuse_direct = false;
  EXPECT_EQ(printed.find("direct reads"), std::string::npos) << printed;
  expect(printed, {"CLEAN", "3 files"});
  // The first read of a file may refuse too.
  const auto invalid = [](int read) { return read == 1 ? EINVAL : 0; };
  const std::string without = run(scrub::verify, scrub::kClean, "tree/large", invalid);
  expect(without, {"CLEAN"});
  EXPECT_EQ(without.find("direct reads for 3 files"), std::string::npos) << without;
  options_.cached = true;
  expect(run(scrub::verify, scrub::kClean), {"through the cache"});
}

TEST_F(ScrubRead, KeepsTheReadSizeLimitAndTheRate) {
  write_large();
  for (const unsigned int limit : {4096u, 12288u, 1048576u}) {
    largest_read = 0;
    options_.settings.read_size_limit = limit;
    options_.settings.threads = limit == 4096 ? 16 : 2;
    run(scrub::create, scrub::kClean);
    EXPECT_EQ(largest_read, limit);
  }
  options_.settings.read_size_limit = 65536;
  options_.settings.rate_limit = 10;
  const auto started = Clock::now();
  run(scrub::verify, scrub::kClean);
  EXPECT_GE(Clock::now() - started, milliseconds(250)); // 4 MB, but for the window
}

TEST_F(ScrubRead, FailureOfThePlanReachesTheCollector) {
  scrub::Series series;
  for (const int batches : {0, 1, 1000}) {
    int planned = 0;
    scrub::Engine engine(options_, series, [&](std::span<scrub::Entry>) -> std::size_t {
      if (planned++ == batches) throw std::runtime_error("plan");
      return 1;
    });
    EXPECT_THROW(while (engine.next() != nullptr){}, std::runtime_error);
  }
  scrub::Engine engine(options_, series,
                       [](std::span<scrub::Entry> entries) { return entries.size(); });
  EXPECT_NE(engine.next(), nullptr); // the engine ends with batches under way
}

TEST_F(ScrubRead, HangingReadDoesNotKeepStopFromReturning) {
  write_large();
  struct stat status {};
  ASSERT_EQ(stat(path("tree/large").c_str(), &status), 0);
  std::atomic<bool> released = false;
  reads = 0;
  before_read = [&](int) {
    while (!released)
      std::this_thread::sleep_for(milliseconds(1));
    return 0;
  };
  watched = status.st_ino;
  const auto directory = std::make_shared<const scrub::Fd>(open(path("tree").c_str(), O_DIRECTORY));
  std::atomic<bool> planned = false;
  options_.settings.threads = 1;
  scrub::Series series;
  truncate(path("tree/large").c_str(), 5000);
  scrub::Engine engine(options_, series, [&](std::span<scrub::Entry> entries) -> std::size_t {
    if (planned.exchange(true)) return 0;
    entries[0].found = true;
    entries[0].file.directory = directory;
    entries[0].file.name = "large";
    entries[0].action = scrub::Action::kRead;
    return 1;
  });
  while (reads == 0)
    std::this_thread::sleep_for(milliseconds(1));
  const auto started = Clock::now();
  EXPECT_FALSE(engine.stop(100));
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(2));
  released = true;
  EXPECT_TRUE(engine.stop(-1));
  watched = 0;
}

TEST(ScrubWindow, PartsCoverEachBlockOnceAndResumeCoversTheRest) {
  std::vector<scrub::FileRecord> files;
  std::uint64_t random = 1;
  for (int i = 0; i < 200; ++i) {
    random = random * 6364136223846793005u + 1;
    char name[8];
    std::snprintf(name, sizeof name, "%04d", i);
    const std::uint64_t size = i % 7 == 0 ? 0 : i == 100 ? std::uint64_t{1} << 40 : random >> 45;
    files.push_back({.path = name, .size = size});
  }
  scrub::Window all;
  for (const auto &file : files)
    all.select(file);
  for (std::uint64_t of = 1; of <= 50; of += 7) {
    std::vector<scrub::Window> parts;
    for (std::uint64_t number = 1; number <= of; ++number)
      parts.emplace_back(scrub::Part{number, of}, all.weight());
    for (const auto &file : files) {
      std::uint64_t next = 0;
      int in = 0;
      for (scrub::Window &part : parts) {
        const auto selection = part.select(file);
        in += selection.in;
        if (selection.first == selection.end) continue;
        EXPECT_EQ(selection.first, next);
        next = selection.end;
      }
      EXPECT_EQ(next, scrub::block_count(file.size));
      EXPECT_GT(in, 0);
    }
  }
  scrub::Window rest;
  rest.resume_at({"0100", 77});
  for (const auto &file : files) {
    const auto selection = rest.select(file);
    const std::uint64_t first = file.path == "0100" ? 77 : 0;
    EXPECT_EQ(selection.in, file.path >= "0100") << file.path.c_str();
    if (!selection.in) continue;
    EXPECT_EQ(selection.first, first);
    EXPECT_EQ(selection.end, scrub::block_count(file.size));
  }
}

// More files than are paired at a time: each was renamed, and all have the same content.
TEST(ScrubMoves, AreFoundByIdentityBeforeContent) {
  constexpr int kFiles = 20000;
  const scratch::Directory directory;
  scrub::Moves moves(directory.path());
  const auto name = [](char kind, int number) {
    char text[16];
    std::snprintf(text, sizeof text, "%c%06d", kind, number);
    return scrub::String(text);
  };
  for (int i = 0; i < kFiles; ++i) {
    const auto inode = static_cast<std::uint64_t>(i + 1);
    moves.missing({.path = name('a', i), .size = 5, .inode = inode}, 42);
    scrub::Attributes now;
    now.size = 5;
    now.inode = static_cast<std::uint64_t>(kFiles) - inode + 1;
    moves.added(name('b', i), now, 42 + (i == 7), 0);
  }
  int moved = 0;
  int damaged = 0;
  scrub::MoveActions actions;
  actions.moved = [&](const scrub::Moved &file) {
    EXPECT_EQ(file.path, name('b', moved + damaged));
    EXPECT_EQ(file.from, name('a', kFiles - 1 - moved - damaged));
    ++moved;
  };
  actions.damaged = [&](const scrub::Moved &file) {
    EXPECT_EQ(file.path, name('b', 7));
    ++damaged;
  };
  actions.missing = [](const scrub::String &, std::uint64_t, std::uint64_t) { ADD_FAILURE(); };
  actions.added = [](const scrub::String &, std::uint64_t, int) { ADD_FAILURE(); };
  moves.resolve(actions);
  EXPECT_EQ(moved, kFiles - 1);
  EXPECT_EQ(damaged, 1);
}

TEST(ScrubDamagedList, StandsForEveryFileBeyondItsLimit) {
  const scratch::Directory directory;
  const scrub::OwnPaths paths{directory.path(), "m", directory.path()};
  scrub::DamagedList list(paths);
  for (int i = 0; i < 20000; ++i)
    list.add(std::to_string(i));
  EXPECT_EQ(list.save(), 0);
  scrub::DamagedList read(paths);
  EXPECT_TRUE(list.contains("another") && read.contains("another"));
  read.clear();
  EXPECT_EQ(read.save(), 0);
  EXPECT_FALSE(std::filesystem::exists(directory / "m.damaged"));
}

TEST(ScrubDamagedList, KeepsWhatAnotherRunHasChanged) {
  const scratch::Directory directory;
  const scrub::OwnPaths paths{directory.path(), "m", directory.path()};
  scrub::DamagedList first(paths);
  first.add("right again");
  EXPECT_EQ(first.save(), 0);
  scrub::DamagedList second(paths);
  first.add("a");
  EXPECT_EQ(first.save(), 0);
  second.add("b");
  second.remove("right again");
  EXPECT_EQ(second.save(), 0);
  first.add("c");
  EXPECT_EQ(first.save(), 0);
  for (const scrub::DamagedList &list : {scrub::DamagedList(paths), first, second})
    EXPECT_TRUE(list.contains("a") && list.contains("b") && !list.contains("right again"));
}

TEST(ScrubPace, LetsWaitingThreadsBeginOneAfterTheOther) {
  ASSERT_EQ(vorn_Init(), 0);
  scrub::Pace pace(1'000'000);
  const std::atomic<bool> stopped = false;
  const auto started = Clock::now();
  run_threads(8, [&](int) {
    scrub::FineSleep sleep;
    pace.wait(100'000, sleep, stopped);
  });
  EXPECT_GE(Clock::now() - started, milliseconds(600)); // 0.8 s, less the first and the window
}

// Uneven reads keep the rate in every span.
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

} // namespace
