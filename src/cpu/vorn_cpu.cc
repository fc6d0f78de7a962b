// Resolves CPU lists and partitions, and asks the kernel module about single CPUs.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cpu.h"

#include <cstring>
#include <string_view>

#include "base/kernel_request.hpp"
#include "base/log.hpp"
#include "cpu/cpu_list.hpp"
#include "cpu/partition_table.hpp"
#include "mem/owned.hpp"
#include "vorn_bitops.h"

namespace vorn::cpu {
namespace {

constexpr char kParser[] = "vorn_cpum_parse_cpumask_as_list";
constexpr char kPolled[] = "IOD_NORMAL";
constexpr unsigned int kLastClearedCpu = VORN_CPUM_CPU_COUNT - 2;

bool is_range(const CpuRange &range, std::string_view item) {
  const int length = static_cast<int>(item.size());
  if (range.numbers == 0)
    return VORN_FAIL_AS(kParser, false, "Parse cpu mask fail, invalid format:%.*s", length,
                        item.data());
  if (range.reversed())
    return VORN_FAIL_AS(kParser, false, "Parse cpu mask %.*s fail, end:%u is less than start:%u",
                        length, item.data(), range.end, range.start);
  return true;
}

// An item "group/partition"; the group is "*" for all.
struct Reference {
  std::string_view group;
  std::string_view partition;

  bool means(const Group &candidate, const Partition &other) const {
    return (group == "*" || group == candidate.name) && partition == other.name;
  }
};

// Returns false if item is no reference. A name that is too long is not found.
bool scan_reference(std::string_view item, Reference &reference) {
  const std::size_t slash = item.find('/');
  if (slash == 0 || slash == std::string_view::npos || slash + 1 == item.size()) return false;
  if (slash > VORN_CPUM_NAME_SIZE) return false;
  reference = {item.substr(0, slash), item.substr(slash + 1)};
  return true;
}

// Resolves a list. Reads each partition's list only once, so that the work stays small even if many
// lists refer to the same partitions.
class Resolver {
public:
  explicit Resolver(uint64_t *mask) : mask_(mask) {}

  // Returns whether an item was accepted.
  bool take_list(std::string_view list) {
    bool taken = false;
    each_item(list, [&](std::string_view item) {
      taken = take_item(item) || taken;
      return true;
    });
    return taken;
  }

private:
  enum Progress : char { kUnread, kOpen, kRead };

  static constexpr unsigned int kMaxDepth = 128; // bounds the stack of nested lists

  bool take_item(std::string_view item) {
    Reference reference;
    if (vorn_cpum_init(nullptr) == 0 && scan_reference(item, reference))
      return take_reference(reference);
    const CpuRange range = scan_cpu_range(item);
    if (!is_range(range, item)) return false;
    add_cpus(range, VORN_CPUM_CPU_COUNT, mask_);
    return true;
  }

  bool take_reference(const Reference &reference) {
    if (!make_progress()) return false;
    each_partition([&](const Group &group, const Partition &partition) {
      if (reference.means(group, partition)) take_partition(group, partition);
    });
    return true;
  }

  void take_partition(const Group &group, const Partition &partition) {
    char &progress = progress_.get()[partition.index];
    if (progress == kRead) return;
    if (progress == kOpen) return report(group, partition, "refers to itself");
    if (depth_ == kMaxDepth) return report(group, partition, "is referred to too deeply");
    progress = kOpen;
    ++depth_;
    take_list(partition.cpubind);
    --depth_;
    progress = kRead;
  }

  // Logs once per call: lists that refer to each other would repeat the message.
  void report(const Group &group, const Partition &partition, const char *why) {
    if (reported_) return;
    reported_ = true;
    VORN_LOG_AS(kParser, kError, "Parse cpu mask fail, %s/%s %s.", group.name, partition.name, why);
  }

  // Marks every partition as unread, at the first reference. If memory runs out, logs an error and
  // returns false.
  bool make_progress() {
    if (progress_ != nullptr) return true;
    const std::size_t size = std::size_t{partition_table.partition_count} + 1; // never 0
    progress_.reset(static_cast<char *>(mem::allocate_quietly(size, kParser)));
    if (progress_ == nullptr) return VORN_FAIL_AS(kParser, false, "Malloc for partitions fail");
    std::memset(progress_.get(), kUnread, size);
    return true;
  }

  uint64_t *mask_;
  mem::Block progress_; // indexed by partition
  unsigned int depth_ = 0;
  bool reported_ = false;
};

// Clears the first two CPUs of a list that begins with a range of three or more.
void clear_head(const char *cpubind, uint64_t *mask) {
  const CpuRange range = scan_cpu_range(cpubind);
  if (range.reversed() || range.end - range.start < 2) return;
  for (unsigned int cpu = range.start; cpu < range.start + 2 && cpu <= kLastClearedCpu; ++cpu)
    vorn_clear_bit(cpu, mask);
}

} // namespace
} // namespace vorn::cpu

using namespace vorn::cpu;

const vorn_cpum_partition_s *vorn_cpum_get_partition(const char *group, const char *name) {
  if (group == nullptr || name == nullptr)
    return VORN_FAIL(nullptr, "Cpu group or partition name is null.");
  if (vorn_cpum_init(nullptr) != 0) return nullptr;
  return find_partition([=](const Group &candidate, const Partition &partition) {
    return std::strcmp(group, candidate.name) == 0 && std::strcmp(name, partition.name) == 0;
  });
}

int vorn_cpum_parse_cpumask(const char *text, uint64_t *mask) {
  if (text == nullptr || mask == nullptr) return -1;
  return Resolver(mask).take_list(text) ? 0 : -1;
}

int vorn_cpum_clear_cpumask_of_iod_poll(uint64_t *mask) {
  if (mask == nullptr) return VORN_FAIL(-1, "Cpu mask is null.");
  if (vorn_cpum_init(nullptr) != 0) return -1;
  each_partition([mask](const Group &, const Partition &partition) {
    if (std::strcmp(partition.name, kPolled) == 0) clear_head(partition.cpubind, mask);
  });
  return 0;
}

int vorn_cpum_dbg_show(vorn_print_f print) {
  if (print == nullptr) return VORN_FAIL(-1, "Print function is null.");
  if (!partitions_loaded()) {
    print("Cpu partition is not inited yet\n");
    return -1;
  }
  print("%-16s %-16s %-4s %s\n", "Group", "Partition", "Type", "CpuBind");
  each_partition([print](const Group &group, const Partition &partition) {
    print("%-16s %-16s %-4d %s\n", group.name, partition.name, static_cast<int>(partition.type),
          partition.cpubind);
  });
  return 0;
}

int vorn_get_idle_no_cstates(unsigned int cpu, uint32_t *value) {
  if (value == nullptr) return VORN_FAIL(-1, "idle_no_cstates_value is null.");
  return vorn::kernel_request(VORN_SYSCALL_GET_IDLE_NO_CSTATES, cpu, value);
}

int vorn_set_idle_no_cstates(unsigned int cpu, uint32_t value) {
  const int result = vorn::kernel_request(VORN_SYSCALL_SET_IDLE_NO_CSTATES, cpu, &value);
  if (result != -1) return result;
  return VORN_FAIL(-1, "Syscall for vorn_set_idle_no_cstates failed.");
}

int vorn_get_cpu_task_info(unsigned int cpu, void *record) {
  if (record == nullptr) return VORN_FAIL(-1, "pCpuTaskInfo is null.");
  return vorn::kernel_request(VORN_SYSCALL_CPU_TASK_INFO, cpu, record) == 0 ? 0 : -1;
}
