// Stores the items of a parsed file in a node.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_cfg.c"
#include <cstring>

#include "base/log.hpp"
#include "cfg/vorn_cfg_index.hpp"
#include "cfg/vorn_cfg_limits.hpp"
#include "cfg/vorn_cfg_parse.hpp"

namespace vorn::cfg {
namespace {

bool vorn_cfg_check_param(const char *section, const Item &item) {
  if (section == nullptr || item.name.c_str() == nullptr || item.value.c_str() == nullptr)
    return VORN_FAIL(false, "Null pointer found, section or item.");
  if (std::strlen(section) >= kNameSize) return VORN_FAIL(false, "Section name length too long.");
  if (item.name.size() >= kNameSize) return VORN_FAIL(false, "Item name length too long.");
  if (item.value.size() >= kValueSize) return VORN_FAIL(false, "Item value length too long.");
  return true;
}

vorn_cfg_section_node_s *find_or_add_section(vorn_cfg_file_node_s *node, const char *name) {
  vorn_cfg_section_node_s *section = vorn_cfg_find_section_node(name, node);
  if (section != nullptr) return section;
  if (node->index == nullptr && vorn_list_is_empty(&node->sections)) index_start(node);
  section = vorn_cfg_new_section_node(name);
  if (section != nullptr) append_section(node, section);
  return section;
}

bool keep(vorn_cfg_file_node_s *node, const char *section_name, const Item &item) {
  if (!vorn_cfg_check_param(section_name, item)) return false;
  vorn_cfg_section_node_s *section = find_or_add_section(node, section_name);
  if (section == nullptr) return false;
  vorn_cfg_item_node_s *added = vorn_cfg_new_item_node(item.name, item.value);
  if (added == nullptr) return false;
  vorn_cfg_add_item_node(node, section, added);
  return true;
}

} // namespace

int vorn_cfg_file_proc(vorn_cfg_file_node_s *node, const char *section, const Item &item,
                       void *context) {
  if (keep(node, section, item)) return kContinue;
  VORN_LOG(kError, "Set config [%s] : %s = %s fail.", section, item.name.c_str(),
           item.value.c_str());
  if (context != nullptr) *static_cast<bool *>(context) = false;
  return kContinue;
}

} // namespace vorn::cfg
