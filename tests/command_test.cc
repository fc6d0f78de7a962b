// test-runs: wrapped_commands
#include "vorn_cmd.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"

namespace {

constexpr char kBlack[] = "|;&$<>!\n`";
constexpr int kDangerous = -29;

std::string read_all(FILE *stream) {
  std::string text;
  for (int c = std::fgetc(stream); c != EOF; c = std::fgetc(stream))
    text.push_back(static_cast<char>(c));
  return text;
}

std::string output_of(const std::string &command) {
  FILE *stream = vorn_popen(command.c_str(), "r");
  if (stream == nullptr) return "no stream";
  const std::string text = read_all(stream);
  EXPECT_EQ(vorn_pclose(stream), 0);
  return text;
}

int exit_code(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// Every case leaves nothing behind: no child, running or not, and no descriptor.
class Command : public testing::Test {
protected:
  ~Command() override {
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(descriptors(), before_);
  }

  static std::set<int> descriptors() {
    std::set<int> open;
    for (int fd = 0; fd < 256; ++fd) {
      if (fcntl(fd, F_GETFD) >= 0) open.insert(fd);
    }
    return open;
  }

  scratch::Directory scratch_;

private:
  const std::set<int> before_ = descriptors();
};

using CommandGuard = Command;
using CommandStream = Command;
using CommandRun = Command;
using CommandExec = Command;

TEST_F(CommandGuard, JudgesEveryCharacter) {
  for (int code = 0; code < 256; ++code) {
    SCOPED_TRACE(code);
    const char character = static_cast<char>(code);
    const bool black = code != 0 && std::strchr(kBlack, code) != nullptr;
    std::string others = kBlack;
    std::erase(others, character);
    const std::string own(1, character);
    const std::string command = std::string("a") + character + "b";

    EXPECT_EQ(isBlackChar(&character), black);
    EXPECT_EQ(isWhiteChar(&character, own.c_str()), code != 0);
    EXPECT_EQ(isWhiteChar(&character, others.c_str()),
              code != 0 && others.find(character) != std::string::npos);
    EXPECT_EQ(isDangerousCmd(command.c_str(), nullptr), black);
    EXPECT_EQ(isDangerousCmd(command.c_str(), others.c_str()), black);
    EXPECT_EQ(isDangerousCmd(command.c_str(), own.c_str()), 0);
  }
  const char bar = '|';
  EXPECT_EQ(isBlackChar(nullptr), 0);
  EXPECT_EQ(isWhiteChar(nullptr, "|"), 0);
  EXPECT_EQ(isWhiteChar(&bar, nullptr), 0);
  EXPECT_EQ(isDangerousCmd(nullptr, nullptr), 0);
  EXPECT_EQ(isDangerousCmd("", "|"), 0);
}

// Ways to a stream; all but the first look at the command.
int unused_pid = 5;
using Opener = FILE *(*)(const char *command, const char *mode);
const std::vector<Opener> kOpeners = {
    vorn_popen,
    [](const char *command, const char *mode) { return vorn_popen_s(command, mode, nullptr); },
    [](const char *command, const char *mode) {
      return vorn_popen_s_with_pid(command, mode, "", &unused_pid);
    },
    [](const char *command, const char *mode) { return popen_s(command, mode, nullptr); },
};

TEST_F(CommandGuard, FrontEndsRefuseInSilence) {
  for (const char *black = kBlack; *black != '\0'; ++black) {
    SCOPED_TRACE(*black);
    const std::string command = "touch " + (scratch_ / "ran") + *black;
    for (size_t i = 1; i < kOpeners.size(); ++i)
      EXPECT_EQ(kOpeners[i](command.c_str(), "r"), nullptr) << i;
    EXPECT_EQ(vorn_system_s(command.c_str(), nullptr), kDangerous);
    EXPECT_EQ(system_s(command.c_str(), nullptr), kDangerous);
  }
  EXPECT_FALSE(exists(scratch_ / "ran"));

  for (const Opener opener : kOpeners) {
    EXPECT_EQ(opener(nullptr, "r"), nullptr);
    for (const char *mode : {static_cast<const char *>(nullptr), "", "x", "r+", "rw", "re", "wr"})
      EXPECT_EQ(opener("true", mode), nullptr);
  }
  EXPECT_EQ(vorn_popen_with_pid(nullptr, "r", &unused_pid), nullptr);
  EXPECT_EQ(vorn_popen_with_pid("true", "r", nullptr), nullptr);
  EXPECT_EQ(vorn_popen_s_with_pid("true", "r", nullptr, nullptr), nullptr);
  EXPECT_EQ(vorn_pclose(nullptr), -1);
  for (const auto run : {vorn_system, vorn_cmd_exec})
    EXPECT_EQ(run(nullptr), -22);
  for (const auto run : {vorn_system_s, system_s})
    EXPECT_EQ(run(nullptr, nullptr), -22);
  EXPECT_EQ(unused_pid, 5);
  EXPECT_NO_RECORD();
}

TEST_F(CommandGuard, FrontEndsRunWhatIsPermitted) {
  FILE *stream = vorn_popen_s("echo a | cat", "r", "|");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(read_all(stream), "a\n");
  EXPECT_EQ(exit_code(vorn_pclose(stream)), 0);

  for (const char *mode : {"r", "w"}) {
    stream = popen_s("exit 4", mode, nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fcntl(fileno(stream), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(fileno(stream), F_GETFL) & O_ACCMODE, mode[0] == 'r' ? O_RDONLY : O_WRONLY);
    EXPECT_EQ(exit_code(pclose(stream)), 4);
  }

  EXPECT_EQ(exit_code(vorn_cmd_exec("exit 6")), 6);
  EXPECT_EQ(exit_code(system_s("true; exit 7", ";")), 7);
}

TEST_F(CommandStream, ClosesWithTheRawStatus) {
  const std::pair<const char *, int> rows[] = {
      {"exit 3", 3 << 8}, {"kill -9 $$", SIGKILL}, {"exec /no/such/program 2>&-", 127 << 8}};
  for (const auto &[command, status] : rows) {
    FILE *stream = vorn_popen(command, "r");
    EXPECT_EQ(vorn_pclose(stream), status) << command;
    EXPECT_EQ(vorn_system(command), status) << command;
  }
}

TEST_F(CommandStream, LeavesStreamsOfOthersOpen) {
  FILE *file = std::fopen("/dev/null", "re");
  EXPECT_EQ(vorn_pclose(file), -1); // there is no table yet
  EXPECT_EQ(output_of("echo x"), "x\n");
  EXPECT_EQ(vorn_pclose(file), -1);
  EXPECT_EQ(std::fclose(file), 0);

  const int used = open("/dev/null", O_RDONLY); // the number after it was that of the first stream
  int pid = -1;
  FILE *stream = vorn_popen_s_with_pid("echo y", "r", nullptr, &pid);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(vorn_pclose(stream), -1);
  EXPECT_EQ(read_all(stream), "y\n");
  std::fclose(stream);
  close(used);
  int status = -1;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
}

TEST_F(CommandStream, ThatCannotBeMadeLeavesThePipeOpen) {
  const int first = open("/dev/null", O_RDONLY);
  const int second = open("/dev/null", O_RDONLY);
  close(first);
  close(second);
  int pid = 5;
  EXPECT_EQ(vorn_popen_with_pid("cat >/dev/null", "x", &pid), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(pid, 5);
  EXPECT_ONE_RECORD(EVLOG_INFO, "vorn_str.c", "vorn_popen_with_pid",
                    "Iop is NULL, modes:(x), pdes[0]=(" + std::to_string(first) + "), pdes[1]=(" +
                        std::to_string(second) + "), errno:(22).");
  EXPECT_EQ(close(second), 0);
  EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

// Ends with its input; not for good if a child holds an end of another's pipe.
constexpr char kReadAll[] = "exec timeout 20 cat";

TEST_F(CommandStream, ServesManyThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 6; ++i) {
        FILE *first = vorn_popen(kReadAll, "w");
        FILE *second = vorn_popen(kReadAll, "w");
        const std::string number = std::to_string(100 * t + i);
        EXPECT_EQ(output_of("echo " + number), number + "\n");
        EXPECT_EQ(exit_code(vorn_system(("exit " + std::to_string(t)).c_str())), t);
        EXPECT_EQ(vorn_pclose(first), 0);
        EXPECT_EQ(vorn_pclose(second), 0);
      }
    });
  }
  for (std::thread &thread : threads)
    thread.join();
}

TEST_F(CommandStream, NeedsDescriptorsAndAPlaceInTheTable) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  const rlimit low{64, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_EQ(vorn_popen("true", "r"), nullptr); // no table
  setrlimit(RLIMIT_NOFILE, &low);
  EXPECT_EQ(output_of("echo x"), "x\n");
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_EQ(vorn_popen("true", "r"), nullptr);
  EXPECT_EQ(vorn_popen_with_pid("true", "r", &unused_pid), nullptr);
  setrlimit(RLIMIT_NOFILE, &limit);

  std::vector<int> fillers;
  for (int fd = dup(0); fd < 63; fd = dup(0))
    fillers.push_back(fd); // 63 is taken too, and one to read from would be 64
  const std::set<int> filled = descriptors();
  EXPECT_EQ(vorn_popen("echo x", "r"), nullptr);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(descriptors(), filled);
  FILE *high = std::fopen("/dev/null", "re");
  EXPECT_EQ(fileno(high), 64);
  EXPECT_EQ(vorn_pclose(high), -1);
  std::fclose(high);

  close(63);
  EXPECT_EQ(output_of("echo x"), "x\n");
  for (const int fd : fillers)
    close(fd);
}

TEST_F(CommandRun, RefusesASeparator) {
  const std::string file = scratch_ / "ran";
  const std::string touch = "touch " + file;
  const struct {
    std::string command;
    int status;
    bool runs;
  } rows[] = {
      {touch + ";", 0, true},        {touch + "; true", -1, false}, {touch + ";;", -1, false},
      {"; " + touch, -1, false},     {"|| " + touch, -1, false},    {touch + " ||", -1, false},
      {touch + " && true", 0, true}, {touch + "\ntrue", 0, true},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.command);
    EXPECT_EQ(vorn_system(row.command.c_str()), row.status);
    EXPECT_EQ(vorn_system_s(row.command.c_str(), kBlack), row.status);
    EXPECT_EQ(exists(file), row.runs);
    unlink(file.c_str());
  }
  EXPECT_EQ(vorn_system(""), 0);
  EXPECT_EQ(exit_code(vorn_system(";")), 2); // the shell's own answer
}

