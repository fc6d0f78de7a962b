// Tests the small programs of examples/ as a user runs them, and vorn-node.
// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child.hpp"
#include "support/scratch.hpp"
#include "support/shell.hpp"

namespace {

std::string command(const std::string &example) {
  return VORN_TEST_EMULATOR " " VORN_EXAMPLES "/" + example;
}

bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

// Runs in its own directory.
class Examples : public testing::Test {
protected:
  Examples() { EXPECT_EQ(chdir(directory_.path().c_str()), 0); }
  ~Examples() override { EXPECT_EQ(chdir("/"), 0); }

private:
  scratch::Directory directory_;
};

TEST_F(Examples, PrintWhatTheyDid) {
  const struct {
    const char *name, *text;
  } rows[] = {
      {"ring", "20000 requests of 2 producers came in order\n"},
      {"timers", "flushed [1-9][0-9]* times, [0-9]+ of them late\n"},
      {"ini", "49 edits, each seen whole and in order\n"},
      {"instance", "mover_2 moved [1-9][0-9]+ blocks\nmover_1 moved [1-9][0-9]+ blocks\n"},
      {"stand_in", "keep_awake: done, 4 of 4 CPUs are awake\n"
                   "keep_awake: Input/output error, 0 of 4 CPUs are awake\n"
                   "keep_awake: Operation not supported, 0 of 4 CPUs are awake\n"
                   "all is as expected\n"},
  };
  for (const auto &row : rows) {
    const Outcome outcome = shell(command(row.name) + " 2>errors");
    EXPECT_EQ(outcome.status, 0) << row.name << scratch::read_file("errors");
    EXPECT_TRUE(std::regex_match(outcome.text, std::regex(row.text))) << outcome.text;
    EXPECT_TRUE(contains(scratch::read_file("./" + std::string(row.name) + ".log"),
                         "vorn_Init: Vorn init end ret 0."));
  }
  EXPECT_NE(access("ini-example.ini", F_OK), 0);
}

TEST_F(Examples, ReportThatTheLibraryDoesNotStart) {
  for (const std::string name : {"echo", "ring", "timers", "ini", "instance", "stand_in"}) {
    scratch::write_file("./" + name + ".log/file", ""); // a directory where the log is to be
    const Outcome outcome = shell(command(name));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.text, name + ": the library does not start\n");
  }
}

TEST_F(Examples, StandInTakesItsAnswersFromTheEnvironment) {
  const std::string answers = "VORNSIM_ANSWER='0x305=1@2147483648, 0x305=EIOX 0x9=1,"
                              "0x306=EIO@,0x306=EPERM,0x305=0@9' ";
  const Outcome outcome = shell(answers + command("stand_in"));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.text, "keep_awake: Operation not permitted, 0 of 4 CPUs are awake"));
  for (const char *entry : {"0x305=1@2147483648", "0x305=EIOX", "0x9=1", "0x306=EIO@"})
    EXPECT_TRUE(contains(outcome.text,
                         "vornsim: VORNSIM_ANSWER: '" + std::string(entry) + "' is left out: "));
  EXPECT_FALSE(contains(outcome.text, "0@9"));
}

TEST_F(Examples, RunWithANodesFiles) {
  const std::string node = std::string(VORN_NODE) + " ./node ";
  EXPECT_EQ(shell(node + "true").text, "vorn-node: there is no directory ./node\n");
  scratch::write_file("./node/VORN/conf/item", "a new directory\n");
  scratch::write_file("./node/var/hostname", "a file\n");
  scratch::write_file("./node/var/vorn/file", "a directory in one of the machine's\n");
  if (contains(shell(node + "true").text, "permits this user no private mounts"))
    GTEST_SKIP() << scratch::kNoMounts; // any other failure of vorn-node fails the case

  const Outcome files = shell(node + "sh -c 'cat /VORN/conf/item /var/hostname /var/vorn/file;"
                                     "[ -d /var/lib ] && echo $LD_PRELOAD; exit 7' 2>/dev/null");
  EXPECT_EQ(files.status, 7);
  EXPECT_EQ(files.text,
            "a new directory\na file\na directory in one of the machine's\nlibvornsim.so\n");
  // Without the preload: the address sanitizer must be the first library.
  const Outcome shared = shell(node + "sh -c 'unset LD_PRELOAD; ls -A /dev/shm; " +
                               command("ring") + " >output; ls /dev/shm' 2>/dev/null");
  EXPECT_TRUE(shared.text.starts_with("SYSINFO_PUICPUUSAGE_NOROOT\n")) << shared.text;
  EXPECT_EQ(scratch::read_file("output"), "20000 requests of 2 producers came in order\n");
  EXPECT_NE(access("/VORN", F_OK), 0);
}

// A client of the echo; -1 if the echo does not listen within ten seconds.
int connect_to_echo() {
  const sockaddr_un address = {AF_UNIX, "echo.socket"};
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(client, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
      return client;
    close(client);
    usleep(10000);
  }
  return -1;
}

TEST_F(Examples, EchoEndsCleanlyWhileClientsAreConnected) {
  const std::string line = "exec " + command("echo") + " >output 2>errors";
  const pid_t service = fork();
  if (service == 0) _exit(execl("/bin/sh", "sh", "-c", line.c_str(), nullptr));
  ASSERT_GT(service, 0);

  const int silent = connect_to_echo(); // it is accepted before the other
  const int talking = connect_to_echo();
  char answer[6] = {};
  EXPECT_EQ(send(talking, "hello", 5, MSG_NOSIGNAL), 5);
  EXPECT_EQ(recv(talking, answer, 5, MSG_WAITALL), 5);
  EXPECT_STREQ(answer, "hello");

  kill(service, SIGTERM);
  int status = -1;
  EXPECT_EQ(waitpid(service, &status, 0), service);
  EXPECT_EQ(exit_code(status), 0) << scratch::read_file("errors");
  EXPECT_EQ(scratch::read_file("output"), "ready\nstopped after 2 clients\n");
  EXPECT_EQ(recv(silent, answer, 1, 0), 0);
  EXPECT_NE(access("echo.socket", F_OK), 0);
  close(talking);
  close(silent);
}

} // namespace
