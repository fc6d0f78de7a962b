// test-wraps: open vorn_popen_s vorn_pclose
//
// Tests that a process killed at any moment leaves no file torn, no shared counts wrong and no lock
// taken. VORN_TEST_KILLS=1000 kills 1000 processes of each kind.
// SPDX-License-Identifier: Apache-2.0
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn.h"

extern "C" {
// The machine, which has no tools here.
FILE *__wrap_vorn_popen_s(const char *command, const char *, const char *) {
  const int fd = memfd_create("output", MFD_CLOEXEC);
  const char *output = std::strstr(command, "lscpu") != nullptr ? "2\n" : "4\n";
  EXPECT_EQ(pwrite(fd, output, 2, 0), 2);
  return fdopen(fd, "r");
}
int __wrap_vorn_pclose(FILE *stream) { return fclose(stream); }

int __real_open(const char *path, int flags, mode_t mode);
int __wrap_open(const char *path, int flags, mode_t mode) {
  const bool is_nodes = std::strcmp(path, "/sys/devices/system/node/online") == 0;
  return __real_open(is_nodes ? "/dev/shm/nodes" : path, flags, mode);
}
}

namespace {

struct Kill : testing::Test {
  Kill() { capture::set_level(0); }

  scratch::Directory directory;
  const std::string path = directory / "f.ini";
  const char *const file = path.c_str();
};

struct SharedKill : Kill {
  void SetUp() override {
    if (!scratch::cover_directory("/dev/shm")) GTEST_SKIP() << scratch::kNoMounts;
  }
};

// Starts a process that calls work(0), work(1), ..., kills it, and calls check, many times. Kills
// every other process only after its second call.
template <class Work, class Check> void kill_often(Work work, Check check) {
  const char *wanted = std::getenv("VORN_TEST_KILLS");
  const int kills = wanted == nullptr ? 40 : std::atoi(wanted);
  ASSERT_GT(kills, 0);
  std::minstd_rand random{11};
  for (int round = 0; round < kills && !testing::Test::HasFailure(); ++round) {
    int started[2];
    ASSERT_EQ(pipe(started), 0);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      bool goes_on = true;
      for (int turn = 0; goes_on; ++turn)
        goes_on = (turn > 1 || write(started[1], "", 1) == 1) && work(turn);
      _exit(1);
    }
    ASSERT_GT(child, 0);
    close(started[1]);
    char byte;
    for (int turns = round % 2; turns >= 0; --turns)
      EXPECT_EQ(read(started[0], &byte, 1), 1);
    usleep(static_cast<useconds_t>(random() % (random() % 8 == 0 ? 20000 : 1000)));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    close(started[0]);
    ASSERT_TRUE(WIFSIGNALED(status)) << "round " << round << ": the work failed";
    check();
  }
}

using Edit = std::function<int()>;

// Repeats the edits, each of which leaves another text: a killed editor leaves one of these texts,
// and the next editor continues there.
void kill_editors(const std::string &path, const std::vector<Edit> &edits) {
  std::map<std::string, std::size_t> next;
  for (std::size_t i = 0; i < 2 * edits.size(); ++i) {
    ASSERT_EQ(edits[i % edits.size()](), 0) << i;
    if (i >= edits.size()) next[scratch::read_file(path)] = (i + 1) % edits.size();
  }
  ASSERT_EQ(next.size(), edits.size());
  std::set<std::size_t> left;
  const auto edit = [&, at = edits.size()](int) mutable {
    if (at == edits.size()) at = next.at(scratch::read_file(path));
    return edits[std::exchange(at, (at + 1) % edits.size())]() == 0;
  };
  kill_often(edit, [&] {
    const std::string text = scratch::read_file(path);
    ASSERT_TRUE(next.contains(text)) << text.size() << " bytes: " << text.substr(0, 200);
    left.insert(next[text]);
  });
  EXPECT_GT(left.size(), 1u);
  EXPECT_EQ(edits[next.at(scratch::read_file(path))](), 0);
  EXPECT_NE(access((path + ".temp").c_str(), F_OK), 0);
}

int set_all(vorn_cfg_file_node_s *node, const char *section, const char *, const char *value) {
  for (int i = 0; i < 300; ++i) {
    if (vorn_cfg_set_item_func(node, section, ("k" + std::to_string(i)).c_str(), value) != 0)
      return -1;
  }
  return 0;
}