TEST_F(CommandRun, IsThatOfAProgramLinkedForIt) {
  const std::string emulator = VORN_TEST_EMULATOR;
  EXPECT_EQ(exit_code(std::system((emulator + " " + VORN_TEST_PROGRAM).c_str())), 0);
}

std::atomic<int> interruptions{0};

TEST_F(CommandRun, WaitsThroughInterruptions) {
  struct sigaction action {};
  action.sa_handler = [](int) { ++interruptions; };
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 20000}, {0, 20000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(vorn_system("sleep 0.2"), 0);
  EXPECT_GT(interruptions.exchange(0), 0);
  FILE *stream = vorn_popen("sleep 0.2", "r");
  EXPECT_EQ(vorn_pclose(stream), 0);
  EXPECT_GT(interruptions.load(), 0);
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
}

const char *sign = nullptr; // a file
std::atomic<int> handled_after_sign{-1};

TEST_F(CommandStream, HoldsSignalsBackWhileItCloses) {
  const std::string file = scratch_ / "done";
  sign = file.c_str();
  struct sigaction action {};
  action.sa_handler = [](int) {
    const int error = errno;
    handled_after_sign = access(sign, F_OK) == 0;
    errno = error;
  };
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT}) {
    sigaction(signal, &action, nullptr);
    const std::string command =
        "sleep 0.2; kill -" + std::to_string(signal) + " $PPID; sleep 0.05; touch " + file;
    FILE *stream = vorn_popen(command.c_str(), "r");
    EXPECT_EQ(vorn_pclose(stream), 0);
    EXPECT_EQ(handled_after_sign.exchange(-1), 1) << signal;
    unlink(file.c_str());
  }
  EXPECT_EQ(vorn_system(("kill -1 $PPID && sleep 0.3 && touch " + file).c_str()), 0);
  EXPECT_EQ(handled_after_sign.load(), 0) << "a plain command holds none back";
}

