// Creates, links, finds and destroys the nodes of a parsed file.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include "cfg/vorn_cfg_node.hpp"

#include <cstring>

#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "cfg/vorn_cfg_index.hpp"
#include "cfg/vorn_cfg_lock.hpp"
#include "cfg/vorn_cfg_text.hpp"
#include "list/vorn_list.hpp"

namespace vorn::cfg {

static_assert(sizeof(vorn_cfg_item_node_s) == 88);
static_assert(offsetof(vorn_cfg_item_node_s, link) == 0 &&
              offsetof(vorn_cfg_item_node_s, name) == 16 &&
              offsetof(vorn_cfg_item_node_s, value) == 80);
static_assert(sizeof(vorn_cfg_section_node_s) == 96);
static_assert(offsetof(vorn_cfg_section_node_s, link) == 0 &&
              offsetof(vorn_cfg_section_node_s, items) == 16 &&
              offsetof(vorn_cfg_section_node_s, name) == 32);
static_assert(offsetof(vorn_cfg_file_node_s, link) == 0 &&
              offsetof(vorn_cfg_file_node_s, sections) == 16 &&
              offsetof(vorn_cfg_file_node_s, path) == 32 &&
              offsetof(vorn_cfg_file_node_s, lock) == 288 &&
              offsetof(vorn_cfg_file_node_s, reference_count) == 296);

namespace {

vorn_cfg_item_node_s *item_of(vorn_list_head_s *link) {
  return vorn_list_entry(link, vorn_cfg_item_node_s, link);
}

vorn_cfg_section_node_s *section_of(vorn_list_head_s *link) {
  return vorn_list_entry(link, vorn_cfg_section_node_s, link);
}

void free_item(vorn_cfg_item_node_s *item) {
  vorn_free(item->value);
  vorn_free(item);
}

void free_section(vorn_cfg_section_node_s *section) {
  vorn_cfg_destroy_item(section);
  vorn_free(section);
}

} // namespace

// Shows only the links: a list's head is not inside a structure of the kind that contains its
// nodes.
void show_node(vorn_list_head_s *node) {
  VORN_LOG(kInfo, "cfg node:%p(%p,%p)", static_cast<void *>(node), static_cast<void *>(node->next),
           static_cast<void *>(node->prev));
}

void destroy_file_node(vorn_cfg_file_node_s *node) {
  {
    WriteGuard hold(node->lock);
    index_drop(node);
    vorn_cfg_destory_section(node);
  }
  vorn_free(node);
}

vorn_cfg_section_node_s *vorn_cfg_new_section_node(const char *name) {
  vorn_cfg_section_node_s *none = nullptr;
  auto section = mem::create<vorn_cfg_section_node_s>();
  if (section == nullptr) {
    return VORN_FAIL(none, "Alloc needed section memory fail, section node size (%u).",
                     static_cast<unsigned int>(sizeof *section));
  }
  vorn_list_poison(&section->link);
  vorn_list_init_head(&section->items);
  if (copy_text(section->name, sizeof section->name, name) != 0)
    return VORN_FAIL(none, "Copy section name (%s) fail in new section node.", name);
  return section.release();
}

vorn_cfg_item_node_s *vorn_cfg_new_item_node(CStringView name, CStringView value) {
  vorn_cfg_item_node_s *none = nullptr;
  auto item = mem::create<vorn_cfg_item_node_s>();
  if (item == nullptr) {
    return VORN_FAIL(none, "Alloc needed item memory fail, item node size (%u).",
                     static_cast<unsigned int>(sizeof *item));
  }
  const std::size_t size = value.size() + 1;
  mem::Block copy = mem::allocate_block(size);
  if (copy == nullptr) {
    return VORN_FAIL(none, "Alloc needed item memory fail, size(%u).",
                     static_cast<unsigned int>(size));
  }
  vorn_list_poison(&item->link);
  if (copy_text(item->name, sizeof item->name, name) != 0 ||
      copy_text(copy.get(), size, value) != 0)
    return VORN_FAIL(none, "Copy item (%s=%s) fail in new item node.", name.c_str(), value.c_str());
  item->value = copy.release();
  return item.release();
}

// The index finds the old item while it enters the new one.
void vorn_cfg_add_item_node(vorn_cfg_file_node_s *file, vorn_cfg_section_node_s *section,
                            vorn_cfg_item_node_s *item) {
  vorn_cfg_item_node_s *old = file->index == nullptr ? find_item(file, section, item->name)
                                                     : index_enter_item(file, section, item);
  if (old != nullptr) remove_item(old);
  list::insert_tail(&section->items, &item->link, show_node, VORN_FILE);
}

void append_section(vorn_cfg_file_node_s *file, vorn_cfg_section_node_s *section) {
  list::insert_tail(&file->sections, &section->link, show_node, VORN_FILE);
  index_enter_section(file, section);
}

void replace_value(vorn_cfg_item_node_s *item, mem::Block value) {
  vorn_free(item->value);
  item->value = value.release();
}

void remove_item(vorn_cfg_item_node_s *item) {
  list::remove(&item->link, show_node, VORN_FILE);
  free_item(item);
}

void remove_section(vorn_cfg_section_node_s *section) {
  list::remove(&section->link, show_node, VORN_FILE);
  free_section(section);
}

void vorn_cfg_destroy_item(vorn_cfg_section_node_s *section) {
  if (section == nullptr) return VORN_LOG(kError, "Null pointer found pSection.");
  while (vorn_list_head_s *link = vorn_list_first(&section->items))
    remove_item(item_of(link));
}

void vorn_cfg_destory_section(vorn_cfg_file_node_s *file) {
  if (file == nullptr) return VORN_LOG(kError, "Null pointer found pFile.");
  while (vorn_list_head_s *link = vorn_list_first(&file->sections))
    remove_section(section_of(link));
}

vorn_cfg_section_node_s *vorn_cfg_find_section_node(const char *name, vorn_cfg_file_node_s *file) {
  vorn_cfg_section_node_s *none = nullptr;
  if (file == nullptr) return VORN_FAIL(none, "File is NULL.");
  if (file->index != nullptr) return index_find_section(file, name);
  for (vorn_list_head_s *at = file->sections.next; at != &file->sections; at = at->next) {
    if (std::strcmp(section_of(at)->name, name) == 0) return section_of(at);
  }
  return nullptr;
}

vorn_cfg_item_node_s *find_item(const vorn_cfg_file_node_s *file,
                                const vorn_cfg_section_node_s *section, const char *name) {
  if (file->index != nullptr) return index_find_item(file, section, name);
  for (vorn_list_head_s *at = section->items.next; at != &section->items; at = at->next) {
    if (std::strcmp(item_of(at)->name, name) == 0) return item_of(at);
  }
  return nullptr;
}

vorn_cfg_item_node_s *vorn_cfg_find_item_node(vorn_cfg_file_node_s *file, const char *section,
                                              const char *name) {
  vorn_cfg_item_node_s *none = nullptr;
  const vorn_cfg_section_node_s *found = vorn_cfg_find_section_node(section, file);
  if (found == nullptr) {
    const CancellationGuard off; // the thread holds a lock
    VORN_LOG(kDebug, "Can't find section=%s", section);
    return none;
  }
  return find_item(file, found, name);
}

} // namespace vorn::cfg

using namespace vorn::cfg;

vorn_cfg_item_node_s *vorn_cfg_new_item_node_ex(const char *name, const char *value) {
  vorn_cfg_item_node_s *none = nullptr;
  if (name == nullptr || value == nullptr) return VORN_FAIL(none, "Param is null.");
  auto item = vorn::mem::create<vorn_cfg_item_node_s>();
  if (item == nullptr) return VORN_FAIL(none, "Malloc item node failed.");
  if (copy_text(item->name, sizeof item->name, name) != 0)
    return VORN_FAIL(none, "Strcpy pItemName failed.");
  const std::size_t size = std::strlen(value) + 1;
  vorn::mem::Block copy = vorn::mem::allocate_block(size);
  if (copy == nullptr) return VORN_FAIL(none, "Malloc item memory failed.");
  if (copy_text(copy.get(), size, value) != 0)
    return VORN_FAIL(none, "Strcpy_s pItemValue failed.");
  item->value = copy.release();
  vorn_list_init_head(&item->link);
  return item.release();
}
