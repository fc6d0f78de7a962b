// Finds sections and items by their names without walking: what a file of 100,000 items needs while
// it is parsed, and a lookup afterwards. The index answers as a walk along the lists would, with
// the first of several equal names. It exists only while the library alone changes the lists:
// during a parse and in the registry. Without memory for it there is none, and the lists are
// walked.
#ifndef VORN_CFG_INDEX_HPP
#define VORN_CFG_INDEX_HPP

#include <cstdint>
#include <string_view>

#include "vorn_cfg.h"

// A hash table with open addressing. A slot holds a section, or an item beside its section.
struct vorn_cfg_index {
  struct Slot {
    vorn_cfg_section_node_s *section; // null: the slot is free
    vorn_cfg_item_node_s *item;       // null: the slot is the section's own
    std::uint32_t hash;
  };

  Slot *slots;
  std::uint32_t size; // a power of 2
  std::uint32_t used;
};

namespace vorn::cfg {

// Gives an empty node an index, if there is memory.
void index_start(vorn_cfg_file_node_s *node);

// Gives node, of whatever content, an index, if there is memory.
void index_build(vorn_cfg_file_node_s *node);

// Before someone else may change the lists.
void index_drop(vorn_cfg_file_node_s *node);

// The lookups; null when there is no such name. node has an index.
vorn_cfg_section_node_s *index_find_section(const vorn_cfg_file_node_s *node,
                                            std::string_view name);
vorn_cfg_item_node_s *index_find_item(const vorn_cfg_file_node_s *node,
                                      const vorn_cfg_section_node_s *section,
                                      std::string_view name);

// Enter a section or an item, in the place of one of the same name, if node has an index. What is
// replaced so must still exist.
void index_enter_section(vorn_cfg_file_node_s *node, vorn_cfg_section_node_s *section);
void index_enter_item(vorn_cfg_file_node_s *node, vorn_cfg_section_node_s *section,
                      vorn_cfg_item_node_s *item);

} // namespace vorn::cfg

#endif