TEST_F(Kill, EditorsByATemporaryFileLeaveAnOldOrANewOne) {
  std::string text = "[s]\n";
  for (int i = 0; i < 300; ++i)
    text += "k" + std::to_string(i) + "=0\n";
  scratch::write_file(path, text);
  const auto set_every = [&](const char *value) {
    vorn_cfg_oper_param_s param{file, "s", nullptr, value};
    const int fd = open(file, O_RDWR | O_CLOEXEC, 0);
    const int result = vorn_cfg_file_writeOperate(fd, &param, set_all);
    close(fd);
    return result;
  };
  const std::string block(9000, 'v');
  kill_editors(path, {[&] { return set_every("first"); },
                      [&] { return vorn_cfg_file_setItemValue(file, "s", "k7", "changed"); },
                      [&] { return vorn_cfg_file_addItem(file, "s", "added", "1"); },
                      [&] { return vorn_cfg_file_addItem(file, "t", "x", block.c_str()); },
                      [&] { return vorn_cfg_file_delItem(file, "s", "added"); },
                      [&] { return set_every("second"); },
                      [&] { return vorn_cfg_file_delSection(file, "t"); }});
}

// The text is whole if one write(2) takes all of it, and no shorter text follows.
TEST_F(Kill, EditorsInPlaceLeaveAnOldOrANewText) {
  const auto set = [this](const char *value) {
    return [=, this] { return vorn_cfg_write_item_to_file(file, "s", "k", value); };
  };
  kill_editors(path, {set("first"), set("other"), set("third")});
}

TEST_F(Kill, LocksOfFilesGoWithTheirHolder) {
  const vorn_file_lock_s lock{VORN_FILE_LOCK_WRITE | VORN_FILE_LOCK_NO_WAIT, 0, 0};
  scratch::write_file(path, "");
  const auto take = [&] {
    const int fd = open(file, O_RDWR | O_CLOEXEC, 0);
    const int result = vorn_lockfile(fd, &lock);
    close(fd);
    return result;
  };
  kill_often([&](int) { return take() == 0; },
             [&] { EXPECT_EQ(run_in_child([&] { return take(); }), 0); });
}

// Removes the objects after every other process.
void remove_sometimes(std::initializer_list<const char *> objects) {
  static int round = 0;
  if (++round % 2 == 0) return;
  for (const char *object : objects)
    EXPECT_EQ(vorn_shm_destroy(object), 0);
}

TEST_F(SharedKill, TheSharedCountsOfCpusAreRepaired) {
  const std::string shared = "/dev/shm/cpuinfo_shm";
  scratch::write_file("/dev/shm/nodes", "0-3\n");
  ASSERT_EQ(run_in_child(cpuinfo_init), 0);
  const std::string record = scratch::read_file(shared);
  ASSERT_EQ(record.size(), 80u);
  const auto damage_and_heal = [&](int turn) {
    if (turn == 0) return cpuinfo_init() == 0;
    const int fd = open(shared.c_str(), O_RDWR | O_CLOEXEC, 0);
    const bool damaged = pwrite(fd, "?", 1, turn % 80) == 1;
    close(fd);
    save_cpuinfo_to_shm();
    return damaged;
  };
  kill_often(damage_and_heal, [&] {
    EXPECT_EQ(run_in_child([] {
                uint32_t packages = 0;
                uint32_t cpus = 0;
                if (cpuinfo_init() != 0 || vorn_get_phycpu_num(&packages) != 0) return 1;
                return vorn_get_logic_cpu_num(&cpus) == 0 && packages == 2 && cpus == 4 ? 0 : 2;
              }),
              0);
    EXPECT_EQ(scratch::read_file(shared), record);
    remove_sometimes({"cpuinfo_shm"});
  });
}

TEST_F(SharedKill, ALaterProcessSamplesAndWatches) {
  const auto sample = [] {
    return sysinfo_update_all_cpu_usage() == 0 && vorn_sysinfo_cpu_usage() <= 100 &&
           vorn_thread_watch_add(static_cast<unsigned int>(getpid())) == 0;
  };
  const auto become_sampler = [] {
    int fd = -1;
    vorn_file_lock_s lock{};
    return sysinfo_alloc_mem() == 0 && sysinfo_lock(&fd, &lock) == 0;
  };
  kill_often([&](int turn) { return (turn != 0 || become_sampler()) && sample(); },
             [&] {
               EXPECT_EQ(run_in_child([&] { return become_sampler() && sample() ? 0 : 1; }), 0);
               remove_sometimes({"SYSINFO_PUICPUUSAGE_NOROOT", "SYSINFO_PULLCPULASTIDLE_NOROOT",
                                 "SYSINFO_PULLCPULASTTOTAL_NOROOT", "vornThreadWatch"});
             });
}

} // namespace
