// test-without: log_capture
// test-links: evlog
// Tests the default logging library.
// SPDX-License-Identifier: Apache-2.0
#include "evlog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <numeric>
#include <optional>
#include <pthread.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "base/unique_fd.hpp"
#include "support/child.hpp"
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

// Descriptor 2 is this file while it exists.
class Console {
public:
  Console() {
    fcntl(file_.get(), F_SETFL, O_APPEND);
    show();
  }
  ~Console() { dup2(saved_.get(), STDERR_FILENO); }
  void show() const { dup2(file_.get(), STDERR_FILENO); }
  std::string text() const {
    return scratch::read_file("/proc/self/fd/" + std::to_string(file_.get()));
  }

private:
  const vorn::UniqueFd saved_{dup(STDERR_FILENO)};
  const vorn::UniqueFd file_{memfd_create("console", 0)};
};

// A copy of the library, which takes its console when it is loaded.
struct Library {
#define FUNCTION(name) reinterpret_cast<decltype(&::name)>(dlsym(copy, #name))
  void *const copy;
  decltype(&::evlog) const write = FUNCTION(evlog);
  decltype(&::evlog_init) const init = FUNCTION(evlog_init);
  decltype(&::evlog_destroy) const destroy = FUNCTION(evlog_destroy);
  decltype(&::evlog_original) const original = FUNCTION(evlog_original);
  decltype(&::evlog_vraw) const vraw = FUNCTION(evlog_vraw);
  decltype(&::evlog_ratelimit_set) const ratelimit_set = FUNCTION(evlog_ratelimit_set);
#undef FUNCTION
};

std::optional<Library> library;

class Evlog : public testing::Test {
protected:
  Evlog() { load(); }
  ~Evlog() override { library->destroy(); }

  void load() {
    const std::string copy = dir / std::to_string(getpid()) + "." + std::to_string(++loads);
    Dl_info linked;
    dladdr(dlsym(RTLD_DEFAULT, "evlog_init"), &linked);
    fs::copy_file(linked.dli_fname, copy);
    library.emplace(Library{dlopen(copy.c_str(), RTLD_NOW)});
  }
  void open_log() { ASSERT_EQ(library->init("app", dir.path().c_str()), 0); }
  std::string log() const { return scratch::read_file(dir / "app.log"); }

  // The log with its old files, the oldest first.
  std::string all_text() const {
    std::string text;
    for (const char *name : {"app.log.3", "app.log.2", "app.log.1", "app.log"})
      text += scratch::read_file(dir / name);
    return text;
  }

  scratch::Directory dir;
  Console console;
  int loads = 0;
};

int log_at(int level, const char *text) {
  return library->write(kModule, level, "vorn_x.c", 7, "work", 0, "%s", text);
}

int vraw(const char *format, ...) EVLOG_PRINTF(1, 2);
int vraw(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int written = library->vraw(format, args);
  va_end(args);
  return written;
}

// A text of 1000 bytes and a newline that begins with its number.
void write_numbered(int number) { library->original("%-1000d", number); }
constexpr int kNumberedPerFile = kFileBytes / 1001 + 1;

std::size_t count_of(const std::string &text, const std::string &log) {
  const auto ends = [&](const std::string &line) { return line.ends_with(text); };
  return static_cast<std::size_t>(std::ranges::count_if(lines_of(log), ends));
}

// The numbers before text, in the order of the log.
using Counts = std::vector<unsigned long>;
Counts reports(const std::string &text, const std::string &log) {
  Counts numbers;
  for (const std::string &line : lines_of(log)) {
    const std::size_t at = line.find(text);
    if (at != line.npos) numbers.push_back(std::stoul(line.substr(line.rfind(' ', at - 1))));
  }
  return numbers;
}

constexpr char kByConsole[] = " texts for the console were dropped so far.";
constexpr char kByLimit[] = " log messages of group 23 were dropped by the rate limit.";

unsigned long dropped_by_reports(const std::string &log) {
  const Counts numbers = reports(kByLimit, log);
  return std::accumulate(numbers.begin(), numbers.end(), 0ul);
}

// Run once, just before the next call of the system's function.
void (*before_write)();
void (*before_rename)();

void run(void (*&hook)()) {
  if (hook != nullptr) std::exchange(hook, nullptr)();
}

} // namespace