TEST_F(CommandRun, WithoutAShellTheExitCodeTells) {
  if (!scratch::cover_directory("/bin")) GTEST_SKIP() << "no right to mount here";
  EXPECT_EQ(exit_code(vorn_system("true")), 127);
  FILE *stream = vorn_popen("true", "r");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(read_all(stream), "");
  EXPECT_EQ(exit_code(vorn_pclose(stream)), 127);
}

TEST_F(CommandRun, ShellsInheritMaskAndIgnoredSignals) {
  std::signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  EXPECT_EQ(output_of("kill -USR1 $$; kill -USR2 $$; echo alive"), "alive\n");
  EXPECT_EQ(vorn_system("kill -USR1 $$ && kill -USR2 $$"), 0);
}

TEST_F(CommandRun, HasNoStatusWhereChildrenAreIgnored) {
  std::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(vorn_system("true"), -1);
  EXPECT_EQ(errno, ECHILD);
  sigset_t before;
  sigset_t after;
  sigprocmask(SIG_BLOCK, nullptr, &before);
  FILE *stream = vorn_popen("true", "r");
  EXPECT_EQ(vorn_pclose(stream), -1);
  sigprocmask(SIG_BLOCK, nullptr, &after);
  for (int signal = 1; signal < NSIG; ++signal)
    EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
}

