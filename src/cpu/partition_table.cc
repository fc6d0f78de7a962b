// Loads the partitions from the product file, once.
//
// The load may wait for the script that makes that file. fork() does not wait for the load: a child
// drops an incomplete table and loads anew.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cpu.c"
#include "cpu/partition_table.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <unistd.h>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "base/ratelimit.hpp"
#include "cpu/settings.hpp"
#include "list/vorn_list.hpp"
#include "mem/owned.hpp"
#include "vorn_cmd.h"
#include "vorn_fileops.h"

namespace vorn::cpu {

constinit PartitionTable partition_table{{&partition_table.groups, &partition_table.groups}, 0};

namespace {

constexpr char kLoad[] = "vorn_cpum_init"; // the function that log messages name

constexpr char kProductFile[] = "/WRK/conf/app_data/kelp/product.ini";
constexpr char kGenerator[] =
    "/WRK/component/pyr/script/gen_product_ini.sh \"/WRK/conf/app_data/kelp/\"";

constinit UngatedOnce loaded{OncePolicy::kLatch};

void forget_table() {
  vorn_list_init_head(&partition_table.groups);
  partition_table.partition_count = 0;
}

const ForkChild forget_unfinished_load{[] {
  loaded.renew();
  if (!loaded.done()) forget_table();
}};

bool exists(const char *path) { return vorn_access(path, F_OK) == 0; }

void show_node(vorn_list_head_s *node) {
  VORN_LOG(kInfo, "cpu partition node:%p(%p,%p)", static_cast<void *>(node),
           static_cast<void *>(node->next), static_cast<void *>(node->prev));
}

// Parses a value "name:type:CPUs" into a partition of zero bytes. Returns false if it has fewer
// fields. Cuts a name that does not fit.
bool fill(Partition &partition, const Value &value) {
  static_assert(sizeof value <= sizeof partition.cpubind);
  const char *type = std::strchr(value, ':');
  const char *cpubind = type == nullptr ? nullptr : std::strchr(type + 1, ':');
  if (cpubind == nullptr) return false;
  const auto length = static_cast<std::size_t>(type - value);
  std::memcpy(partition.name, value, std::min(length, sizeof partition.name - 1));
  partition.type = static_cast<uint32_t>(std::strtol(type + 1, nullptr, 10));
  std::memcpy(partition.cpubind, cpubind + 1, std::strlen(cpubind + 1));
  return true;
}

// The name of an item, "partition_0" and so on. A file has thousands of them: the formatter would
// take as long as the lookup.
class ItemName {
public:
  explicit ItemName(int index) {
    char *end = std::copy_n(kPrefix, sizeof kPrefix - 1, text_);
    *std::to_chars(end, std::end(text_) - 1, index).ptr = '\0';
  }
  const char *c_str() const { return text_; }

private:
  static constexpr char kPrefix[] = "partition_";
  char text_[VORN_CPUM_NAME_SIZE];
};

void load_partition(Group &group, int index) {
  const ItemName item(index);
  Value value;
  if (!read_value(group.name, item.c_str(), value)) return;
  mem::Owned<Partition> partition = mem::create_quietly<Partition>(kLoad);
  if (partition == nullptr || !fill(*partition, value)) return;
  partition->index = partition_table.partition_count++;
  list::insert_tail(&group.partitions, &partition.release()->link, show_node, VORN_FILE, kLoad);
}

void load_group(int index) {
  char name[VORN_CPUM_NAME_SIZE];
  snprintf_s(name, sizeof name, sizeof name - 1, "GROUP_%d", index);
  const int count = read_number(name, "partition_num");
  if (count <= 0) {
    VORN_LOG_AS(kLoad, kInfo, "Get cpu partition num fail, %s", name);
    return;
  }
  mem::Owned<Group> group = mem::create_quietly<Group>(kLoad);
  if (group == nullptr) {
    VORN_LOG_AS(kLoad, kInfo, "Malloc for group fail");
    return;
  }
  std::memcpy(group->name, name, sizeof name);
  vorn_list_init_head(&group->partitions);
  for (int i = 0; i < count; ++i)
    load_partition(*group, i);
  list::insert_tail(&partition_table.groups, &group.release()->link, show_node, VORN_FILE, kLoad);
}

int parse_file(const char *path) {
  if (vorn_cfg_init(path) != 0) {
    VORN_LOG_AS(kLoad, kInfo, "Load cpu cgroup cfg fail %s", path);
    return -1;
  }
  const int count = read_number("CPU_PARTITION", "group_num");
  if (count <= 0) {
    VORN_LOG_AS(kLoad, kInfo, "Get cpu num fail, ret:%d", count);
    return -1;
  }
  for (int i = 0; i < count; ++i)
    load_group(i);
  return 0;
}

// Returns the product file, and has the script make it if it is missing; NULL if that fails.
const char *product_file() {
  if (exists(kProductFile)) return kProductFile;
  const int result = vorn_system_s(kGenerator, nullptr);
  if (result != 0)
    VORN_LOG_RATELIMITED_AS(kLoad, kInfo, kInfo, "Generate default cpu group cfg ret:%d", result);
  return exists(kProductFile) ? kProductFile : nullptr;
}

// Returns path, or the product file if path is NULL; NULL if there is no such file.
const char *existing_file(const char *path) {
  if (path == nullptr) return product_file();
  if (exists(path)) return path;
  VORN_LOG_RATELIMITED_AS(kLoad, kInfo, kInfo, "Cpu group cfg %s is not exist, errno:%d", path,
                          errno);
  return nullptr;
}

int load(const char *path) {
  const char *file = existing_file(path);
  if (file == nullptr) {
    VORN_LOG_RATELIMITED_AS(kLoad, kInfo, kInfo, "Invalid cpu group cfg %s",
                            path != nullptr ? path : "(null)");
    return -1;
  }
  const int result = parse_file(file);
  if (result != 0) VORN_LOG_AS(kLoad, kInfo, "Parse cpu group cfg fail %s", file);
  return result;
}

} // namespace

bool partitions_loaded() { return loaded.done(); }

} // namespace vorn::cpu

using namespace vorn::cpu;

int vorn_cpum_init(const char *path) {
  return loaded.run([path] { return load(path); });
}
