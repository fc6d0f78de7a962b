// Loads the NUMA nodes and the process's share of them, and answers queries.
//
// The load appends nodes under its lock and never removes them. The getters follow the list without
// the lock: a link is stored with release after its node is filled, and loaded with acquire.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_numa.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "base/atomic_word.hpp"
#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "base/ratelimit.hpp"
#include "cpu/cpu_list.hpp"
#include "cpu/settings.hpp"
#include "list/vorn_list.hpp"
#include "mem/owned.hpp"
#include "vorn_cfg.h"
#include "vorn_fileops.h"

namespace vorn::numa {
namespace {

using cpu::read_number;
using cpu::read_value;
using cpu::Value;

constexpr char kDefaultFile[] = "/opt/tessera/MorrowNumaConfiguration.ini";
constexpr char kNodes[] = "NUMA_PARTITION";
constexpr char kProcess[] = "PROC_PARTITION";

// Single words, relaxed: they publish no other data.
constexpr auto kRelaxed = std::memory_order_relaxed;

struct Node {
  vorn_list_head_s link;
  std::uint32_t id;
  std::atomic<std::uint32_t> used; // 1 if the process uses the node
  char cpus[sizeof(Value)];
};

constinit vorn_list_head_s nodes = {&nodes, &nodes};
constinit std::atomic<std::int32_t> numa_num{0};
constinit std::atomic<std::int32_t> cpu_num{0};
constinit std::atomic<std::uint32_t> status{0};
constinit Once loaded{OncePolicy::kRetry};

Node *next_node(const vorn_list_head_s *at) {
  vorn_list_head_s *next = atomic_word(at->next).load(std::memory_order_acquire);
  return next == &nodes ? nullptr : vorn_list_entry(next, Node, link);
}

template <class Use> void each_node(Use use) {
  for (Node *node = next_node(&nodes); node != nullptr; node = next_node(&node->link))
    use(*node);
}

void show_node(vorn_list_head_s *node) {
  VORN_LOG(kInfo, "numa node:%p(%p,%p)", static_cast<void *>(node), static_cast<void *>(node->next),
           static_cast<void *>(node->prev));
}

// Returns the first node with that id. If there is none, logs an error and returns NULL.
const Node *find_node(const char *function, std::uint32_t id) {
  const Node *node = next_node(&nodes);
  while (node != nullptr && node->id != id)
    node = next_node(&node->link);
  if (node == nullptr)
    VORN_LOG_AS(function, kError, "NumaId(%u) not configured, numa_num(%u).", id,
                static_cast<unsigned int>(numa_num.load(kRelaxed)));
  return node;
}

int load_failed(const char *path) {
  VORN_LOG_AS("vorn_numam_cfg_init", kInfo, "Load cfg(%s) fail", path);
  return -1;
}

void drop_file(const char *path) {
  if (vorn_cfg_destroy_ex(path) != 0)
    VORN_LOG_AS("vorn_numam_cfg_init", kError, "Destroy cfg(%s) fail", path);
}

bool is_name(const char (&name)[VORN_NUMAM_PATH_SIZE]) {
  const std::size_t length = strnlen(name, sizeof name);
  return length > 0 && length < sizeof name;
}

} // namespace
} // namespace vorn::numa

using namespace vorn::numa;

int vorn_numam_init(const char *path) {
  return loaded.run([path] { return vorn_numam_init_inner(path); });
}

int vorn_numam_module_init(const vorn_numam_files_s *files) {
  return loaded.run([files] { return vorn_numam_cfg_init(files); });
}

uint32_t vorn_numam_status_get() { return status.load(kRelaxed); }

int vorn_numam_status_set(uint32_t value) {
  if (value > 1) return VORN_FAIL(-1, "Invalid numa status %u.", value);
  status.store(value, kRelaxed);
  return 0;
}

int vorn_numam_num_get() { return numa_num.load(kRelaxed); }

int vorn_numam_proc_numamask_get(uint64_t *mask) {
  if (mask == nullptr) return VORN_FAIL(-1, "Param error, munaMask is NULL.");
  uint64_t used = 0;
  each_node([&used](const Node &node) {
    if (node.used.load(kRelaxed) != 0) used |= uint64_t{1} << node.id % 64;
  });
  *mask = used;
  return 0;
}

int vorn_numam_cpuset_get(uint32_t node, uint64_t *cpuset) {
  if (cpuset == nullptr) return VORN_FAIL(-1, "Param error, cpuSet is NULL.");
  std::memset(cpuset, 0, VORN_NUMAM_CPUSET_WORDS * sizeof *cpuset);
  const Node *found = find_node(__func__, node);
  return found == nullptr ? 0 : vorn_numam_parse_cpuset(found->cpus, cpuset);
}

int vorn_numam_cpumask_get(uint32_t node, cpumask *mask) {
  if (mask == nullptr) return VORN_FAIL(-1, "Param error, munaMask is NULL.");
  init_cpumask_bit(mask, VORN_CPUMASK_WORDS);
  const Node *found = find_node(__func__, node);
  return found == nullptr ? 0 : vorn_numam_parse_cpumask(found->cpus, mask);
}

