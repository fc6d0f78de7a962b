// Declares the index that finds sections and items by name without a walk of the lists, for files
// with many items. The index gives the same answer as a walk: the first of several equal names. It
// exists only while the library alone changes the lists: during a parse and in the registry. If
// memory runs out there is no index, and the lists are walked.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_INDEX_HPP
#define VORN_CFG_INDEX_HPP

#include <cstdint>
#include <string_view>

#include "vorn_cfg.h"

// Two hash tables with open addressing, whose keys are the names in the nodes.
struct vorn_cfg_index {
  struct Slot {
    std::uint64_t hash;
    char *name; // of a section or an item; null if the slot is free
  };

  struct Table {
    Slot *slots;
    std::uint32_t size;  // a power of 2
    std::uint32_t shift; // moves the highest bits of a hash to the number of a slot
    std::uint32_t used;
  };

  Table sections;
  Table items;
};

namespace vorn::cfg {

// Creates the index of a node without sections, if there is memory.
void index_start(vorn_cfg_file_node_s *node);

// Creates the index of any node, if there is memory.
void index_build(vorn_cfg_file_node_s *node);

// Called before a caller may change the lists.
void index_drop(vorn_cfg_file_node_s *node);

// Look a name up; return null if there is none. node must have an index.
vorn_cfg_section_node_s *index_find_section(const vorn_cfg_file_node_s *node,
                                            std::string_view name);
vorn_cfg_item_node_s *index_find_item(const vorn_cfg_file_node_s *node,
                                      const vorn_cfg_section_node_s *section,
                                      std::string_view name);

// Enter a section or an item, if node has an index. Return the one of the same name that it
// replaces in the index, which must still exist, or null.
vorn_cfg_section_node_s *index_enter_section(vorn_cfg_file_node_s *node,
                                             vorn_cfg_section_node_s *section);
vorn_cfg_item_node_s *index_enter_item(vorn_cfg_file_node_s *node,
                                       const vorn_cfg_section_node_s *section,
                                       vorn_cfg_item_node_s *item);

} // namespace vorn::cfg

#endif
