// Finds the machine's packages, CPUs, nodes and model, and shares the numbers of packages and CPUs
// with all processes.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cpuinfo.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "base/atomic_word.hpp"
#include "base/bounded.hpp"
#include "base/foreign_memory.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "base/ratelimit.hpp"
#include "base/system.hpp"
#include "fileops/first_line.hpp"
#include "vorn_crc.h"
#include "vorn_fileops.h"
#include "vorn_shm.h"

namespace vorn::sysinfo {
namespace {

constexpr char kObject[] = "cpuinfo_shm";
constexpr char kObjectFile[] = "/dev/shm/cpuinfo_shm";
constexpr mode_t kObjectMode = 0644;

constexpr char kNodeFile[] = "/sys/devices/system/node/online";
constexpr char kModelCommand[] = "uname -p";
constexpr char kPackageCommand[] = "lscpu | grep 'Socket(s)' | awk '{print $NF}' ";
constexpr char kCpuCommand[] =
    "cat /proc/cpuinfo | grep 'processor' | awk '{print $NF}' | sort | uniq | wc -l";
constexpr char kWhitelist[] = "|$";

// The record that the processes of the machine share, in host byte order.
constexpr std::uint32_t kMagic = 0x33464453; // "SDF3"
struct Record {
  std::uint32_t magic;
  std::uint32_t crc; // of the whole record, with 0 in this field
  std::uint32_t packages;
  std::uint32_t cpus;
  std::uint64_t reserved[8]; // each the magic value
};
constexpr std::size_t kWords = sizeof(Record) / sizeof(std::uint32_t);
static_assert(sizeof(Record) == 80 && offsetof(Record, reserved) == 16);

struct Machine {
  std::uint32_t packages = 0;
  std::uint32_t cpus = 0;
  std::uint32_t nodes_per_package = 0;
  char model[VORN_CPUMODEL_SIZE] = {};
};

// Written only by the once-step, which does not run again after a success.
constinit Once found{OncePolicy::kRetry};
constinit Machine machine;
constinit Machine unknown;

constinit Record own_record{};

// The shared record, mapped once; NULL if that failed.
constinit Record *shared_record = nullptr;
bool may_store = false; // this process could open the object for writing

const Machine &known_machine() { return found.done() ? machine : unknown; }

// --- The shared record ---

std::uint32_t crc_of(Record record) {
  record.crc = 0;
  return vorn_crc32c(&record, sizeof record);
}

// Reads the shared record. Returns whether it is valid. The object may be too short, or another
// process may be writing it: a torn record has a wrong CRC.
bool take_shared(Record *record) {
  const auto address = reinterpret_cast<std::uintptr_t>(shared_record);
  return copy_foreign(address, record, sizeof *record) && record->crc == crc_of(*record) &&
         record->magic == kMagic;
}

// Written word by word: other processes read meanwhile.
void put_shared(const Record &record) {
  std::uint32_t words[kWords];
  std::memcpy(words, &record, sizeof record);
  auto *to = reinterpret_cast<std::uint32_t *>(shared_record);
  for (const std::uint32_t word : words)
    atomic_word(*to++).store(word, std::memory_order_relaxed);
}

void create_cpuinfo_shm() {
  if (shared_record != nullptr) return;
  const mode_t before = umask(0);
  void *address = vorn_shm_create_ext(kObject, O_RDWR | O_CREAT, kObjectMode, sizeof(Record));
  umask(before);
  may_store = address != nullptr;
  if (address == nullptr) address = vorn_shm_create_ext(kObject, 0, kObjectMode, sizeof(Record));
  if (address == nullptr) VORN_LOG(kError, "Reopen cpuinfo shm failed, errno = %d", errno);
  shared_record = static_cast<Record *>(address);
}

// Processes that start at the same time wait for the first of them, for a limited time, so that
// only one runs the tools. The lock ends when the process next closes the file, which is after it
// has stored the record. Returns true if the record is valid.
bool wait_for_other_process(const UniqueFd &file, Record *record) {
  constexpr vorn_file_lock_s kTurn{VORN_FILE_LOCK_WRITE | VORN_FILE_LOCK_NO_WAIT, 0, 0};
  constexpr int kPatience = 1000; // ms
  for (int waited = 0; waited < kPatience; ++waited) {
    const bool my_turn =
        !file || vorn_lockfile(file.get(), &kTurn) == 0 || (errno != EAGAIN && errno != EACCES);
    if (take_shared(record)) return true;
    if (my_turn) return false;
    sys::sleep({0, 1000000});
  }
  return false;
}

// --- The machine ---

// Returns the number of nodes, at least 1. On failure, logs an error and returns -1.
int get_numa_num() {
  const Stream stream = sys::open_stream(kNodeFile);
  if (stream == nullptr) return VORN_FAIL(-1, "Open filename %s failed.", kNodeFile);
  char line[64];
  if (sys::read_line(line, sizeof line, stream) == nullptr)
    return VORN_FAIL(-1, "Get filename %s failed.", kNodeFile);
  long first = 0;
  long last = 0; // a long, so that no large number wraps to a small one
  if (std::sscanf(line, "%ld-%ld", &first, &last) >= 1 && last >= 0 && last < INT_MAX)
    return static_cast<int>(last) + 1;
  VORN_LOG_RATELIMITED(kError, "secure function sscanf_s failed.");
  return -1;
}

int get_cpumodel_info() {
  switch (fileops::first_line(kModelCommand, kWhitelist, machine.model, sizeof machine.model)) {
  case fileops::FirstLine::kNotRun:
    return VORN_FAIL(-1, "Cmd %s failed.", kModelCommand);
  case fileops::FirstLine::kNone:
    return VORN_FAIL(-1, "Get cpumode failed.");
  case fileops::FirstLine::kRead:
    break;
  }
  machine.model[std::strcspn(machine.model, "\n")] = '\0';
  return 0;
}

bool read_count_line(const char *function, const char *command, char (&line)[64]) {
  switch (fileops::first_line(command, kWhitelist, line, sizeof line)) {
  case fileops::FirstLine::kNotRun:
    return VORN_FAIL_AS(function, false, "Cmd %s failed.", command);
  case fileops::FirstLine::kNone:
    return VORN_FAIL_AS(function, false, "Fgets err, errno=%d.", errno);
  case fileops::FirstLine::kRead:
    break;
  }
  return true;
}

int get_phycpu_num(std::uint32_t *count) {
  char line[64];
  if (!read_count_line(__func__, kPackageCommand, line)) return -1;
  int number = 0;
  const int result = std::sscanf(line, "%d", &number);
  if (result != 1 || number < 1)
    return VORN_FAIL(-1, "Get_phycpu_num failed, ret=%d, cpuNum=%d.", result, number);
  *count = static_cast<std::uint32_t>(number);
  return 0;
}

int get_logic_cpu_num(std::uint32_t *count) {
  char line[64];
  if (!read_count_line(__func__, kCpuCommand, line)) return -1;
  int number = 0;
  if (std::sscanf(line, "%d", &number) != 1 || number < 1)
    return VORN_FAIL(-1, "Get logic cpu num failed.");
  *count = static_cast<std::uint32_t>(number);
  return 0;
}

int get_cpuinfo_from_os(Record *record) {
  const int packages = get_phycpu_num(&record->packages);
  if (packages != 0) return VORN_FAIL(-1, "Get phycpu num failed, ret is %d", packages);
  const int cpus = get_logic_cpu_num(&record->cpus);
  if (cpus != 0) return VORN_FAIL(-1, "Get logic cpu num failed, ret is %d", cpus);
  record->magic = kMagic;
  for (std::uint64_t &word : record->reserved)
    word = kMagic;
  record->crc = crc_of(*record);
  return 0;
}

// Does nothing if this process may not store the record.
void store() {
  constexpr char kFunction[] = "save_cpuinfo_to_shm";
  if (!may_store) return;
  const UniqueFd file = sys::open(kObjectFile, O_RDONLY | O_CREAT, kObjectMode);
  if (!file) {
    VORN_LOG_AS(kFunction, kError, "Open cpuinfo flock_fd failed, errno = %d", errno);
    return;
  }
  if (sys::uninterrupted([&] { return flock(file.get(), LOCK_EX); }) != 0) {
    VORN_LOG_AS(kFunction, kError, "lock file failed, errno=%d.", errno);
    return;
  }
  Record other;
  if (!take_shared(&other)) put_shared(own_record);
  if (flock(file.get(), LOCK_UN) != 0)
    VORN_LOG_AS(kFunction, kError, "fcntl SETLK failed, errno=%d", errno);
}

int get_record() {
  create_cpuinfo_shm();
  if (shared_record == nullptr) {
    VORN_LOG_AS("cpuinfo_init", kError, "Create cpuinfo shm failed, load by system.");
    return get_cpuinfo_from_os(&own_record);
  }
  if (take_shared(&own_record)) return 0;
  const UniqueFd file = may_store ? sys::open(kObjectFile, O_RDWR) : UniqueFd();
  if (wait_for_other_process(file, &own_record)) return 0;
  VORN_LOG_AS("cpuinfo_init", kInfo, "cpu info in shm is incorrect or first, load by system.");
  if (get_cpuinfo_from_os(&own_record) != 0) return -1;
  store();
  return 0;
}

// Firmware may report more packages than nodes; the shared record keeps the reported number.
void count_nodes(std::uint32_t nodes) {
  machine.packages = own_record.packages;
  machine.cpus = own_record.cpus;
  if (nodes == 1) {
    machine.packages = machine.nodes_per_package = 1;
  } else if (nodes < machine.packages) {
    machine.nodes_per_package = 2;
    machine.packages = nodes / 2;
  } else {
    machine.nodes_per_package = machine.packages == 0 ? 0 : nodes / machine.packages;
  }
}

int find() {
  constexpr char kFunction[] = "cpuinfo_init";
  const int nodes = get_numa_num();
  if (nodes < 0) return VORN_FAIL_AS(kFunction, -1, "Get numa num failed, ret is %d", nodes);
  const int model = get_cpumodel_info();
  if (model != 0) return VORN_FAIL_AS(kFunction, -1, "Get cpumodel failed, ret is %d", model);
  vorn_crc32_init();
  if (get_record() != 0) return -1;
  count_nodes(static_cast<std::uint32_t>(nodes));
  return 0;
}

int give(const char *function, std::uint32_t *out, std::uint32_t value) {
  if (out == nullptr) return VORN_FAIL_AS(function, -1, "Parameter is null.");
  *out = value;
  return 0;
}

} // namespace
} // namespace vorn::sysinfo

