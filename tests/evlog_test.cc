// test-without: log_capture
// test-links: evlog
#include "evlog.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "base/unique_fd.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"

namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kFileBytes = 8 << 20;
constexpr unsigned int kModule = 381;
const char *const kNoText = nullptr;

std::vector<std::string> lines_of(const std::string &text) {
  std::istringstream in(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

// Takes what goes to descriptor 2 while it exists.
class Console {
public:
  Console() {
    fcntl(taken_.get(), F_SETFL, O_APPEND);
    dup2(taken_.get(), STDERR_FILENO);
  }
  ~Console() { dup2(saved_.get(), STDERR_FILENO); }
  std::string text() const {
    return scratch::read_file("/proc/self/fd/" + std::to_string(taken_.get()));
  }

private:
  const vorn::UniqueFd saved_{dup(STDERR_FILENO)};
  const vorn::UniqueFd taken_{memfd_create("console", 0)};
};

class Evlog : public testing::Test {
protected:
  ~Evlog() override { evlog_destroy(); }

  void open_log() { ASSERT_EQ(evlog_init("app", dir.path().c_str()), 0); }
  std::string log() const { return scratch::read_file(dir / "app.log"); }

  // The log with its old files, the oldest first.
  std::string all_text() const {
    std::string text;
    for (const char *name : {"app.log.3", "app.log.2", "app.log.1", "app.log"})
      text += scratch::read_file(dir / name);
    return text;
  }

  scratch::Directory dir;
};

int log_at(int level, const char *text) {
  return evlog(kModule, level, "vorn_x.c", 7, "work", 0, "%s", text);
}

int vraw(const char *format, ...) EVLOG_PRINTF(1, 2);
int vraw(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int written = evlog_vraw(format, args);
  va_end(args);
  return written;
}

// A text of 1000 bytes and a newline that begins with its number.
void write_numbered(int number) { evlog_original("%-1000d", number); }
constexpr int kNumberedPerFile = kFileBytes / 1001 + 1;

std::size_t count_of(const std::string &text, const std::string &log) {
  std::size_t count = 0;
  for (const std::string &line : lines_of(log))
    count += line.ends_with(text);
  return count;
}

// The sum of all reports of the rate limit on group 23.
unsigned long dropped_by_reports(const std::string &log) {
  unsigned long sum = 0;
  for (const std::string &line : lines_of(log)) {
    const std::size_t at = line.find(" records of group 23 were dropped by the rate limit.");
    if (at != line.npos) sum += std::stoul(line.substr(line.rfind(' ', at - 1)));
  }
  return sum;
}

// Run once, just before the next call of the system's function.
void (*before_write)();
void (*before_rename)();

void run(void (*&hook)()) {
  if (hook != nullptr) std::exchange(hook, nullptr)();
}

} // namespace

// In front of the system's, to reach the moments between two of the library's steps.
ssize_t write(int fd, const void *text, size_t size) {
  run(before_write);
  return syscall(SYS_write, fd, text, size);
}

int rename(const char *from, const char *to) {
  run(before_rename);
  return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

TEST_F(Evlog, ARecordIsALineWithItsTimeLevelModuleThreadAndPlace) {
  setenv("TZ", "LOG-02:30", 1);
  open_log();
  Console console;
  const std::time_t before = time(nullptr);
  EXPECT_EQ(evlog(kModule, EVLOG_INFO, "vorn_init.c", 120, "vorn_Init", 0, "ret %d.\n", -5), 0);

  const std::string text = log();
  std::tm written = {};
  ASSERT_NE(strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &written), nullptr) << text;
  EXPECT_GE(mktime(&written), before);
  EXPECT_LE(mktime(&written), time(nullptr));
  EXPECT_EQ(text.substr(text.find('+')),
            "+02:30 I 381 " + std::to_string(gettid()) + " vorn_init.c:120 vorn_Init: ret -5.\n");

  for (const std::string &function : {std::string("work"), std::string(9000, 'f')}) {
    evlog(kModule, EVLOG_INFO, "vorn_x.c", 7, function.c_str(), 0, "%s",
          std::string(9000, 't').c_str());
    const std::string line = lines_of(log()).back();
    EXPECT_EQ(line.size() - line.find("vorn_x.c"), 4095u);
  }
  for (int level = 0; level < 8; ++level) { // the console takes warnings, the file all
    log_at(level, "text");
    EXPECT_EQ(lines_of(log()).back()[33], "CCCEWIID"[level]) << level;
  }
  EXPECT_EQ(lines_of(console.text()).size(), 5u);
  EXPECT_EQ(lines_of(console.text()).back(), lines_of(log())[3 + EVLOG_WARNING]);
}

TEST_F(Evlog, LevelsAreKeptByModule) {
  EXPECT_EQ(evlog_loglevel_set(5, EVLOG_DEBUG), 0);
  EXPECT_EQ(evlog_loglevel_set(1024, 3), -1);
  EXPECT_EQ(evlog_loglevel_set(5, 8), -1);
  for (const auto &[module, level] :
       {std::pair{5u, EVLOG_DEBUG}, {4u, EVLOG_INFO}, {~0u, EVLOG_INFO}}) {
    EXPECT_EQ(evlog_loglevel_get(module), level) << module;
    EXPECT_EQ(evlog_level_check(module, level), 0) << module;
    EXPECT_NE(evlog_level_check(module, level + 1), 0) << module;
  }
}

TEST_F(Evlog, RawTextsAreWrittenAsTheyAreUpToTheirBound) {
  open_log();
  errno = ERANGE;
  EXPECT_EQ(evlog_original("a %d", 1), 4);
  EXPECT_EQ(evlog_original("b\n"), 2);
  EXPECT_EQ(evlog_original("%s", ""), 1);
  EXPECT_EQ(vraw("c %s", "d"), 3);
  EXPECT_EQ(evlog_original(kNoText), -1);
  EXPECT_EQ(vraw(kNoText), -1);
  const std::string most(1023, 'x');
  EXPECT_EQ(evlog_original("%sy", most.c_str()), 1024);
  EXPECT_EQ(vraw("%sy", most.c_str()), 1023);
  EXPECT_EQ(log(), "a 1\nb\n\nc d" + most + "\n" + most);
  EXPECT_EQ(errno, ERANGE);
}

TEST_F(Evlog, ASecondInitMovesTheLogUnlessItFails) {
  open_log();
  for (const auto &[program, directory, error] :
       {std::tuple{"a/b", dir.path(), EINVAL}, {"app", dir / "no/such", ENOENT}}) {
    EXPECT_EQ(evlog_init(program, directory.c_str()), -1) << program;
    EXPECT_EQ(errno, error) << program << " " << directory;
  }
  evlog_original("one");
  ASSERT_EQ(evlog_init(nullptr, (dir / "made").c_str()), 0);
  evlog_original("two");
  EXPECT_EQ(log(), "one\n");
  EXPECT_EQ(scratch::read_file(dir / "made/" + program_invocation_short_name + ".log"), "two\n");
}

TEST_F(Evlog, FilesRotateAndThreeOldOnesAreKept) {
  fs::current_path(dir.path());
  ASSERT_EQ(evlog_init("app", nullptr), 0);
  fs::current_path("/");
  for (int number = 0; number < 5 * kNumberedPerFile + 10; ++number)
    write_numbered(number);
  for (const char *old : {"app.log.1", "app.log.2", "app.log.3"})
    EXPECT_EQ(fs::file_size(dir / old), kNumberedPerFile * 1001u);

  const std::vector<std::string> lines = lines_of(all_text());
  ASSERT_EQ(lines.size(), 3u * kNumberedPerFile + 10);
  for (std::size_t at = 0; at < lines.size(); ++at)
    ASSERT_EQ(std::stoul(lines[at]), at + 2 * kNumberedPerFile);
  EXPECT_FALSE(fs::exists(dir / "app.log.4"));
}

// The child finds the file full while its parent rotates it, and an old one later. What filled it
// was not the child's.
TEST_F(Evlog, OneOfTheProcessesThatShareAFileRotatesIt) {
  static pid_t child;
  static constexpr auto await_stop = [] { waitpid(child, nullptr, WUNTRACED); };
  scratch::write_file(dir / "app.log", std::string(kFileBytes - 1, 'x'));
  open_log();
  child = fork();
  if (child == 0) {
    for (const char *text : {"child", "child, moved"}) {
      raise(SIGSTOP);
      evlog_original("%s", text);
    }
    _exit(0);
  }
  ASSERT_GT(child, 0);
  await_stop();
  evlog_original("full");
  before_rename = [] {
    evlog_original("in the midst");
    kill(child, SIGCONT);
    await_stop();
  };
  log_at(EVLOG_INFO, "parent, moved"); // a record rotates the file as well
  kill(child, SIGCONT);
  await_stop();

  EXPECT_TRUE(scratch::read_file(dir / "app.log.1").ends_with("xfull\nin the midst\nchild\n"));
  EXPECT_TRUE(log().ends_with("work: parent, moved\nchild, moved\n")) << log();
  EXPECT_FALSE(fs::exists(dir / "app.log.2"));
}

TEST_F(Evlog, AFileThatCannotBeRotatedStaysBounded) {
  for (const char *old : {"app.log.1/", "app.log.2/", "app.log.3/"})
    scratch::write_file(dir / old + "in the way", "");
  open_log();
  for (int number = 0; number < 5 * kNumberedPerFile; ++number) {
    write_numbered(number);
    if (number == 3 * kNumberedPerFile) {
      EXPECT_GT(fs::file_size(dir / "app.log"), 3 * kFileBytes);
    }
  }
  EXPECT_LT(fs::file_size(dir / "app.log"), 2 * kFileBytes);
  EXPECT_EQ(std::stoi(lines_of(log()).back()), 5 * kNumberedPerFile - 1);
}

TEST_F(Evlog, AFullOrClosedLogSendsRawTextsAndWarningsToTheConsole) {
  fs::create_symlink("/dev/full", dir / "app.log");
  open_log();
  Console console;
  for (const std::size_t seen : {2u, 4u}) {
    errno = ERANGE;
    EXPECT_EQ(log_at(EVLOG_INFO, "lost"), 0);
    EXPECT_EQ(log_at(EVLOG_WARNING, "seen"), 0);
    EXPECT_EQ(evlog_original("raw"), 4);
    EXPECT_EQ(evlog_destroy(), 0);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(lines_of(console.text()).size(), seen) << console.text();
  }
}

TEST_F(Evlog, EveryRecordOfAGroupIsWrittenOrCounted) {
  open_log();
  Console console;
  ASSERT_EQ(evlog_ratelimit_set(evlog_get_group_id(kModule), 5, 3'600'000), 0);
  const auto log_many = [](int) {
    for (int i = 0; i < 50000; ++i)
      log_at(EVLOG_INFO, "limited");
  };
  run_threads(4, log_many);
  EXPECT_EQ(count_of("limited", log()), 5u);
  EXPECT_EQ(evlog(kModule + 16, EVLOG_INFO, "vorn_x.c", 7, "work", 0, "of another group"), 0);
  EXPECT_EQ(dropped_by_reports(log()), 0u);

  EXPECT_EQ(evlog_ratelimit_set(64, 0, 0), -1);
  ASSERT_EQ(evlog_ratelimit_set(23, 3, 1), 0); // with a report
  EXPECT_EQ(dropped_by_reports(log()), 199995u);
  run_threads(4, log_many);
  EXPECT_GT(dropped_by_reports(log()), 199995u) << "a new interval begins with a report";
  ASSERT_EQ(evlog_ratelimit_set(23, 0, 0), 0);
  EXPECT_EQ(count_of("limited", log()) + dropped_by_reports(log()), 400000u);
}

// What a writer takes for the log file is never somebody else's file, and its text is not lost.
TEST_F(Evlog, ALogMayMoveAndCloseUnderItsWriter) {
  static std::string other;
  static std::vector<int> victims;
  static constexpr auto take_descriptors = [] {
    for (int i = 0; i < 10; ++i)
      victims.push_back(memfd_create("victim", 0));
  };
  other = dir / "other";
  open_log();
  before_write = [] {
    evlog_init("app", other.c_str());
    take_descriptors();
  };
  EXPECT_EQ(evlog_original("moved"), 6);
  before_write = [] {
    evlog_destroy();
    take_descriptors();
  };
  Console console;
  EXPECT_EQ(evlog_original("closed"), 7);
  EXPECT_EQ(scratch::read_file(other + "/app.log"), "moved\n");
  EXPECT_EQ(console.text(), "closed\n");
  for (const int victim : victims)
    EXPECT_EQ(lseek(victim, 0, SEEK_END), 0);
}

// A handler that waited for anything the interrupted thread holds would never return.
TEST_F(Evlog, ASignalHandlerWritesInTheMidstOfARecord) {
  open_log();
  Console console;
  static std::atomic<int> handled = 0;
  signal(SIGALRM, [](int) {
    const int interrupted = errno;
    errno = ERANGE;
    if (evlog_original("handler %d", 1) == 10 && errno == ERANGE) ++handled;
    errno = interrupted;
  });

  const itimerval storm{{0, 200}, {0, 200}}; // microseconds
  ASSERT_EQ(setitimer(ITIMER_REAL, &storm, nullptr), 0);
  std::size_t records = 0;
  for (; handled < 500; ++records) {
    log_at(EVLOG_WARNING, "record");
    evlog_ratelimit_set(1, 1, 1);
  }
  const itimerval calm = {};
  setitimer(ITIMER_REAL, &calm, nullptr);

  EXPECT_GE(count_of("handler 1", all_text()), 500u);
  EXPECT_EQ(count_of("work: record", all_text()), records);
  EXPECT_EQ(count_of("work: record", console.text()), records);
}

TEST_F(Evlog, AChildOfABusyProcessLogsOn) {
  open_log();
  std::atomic<bool> stop = false;
  const auto keep_busy = [&] {
    while (!stop) {
      log_at(EVLOG_INFO, "busy");
      evlog_ratelimit_set(23, 0, 0);
      evlog_init("app", dir.path().c_str());
    }
  };
  const auto fork_one = [&] {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      evlog_ratelimit_set(23, 0, 0);
      evlog_init("child", dir.path().c_str());
      _exit(log_at(EVLOG_INFO, std::to_string(getpid()).c_str()));
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    const std::string id = std::to_string(child);
    const std::string line = lines_of(scratch::read_file(dir / "child.log")).back();
    EXPECT_NE(line.find(" I 381 " + id + " vorn_x.c:7 work: " + id), std::string::npos) << line;
  };
  run_threads(3, [&](int thread) {
    if (thread > 0) return keep_busy();
    log_at(EVLOG_INFO, "parent"); // whose thread id is not the child's
    for (int i = 0; i < 50; ++i)
      fork_one();
    stop = true;
  });
}