// Replace the system's, to act between two steps of the library.
ssize_t write(int fd, const void *text, size_t size) {
  pthread_testcancel();
  run(before_write);
  return syscall(SYS_write, fd, text, size);
}

int rename(const char *from, const char *to) {
  run(before_rename);
  return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

TEST_F(Evlog, MessageIsALineWithTimeLevelModuleThreadAndPlace) {
  setenv("TZ", "LOG-02:30", 1);
  open_log();
  const std::time_t before = time(nullptr);
  EXPECT_EQ(library->write(kModule, EVLOG_INFO, "vorn_init.c", 120, "init", 0, "ret %d.\n", -5), 0);

  const std::string text = log();
  std::tm written = {};
  ASSERT_NE(strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &written), nullptr) << text;
  EXPECT_GE(mktime(&written), before);
  EXPECT_LE(mktime(&written), time(nullptr) + 1);
  EXPECT_EQ(text.substr(text.find('+')),
            "+02:30 I 381 " + std::to_string(gettid()) + " vorn_init.c:120 init: ret -5.\n");

  for (const std::string &function : {std::string("work"), std::string(9000, 'f')}) {
    library->write(kModule, EVLOG_INFO, "vorn_x.c", 7, function.c_str(), 0, "%s",
                   std::string(9000, 't').c_str());
    const std::string line = lines_of(log()).back();
    EXPECT_EQ(line.size() - line.find("vorn_x.c"), 4095u);
    EXPECT_EQ(line.find('\0'), line.npos);
  }
  for (int level = 0; level < 8; ++level) {
    log_at(level, "text");
    EXPECT_EQ(lines_of(log()).back()[33], "CCCEWIID"[level]) << level;
  }
  EXPECT_EQ(console.text(), "");
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

TEST_F(Evlog, RawTextsAreWrittenUnchangedUpToTheirLimit) {
  open_log();
  errno = ERANGE;
  EXPECT_EQ(library->original("a %d", 1), 4);
  EXPECT_EQ(library->original("b\n"), 2);
  EXPECT_EQ(library->original("%s", ""), 1);
  EXPECT_EQ(vraw("c %s", "d"), 3);
  EXPECT_EQ(library->original(kNoText), -1);
  EXPECT_EQ(vraw(kNoText), -1);
  const std::string most(1023, 'x');
  EXPECT_EQ(library->original("%sy", most.c_str()), 1024);
  EXPECT_EQ(vraw("%sy", most.c_str()), 1023);
  EXPECT_EQ(log(), "a 1\nb\n\nc d" + most + "\n" + most);
  EXPECT_EQ(errno, ERANGE);
}

TEST_F(Evlog, SecondInitMovesTheLogUnlessItFails) {
  open_log();
  for (const auto &[program, directory, error] :
       {std::tuple{"a/b", dir.path(), EINVAL}, {"app", dir / "no/such", ENOENT}}) {
    EXPECT_EQ(library->init(program, directory.c_str()), -1) << program;
    EXPECT_EQ(errno, error) << program << " " << directory;
  }
  library->original("one");
  ASSERT_EQ(library->init(nullptr, (dir / "made").c_str()), 0);
  library->original("two");
  EXPECT_EQ(log(), "one\n");
  EXPECT_EQ(scratch::read_file(dir / "made/" + program_invocation_short_name + ".log"), "two\n");
}

TEST_F(Evlog, FilesRotateAndThreeOldOnesAreKept) {
  fs::current_path(dir.path());
  ASSERT_EQ(library->init("app", nullptr), 0);
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

// The child finds the file full while its parent rotates it, and later finds that the file was
// rotated. The child did not fill it.
TEST_F(Evlog, OneOfTheProcessesThatShareAFileRotatesIt) {
  static pid_t child;
  static constexpr auto await_stop = [] { waitpid(child, nullptr, WUNTRACED); };
  scratch::write_file(dir / "app.log", std::string(kFileBytes - 1, 'x'));
  fs::current_path(dir.path());
  open_log();
  child = fork();
  if (child == 0) {
    for (const char *text : {"child", "child, moved"}) {
      raise(SIGSTOP);
      library->original("%s", text);
    }
    _exit(0);
  }
  ASSERT_GT(child, 0);
  await_stop();
  library->original("full");
  before_rename = [] {
    EXPECT_EQ(run_in_child([] { return library->init("moved", nullptr); }), 0);
    library->original("in the midst");
    kill(child, SIGCONT);
    await_stop();
  };
  log_at(EVLOG_INFO, "parent, moved"); // a message rotates the file as well
  kill(child, SIGCONT);
  await_stop();

  EXPECT_TRUE(scratch::read_file(dir / "app.log.1").ends_with("xfull\nin the midst\nchild\n"));
  EXPECT_TRUE(log().ends_with("work: parent, moved\nchild, moved\n")) << log();
  EXPECT_FALSE(fs::exists(dir / "app.log.2"));
}

TEST_F(Evlog, FileThatCannotBeRotatedStaysBounded) {
  for (const char *old : {"app.log.1/", "app.log.2/", "app.log.3/"})
    scratch::write_file(dir / old + "in the way", "");
  open_log();
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit no_descriptor{static_cast<rlim_t>(scratch::next_descriptor()), limit.rlim_max};
  const auto lock_file = [&] {
    return lockf(open((dir / "app.log").c_str(), O_WRONLY), F_TLOCK, 0);
  };
  for (int number = 0; number < 5 * kNumberedPerFile; ++number) {
    const bool is_third = number == 3 * kNumberedPerFile;
    if (is_third) setrlimit(RLIMIT_NOFILE, &no_descriptor);
    write_numbered(number);
    if (is_third) {
      setrlimit(RLIMIT_NOFILE, &limit);
      EXPECT_GT(fs::file_size(dir / "app.log"), 3 * kFileBytes);
      EXPECT_EQ(run_in_child(lock_file), 0) << "another process may rotate the file";
    }
  }
  EXPECT_LT(fs::file_size(dir / "app.log"), 2 * kFileBytes);
  EXPECT_EQ(std::stoi(lines_of(log()).back()), 5 * kNumberedPerFile - 1);
}

TEST_F(Evlog, FullOrClosedLogSendsRawTextsAndWarningsToTheConsole) {
  fs::create_symlink("/dev/full", dir / "app.log");
  open_log();
  for (const std::size_t seen : {2u, 4u}) {
    errno = ERANGE;
    EXPECT_EQ(log_at(EVLOG_INFO, "lost"), 0);
    EXPECT_EQ(log_at(EVLOG_WARNING, "seen"), 0);
    EXPECT_EQ(library->original("raw"), 4);
    EXPECT_EQ(library->destroy(), 0);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(lines_of(console.text()).size(), seen) << console.text();
  }
}

TEST_F(Evlog, EveryMessageOfAGroupIsWrittenOrCounted) {
  open_log();
  ASSERT_EQ(library->ratelimit_set(evlog_get_group_id(kModule), 5, 3'600'000), 0);
  const auto log_many = [](int) {
    for (int i = 0; i < 50000; ++i)
      log_at(EVLOG_INFO, "limited");
  };
  run_threads(4, log_many);
  EXPECT_EQ(count_of("limited", log()), 5u);
  EXPECT_EQ(library->write(kModule + 16, EVLOG_INFO, "x.c", 7, "work", 0, "of another group"), 0);
  EXPECT_EQ(dropped_by_reports(log()), 0u);

  EXPECT_EQ(library->ratelimit_set(64, 0, 0), -1);
  ASSERT_EQ(library->ratelimit_set(23, 3, 1), 0); // with a report
  EXPECT_EQ(dropped_by_reports(log()), 199995u);
  run_threads(4, log_many);
  EXPECT_GT(dropped_by_reports(log()), 199995u) << "a new interval begins with a report";
  ASSERT_EQ(library->ratelimit_set(23, 0, 0), 0);
  EXPECT_EQ(count_of("limited", log()) + dropped_by_reports(log()), 400000u);
}

// A writer never writes to a file that takes over the descriptor of the log, and loses no text.
TEST_F(Evlog, LogMayMoveOrCloseDuringAWrite) {
  static std::string other;
  static std::vector<int> victims;
  static constexpr auto take_descriptors = [] {
    for (int i = 0; i < 10; ++i)
      victims.push_back(memfd_create("victim", 0));
  };
  other = dir / "other";
  open_log();
  before_write = [] {
    library->init("app", other.c_str());
    take_descriptors();
  };
  EXPECT_EQ(library->original("moved"), 6);
  before_write = [] {
    library->destroy();
    take_descriptors();
  };
  EXPECT_EQ(library->original("closed"), 7);
  EXPECT_EQ(scratch::read_file(other + "/app.log"), "moved\n");
  EXPECT_EQ(console.text(), "closed\n");
  for (const int victim : victims)
    EXPECT_EQ(lseek(victim, 0, SEEK_END), 0);
}

// A handler that waits for a lock of the interrupted thread never returns.
TEST_F(Evlog, SignalHandlerWritesDuringAMessage) {
  open_log();
  static std::atomic<int> handled = 0;
  signal(SIGALRM, [](int) {
    const int interrupted = errno;
    errno = ERANGE;
    if (library->original("handler %d", 1) == 10 && errno == ERANGE) ++handled;
    errno = interrupted;
  });

  const itimerval storm{{0, 200}, {0, 200}}; // microseconds
  ASSERT_EQ(setitimer(ITIMER_REAL, &storm, nullptr), 0);
  std::size_t messages = 0;
  for (; handled < 500; ++messages) {
    log_at(EVLOG_WARNING, "message");
    library->ratelimit_set(1, 1, 1);
  }
  const itimerval calm = {};
  setitimer(ITIMER_REAL, &calm, nullptr);

  EXPECT_GE(count_of("handler 1", all_text()), 500u);
  EXPECT_EQ(count_of("work: message", all_text()), messages);
}

// A process that opens a file gets the lowest free descriptor: the library holds none of 0 to 2.
TEST_F(Evlog, ClosedStandardDescriptorsAreNotUsed) {
  const std::vector<int> rows[] = {{}, {0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}};
  for (const std::vector<int> &closed : rows) {
    const auto log_and_open = [&] {
      for (const int fd : closed)
        close(fd);
      load();
      log_at(EVLOG_WARNING, "first");
      open_log();
      for (const int fd : closed)
        if (open((dir / "own").c_str(), O_RDWR | O_CREAT, 0600) != fd) return 1;
      log_at(EVLOG_WARNING, "in the file");
      library->destroy();
      log_at(EVLOG_WARNING, "second");
      return library->original("raw") > 0 ? 0 : 2;
    };
    const bool no_console = !closed.empty() && closed.back() == STDERR_FILENO;
    EXPECT_EQ(run_in_child(log_and_open), no_console ? 2 : 0) << testing::PrintToString(closed);
  }
  EXPECT_EQ(scratch::read_file(dir / "own"), "");
  EXPECT_EQ(count_of("work: in the file", log()), 8u);
  EXPECT_EQ(count_of("work: second", console.text()), 4u);
  EXPECT_EQ(reports(kByConsole, log()), (Counts{1, 1, 1, 1}));
}

TEST_F(Evlog, FileThatReplacesTheConsoleGetsNothing) {
  const vorn::UniqueFd other{memfd_create("other", 0)};
  dup2(other.get(), STDERR_FILENO);
  signal(SIGXFSZ, SIG_IGN);
  const auto let_files_grow = [](rlim_t size) {
    const rlimit limit{size, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  log_at(EVLOG_WARNING, "dropped"); // there is no file yet to report it in
  open_log();
  for (int i = 0; i < 99; ++i) {
    let_files_grow(0);
    log_at(EVLOG_WARNING, "dropped");
    let_files_grow(RLIM_INFINITY);
    log_at(EVLOG_WARNING, "in the file");
  }
  EXPECT_EQ(reports(kByConsole, log()), (Counts{2, 20}));
  console.show();
  for (int end = 0; end < 2; ++end) { // the second has nothing to report
    open_log();
    library->destroy();
  }
  log_at(EVLOG_WARNING, "seen");
  EXPECT_EQ(reports(kByConsole, log()), (Counts{2, 20, 100}));
  EXPECT_EQ(lseek(other.get(), 0, SEEK_END), 0);
  EXPECT_EQ(lines_of(console.text()).size(), 1u) << console.text();
}

// The process gets the one signal that it raises itself, before the log message or after it.
TEST_F(Evlog, ConsoleOrFileWithoutAReaderRaisesNoSigpipe) {
  static int signals = 0;
  fs::create_symlink("/proc/self/fd/2", dir / "piped.log");
  for (int row = 0; row < 8; ++row) {
    const auto log_without_reader = [&] {
      int ends[2];
      if ((row & 1 ? pipe(ends) : socketpair(AF_UNIX, SOCK_STREAM, 0, ends)) != 0) return 1;
      dup2(ends[1], STDERR_FILENO);
      load();
      if (row & 2) library->init("piped", dir.path().c_str());
      close(ends[0]);
      signal(SIGPIPE, [](int) { ++signals; });
      sigset_t sigpipe;
      sigemptyset(&sigpipe);
      sigaddset(&sigpipe, SIGPIPE);
      if (row & 4) pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
      if (row & 4) raise(SIGPIPE);
      errno = ERANGE;
      log_at(EVLOG_WARNING, "lost");
      library->original("raw");
      if (errno != ERANGE || signals != 0) return 2;
      if (row & 4) pthread_sigmask(SIG_UNBLOCK, &sigpipe, nullptr);
      if (!(row & 4)) raise(SIGPIPE);
      open_log();
      library->destroy();
      return signals == 1 ? 0 : 3;
    };
    EXPECT_EQ(run_in_child(log_without_reader), 0) << row;
  }
  EXPECT_EQ(reports(kByConsole, log()), Counts(8, 2));
}

// The text is larger than the pipe, and the pipe is closed after a part of it.
TEST_F(Evlog, FullConsoleDelaysItsWriterAlone) {
  static std::atomic<bool> returned = false;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  fcntl(ends[1], F_SETPIPE_SZ, 4096);
  dup2(ends[1], STDERR_FILENO);
  load();
  fs::current_path(dir.path());
  const auto call_all = [](void *) -> void * {
    log_at(EVLOG_WARNING, std::string(9000, 't').c_str());
    library->init("app", nullptr);
    library->ratelimit_set(23, 0, 0);
    library->original("raw");
    vraw("%s", "raw\n");
    library->destroy();
    returned = true;
    return nullptr;
  };
  pthread_t writer;
  ASSERT_EQ(pthread_create(&writer, nullptr, call_all, nullptr), 0);
  for (int waiting = 0; waiting < 4096; usleep(1000))
    ASSERT_EQ(ioctl(ends[0], FIONREAD, &waiting), 0);

  const auto start = std::chrono::steady_clock::now();
  open_log();
  log_at(EVLOG_WARNING, "parent");
  EXPECT_EQ(run_in_child([] { return log_at(EVLOG_INFO, "child"); }), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_FALSE(returned);
  pthread_cancel(writer); // may end the wait early
  close(ends[0]);
  pthread_join(writer, nullptr);
  EXPECT_TRUE(returned) << "the calls are no cancellation points";
  EXPECT_EQ(lines_of(log()).size(), 4u);
}

TEST_F(Evlog, ChildOfABusyProcessLogs) {
  if (!kMayForkBesideClosing) GTEST_SKIP() << "the emulator's child would hang";
  open_log();
  std::atomic<bool> stop = false;
  const auto keep_busy = [&] {
    while (!stop) {
      log_at(EVLOG_INFO, "busy");
      library->ratelimit_set(23, 0, 0);
      library->init("app", dir.path().c_str());
    }
  };
  const auto log_in_child = [&] {
    library->ratelimit_set(23, 0, 0);
    library->init("child", dir.path().c_str());
    return log_at(EVLOG_INFO, std::to_string(getpid()).c_str());
  };
  run_threads(3, [&](int thread) {
    if (thread > 0) return keep_busy();
    log_at(EVLOG_INFO, "parent"); // whose thread id is not the child's
    for (int i = 0; i < 50; ++i)
      EXPECT_EQ(run_in_child(log_in_child), 0);
    stop = true;
  });
  const std::vector<std::string> lines = lines_of(scratch::read_file(dir / "child.log"));
  EXPECT_EQ(lines.size(), 50u);
  for (const std::string &line : lines) {
    const std::string id = line.substr(line.rfind(' ') + 1);
    EXPECT_TRUE(line.ends_with(" I 381 " + id + " vorn_x.c:7 work: " + id)) << line;
  }
}