int vorn_numam_init_inner(const char *path) {
  const char *file = path != nullptr ? path : kDefaultFile;
  if (path == nullptr && vorn_access(file, F_OK) != 0) {
    VORN_LOG_RATELIMITED(vorn::kInfo, "Numa cfg %s is not access, errno:%d", file, errno);
    return 0;
  }
  VORN_LOG_RATELIMITED(vorn::kInfo, "Numa cfg %s.", file);
  if (vorn_cfg_init(file) != 0) {
    VORN_LOG(vorn::kInfo, "Load Numa cfg fail %s", file);
    return -1;
  }
  if (vorn_numam_cfg_parse() != 0) return -1;
  if (vorn_cfg_destroy_ex(file) != 0) VORN_LOG(vorn::kError, "Destroy numa cfg fail %s", file);
  return 0;
}

int vorn_numam_cfg_check(const vorn_numam_files_s *files) {
  if (files == nullptr) return VORN_FAIL(-1, "Numa cfg is NULL.");
  if (!is_name(files->numa_info)) return VORN_FAIL(-1, "Numa cfg numa_info error.");
  if (!is_name(files->node_numa)) return VORN_FAIL(-1, "Numa cfg node_numa error.");
  return 0;
}

int vorn_numam_cfg_init(const vorn_numam_files_s *files) {
  if (vorn_numam_cfg_check(files) != 0) return -1;
  if (vorn_cfg_init(files->numa_info) != 0) return load_failed(files->numa_info);
  if (vorn_cfg_init(files->node_numa) != 0) {
    vorn_cfg_destroy_ex(files->numa_info);
    return load_failed(files->node_numa);
  }
  const int result = vorn_numam_cfg_parse();
  drop_file(files->numa_info);
  drop_file(files->node_numa);
  return result;
}

int vorn_numam_cfg_parse() {
  if (vorn_numam_parse_numa_partition() != 0)
    return VORN_FAIL(-1, "Parse numa cfg CPU_PARTITION fail.");
  if (vorn_numam_parse_proc_partition() != 0)
    return VORN_FAIL(-1, "Parse numa cfg PROC_PARTITION fail.");
  return 0;
}

int vorn_numam_parse_numa_partition() {
  const int cpus = read_number(kNodes, "cpu_num");
  if (cpus < 1) return VORN_FAIL(-1, "Get cpu num fail, ret:%d", cpus);
  cpu_num.store(cpus, kRelaxed);
  const int count = read_number(kNodes, "numa_num");
  if (count < 1) return VORN_FAIL(-1, "Get numa num fail, ret:%d", count);
  numa_num.store(count, kRelaxed);
  for (int id = 0; id < count; ++id) {
    if (vorn_numam_parse_per_numa(static_cast<uint32_t>(id)) != 0) return -1;
  }
  VORN_LOG(vorn::kInfo, "Get cpu_num(%u), numa_num(%d) success.", static_cast<unsigned int>(cpus),
           count);
  return 0;
}

int vorn_numam_parse_per_numa(uint32_t node) {
  char item[32];
  vorn::snprintf_s(item, sizeof item, sizeof item - 1, "numa_%u", node);
  Value value;
  if (!read_value(kNodes, item, value)) return -1;
  auto fresh = vorn::mem::create_quietly<Node>();
  if (fresh == nullptr) return VORN_FAIL(-1, "Malloc for numaInfo fail");
  fresh->id = node;
  std::memcpy(fresh->cpus, value, sizeof value);
  vorn::list::insert_tail(&nodes, &fresh.release()->link, show_node, VORN_FILE);
  VORN_LOG(vorn::kInfo, "Get cores(%s) by numaId(%u) success.", value, node);
  return 0;
}

int vorn_numam_parse_proc_partition() {
  if (vorn_numam_parse_proc_numa_switch() != 0) return -1;
  return vorn_numam_parse_proc_numa_info();
}

int vorn_numam_parse_proc_numa_switch() {
  Value value;
  if (!read_value(kProcess, "numa_enable", value)) return -1;
  const bool enabled = std::strncmp(value, "tru", 3) == 0;
  if (!enabled && std::strncmp(value, "fals", 4) != 0)
    return VORN_FAIL(-1, "Get proc_numa_info fail, itemValue:%s", value);
  VORN_LOG(vorn::kInfo, "Get numa_enable(%s) success.", value);
  return vorn_numam_status_set(enabled ? 1 : 0);
}

int vorn_numam_parse_proc_numa_info() {
  Value value;
  if (!read_value(kProcess, "proc_numa_info", value)) return 0;
  if (vorn_numam_parse_proc_numa_set(value) != 0)
    return VORN_FAIL(-1, "Get proc_numa_info(%s) failed.", value);
  VORN_LOG(vorn::kInfo, "Get proc_numa_info(%s) success.", value);
  return 0;
}

int vorn_numam_parse_proc_numa_set(const char *list) {
  if (list == nullptr) return -1;
  const auto mark = [](std::string_view item) {
    if (item.empty()) return true;
    const long id = std::strtol(item.data(), nullptr, 10); // ends at the comma or the NUL
    if (id < 0 || id >= numa_num.load(kRelaxed)) return false;
    each_node([id](Node &node) {
      if (node.id == static_cast<uint32_t>(id)) node.used.store(1, kRelaxed);
    });
    return true;
  };
  return vorn::cpu::each_item(list, mark) ? 0 : -1;
}

int vorn_numam_parse_digit_item(const char *section, const char *item) {
  return read_number(section, item);
}
