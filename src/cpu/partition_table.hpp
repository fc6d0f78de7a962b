// Holds the partitions of the product file, in their groups. Readers take no lock: the load is the
// only writer.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CPU_PARTITION_TABLE_HPP
#define VORN_CPU_PARTITION_TABLE_HPP

#include "vorn_cpu.h"

namespace vorn::cpu {

struct Partition : vorn_cpum_partition_s {
  unsigned int index; // among all partitions, from 0
};

struct Group {
  vorn_list_head_s link; // in the list of groups
  vorn_list_head_s partitions;
  char name[VORN_CPUM_NAME_SIZE]; // the name of its section
};

// The groups, in the order of the file, and the number of their partitions.
struct PartitionTable {
  vorn_list_head_s groups;
  unsigned int partition_count;
};
extern PartitionTable partition_table;

// Returns whether the load has ended, failed or not.
bool partitions_loaded();

// Returns the first partition for which test(group, partition) is true, or NULL.
template <class Test> const Partition *find_partition(Test test) {
  const vorn_list_head_s *groups = &partition_table.groups;
  for (auto *at = vorn_list_first(groups); at != nullptr; at = vorn_list_next(groups, at)) {
    const Group &group = *vorn_list_entry(at, Group, link);
    const vorn_list_head_s *partitions = &group.partitions;
    for (auto *link = vorn_list_first(partitions); link != nullptr;
         link = vorn_list_next(partitions, link)) {
      const auto &partition =
          static_cast<const Partition &>(*vorn_list_entry(link, vorn_cpum_partition_s, link));
      if (test(group, partition)) return &partition;
    }
  }
  return nullptr;
}

template <class Use> void each_partition(Use use) {
  find_partition([&use](const Group &group, const Partition &partition) {
    use(group, partition);
    return false;
  });
}

} // namespace vorn::cpu

#endif
