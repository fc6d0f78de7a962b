// test-links: scrub_objects
// Tests what a run of vorn-scrub does not show: reads that fail, hang or meet a change, the bounds
// of its reads, the ends of its threads, and which blocks and files it selects and pairs.
// SPDX-License-Identifier: Apache-2.0
#include "engine.hpp"

#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>

#include "instance.hpp"
#include "moves.hpp"
#include "report.hpp"
#include "support/scratch.hpp"
#include "vorn_init.h"
#include "window.hpp"

namespace {

struct Read {
  int fd;
  char *data;
  std::size_t size;
  std::uint64_t offset;
};
using Hook = std::function<int(const Read &)>; // returns the errno to fail with, or 0

// Called after a read of the file of that inode number, by the thread that reads.
std::atomic<ino_t> watched = 0;
Hook after_read; // changes only while no thread reads
std::atomic<bool> direct_refused = false;

} // namespace

// Replace the system's.
extern "C" ssize_t pread(int fd, void *buffer, size_t size, off_t offset) {
  const ssize_t got = syscall(SYS_pread64, fd, buffer, size, offset);
  struct stat status {};
  if (got <= 0 || watched == 0 || fstat(fd, &status) != 0 || status.st_ino != watched) return got;
  errno = after_read({fd, static_cast<char *>(buffer), size, static_cast<std::uint64_t>(offset)});
  return errno == 0 ? got : -1;
}
extern "C" int openat(int directory, const char *name, int flags, ...) {
  errno = EINVAL;
  if (direct_refused && (flags & O_DIRECT) != 0) return -1;
  return static_cast<int>(syscall(SYS_openat, directory, name, flags, S_IRUSR | S_IWUSR));
}

namespace {

using namespace scrub;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;

const Hook alter = [](const Read &read) { return read.data[0] ^= 1, 0; };

// A tree of two files: "large" is longer than all pieces together, "small" comes after it.
class ScrubRead : public testing::Test {
protected:
  static constexpr std::uint64_t kSize = 5 << 20;

  ScrubRead() {
    EXPECT_EQ(vorn_Init(), 0);
    [[maybe_unused]] static const bool prepared = (prepare_instances(1), true);
    scratch::write_file(path("large"), std::string(kSize, 'x'));
    scratch::write_file(path("small"), "second");
    tree_ = std::make_shared<Fd>(open(path("").c_str(), O_RDONLY | O_CLOEXEC));
  }
  ~ScrubRead() override { watched = 0; }

  std::string path(const std::string &name) const { return directory_ / "tree/" + name; }
  std::string manifest() const { return scratch::read_file(directory_ / "m"); }

  void watch(const std::string &name, const Hook &hook) {
    after_read = hook;
    struct stat status {};
    if (stat(path(name).c_str(), &status) == 0) watched = status.st_ino;
  }

  // Fills batches of the same two files, without end.
  std::size_t plan(std::span<Entry> entries) {
    for (Entry &entry : entries) {
      entry.file.directory = tree_;
      entry.file.name = &entry == entries.data() ? "large" : "small";
      entry.action = Action::kRead;
    }
    return entries.size();
  }

  // Expects the texts in what the job prints.
  void expect(ExitStatus wanted, const Texts &texts, void (*start)(const Job &, Report &)) {
    const Job job{directory_ / "tree", {directory_.path(), "m", directory_.path()}, options_};
    testing::internal::CaptureStdout();
    Console console;
    Instance("test", [&] {
      const Command other = start == create ? Command::kCreate : Command::kUpdate;
      Report report(job, start == verify ? Command::kVerify : other, Outputs{console});
      EXPECT_NO_THROW(start(job, report));
      EXPECT_EQ(report.status(), wanted);
    }).wait();
    watched = 0;
    const std::string printed = testing::internal::GetCapturedStdout();
    for (const std::string &text : texts)
      EXPECT_NE(printed.find(text), std::string::npos) << "wanted: " << text << "\n" << printed;
  }

