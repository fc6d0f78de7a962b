// Implements the registry of parsed files.
//
// Order of locks: the registry's lock, then a file's lock. A thread that registers or removes a
// file, or changes a value of a registered file, holds the registry's lock for writing. So a lookup
// in all files holds only that lock: what it finds stays as it is until it releases the lock. A
// lookup in one file takes the file's lock, and then releases the registry's lock: a thread that
// frees a file takes the file's lock after it has removed the file from the registry.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_cfg.h"

#include <cstring>
#include <string_view>
#include <utility>

#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "base/ratelimit.hpp"
#include "base/unique_fd.hpp"
#include "cfg/vorn_cfg_index.hpp"
#include "cfg/vorn_cfg_lock.hpp"
#include "cfg/vorn_cfg_parse.hpp"
#include "cfg/vorn_cfg_registry.hpp"
#include "cfg/vorn_cfg_text.hpp"
#include "list/vorn_list.hpp"
#include "mem/owned.hpp"

namespace vorn::cfg {
namespace {

constinit vorn_list_head_s vorn_cfg_file_list = {&vorn_cfg_file_list, &vorn_cfg_file_list};

// The number of registrations so far; guarded by the registry's lock.
constinit unsigned long registrations = 0;

vorn_cfg_file_node_s *file_of(vorn_list_head_s *link) {
  return vorn_list_entry(link, vorn_cfg_file_node_s, link);
}

// The callers of the functions from here to unlink_file hold the registry's lock.

vorn_cfg_file_node_s *next_file(const vorn_cfg_file_node_s *file) {
  vorn_list_head_s *link = file == nullptr ? vorn_list_first(&vorn_cfg_file_list)
                                           : vorn_list_next(&vorn_cfg_file_list, &file->link);
  return link == nullptr ? nullptr : file_of(link);
}

vorn_cfg_file_node_s *find_file(const char *path) {
  for (vorn_cfg_file_node_s *file = next_file(nullptr); file != nullptr; file = next_file(file)) {
    if (std::strcmp(file->path, path) == 0) return file;
  }
  return nullptr;
}

// Inserts at the head: the newest file comes first.
void link_file(vorn_cfg_file_node_s *file) {
  ++registrations;
  list::insert_tail(vorn_cfg_file_list.next, &file->link, show_node, VORN_FILE);
}

FileNode unlink_file(vorn_cfg_file_node_s *file) {
  list::remove(&file->link, show_node, VORN_FILE);
  return FileNode(file);
}

// Registers file, and replaces a registered file of the same path.
void register_file(FileNode file) {
  FileNode old; // freed after the registry's lock is released
  RegistryWriteGuard registry;
  vorn_cfg_file_node_s *registered = find_file(file->path);
  file->reference_count = 1;
  if (registered != nullptr) {
    file->reference_count += registered->reference_count;
    old = unlink_file(registered);
  }
  link_file(file.release());
}

// Copies a value for a setter, and stores the result of the copy in *error. Returns null after an
// error message if memory runs out.
mem::Block copy_value(const char *function, const char *value, int *error) {
  const std::size_t size = std::strlen(value) + 1;
  mem::Block copy = mem::allocate_block(size, function);
  if (copy == nullptr) {
    VORN_LOG_AS(function, kError, "Alloc needed item memory fail, size(%u).",
                static_cast<unsigned int>(size));
    return copy;
  }
  *error = copy_text(copy.get(), size, value);
  return copy;
}

int give_too_small(const char *function, unsigned int size, std::size_t actual) {
  return VORN_FAIL_AS(function, VORN_CFG_TOO_SMALL,
                      "Invalid Buffer size, inputSize(%u), actualSize(%u).", size,
                      static_cast<unsigned int>(actual));
}

} // namespace

unsigned long update_file(vorn_cfg_file_node_s *file) {
  index_build(file);
  FileNode old; // freed after the registry's lock is released
  const RegistryWriteGuard registry;
  vorn_cfg_file_node_s *registered = find_file(file->path);
  if (registered == nullptr) {
    index_drop(file);
    return kNotRegistered;
  }
  file->reference_count = registered->reference_count;
  old = unlink_file(registered);
  link_file(file);
  return registrations;
}

bool is_latest(unsigned long registration) {
  const RegistryReadGuard registry;
  return registrations == registration;
}

bool is_registered(const char *path) {
  const RegistryReadGuard registry;
  return find_file(path) != nullptr;
}

void read_again(const char *path) {
  UniqueFd source;
  do {
    FileNode file = vorn_cfg_ini_file_parse(path, vorn_cfg_file_proc, nullptr, &source);
    if (file == nullptr || vorn_cfg_updateFileNode(file.get()) != 0) return;
    file.release();
  } while (is_replaced(path, source.get()));
}

} // namespace vorn::cfg

using namespace vorn::cfg;

vorn_rwlock_s g_stCfgRwlock = VORN_RWLOCK_INIT;

int vorn_cfg_init(const char *path) { return vorn_cfg_init_ex(path); }

int vorn_cfg_init_ex(const char *path) {
  if (path == nullptr) {
    VORN_LOG(vorn::kInfo, "Input File is NULL pointer.");
    return -1;
  }
  vorn::UniqueFd source;
  FileNode file = vorn_cfg_ini_file_parse(path, vorn_cfg_file_proc, nullptr, &source);
  if (file == nullptr) {
    VORN_LOG(vorn::kDebug, "Parse config file %s failed.", path);
    return -1;
  }
  register_file(std::move(file));
  // A concurrent edit may have replaced the file and its registered content since the file was
  // read. An edit that has not yet replaced the file will notice this registration.
  if (is_replaced(path, source.get())) read_again(path);
  return 0;
}