TEST_F(CommandRun, IsNotCancelled) {
  int status = -1;
  int stream_status = -1;
  std::thread thread([&] {
    pthread_cancel(pthread_self());
    status = vorn_system("exit 1");
    FILE *stream = vorn_popen("exit 2", "r");
    stream_status = stream == nullptr ? -1 : vorn_pclose(stream);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // a std::thread is not made for it
  });
  thread.join();
  EXPECT_EQ(exit_code(status), 1);
  EXPECT_EQ(exit_code(stream_status), 2);
}

// Writes the numbers below 10 that are open in the shell to its first argument.
constexpr char kListOpen[] = "open=\n"
                             "for fd in 0 1 2 3 4 5 6 7 8 9; do\n"
                             "  if test -e /proc/self/fd/$fd; then open=$open$fd; fi\n"
                             "done\n"
                             "echo $open > $1\n";

// What a child should have: what is not close-on-exec, and the end of its pipe.
std::string inherited(int piped) {
  std::string numbers;
  for (int fd = 0; fd < 10; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (fd == piped || (flags >= 0 && (flags & FD_CLOEXEC) == 0)) numbers += std::to_string(fd);
  }
  return numbers + "\n";
}

// The number of the first thing that is wrong, 0 for none.
int try_with_closed(unsigned int closed, const scratch::Directory &scratch) {
  for (int fd = 0; fd < 3; ++fd) {
    if ((closed >> fd & 1) != 0) close(fd);
  }
  const std::string list = "/bin/sh " + (scratch / "list") + " ";
  const std::string want_read = inherited(1);
  FILE *read = vorn_popen((list + (scratch / "1") + "; cat " + (scratch / "1")).c_str(), "r");
  const std::string want_write = inherited(0);
  FILE *write = vorn_popen((list + (scratch / "2") + "; cat > " + (scratch / "3")).c_str(), "w");
  if (read == nullptr || write == nullptr) return 1;
  const std::string want_system = inherited(-1);
  if (vorn_system((list + (scratch / "4")).c_str()) != 0) return 2;
  if (read_all(read) != want_read) return 3;
  if (std::fputs("text", write) < 0 || vorn_pclose(write) != 0) return 4;
  if (vorn_pclose(read) != 0) return 5;
  if (scratch::read_file(scratch / "2") != want_write) return 6;
  if (scratch::read_file(scratch / "3") != "text") return 7;
  if (scratch::read_file(scratch / "4") != want_system) return 8;
  return 0;
}

TEST_F(CommandStream, AnyStandardDescriptorMayBeClosed) {
  scratch::write_file(scratch_ / "list", kListOpen);
  for (unsigned int closed = 0; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    const pid_t child = fork();
    if (child == 0) _exit(try_with_closed(closed, scratch_));
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "step " << exit_code(status);
  }
}

TEST_F(CommandExec, LooksAtTheArgumentsOnly) {
  const auto argument = [](const char *text) { return const_cast<char *>(text); };
  char *const safe[] = {argument("sh"), argument("-c"), argument("exit 7"), nullptr};
  char *const unsafe[] = {argument("sh"), nullptr, argument("a|b"), argument("c;d"), nullptr};
  const auto accept = [](const char *, int, char *const *) { return 0x101; };
  const auto refuse = [](const char *, int, char *const *) { return 0x100; };
  const char *missing = "/no/such;program";

  EXPECT_EQ(execv_s(nullptr, 3, safe, nullptr, nullptr), -22);
  EXPECT_EQ(execv_s("/bin/sh", 3, nullptr, nullptr, nullptr), -22);
  EXPECT_EQ(execv_s("/bin/sh", -1, safe, nullptr, nullptr), -22);
  EXPECT_EQ(execv_s("/bin/sh", 3, safe, nullptr, refuse), kDangerous);
  EXPECT_EQ(execv_s(missing, 3, safe, nullptr, accept), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(execv_s(missing, 4, unsafe, ";|", nullptr), -1);
  EXPECT_EQ(execv_s(missing, 2, unsafe, nullptr, nullptr), -1);
  EXPECT_NO_RECORD();
  EXPECT_EQ(execv_s(missing, 4, unsafe, nullptr, accept), kDangerous);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "execv_s",
                    "execv cmd is dangerous, argv[2] is: a|b.");
  EXPECT_EQ(execv_s(missing, 4, unsafe, "|", accept), kDangerous);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "execv_s",
                    "execv cmd is dangerous, argv[3] is: c;d.");
}

TEST_F(CommandExec, PassesTheCommandLineToTheChecker) {
  const pid_t child = fork();
  if (child == 0) {
    char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                          const_cast<char *>("exit 7"), nullptr};
    execv_s("/bin/sh", 3, argv, nullptr, [](const char *path, int count, char *const *seen) {
      return static_cast<int>(path == std::string("/bin/sh") && count == 3 &&
                              seen[2] == std::string("exit 7"));
    });
    _exit(1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(exit_code(status), 7);
}

} // namespace
