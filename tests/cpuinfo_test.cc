// Tests how processes find and share the packages, the CPUs and the model of the machine.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cpuinfo.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
const std::string kFound = " | 2 4 risc v [0] [1]";

// "result; log messages | packages cpus model", then the CPUs of each package.
std::string describe(int result) {
  std::string text = capture::outcome(result);
  // messages about the missing driver, when the rate limiter reads its clock
  if (const auto at = text.find("; E Vorn jiffies"); at != std::string::npos)
    text.erase(at, text.find(';', at + 1) - at);
  uint32_t packages = 77;
  uint32_t cpus = 77;
  char model[VORN_CPUMODEL_SIZE];
  EXPECT_EQ(vorn_get_phycpu_num(&packages) + vorn_get_logic_cpu_num(&cpus), 0);
  EXPECT_EQ(vorn_get_cpumodel_info(model), 0);
  text += " | " + std::to_string(packages) + " " + std::to_string(cpus) + " " + model;
  for (uint32_t package = 0; package < packages; ++package) {
    cpumask mask = {{~0ul, ~0ul, ~0ul, ~0ul}};
    text += vorn_get_cpumask_by_phycpu(&mask, package) == 0 ? " [" : capture::outcome(-1) + " [";
    for (unsigned int cpu = vorn_first_cpu(&mask); cpu < 256; cpu = vorn_next_cpu(cpu, &mask))
      text += std::to_string(cpu);
    text += "]";
  }
  return text;
}

// A machine whose tools and files are stand-ins; node N has only CPU N.
struct Cpuinfo : testing::Test {
  void SetUp() override {
    if (!scratch::cover_directory("/dev/shm") || !scratch::cover_directory(kNodes))
      GTEST_SKIP() << scratch::kNoMounts;
    chmod("/dev/shm", 01777);
    chmod(folder.path().c_str(), 0755);
    setenv("PATH", (folder.path() + ":" + std::getenv("PATH")).c_str(), 1);
    machine("0-1\n", "Socket(s): 2\n", 4);
  }
  void machine(const std::string &online, const std::string &packages, int cpus,
               const std::string &uname = "echo risc v") const {
    scratch::write_file(kNodes + "online", online);
    for (const std::string node : {"0", "1", "2", "3"})
      scratch::write_file(kNodes + "node" + node + "/cpulist", node + "\n");
    scratch::write_program(folder / "uname", uname);
    scratch::write_program(folder / "lscpu", "echo run >>" + folder.path() + "/runs; sleep 0.05; " +
                                                 "printf '" + packages + "'");
    std::string cat = "echo flags";
    for (int cpu = 0; cpu < 2 * cpus; ++cpu) // a line of a processor may come twice
      cat += "\necho 'processor : " + std::to_string(cpu / 2) + "'";
    scratch::write_program(folder / "cat", cat);
  }
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
  std::size_t runs() const { return scratch::read_file(folder / "runs").size() / 4; }
  scratch::Directory folder;
};

TEST_F(Cpuinfo, CountsAreCorrectedByTheNodes) {
  const std::string online = kNodes + "online";
  const std::string ok = "0" + kFirst + " | ";
  const std::string failed = "-1" + kFirst + "; E ";
  const std::string no_nodes = "; E Get numa num failed, ret is -1 | 0 0 ";
  const std::string no_packages = "; E Get phycpu num failed, ret is -1 | 0 0 ";
  const std::string no_list = "-1; E Get " + kNodes + "node";
  const struct {
    std::string nodes; // "-": no file
    std::string lscpu;
    int cpus;
    std::string found;
    std::string uname = "echo risc v";
  } rows[] = {
      {"0\n", "Socket(s): 4", 8, ok + "1 8 risc v [0]"},
      {"0-2\n", "Socket(s): 4", 8, ok + "1 8 risc v [01]"},
      {"0-3\n", "Socket(s): 2", 8, ok + "2 8 risc v [01] [23]"},
      {"0-2\n", "Socket(s): 3", 3, ok + "3 3 risc v [0] [1] [2]"},
      {"0-9\n", "Socket(s): 2", 1,
       ok + "2 1 " + std::string(63, 'm') + no_list + "4/cpulist failed. [0123]" + no_list +
           "5/cpulist failed. []",
       "echo " + std::string(70, 'm')},
      {"-", "", 1, "-1; E Open filename " + online + " failed." + no_nodes},
      {"", "", 1, "-1; E Get filename " + online + " failed." + no_nodes},
      {"x\n", "", 1, "-1; E secure function sscanf_s failed." + no_nodes},
      {"0\n", "", 1, "-1; E Get cpumode failed.; E Get cpumodel failed, ret is -1 | 0 0 ", "true"},
      {"0\n", "Socket(s): 0", 1, failed + "Get_phycpu_num failed, ret=1, cpuNum=0." + no_packages},
      {"0\n", "Socket(s): -", 1, failed + "Get_phycpu_num failed, ret=0, cpuNum=0." + no_packages},
      {"0\n", "", 1, failed + "Fgets err, errno=0." + no_packages},
      {"0\n", "Socket(s): 1", 0,
       failed + "Get logic cpu num failed.; E Get logic cpu num failed, ret is -1 | 0 0 "},
  };
  for (const auto &row : rows) {
    fs::remove(kShared);
    machine(row.nodes, row.lscpu, row.cpus, row.uname);
    if (row.nodes == "-") fs::remove(online);
    EXPECT_EQ(found_by_process(), row.found);
  }
}