int vorn_cfg_destroy() {
  RegistryWriteGuard registry;
  while (vorn_list_head_s *link = vorn_list_first(&vorn_cfg_file_list))
    unlink_file(file_of(link));
  return 0;
}

int vorn_cfg_destroy_ex(const char *path) {
  if (path == nullptr) return 0;
  FileNode old; // freed after the registry's lock is released
  RegistryWriteGuard registry;
  vorn_cfg_file_node_s *file = find_file(path);
  if (file != nullptr && --file->reference_count == 0) old = unlink_file(file);
  return 0;
}

int vorn_cfg_getItemValue(const char *section, const char *item, char *buf, unsigned int size) {
  if (section == nullptr || item == nullptr || size == 0) {
    VORN_LOG(vorn::kInfo, "Invalid SectionName or ItemName or size in getItemValue.");
    return -1;
  }
  {
    RegistryReadGuard registry;
    for (auto *file = next_file(nullptr); file != nullptr; file = next_file(file)) {
      const vorn_cfg_item_node_s *found = vorn_cfg_find_item_node(file, section, item);
      if (found == nullptr) continue;
      const std::string_view value = found->value;
      if (const std::size_t needed = value.size() + 1; size < needed) {
        registry.release();
        return give_too_small(__func__, size, needed);
      }
      if (copy_text(buf, size, value) == 0) return 0;
    }
  }
  VORN_LOG_RATELIMITED(vorn::kWarning, "Get ItemValue by pSection %s and pItemName %s failed.",
                       section, item);
  return -1;
}

int vorn_cfg_getItemValue_ex(const char *path, const char *section, const char *item, char *buf,
                             unsigned int size) {
  if (path == nullptr || section == nullptr || item == nullptr || buf == nullptr || size == 0)
    return VORN_FAIL(-1, "Invalid SectionName or ItemName or size in getItemValue_ex.");
  RegistryReadGuard registry;
  vorn_cfg_file_node_s *file = find_file(path);
  if (file == nullptr) {
    registry.release();
    return VORN_FAIL(-1, "Can not find file %s.", path);
  }
  ReadGuard hold(file->lock);
  registry.release();
  const vorn_cfg_item_node_s *found = vorn_cfg_find_item_node(file, section, item);
  if (found == nullptr) return -1;
  const std::string_view value = found->value;
  if (const std::size_t needed = value.size() + 1; size < needed) {
    hold.release();
    return give_too_small(__func__, size, needed);
  }
  const int result = copy_text(buf, size, value);
  if (result == 0) return 0;
  const vorn::CancellationGuard off; // the thread holds the file's lock
  return VORN_FAIL(-1, "Copy fail:%d, item size:%u, item value:%s.", result,
                   static_cast<unsigned int>(value.size() + 1), found->value);
}

int vorn_cfg_setItemValue(const char *section, const char *item, const char *value) {
  if (section == nullptr || item == nullptr || value == nullptr) {
    return VORN_FAIL(-1, "Null pointer found, section:%p itemname:%p itemValue:%p",
                     pointer(section), pointer(item), pointer(value));
  }
  int error = 0;
  vorn::mem::Block copy = copy_value(__func__, value, &error);
  if (copy == nullptr) return -1;
  if (error != 0) return VORN_FAIL(-1, "strncpy_s failed, errno:%d", error);

  const RegistryWriteGuard registry;
  for (auto *file = next_file(nullptr); file != nullptr; file = next_file(file)) {
    const WriteGuard hold(file->lock);
    vorn_cfg_item_node_s *found = vorn_cfg_find_item_node(file, section, item);
    if (found == nullptr) continue;
    replace_value(found, std::move(copy));
    return 0;
  }
  return -1;
}

int vorn_cfg_setItemValue_ex(const char *path, const char *section, const char *item,
                             const char *value) {
  if (path == nullptr || section == nullptr || item == nullptr || value == nullptr) {
    return VORN_FAIL(-1, "Null pointer found, section:%p itemname:%p itemValue:%p",
                     pointer(section), pointer(item), pointer(value));
  }
  int error = 0;
  vorn::mem::Block copy = copy_value(__func__, value, &error);
  if (copy == nullptr) return -1;
  if (error != 0) return VORN_FAIL(-1, "Can not do strncpy_s, errno (%d).", error);

  RegistryWriteGuard registry;
  vorn_cfg_file_node_s *file = find_file(path);
  if (file == nullptr) {
    registry.release();
    return VORN_FAIL(-1, "Config file (%s) is no exist.", path);
  }
  WriteGuard hold(file->lock);
  vorn_cfg_item_node_s *found = vorn_cfg_find_item_node(file, section, item);
  if (found == nullptr) {
    hold.release();
    registry.release();
    return VORN_FAIL(-1, "Can not find item (%s) in file (%s).", item, path);
  }
  replace_value(found, std::move(copy));
  return 0;
}

int vorn_cfg_updateFileNode(vorn_cfg_file_node_s *node) {
  if (node == nullptr) return VORN_FAIL(-1, "Param is null.");
  return update_file(node) == kNotRegistered ? -1 : 0;
}
