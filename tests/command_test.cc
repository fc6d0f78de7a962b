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
  for (const Opener opener : kOpeners) {
    EXPECT_EQ(opener(nullptr, "r"), nullptr);
    for (const char *mode : {static_cast<const char *>(nullptr), "", "x", "r+", "wr"})
      EXPECT_EQ(opener(("touch " + (scratch_ / "ran")).c_str(), mode), nullptr);
  }
  EXPECT_FALSE(exists(scratch_ / "ran"));
  EXPECT_EQ(vorn_popen_with_pid("true", "r", nullptr), nullptr);
  EXPECT_EQ(vorn_system_s(nullptr, nullptr), -22);
  EXPECT_EQ(vorn_cmd_exec(nullptr), -22);
  EXPECT_EQ(unused_pid, 5);
  EXPECT_NO_RECORD();

  FILE *stream = vorn_popen_s("echo a | cat", "r", "|");
  EXPECT_EQ(read_all(stream), "a\n");
  EXPECT_EQ(vorn_pclose(stream), 0);
  EXPECT_EQ(exit_code(system_s("true; exit 7", ";")), 7);
}

TEST_F(CommandStream, ClosesWithTheRawStatus) {
  const std::pair<const char *, int> rows[] = {
      {"exit 3", 3 << 8}, {"kill -9 $$", SIGKILL}, {"exec /no/such/program 2>&-", 127 << 8}};
  for (const auto &[command, status] : rows) {
    for (const char *mode : {"r", "w"}) {
      FILE *stream = vorn_popen(command, mode);
      EXPECT_EQ(fcntl(fileno(stream), F_GETFD), FD_CLOEXEC);
      EXPECT_EQ(vorn_pclose(stream), status) << command;
    }
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

TEST_F(CommandRun, RefusesASeparator) {
  const std::string file = scratch_ / "ran";
  const std::string touch = "touch " + file;
  const std::pair<std::string, int> rows[] = {
      {touch + ";", 0},   {touch + " && true", 0}, {touch + "\ntrue", 0}, {touch + "; true", -1},
      {touch + ";;", -1}, {"; " + touch, -1},      {"|| " + touch, -1},   {touch + " ||", -1},
  };
  for (const auto &[command, status] : rows) {
    EXPECT_EQ(vorn_system(command.c_str()), status) << command;
    EXPECT_EQ(vorn_system_s(command.c_str(), kBlack), status) << command;
    EXPECT_EQ(exists(file), status == 0) << command;
    unlink(file.c_str());
  }
  EXPECT_EQ(vorn_system(""), 0);
}

TEST_F(CommandStream, NeedsDescriptorsAndAPlaceInTheTable) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit low{64, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  EXPECT_EQ(output_of("echo x"), "x\n"); // there is a table of 64 now
  setrlimit(RLIMIT_NOFILE, &limit);
  std::vector<int> fillers;
  for (int fd = dup(0); fd < 63; fd = dup(0))
    fillers.push_back(fd); // 63 is taken too, and one to read from would be 64
  EXPECT_EQ(vorn_popen("echo x", "r"), nullptr);
  EXPECT_EQ(errno, EMFILE);
  FILE *high = std::fopen("/dev/null", "re");
  EXPECT_EQ(fileno(high), 64);
  EXPECT_EQ(vorn_pclose(high), -1);
  std::fclose(high);
  close(63);
  EXPECT_EQ(output_of("echo x"), "x\n");
  for (const int fd : fillers)
    close(fd);
}

TEST_F(CommandRun, IsThatOfAProgramLinkedForIt) {
  const std::string emulator = VORN_TEST_EMULATOR;
  EXPECT_EQ(exit_code(std::system((emulator + " " + VORN_TEST_PROGRAM).c_str())), 0);
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

TEST_F(CommandRun, HasNoStatusWhereChildrenAreIgnored) {
  std::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(vorn_system("true"), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(vorn_pclose(vorn_popen("true", "r")), -1);
  sigset_t mask;
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_TRUE(sigisemptyset(&mask));
}

// The number of the first thing that is wrong, 0 for none.
int try_with_closed(unsigned int closed, const std::string &path) {
  for (int fd = 0; fd < 3; ++fd) {
    if ((closed >> fd & 1) != 0) close(fd);
  }
  FILE *read = vorn_popen("echo text", "r");
  FILE *write = vorn_popen(("cat > " + path).c_str(), "w");
  if (read == nullptr || write == nullptr) return 1;
  // Neither of the streams is another child's.
  const std::string list = "test -e /proc/self/fd/" + std::to_string(fileno(read)) +
                           " -o -e /proc/self/fd/" + std::to_string(fileno(write));
  if (exit_code(vorn_system(list.c_str())) != 1) return 2;
  if (read_all(read) != "text\n") return 3;
  if (std::fputs("text", write) < 0 || vorn_pclose(write) != 0) return 4;
  if (vorn_pclose(read) != 0) return 5;
  return scratch::read_file(path) == "text" ? 0 : 6;
}

TEST_F(CommandStream, AnyStandardDescriptorMayBeClosed) {
  for (unsigned int closed = 0; closed < 8; ++closed) {
    const pid_t child = fork();
    if (child == 0) _exit(try_with_closed(closed, scratch_ / "out"));
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << closed << " step " << exit_code(status);
  }
}

TEST_F(CommandExec, LooksAtTheArgumentsOnly) {
  const auto argument = [](const char *text) { return const_cast<char *>(text); };
  char *const safe[] = {argument("sh"), argument("-c"), argument("exit 7"), nullptr};
  char *const unsafe[] = {argument("sh"), nullptr, argument("a|b"), argument("c;d"), nullptr};
  const auto accept = [](const char *path, int, char *const *) {
    return path == std::string("/bin/sh") ? 0x101 : 0x100;
  };
  const char *missing = "/no/such;program";
  EXPECT_EQ(execv_s(nullptr, 3, safe, nullptr, nullptr), -22);
  EXPECT_EQ(execv_s("/bin/sh", -1, safe, nullptr, nullptr), -22);
  EXPECT_EQ(execv_s(missing, 3, safe, nullptr, accept), kDangerous);
  EXPECT_EQ(execv_s(missing, 4, unsafe, ";|", nullptr), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(execv_s(missing, 2, unsafe, nullptr, nullptr), -1);
  EXPECT_NO_RECORD();
  EXPECT_EQ(execv_s("/bin/sh", 4, unsafe, "|", accept), kDangerous);
  EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_str.c", "execv_s",
                    "execv cmd is dangerous, argv[3] is: c;d.");
  const pid_t child = fork();
  if (child == 0) _exit(execv_s("/bin/sh", 3, safe, nullptr, accept));
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(exit_code(status), 7);
}

} // namespace
