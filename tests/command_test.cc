// test-runs: wrapped_commands
// Tests guarded commands and streams.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cmd.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "evlog.h"
#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"

namespace {

constexpr char kBlack[] = "|;&$<>!\n`";
constexpr int kDangerous = -29;

std::string line_of(FILE *stream) {
  char line[16];
  return stream != nullptr && std::fgets(line, sizeof line, stream) != nullptr ? line : "(none)";
}

std::string output_of(const std::string &command, const char *whitelist = nullptr) {
  FILE *stream = vorn_popen_s(command.c_str(), "r", whitelist);
  const std::string line = line_of(stream);
  EXPECT_EQ(vorn_pclose(stream), 0);
  return line;
}

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// Each case checks at its end that no child, running or not, and no descriptor is left.
class Command : public testing::Test {
protected:
  ~Command() override {
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(descriptors(), before_);
  }

  static std::vector<int> descriptors() {
    std::vector<int> open;
    for (int fd = 0; fd < 256; ++fd)
      if (fcntl(fd, F_GETFD) >= 0) open.push_back(fd);
    return open;
  }

  scratch::Directory scratch_;
  const std::string file = scratch_ / "file";

private:
  const std::vector<int> before_ = descriptors();
};

using CommandStream = Command;

TEST_F(Command, JudgesEveryCharacter) {
  for (int code = 0; code < 256; ++code) {
    const std::string own(1, static_cast<char>(code));
    const std::string command = "a" + own + "b";
    const bool black = code != 0 && std::strchr(kBlack, code) != nullptr;
    EXPECT_EQ(isBlackChar(own.data()), black) << code;
    EXPECT_EQ(isWhiteChar(own.data(), own.c_str()), code != 0) << code;
    EXPECT_EQ(isWhiteChar("x", own.c_str()), code == 'x');
    EXPECT_EQ(isDangerousCmd(command.c_str(), "x"), black) << code;
    EXPECT_EQ(isDangerousCmd(command.c_str(), own.c_str()), 0) << code;
  }
}

// The functions that open a stream. All but the first check the command.
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

TEST_F(Command, RefusalsAreNotLogged) {
  const std::string touch = "touch " + file;
  for (const char black : std::string(kBlack)) {
    const std::string command = touch + black;
    for (size_t i = 1; i < kOpeners.size(); ++i)
      EXPECT_EQ(kOpeners[i](command.c_str(), "r"), nullptr) << i;
    EXPECT_EQ(vorn_system_s(command.c_str(), nullptr), kDangerous);
    EXPECT_EQ(system_s(command.c_str(), nullptr), kDangerous);
  }
  for (const Opener opener : kOpeners) {
    EXPECT_EQ(opener(nullptr, "r"), nullptr);
    for (const char *mode : {static_cast<const char *>(nullptr), "", "x", "r+", "wr"})
      EXPECT_EQ(opener(touch.c_str(), mode), nullptr);
  }
  EXPECT_FALSE(exists(file));
  EXPECT_EQ(vorn_popen_with_pid("true", "r", nullptr), nullptr);
  EXPECT_EQ(vorn_cmd_exec(nullptr), -22);
  EXPECT_EQ(unused_pid, 5);
  EXPECT_NO_MESSAGE();

  EXPECT_EQ(output_of("echo a | cat", "|"), "a\n");
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

TEST_F(CommandStream, DoesNotCloseForeignStreams) {
  EXPECT_EQ(vorn_pclose(stdin), -1); // there is no table yet
  EXPECT_EQ(output_of("echo x"), "x\n");
  EXPECT_EQ(vorn_pclose(stdin), -1);

  int pid = -1;
  FILE *stream = vorn_popen_s_with_pid("echo y", "r", nullptr, &pid); // has the first one's number
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(vorn_pclose(stream), -1);
  EXPECT_EQ(line_of(stream), "y\n");
  std::fclose(stream);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

// On purpose, the library's end of the pipe stays open, and the call does not wait for the command.
TEST_F(CommandStream, CommandWithoutAStreamContinues) {
  const int first = scratch::next_descriptor();
  int pid = 5;
  EXPECT_EQ(vorn_popen_with_pid("cat >/dev/null", "x", &pid), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(pid, 5);
  const std::string ends = "pdes[0]=(" + std::to_string(first) + "), pdes[1]=(" +
                           std::to_string(first + 1) + "), errno:(22).";
  EXPECT_ONE_MESSAGE(EVLOG_INFO, "vorn_str.c", "vorn_popen_with_pid",
                     "Iop is NULL, modes:(x), " + ends);
  EXPECT_EQ(write(first + 1, "x", 1), 1);
  close(first + 1);
  EXPECT_GT(wait(nullptr), 0);
}

// Ends with its input, but never if a child holds an end of another child's pipe.
constexpr char kReadAll[] = "exec timeout 20 cat";

TEST_F(CommandStream, ServesManyThreads) {
  run_threads(4, [](int thread) {
    for (int i = 0; i < 6; ++i) {
      FILE *reader = vorn_popen(kReadAll, "w");
      const std::string number = std::to_string(100 * thread + i);
      EXPECT_EQ(output_of("echo " + number), number + "\n");
      EXPECT_EQ(exit_code(vorn_system(("exit " + std::to_string(thread)).c_str())), thread);
      EXPECT_EQ(vorn_pclose(reader), 0);
    }
  });
}

TEST_F(Command, RefusesASeparator) {
  const std::string touch = "touch " + file;
  const std::pair<std::string, int> rows[] = {
      {touch + ";", 0},   {touch + " && true", 0}, {touch + "; true", -1},
      {touch + ";;", -1}, {"|| " + touch, -1},     {touch + " ||", -1},
  };
  for (const auto &[command, status] : rows) {
    EXPECT_EQ(vorn_system(command.c_str()), status) << command;
    EXPECT_EQ(vorn_system_s(command.c_str(), kBlack), status) << command;
    EXPECT_EQ(exists(file), status == 0) << command;
    unlink(file.c_str());
  }
}

TEST_F(Command, ReplacesTheSystemsInALinkedProgram) {
  const std::string emulator = VORN_TEST_EMULATOR;
  EXPECT_EQ(exit_code(std::system((emulator + " " + VORN_TEST_PROGRAM).c_str())), 0);
}

const char *sign = nullptr; // a file
std::atomic<int> handled_after_sign{-1};

TEST_F(CommandStream, BlocksSignalsWhileItCloses) {
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
  EXPECT_EQ(handled_after_sign.load(), 0) << "a plain command blocks none";
}

TEST_F(Command, IsNotCancelled) {
  int status = -1;
  int stream_status = -1;
  std::thread([&] {
    pthread_cancel(pthread_self());
    status = vorn_system("exit 1");
    FILE *stream = vorn_popen("exit 2", "r");
    stream_status = stream == nullptr ? -1 : vorn_pclose(stream);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // a std::thread cannot be cancelled
  }).join();
  EXPECT_EQ(exit_code(status), 1);
  EXPECT_EQ(exit_code(stream_status), 2);
}

TEST_F(Command, HasNoStatusIfChildrenAreIgnored) {
  std::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(vorn_system("true"), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(vorn_pclose(vorn_popen("true", "r")), -1);
  sigset_t mask;
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_TRUE(sigisemptyset(&mask));
}

// Returns the number of the first wrong thing, or 0.
int try_with_closed(unsigned int closed, const std::string &path) {
  for (int fd = 0; fd < 3; ++fd)
    if ((closed >> fd & 1) != 0) close(fd);
  FILE *read = vorn_popen("echo text", "r");
  FILE *write = vorn_popen(("cat > " + path).c_str(), "w");
  if (read == nullptr || write == nullptr || fileno(read) < 3 || fileno(write) < 3) return 1;
  // Neither stream belongs to another child.
  const std::string list = "test -e /proc/self/fd/" + std::to_string(fileno(read)) +
                           " -o -e /proc/self/fd/" + std::to_string(fileno(write));
  if (exit_code(vorn_system(list.c_str())) != 1) return 2;
  if (line_of(read) != "text\n") return 3;
  if (std::fputs("text", write) < 0 || vorn_pclose(write) != 0) return 4;
  if (vorn_pclose(read) != 0) return 5;
  return scratch::read_file(path) == "text" ? 0 : 6;
}

TEST_F(CommandStream, AnyStandardDescriptorMayBeClosed) {
  for (unsigned int closed = 0; closed < 8; ++closed)
    EXPECT_EQ(run_in_child([&] { return try_with_closed(closed, file); }), 0) << closed;
}

TEST_F(Command, ChecksTheArgumentsOnly) {
  const auto argument = [](const char *text) { return const_cast<char *>(text); };
  char *const safe[] = {argument("sh"), argument("-c"), argument("exit 7"), nullptr};
  char *const unsafe[] = {argument("sh"), nullptr, argument("a|b"), argument("c;d"), nullptr};
  const auto accept = [](const char *path, int, char *const *) {
    return path == std::string("/bin/sh") ? 0x101 : 0x100;
  };
  const char *missing = "/no/such;program"; // a command that passes the guard fails to run
  EXPECT_EQ(execv_s(nullptr, 3, safe, nullptr, nullptr), -22);
  EXPECT_EQ(execv_s(missing, -1, safe, nullptr, nullptr), -22);
  EXPECT_EQ(execv_s(missing, 3, safe, nullptr, accept), kDangerous);
  EXPECT_EQ(execv_s(missing, 4, unsafe, ";|", nullptr), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(execv_s(missing, 2, unsafe, nullptr, nullptr), -1);
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(execv_s(missing, 4, unsafe, "|", nullptr), kDangerous);
  EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_str.c", "execv_s",
                     "execv cmd is dangerous, argv[3] is: c;d.");
  EXPECT_EQ(run_in_child([&] { return execv_s("/bin/sh", 3, safe, nullptr, accept); }), 7);
}

} // namespace
