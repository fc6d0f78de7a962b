// Edits a parsed file in memory.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include <cstring>
#include <utility>

#include "base/log.hpp"
#include "cfg/vorn_cfg_index.hpp"
#include "cfg/vorn_cfg_lock.hpp"
#include "cfg/vorn_cfg_node.hpp"
#include "cfg/vorn_cfg_text.hpp"
#include "list/vorn_list.hpp"
#include "mem/owned.hpp"

using namespace vorn::cfg;

int vorn_cfg_add_item_func(vorn_cfg_file_node_s *node, const char *section, const char *item,
                           const char *value) {
  if (node == nullptr || section == nullptr || item == nullptr || value == nullptr)
    return VORN_FAIL(-1, "Param is null.");
  if (holds_line_end(section) || holds_line_end(item) || holds_line_end(value))
    return VORN_FAIL(-1, "Section, item or value holds a line end.");
  WriteGuard hold(node->lock);
  vorn_cfg_section_node_s *old = vorn_cfg_find_section_node(section, node);
  if (old != nullptr && find_item(node, old, item) != nullptr) {
    hold.release();
    return VORN_FAIL(-1, "add item fail, item(%s) is already exist", item);
  }
  // New nodes are linked after all of them are allocated.
  vorn_cfg_section_node_s *target = old == nullptr ? vorn_cfg_new_section_node(section) : old;
  if (target == nullptr) return -1;
  vorn_cfg_item_node_s *added = vorn_cfg_new_item_node_ex(item, value);
  if (added == nullptr) {
    if (old == nullptr) vorn_free(target);
    return VORN_FAIL(-1, "new item node(%s,%s) fail.", item, value);
  }
  index_drop(node);
  if (old == nullptr) append_section(node, target);
  vorn_cfg_add_item_node(node, target, added);
  return 0;
}

int vorn_cfg_set_item_func(vorn_cfg_file_node_s *node, const char *section, const char *item,
                           const char *value) {
  if (node == nullptr || section == nullptr || item == nullptr || value == nullptr)
    return VORN_FAIL(-1, "Param is null.");
  if (holds_line_end(value)) return VORN_FAIL(-1, "Section, item or value holds a line end.");
  WriteGuard hold(node->lock);
  vorn_cfg_item_node_s *found = vorn_cfg_find_item_node(node, section, item);
  if (found == nullptr) {
    hold.release();
    return VORN_FAIL(-1, "Set item failed.item(%s) is not exist in file(%s).", item, node->path);
  }
  const std::size_t size = std::strlen(value) + 1;
  vorn::mem::Block copy = vorn::mem::allocate_block(size);
  if (copy == nullptr)
    return VORN_FAIL(-1, "Set item failed,malloc size:%d memory fail.", int_of(size));
  if (copy_text(copy.get(), size, value) != 0) return VORN_FAIL(-1, "Strcpy pItemValue fail.");
  replace_value(found, std::move(copy));
  return 0;
}

int vorn_cfg_del_item_func(vorn_cfg_file_node_s *node, const char *section, const char *item,
                           const char *) {
  if (node == nullptr || section == nullptr || item == nullptr)
    return VORN_FAIL(-1, "Param is null.");
  WriteGuard hold(node->lock);
  vorn_cfg_section_node_s *holder = vorn_cfg_find_section_node(section, node);
  if (holder == nullptr) {
    hold.release();
    return VORN_FAIL(-1, "Delete item failed.Section(%s) is not exist in file(%s).", section,
                     node->path);
  }
  vorn_cfg_item_node_s *found = find_item(node, holder, item);
  if (found == nullptr) {
    hold.release();
    return VORN_FAIL(-1, "Delete item failed.item(%s) is not exist in file(%s).", item, node->path);
  }
  index_drop(node);
  remove_item(found);
  if (vorn_list_is_empty(&holder->items)) remove_section(holder);
  return 0;
}

int vorn_cfg_del_section_func(vorn_cfg_file_node_s *node, const char *section, const char *,
                              const char *) {
  if (node == nullptr || section == nullptr) return VORN_FAIL(-1, "Param is null.");
  WriteGuard hold(node->lock);
  vorn_cfg_section_node_s *found = vorn_cfg_find_section_node(section, node);
  if (found == nullptr) {
    hold.release();
    return VORN_FAIL(-1, "Delete section(%s) is not exist in file(%s).", section, node->path);
  }
  index_drop(node);
  remove_section(found);
  return 0;
}