  scratch::Directory directory_;
  Options options_;
  Series series_;
  Directory tree_;
};

TEST_F(ScrubRead, FileThatFailsOrChangesIsReportedAndTheRunGoesOn) {
  // The length that the file gets after the read at the offset; -1: the read fails.
  const std::tuple<std::string, std::uint64_t, off_t> rows[] = {
      {"large", kSize / 2, -1}, {"large", kSize / 2, 5000},
      {"large", 0, kSize + 1},  {"small", 0, -1},
      {"small", 0, 3},          {"small", 0, 5000}};
  for (const auto &[name, offset, length] : rows) {
    const std::string file = path(name), aside = directory_ / "aside",
                      content = scratch::read_file(file), why = name + ": Input/output error";
    const bool fails = length < 0;
    const auto expect_finding = [&](const std::string &failure, const char *files, auto job) {
      watch(name, [&](const Read &read) {
        return read.offset != offset ? 0 : fails ? EIO : truncate(file.c_str(), length);
      });
      expect(kIncomplete, {fails ? failure : "CHANGED     " + name + ": written ", files}, job);
    };
    ASSERT_EQ(rename(file.c_str(), aside.c_str()), 0);
    expect(kClean, {}, create);
    const std::string without = manifest();
    ASSERT_EQ(rename(aside.c_str(), file.c_str()), 0);
    expect_finding("SKIPPED     " + why, "1 read, 1 ", create);
    EXPECT_TRUE(manifest() == without) << "blocks of the file are left";

    scratch::write_file(file, content);
    expect(kClean, {"2 read\n"}, create);
    const std::string with = manifest();
    expect_finding("UNREADABLE  " + why + (offset != 0 ? ", block 640\n" : "\n"),
                   fails ? "1 read, 1 " : "2 read, 1 ", verify);
    scratch::write_file(file, std::string(content.size(), 'y'));
    expect_finding("UNREADABLE  " + why, "0 read, 1 ", update);
    EXPECT_TRUE(manifest() == with) << "the old records do not stay";
    scratch::write_file(file, content);
  }
}

TEST_F(ScrubRead, WrongBlockIsReadAgainASecondLater) {
  const Hook leave = [](auto &) { return 0; }, fail = [](auto &) { return EIO; };
  const Hook rewrite = [this](auto &) { return scratch::write_file(path("small"), "third."), 0; };
  const std::tuple<Hook, ExitStatus, Texts> rows[] = {
      {leave, kIncomplete, {"PASSING     small: block 0", "1 block right at the second read"}},
      {alter, kDamage, {"DAMAGED     small: block 0", "2 read, 1 damaged\n"}},
      {fail, kDamage, {"DAMAGED     small: block 0", "2 read, 1 damaged\n"}},
      {rewrite, kIncomplete, {"CHANGED     small: written", "2 read, 1 changed"}}};
  for (const auto &[second, status, texts] : rows) {
    expect(kClean, {}, create);
    std::vector<Clock::time_point> times;
    watch("small", [&](const Read &read) {
      times.push_back(Clock::now());
      return times.size() == 1 ? alter(read) : second(read);
    });
    expect(status, texts, verify);
    ASSERT_GE(times.size(), 2u);
    EXPECT_GE(times[1] - times[0], milliseconds(1000));
  }
}

// Several threads meet the refusal of the same file at once.
TEST_F(ScrubRead, FallsBackIfDirectReadsAreRefused) {
  options_.settings = {.read_size_limit = 65536, .threads = 16};
  expect(kClean, {}, create);
  for (const bool at_open : {true, false}) {
    direct_refused = at_open;
    watch("large", [](const Read &read) {
      if ((fcntl(read.fd, F_GETFL) & O_DIRECT) == 0) return 0;
      std::this_thread::sleep_for(milliseconds(20));
      return EINVAL;
    });
    expect(kClean, {"cache dropped before and after for ", "2 read\n"}, verify);
  }
  options_.cached = true;
  expect(kClean, {"reads through the cache for 2 files\n"}, verify);
}

TEST_F(ScrubRead, ReadSizeLimitBoundsEveryRead) {
  expect(kClean, {}, create);
  for (const std::uint64_t limit : {4096, 12288, 1048576}) {
    for (const std::uint64_t threads : {1, 16}) {
      options_.settings = {.read_size_limit = limit, .threads = threads};
      std::atomic<std::uint64_t> full = 0, longer = 0;
      watch("large", [&](const Read &read) { return ++(read.size > limit ? longer : full), 0; });
      expect(kClean, {"2 read\n"}, verify);
      EXPECT_TRUE(longer == 0 && full >= (kSize + limit - 1) / limit);
    }
  }
}

TEST_F(ScrubRead, EndsAfterAnExceptionWithBatchesAndPiecesUnderWay) {
  const auto file = std::make_shared<DataFile>();
  ASSERT_EQ(file->open(tree_->get(), "large", false), 0);
  const auto take = [](const Engine::Blocks &) { throw std::runtime_error("take"); };
  for (const std::uint64_t threads : {1, 16}) {
    for (const int batches : {0, 1, 100}) {
      for (const bool plan_fails : {true, false}) {
        options_.settings.threads = threads;
        Engine engine(options_, series_, [&, planned = 0](std::span<Entry> entries) mutable {
          if (plan_fails && planned++ == batches) throw std::runtime_error("plan");
          return plan(entries);
        });
        for (int i = 0; i < batches; ++i)
          ASSERT_NE(engine.next(), nullptr);
        EXPECT_THROW(plan_fails ? engine.next() != nullptr
                                : engine.read(file, 0, block_count(kSize), take) != 0,
                     std::runtime_error);
      }
    }
  }
}

TEST_F(ScrubRead, StopsWhileThreadsWaitForTheRateLimitOrHang) {
  options_.settings.rate_limit = 1; // megabyte a second
  auto started = Clock::now();
  Engine limited(options_, series_, [&](std::span<Entry> entries) { return plan(entries); });
  limited.charge(300'000);
  ASSERT_NE(limited.next(), nullptr);
  EXPECT_GE(Clock::now() - started, milliseconds(300));
  limited.charge(100'000'000);
  std::this_thread::sleep_for(milliseconds(50)); // until the threads wait
  started = Clock::now();
  EXPECT_TRUE(limited.stop(1000));
  EXPECT_LT(Clock::now() - started, milliseconds(1000));

  options_.settings.rate_limit = 0;
  std::atomic<bool> hangs = false, released = false;
  watch("small", [&](const Read &) {
    hangs = true;
    while (!released)
      std::this_thread::yield();
    return 0;
  });
  Engine hanging(options_, series_, [&](std::span<Entry> entries) { return plan(entries); });
  while (!hangs)
    std::this_thread::yield();
  started = Clock::now();
  EXPECT_FALSE(hanging.stop(100));
  EXPECT_LT(Clock::now() - started, milliseconds(1000));
  released = true;
  EXPECT_TRUE(hanging.stop(-1));
}

TEST(ScrubRate, IsKeptByUnevenReads) {
  constexpr std::uint64_t kRate = 1'000'000, kSecond = 1'000'000'000, kStart = 7 * kSecond;
  std::uint64_t now = kStart;
  RateLimit limit(kRate, now);
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

TEST(ScrubWindow, PartsCoverEveryBlockOnceAndResumeCoversTheRest) {
  std::mt19937_64 random(1);
  std::vector<FileRecord> files(40);
  Window all;
  for (std::size_t i = 0; i < files.size(); ++i) {
    files[i].path = String(1, static_cast<char>('0' + i));
    files[i].size = i == 25 ? INT64_MAX : random() % (i % 3 == 0 ? 1 : 1 << i % 22);
    all.select(files[i]);
  }
  for (std::uint64_t of = 1; of <= 50; ++of) {
    std::vector<std::uint64_t> covered(files.size()), parts(files.size());
    for (std::uint64_t number = 1; number <= of; ++number) {
      Window window({number, of}, all.weight()), rest = window;
      const std::size_t at = random() % files.size();
      const std::uint64_t block = random() % (block_count(files[at].size) + 1);
      rest.resume_at({files[at].path, block});
      for (std::size_t i = 0; i < files.size(); ++i) {
        const auto selected = window.select(files[i]), left = rest.select(files[i]);
        const bool some = selected.first < selected.end;
        EXPECT_TRUE(!some || (selected.in && selected.first == covered[i])) << number << "/" << of;
        if (some) covered[i] = selected.end;
        parts[i] += selected.in;
        const std::uint64_t first = i == at ? std::max(selected.first, block) : selected.first;
        const bool some_left = i >= at && first < selected.end;
        EXPECT_TRUE(some_left ? left.first == first && left.end == selected.end
                              : left.first == left.end);
        EXPECT_EQ(left.in, i == at ? some_left : i > at && selected.in);
      }
    }
    for (std::size_t i = 0; i < files.size(); ++i)
      EXPECT_TRUE(covered[i] == block_count(files[i].size) && parts[i] >= 1 &&
                  (files[i].size != 0 || parts[i] == 1));
  }
}

// Two lost files of each content, so far apart that they are not in memory together. One was
// renamed, and its content also fits the new file that is to be paired with the other.
TEST(ScrubMoves, PairsMoreFilesThanAChunk) {
  constexpr std::uint64_t kHalf = 10000;
  const scratch::Directory directory;
  Moves moves(directory.path());
  std::map<String, String> expected, told; // by path: what becomes of the file
  std::map<String, std::pair<Attributes, std::uint64_t>> fresh;
  for (std::uint64_t i = 0; i < 2 * kHalf; ++i) {
    const String number(std::to_string(10 * kHalf + i)), from = "old" + number;
    const std::uint64_t content = i % kHalf, size = 1 + content % 1000;
    const bool renamed = (i % 2 == 0) == (i < kHalf), damaged = renamed && content < 50;
    const bool alone = content > kHalf - 50;
    const String path = (alone ? "alone" : i < kHalf ? "new2" : "new1") + number;
    moves.missing({from, size, {1, 2}, {3, 4}, i + 1}, content);
    fresh[path] = {{size, {1, 2 + alone}, {7, 8}, renamed ? i + 1 : 5 * kHalf + i},
                   damaged || alone ? 9 * kHalf + i : content};
    expected[path] = alone ? "added" : (damaged ? "damaged " : "moved ") + from;
    if (alone) expected[from] = "missing";
  }
  for (const auto &[path, file] : fresh)
    moves.added(path, file.first, {}, 0);

  String last;
  const auto tell = [&](const String &path, const String &what) {
    EXPECT_TRUE(path_before(last, path) && told.emplace(path, what).second);
    last = path;
  };
  MoveActions actions;
  actions.read = [&](const String &path, int &) { return std::optional(fresh[path].second); };
  actions.moved = [&](const String &path, const String &from) { tell(path, "moved " + from); };
  actions.damaged = [&](const String &path, const String &from) { tell(path, "damaged " + from); };
  actions.missing = [&](const String &path, std::uint64_t) { tell(path, "missing"); };
  actions.added = [&](const String &path, std::uint64_t, int) { tell(path, "added"); };
  moves.resolve(actions);
  EXPECT_TRUE(told == expected);
}

} // namespace
