#include "vorn_cpuinfo.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "evlog.h"
#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/scratch.hpp"
#include "vorn_crc.h"

namespace {

namespace fs = std::filesystem;

const std::string kNodes = "/sys/devices/system/node/";
const std::string kShared = "/dev/shm/cpuinfo_shm";
const std::string kRefused = "; Open shm fail, fd<-1> errno<13>.";
const std::string kFirst = "; cpu info in shm is incorrect or first, load by system.";

// A machine whose tools and files are stand-ins; node N has CPU N alone.
struct Cpuinfo : testing::Test {
  void SetUp() override {
    if (!scratch::cover_directory("/dev/shm") || !scratch::cover_directory(kNodes))
      GTEST_SKIP() << scratch::kNoMounts;
    chmod("/dev/shm", 01777);
    chmod(folder.path().c_str(), 0755);
    const std::string path = folder.path() + ":" + std::getenv("PATH");
    setenv("PATH", path.c_str(), 1);
    machine("0-1\n", "2", 4);
  }
  void tool(const std::string &name, const std::string &body) const {
    const std::string runs = "echo " + name + " >>" + folder.path() + "/runs\n";
    scratch::write_file(folder / name, "#!/bin/sh\n" + runs + body + "\n");
    chmod((folder / name).c_str(), 0755);
  }
  void machine(const std::string &online, const std::string &packages, int cpus,
               const std::string &model = "echo risc v") const {
    scratch::write_file(kNodes + "online", online);
    for (int node = 0; node < 4; ++node)
      scratch::write_file(kNodes + "node" + std::to_string(node) + "/cpulist",
                          std::to_string(node) + "\n");
    tool("uname", model);
    tool("lscpu", "echo 'Socket(s):   " + packages + "'");
    std::string lines;
    for (int cpu = 0; cpu < 2 * cpus; ++cpu) // a line of a processor may come twice
      lines += "echo 'processor : " + std::to_string(cpu / 2) + "'\n";
    tool("cat", lines + "echo flags");
  }
  // What a process finds: "result packages cpus model [CPUs of each package]; log messages".
  std::string found_by_process(uid_t user = 0) const {
    const std::string file = folder / "found";
    scratch::write_file(file, "");
    chmod(file.c_str(), 0666);
    run_in_child([&] {
      if (user != 0 && seteuid(user) != 0) return 1;
      scratch::write_file(file, describe(cpuinfo_init()));
      return 0;
    });
    return scratch::read_file(file);
  }
  static std::string describe(int result) {
    uint32_t packages = 77;
    uint32_t cpus = 77;
    char model[VORN_CPUMODEL_SIZE];
    vorn_get_phycpu_num(&packages);
    vorn_get_logic_cpu_num(&cpus);
    vorn_get_cpumodel_info(model);
    std::string text = std::to_string(result) + " " + std::to_string(packages) + " " +
                       std::to_string(cpus) + " " + model;
    for (uint32_t package = 0; package < packages; ++package) {
      cpumask mask = {{~0ul, ~0ul, ~0ul, ~0ul}};
      text += vorn_get_cpumask_by_phycpu(&mask, package) == 0 ? " [" : " ?";
      for (unsigned int cpu = vorn_first_cpu(&mask); cpu < 256; cpu = vorn_next_cpu(cpu, &mask))
        text += std::to_string(cpu);
      text += "]";
    }
    for (const auto &line : capture::take_lines())
      text += "; " + line;
    return text;
  }
  int runs_of(const std::string &name) const {
    int count = 0;
    const std::string text = scratch::read_file(folder / "runs");
    for (std::size_t at = 0; (at = text.find(name, at)) != std::string::npos; ++at)
      ++count;
    return count;
  }
  scratch::Directory folder;
};

TEST_F(Cpuinfo, CountsAreCorrectedByTheNodesAndFailuresAreNamed) {
  const std::string online = kNodes + "online";
  const struct {
    std::string nodes; // "-": no file
    std::string packages;
    int cpus;
    std::string found;
    std::string model = "echo risc v";
  } rows[] = {
      {"0\n", "4", 8, "0 1 8 risc v [0]" + kFirst},
      {"0-1\n", "4", 8, "0 1 8 risc v [01]" + kFirst},
      {"0-2\n", "4", 8, "0 1 8 risc v [01]" + kFirst},
      {"0-3\n", "2", 8, "0 2 8 risc v [01] [23]" + kFirst},
      {"0-3\n", "4", 3, "0 4 3 risc v [0] [1] [2] [3]" + kFirst},
      {"0-2\n", "2", 1, "0 2 1 risc v [0] [1]" + kFirst},
      {"0-9\n", "2", 1,
       std::string("0 2 1 " + std::string(63, 'm') + " ?0123] ?]") + kFirst +
           "; E Get /sys/devices/system/node/node4/cpulist failed."
           "; E Get /sys/devices/system/node/node5/cpulist failed.",
       "echo " + std::string(70, 'm')},
      {"-", "1", 1,
       "-1 0 0 ; E Open filename " + online + " failed.; E Get numa num failed, ret is -1"},
      {"", "1", 1,
       "-1 0 0 ; E Get filename " + online + " failed.; E Get numa num failed, ret is -1"},
      {"x\n", "1", 1,
       "-1 0 0 ; E secure function sscanf_s failed.; E Get numa num failed, ret is -1"},
      {"0\n", "1", 1, "-1 0 0 ; E Get cpumode failed.; E Get cpumodel failed, ret is -1", "true"},
      {"0\n", "0", 1,
       "-1 0 0 " + kFirst +
           "; E Get_phycpu_num failed, ret=1, cpuNum=0.; E Get phycpu num failed, ret is -1"},
      {"0\n", "-", 1,
       "-1 0 0 " + kFirst +
           "; E Get_phycpu_num failed, ret=0, cpuNum=0.; E Get phycpu num failed, ret is -1"},
      {"0\n", "1", 0,
       "-1 0 0 " + kFirst + "; E Get logic cpu num failed.; E Get logic cpu num failed, ret is -1"},
  };
  for (const auto &row : rows) {
    fs::remove(kShared);
    machine(row.nodes, row.packages, row.cpus, row.model);
    if (row.nodes == "-") fs::remove(kNodes + "online");
    std::string found = found_by_process();
    // the missing driver's messages, where the rate limiter asks for the time
    if (const auto at = found.find("; E Vorn jiffies"); at != std::string::npos)
      found.erase(at, found.find(';', at + 1) - at);
    EXPECT_EQ(found, row.found);
  }
  machine("0\n", "1", 1);
  tool("lscpu", "true");
  EXPECT_EQ(found_by_process(),
            "-1 0 0 " + kFirst + "; E Fgets err, errno=0.; E Get phycpu num failed, ret is -1");
}

TEST_F(Cpuinfo, TheRecordIsSharedAndADamagedOneHealed) {
  const mode_t mask = umask(077);
  EXPECT_EQ(found_by_process(), "0 2 4 risc v [0] [1]" + kFirst);
  const std::string record = scratch::read_file(kShared);
  ASSERT_EQ(record.size(), 80u);
  const uint32_t *words = reinterpret_cast<const uint32_t *>(record.data());
  EXPECT_EQ(record.substr(0, 4), "SDF3");
  EXPECT_EQ(words[2], 2u);
  EXPECT_EQ(words[3], 4u);
  for (int word = 4; word < 20; ++word)
    EXPECT_EQ(words[word], word % 2 == 0 ? 0x33464453u : 0u);
  std::string summed = record;
  summed.replace(4, 4, 4, '\0');
  EXPECT_EQ(words[1], vorn_crc32c_soft(summed.data(), 80));
  struct stat file;
  ASSERT_EQ(stat(kShared.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0644u);

  machine("0\n", "3", 9); // as nobody asks the tools, nobody notices; the nodes are asked for
  EXPECT_EQ(found_by_process(), "0 1 4 risc v [0]");
  EXPECT_EQ(scratch::read_file(kShared), record);
  machine("0-1\n", "2", 4);
  for (const std::size_t byte : {0, 4, 8, 79}) {
    std::string damaged = record;
    damaged[byte] ^= 1;
    if (byte == 0) { // a magic of its own under a right sum
      std::string other = damaged;
      other.replace(4, 4, 4, '\0');
      const uint32_t crc = vorn_crc32c_soft(other.data(), 80);
      std::memcpy(&damaged[4], &crc, 4);
    }
    scratch::write_file(kShared, damaged);
    EXPECT_EQ(found_by_process(65534),
              "0 2 4 risc v [0] [1]" + kRefused + kFirst); // a user may not
    EXPECT_EQ(scratch::read_file(kShared), damaged);
    EXPECT_EQ(found_by_process(), "0 2 4 risc v [0] [1]" + kFirst);
    EXPECT_EQ(scratch::read_file(kShared), record) << byte;
  }
  EXPECT_EQ(found_by_process(65534), "0 2 4 risc v [0] [1]" + kRefused);
  std::string other = record; // that another process has stored meanwhile
  other[8] = 3;
  other.replace(4, 4, 4, '\0');
  const uint32_t crc = vorn_crc32c_soft(other.data(), 80);
  std::memcpy(&other[4], &crc, 4);
  run_in_child([&] {
    cpuinfo_init();
    scratch::write_file(kShared, other);
    save_cpuinfo_to_shm();
    return 0;
  });
  EXPECT_EQ(scratch::read_file(kShared), other);
  fs::resize_file(kShared, 0); // it was made a moment ago
  EXPECT_EQ(found_by_process(65534), "0 2 4 risc v [0] [1]" + kRefused + kFirst);
  fs::remove(kShared);
  fs::create_directory(kShared);
  EXPECT_EQ(found_by_process(), "0 2 4 risc v [0] [1]; Open shm fail, fd<-1> errno<22>."
                                "; Mmap shm mem fail, errno<19>."
                                "; E Reopen cpuinfo shm failed, errno = 19"
                                "; E Create cpuinfo shm failed, load by system.");
  EXPECT_EQ(cpuinfo_init(), 0);
  EXPECT_EQ(umask(mask), 077u);
}

TEST_F(Cpuinfo, OneOfManyProcessesRunsTheToolsAndAllEndAlike) {
  tool("lscpu", "sleep 0.1\necho 'Socket(s): 2'");
  constexpr int kProcesses = 24;
  pid_t processes[kProcesses];
  for (pid_t &process : processes) {
    process = fork();
    if (process == 0)
      _exit(cpuinfo_init() == 0 && describe(0).starts_with("0 2 4 risc v [0] [1]") ? 0 : 1);
  }
  for (const pid_t process : processes) {
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(runs_of("lscpu"), 1);
  EXPECT_EQ(runs_of("cat"), 1);

  // One that has stopped on its way is waited for a second.
  scratch::write_file(kShared, "");
  const int fd = open(kShared.c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
  EXPECT_EQ(found_by_process(), "0 2 4 risc v [0] [1]" + kFirst);
  close(fd);
  EXPECT_EQ(runs_of("lscpu"), 2);
}

TEST(CpuinfoArguments, AreChecked) {
  uint32_t count = 7;
  char model[VORN_CPUMODEL_SIZE] = "x";
  cpumask mask;
  EXPECT_EQ(vorn_get_phycpu_num(&count), 0); // not known yet
  EXPECT_EQ(vorn_get_cpumodel_info(model), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_STREQ(model, "");
  EXPECT_EQ(vorn_get_phycpu_num(nullptr), -1);
  EXPECT_EQ(vorn_get_logic_cpu_num(nullptr), -1);
  EXPECT_EQ(vorn_get_cpumodel_info(nullptr), -1);
  EXPECT_EQ(vorn_get_cpumask_by_phycpu(nullptr, 0), -1);
  EXPECT_EQ(vorn_get_cpumask_by_phycpu(&mask, 0), -1);
  EXPECT_EQ(capture::take_lines(),
            (std::vector<std::string>{"E Parameter is null.", "E Parameter is null.",
                                      "E Parameter is null.", "E Parameter is null.",
                                      "E Parameter phycpu 0 is bigger then total phycpu 0."}));
}

} // namespace