using namespace vorn::sysinfo;

int cpuinfo_init() { return found.run(find); }

void save_cpuinfo_to_shm() {
  if (found.done()) store(); // before that, another thread may be filling the record
}

int vorn_get_phycpu_num(uint32_t *out) { return give(__func__, out, known_machine().packages); }

int vorn_get_logic_cpu_num(uint32_t *out) { return give(__func__, out, known_machine().cpus); }

int vorn_get_cpumodel_info(char *out) {
  if (out == nullptr) return VORN_FAIL(-1, "Parameter is null.");
  std::memcpy(out, known_machine().model, VORN_CPUMODEL_SIZE);
  return 0;
}

int vorn_get_cpumask_by_phycpu(cpumask *mask, uint32_t package) {
  if (mask == nullptr) return VORN_FAIL(-1, "Parameter is null.");
  const Machine &known = known_machine();
  if (package >= known.packages) {
    return VORN_FAIL(-1, "Parameter phycpu %d is bigger then total phycpu %d.",
                     static_cast<int>(package), static_cast<int>(known.packages));
  }
  init_cpumask_bit(mask, VORN_CPUMASK_WORDS);
  const uint32_t end = (package + 1) * known.nodes_per_package;
  for (uint32_t node = package * known.nodes_per_package; node < end; ++node) {
    char path[64];
    const int length = vorn::snprintf_s(path, sizeof path, sizeof path - 1,
                                        "/sys/devices/system/node/node%u/cpulist", node);
    if (load_cpumask(mask, path, static_cast<size_t>(length)) < 0)
      return VORN_FAIL(-1, "Get %s failed.", path);
  }
  return 0;
}
