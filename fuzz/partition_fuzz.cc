// Checks that any product file can be loaded, and that a reference to a partition gives the same
// CPUs as a simple model that follows all lists.
// SPDX-License-Identifier: Apache-2.0
#include "cpu/partition_table.cc"

#include <cstdlib>
#include <set>
#include <string>

#include "cpu/cpu_list.hpp"
#include "fuzz/harness.hpp"

namespace {

using namespace fuzz;
using namespace vorn::cpu;

using Mask = std::uint64_t[VORN_CPUM_MASK_WORDS];

void free_table() {
  free_nodes(partition_table.groups, [](vorn_list_head_s *at) {
    Group *group = vorn_list_entry(at, Group, link);
    free_nodes(group->partitions, [](vorn_list_head_s *link) {
      vorn_free(static_cast<Partition *>(vorn_list_entry(link, vorn_cpum_partition_s, link)));
    });
    vorn_free(group);
  });
  forget_table();
  vorn_cfg_destroy();
}

// Adds to mask the CPUs of list and of the partitions to which it refers, each once.
void follow(std::string_view list, Mask &mask, std::set<const Partition *> &seen) {
  each_item(list, [&](std::string_view item) {
    const std::size_t slash = item.find('/');
    if (slash == 0 || slash == item.npos || slash > 32 || slash + 1 == item.size()) {
      const CpuRange range = scan_cpu_range(item);
      if (range.numbers != 0) add_cpus(range, VORN_CPUM_CPU_COUNT, mask);
      return true;
    }
    const std::string_view wanted = item.substr(0, slash);
    each_partition([&](const Group &group, const Partition &partition) {
      const bool meant = wanted == "*" || wanted == group.name;
      if (meant && item.substr(slash + 1) == partition.name && seen.insert(&partition).second)
        follow(partition.cpubind, mask, seen);
    });
    return true;
  });
}

int drop(const char *, ...) { return 0; }

// Returns true if a count in the text would make the load take too long.
bool has_large_count(const std::string &text) {
  constexpr char kCount[] = "_num";
  for (std::size_t at = text.find(kCount); at != text.npos; at = text.find(kCount, at + 1)) {
    const std::size_t equals = text.find('=', at);
    if (equals != text.npos && std::atoll(text.c_str() + equals + 1) > 4096) return true;
  }
  return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size) {
  if (size > 2048) return 0; // no chain of references is too deep
  if (has_large_count({reinterpret_cast<const char *>(data), size})) return 0;
  file().write(text_of(data, size));
  loaded.reset(free_table);
  vorn_cpum_init(file().path());
  each_partition([](const Group &group, const Partition &partition) {
    expect(vorn_cpum_get_partition(group.name, partition.name) != nullptr);
    Mask wanted = {};
    Mask mask = {};
    std::set<const Partition *> seen;
    const std::string reference = std::string("*/") + partition.name;
    follow(reference, wanted, seen);
    vorn_cpum_parse_cpumask(reference.c_str(), mask);
    expect(std::memcmp(mask, wanted, sizeof mask) == 0);
    vorn_cpum_clear_cpumask_of_iod_poll(mask);
  });
  vorn_cpum_dbg_show(drop);
  return 0;
}