// Returns the shared counts with a correct CRC.
std::string summed(std::string record) {
  record.replace(4, 4, 4, '\0');
  const uint32_t crc = vorn_crc32c_soft(record.data(), 80);
  return record.replace(4, 4, reinterpret_cast<const char *>(&crc), 4);
}

TEST_F(Cpuinfo, SharedCountsAreCheckedAndRepaired) {
  const mode_t mask = umask(077);
  EXPECT_EQ(found_by_process(), "0" + kFirst + kFound);
  const std::string record = scratch::read_file(kShared);
  const uint32_t words[] = {0x33464453, 0, 2, 4};
  std::string wanted(reinterpret_cast<const char *>(words), 16);
  for (int word = 0; word < 8; ++word)
    wanted.append("SDF3\0\0\0\0", 8);
  ASSERT_EQ(record, summed(wanted));
  EXPECT_EQ(fs::status(kShared).permissions(), fs::perms(0644));

  machine("0\n", "Socket(s): 3\n", 9); // runs no tool, but counts the nodes
  EXPECT_EQ(found_by_process(), "0 | 1 4 risc v [0]");
  EXPECT_EQ(scratch::read_file(kShared), record);
  machine("0-1\n", "Socket(s): 2\n", 4);
  for (const std::size_t byte : {0, 4, 8, 79}) {
    std::string damaged = record;
    damaged[byte] ^= 1;
    if (byte == 0) damaged = summed(damaged);
    scratch::write_file(kShared, damaged);
    EXPECT_EQ(found_by_process(65534),
              "0" + kRefused + kFirst + kFound); // a user may not repair it
    EXPECT_EQ(scratch::read_file(kShared), damaged);
    EXPECT_EQ(found_by_process(), "0" + kFirst + kFound);
    EXPECT_EQ(scratch::read_file(kShared), record) << byte;
  }
  EXPECT_EQ(found_by_process(65534), "0" + kRefused + kFound);
  fs::resize_file(kShared, 0); // it was made a moment ago
  EXPECT_EQ(found_by_process(65534), "0" + kRefused + kFirst + kFound);

  fs::remove(kShared);
  fs::create_directory(kShared);
  EXPECT_EQ(found_by_process(), "0; Open shm fail, fd<-1> errno<22>.; Mmap shm mem fail, errno<19>."
                                "; E Reopen cpuinfo shm failed, errno = 19"
                                "; E Create cpuinfo shm failed, load by system." +
                                    kFound);
  fs::remove(kShared);

  const std::string null = "-1; E Parameter is null.";
  cpumask cpus;
  machine("0-1\n", "Socket(s): 2\n", 0);
  EXPECT_EQ(cpuinfo_init(), -1);
  save_cpuinfo_to_shm(); // incomplete counts
  EXPECT_EQ(scratch::read_file(kShared), std::string(80, '\0'));
  capture::take();
  EXPECT_EQ(capture::outcome(vorn_get_cpumask_by_phycpu(&cpus, 0)),
            "-1; E Parameter phycpu 0 is bigger then total phycpu 0.");
  machine("0-1\n", "Socket(s): 2\n", 4);
  EXPECT_EQ(describe(cpuinfo_init()), "0" + kFirst + kFound);
  EXPECT_EQ(capture::outcome(vorn_get_phycpu_num(nullptr)), null);
  EXPECT_EQ(capture::outcome(vorn_get_logic_cpu_num(nullptr)), null);
  EXPECT_EQ(capture::outcome(vorn_get_cpumodel_info(nullptr)), null);
  EXPECT_EQ(capture::outcome(vorn_get_cpumask_by_phycpu(nullptr, 0)), null);
  std::string other = record; // which another process has stored
  other[8] = 3;
  scratch::write_file(kShared, summed(other));
  save_cpuinfo_to_shm();
  EXPECT_EQ(scratch::read_file(kShared), summed(other));
  EXPECT_EQ(umask(mask), 077u);
}

TEST_F(Cpuinfo, OneOfManyProcessesRunsTheTools) {
  const auto start = [] { return describe(cpuinfo_init()).ends_with(kFound) ? 0 : 1; };
  pid_t processes[24];
  for (pid_t &process : processes)
    if ((process = fork()) == 0) _exit(start());
  for (const pid_t process : processes) {
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(runs(), 1u);

  // A process waits one second for another one that has stopped.
  scratch::write_file(kShared, "");
  const int fd = open(kShared.c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
  EXPECT_EQ(run_in_child(start), 0);
  close(fd);
  EXPECT_EQ(runs(), 2u);
}

} // namespace
