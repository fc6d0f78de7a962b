// Declares the nodes of a parsed file. A thread that uses a registered file holds the file's lock.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_NODE_HPP
#define VORN_CFG_NODE_HPP

#include <memory>

#include "base/c_string_view.hpp"
#include "mem/owned.hpp"
#include "vorn_cfg.h"

namespace vorn::cfg {

// The dump routine of these lists.
void show_node(vorn_list_head_s *node);

// Frees a file that is no longer registered. Takes its lock first, which waits for the threads that
// still read it.
void destroy_file_node(vorn_cfg_file_node_s *node);

struct DestroyFileNode {
  void operator()(vorn_cfg_file_node_s *node) const { destroy_file_node(node); }
};
using FileNode = std::unique_ptr<vorn_cfg_file_node_s, DestroyFileNode>;

// Create a section or an item that is on no list. On failure, log an error and return null.
vorn_cfg_section_node_s *vorn_cfg_new_section_node(const char *name);
vorn_cfg_item_node_s *vorn_cfg_new_item_node(CStringView name, CStringView value);

// Appends item, and frees an item of the same name.
void vorn_cfg_add_item_node(vorn_cfg_file_node_s *file, vorn_cfg_section_node_s *section,
                            vorn_cfg_item_node_s *item);
void append_section(vorn_cfg_file_node_s *file, vorn_cfg_section_node_s *section);

void replace_value(vorn_cfg_item_node_s *item, mem::Block value);

// Unlink and free a node, or all nodes below it.
void remove_item(vorn_cfg_item_node_s *item);
void remove_section(vorn_cfg_section_node_s *section);
void vorn_cfg_destroy_item(vorn_cfg_section_node_s *section);
void vorn_cfg_destory_section(vorn_cfg_file_node_s *file);

// Return the first one of the name, or null.
vorn_cfg_section_node_s *vorn_cfg_find_section_node(const char *name, vorn_cfg_file_node_s *file);
vorn_cfg_item_node_s *find_item(const vorn_cfg_file_node_s *file,
                                const vorn_cfg_section_node_s *section, const char *name);

// Finds an item of a file. Logs a missing section.
vorn_cfg_item_node_s *vorn_cfg_find_item_node(vorn_cfg_file_node_s *file, const char *section,
                                              const char *name);

} // namespace vorn::cfg

#endif
